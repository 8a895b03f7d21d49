// FireWire disk access as the manager drives it: with a real controller, on a board that has FireWire.

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/media_manager/manager_test.h"

namespace {

constexpr char kWithFirewire[] = "mediaCapabilities = { \"firewire_data\" }\n";
constexpr char kWithFirewireAndHack[] = R"(
mediaCapabilities = { "cf_hack", "firewire_data" }
specification.slots[1].cf_hack_present = "S1 on"
specification.slots[1].cf_hack_not_present = "S1 off"
)";

const std::string kUnavailable = "/var/run/endpointdiskunavailable";
const std::string kNotInUse = "/var/run/endpointdisknotinuse";

// While access is active, whoever looks finds nothing of note.
const Lines kLooks = {"exists /var/run/endpointdiskunavailable", "exists /var/run/endpointdisknotinuse",
                      "exists /var/run/endpointdiskstop"};
const Lines kLooksAtUseAndStop = {"exists /var/run/endpointdisknotinuse", "exists /var/run/endpointdiskstop"};

const Lines kStopsEndpoint = {"run /usr/bin/pkill endpoint", "run /usr/bin/pgrep endpoint",
                              "create /var/run/endpointdisknotinuse 644"};
const std::string kReset1 = "run /usr/local/bin/fwreset.sh 0xc1701 0x123456 0x1";
const std::string kReset2 = "run /usr/local/bin/fwreset.sh 0xc1701 0x123456 0x2";

constexpr char kNotReleased[] = "Media ManagerstartFirewireAccess: The recorder could not let go of the medium.\n";
constexpr char kEnded[] = "Media ManagerFireWire access ended: the MAC address is too short for an identity.\n";

class FirewireTest : public ManagerTest {
protected:
    FirewireTest() {
        config.put(kParamFirewireString3206, "00:0c:17:12:34:56");
        shell.answer("/usr/bin/pgrep endpoint", 1);
        // The bus: a disk that is deleted is gone until it is asked for again, and an endpoint asks for its own.
        os.onSystem = [this](const std::string& line) {
            if (line.ends_with("/device/delete")) kernelRemoves(S1, "sdb");
            if (line.starts_with("echo 0 0 0")) kernelAdds(S1, "sdb");
            return 0;
        };
        shell.handle("/usr/bin/endpoint &", [this](const std::string&) {
            if (endpointTakesDisk) kernelAdds(S1, "sdb");
            return fakes::FakeFileUtils::Answer{};
        });
    }

