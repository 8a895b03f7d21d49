#ifndef MEDIAD_SLOTS_SLOT_LED_REGISTER_H
#define MEDIAD_SLOTS_SLOT_LED_REGISTER_H

#include <semaphore.h>

#include <atomic>

#include "classes/os/operating_system.h"
#include "slots/slot_led.h"
#include "thread_sleep.h"

class Card;

// An LED on one bit of a card register. Flashing is done by a thread of its own, started by the lightFlash that changed
// the status; it ends when it next wakes to another status, within a quarter of a second. A lightFlash that comes
// before the old thread has woken starts a second thread beside it, and both blink the LED.
class SlotLEDRegister : public SlotLED {
public:
    // `bit` of 32 or more is outside the register: the LED's mask is 0 then and its writes change nothing. `card` is
    // shared and must stay open until endFlashers has returned.
    SlotLEDRegister(unsigned int reg, unsigned int bit, Card* card, OperatingSystem& os = OperatingSystem::host());

    // Waits until no flasher of this LED is left, up to a quarter of a second.
    ~SlotLEDRegister() override;
    SlotLEDRegister(const SlotLEDRegister&) = delete;
    SlotLEDRegister& operator=(const SlotLEDRegister&) = delete;

    void lightOn() override;
    void lightOff() override;

    // When no thread can be started, that is reported, the status stays flash and the LED keeps its last level.
    void lightFlash() override;

    // Writes the LED's bit; the write lock serialises the writers of this LED. Any thread.
    void setLEDRegister(bool on);

    // The flasher thread's body, given the LED: flasherStep until it says that the thread is done.
    static void* runFlasherThread(void* led);

    // While the LED flashes: sleeps a quarter of a second, shows `toggle`, inverts it and returns true. Once the status
    // has left flash: shows the status and returns false; false at once when the latch or the destructor ends it.
    bool flasherStep();

    // The exit latch: every flasher of every LED ends when it next wakes, and none is started any more. Returns when
    // all are gone, after a quarter of a second at most. To be called before the card is closed.
    static void endFlashers(OperatingSystem& os = OperatingSystem::host());

    // Undoes the latch and sets `toggle` to its initial state: the world as a new process finds it, for whoever lives
    // several lives in one process. Only while no flasher runs.
    static void resetFlashers();

private:
    struct Flashers;
    static Flashers& flashers();
    void writeBit(bool on); // with the write lock held
    bool flasherStarts();
    static void flasherEnded(SlotLEDRegister* led);

    // What the next flasher that wakes will show. One for all LEDs: two that flash at the same time invert it in turn,
    // and each sees every other value. Field units behave so; do not give each LED its own.
    static std::atomic<bool> toggle;
    static std::atomic<bool> _ending;

    const unsigned int _reg;
    const unsigned int _bit;
    const unsigned int _mask;
    Card* const _card;
    OperatingSystem& _os;
    ThreadSleep _sleeper;
    sem_t _writeLock;

    std::atomic<bool> _leaving{false}; // the destructor has begun
    int _flasherCount = 0;        // guarded by the lock of Flashers
    sem_t* _lastOneGone = nullptr; // the destructor waits for it; guarded likewise
};

#endif
