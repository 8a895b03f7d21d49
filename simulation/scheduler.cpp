#include "simulation/scheduler.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

namespace simulation {

Scheduler::~Scheduler() { killDaemon(); }

void Scheduler::after(Nanoseconds delay, Action action) {
    _byTime.push_back({_now + delay, ++_order, std::move(action)});
    std::push_heap(_byTime.begin(), _byTime.end());
}

void Scheduler::afterEffects(std::uint64_t count, Action action) {
    _byEffect.push_back({static_cast<std::int64_t>(_effects + count), ++_order, std::move(action)});
    std::push_heap(_byEffect.begin(), _byEffect.end());
}

bool Scheduler::run(const std::function<bool()>& done) {
    while (!done()) {
        std::vector<Due>* from = &_byTime;
        if (!_byEffect.empty() && _byEffect.front().at <= static_cast<std::int64_t>(_effects))
            from = &_byEffect;
        else if (_byTime.empty())
            return false;
        else
            _now = std::max(_now, _byTime.front().at);
        std::pop_heap(from->begin(), from->end());
        const Action action = std::move(from->back().action);
        from->pop_back();
        action();
    }
    return true;
}

void Scheduler::leaveIfDying(bool mayThrow) {
    // An exception must not leave a destructor that runs because of an exception.
    if (_dying && mayThrow && std::uncaught_exceptions() == 0 &&
        _threads.at(_current).unwinding == Unwinding::Throws)
        throw DaemonGone();
}

bool Scheduler::point(bool mayThrow) {
    if (_current == kNobody) return !_dying;
    if (!_dying) {
        ++_effects;
        _now += _effectTime;
        if (isDue()) {
            after(0, [this, thread = _current] { resume(thread); });
            pauseCurrent();
        }
    }
    leaveIfDying(mayThrow);
    return !_dying;
}

void Scheduler::sleep(Nanoseconds duration) {
    if (_current == kNobody || _dying) return;
    if (_byTime.empty() || _byTime.front().at > _now + duration) {
        _now += duration; // nobody else has anything to do meanwhile
        return;
    }
    after(duration, [this, thread = _current] { resume(thread); });
    pauseCurrent();
    leaveIfDying(true);
}

void Scheduler::waitFor(const void* what) {
    if (_dying) return;
    _threads.at(_current).waitsFor = what;
    pauseCurrent();
    leaveIfDying(true);
}

void Scheduler::wake(const void* what) {
    for (auto& [id, thread] : _threads) {
        if (thread.waitsFor != what) continue;
        thread.waitsFor = nullptr;
        after(0, [this, waiting = id] { resume(waiting); });
    }
}

int Scheduler::wait(sem_t* semaphore) {
    while (::sem_trywait(semaphore) == -1) {
        if (errno != EAGAIN) return -1;
        if (_dying || _current == kNobody) return 0; // nobody is left who could post it
        waitFor(semaphore);
    }
    return 0;
}

void Scheduler::join(ThreadId thread) {
    while (isRunning(thread) && !_dying) waitFor(&_threads.at(thread));
}

Scheduler::ThreadId Scheduler::start(std::string name, Unwinding unwinding, std::function<void()> body) {
    const ThreadId id = ++_lastThread;
    auto fibre = std::make_unique<Fibre>([body = std::move(body)] {
        try {
            body();
        } catch (const DaemonGone&) {
            // The way out of a killed daemon.
        }
    });
    _threads.emplace(id, Thread{std::move(name), unwinding, std::move(fibre)});
    after(0, [this, id] { resume(id); });
    return id;
}

void Scheduler::pauseCurrent() {
    Fibre& fibre = *_threads.at(_current).fibre;
    fibre.pause();
}

void Scheduler::resume(ThreadId id) {
    const auto found = _threads.find(id);
    if (found == _threads.end()) return;
    _current = id;
    found->second.fibre->resume();
    _current = kNobody;
    if (!found->second.fibre->isDone()) return;
    const void* const joined = &found->second;
    if (!_dying) wake(joined);
    _threads.erase(found);
}

void Scheduler::killDaemon() {
    _dying = true;
    // Those that return by themselves still use what the others own.
    for (const Unwinding round : {Unwinding::Returns, Unwinding::Throws}) {
        std::vector<ThreadId> ids;
        for (const auto& [id, thread] : _threads)
            if (thread.unwinding == round) ids.push_back(id);
        // The youngest first: the first thread owns everything.
        for (auto id = ids.rbegin(); id != ids.rend(); ++id)
            while (isRunning(*id)) resume(*id);
    }
    _dying = false;
}

std::string Scheduler::threads() const {
    std::string text;
    for (const auto& [id, thread] : _threads)
        text += (text.empty() ? "" : ", ") + thread.name + (thread.waitsFor != nullptr ? " waits" : " runs");
    return text;
}

} // namespace simulation
