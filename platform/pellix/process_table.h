#ifndef MEDIAD_PLATFORM_PELLIX_PROCESS_TABLE_H
#define MEDIAD_PLATFORM_PELLIX_PROCESS_TABLE_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The system's processes, as /proc tells. Any thread.
struct ProcessEntry {
    pid_t id = 0;
    pid_t group = 0;
    std::uint64_t startTime = 0; // clock ticks since the system's start: with the id, it names a process for good
    bool isOver = false;         // it only waits for somebody to take its status

    // Nothing when there is no such process, or when it cannot be looked at.
    static std::optional<ProcessEntry> of(pid_t id);
    // Those of a process group that are not over; nothing when not all processes could be looked at.
    static std::optional<std::vector<ProcessEntry>> membersOf(pid_t group);
};

#endif
