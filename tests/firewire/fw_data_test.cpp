// FireWire access control alone: its owner is a fake, and everything that it does to the outside is one list of lines in
// the order in which it happened. What it asks its owner becomes a line as well:
//
//     findStorage false | change 1 | led 1 off | loading false         (getDevice 1 | slotPresent 1 with recordQueries)

#include "firewire/fw_data.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <stdexcept>

#include "daemonizer.h"
#include "firewire/fw_data_owner.h"
#include "parameters.h"
#include "tests/fakes/fakes.h"

namespace {

using fakes::Lines;

class FakeOwner : public FwDataOwner {
public:
    explicit FakeOwner(fakes::Journal& journal) : _journal(journal) {}

    std::string getDevice(eStorageSlot_t slot) override {
        if (recordQueries) _journal.add("getDevice " + std::to_string(slot));
        return device;
    }
    bool slotPresent(eStorageSlot_t slot) override {
        if (recordQueries) _journal.add("slotPresent " + std::to_string(slot));
        return present;
    }
    bool findStorage(bool argument) override {
        _journal.add(std::string("findStorage ") + (argument ? "true" : "false"));
        if (onFindStorage) onFindStorage();
        return found;
    }
    unsigned int attemptSlotChange(eStorageSlot_t slot) override {
        _journal.add("change " + std::to_string(slot));
        if (onChange) onChange();
        return slot == eStorageSlotUnknown ? releaseResult : takeResult;
    }
    int setLED(eStorageSlot_t slot, eStorageLEDStatus_t status) override {
        static const char* const names[] = {"off", "on", "flash"};
        _journal.add("led " + std::to_string(slot) + " " + names[status]);
        return 0;
    }
    void setMediaLoading(bool loading) override { _journal.add(std::string("loading ") + (loading ? "true" : "false")); }
    bool shutdownRequested() override { return shutdown; }

