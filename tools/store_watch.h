#ifndef MEDIAD_TOOLS_STORE_WATCH_H
#define MEDIAD_TOOLS_STORE_WATCH_H

// A watcher that outlives the store: when nobody serves it any more, it says so, tries again every second, and says
// when it is back. One thread.

#include <chrono>
#include <memory>
#include <vector>

#include "store_watcher.h"

namespace mediactl {

class StoreWatch {
public:
    enum class Result {
        Event,
        Resync,      // values in between are missing, never the last ones
        Reconnected, // anything may have changed in the meantime; nothing of it is told as an event
        Timeout,
    };

    // An empty list watches everything.
    explicit StoreWatch(std::vector<eParam_t> identifiers) : _identifiers(std::move(identifiers)) {}

    // False when nobody serves the store.
    bool connect();

    // Waits up to `milliseconds` (-1: for ever) for what happens next; one that is lost is looked for meanwhile.
    Result next(ConfigEvent& event, int milliseconds);

    // Takes what is waiting behind `first`, so that a burst of changes makes one picture; bounded, or one that does not
    // end makes none.
    void drain(Result first);

private:
    std::vector<eParam_t> _identifiers;
    std::unique_ptr<StoreWatcher> _watcher;
    std::chrono::steady_clock::time_point _nextAttempt; // while there is no watcher
};

} // namespace mediactl

#endif
