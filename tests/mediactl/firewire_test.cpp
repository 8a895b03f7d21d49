// firewire on, off and status: mediad's answers, with a process that is called as the endpoint application is and has a
// "disk" open.

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>

#include "recorder.h"

namespace {

namespace fs = std::filesystem;

constexpr char kMode[] = "kParamFirewireMode";
const std::string kOn = "start:0x0c010100=2";
const std::string kRuns = "start:0x7d07000a=3"; // mediad
const std::string kSelected = "start:0x7b03040a=1";
const std::string kMac = "start:0x32060000='00:0c:17:12:34:56";
const std::string kNotInUse = "/var/run/endpointdisknotinuse";
const std::string kStop = "/var/run/endpointdiskstop";
const std::string kUnavailable = "/var/run/endpointdiskunavailable";
const std::string kDisk = "/dev/sdb";

// What mediad writes when access is asked for, and when its end is.
std::string whenOn(const std::string& write) { return "0x0c010100=2:" + write; }
std::string whenOff(const std::string& write) { return "0x0c010100=0:" + write; }
const std::string kGoesOn = "0x7d05000a=0"; // AV/C

struct Firewire : Recorder {
    void TearDown() override {
        for (const std::string& file : {kNotInUse, kStop, kUnavailable, kDisk}) fs::remove(file);
    }

    // Some values outlive the store.
    void serve(std::vector<std::string> rules) {
        rules.insert(rules.begin(), {"start:0x7b03040a=0", "start:0x0c010100=0", "start:0x7b03000a=0",
                                     "start:0x7b03070a=0"});
        Recorder::serve(rules);
    }

    // A process of that name; what it has open at 3.
    void startEndpoint(const std::string& disk) {
        fs::copy_file("/bin/sleep", "/tmp/endpoint", fs::copy_options::overwrite_existing);
        const std::string line = "exec 3<>" + disk + " && echo ready && exec /tmp/endpoint 1000";
        _endpoint = std::make_unique<Program>(std::vector<std::string>{"/bin/sh", "-c", line});
        ASSERT_TRUE(_endpoint->waitForOutput("ready\n")) << _endpoint->errors();
        waitFor([] { return runs(); });
    }
    void endEndpoint() {
        _endpoint->kill(SIGKILL);
        _endpoint->wait();
    }

    static void expectState(const std::string& state, const std::string& patience = "60") {
        const Result result = mediactl({"firewire", "status", "--timeout", patience});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, state + "\n");
        EXPECT_EQ(result.errors, "");
    }
    static void expectDone(const Result& result) {
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output + result.errors, "");
    }

    static void waitFor(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!condition()) ASSERT_LT(std::chrono::steady_clock::now(), end);
    }
    void waitForValue(const std::string& parameter, const std::string& wanted) {
        waitFor([&] { return value(parameter) == wanted; });
    }

    std::unique_ptr<Program> _endpoint;

private:
    // As soon as the shell has become it.
    static bool runs() {
        for (const fs::directory_entry& each : fs::directory_iterator("/proc")) {
            std::ifstream file(each.path() / "comm");
            std::string line;
            if (std::getline(file, line) && line == "endpoint") return true;
        }
        return false;
    }
};

// --- status

TEST_F(Firewire, isIdleWhereNobodyAskedForIt) {
    serve({kRuns});
    expectState("idle");
}

TEST_F(Firewire, isIdleWhileTheSlotIsTheRecorders) {
    serve({kRuns, kSelected, kOn});
    expectState("idle");
}

TEST_F(Firewire, isIdleWithoutMediad) {
    serve({kOn, "start:0x7d07000a=6"});
    expectState("idle");
}

TEST_F(Firewire, isOfferedWhileTheEndpointHasTheDiskAndNobodyUsesIt) {
    serve({kRuns, kOn});
    writeFile(kNotInUse, "");
    startEndpoint(kDisk);
    expectState("offered");
    // Until it has been stopped.
    mediactl({"set", kMode, "0"});
    expectState("offered");
    endEndpoint();
    expectState("idle");
}

TEST_F(Firewire, isInUseByTheHostUntilThatHasLetGo) {
    serve({kRuns, kOn});
    startEndpoint(kDisk);
    expectState("in use by host");
    writeFile(kNotInUse, "");
    writeFile(kStop, "");
    expectState("in use by host");
    fs::remove(kStop);
    expectState("offered");
}

TEST_F(Firewire, isPausedAtOnceWhenTheEndpointHasLostTheMedium) {
    serve({kRuns, kOn});
    writeFile(kNotInUse, "");
    writeFile(kUnavailable, "");
    expectState("paused");
}

TEST_F(Firewire, isPausedWhenNobodyHasTheMediumForAWhile) {
    serve({kRuns, kOn});
    writeFile(kNotInUse, "");
    expectState("paused", "0");
    startEndpoint("/dev/null");
    expectState("paused", "0");
    endEndpoint();
    startEndpoint("/tmp/log");
    expectState("paused", "0");
}

TEST_F(Firewire, isPausedBesideAnotherMediumInUse) {
    serve({kRuns, kSelected, kOn});
    writeFile(kNotInUse, "");
    startEndpoint("/dev/null");
    expectState("paused", "0");
}

TEST_F(Firewire, isPausedWhenTheEndpointsDiskHasGone) {
    serve({kRuns, kOn});
    writeFile(kNotInUse, "");
    startEndpoint(kDisk);
    fs::remove(kDisk);
    expectState("paused", "0");
}

TEST_F(Firewire, isNotPausedBeforeTheEndpointHadTheTimeToStart) {
    serve({kRuns, kOn});
    writeFile(kNotInUse, "");
    Program status(commandLine(MEDIACTL, {"firewire", "status", "--timeout", "600"}));
    startEndpoint(kDisk);
    EXPECT_EQ(status.wait(), 0);
    EXPECT_EQ(status.output(), "offered\n");
}

