#ifndef MEDIAD_TOOLS_MEDIUM_IN_USE_H
#define MEDIAD_TOOLS_MEDIUM_IN_USE_H

#include <memory>
#include <string>

#include "store_watcher.h"
#include "tools/store_connection.h"

namespace mediactl {

// The medium that a request which costs data is about: looked at once, shown to whoever is asked, and watched from then
// on, so that the request does not hit another medium that was pushed in meanwhile. One thread.
class MediumInUse {
public:
    // Null when nobody serves the store.
    static std::unique_ptr<MediumInUse> look();

    // Done when the recorder can carry such a request out now: a slot is selected, the transport is idle, FireWire disk
    // access is off, and the medium is still the one that was looked at. Otherwise the line is said; it ends with
    // `consequence`, such as "nothing was deleted". The parameters themselves take the request at any time, and mediad
    // then does with it what it can.
    Outcome refusal(const std::string& consequence);

    // 'volume "DAY 2" in slot S1', safe for a terminal.
    std::string description() const;

    std::string slot() const;

    // The maker directory; empty when the medium is not mounted read-write.
    const std::string& storagePath() const { return _storagePath; }

    // Whether another medium may be in use than the one that was looked at, or none. Tells it once.
    bool hasChanged();

private:
    MediumInUse() = default;

    std::unique_ptr<StoreWatcher> _watcher;
    std::unique_ptr<StoreConnection> _store;
    std::int32_t _slot = 0;
    std::string _volume;
    std::string _storagePath;
};

} // namespace mediactl

#endif
