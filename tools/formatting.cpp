#include "tools/formatting.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <optional>

#include "parameters.h"
#include "tools/confirmation.h"
#include "tools/conversation.h"
#include "tools/interruption.h"
#include "tools/medium_in_use.h"
#include "tools/safe_text.h"

namespace mediactl {

namespace {

using Clock = std::chrono::steady_clock;
using News = Conversation::News;

constexpr char kNothingErased[] = "nothing was erased";
constexpr std::int32_t kErase = 4; // of kParamMediaCommand

// Acquire and release are acknowledged at once. What stands longer was left there when nobody listened.
constexpr std::chrono::seconds kForOtherCommands{2};

// mediad starts the progress before it clears the request. A request that is cleared without that was overwritten, unless
// the progress is on its way past another command's acknowledgement.
constexpr std::chrono::seconds kForLostRequest{5};

// One line that says what is going on: over and over in place on a terminal, once elsewhere.
class ProgressLine {
public:
    explicit ProgressLine(std::string what) : _what(std::move(what)), _inPlace(isatty(STDOUT_FILENO)) {}
    ~ProgressLine() { clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void show() {
        if (!_inPlace && !_shown) std::cout << _what << std::endl;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - _begin).count();
        if (_inPlace) std::cout << '\r' << _what << ": " << seconds << " s\033[K" << std::flush;
        _shown = true;
    }

    void clear() {
        if (_inPlace && _shown) std::cout << "\r\033[K" << std::flush;
        _shown = _shown && !_inPlace;
    }

private:
    std::string _what;
    bool _inPlace;
    bool _shown = false;
    Clock::time_point _begin = Clock::now();
};

// mediad knows one media command at a time, and acknowledging another one would make it forget the erase.
Outcome waitForOtherCommands(Conversation& conversation) {
    const Clock::time_point end = Clock::now() + kForOtherCommands;
    for (;;) {
        const std::int32_t standing = conversation.store().integer(kParamMediaCommand);
        if (standing == kErase)
            return fail(Outcome::Failed, std::string("another erase of the medium is waiting to be taken up; ") +
                                             kNothingErased + " for this one");
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (standing == 0 || rest.count() <= 0) return Outcome::Done;
        ConfigEvent event;
        const News news = conversation.next(event, rest);
        if (news == News::Lost || news == News::TimedOut) return conversation.failUnanswered(news);
    }
}

// What mediad publishes, in this order: the progress, the cleared request, and when the file system was made the name of
// the new volume, which may well be the old one; at the end, either way, progress 0.
class Formatting {
public:
    enum class Stage { Posting, Posted, Forgotten, Running, Ended };

    Stage stage() const { return _stage; }
    Clock::time_point since() const { return _since; }

    // The name of the new volume; nothing when there is none.
    const std::optional<std::string>& volume() const { return _volume; }

    void take(const ConfigEvent& event) {
        switch (event.id) {
        case kParamMediaCommand:
            // Before that, everything is about somebody else's erase.
            if (_stage == Stage::Posting && event.integer == kErase) enter(Stage::Posted);
            else if (_stage == Stage::Posted && event.integer == 0) enter(Stage::Forgotten);
            break;
        case kParamProgressStatus:
            if ((_stage == Stage::Posted || _stage == Stage::Forgotten) && event.integer != 0) enter(Stage::Running);
            else if (_stage == Stage::Running && event.integer == 0) enter(Stage::Ended);
            break;
        case kParamVolumeName:
            if (_stage == Stage::Running) _volume = event.text;
            break;
        default: break;
        }
    }

private:
    void enter(Stage stage) {
        _stage = stage;
        _since = Clock::now();
    }