// --- on

TEST_F(Firewire, isOnWhenTheEndpointHasTheDisk) {
    serve({kRuns, kSelected, kMac});
    Program on(commandLine(MEDIACTL, {"firewire", "on"}));
    waitForValue(kMode, "2");
    startEndpoint(kDisk);
    EXPECT_EQ(on.wait(), 0) << on.errors();
    EXPECT_EQ(on.output() + on.errors(), "");
}

TEST_F(Firewire, thatIsOnIsLeftAlone) {
    serve({kRuns, kOn, whenOn("0x5c000001=1")});
    waitForValue("0x5c000001", "1"); // the value from the start
    mediactl({"set", "0x5c000001", "0"});
    startEndpoint(kDisk);
    expectDone(mediactl({"firewire", "on"}));
    EXPECT_EQ(value("0x5c000001"), "0");
}

TEST_F(Firewire, thatNobodyOffersStandsAndIsToldSo) {
    serve({kRuns, kSelected, kMac});
    startEndpoint("/dev/null");
    expectFailure(mediactl({"firewire", "on", "--timeout", "1"}), 1, "mediad has not offered the medium within 1 seconds");
    EXPECT_EQ(value(kMode), "2");
}

TEST_F(Firewire, isRefusedWhileTheStorageIsAcquired) {
    serve({kRuns, kSelected, kMac, whenOn("0x7b03000a=15"), whenOn("0x0c010100=0")});
    expectFailure(mediactl({"firewire", "on"}), 1, "FireWire access was refused: the storage is in use");
}

TEST_F(Firewire, isRefusedWithoutASlot) {
    serve({kRuns, kMac, whenOn("0x0c010100=0")});
    expectFailure(mediactl({"firewire", "on"}), 1, "refused: no slot is selected");
}

TEST_F(Firewire, isRefusedWithoutAnIdentity) {
    serve({kRuns, kSelected, "start:0x32060000='00:0c:17:12:34", whenOn("0x0c010100=0")});
    expectFailure(mediactl({"firewire", "on"}), 1, "refused: the MAC address is too short");
}

TEST_F(Firewire, isRefusedForAReasonThatOnlyTheLogTells) {
    // What stands from an earlier change of the slot is not the reason.
    serve({kRuns, kSelected, kMac, "start:0x7b03000a=15", whenOn("0x0c010100=0")});
    expectFailure(mediactl({"firewire", "on"}), 1, "refused: mediad's log may tell why");
}

TEST_F(Firewire, isNotAskedForOnABoardThatDoesNotHaveIt) {
    serve({kRuns, kSelected, kMac, whenOn("0x0c010100=0")});
    writeBoard("mediaCapabilities = { \"cf_hack\" } specification = { slots = {} }");
    expectFailure(mediactl({"firewire", "on"}), 1, "this board has no FireWire disk access");
    EXPECT_EQ(value(kMode), "0");
    writeBoard("mediaCapabilities = { \"cf_hack\", \"firewire_data\" } specification = { slots = {} }");
    expectFailure(mediactl({"firewire", "on"}), 1, "refused: mediad's log");
    fs::remove("/etc/board-id");
}

TEST_F(Firewire, isLostWithTheStore) {
    serve({kRuns, kSelected, kMac, whenOn("end")});
    expectFailure(mediactl({"firewire", "on"}), 3, "nobody serves the parameter store any more");
}

// --- off

TEST_F(Firewire, isOffAtOnceWhereItWasNotOn) {
    serve({kRuns, "start:0x0c010100=1"});
    expectDone(mediactl({"firewire", "off", "--timeout", "0"}));
    EXPECT_EQ(value(kMode), "0");
}

TEST_F(Firewire, isOffWhenTheRecorderHasItsSlotAgain) {
    serve({kRuns, kOn, whenOff(kGoesOn)});
    mediactl({"set", "kParamMediaLoadingStatus", "1"});
    Program off(commandLine(MEDIACTL, {"firewire", "off"}));
    waitForValue(kMode, "0");
    mediactl({"set", "kParamSelectedSlot", "1"});
    EXPECT_EQ(off.wait(), 0) << off.errors();
}

TEST_F(Firewire, thatNobodyEndsIsToldSo) {
    serve({kRuns, kOn});
    expectFailure(mediactl({"firewire", "off", "--timeout", "1"}), 1, "mediad did not answer within 1 seconds");
}

TEST_F(Firewire, thatEndsWithAnEndpointThatStaysIsOffAllTheSame) {
    serve({kRuns, kOn, whenOff("0x7b03040a=1"), whenOff(kGoesOn)});
    startEndpoint(kDisk);
    expectDone(mediactl({"firewire", "off"}));
}

TEST_F(Firewire, isNotOffWhileTheEndpointIsThereAndNobodyHasAnswered) {
    serve({kRuns, kSelected});
    startEndpoint(kDisk);
    expectFailure(mediactl({"firewire", "off", "--timeout", "1"}), 1, "did not answer");
    endEndpoint();
    expectDone(mediactl({"firewire", "off", "--timeout", "1"}));
}

TEST_F(Firewire, isOffWhereThereIsNoMediumToComeBack) {
    serve({kRuns, kOn, whenOff(kGoesOn)});
    expectDone(mediactl({"firewire", "off"}));
}

TEST_F(Firewire, isEndedButTheMediumDoesNotComeBack) {
    serve({kRuns, kOn, whenOff(kGoesOn)});
    mediactl({"set", "kParamMediaLoadingStatus", "1"});
    expectFailure(mediactl({"firewire", "off", "--timeout", "1"}), 1, "no slot is in use after 1 seconds");
}

} // namespace
