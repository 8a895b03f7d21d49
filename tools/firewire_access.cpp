#include "tools/firewire_access.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "parameters.h"
#include "tools/board_reader.h"
#include "tools/conversation.h"
#include "tools/media_requests.h"

namespace mediactl {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using News = Conversation::News;

constexpr std::int32_t kOn = 2; // of kParamFirewireMode
constexpr std::int32_t kOff = 0;
constexpr std::int32_t kDaemonRuns = 3; // of kParamMediaDaemonStatus

constexpr char kNotInUse[] = "/var/run/endpointdisknotinuse";
constexpr char kStop[] = "/var/run/endpointdiskstop";
constexpr char kUnavailable[] = "/var/run/endpointdiskunavailable";

// Of processes and files there are no events.
constexpr std::chrono::milliseconds kLook{100};

constexpr std::size_t kShortestMac = 15; // that an identity can be made of

bool exists(const char* path) { return ::access(path, F_OK) == 0; }

// Whether a process has a disk open that is still there. A process that may not be looked at counts as one that has.
bool hasDisk(const fs::path& process) {
    std::error_code error;
    fs::directory_iterator files(process / "fd", error);
    if (error) return error == std::errc::permission_denied;
    for (; files != fs::directory_iterator(); files.increment(error)) {
        if (error) return false;
        const fs::path target = fs::read_symlink(files->path(), error);
        struct stat status {};
        // The node of a disk that has gone is gone as well, and its name reads otherwise.
        if (!error && target.parent_path() == "/dev" && stat(target.c_str(), &status) == 0 && !S_ISCHR(status.st_mode))
            return true;
    }
    return false;
}

enum class Endpoint { None, WithoutDisk, HasDisk };

// The process is known by its name, as it is to mediad.
Endpoint findEndpoint() {
    Endpoint found = Endpoint::None;
    std::error_code error;
    for (fs::directory_iterator each("/proc", error); !error && each != fs::directory_iterator(); each.increment(error)) {
        const std::string pid = each->path().filename();
        if (!std::all_of(pid.begin(), pid.end(), [](char c) { return c >= '0' && c <= '9'; })) continue;
        std::string name;
        std::getline(std::ifstream(each->path() / "comm"), name);
        if (name.find("endpoint") == std::string::npos) continue;
        if (hasDisk(each->path())) return Endpoint::HasDisk;
        found = Endpoint::WithoutDisk;
    }
    return found;
}

enum class State { Idle, Offered, InUse, Paused, NobodyHasIt };

State look(StoreConnection& store) {
    const Endpoint endpoint = findEndpoint();
    if (endpoint == Endpoint::HasDisk) return exists(kNotInUse) && !exists(kStop) ? State::Offered : State::InUse;
    if (store.integer(kParamFirewireMode) != kOn || store.integer(kParamMediaDaemonStatus) != kDaemonRuns)
        return State::Idle;
    // A selected slot is the recorder's, and the mode may stand from before mediad was started. But beside an endpoint
    // that waits for its disk it is another medium, in use until that one is back.
    if (store.integer(kParamSelectedSlot) != 0 && endpoint == Endpoint::None) return State::Idle;
    return exists(kUnavailable) ? State::Paused : State::NobodyHasIt;
}

const char* word(State state) {
    switch (state) {
    case State::Idle: return "idle";
    case State::Offered: return "offered";
    case State::InUse: return "in use by host";
    default: return "paused";
    }
}

std::string seconds(std::chrono::seconds patience) { return std::to_string(patience.count()) + " seconds"; }

// What mediad looked at, or complained of, when it refused.
struct Circumstances {
    std::int32_t selectedSlot = 0;
    std::size_t macLength = 0;
    std::int32_t slotChange = 0;

    std::string reason() const {
        if (slotChange != 0) return slotChangeRefusal(slotChange);
        if (selectedSlot == 0) return "no slot is selected";
        if (macLength < kShortestMac) return "the MAC address is too short for a FireWire identity";
        return "mediad's log may tell why";
    }
};

Outcome refused(const Circumstances& circumstances) {
    return fail(Outcome::Failed, "FireWire access was refused: " + circumstances.reason());
}

} // namespace

