#ifndef MEDIAD_SLOTS_SLOT_LED_H
#define MEDIAD_SLOTS_SLOT_LED_H

#include <atomic>
#include <cstdint>

// What an LED shows. The numbers are written to LED parameters as they stand.
enum eStorageLEDStatus_t : std::int32_t {
    eStorageLEDOff = 0,
    eStorageLEDOn = 1,
    eStorageLEDFlash = 2,
};

// A status LED of a slot. A command that repeats the status does nothing at all; the first command always takes
// effect. Commands come from the manager's threads; the status may be read on any thread.
class SlotLED {
public:
    // What getStatus says of an LED that nobody has commanded yet.
    static constexpr eStorageLEDStatus_t kNeverCommanded = static_cast<eStorageLEDStatus_t>(-1);

    virtual ~SlotLED() = default;
    virtual void lightOn() = 0;
    virtual void lightOff() = 0;
    virtual void lightFlash() = 0;

    // The last state commanded. Setting it shows nothing: that is for the operations above.
    void setStatus(eStorageLEDStatus_t status) { _status = status; }
    eStorageLEDStatus_t getStatus() const { return _status; }

protected:
    // True when `status` is news; it is the status from now on.
    bool changeStatus(eStorageLEDStatus_t status) { return _status.exchange(status) != status; }

private:
    std::atomic<eStorageLEDStatus_t> _status{kNeverCommanded};
};

#endif