    // With the medium in S1 in use, AV/C at rest, and one pass over.
    void startInUse(const std::string& board = kWithFirewire) {
        startWithMedium(S1, "sdb", board);
        world.events.raise(kParamFirewireAVCPause, 1);
        manager->pass();
        effects();
    }
    // The same, handed over.
    void startOffered(const std::string& board = kWithFirewire) {
        startInUse(board);
        post(kParamFirewireMode, 2);
        manager->pass();
        ASSERT_EQ(world.journal.count("run /usr/bin/endpoint &"), 1U);
        ASSERT_EQ(config.integer(kParamFirewireMode), 2);
        ASSERT_EQ(config.integer(kParamSelectedSlot), 0);
        effects();
    }
    void pass(const Lines& expected) {
        EXPECT_TRUE(manager->pass());
        expectEffects(join({{"sleepSeconds 1"}, expected}));
    }
    void passSeconds(int seconds) { os.advance(1'000'000'000LL * seconds); }
    void tooShort() { config.put(kParamFirewireString3206, "00:0c:17:12:34"); }

    // From the moment at which the recorder has let go.
    Lines offers(const Place& place, const std::string& device) {
        return {led(place, eStorageLEDOn),
                "unlink /var/run/endpointdiskunavailable",
                "run cp /etc/endpoint.conf." + device + " /etc/endpoint.conf",
                "create /var/run/endpointdisknotinuse 644",
                kReset2,
                "sleepMicroseconds 1200000",
                kReset2,
                "sleepMicroseconds 1000000",
                "run /usr/bin/endpoint &",
                led(place, eStorageLEDOff)};
    }
    // Of a disk that the endpoint has on the bus.
    Lines takesBack() { return goesIntoUse(S1, "sdb"); }

    // `lines` with `time` as the time of every change of the media.
    static Lines at(int time, Lines lines) {
        for (std::string& line : lines)
            if (line.starts_with("set 0x7d06000a ")) line = sets(kParamMediaChangedTime, time);
        return lines;
    }

    bool endpointTakesDisk = true;
};

// --- the controller

TEST_F(FirewireTest, initMakesTheControllerBeforeTheSlotsArePrepared) {
    for (int mode : {0, 1, 2}) {
        makeManager(kWithFirewire);
        config.put(kParamFirewireMode, mode);
        effects();
        EXPECT_EQ(manager->init(), 0);
        Lines lines = effects();
        const auto at = std::find(lines.begin(), lines.end(), sets(kParamFirewireAVCPause, mode == 2 ? 1 : 0));
        ASSERT_NE(at, lines.end());
        EXPECT_EQ(*(at - 1), "run scan drivers");
        EXPECT_EQ(*(at + 1), "mkdir /mnt/S1 1411");
        EXPECT_FALSE(manager->firewireStartRequested()); // a mode that stands is no request
    }
}

TEST_F(FirewireTest, initMakesTheControllerAfterTheHackIsEnabled) {
    makeManager(kWithFirewireAndHack);
    EXPECT_EQ(manager->init(), 0);
    const Lines lines = effects();
    const auto at = std::find(lines.begin(), lines.end(), sets(kParamFirewireAVCPause, 0));
    ASSERT_NE(at, lines.end());
    EXPECT_EQ(*(at - 1), "run enable hack");
}

TEST_F(FirewireTest, endpointOfAKilledDaemonIsStoppedBeforeAnyMediumIsTouched) {
    bool runs = true;
    os.onIsRunning = [&runs](const std::string& name) { return runs && name == "endpoint"; };
    shell.handle("/usr/bin/pkill endpoint", [&runs](const std::string&) {
        runs = false;
        return fakes::FakeFileUtils::Answer{};
    });
    makeManager(kWithFirewire);
    config.put(kParamSelectedSlot, 1);
    insert(S1, "sdb");
    effects();
    EXPECT_EQ(manager->init(), 0);
    expectError("Media Manageran endpoint that an earlier daemon has left behind is stopped\n");
    const Lines lines = effects();
    const Lines stops = join({{"run scan drivers"}, kStopsEndpoint, {kReset1, sets(kParamFirewireAVCPause, 0)}});
    const auto at = std::search(lines.begin(), lines.end(), stops.begin(), stops.end());
    ASSERT_NE(at, lines.end());
    const auto touchesDisk = [](const std::string& line) { return line.find("/dev/") != std::string::npos; };
    EXPECT_FALSE(std::any_of(lines.begin(), at, touchesDisk));
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
}

TEST_F(FirewireTest, boardWithoutFirewireLooksForNoEndpoint) {
    os.onIsRunning = [](const std::string& name) {
        ADD_FAILURE() << name;
        return true;
    };
    makeManager();
    EXPECT_EQ(manager->init(), 0);
    EXPECT_EQ(effectsOf("run /usr/bin"), Lines{});
}

TEST_F(FirewireTest, boardWithoutFirewireHasNone) {
    config.put(kParamFirewireMode, 2);
    makeManager();
    EXPECT_EQ(manager->init(), 0);
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), sets(kParamFirewireAVCPause, 1)), 0);
}

TEST_F(FirewireTest, pauseThatInitAsksForIsHeardByTheController) {
    makeManager(kWithFirewire);
    config.put(kParamFirewireMode, 2);
    config.put(kParamSelectedSlot, 1);
    insert(S1, "sdb");
    // AV/C is at rest already; the store repeats what init writes while it is still writing.
    config.onSet = [this](eParam_t id) {
        if (id == kParamFirewireAVCPause) world.events.raise(id, 1);
    };
    EXPECT_EQ(manager->init(), 0);
    post(kParamFirewireMode, 2);
    manager->pass();
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run /usr/bin/endpoint &"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "sleepMicroseconds 15000"), 0);
}

