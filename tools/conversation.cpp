#include "tools/conversation.h"

#include <algorithm>
#include <string>

#include "tools/interruption.h"

namespace mediactl {

namespace {
// A signal that comes just before a wait begins does not end it: it is noticed this much later at most.
constexpr std::int64_t kLongestWait = 1000; // milliseconds
} // namespace

Conversation::Conversation(const std::vector<eParam_t>& answers, std::chrono::seconds patience)
    : _answer(answers.front()),
      _patience(patience),
      _end(Clock::now() + patience),
      _watcher(StoreWatcher::connect(answers)),
      _store(_watcher ? StoreConnection::connect(StoreConnection::Access::ReadWrite) : nullptr) {}

Outcome Conversation::post(eParam_t id, const ParameterValue& value) {
    const int status = _store->write(id, value);
    return status == kConfigUnreachable ? Outcome::Done : outcomeOf(status, id);
}

Conversation::News Conversation::next(ConfigEvent& event, std::chrono::milliseconds most) {
    const Clock::time_point pause = Clock::now() + most;
    for (;;) {
        if (Interruption::take()) return News::Interrupted;
        const auto rest =
            std::chrono::ceil<std::chrono::milliseconds>(std::min(pause, _end) - Clock::now()).count();
        switch (_watcher->next(event, static_cast<int>(std::clamp<std::int64_t>(rest, 0, kLongestWait)))) {
        case StoreWatcher::Result::Event: return News::Value;
        case StoreWatcher::Result::Resync: return News::Resync;
        case StoreWatcher::Result::Timeout:
            if (Clock::now() >= _end) return News::TimedOut;
            if (Clock::now() >= pause) return News::Quiet;
            continue;
        case StoreWatcher::Result::Interrupted: continue;
        case StoreWatcher::Result::Lost: return News::Lost;
        }
    }
}

Conversation::News Conversation::next(std::int32_t& value, bool& intermediatesLost) {
    for (;;) {
        ConfigEvent event;
        switch (const News news = next(event, std::chrono::hours(1))) {
        case News::Quiet: continue;
        case News::Value:
            if (event.id != _answer) continue;
            value = event.integer;
            intermediatesLost = false;
            return News::Value;
        case News::Resync:
            if (ParameterValue now; _store->read(_answer, now) == kConfigOk)
                value = now.integer;
            else
                return News::Lost;
            intermediatesLost = true;
            return News::Value;
        default: return news;
        }
    }
}

Outcome Conversation::failUnanswered(News news) const {
    if (news == News::Lost)
        return fail(Outcome::NobodyServes, "nobody serves the parameter store any more; the answer did not come");
    return fail(Outcome::Failed, "mediad did not answer within " + std::to_string(_patience.count()) + " seconds");
}

} // namespace mediactl
