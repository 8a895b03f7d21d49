#ifndef MEDIAD_SLOTS_SLOT_LISTENER_H
#define MEDIAD_SLOTS_SLOT_LISTENER_H

// The board: its slots, their order, its capabilities and its free-form strings, as the board specification file
// describes them; and the thread that keeps the slots up to date with what the kernel says about their devices.
//
// A board specification file is a chunk of Lua 5.2. It is run once, and leaves these globals:
//
//   board_id              number            the board that the file describes
//   mediaCapabilities     list of strings   of knownCapabilities; may be empty, must be there
//   specification         table
//     .slots              list of tables    one a slot, every field optional (missing: "" or 0):
//        .name            string            "S1", "S2", "D1" or "D2"; any other name gives the slot id 0
//        .address         string            text in the kernel's physical path of the slot's device
//        .scanPath        string            file that rescans the slot's bus
//        .capabilities    list of strings   "writeable", "proreshq"
//        .status          list of tables    LEDs: type = "register" with reg and bit, or type = "parameter" with param
//        .present         table             presence sensor: reg, mask, shift
//        .cf_hack_present, .cf_hack_not_present
//                         string            command lines for a medium that comes or goes; only with "cf_hack"
//     .nextSlot           slot = slot       successors by name; "default" is what follows no slot at all
//   usefulStrings         string = string   the media manager's command lines
//
// The file is the board maker's: it is trusted as the daemon itself is. One that never ends or eats all memory keeps
// the daemon from starting; that is not guarded against.
//
// Sources: slot_listener.cpp (life and questions), board_specification.cpp (the parser), hot_plug.cpp (the thread).

#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "classes/os/operating_system.h"
#include "slots/slot.h"
#include "slots/slot_led.h"
#include "slots/storage_slot.h"

class Card;
class Config;
class FileUtils;
struct lua_State;

class SlotListener {
public:
    // `config` and `card` are handed to the LEDs and sensors; they are not owned and must outlive the listener's use.
    SlotListener(Config* config, Card* card, OperatingSystem& os = OperatingSystem::host());

    // Ends the hot-plug thread and waits until it has let go. The LEDs are destroyed with the listener.
    virtual ~SlotListener();
    SlotListener(const SlotListener&) = delete;
    SlotListener& operator=(const SlotListener&) = delete;

    // ---- The board. Parsed once, before listen and before anybody asks; afterwards its structure does not change, so
    // ---- every thread may ask, getUsefulString excepted.

    // Runs and reads `specificationText`. `expectedBoardId` is "0x" and eight lower-case digits, compared as text.
    // `system` goes into every slot of a board with "cf_hack". 0, or -1 after one line on standard error; what was read
    // before the failure stays.
    int parseSpecification(std::string expectedBoardId, std::string specificationText, FileUtils* system);

    // The identifier of every slot, in the order of the slots' names.
    std::vector<eStorageSlot_t> supportedSlots() const;

    // The same slots, by their names, without a list made of them: for what the loop does on every pass.
    const std::map<std::string, Slot>& slots() const { return _slots; }

    // The first slot, in the order of the names, that has this identifier; Slot::getUnknownSlot() when none has. To be
    // changed in place.
    Slot& getSlot(eStorageSlot_t slotID);

    std::map<eStorageSlot_t, eStorageSlot_t> getNextSlotMap() const { return _nextSlot; }
    std::set<std::string> getCapabilities() const { return _mediaCapabilities; }
    bool hasCapability(const std::string& capability) const { return _mediaCapabilities.contains(capability); }

    // Empty when there is no such string, which is remembered as an empty one. For the manager's threads only: nothing
    // guards the map.
    std::string getUsefulString(std::string key);

    // The media capabilities and the LED types that a board specification file may name.
    static const std::set<std::string>& knownCapabilities;
    static const std::set<std::string>& knownSlotStatusLEDTypes;
    static bool isKnownCapability(const std::string& capability);

    // ---- The hot-plug thread.

    // Binds the uevent socket and starts the thread that reads it; whatever the kernel announces after the return is
    // seen. Called once, after parseSpecification. 0, or the error number after a line on standard error when the
    // thread cannot be had. A socket that cannot be had or bound ends the process.
    int listen();

    // The thread's body, given the listener: listenStep until the destructor ends it.
    static void* loop(void* listener);

    // Waits for one datagram and handles it; before it waits it asks whether any were lost. False when the destructor has
    // asked the thread to end. A socket that fails ends the process.
    bool listenStep();

    // Handles one datagram: lines, each ended by a NUL, of which nothing behind `length` bytes is looked at. The first
    // three are buffers of kLineSize bytes that keep lines between calls. Three captured lines make an event; it goes
    // to the first slot, in the order of the names, whose address occurs in the physical path.
    // Returns the number of lines captured when the last event completed, 0 when none did.
    int parseKeventBuffer(char* action, char* devname, char* physdevpath, char* buffer, int length);

    // True once after datagrams were lost: what is on the bus has to be announced again ("driver_scan"). The command
    // runs for a while, so the hot-plug thread leaves it to the manager. Any thread.
    bool takeDriverScanRequest() { return _driverScanRequested.exchange(false); }

    static constexpr int kLineSize = 256; // bytes of a line buffer and of the receive buffer, the final NUL included

private:
    class SpecificationReader;

    int waitForUevent();
    void handleEvent(const char* action, const char* devname, const char* physdevpath);

    Config* const _config;
    Card* const _card;
    OperatingSystem& _os;

    std::vector<std::unique_ptr<SlotLED>> _leds; // the slots refer to them
    std::map<std::string, Slot> _slots;
    std::map<eStorageSlot_t, eStorageSlot_t> _nextSlot;
    std::set<std::string> _mediaCapabilities;
    std::map<std::string, std::string> _usefulStrings;

    // Written by listen before there is the thread.
    int _socket = -1;
    int _wake = -1;
    bool _threadStarted = false;
    sem_t _threadGone;

    std::atomic<bool> _driverScanRequested{false};

    // The hot-plug thread's own. The line buffers outlive a datagram: an event acts on the last line of each kind.
    std::uint32_t _dropped = 0;
    unsigned int _unasked = 0; // datagrams received since the drop count was asked for
    char _action[kLineSize] = {};
    char _devname[kLineSize] = {};
    char _physdevpath[kLineSize] = {};
};

#endif