class FirewirePauseTest : public FirewireTest {
protected:
    // How many times a start asks whether AV/C has paused, and waits.
    std::ptrdiff_t waits() {
        post(kParamFirewireMode, 2);
        manager->pass();
        const Lines lines = effects();
        return std::count(lines.begin(), lines.end(), "sleepMicroseconds 15000");
    }
};

TEST_F(FirewirePauseTest, oneMeansPaused) {
    startInUse();
    world.events.raise(kParamFirewireAVCPause, 1);
    EXPECT_EQ(waits(), 0);
}

TEST_F(FirewirePauseTest, noughtMeansNotPaused) {
    startInUse();
    world.events.raise(kParamFirewireAVCPause, 0);
    EXPECT_EQ(waits(), 400);
}

TEST_F(FirewirePauseTest, otherValuesMeanNothing) {
    startInUse();
    for (unsigned int value : {2U, 3U, 0xffffffffU}) world.events.raise(kParamFirewireAVCPause, value);
    EXPECT_EQ(waits(), 0);
}

TEST_F(FirewirePauseTest, otherValuesMeanNothingWhileNotPausedEither) {
    startInUse();
    world.events.raise(kParamFirewireAVCPause, 0);
    for (unsigned int value : {2U, 3U, 0xffffffffU}) world.events.raise(kParamFirewireAVCPause, value);
    EXPECT_EQ(waits(), 400);
}

// --- start

TEST_F(FirewireTest, startOnRequest) {
    startInUse();
    post(kParamFirewireMode, 2);
    const int since = now() + 1; // the pass sleeps first
    pass(join({releases(S1, "sdb", since),
               {sets(kParamSlotChangeCommand, 0), sets(kParamSelectedSlot, 0)},
               offers(S1, "sdb")}));
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
    EXPECT_FALSE(manager->firewireStartRequested());
    EXPECT_EQ(config.integer(kParamFirewireMode), 2);
    pass(kLooks);
}

TEST_F(FirewireTest, startGivesItsResult) {
    startInUse();
    manager->requestStartFirewireAccess();
    EXPECT_EQ(manager->checkMessages(), 0);
    manager->serviceFirewireAccess();
    EXPECT_EQ(manager->startRequestedFirewireAccess(17), 17); // nothing was asked for
}

TEST_F(FirewireTest, startComesAfterTheSearchAndTheCommands) {
    startInUse();
    post(kParamFirewireMode, 2);
    post(kParamSlotChangeCommand, 6);
    manager->pass();
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run /usr/bin/endpoint &"), 0);
    EXPECT_TRUE(manager->firewireStartRequested());
}

TEST_F(FirewireTest, startWaitsForTheTransport) {
    startInUse();
    post(kParamTransportState, 5);
    post(kParamFirewireMode, 2);
    manager->pass();
    EXPECT_EQ(effectsOf("run"), Lines{});
    EXPECT_TRUE(manager->firewireStartRequested());
    post(kParamTransportState, 1);
    manager->pass();
    EXPECT_EQ(world.journal.count("run /usr/bin/endpoint &"), 1U);
}

TEST_F(FirewireTest, startIsRefusedWhileTheStorageIsAcquired) {
    startInUse();
    post(kParamMediaCommand, 1);
    manager->pass();
    effects();
    post(kParamFirewireMode, 2);
    pass({sets(kParamSlotChangeCommand, 15), sets(kParamSelectedSlot, 1), sets(kParamFirewireMode, 0)});
    expectError(kNotReleased);
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
    // Not tried again, and not active.
    pass({});
    post(kParamMediaCommand, 2);
    effects();
    post(kParamFirewireMode, 2);
    manager->pass();
    EXPECT_EQ(world.journal.count("run /usr/bin/endpoint &"), 1U);
}

