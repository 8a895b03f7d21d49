#ifndef MEDIAD_PLATFORM_DAEMONIZER_H
#define MEDIAD_PLATFORM_DAEMONIZER_H

#include <atomic>
#include <string>

// The daemon framework: background or foreground, pid file, termination signals.
//
// daemonize and setupSignalHandler are called once, at the very start of main, while the process has one thread and
// neither sockets nor locks. When another instance holds the pid file they say so in one line and end the process
// with status 255.
class Daemonizer {
public:
    // Goes to the background (the caller's process ends with status 0 once the daemon has its pid file), keeps standard
    // error, and installs `handler` for SIGTERM, SIGINT and SIGHUP: on a signal `killed` becomes 1, then
    // `handler` is called. `information` is not used and may be null. Without
    // `writePidFile` there is no pid file, and nothing keeps a second instance away.
    static void daemonize(std::string name, void (*handler)(int), std::string (*information)(), bool writePidFile);

    // The same without leaving the foreground.
    static void setupSignalHandler(std::string name, void (*handler)(int), std::string (*information)(),
                                   bool writePidFile);

    // The process is finishing: gives the pid file back. May be called more than once, by any thread.
    static void setDone();

    // The daemon's display name, in front of every message. Written before there are threads; never destroyed, so
    // that a thread that outlives main can still say something.
    static std::string& name;

    // Non-zero: stop. Any thread and the signal handler may read and write it.
    static std::atomic<int> killed;
};

#endif
