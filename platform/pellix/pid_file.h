#ifndef MEDIAD_PLATFORM_PID_FILE_H
#define MEDIAD_PLATFORM_PID_FILE_H

#include <sys/types.h>

// The file that makes a daemon the only one of its kind on the machine: held with flock for as long as the process
// lives, with the process id in it. The lock is what counts; a file that a killed daemon left behind stops nobody.
class PidFile {
public:
    enum class Result {
        Held,    // this process holds it
        Taken,   // another process does; its id in `holder`, 0 when it has not written it yet
        Failed,  // errno says why
    };

    // Takes `path`, which must outlive the hold, and writes this process's id into it. Before there are threads.
    static Result take(const char* path, pid_t& holder);

    // Removes the file and lets go of it; does nothing when it is not held. Any thread.
    static void giveBack();
};

#endif