TEST_F(FirewireTest, refusedStartGivesItsResult) {
    startInUse();
    manager->acquireStorage();
    manager->requestStartFirewireAccess();
    EXPECT_EQ(manager->checkMessages(), -1);
    expectError(kNotReleased);
}

TEST_F(FirewireTest, nothingIsOfferedWhenTheMediumCannotBeUnmounted) {
    startInUse();
    media.umountStatus = 32;
    post(kParamFirewireMode, 2);
    manager->pass();
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), sets(kParamSlotChangeCommand, 14)), 1);
    EXPECT_EQ(lines.back(), sets(kParamFirewireMode, 0));
    for (const std::string& line : lines) EXPECT_EQ(line.find("endpoint"), std::string::npos) << line;
    EXPECT_EQ(takeErrors(), "Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n"
                            "Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n" +
                                std::string(kNotReleased));
}

TEST_F(FirewireTest, startWithNothingSelected) {
    start(kWithFirewire);
    manager->pass();
    effects();
    post(kParamFirewireMode, 2);
    pass({sets(kParamFirewireMode, 0)});
    expectError("Media ManagerstartFirewireAccess: No slot selected.\n");
    pass({});
}

TEST_F(FirewireTest, startWithoutADevice) {
    startInUse();
    kernelRemoves(S1, "sdb");
    post(kParamFirewireMode, 2);
    pass({sets(kParamFirewireMode, 0)});
    expectError("Media ManagerstartFirewireAccess:  WARN: getDevice(_fwdataSlot) = <null>\n");
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
}

TEST_F(FirewireTest, startWithoutAnIdentity) {
    startInUse();
    tooShort();
    post(kParamFirewireMode, 2);
    pass({sets(kParamFirewireMode, 0)});
    expectError("Media ManagerstartFirewireAccess: The MAC address is too short for a FireWire identity.\n");
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
}

// --- while it is active

TEST_F(FirewireTest, commandsAreNotHandledWhileAccessIsActive) {
    startOffered();
    config.put(kParamAlarms, 0x40000);
    post(kParamRecordSetting1102, 1);
    post(kParamSlotChangeCommand, 6);
    post(kParamSlotRemountCommand, 2);
    pass(kLooks);
    EXPECT_TRUE(manager->slotChangeRequested());
}

TEST_F(FirewireTest, activeTransportComesFirst) {
    startOffered();
    post(kParamTransportState, 5);
    post(kParamFirewireMode, 0);
    pass({});
    EXPECT_TRUE(manager->firewireStopRequested());
}

TEST_F(FirewireTest, searchLeavesTheEndpointsMediumAlone) {
    startOffered();
    // The endpoint has had it announced: to the recorder it looks newly inserted, with nothing selected.
    ASSERT_TRUE(listener->getSlot(eStorageSlotS1).isNewlyInserted());
    EXPECT_TRUE(manager->findStorage(false));
    expectNoEffects();
    kernelRemoves(S1, "sdb");
    EXPECT_FALSE(manager->findStorage(false));
    expectNoEffects();
}

TEST_F(FirewireTest, searchNeitherProbesNorShowsTheEndpointsMediumThatComesBack) {
    startOffered(kWithFirewireAndHack);
    pinGoesOut(S1);
    kernelRemoves(S1, "sdb");
    manager->findStorage(false);
    expectEffects({"run S1 off"});
    pinGoesIn(S1);
    EXPECT_FALSE(manager->findStorage(false));
    expectEffects({"run S1 on"});
    EXPECT_FALSE(manager->isMediaLoading());
}

TEST_F(FirewireTest, searchTakesAPulledDiskOffTheBus) {
    startOffered();
    pinGoesOut(S1);
    EXPECT_FALSE(manager->findStorage(false));
    expectEffects(join({unmountOfNothing(S1, true), deletesFromBus("sdb")}));
    EXPECT_EQ(manager->getDevice(eStorageSlotS1), "");
    EXPECT_EQ(config.integer(kParamAlarms), 0);
}

