#include "slots/slot_led_register.h"

#include <cstring>
#include <mutex>
#include <string>
#include <utility>

#include "classes/diagnostics/diagnostics.h"
#include "classes/semaphore/semaphore_helper.h"
#include "slots/card.h"

namespace {

constexpr long kFlashInterval = 250'000'000; // nanoseconds

} // namespace

std::atomic<bool> SlotLEDRegister::toggle{true};
std::atomic<bool> SlotLEDRegister::_ending{false};

// The flashers of all LEDs. The lock is for counting, and nothing behind a door is called under it; `_ending` is
// set under it, so that no flasher starts once endFlashers has counted.
struct SlotLEDRegister::Flashers {
    std::mutex lock;
    int count = 0;
    sem_t* lastOneGone = nullptr; // endFlashers waits for it
};

SlotLEDRegister::Flashers& SlotLEDRegister::flashers() {
    // Never destroyed: a flasher may still be on its way out while the process ends.
    static Flashers* const all = new Flashers;
    return *all;
}

SlotLEDRegister::SlotLEDRegister(unsigned int reg, unsigned int bit, Card* card, OperatingSystem& os)
    : _reg(reg), _bit(bit), _mask(bit < 32 ? 1U << bit : 0U), _card(card), _os(os) {
    SemaphoreHelper::Init(&_writeLock, _os);
}

SlotLEDRegister::~SlotLEDRegister() {
    _leaving = true;
    sem_t gone;
    _os.initSemaphore(&gone, 0);
    bool wait = false;
    {
        const std::lock_guard lock(flashers().lock);
        wait = _flasherCount > 0;
        if (wait) _lastOneGone = &gone;
    }
    if (wait) _os.waitSemaphore(&gone);
    sem_destroy(&gone);
    sem_destroy(&_writeLock);
}

void SlotLEDRegister::lightOn() {
    if (changeStatus(eStorageLEDOn)) setLEDRegister(true);
}

void SlotLEDRegister::lightOff() {
    if (changeStatus(eStorageLEDOff)) setLEDRegister(false);
}

void SlotLEDRegister::lightFlash() {
    if (!changeStatus(eStorageLEDFlash)) return;
    if (!flasherStarts()) return;
    pthread_t thread;
    const int error =
        _os.startThread(OperatingSystem::ThreadKind::Detached, &SlotLEDRegister::runFlasherThread, this, thread);
    if (error == 0) return;
    flasherEnded(this);
    // No daemon name in front of this one: log readers know the line as it is.
    reportPlain(std::string("lightFlash: ") + std::strerror(error) + "\n");
}

void SlotLEDRegister::setLEDRegister(bool on) {
    const SemaphoreHelper lock(&_writeLock, _os);
    writeBit(on);
}

void SlotLEDRegister::writeBit(bool on) { _card->WriteRegister(_reg, on ? 1 : 0, _mask, _bit); }

void* SlotLEDRegister::runFlasherThread(void* led) {
    SlotLEDRegister* const self = static_cast<SlotLEDRegister*>(led);
    while (self->flasherStep()) {
    }
    flasherEnded(self);
    return nullptr;
}

bool SlotLEDRegister::flasherStep() {
    if (getStatus() == eStorageLEDFlash && !_ending && !_leaving) {
        _os.sleep(_sleeper, kFlashInterval);
        // Shown even when the status has changed meanwhile; the next step puts the commanded level back.
        setLEDRegister(toggle);
        for (bool shown = toggle; !toggle.compare_exchange_weak(shown, !shown);) {
        }
        return true;
    }
    if (getStatus() == eStorageLEDFlash) return false; // told to end while it flashes: the level stays
    // Read under the write lock: a command between the reading and the write would be undone for good.
    const SemaphoreHelper lock(&_writeLock, _os);
    switch (getStatus()) {
    case eStorageLEDOn: writeBit(true); break;
    case eStorageLEDOff: writeBit(false); break;
    default: break;
    }
    return false;
}

void SlotLEDRegister::endFlashers(OperatingSystem& os) {
    sem_t gone;
    os.initSemaphore(&gone, 0);
    bool wait = false;
    {
        const std::lock_guard lock(flashers().lock);
        _ending = true;
        wait = flashers().count > 0;
        if (wait) flashers().lastOneGone = &gone;
    }
    if (wait) os.waitSemaphore(&gone);
    sem_destroy(&gone);
}

void SlotLEDRegister::resetFlashers() {
    const std::lock_guard lock(flashers().lock);
    _ending = false;
    toggle = true;
}

// Counted before the thread exists: the latch must not miss one that is just starting. False when the latch is shut.
bool SlotLEDRegister::flasherStarts() {
    const std::lock_guard lock(flashers().lock);
    if (_ending) return false;
    ++flashers().count;
    ++_flasherCount;
    return true;
}

void SlotLEDRegister::flasherEnded(SlotLEDRegister* led) {
    OperatingSystem& os = led->_os;
    sem_t* ledGone = nullptr;
    sem_t* allGone = nullptr;
    {
        const std::lock_guard lock(flashers().lock);
        if (--led->_flasherCount == 0) ledGone = led->_lastOneGone;
        if (--flashers().count == 0) allGone = std::exchange(flashers().lastOneGone, nullptr);
    }
    // The LED may be gone as soon as its destructor is let go: only the copies are touched from here on.
    if (ledGone != nullptr) os.postSemaphore(ledGone);
    if (allGone != nullptr) os.postSemaphore(allGone);
}