    std::string device = "sdb";
    bool present = true;
    bool found = false;
    unsigned int releaseResult = 0; // of a change to no slot
    unsigned int takeResult = 0;    // of a change to a slot
    bool shutdown = false;
    bool recordQueries = false;
    std::function<void()> onFindStorage;
    std::function<void()> onChange;

private:
    fakes::Journal& _journal;
};

const std::string kUnavailable = "/var/run/endpointdiskunavailable";
const std::string kNotInUse = "/var/run/endpointdisknotinuse";
const std::string kStop = "/var/run/endpointdiskstop";

const std::string kCreate = "create /var/run/endpointdisknotinuse 644";
const std::string kReset1 = "run /usr/local/bin/fwreset.sh 0xc1701 0x123456 0x1";
const std::string kReset2 = "run /usr/local/bin/fwreset.sh 0xc1701 0x123456 0x2";

// What looks at the files come to, by how many of them are looked at.
const Lines kLooksAtUse = {"exists /var/run/endpointdisknotinuse"};
const Lines kLooksAtUseAndStop = {"exists /var/run/endpointdisknotinuse", "exists /var/run/endpointdiskstop"};
const Lines kLooksAtAvailability = {"exists /var/run/endpointdiskunavailable"};

Lines join(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// AV/C has paused already.
const Lines kStarts = {"change 0",
                       "led 1 on",
                       "unlink /var/run/endpointdiskunavailable",
                       "run cp /etc/endpoint.conf.sdb /etc/endpoint.conf",
                       "create /var/run/endpointdisknotinuse 644",
                       "run /usr/local/bin/fwreset.sh 0xc1701 0x123456 0x2",
                       "sleepMicroseconds 1200000",
                       "run /usr/local/bin/fwreset.sh 0xc1701 0x123456 0x2",
                       "sleepMicroseconds 1000000",
                       "run /usr/bin/endpoint &",
                       "led 1 off"};

// While paused.
const Lines kFindsTheMedium = {"findStorage false", "loading false", "unlink /var/run/endpointdiskunavailable"};

const Lines kStopsEndpoint = {"run /usr/bin/pkill endpoint", "run /usr/bin/pgrep endpoint",
                              "create /var/run/endpointdisknotinuse 644"};

const Lines kRestarts = join({{"led 1 on"},
                              kStopsEndpoint,
                              {"sleepMicroseconds 1000000", "run /usr/local/bin/fwreset.sh 0xc1701 0x123456 0x2",
                               "sleepMicroseconds 1000000", "run /usr/bin/endpoint &", "led 1 off"}});

const Lines kPauses = {"run /usr/bin/pkill endpoint", "sleepMicroseconds 500000",
                       "run /usr/local/bin/fwreset.sh 0xc1701 0x123456 0x2", "led 1 off"};

const Lines kStops = join({kStopsEndpoint, {"run /usr/local/bin/fwreset.sh 0xc1701 0x123456 0x1", "led 1 off", "change 1"}});

constexpr char kTooShort[] =
    "Media ManagerstartFirewireAccess: The MAC address is too short for a FireWire identity.\n";
constexpr char kNotReleased[] = "Media ManagerstartFirewireAccess: The recorder could not let go of the medium.\n";

class FwDataTest : public ::testing::Test {
protected:
    FwDataTest() {
        Daemonizer::killed = 0;
        Daemonizer::name = "Media Manager";
        config.put(kParamFirewireString3206, "00:0c:17:12:34:56");
        noEndpoint();
        fwData.SetFirewireAVCPaused(true);
    }
    ~FwDataTest() override {
        EXPECT_EQ(takeErrors(), "") << "unexpected on standard error";
        Daemonizer::killed = 0;
    }

    // pgrep finds none, from now on.
    void noEndpoint() { world.shell.answer("/usr/bin/pgrep endpoint", 1); }

    void start() {
        ASSERT_EQ(fwData.startFirewireAccess(eStorageSlotS1), 0);
        expectEffects(kStarts);
    }
    // The host takes the disk, and that has been seen.
    void startInUse() {
        start();
        hostTakes();
        ASSERT_EQ(fwData.checkMessages(), 0U);
        expectEffects(join({kLooksAtAvailability, kLooksAtUse, {"led 1 on"}}));
    }
    // Because of the file, which is still there.
    void startPaused() {
        start();
        os.files.insert(kUnavailable);
        ASSERT_EQ(fwData.checkMessages(), 0U);
        expectEffects(join({kLooksAtAvailability, kPauses, kLooksAtUseAndStop}));
    }
    // The recorder has let go of the slot, so the disk has left the bus.
    void mediumGoes() {
        owner.present = false;
        owner.device.clear();
    }
    void mediumComes(const std::string& device = "sdb") {
        owner.present = true;
        owner.device = device;
    }
    void hostTakes() { os.files.erase(kNotInUse); }
    void hostLetsGo() { os.files.insert(kNotInUse); }

    void passSeconds(int seconds) { os.advance(1'000'000'000LL * seconds); }

    void tooShort() { config.put(kParamFirewireString3206, "00:0c:17:12:34"); } // 14 characters

    void expectEffects(const Lines& expected) { EXPECT_EQ(world.journal.take(), expected); }
    void expectNoEffects() { expectEffects({}); }
    void expectPass(unsigned int result, const Lines& expected) {
        EXPECT_EQ(fwData.checkMessages(), result);
        expectEffects(expected);
    }

    std::string takeErrors() { return errors.take(); }
    void expectError(const std::string& text) { EXPECT_EQ(takeErrors(), text); }

    fakes::World world;
    fakes::FakeConfig& config = world.config;
    fakes::FakeOperatingSystem& os = world.os;
    FakeOwner owner{world.journal};
    fakes::StandardError errors;
    FwData fwData{&owner, &config, &world.shell, os};
};

std::string sets(eParam_t id, int value) { return "set " + fakes::hex(id, 8) + " " + std::to_string(value); }

// --- init

TEST_F(FwDataTest, noLeftoverNothingIsDone) {
    fwData.stopLeftover();
    expectNoEffects();
}

TEST_F(FwDataTest, leftoverIsStoppedAsAnEndpointIs) {
    os.onIsRunning = [](const std::string& name) { return name == "endpoint"; };
    fwData.stopLeftover();
    expectError("Media Manageran endpoint that an earlier daemon has left behind is stopped\n");
    expectEffects(join({kStopsEndpoint, {kReset1}}));
}

TEST_F(FwDataTest, leftoverIsStoppedWithoutAnIdentityToo) {
    os.onIsRunning = [](const std::string&) { return true; };
    tooShort();
    fwData.stopLeftover();
    takeErrors();
    expectEffects(kStopsEndpoint);
}

TEST_F(FwDataTest, initAsksAvcToPauseWhenTheModeIsAccess) {
    config.put(kParamFirewireMode, 2);
    EXPECT_EQ(fwData.init(), 0);
    expectEffects({sets(kParamFirewireAVCPause, 1)});
}

TEST_F(FwDataTest, initAsksAvcToGoOnOtherwise) {
    for (int mode : {0, 1, 3, -2}) {
        config.put(kParamFirewireMode, mode);
        EXPECT_EQ(fwData.init(), 0);
        expectEffects({sets(kParamFirewireAVCPause, 0)});
    }
}

// --- start

TEST_F(FwDataTest, startHandsTheSlotOver) {
    EXPECT_FALSE(fwData.offers(eStorageSlotS1));
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), 0);
    expectEffects(kStarts);
    EXPECT_TRUE(fwData.offers(eStorageSlotS1));
    EXPECT_FALSE(fwData.offers(eStorageSlotS2));
    EXPECT_FALSE(fwData.offers(eStorageSlotUnknown));
}

TEST_F(FwDataTest, startOfAnotherSlotAndDevice) {
    owner.device = "sdaa";
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotD2), 0);
    const Lines lines = world.journal.take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run cp /etc/endpoint.conf.sdaa /etc/endpoint.conf"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "led 4 on"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "led 4 off"), 1);
    EXPECT_TRUE(fwData.offers(eStorageSlotD2));
}