TEST_F(FirewireTest, searchDoesNotLeaveOtherSlotsAlone) {
    startOffered();
    insert(S2, "sdc");
    EXPECT_TRUE(manager->findStorage(false));
    EXPECT_EQ(config.integer(kParamSelectedSlot), 2);
}

TEST_F(FirewireTest, emptySlotDoesNotGiveItsTurnToTheEndpointsMedium) {
    startOffered();
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS1), eStorageSlotUnknown);
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS2), 0U);
    expectEffects({sets(kParamSlotChangeCommand, 0)});
    pinGoesIn(S2);
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS1), eStorageSlotS2);
}

TEST_F(FirewireTest, endpointsMediumDoesNotKeepTheLoadingUp) {
    startOffered();
    pinGoesIn(S2);
    manager->findStorage(false);
    expectEffects({sets(kParamMediaLoadingStatus, 1)});
    pinGoesOut(S2);
    manager->findStorage(false);
    expectEffects({sets(kParamMediaLoadingStatus, 0)});
}

TEST_F(FirewireTest, mediumThatIsPulledPausesAndResumes) {
    startOffered();
    os.files.erase(kNotInUse); // the host has it
    const Lines inUse = {"exists /var/run/endpointdiskunavailable", "exists /var/run/endpointdisknotinuse"};
    pass(join({inUse, {led(S1, eStorageLEDOn)}}));
    pinGoesOut(S1);
    pass(join({{inUse[0]}, unmountOfNothing(S1, true), deletesFromBus("sdb"), {inUse[1]}}));
    for (int second = 1; second <= 12; ++second) pass(inUse);
    pass({inUse[0], "run /usr/bin/pkill endpoint", "sleepMicroseconds 500000", kReset2, led(S1, eStorageLEDOff),
          inUse[1]});
    pass({inUse[1]});
    // Back: the recorder takes it into use first, as any medium that comes, and lets go of it again.
    pinGoesIn(S1);
    kernelAdds(S1, "sdb");
    EXPECT_TRUE(manager->pass());
    const int since = now() - 2; // the endpoint's start takes 2.2 s
    expectEffects(join({{"sleepSeconds 1", sets(kParamMediaLoadingStatus, 1)},
                        at(since, goesIntoUse(S1, "sdb")),
                        {sets(kParamMediaLoadingStatus, 0), "unlink /var/run/endpointdiskunavailable",
                         sets(kParamVolumeName, "N/A"), sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0),
                         "clips flushAll", sets(kParamPlaylistName, ""), sets(kParamMediaChangedTime, since),
                         "run /bin/mount | grep /dev/sdb2"},
                        unmountOfNothing(S1, true),
                        deletesFromBus("sdb"),
                        {sets(kParamSlotChangeCommand, 0), sets(kParamSelectedSlot, 0)},
                        offers(S1, "sdb"),
                        kLooksAtUseAndStop}));
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
    pass(kLooks);
}

// Acquired while nothing is selected, so nobody holds a file on the medium.
TEST_F(FirewireTest, pausedAccessResumesOnAMediumThatTheRecorderMayNotTake) {
    startOffered();
    os.files.insert(kUnavailable);
    manager->pass();
    manager->acquireStorage();
    effects();
    pass(join({{sets(kParamSlotChangeCommand, 15), sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0),
                sets(kParamSelectedSlot, 0), sets(kParamMediaLoadingStatus, 0), "unlink /var/run/endpointdiskunavailable",
                sets(kParamSlotChangeCommand, 0)},
               offers(S1, "sdb"),
               kLooksAtUseAndStop}));
}