Outcome showFirewireState(std::chrono::seconds patience) {
    const std::unique_ptr<StoreConnection> store = StoreConnection::connect(StoreConnection::Access::Read);
    if (!store) return failNobodyServes();
    const Clock::time_point end = Clock::now() + patience;
    State state = look(*store);
    while (state == State::NobodyHasIt && Clock::now() < end) {
        std::this_thread::sleep_for(kLook);
        state = look(*store);
    }
    std::cout << word(state) << "\n";
    return Outcome::Done;
}

Outcome startFirewireAccess(std::chrono::seconds patience) {
    if (!readBoard().mayHaveFirewire) return fail(Outcome::Failed, "this board has no FireWire disk access");
    Conversation conversation({kParamFirewireMode, kParamSlotChangeCommand}, patience);
    if (!conversation.connected()) return failNobodyServes();
    StoreConnection& store = conversation.store();
    if (store.integer(kParamFirewireMode) == kOn && findEndpoint() == Endpoint::HasDisk) return Outcome::Done;

    Circumstances circumstances;
    ParameterValue mac;
    store.read(kParamFirewireString3206, mac);
    circumstances.macLength = mac.text.size();
    circumstances.selectedSlot = store.integer(kParamSelectedSlot);
    if (const Outcome outcome = conversation.post(kParamFirewireMode, kOn); outcome != Outcome::Done) return outcome;

    for (bool posted = false;;) {
        ConfigEvent event;
        switch (const News news = conversation.next(event, kLook)) {
        case News::Value:
            if (event.id == kParamSlotChangeCommand)
                circumstances.slotChange = event.integer;
            else if (event.integer == kOn)
                posted = true;
            else if (posted)
                return refused(circumstances);
            break;
        case News::Resync:
            posted = true;
            circumstances.slotChange = store.integer(kParamSlotChangeCommand);
            if (store.integer(kParamFirewireMode) != kOn) return refused(circumstances);
            break;
        case News::Interrupted: // signals are not noted here
        case News::Quiet: break;
        case News::TimedOut:
            return fail(Outcome::Failed, "mediad has not offered the medium within " + seconds(patience) +
                                             "; the request stands until \"mediactl firewire off\"");
        case News::Lost: return conversation.failUnanswered(news);
        }
        if (posted && findEndpoint() == Endpoint::HasDisk) return Outcome::Done;
    }
}

Outcome stopFirewireAccess(std::chrono::seconds patience) {
    Conversation conversation({kParamFirewireAVCPause}, patience);
    if (!conversation.connected()) return failNobodyServes();
    StoreConnection& store = conversation.store();
    const bool active = store.integer(kParamFirewireMode) == kOn || findEndpoint() != Endpoint::None;
    const Outcome outcome = conversation.post(kParamFirewireMode, kOff);
    if (outcome != Outcome::Done || !active) return outcome;

    // What mediad writes last is that AV/C may go on; the slot may still be on its way then.
    for (bool ended = false;;) {
        ConfigEvent event;
        switch (const News news = conversation.next(event, kLook)) {
        case News::Value: ended = ended || event.integer == 0; break;
        case News::Resync: ended = ended || findEndpoint() == Endpoint::None; break;
        case News::Interrupted: // signals are not noted here
        case News::Quiet: break;
        case News::TimedOut:
            if (!ended) return conversation.failUnanswered(news);
            return fail(Outcome::Failed,
                        "FireWire access has ended, but no slot is in use after " + seconds(patience));
        case News::Lost: return conversation.failUnanswered(news);
        }
        const bool selected = store.integer(kParamSelectedSlot) != 0;
        // A mode that nobody acted on is not answered, either.
        if (selected && (ended || findEndpoint() == Endpoint::None)) return Outcome::Done;
        if (ended && store.integer(kParamMediaLoadingStatus) == 0 && store.integer(kParamSelectedSlot) == 0)
            return Outcome::Done;
    }
}

} // namespace mediactl