TEST_F(FwDataTest, startWhileActiveDoesNothing) {
    start();
    for (const eStorageSlot_t slot : {eStorageSlotS1, eStorageSlotS2, eStorageSlotUnknown}) {
        EXPECT_EQ(fwData.startFirewireAccess(slot), 0);
        expectNoEffects();
    }
    EXPECT_TRUE(fwData.offers(eStorageSlotS1));
}

TEST_F(FwDataTest, startWithoutASlot) {
    owner.device.clear();
    tooShort();
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotUnknown), -1);
    expectError("Media ManagerstartFirewireAccess: No slot selected.\n");
    expectNoEffects();
    EXPECT_FALSE(fwData.offers(eStorageSlotUnknown));
}

TEST_F(FwDataTest, startWithoutADevice) {
    owner.device.clear();
    tooShort();
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), -1);
    expectError("Media ManagerstartFirewireAccess:  WARN: getDevice(_fwdataSlot) = <null>\n");
    expectNoEffects();
    EXPECT_FALSE(fwData.offers(eStorageSlotS1));
}

TEST_F(FwDataTest, failedStartOfAnotherSlotKeepsThePausedOne) {
    startPaused();
    mediumGoes();
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS2), -1);
    takeErrors();
    EXPECT_EQ(fwData.stopFirewireAccess(true), 0);
    expectEffects(kStops); // S1
}

TEST_F(FwDataTest, startWithAnAddressThatIsTooShortFailsBeforeTheSlotIsTaken) {
    const std::string mac = "00:0c:17:12:34:56";
    for (std::size_t length = 0; length < 15; ++length) {
        config.put(kParamFirewireString3206, mac.substr(0, length));
        EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), -1);
        expectError(kTooShort);
        expectNoEffects();
        EXPECT_FALSE(fwData.offers(eStorageSlotS1));
    }
    config.put(kParamFirewireString3206, mac.substr(0, 15));
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), 0);
    EXPECT_EQ(world.journal.count("run /usr/local/bin/fwreset.sh 0xc1701 0x1234 0x2"), 2U);
}

TEST_F(FwDataTest, startFailsWhenTheRecorderDoesNotLetGo) {
    for (unsigned int result : {14U, 15U}) {
        owner.releaseResult = result;
        EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), -1);
        expectError(kNotReleased);
        expectEffects({"change 0"});
        EXPECT_FALSE(fwData.offers(eStorageSlotS1));
        // Nothing to watch, nothing to stop.
        expectPass(0, {});
        EXPECT_EQ(fwData.stopFirewireAccess(false), 0);
        expectNoEffects();
    }
    owner.releaseResult = 0;
    start();
}

TEST_F(FwDataTest, deviceNameIsTakenOnceBeforeTheSlotIsTakenAway) {
    owner.recordQueries = true;
    owner.onChange = [this] { owner.device.clear(); };
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), 0);
    expectEffects(join({{"getDevice 1"}, kStarts}));
}

TEST_F(FwDataTest, startWaitsSixSecondsForAvc) {
    fwData.SetFirewireAVCPaused(false);
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), 0);
    Lines expected = kStarts;
    expected.insert(expected.begin() + 4, 400, "sleepMicroseconds 15000");
    expectEffects(expected);
    EXPECT_EQ(os.now(), 8'200'000'000LL); // 6 s for AV/C, 2.2 s for the endpoint
}

TEST_F(FwDataTest, startGoesOnAsSoonAsAvcHasPaused) {
    for (int waits : {1, 7, 399, 400}) {
        fwData.SetFirewireAVCPaused(false);
        int seen = 0;
        os.onSleep = [&](long long) {
            if (++seen == waits) fwData.SetFirewireAVCPaused(true);
        };
        EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), 0);
        os.onSleep = nullptr;
        Lines expected = kStarts;
        expected.insert(expected.begin() + 4, static_cast<std::size_t>(waits), "sleepMicroseconds 15000");
        expectEffects(expected);
        fwData.stopFirewireAccess(true);
        world.journal.clear();
    }
}

TEST_F(FwDataTest, commandsThatFailGoUnnoticed) {
    world.shell.answerPart("fwreset.sh", 1);
    world.shell.answerPart("cp ", 1);
    world.shell.answerPart("pkill", 1);
    world.shell.answer("/usr/bin/endpoint &", 127);
    start();
    EXPECT_EQ(fwData.stopFirewireAccess(false), 0);
    expectEffects(join({kLooksAtUseAndStop, kStops}));
}

