#ifndef MEDIAD_PLATFORM_PELLIX_CHILD_PROCESS_H
#define MEDIAD_PLATFORM_PELLIX_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>

#include "descriptor.h"

// The end of a process that this one has started, waited for as long as one cares to. One thread.
//
// A child that has not been seen to end is left behind by the destructor: one that hangs in the kernel, on a medium that
// is gone, cannot be ended by anybody. Its status is taken once it is over, when another child is made or dropped.
class ChildProcess {
public:
    using Clock = std::chrono::steady_clock;

    explicit ChildProcess(pid_t id);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t id() const { return _id; }

    // Readable once the child has ended. -1 with a kernel before 5.3: then one looks between waits of kLookMilliseconds.
    static constexpr int kLookMilliseconds = 20;
    int endDescriptor() const { return _end.get(); }

    // Whether it has ended. Keeps saying so.
    bool hasEnded();
    // As hasEnded, but waits for it.
    bool endsBefore(Clock::time_point deadline);

    // Once it has ended: the wait status, or the error number of a status that somebody else took.
    int status() const { return _status; }
    int lostStatus() const { return _lost; }

    // Milliseconds for poll() until `deadline`, rounded up; 0 behind it.
    static int millisecondsUntil(Clock::time_point deadline);

private:
    pid_t _id;
    Descriptor _end;
    bool _ended = false;
    int _status = 0;
    int _lost = 0;
};

#endif