TEST_F(FirewireTest, pausedAccessWaitsForAMediumThatTheRecorderHasTaken) {
    startOffered();
    os.files.insert(kUnavailable);
    manager->pass();
    effects();
    // Somebody is quick and acquires what has just been selected.
    config.onSet = [this](eParam_t id) {
        if (id == kParamSelectedSlot && config.integer(id) == 1) {
            config.onSet = nullptr;
            manager->acquireStorage();
        }
    };
    manager->pass();
    expectError(kNotReleased);
    effects();
    const Lines waits = {"unlink /var/run/endpointdiskunavailable", sets(kParamSlotChangeCommand, 15),
                         sets(kParamSelectedSlot, 1), kLooksAtUseAndStop[0], kLooksAtUseAndStop[1]};
    for (int round = 0; round < 5; ++round) pass(waits);
    // No endpoint is started anew meanwhile: it would be given the medium, and a computer with it.
    passSeconds(10);
    for (int round = 0; round < 5; ++round) pass(waits);
    manager->releaseStorage();
    manager->pass();
    EXPECT_EQ(world.journal.count("run /usr/bin/endpoint &"), 1U);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
}

// Another medium came while access was paused, and the recorder took that one.
TEST_F(FirewireTest, pausedAccessResumesBesideAnotherMediumInUse) {
    startOffered();
    pinGoesOut(S1);
    kernelRemoves(S1, "sdb");
    os.files.insert(kUnavailable);
    manager->pass();
    insert(S2, "sdc");
    manager->pass();
    ASSERT_EQ(config.integer(kParamSelectedSlot), 2);
    manager->acquireStorage();
    insert(S1, "sdb");
    effects();
    manager->pass();
    expectError(kNotReleased);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 2);
    // An endpoint that waits for its disk would take it, and a computer that uses it then would be cut off later.
    EXPECT_EQ(effectsOf("run /usr/bin/p"), (Lines{kStopsEndpoint[0], kStopsEndpoint[1]}));
    passSeconds(20);
    manager->pass();
    EXPECT_EQ(effectsOf("run "), Lines{});
    manager->releaseStorage();
    effects();
    manager->pass();
    EXPECT_EQ(world.journal.count("run /usr/bin/endpoint &"), 1U);
    EXPECT_EQ(world.journal.count("run cp /etc/endpoint.conf.sdb /etc/endpoint.conf"), 1U);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
    EXPECT_EQ(world.journal.count("system echo 1 > /sys/block/sdb/device/delete"), 0U);
    effects();
    pass(kLooks);
}

TEST_F(FirewireTest, mediumThatIsPulledWhileAccessIsPausedEndsTheLoop) {
    startOffered();
    os.files.insert(kUnavailable);
    manager->pass();
    insert(S2, "sdc");
    pinGoesOut(S1);
    kernelRemoves(S1, "sdb");
    EXPECT_TRUE(manager->pass());
    ASSERT_EQ(config.integer(kParamSelectedSlot), 2);
    pinGoesOut(S2);
    kernelRemoves(S2, "sdc");
    EXPECT_FALSE(manager->pass());
    takeErrors();
}

// --- stop

TEST_F(FirewireTest, mediumThatTheRecorderMayNotTakeBackYetIsProbedForWhenTheEndpointHasLeftItOffTheBus) {
    startOffered();
    kernelRemoves(S1, "sdb");
    manager->acquireStorage();
    post(kParamFirewireMode, 0);
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(config.integer(kParamSlotChangeCommand), 15);
    effects();
    manager->pass();
    EXPECT_EQ(effectsOf("system echo 0 0 0"), Lines{"system echo 0 0 0 > /sys/class/scsi_host/host1/scan"});
}

TEST_F(FirewireTest, stopTakesTheMediumBack) {
    startOffered();
    manager->pass();
    effects();
    post(kParamFirewireMode, 0);
    Lines expected = join({{"sleepSeconds 1"}, kLooksAtUseAndStop, kStopsEndpoint, {kReset1}});
    EXPECT_TRUE(manager->pass());
    expectEffects(join({expected, takesBack(), {sets(kParamFirewireAVCPause, 0)}}));
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
    EXPECT_FALSE(manager->firewireStopRequested());
    // And then all is as ever.
    manager->pass();
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
}

TEST_F(FirewireTest, modeOneStopsToo) {
    startOffered();
    post(kParamFirewireMode, 1);
    manager->pass();
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
    EXPECT_EQ(config.integer(kParamFirewireMode), 1);
}