TEST_F(FwDataTest, addressThatIsLostWhileTheStartWaitsIsTheCallersToHandle) {
    fwData.SetFirewireAVCPaused(false);
    os.onSleep = [this](long long) {
        tooShort();
        fwData.SetFirewireAVCPaused(true);
    };
    EXPECT_THROW(fwData.startFirewireAccess(eStorageSlotS1), std::out_of_range);
    Lines expected(kStarts.begin(), kStarts.begin() + 4);
    expected.push_back("sleepMicroseconds 15000");
    expected.push_back(kCreate);
    expectEffects(expected);
    fwData.giveSlotBack();
    expectEffects(join({kStopsEndpoint, {"led 1 off", "change 1"}}));
    EXPECT_FALSE(fwData.offers(eStorageSlotS1));
    expectPass(0, {});
}

// --- the two endpoint primitives

TEST_F(FwDataTest, firstStartOfTheEndpointResetsTheBusTwice) {
    fwData.startEndpointApp(false);
    expectEffects({kReset2, "sleepMicroseconds 1200000", kReset2, "sleepMicroseconds 1000000", "run /usr/bin/endpoint &"});
}

TEST_F(FwDataTest, restartOfTheEndpointResetsTheBusOnce) {
    fwData.startEndpointApp(true);
    expectEffects({kReset2, "sleepMicroseconds 1000000", "run /usr/bin/endpoint &"});
}

TEST_F(FwDataTest, endpointIsNotStartedWithoutAnIdentity) {
    tooShort();
    EXPECT_THROW(fwData.startEndpointApp(false), std::out_of_range);
    EXPECT_THROW(fwData.startEndpointApp(true), std::out_of_range);
    expectNoEffects();
}

TEST_F(FwDataTest, resetShowsTheIdentityWithoutLeadingZeros) {
    config.put(kParamFirewireString3206, "ff:ff:ff:ff:ff:ff");
    fwData.startEndpointApp(true);
    config.put(kParamFirewireString3206, "00:00:00:00:00:00");
    fwData.startEndpointApp(true);
    EXPECT_EQ(world.journal.matching("run /usr/local"), (Lines{"run /usr/local/bin/fwreset.sh 0xffffff01 0xffffff 0x2",
                                                               "run /usr/local/bin/fwreset.sh 0x1 0x0 0x2"}));
}

TEST_F(FwDataTest, addressIsReadAnewForEveryReset) {
    start();
    config.put(kParamFirewireString3206, "02:00:00:00:00:01");
    fwData.pauseFirewireAccess(500);
    EXPECT_EQ(world.journal.count("run /usr/local/bin/fwreset.sh 0x2000001 0x1 0x2"), 1U);
    config.put(kParamFirewireString3206, "02:00:00:00:00:02");
    fwData.stopFirewireAccess(true);
    EXPECT_EQ(world.journal.count("run /usr/local/bin/fwreset.sh 0x2000001 0x2 0x1"), 1U);
    config.put(kParamFirewireString3206, "02:00:00:00:00:03");
    fwData.startEndpointApp(true);
    EXPECT_EQ(world.journal.count("run /usr/local/bin/fwreset.sh 0x2000001 0x3 0x2"), 1U);
}

TEST_F(FwDataTest, endpointThatGoesAtOnceIsNotWaitedFor) {
    fwData.stopEndpointApp();
    expectEffects(kStopsEndpoint);
    EXPECT_TRUE(os.files.contains(kNotInUse));
}

TEST_F(FwDataTest, endpointIsLookedForTwentyOneTimesAndWaitedForTwenty) {
    for (int found : {1, 2, 19, 20, 21, 30}) {
        world.shell.answer("/usr/bin/pgrep endpoint", 0, "", found);
        const long long before = os.now();
        fwData.stopEndpointApp();
        Lines expected{"run /usr/bin/pkill endpoint"};
        const int looks = std::min(found + 1, 21);
        for (int look = 1; look <= looks; ++look) {
            expected.push_back("run /usr/bin/pgrep endpoint");
            if (look != looks) expected.push_back("sleepMicroseconds 200000");
        }
        expected.push_back(kCreate);
        SCOPED_TRACE(found);
        expectEffects(expected);
        EXPECT_EQ(os.now() - before, 200'000'000LL * std::min(found, 20));
        noEndpoint();
    }
}

// --- pause

TEST_F(FwDataTest, pauseWhileInactiveOnlyTurnsTheLedOff) {
    EXPECT_EQ(fwData.pauseFirewireAccess(500), 0);
    expectEffects({"led 0 off"});
    start();
    fwData.stopFirewireAccess(true);
    world.journal.clear();
    EXPECT_EQ(fwData.pauseFirewireAccess(500), 0);
    expectEffects({"led 1 off"});
    // And does not make the next start a resume.
    tooShort();
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), -1);
    expectError(kTooShort);
}

TEST_F(FwDataTest, pauseStopsTheEndpointAndKeepsTheSlot) {
    start();
    EXPECT_EQ(fwData.pauseFirewireAccess(500), 0);
    expectEffects(kPauses);
    EXPECT_FALSE(fwData.offers(eStorageSlotS1));
    EXPECT_EQ(fwData.stopFirewireAccess(true), 0);
    expectEffects(kStops);
}

