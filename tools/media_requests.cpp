#include "tools/media_requests.h"

#include <algorithm>
#include <memory>
#include <string>

#include "parameters.h"
#include "store_watcher.h"
#include "tools/store_connection.h"

namespace mediactl {

namespace {

// Values of kParamMediaCommand; 0 is mediad's acknowledgement of the first two.
constexpr std::int32_t kAcquire = 1;
constexpr std::int32_t kRelease = 2;
constexpr std::int32_t kErase = 4;

constexpr std::int32_t kNextSlot = 6;  // of kParamSlotChangeCommand
constexpr std::int32_t kRemount = 2;   // of kParamSlotRemountCommand
constexpr std::int32_t kShutDown = 8;  // of kParamSystemCommand
constexpr std::int32_t kCleanedUp = 6; // of kParamMediaDaemonStatus

// A request on its way: connected to the store and watching, before anything is written.
class Conversation {
public:
    Conversation(eParam_t answer, std::chrono::seconds patience)
        : _answer(answer),
          _patience(patience),
          _end(Clock::now() + patience),
          _watcher(StoreWatcher::connect({answer})),
          _store(_watcher ? StoreConnection::connect(StoreConnection::Access::ReadWrite) : nullptr) {}

    bool connected() const { return _store != nullptr; }
    StoreConnection& store() { return *_store; }

    // Writes the request. A store that is lost over it may have taken it: Done then, and next tells what came of it.
    Outcome post(eParam_t id, std::int32_t value) {
        const int status = _store->write(id, ParameterValue{true, value, {}});
        return status == kConfigUnreachable ? Outcome::Done : outcomeOf(status, id);
    }

    enum class News { Value, TimedOut, Lost };

    // The next value that the answering parameter takes. After a loss of events it is the present one, and
    // `intermediatesLost` is true: then even the request itself may have been among what was lost.
    News next(std::int32_t& value, bool& intermediatesLost) {
        for (;;) {
            const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(_end - Clock::now()).count();
            ConfigEvent event;
            switch (_watcher->next(event, static_cast<int>(std::clamp<std::int64_t>(rest, 0, 3'600'000)))) {
            case StoreWatcher::Result::Event:
                value = event.integer;
                intermediatesLost = false;
                return News::Value;
            case StoreWatcher::Result::Resync:
                value = _store->integer(_answer);
                intermediatesLost = true;
                return News::Value;
            case StoreWatcher::Result::Timeout:
                if (Clock::now() >= _end) return News::TimedOut;
                continue;
            case StoreWatcher::Result::Interrupted: continue;
            case StoreWatcher::Result::Lost: return News::Lost;
            }
        }
    }

    // For the two ways in which no answer comes.
    Outcome failUnanswered(News news) const {
        if (news == News::Lost)
            return fail(Outcome::NobodyServes, "nobody serves the parameter store any more; the answer did not come");
        return fail(Outcome::Failed, "mediad did not answer within " + std::to_string(_patience.count()) + " seconds");
    }

private:
    using Clock = std::chrono::steady_clock;

    eParam_t _answer;
    std::chrono::seconds _patience;
    Clock::time_point _end;
    std::unique_ptr<StoreWatcher> _watcher;
    std::unique_ptr<StoreConnection> _store;
};

Outcome postMediaCommand(std::int32_t command, std::chrono::seconds patience) {
    Conversation conversation(kParamMediaCommand, patience);
    if (!conversation.connected()) return failNobodyServes();
    std::int32_t value = 0;
    bool intermediatesLost = false;

    // mediad knows one media command at a time: an erase that it has not taken up yet would be forgotten.
    for (value = conversation.store().integer(kParamMediaCommand); value == kErase;) {
        const Conversation::News news = conversation.next(value, intermediatesLost);
        if (news == Conversation::News::Lost) return conversation.failUnanswered(news);
        if (news == Conversation::News::TimedOut)
            return fail(Outcome::Failed, "an erase of the medium is waiting to be taken up; not disturbing it");
    }

    const Outcome outcome = conversation.post(kParamMediaCommand, command);
    if (outcome != Outcome::Done) return outcome;

    // Other processes post here as well, and each command is acknowledged on its own: ours is when none is left open.
    bool posted = false;
    int unacknowledged = 0;
    for (;;) {
        const Conversation::News news = conversation.next(value, intermediatesLost);
        if (news != Conversation::News::Value) return conversation.failUnanswered(news);
        if (intermediatesLost) {
            posted = true;
            unacknowledged = value == 0 ? 0 : 1;
        } else if (value == kAcquire || value == kRelease) {
            posted = posted || value == command;
            ++unacknowledged;
        } else if (value == 0) {
            unacknowledged = std::max(0, unacknowledged - 1);
        }
        if (posted && unacknowledged == 0) return Outcome::Done;
    }
}

std::string slotChangeRefusal(std::int32_t answer) {
    switch (answer) {
    case 10: return "the medium is unformatted";
    case 11: return "the medium is damaged: it could not be mounted";
    case 14: return "the medium in use could not be unmounted, or was removed";
    case 15: return "the storage is in use";
    default: return "the slot change failed with result " + std::to_string(answer);
    }
}

} // namespace

Outcome acquireStorage(std::chrono::seconds patience) { return postMediaCommand(kAcquire, patience); }

Outcome releaseStorage(std::chrono::seconds patience) { return postMediaCommand(kRelease, patience); }

Outcome changeToNextSlot(std::chrono::seconds patience) {
    Conversation conversation(kParamSlotChangeCommand, patience);
    if (!conversation.connected()) return failNobodyServes();
    // Posted even where a request stands already: mediad may have been started anew since and know nothing of it.
    const Outcome outcome = conversation.post(kParamSlotChangeCommand, kNextSlot);
    if (outcome != Outcome::Done) return outcome;

    bool posted = false;
    for (;;) {
        std::int32_t value = 0;
        bool intermediatesLost = false;
        const Conversation::News news = conversation.next(value, intermediatesLost);
        if (news != Conversation::News::Value) return conversation.failUnanswered(news);
        posted = posted || intermediatesLost || value == kNextSlot;
        if (!posted || value == kNextSlot) continue;
        return value == 0 ? Outcome::Done : fail(Outcome::Failed, slotChangeRefusal(value));
    }
}

Outcome remountSelectedSlot() {
    const std::unique_ptr<StoreConnection> store = StoreConnection::connect(StoreConnection::Access::ReadWrite);
    if (!store) return failNobodyServes();
    const int status = store->write(kParamSlotRemountCommand, ParameterValue{true, kRemount, {}});
    return outcomeOf(status, kParamSlotRemountCommand);
}

Outcome shutDown(std::chrono::seconds patience) {
    Conversation conversation(kParamMediaDaemonStatus, patience);
    if (!conversation.connected()) return failNobodyServes();
    // One that has cleaned up already writes its status no more.
    const bool down = conversation.store().integer(kParamMediaDaemonStatus) == kCleanedUp;
    const Outcome outcome = conversation.post(kParamSystemCommand, kShutDown);
    if (outcome != Outcome::Done || down) return outcome;

    for (;;) {
        std::int32_t status = 0;
        bool intermediatesLost = false;
        const Conversation::News news = conversation.next(status, intermediatesLost);
        // A store that mediad hosts goes with it, as soon as the last value is written.
        if (news == Conversation::News::Lost) return Outcome::Done;
        if (news == Conversation::News::TimedOut) return conversation.failUnanswered(news);
        if (status == kCleanedUp) return Outcome::Done;
    }
}

} // namespace mediactl
