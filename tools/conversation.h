#ifndef MEDIAD_TOOLS_CONVERSATION_H
#define MEDIAD_TOOLS_CONVERSATION_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "store_watcher.h"
#include "tools/store_connection.h"

namespace mediactl {

// A request on its way: connected to the store and watching, before anything is written, so that no answer is missed.
// The first of `answers` is the one that the short form of `next` is about. `patience` runs from the construction on.
// One thread.
class Conversation {
public:
    Conversation(const std::vector<eParam_t>& answers, std::chrono::seconds patience);

    bool connected() const { return _store != nullptr; }
    StoreConnection& store() { return *_store; }

    // Writes the request. A store that is lost over it may have taken it: Done then, and next tells what came of it.
    Outcome post(eParam_t id, const ParameterValue& value);
    Outcome post(eParam_t id, std::int32_t value) { return post(id, ParameterValue{true, value, {}}); }

    enum class News {
        Value,
        Resync,      // values are missing, even the request itself may be among them
        Quiet,       // nothing in the time that was asked for
        TimedOut,    // the patience is at its end
        Lost,        // nobody serves the store any more
        Interrupted, // an Interruption has noted a signal
    };

    // What happens next to any of the answers, within `most`.
    News next(ConfigEvent& event, std::chrono::milliseconds most);

    // The next value that the first answer takes; never Resync or Quiet. After a loss of events it is the present one,
    // and `intermediatesLost` is true.
    News next(std::int32_t& value, bool& intermediatesLost);

    // For the two ways in which no answer comes.
    Outcome failUnanswered(News news) const;

    std::chrono::seconds patience() const { return _patience; }

private:
    using Clock = std::chrono::steady_clock;

    eParam_t _answer;
    std::chrono::seconds _patience;
    Clock::time_point _end;
    std::unique_ptr<StoreWatcher> _watcher;
    std::unique_ptr<StoreConnection> _store;
};

} // namespace mediactl

#endif
