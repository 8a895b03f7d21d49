#ifndef MEDIAD_TOOLS_INTERRUPTION_H
#define MEDIAD_TOOLS_INTERRUPTION_H

#include <csignal>

namespace mediactl {

// While one lives, SIGINT, SIGTERM and SIGHUP do not end mediactl but are noted, and interrupt what it waits for: a request
// that must not stay behind is taken back first. Those that were ignored when it was made, as under nohup, stay ignored.
// One at a time.
class Interruption {
public:
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    // Whether such a signal has come; tells it once.
    static bool take();

private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

    struct sigaction _before[3];
};

} // namespace mediactl

#endif