TEST_F(FirewireTest, stopAsksTheBusForADiskThatIsNotThere) {
    endpointTakesDisk = false;
    startOffered();
    post(kParamFirewireMode, 0);
    pass(join({kLooksAtUseAndStop, kStopsEndpoint,
               {kReset1, sets(kParamMediaLoadingStatus, 1), "system echo 0 0 0 > /sys/class/scsi_host/host1/scan",
                sets(kParamSlotChangeCommand, 0), sets(kParamFirewireAVCPause, 0)}}));
    EXPECT_TRUE(manager->pass());
    expectEffects(join({{"sleepSeconds 1"}, goesIntoUse(S1, "sdb"), {sets(kParamMediaLoadingStatus, 0)}}));
}

TEST_F(FirewireTest, stopWhileTheHostUsesTheDiskIsForced) {
    startOffered();
    os.files.erase(kNotInUse);
    manager->pass();
    effects();
    post(kParamFirewireMode, 0);
    EXPECT_TRUE(manager->pass());
    expectEffects(join({{"sleepSeconds 1", "exists /var/run/endpointdisknotinuse"},
                        kStopsEndpoint,
                        {kReset1, led(S1, eStorageLEDOff)},
                        takesBack(),
                        {sets(kParamFirewireAVCPause, 0)}}));
    expectError("Media ManagerData - FW stopped while media in use by remote host.\n");
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
}

TEST_F(FirewireTest, stopFollowedByAStartKeepsAvcPaused) {
    startOffered();
    manager->requestStopFirewireAccess();
    // While the endpoint is being stopped.
    shell.handle("/usr/bin/pkill endpoint", [this](const std::string&) {
        if (!manager->firewireStartRequested()) world.events.raise(kParamFirewireMode, 2);
        return fakes::FakeFileUtils::Answer{};
    });
    manager->pass();
    EXPECT_EQ(effectsOf(sets(kParamFirewireAVCPause, 0)), Lines{});
    EXPECT_TRUE(manager->firewireStartRequested());
    manager->pass();
    EXPECT_EQ(world.journal.count("run /usr/bin/endpoint &"), 1U);
}

TEST_F(FirewireTest, stopThatIsTakenBackIsNone) {
    startOffered();
    post(kParamFirewireMode, 0);
    post(kParamFirewireMode, 2);
    pass(kLooks);
}

TEST_F(FirewireTest, stopWhileNothingIsActiveStands) {
    startInUse();
    post(kParamFirewireMode, 0);
    pass({});
    EXPECT_TRUE(manager->firewireStopRequested());
    // And does not end the next access.
    post(kParamFirewireMode, 2);
    manager->pass();
    effects();
    pass(kLooks);
}

TEST_F(FirewireTest, stopWhilePausedGivesTheSlotBack) {
    startOffered();
    os.files.insert(kUnavailable);
    manager->pass();
    effects();
    post(kParamFirewireMode, 0);
    manager->pass();
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
    EXPECT_EQ(effects().back(), sets(kParamFirewireAVCPause, 0));
}

// --- no identity any more

TEST_F(FirewireTest, accessWithoutAnIdentityEndsAndGivesTheSlotBack) {
    startOffered();
    passSeconds(10);
    tooShort();
    EXPECT_TRUE(manager->pass());
    expectError(kEnded);
    expectEffects(join({{"sleepSeconds 1"},
                        kLooks,
                        {led(S1, eStorageLEDOn)},
                        kStopsEndpoint,
                        {"sleepMicroseconds 1000000"},
                        kStopsEndpoint,
                        {led(S1, eStorageLEDOff)},
                        takesBack(),
                        {sets(kParamFirewireMode, 0), sets(kParamFirewireAVCPause, 0)}}));
    manager->pass();
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
}

