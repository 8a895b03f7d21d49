#include "process_group.h"

#include <chrono>
#include <csignal>
#include <thread>

#include "line_limits.h"
#include "process_table.h"

LineLimits& LineLimits::ofProcess() {
    static LineLimits limits;
    return limits;
}

bool endProcessGroup(pid_t group, const std::function<void()>& meanwhile) {
    using Clock = std::chrono::steady_clock;
    // Nothing tells when a group becomes empty.
    constexpr std::chrono::milliseconds kLook(10);
    const auto isGoneBefore = [&](Clock::time_point deadline) {
        for (;;) {
            meanwhile();
            // Where nobody can look, nothing is gone.
            if (const auto members = ProcessEntry::membersOf(group); members && members->empty()) return true;
            if (Clock::now() >= deadline) return false;
            std::this_thread::sleep_for(kLook);
        }
    };
    kill(-group, SIGTERM);
    // What was stopped hears it only when it goes on.
    kill(-group, SIGCONT);
    if (isGoneBefore(Clock::now() + LineLimits::ofProcess().grace)) return true;
    kill(-group, SIGKILL);
    return isGoneBefore(Clock::now() + LineLimits::ofProcess().end);
}
