#ifndef MEDIAD_PLATFORM_STORE_WATCHER_H
#define MEDIAD_PLATFORM_STORE_WATCHER_H

// For tools that only look on: a watcher of the parameter store with a bounded queue on the store's side. A watcher
// that is too slow loses intermediate values of a parameter, never the last one, and is then told to resync.
// One thread per watcher.

#include <memory>
#include <string>
#include <vector>

#include "config_events.h"

class StoreWatcher {
public:
    enum class Result {
        Event,       // `event` is filled
        Resync,      // events were lost: read anew whatever matters
        Timeout,     // nothing happened in the given time
        Lost,        // nobody serves the store (any more): connect again
        Interrupted, // a signal came
    };

    // Null when nobody serves the store. An empty list watches everything, and so does one of more than 4096.
    static std::unique_ptr<StoreWatcher> connect(const std::vector<eParam_t>& identifiers);

    virtual ~StoreWatcher() = default;

    // Waits up to `milliseconds` (-1: for ever) for what happens next.
    virtual Result next(ConfigEvent& event, int milliseconds) = 0;
};

#endif
