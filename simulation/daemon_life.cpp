#include "simulation/daemon_life.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "classes/die/die.h"
#include "classes/diagnostics/diagnostics.h"
#include "daemonizer.h"
#include "media_manager/media_manager.h"
#include "platform/pellix/clips/medium_index.h"
#include "shared_segment.h"
#include "simulation/world.h"
#include "slots/slot_led_register.h"
#include "slots/slot_listener.h"

// In place of the process's own: the daemon ends, and not the simulation.
void die(const char* message) {
    reportPlain(message);
    Daemonizer::killed = 1;
    simulation::DaemonLife::current->exitNow(1);
}

int leaveMain(int status) { return status; }

namespace {

// The manager shows its flag to nobody. Access is not checked where a template is instantiated by hand.
template <bool MediaManager::*flag>
struct Shown {
    friend bool flagOf(const MediaManager& manager) { return manager.*flag; }
};
bool flagOf(const MediaManager& manager);
template struct Shown<&MediaManager::_mounted>;

} // namespace

namespace simulation {

DaemonLife* DaemonLife::current = nullptr;

DaemonLife::DaemonLife(World& world) : _world(world), _config(world), _card(world), _shell(world), _system(world) {
    current = this;
    nevo::media::beforeRecord = writesRecord;
    // What a new process finds, and what another life has left in this one.
    Daemonizer::name = "Media Manager";
    Daemonizer::killed = 0;
    MediaManager::_pMediaManager = nullptr;
    Slot::getUnknownSlot() = Slot();
    SlotLEDRegister::resetFlashers();
    forgetExaminedFiles();

    _world.note([] { return std::string("--- the daemon starts"); });
    _world.store.startDelivering();
    _world.scheduler.start("main", Scheduler::Unwinding::Throws, [this] { main(); });
}

DaemonLife::~DaemonLife() {
    kill();
    current = nullptr;
}

void DaemonLife::main() {
    _channel = std::make_unique<DoorChannel>(_world);
    _card.Open();
    _listener = std::make_unique<SlotListener>(&_config, &_card, _system);
    if (_listener->parseSpecification("0x" + _world.appliance.boardId(), _world.appliance.specification(), &_shell) != 0)
        _world.fail("the board's file is read", _world.appliance.specification());
    _listener->listen();
    _manager = std::make_unique<MediaManager>(_listener.get(), &_card, &_config, _channel.get(), &_shell, _system);
    _manager->clearLeftovers();
    _manager->init();
    _manager->run(true);
    report(" Cleaning up...");
    _manager->cleanup();
    SlotLEDRegister::endFlashers(_system);
    _world.scheduler.returnFromNowOn();
    _card.Close();
    _channel.reset();
    report(" Leaving mediad...");
    _listener.reset();
    _ended = true;
    _world.takeDiagnostics();
    _world.note([] { return std::string("--- the daemon ends"); });
}

// Between two records is where a killed daemon leaves a segment half written.
void DaemonLife::writesRecord(const char* magic) {
    if (current == nullptr) return;
    if (current->_killAtRecord > 0 && --current->_killAtRecord == 0)
        current->_world.scheduler.after(0, [life = current] {
            if (life != current) return;
            life->_world.note([] { return std::string("--- kill -9"); });
            life->kill();
        });
    try {
        current->_world.scheduler.point();
    } catch (const DaemonGone&) {
        current->_diedWriting = magic;
        throw;
    }
}

void DaemonLife::kill() {
    if (_reaped) return;
    _reaped = true;
    const bool orderly = _ended && _status == 0;
    // Nobody waits for a light that flashes for ever.
    for (SlotLED* led : _system.flashing()) led->setStatus(eStorageLEDOff);
    _world.scheduler.killDaemon();
    if (!_diedWriting.empty()) _world.invariants.diedWriting(_diedWriting);
    _manager.reset();
    _channel.reset();
    _listener.reset();
    _world.appliance.daemonEnds();
    _world.takeDiagnostics();
    _world.invariants.daemonEnds(orderly);
    _ended = true;
}

void DaemonLife::terminate() {
    _world.note([] { return std::string("supervisor: SIGTERM"); });
    _world.appliance.syncAll(); // the handler does
    Daemonizer::killed = 1;
}

void DaemonLife::exitNow(int status) {
    _status = status;
    _ended = true;
    _world.note([&] { return "--- the daemon exits with status " + std::to_string(status); });
    for (;;) {
        _world.scheduler.waitFor(this); // until somebody reaps what is left
        if (_world.scheduler.isDying()) throw DaemonGone();
    }
}

int DaemonLife::commandedLED(eStorageSlot_t slot) const {
    if (_listener == nullptr) return 0;
    for (const SlotLED* led : _listener->getSlot(slot).getLEDs())
        return led->getStatus() == SlotLED::kNeverCommanded ? 0 : static_cast<int>(led->getStatus());
    return 0;
}

bool DaemonLife::isFlashing(eStorageSlot_t slot) const {
    if (_listener == nullptr) return false;
    const std::set<SlotLED*> leds = _listener->getSlot(slot).getLEDs();
    return std::any_of(leds.begin(), leds.end(), [this](SlotLED* led) { return _system.flashing().contains(led); });
}

bool DaemonLife::isMediumMounted() const { return _manager != nullptr && flagOf(*_manager); }

std::string DaemonLife::deviceOf(eStorageSlot_t slot) const {
    return _listener == nullptr ? std::string() : _listener->getSlot(slot).readAnnouncement().devname;
}

} // namespace simulation