    Stage _stage = Stage::Posting;
    Clock::time_point _since = Clock::now();
    std::optional<std::string> _volume;
};

// Takes back what mediad has not begun, as far as can be told from here; `why` begins the one line that is said.
Outcome withdraw(Conversation& conversation, const std::string& why) {
    const int status = conversation.store().write(kParamMediaCommand, ParameterValue{true, 0, {}});
    if (status == kConfigUnreachable)
        return fail(Outcome::NobodyServes, why + "; it could not be withdrawn, for nobody serves the parameter store any "
                                                 "more: mediad may still erase this medium, or one that comes later");
    if (status != kConfigOk)
        return fail(Outcome::Failed, why + "; it could not be withdrawn, for the store answers with status " +
                                         std::to_string(status) +
                                         ": mediad may still erase this medium, or one that comes later");
    // It may have been taken up in this moment; the progress begins before the request is cleared.
    if (conversation.store().integer(kParamProgressStatus) != 0)
        return fail(Outcome::Failed,
                    why + "; it is withdrawn, but mediad is formatting: \"mediactl status\" shows what comes of it");
    return fail(Outcome::Failed, why + "; it is withdrawn");
}

// Why a request that mediad has not taken up, as far as is known, is not waited for any longer.
std::string reasonToWithdraw(News news, const Conversation& conversation) {
    switch (news) {
    case News::Interrupted: return "interrupted before mediad took the request up";
    case News::Resync: return "changes came too fast to see whether mediad took the request up";
    case News::Lost: return "the parameter store was lost before mediad took the request up";
    default:
        return "mediad did not take the request up within " + std::to_string(conversation.patience().count()) + " seconds";
    }
}

Outcome follow(Conversation& conversation, const std::string& slot) {
    using Stage = Formatting::Stage;
    constexpr std::chrono::seconds kTick{1}; // of the progress line

    Formatting formatting;
    ProgressLine progress("formatting the medium in slot " + slot);
    for (;;) {
        ConfigEvent event;
        const News news = conversation.next(event, kTick);
        if (news == News::Value) formatting.take(event);
        const Stage stage = formatting.stage();
        if (stage == Stage::Running) progress.show();
        if (stage == Stage::Ended) {
            progress.clear();
            if (!formatting.volume())
                return fail(Outcome::Failed, "formatting failed: mediad could not make a file system on the medium");
            std::cout << "formatted: the volume is now called \"" << printable(*formatting.volume()) << "\"\n";
            return Outcome::Done;
        }
        const bool late = stage == Stage::Forgotten && Clock::now() - formatting.since() > kForLostRequest;
        if (news == News::Value || (news == News::Quiet && !late)) continue;
        progress.clear();
        if (stage == Stage::Forgotten && (news == News::Quiet || news == News::TimedOut))
            return fail(Outcome::Failed,
                        std::string("another process's media command came in between; ") + kNothingErased);
        if (stage != Stage::Running) return withdraw(conversation, reasonToWithdraw(news, conversation));
        if (news == News::Lost) return conversation.failUnanswered(news);
        if (news == News::Resync)
            return fail(Outcome::Failed, "changes came too fast to follow; \"mediactl status\" shows what came of it");
        if (news == News::Interrupted) return fail(Outcome::Failed, "interrupted; mediad goes on formatting");
        return fail(Outcome::Failed, "not done within " + std::to_string(conversation.patience().count()) +
                                         " seconds; mediad goes on formatting");
    }
}

} // namespace

Outcome formatMedium(bool yes, std::chrono::seconds patience) {
    if (const Outcome outcome = canAsk(yes); outcome != Outcome::Done) return outcome;
    const std::unique_ptr<MediumInUse> medium = MediumInUse::look();
    if (!medium) return failNobodyServes();
    if (const Outcome outcome = medium->refusal(kNothingErased); outcome != Outcome::Done) return outcome;

    const std::string doomed = medium->description() + ", with everything on it";
    if (yes) std::cout << "erasing " << doomed << std::endl;
    if (const Outcome outcome = confirm(yes, "Erase " + doomed + "?", kNothingErased); outcome != Outcome::Done)
        return outcome;

    Conversation conversation({kParamMediaCommand, kParamProgressStatus, kParamVolumeName}, patience);
    if (!conversation.connected()) return failNobodyServes();
    if (const Outcome outcome = waitForOtherCommands(conversation); outcome != Outcome::Done) return outcome;
    // Looked at again: whoever was asked may have thought about it for long.
    if (const Outcome outcome = medium->refusal(kNothingErased); outcome != Outcome::Done) return outcome;
    const Interruption interruption;
    if (const Outcome outcome = conversation.post(kParamMediaCommand, kErase); outcome != Outcome::Done) return outcome;
    return follow(conversation, medium->slot());
}

} // namespace mediactl