TEST_F(FwDataTest, pauseWaitsAsLongAsItIsTold) {
    start();
    EXPECT_EQ(fwData.pauseFirewireAccess(1), 0);
    EXPECT_EQ(world.journal.matching("sleep"), Lines{"sleepMicroseconds 1000"});
    world.journal.clear();
    EXPECT_EQ(fwData.pauseFirewireAccess(4'000'000), 0);
    EXPECT_EQ(world.journal.matching("sleep"), Lines{"sleepMicroseconds 4000000000"});
}

TEST_F(FwDataTest, pauseWithoutAnIdentityIsTheCallersToHandle) {
    start();
    tooShort();
    os.files.insert(kUnavailable);
    EXPECT_THROW(fwData.checkMessages(), std::out_of_range);
    expectEffects(join({kLooksAtAvailability, {"run /usr/bin/pkill endpoint", "sleepMicroseconds 500000"}}));
    fwData.giveSlotBack();
    expectEffects(join({kStopsEndpoint, {"led 1 off", "change 1"}}));
    EXPECT_FALSE(fwData.offers(eStorageSlotS1));
}

// --- stop

TEST_F(FwDataTest, stopWhileInactiveDoesNothing) {
    for (bool force : {false, true}) {
        EXPECT_EQ(fwData.stopFirewireAccess(force), 0);
        expectNoEffects();
    }
}

TEST_F(FwDataTest, stopGivesTheSlotBack) {
    start();
    EXPECT_EQ(fwData.stopFirewireAccess(false), 0);
    expectEffects(join({kLooksAtUseAndStop, kStops}));
    EXPECT_FALSE(fwData.offers(eStorageSlotS1));
    expectPass(0, {});
    EXPECT_EQ(fwData.stopFirewireAccess(false), 0);
    expectNoEffects();
}

TEST_F(FwDataTest, slotIsNotTheEndpointsAnyMoreWhenTheRecorderGetsIt) {
    start();
    bool offered = true;
    owner.onChange = [&] { offered = fwData.offers(eStorageSlotS1); };
    fwData.stopFirewireAccess(false);
    EXPECT_FALSE(offered);
}

TEST_F(FwDataTest, stopWaitsForTheEndpoint) {
    start();
    world.shell.answer("/usr/bin/pgrep endpoint", 0, "", 2);
    EXPECT_EQ(fwData.stopFirewireAccess(false), 0);
    expectEffects(join({kLooksAtUseAndStop,
                        {"run /usr/bin/pkill endpoint", "run /usr/bin/pgrep endpoint", "sleepMicroseconds 200000",
                         "run /usr/bin/pgrep endpoint", "sleepMicroseconds 200000", "run /usr/bin/pgrep endpoint", kCreate,
                         kReset1, "led 1 off", "change 1"}}));
}

TEST_F(FwDataTest, stopIsRefusedWhileTheHostUsesTheDisk) {
    startInUse();
    EXPECT_EQ(fwData.stopFirewireAccess(false), -1);
    expectEffects(kLooksAtUse);
    EXPECT_TRUE(fwData.offers(eStorageSlotS1));
    EXPECT_EQ(fwData.stopFirewireAccess(true), 0);
    expectEffects(kStops);
}

TEST_F(FwDataTest, stopIsRefusedWhileAReleaseIsAskedFor) {
    start();
    os.files.insert(kStop);
    EXPECT_EQ(fwData.stopFirewireAccess(false), -1);
    expectEffects(kLooksAtUseAndStop);
    EXPECT_EQ(fwData.stopFirewireAccess(true), 0);
    expectEffects(kStops);
}

TEST_F(FwDataTest, stopWhilePaused) {
    startPaused();
    EXPECT_EQ(fwData.stopFirewireAccess(false), 0);
    expectEffects(join({kLooksAtUseAndStop, kStops}));
    start(); // as ever
}

TEST_F(FwDataTest, stopWithoutAnIdentityIsTheCallersToHandle) {
    for (bool force : {false, true}) {
        start();
        tooShort();
        EXPECT_THROW(fwData.stopFirewireAccess(force), std::out_of_range);
        expectEffects(join({force ? Lines{} : kLooksAtUseAndStop, kStopsEndpoint}));
        EXPECT_FALSE(fwData.offers(eStorageSlotS1));
        // The endpoint has been stopped: once is enough.
        fwData.giveSlotBack();
        expectEffects({"led 1 off", "change 1"});
        config.put(kParamFirewireString3206, "00:0c:17:12:34:56");
    }
}

// --- one look: the host

TEST_F(FwDataTest, lookWhileInactiveDoesNothing) {
    mediumGoes();
    os.files.insert(kUnavailable);
    expectPass(0, {});
}

