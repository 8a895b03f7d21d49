#ifndef MEDIAD_SLOTS_SLOT_H
#define MEDIAD_SLOTS_SLOT_H

#include <mutex>
#include <set>
#include <string>

#include "slots/slot_sensor.h"
#include "slots/storage_slot.h"

class FileUtils;
class SlotLED;

// What the kernel last said about a slot's block device, read in one step.
struct SlotAnnouncement {
    bool recognized = false;    // the device is there
    bool newlyInserted = false; // it was announced, and nobody has taken notice yet
    std::string devname;        // such as "sdb", without "/dev/"; empty when the device is gone

    bool operator==(const SlotAnnouncement&) const = default;
};

// One storage slot of the board and the little that is known about the medium in it.
//
// Threads: what is known of the device (the announcement's fields, whether it has gone, how often it was announced) is
// guarded by the slot's lock; the hot-plug thread changes it, the manager's threads read and clear it. Everything else is
// written while the board specification is parsed, before there are other threads, or belongs to the manager's threads
// alone (the presence checks).
//
// A copy has the same LEDs, sensor and shell object (none of them owned) and a lock of its own.
class Slot {
public:
    Slot();
    Slot(const Slot& other);
    Slot& operator=(const Slot& other);
    virtual ~Slot();

    // The slot that every lookup without a result gives. There is one in the process; changes made to it stay on it.
    static Slot& getUnknownSlot();

    void setSlotID(eStorageSlot_t slotID) { _slotID = slotID; }
    eStorageSlot_t getSlotID() const { return _slotID; }

    // "S1", "S2", "D1", "D2", or what the board specification file says instead.
    void setName(std::string name);
    std::string getName() const { return _name; }

    // Text that the kernel's physical path of the slot's device contains.
    void setAddress(std::string address);
    std::string getAddress() const { return _address; }

    // File that rescans the slot's bus.
    void setScanPath(std::string scanPath);
    std::string getScanPath() const { return _scanPath; }

    // The announcement's fields one by one; each call takes the lock.
    void setDevname(std::string devname);
    std::string getDevname() const;
    void setRecognizedByTheDriver(bool recognized);
    bool isRecognizedByTheDriver() const;
    void setNewlyInserted(bool newlyInserted);
    bool isNewlyInserted() const;

    // For the hot-plug thread: the device `devname` has come, the device has gone. A removal leaves the
    // newly-inserted mark as it is.
    void announce(const std::string& devname);
    void retract();

    // For the manager, which takes its time to delete a device from the bus, while the next one may be announced: as
    // retract, or the newly-inserted mark alone taken away, but only if nothing was announced since `announcements` were
    // counted.
    unsigned int announcements() const;
    void retractSince(unsigned int announcements);
    void clearNewlyInsertedSince(unsigned int announcements);

    // For the manager: all three fields as they stood together; take clears the newly-inserted mark as it reads it.
    SlotAnnouncement readAnnouncement() const;
    SlotAnnouncement takeAnnouncement();
    // Whether the device has gone since the announcement was taken last: what is announced now may be another medium.
    bool hasGone() const;

    void setSensor(const SlotSensor& sensor) { _sensor = sensor; }
    void setSystem(FileUtils* system) { _system = system; }

    // Command lines for a medium that has come or gone; an empty one runs nothing.
    void setCFHackPresentString(std::string line);
    void setCFHackNotPresentString(std::string line);

    // The slot capabilities that a board specification file may name.
    static const std::set<std::string>& knownCapabilities;
    static bool isKnownCapability(const std::string& capability);
    void addCapability(const std::string& capability);
    bool hasCapability(const std::string& capability) const;

    void addLED(SlotLED* led);
    std::set<SlotLED*> getLEDs() const { return _leds; }
    const std::set<SlotLED*>& leds() const { return _leds; } // the same, without a copy

    // Reads the sensor and, when the result differs from the last one (it always does the first time), runs the
    // command line for it, waiting for it to end. For the manager's threads; no lock is held.
    bool isPresent();

    // The result of the last check; true before the first one.
    bool getLastPresentResult() const { return _lastPresentResult != 0; }

    // Recognized by the driver and present; the sensor of an unrecognized slot is not read.
    bool isReady();

private:
    static constexpr int kNeverChecked = 3; // differs from both results of a check

    static Slot* _unknownSlot;

    void forgetDevice(); // under _lock

    eStorageSlot_t _slotID = eStorageSlotUnknown;
    mutable std::mutex _lock;
    bool _recognizedByTheDriver = false; // guarded by _lock
    std::string _name = "Unknown Slot";
    std::string _devname; // guarded by _lock
    std::string _address;
    std::string _scanPath;
    std::set<std::string> _capabilities;
    std::set<SlotLED*> _leds;
    SlotSensor _sensor;
    std::string _cfHackPresentString;
    std::string _cfHackNotPresentString;
    FileUtils* _system = nullptr;
    int _lastPresentResult = kNeverChecked;
    bool _newlyInserted = false; // guarded by _lock
    bool _gone = false;          // guarded by _lock; no part of a copy
    unsigned int _announcements = 0; // guarded by _lock; no part of a copy
};

#endif
