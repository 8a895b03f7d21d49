#ifndef MEDIAD_SIMULATION_SCHEDULER_H
#define MEDIAD_SIMULATION_SCHEDULER_H

// Virtual time, and who runs when. The daemon's threads are fibres; everything else in the world (kernel, operator,
// clients, recording engine, supervisor) is an action: a function that runs on the world's stack, between two effects of
// the daemon, and returns at once.
//
// Every door of the daemon calls point() before it does anything. That is where time passes, where actions that are due
// run, where another thread gets its turn, and where a daemon that has been killed never comes back from.
//
// A killed daemon: from that moment its doors are shut, and no effect of it reaches the world any more. Its fibres are
// then unwound, so that a process can live through millions of lives: a door that is called on the way throws
// DaemonGone, or does nothing where an exception cannot pass.

#include <semaphore.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "simulation/fibre.h"
#include "simulation/trace.h"

namespace simulation {

struct DaemonGone {};

class Scheduler {
public:
    using Action = std::function<void()>;
    using ThreadId = int;
    static constexpr ThreadId kNobody = 0;

    // How a thread ends when the daemon is killed.
    enum class Unwinding {
        Throws,  // through an exception
        Returns, // by itself: its doors do nothing, and what it waits for has come
    };

    explicit Scheduler(Nanoseconds effectTime) : _effectTime(effectTime) {}
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    Nanoseconds now() const { return _now; }
    std::uint64_t effects() const { return _effects; }

    // The action runs after that time, or after so many more effects of the daemon.
    void after(Nanoseconds delay, Action action);
    void afterEffects(std::uint64_t count, Action action);
    // The world's loop, until `done` says so. False when nothing can happen any more.
    bool run(const std::function<bool()>& done);

    // --- For the doors, on a fibre.

    // Whether the effect may be had: false only for a daemon that has been killed.
    bool point(bool mayThrow = true);
    // True when the daemon has been killed: nothing it does is seen any more.
    bool isDying() const { return _dying; }
    void sleep(Nanoseconds duration);
    // Waits until wake() is called with the same address.
    void waitFor(const void* what);
    // As the system's: waits in the fibre's sense.
    int wait(sem_t* semaphore);
    void join(ThreadId thread);
    ThreadId current() const { return _current; }
    // For a thread on its way into destructors, which no exception may leave.
    void returnFromNowOn() { _threads.at(_current).unwinding = Unwinding::Returns; }

    // --- For everybody.

    ThreadId start(std::string name, Unwinding unwinding, std::function<void()> body);
    // Gives the threads that wait for `what` their turn.
    void wake(const void* what);
    bool isRunning(ThreadId thread) const { return _threads.contains(thread); }

    // --- For actions.

    // Ends every thread at once, as the kernel ends a process.
    void killDaemon();
    // The names of the threads and what they do; for a failure's report.
    std::string threads() const;

private:
    struct Thread {
        std::string name;
        Unwinding unwinding;
        std::unique_ptr<Fibre> fibre;
        const void* waitsFor = nullptr;
    };
    struct Due {
        std::int64_t at; // nanoseconds or effects
        std::uint64_t order;
        Action action;
        bool operator<(const Due& other) const { // for a heap with the earliest on top
            return at != other.at ? at > other.at : order > other.order;
        }
    };

    bool isDue() const {
        return (!_byTime.empty() && _byTime.front().at <= _now) ||
               (!_byEffect.empty() && _byEffect.front().at <= static_cast<std::int64_t>(_effects));
    }
    void pauseCurrent();
    void resume(ThreadId thread);
    void leaveIfDying(bool mayThrow);

    const Nanoseconds _effectTime;
    Nanoseconds _now = 0;
    std::uint64_t _effects = 0;
    std::uint64_t _order = 0;
    std::vector<Due> _byTime;   // heaps
    std::vector<Due> _byEffect;
    std::map<ThreadId, Thread> _threads;
    ThreadId _lastThread = kNobody;
    ThreadId _current = kNobody;
    bool _dying = false;
};

} // namespace simulation

#endif