TEST_F(FwDataTest, lookAtAShutdownEndsTheDaemon) {
    start();
    os.files.insert(kUnavailable);
    owner.shutdown = true;
    expectPass(0, {});
    EXPECT_EQ(Daemonizer::killed, 1);
}

TEST_F(FwDataTest, lookAtAShutdownEndsTheDaemonWhileInactiveToo) {
    owner.shutdown = true;
    expectPass(0, {});
    EXPECT_EQ(Daemonizer::killed, 1);
}

TEST_F(FwDataTest, endpointThatNobodyUsesIsStartedAnewEveryTenSeconds) {
    start();
    for (int round = 0; round < 3; ++round) {
        expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop}));
        passSeconds(9);
        expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop}));
        passSeconds(1);
        expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop, kRestarts}));
        EXPECT_EQ(Daemonizer::killed, 0);
    }
}

TEST_F(FwDataTest, endpointIsStartedAnewInTimeWhateverTheDate) {
    start();
    world.os.startTime += 1'000'000;
    passSeconds(9);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop}));
    world.os.startTime -= 2'000'000;
    passSeconds(1);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop, kRestarts}));
}

TEST_F(FwDataTest, restartWaitsForTheEndpointToGo) {
    start();
    passSeconds(10);
    world.shell.answer("/usr/bin/pgrep endpoint", 0, "", 1);
    Lines expected = join({kLooksAtAvailability, kLooksAtUseAndStop, kRestarts});
    expected.insert(expected.begin() + 6, {"sleepMicroseconds 200000", "run /usr/bin/pgrep endpoint"});
    expectPass(0, expected);
}

TEST_F(FwDataTest, restartWithoutAnIdentityIsTheCallersToHandle) {
    start();
    passSeconds(10);
    tooShort();
    EXPECT_THROW(fwData.checkMessages(), std::out_of_range);
    expectEffects(join({kLooksAtAvailability, kLooksAtUseAndStop, {"led 1 on"}, kStopsEndpoint,
                        {"sleepMicroseconds 1000000"}}));
    fwData.giveSlotBack();
    expectEffects(join({kStopsEndpoint, {"led 1 off", "change 1"}}));
}

TEST_F(FwDataTest, hostTakesTheDisk) {
    startInUse();
    // Said once; and nothing is started anew however long it lasts.
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
    passSeconds(1000);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
}

TEST_F(FwDataTest, hostTakesTheDiskAfterALongTime) {
    start();
    passSeconds(10);
    hostTakes();
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse, {"led 1 on"}}));
}

TEST_F(FwDataTest, releaseThatIsAskedForCountsAsUse) {
    start();
    os.files.insert(kStop);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop, {"led 1 on"}}));
    expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop}));
    os.files.erase(kStop);
    expectPass(2, join({kLooksAtAvailability, kLooksAtUseAndStop, {"led 1 off"}}));
}

TEST_F(FwDataTest, hostLetsTheDiskGoIsToldOnce) {
    startInUse();
    hostLetsGo();
    expectPass(2, join({kLooksAtAvailability, kLooksAtUseAndStop, {"led 1 off"}}));
    expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop}));
    // Released, and no longer announced: the endpoint is not started anew.
    passSeconds(1000);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop}));
}

TEST_F(FwDataTest, hostHasNotLetGoWhileAReleaseIsAskedFor) {
    startInUse();
    hostLetsGo();
    os.files.insert(kStop);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop}));
    os.files.erase(kStop);
    expectPass(2, join({kLooksAtAvailability, kLooksAtUseAndStop, {"led 1 off"}}));
}

TEST_F(FwDataTest, hostTakesTheDiskAgain) {
    startInUse();
    hostLetsGo();
    EXPECT_EQ(fwData.checkMessages(), 2U);
    hostTakes();
    world.journal.clear();
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse, {"led 1 on"}}));
    hostLetsGo();
    expectPass(2, join({kLooksAtAvailability, kLooksAtUseAndStop, {"led 1 off"}}));
}

TEST_F(FwDataTest, diskThatWasInUseIsOfferedAnewByTheNextStart) {
    startInUse();
    fwData.stopFirewireAccess(true);
    world.journal.clear();
    start();
    expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop}));
}

// --- one look: the medium

TEST_F(FwDataTest, unavailableDiskPausesAtOnce) {
    start();
    os.files.insert(kUnavailable);
    expectPass(0, join({kLooksAtAvailability, kPauses, kLooksAtUseAndStop}));
    EXPECT_FALSE(fwData.offers(eStorageSlotS1));
    EXPECT_TRUE(os.files.contains(kUnavailable)); // until access resumes
}

TEST_F(FwDataTest, mediumThatIsThereIsNotSearchedFor) {
    start();
    owner.recordQueries = true;
    expectPass(0, join({kLooksAtAvailability, {"slotPresent 1"}, kLooksAtUseAndStop}));
}

