#ifndef MEDIAD_SIMULATION_APPLIANCE_H
#define MEDIAD_SIMULATION_APPLIANCE_H

// The hardware and the kernel: slots with their pins, disks that come and go, what is mounted where, announcements and
// file events on their way to the daemon, the card's registers.

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "config_events.h"
#include "simulation/medium.h"
#include "slots/storage_slot.h"

namespace simulation {

struct World;

struct SlotHardware {
    eStorageSlot_t id;
    std::string name;
    std::string address; // in the kernel's physical path
    std::string scanPath;
    unsigned int pinMask;
    // One light-emitting diode a slot: the daemon commands several in the order of their addresses, which no seed knows.
    bool ledIsParameter;
    unsigned int ledBit;
    eParam_t ledParameter;
    Medium* medium = nullptr;
    bool pin = false;       // what the sensor says, sooner or later
    bool released = false;  // a client has asked for another slot since the medium came
};

struct Disk {
    std::string name; // "sdb"
    SlotHardware* slot;
    Medium* medium;
    int serial;
    Nanoseconds since; // when it appeared
    const SlotHardware* nameBefore; // the slot whose disk had the name last; null where none had
    bool pulled = false; // the kernel has not noticed yet
};

struct Mount {
    std::string disk;
    std::string mountPoint;
    Medium* medium;
    bool readOnly;
    bool dead = false;      // its disk is gone
    bool inherited = false; // made by a daemon that is gone
    bool stays = false;     // it could not be unmounted, or did not get its scheduler
    bool guarded = false;   // its links lead nowhere
    bool unmountFailed = false; // the tool did
    std::string line() const;
};

class Appliance {
public:
    static constexpr unsigned int kPinRegister = 61;
    static constexpr unsigned int kLEDRegister = 62;

    explicit Appliance(World& world);

    // --- The board

    std::string boardId() const { return "0000ec01"; }
    std::string specification() const;
    std::vector<SlotHardware>& slots() { return _slots; }
    SlotHardware* slot(eStorageSlot_t id);
    std::list<Medium>& media() { return _media; }
    std::map<unsigned int, unsigned int>& registers() { return _registers; }
    bool hasCfHack() const { return _cfHack; }
    bool hasFirewire() const { return _firewire; }

    // --- The operator's hands

    void insert(SlotHardware& slot, Medium& medium);
    void pull(SlotHardware& slot);

    // --- Disks

    Disk* disk(const std::string& name);
    Disk* disk(int serial);
    Disk* diskIn(const SlotHardware& slot);
    // The disk whose data partition is that node ("/dev/sdb2"), while its card answers.
    Disk* partition(const std::string& node);
    void probe(SlotHardware& slot);
    void deleteDisk(const std::string& name);
    // What is mounted is written; or what is mounted there, and what comes later is not waited for.
    void syncAll();
    void sync(const std::string& mountPoint);
    // The disk that a tool has opened exclusively, as fsck and mkfs do; empty while there is none.
    std::string& claimed() { return _claimed; }

    // --- Announcements

    void repeatAnnouncements();
    void forgeAnnouncement(const std::string& datagram);
    std::deque<std::string>& announcements() { return _announcements; }
    std::uint32_t dropped() const { return _dropped; }
    void closeListener();
    void openListener();

    // --- Mounts

    const std::vector<Mount>& mounts() const { return _mounts; }
    void daemonBegins();
    void daemonEnds();
    void lastMountStays() {
        if (!_mounts.empty()) _mounts.back().stays = true;
    }
    void unmountFails(const std::string& mountPoint) {
        if (Mount* const mount = mountAt(mountPoint)) mount->unmountFailed = mount->stays = true;
    }
    Mount* mountAt(const std::string& mountPoint);
    bool isMounted(const std::string& disk) const;
    bool isMounted(const Medium& medium) const;
    // 0 or the tool's status.
    int mount(const std::string& node, const std::string& mountPoint);
    int unmount(const std::string& mountPoint, bool lazy);
    // The real folder that stands for the mount point now.
    std::string folderAt(const std::string& mountPoint) const;
    // A link for every mount point to what is mounted there.
    void makeMountPoint(const std::string& mountPoint);

    // --- File events

    struct FileEvent {
        std::uint32_t mask;
        std::string name;
    };
    int openWatcher();
    void closeWatcher();
    // -1 when there is no such folder.
    int addWatch(const std::string& path, std::uint32_t mask);
    int removeWatch(int watch);
    std::deque<FileEvent>& fileEvents() { return _fileEvents; }
    int watch() const { return _watch; }
    // What happened to a file in the maker directory of a medium.
    void fileEvent(const Medium& medium, const std::string& name, std::uint32_t mask);

    // Other files the daemon makes, removes and asks for, and the endpoint's.
    std::map<std::string, std::string>& files() { return _files; }

private:
    void setPinLater(SlotHardware& slot);
    void diskAppears(SlotHardware& slot);
    void diskVanishes(std::string name); // by value: it may be the name in the disk itself
    void announce(const std::string& disk, const SlotHardware& slot, bool comes);
    void send(const std::string& datagram);
    void deliver(const std::string& datagram);
    void showMounts(const std::string& mountPoint);
    void unmounted(const Mount& mount);

    World& _world;
    std::vector<SlotHardware> _slots;
    std::list<Medium> _media;
    std::list<Disk> _disks;
    int _lastSerial = 0;
    std::vector<Mount> _mounts;
    std::deque<std::string> _announcements;
    std::vector<std::pair<std::string, SlotHardware*>> _vanished; // disks that are gone, for the repetition
    Nanoseconds _lastDelivery = 0; // of all that have been sent
    std::uint32_t _dropped = 0;
    bool _listening = false;
    std::map<unsigned int, unsigned int> _registers;
    std::map<std::string, std::string> _files;
    bool _cfHack = false;
    bool _firewire = false;
    std::string _claimed;
    int _driverMisses = 0;

    const Medium* _watched = nullptr;
    std::uint32_t _watchMask = 0;
    int _watch = -1;
    int _lastWatch = 0;
    std::size_t _watchCapacity = 0;
    std::deque<FileEvent> _fileEvents;

public:
    // Whether the board's driver is up: it may take a few tries.
    bool driverAnswers() { return _driverMisses-- <= 0; }
};

} // namespace simulation

#endif