TEST_F(FirewireTest, stopWithoutAnIdentityGivesTheSlotBack) {
    startOffered();
    tooShort();
    post(kParamFirewireMode, 1);
    EXPECT_TRUE(manager->pass());
    expectError(kEnded);
    expectEffects(join({{"sleepSeconds 1"}, kLooksAtUseAndStop, kStopsEndpoint, takesBack(),
                        {sets(kParamFirewireAVCPause, 0)}}));
    EXPECT_EQ(config.integer(kParamFirewireMode), 1); // the stop that was asked for
}

TEST_F(FirewireTest, forcedStopWithoutAnIdentityGivesTheSlotBack) {
    startOffered();
    os.files.erase(kNotInUse);
    tooShort();
    post(kParamFirewireMode, 0);
    EXPECT_TRUE(manager->pass());
    expectError("Media ManagerData - FW stopped while media in use by remote host.\n" + std::string(kEnded));
    expectEffects(join({{"sleepSeconds 1", "exists /var/run/endpointdisknotinuse"}, kStopsEndpoint, takesBack(),
                        {sets(kParamFirewireAVCPause, 0)}}));
}

TEST_F(FirewireTest, startThatLosesItsIdentityHalfWayGivesTheSlotBack) {
    startInUse();
    world.events.raise(kParamFirewireAVCPause, 0);
    os.onSleep = [this](long long nanoseconds) {
        if (nanoseconds == 15'000'000) tooShort();
    };
    manager->requestStartFirewireAccess();
    EXPECT_EQ(manager->checkMessages(), -1);
    expectError(kEnded);
    EXPECT_EQ(world.journal.count("run /usr/bin/endpoint &"), 0U);
    Lines lines = effects();
    EXPECT_EQ(lines.back(), sets(kParamFirewireMode, 0));
    // The disk had left the bus.
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "system echo 0 0 0 > /sys/class/scsi_host/host1/scan"), 1);
    manager->pass();
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
}

// --- shutdown

TEST_F(FirewireTest, shutdownEndsTheLoopAndStopsTheEndpoint) {
    startOffered();
    config.put(kParamSystemCommand, 8);
    pass({});
    EXPECT_EQ(Daemonizer::killed, 1);
    EXPECT_FALSE(manager->pass());
    manager->cleanup();
    expectEffects(join({{sets(kParamMediaDaemonStatus, 5)},
                        kStopsEndpoint,
                        unmountOfNothing(S1, false),
                        unmountOfNothing(S1, true),
                        deletesFromBus("sdb"),
                        {"closeDescriptor 300", sets(kParamMediaDaemonStatus, 6)}}));
    manager->cleanup();
    expectNoEffects();
}

TEST_F(FirewireTest, shutdownWithoutAccessStopsNothing) {
    start(kWithFirewire);
    manager->cleanup();
    expectEffects({sets(kParamMediaDaemonStatus, 5), "closeDescriptor 300", sets(kParamMediaDaemonStatus, 6)});
}

// --- the store's thread

TEST_F(FirewireTest, changesMayComeWhileTheLoopWaitsForThem) {
    os.threadMode = fakes::FakeOperatingSystem::Threads::Started;
    os.recordSleeps = false;
    startInUse();
    std::atomic<int> passes{0};
    os.onSleep = [&](long long) {
        ++passes;
        std::this_thread::yield();
    };
    std::thread loop([this] { manager->run(true); });
    for (unsigned int round = 0; round < 20; ++round) {
        world.events.raise(kParamFirewireAVCPause, round % 2);
        world.events.raise(kParamFirewireMode, 2);
        EXPECT_TRUE(fakes::eventually([&] { return world.journal.count("run /usr/bin/endpoint &") > round; }));
        world.events.raise(kParamFirewireAVCPause, (round + 1) % 3);
        const int before = passes;
        EXPECT_TRUE(fakes::eventually([&] { return passes > before + 2; }));
        world.events.raise(kParamFirewireMode, 0);
        EXPECT_TRUE(fakes::eventually([&] { return config.text(kParamStoragePath) == "/mnt/S1/NEVO"; }));
    }
    Daemonizer::killed = 1;
    loop.join();
    expectError("Media Managerstarting MediaManager\n");
}

} // namespace
