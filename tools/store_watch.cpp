#include "tools/store_watch.h"

#include <algorithm>
#include <thread>

#include "tools/outcome.h"

namespace mediactl {

namespace {
constexpr std::chrono::seconds kReconnectInterval{1};
}

bool StoreWatch::connect() {
    _watcher = StoreWatcher::connect(_identifiers);
    return _watcher != nullptr;
}

StoreWatch::Result StoreWatch::next(ConfigEvent& event, int milliseconds) {
    using Clock = std::chrono::steady_clock;
    const bool forEver = milliseconds < 0;
    const Clock::time_point end =
        forEver ? Clock::time_point::max() : Clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        if (!_watcher) {
            std::this_thread::sleep_until(std::min(end, _nextAttempt));
            if (Clock::now() < _nextAttempt) return Result::Timeout;
            _nextAttempt = Clock::now() + kReconnectInterval;
            if (!connect()) continue;
            say("the parameter store is served again");
            return Result::Reconnected;
        }
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        switch (_watcher->next(event, forEver ? -1 : static_cast<int>(std::max<std::int64_t>(0, rest)))) {
        case StoreWatcher::Result::Event: return Result::Event;
        case StoreWatcher::Result::Resync: return Result::Resync;
        case StoreWatcher::Result::Timeout: return Result::Timeout;
        case StoreWatcher::Result::Interrupted: continue;
        case StoreWatcher::Result::Lost:
            say("nobody serves the parameter store any more; trying again every second");
            _watcher.reset();
            _nextAttempt = Clock::now() + kReconnectInterval;
            continue;
        }
    }
}

void StoreWatch::drain(Result first) {
    ConfigEvent event;
    for (int i = 0; i < 1000 && (first == Result::Event || first == Result::Resync); ++i) first = next(event, 0);
}

} // namespace mediactl