TEST_F(FwDataTest, twelveSecondsWithoutAMediumAreAllowed) {
    startInUse();
    mediumGoes();
    expectPass(0, join({kLooksAtAvailability, {"findStorage false"}, kLooksAtUse}));
    // Searched for once; then the time runs.
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
    passSeconds(12);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
    EXPECT_TRUE(fwData.offers(eStorageSlotS1));
    passSeconds(1);
    expectPass(0, join({kLooksAtAvailability, kPauses, kLooksAtUse}));
    EXPECT_FALSE(fwData.offers(eStorageSlotS1));
}

TEST_F(FwDataTest, dateThatIsSetEndsNoTime) {
    startInUse();
    mediumGoes();
    expectPass(0, join({kLooksAtAvailability, {"findStorage false"}, kLooksAtUse}));
    world.os.startTime += 1'000'000;
    passSeconds(12);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
    world.os.startTime -= 2'000'000;
    passSeconds(1);
    expectPass(0, join({kLooksAtAvailability, kPauses, kLooksAtUse}));
}

TEST_F(FwDataTest, searchGivesItsResult) {
    startInUse();
    mediumGoes();
    owner.found = true;
    expectPass(1, join({kLooksAtAvailability, {"findStorage false"}, kLooksAtUse}));
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
}

TEST_F(FwDataTest, timeRunsFromTheLossOfTheDeviceOn) {
    startInUse();
    owner.present = false; // the kernel still knows the disk
    for (int round = 0; round < 30; ++round) {
        expectPass(0, join({kLooksAtAvailability, {"findStorage false"}, kLooksAtUse}));
        passSeconds(1);
    }
    owner.onFindStorage = [this] { owner.device.clear(); }; // the search takes it off the bus
    expectPass(0, join({kLooksAtAvailability, {"findStorage false"}, kLooksAtUse}));
    passSeconds(12);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
    passSeconds(1);
    expectPass(0, join({kLooksAtAvailability, kPauses, kLooksAtUse}));
}

TEST_F(FwDataTest, mediumThatIsBackInTimeStopsTheClock) {
    startInUse();
    for (int round = 0; round < 3; ++round) {
        mediumGoes();
        expectPass(0, join({kLooksAtAvailability, {"findStorage false"}, kLooksAtUse}));
        passSeconds(12);
        expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
        mediumComes("sdc");
        passSeconds(1);
        expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
    }
    EXPECT_TRUE(fwData.offers(eStorageSlotS1));
}

TEST_F(FwDataTest, halfOfAMediumDoesNotStopTheClock) {
    startInUse();
    mediumGoes();
    fwData.checkMessages();
    world.journal.clear();
    passSeconds(12);
    owner.present = true;
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
    owner.present = false;
    owner.device = "sdb";
    expectPass(0, join({kLooksAtAvailability, kLooksAtUse}));
    passSeconds(1);
    expectPass(0, join({kLooksAtAvailability, kPauses, kLooksAtUse}));
}

TEST_F(FwDataTest, startStopsTheClock) {
    startInUse();
    mediumGoes();
    fwData.checkMessages();
    fwData.stopFirewireAccess(true);
    world.journal.clear();
    owner.device = "sdb";
    start();
    passSeconds(13);
    mediumGoes();
    hostTakes();
    // A time of its own: it is not paused at once.
    expectPass(0, join({kLooksAtAvailability, {"findStorage false"}, kLooksAtUse, {"led 1 on"}}));
}

TEST_F(FwDataTest, pauseStopsTheClock) {
    startInUse();
    mediumGoes();
    fwData.checkMessages();
    os.files.insert(kUnavailable);
    fwData.checkMessages();
    world.journal.clear();
    mediumComes();
    expectPass(0, join({kFindsTheMedium, kStarts, kLooksAtUseAndStop}));
}

// --- paused, and back

TEST_F(FwDataTest, pausedAccessSearchesForTheMedium) {
    startPaused();
    mediumGoes();
    expectPass(0, join({{"findStorage false"}, kLooksAtUseAndStop}));
    owner.found = true; // in another slot
    expectPass(1, join({{"findStorage false"}, kLooksAtUseAndStop}));
    owner.present = true;
    expectPass(1, join({{"findStorage false"}, kLooksAtUseAndStop}));
    owner.present = false;
    owner.device = "sdb";
    expectPass(1, join({{"findStorage false"}, kLooksAtUseAndStop}));
}

TEST_F(FwDataTest, pausedAccessResumesWhenTheMediumIsBack) {
    startPaused();
    mediumGoes();
    fwData.checkMessages();
    world.journal.clear();
    owner.found = true;
    owner.onFindStorage = [this] { mediumComes("sdc"); };
    Lines starts = kStarts;
    starts[3] = "run cp /etc/endpoint.conf.sdc /etc/endpoint.conf";
    expectPass(0, join({kFindsTheMedium, starts, kLooksAtUseAndStop}));
    EXPECT_TRUE(fwData.offers(eStorageSlotS1));
    EXPECT_FALSE(os.files.contains(kUnavailable));
    // Started anew in ten seconds, as after every start.
    passSeconds(10);
    expectPass(0, join({kLooksAtAvailability, kLooksAtUseAndStop, kRestarts}));
}

