#include "simulation/history.h"

#include <unistd.h>

#include "simulation/actors.h"
#include "simulation/world.h"

namespace simulation {

namespace {

// Virtual time without the end of a pass. Tools are slow, and a pass runs dozens of them.
constexpr Nanoseconds kLongestPass = 600 * kSecond;
constexpr Nanoseconds kWatchdogPeriod = 30 * kSecond;

constexpr std::uint64_t kPassesToSettle = 30;

class History {
public:
    History(std::uint64_t seed, Trace::Mode mode, std::size_t keptLines)
        : _world(seed, mode, keptLines), _actors(_world) {}

    std::uint64_t live(std::uint64_t passes) {
        watch();
        _actors.start();
        runPasses(passes);
        _actors.calmDown();
        runPasses(kPassesToSettle);
        _world.appliance.repeatAnnouncements();
        runPasses(kPassesToSettle);
        // It was taken off the bus; now a client wants it.
        if (_world.invariants.goodCardWaits() && _world.invariants.mayWait()) {
            _actors.askForNextSlot();
            runPasses(2 * kPassesToSettle);
        }
        _world.invariants.converged();
        if (_world.appliance.hasFirewire()) handOver();
        return _world.passes;
    }

private:
    // A medium in use goes to a computer and comes back.
    void handOver() {
        const SlotHardware* const slot = _world.invariants.slotInUse();
        if (slot == nullptr) return;
        _actors.setFirewireMode(2);
        runPasses(kPassesToSettle);
        _world.invariants.offered(*slot);
        _world.endpoint.login();
        runPasses(kPassesToSettle);
        _world.invariants.computerIsServed(*slot);
        _world.endpoint.logout();
        _actors.setFirewireMode(0);
        runPasses(2 * kPassesToSettle);
        _world.invariants.converged();
    }
    void runPasses(std::uint64_t count) {
        _world.passTarget = _world.passes + count;
        _world.scheduler.run([this] {
            _actors.supervise();
            return _world.passes >= _world.passTarget;
        });
    }
    // Nothing hangs: no thread waits for ever, and no pass never ends.
    void watch() {
        if (_world.passes != _seen || _world.life == nullptr) {
            _seen = _world.passes;
            _since = _world.scheduler.now();
        }
        if (_world.scheduler.now() - _since > kLongestPass)
            _world.fail("nothing hangs", "no pass has ended for a long time; " + _world.scheduler.threads());
        _world.scheduler.after(kWatchdogPeriod, [this] { watch(); });
    }

    World _world;
    Actors _actors;
    std::uint64_t _seen = 0;
    Nanoseconds _since = 0;
};

// As after switching on.
void forgetSegments() {
    for (const char* name : {"/dev/shm/NewCacheSharedClipCache_shm", "/dev/shm/NewCacheSharedPlaylistCache_shm",
                             "/dev/shm/sem.NewCacheSharedClipCache_mutex", "/dev/shm/sem.NewCacheSharedPlaylistCache_mutex"})
        ::unlink(name);
}

} // namespace

std::uint64_t liveHistory(std::uint64_t seed, std::uint64_t passes, Trace::Mode mode, std::size_t keptLines) {
    forgetSegments();
    History history(seed, mode, keptLines);
    return history.live(passes);
}

} // namespace simulation
