#include "tools/media_requests.h"

#include <algorithm>
#include <memory>
#include <string>

#include "parameters.h"
#include "tools/conversation.h"

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

Outcome postMediaCommand(std::int32_t command, std::chrono::seconds patience) {
    Conversation conversation({kParamMediaCommand}, patience);
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

// mediad has ended. Where somebody else hosts the store, the request would stand in it and end every mediad to come; where
// mediad did, there may be no store left, and nothing to take back.
Outcome takeShutdownBack(StoreConnection& store) {
    if (store.integer(kParamSystemCommand) != kShutDown) return Outcome::Done;
    const int status = store.write(kParamSystemCommand, ParameterValue{true, 0, {}});
    return status == kConfigUnreachable ? Outcome::Done : outcomeOf(status, kParamSystemCommand);
}

} // namespace

std::string slotChangeRefusal(std::int32_t answer) {
    switch (answer) {
    case 10: return "the medium is unformatted";
    case 11: return "the medium is damaged: it could not be mounted";
    case 14: return "the medium in use could not be unmounted, or was removed";
    case 15: return "the storage is in use";
    default: return "the slot change failed with result " + std::to_string(answer);
    }
}

Outcome acquireStorage(std::chrono::seconds patience) { return postMediaCommand(kAcquire, patience); }

Outcome releaseStorage(std::chrono::seconds patience) { return postMediaCommand(kRelease, patience); }

Outcome changeToNextSlot(std::chrono::seconds patience) {
    Conversation conversation({kParamSlotChangeCommand}, patience);
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
    Conversation conversation({kParamMediaDaemonStatus}, patience);
    if (!conversation.connected()) return failNobodyServes();
    StoreConnection& store = conversation.store();
    // One that has cleaned up already writes its status no more, and the request would end the next one.
    if (store.integer(kParamMediaDaemonStatus) == kCleanedUp) return takeShutdownBack(store);
    const int posted = store.write(kParamSystemCommand, ParameterValue{true, kShutDown, {}});
    if (posted != kConfigOk && posted != kConfigUnreachable) return outcomeOf(posted, kParamSystemCommand);

    for (;;) {
        std::int32_t status = 0;
        bool intermediatesLost = false;
        const Conversation::News news = conversation.next(status, intermediatesLost);
        // A store that mediad hosts goes with it, as soon as the last value is written. One that was lost over the request
        // tells nothing of mediad.
        if (news == Conversation::News::Lost && posted == kConfigOk) return Outcome::Done;
        if (news != Conversation::News::Value) return conversation.failUnanswered(news);
        if (status == kCleanedUp) return takeShutdownBack(store);
    }
}

} // namespace mediactl