TEST_F(FwDataTest, accessThatWasInUseResumesAsNotInUse) {
    startInUse();
    os.files.insert(kUnavailable);
    expectPass(0, join({kLooksAtAvailability, kPauses, kLooksAtUse}));
    expectPass(0, join({kFindsTheMedium, kStarts, kLooksAtUseAndStop}));
}

TEST_F(FwDataTest, endpointThatNobodyUsesIsStartedAnewWhilePausedToo) {
    startPaused();
    mediumGoes();
    passSeconds(9);
    expectPass(0, join({{"findStorage false"}, kLooksAtUseAndStop}));
    passSeconds(1);
    expectPass(0, join({{"findStorage false"}, kLooksAtUseAndStop, kRestarts}));
    EXPECT_FALSE(fwData.offers(eStorageSlotS1));
    passSeconds(10);
    expectPass(0, join({{"findStorage false"}, kLooksAtUseAndStop, kRestarts}));
    // In the pass of the pause as well.
    mediumComes();
    fwData.checkMessages();
    passSeconds(10);
    os.files.insert(kUnavailable);
    world.journal.clear();
    expectPass(0, join({kLooksAtAvailability, kPauses, kLooksAtUseAndStop, kRestarts}));
}

TEST_F(FwDataTest, endpointThatWasInUseIsNotStartedWhilePaused) {
    startInUse();
    os.files.insert(kUnavailable);
    fwData.checkMessages();
    mediumGoes();
    hostLetsGo();
    world.journal.clear();
    expectPass(2, join({{"findStorage false"}, kLooksAtUseAndStop, {"led 1 off"}}));
    passSeconds(1000);
    expectPass(0, join({{"findStorage false"}, kLooksAtUseAndStop}));
}

TEST_F(FwDataTest, hostIsWatchedWhilePaused) {
    startPaused();
    mediumGoes();
    hostTakes();
    expectPass(0, join({{"findStorage false"}, kLooksAtUse, {"led 1 on"}}));
    hostLetsGo();
    expectPass(2, join({{"findStorage false"}, kLooksAtUseAndStop, {"led 1 off"}}));
    expectPass(0, join({{"findStorage false"}, kLooksAtUseAndStop}));
}

TEST_F(FwDataTest, resumeThatTheRecorderRefusesIsTriedAgainAndReportedOnce) {
    startPaused();
    const Lines tries = join({kFindsTheMedium, {"change 0"}, kLooksAtUseAndStop});
    for (int round = 0; round < 2; ++round) {
        owner.releaseResult = 15;
        // No endpoint is left to take the medium that is back, and none is started anew.
        expectPass(0xffffffff, join({kFindsTheMedium, {"change 0"}, kStopsEndpoint, kLooksAtUseAndStop}));
        expectError(kNotReleased);
        EXPECT_FALSE(fwData.offers(eStorageSlotS1));
        passSeconds(100);
        expectPass(0xffffffff, tries);
        expectError("");
        owner.releaseResult = 0;
        EXPECT_EQ(fwData.checkMessages(), 0U);
        EXPECT_TRUE(fwData.offers(eStorageSlotS1));
        fwData.pauseFirewireAccess(500);
        world.journal.clear();
    }
}

TEST_F(FwDataTest, startThatIsRefusedAfterAResumeWasIsReported) {
    startPaused();
    owner.releaseResult = 15;
    fwData.checkMessages();
    expectError(kNotReleased);
    fwData.stopFirewireAccess(true);
    EXPECT_EQ(fwData.startFirewireAccess(eStorageSlotS1), -1);
    expectError(kNotReleased);
}

TEST_F(FwDataTest, resumeWithoutAnIdentityIsTheCallersToHandle) {
    startPaused();
    tooShort();
    EXPECT_THROW(fwData.checkMessages(), std::out_of_range);
    // The slot has not been taken from the recorder once more.
    expectEffects(kFindsTheMedium);
    fwData.giveSlotBack();
    expectEffects(join({kStopsEndpoint, {"led 1 off", "change 1"}}));
    expectPass(0, {});
}

// --- cleanup

TEST_F(FwDataTest, cleanupStopsTheEndpointWhenAccessIsActive) {
    fwData.cleanup();
    expectNoEffects();
    start();
    fwData.cleanup();
    expectEffects(kStopsEndpoint);
}

TEST_F(FwDataTest, cleanupStopsTheEndpointWhilePausedToo) {
    startPaused();
    fwData.cleanup();
    expectEffects(kStopsEndpoint);
}

TEST_F(FwDataTest, cleanupAfterAStopDoesNothing) {
    start();
    fwData.stopFirewireAccess(false);
    world.journal.clear();
    fwData.cleanup();
    expectNoEffects();
}

} // namespace
