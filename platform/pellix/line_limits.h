#ifndef MEDIAD_PLATFORM_PELLIX_LINE_LIMITS_H
#define MEDIAD_PLATFORM_PELLIX_LINE_LIMITS_H

#include <chrono>

// How long a command line may take, and what it is given when it takes longer. One set for the process; tests change
// it, before there are threads.
struct LineLimits {
    std::chrono::milliseconds line = std::chrono::seconds(60);
    // For lines that check, repair or make a file system: that takes as long as the medium is large.
    std::chrono::milliseconds fileSystemLine = std::chrono::hours(1);
    // To end by itself after SIGTERM.
    std::chrono::milliseconds grace = std::chrono::seconds(5);
    // To be gone after SIGKILL. What is not by then hangs in the kernel, and nobody can end it.
    std::chrono::milliseconds end = std::chrono::seconds(2);

    static LineLimits& ofProcess();
};

#endif
