// Start-up, the thread that runs the loop, and the orderly end.

#include <algorithm>
#include <cerrno>

#include "tests/media_manager/manager_test.h"

namespace {

class StartTest : public ManagerTest {
protected:
    // What is selected, said by setSelectedSlot with nothing selected before.
    static Lines publishesFirstSelection(int slot) {
        return {sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0), sets(kParamSelectedSlot, slot)};
    }
    static Lines preparesSlot(const Place& place) {
        return {"mkdir /mnt/" + place.name + " 1411", led(place, eStorageLEDOn), led(place, eStorageLEDOff)};
    }
};

TEST_F(StartTest, parameterIdentifiersAreTheOnesThatTheRecorderKnows) {
    const std::vector<std::pair<eParam_t, eParam_t>> table = {
        {kParamMediaDaemonStatus, 0x7d07000a}, {kParamTransportState, 0x7d01010a},
        {kParamSystemState, 0x7d02000a},       {kParamSystemCommand, 0x7d02010a},
        {kParamMediaCommand, 0x7b01030a},      {kParamSelectedSlot, 0x7b03040a},
        {kParamSlotChangeCommand, 0x7b03000a}, {kParamProgressStatus, 0x7a01000a},
        {kParamAlarms, 0x7e000000},            {kParamExtendedAlarms, 0x7e050000},
        {kParamInvalidMediaAlert, 0x7b01040a}, {kParamMediaLoadingStatus, 0x7b03070a},
        {kParamClipName, 0x7b04000a},          {kParamClipIndex, 0x7b04010a},
        {kParamNewClipIndex, 0x7b04020a},      {kParamReelNumber, 0x1100000a},
        {kParamVolumeName, 0x7b03060a},        {kParamCapacityRemaining, 0x7b03050a},
        {kParamStoragePath, 0x7b01010a},       {kParamEncodeType, 0x0e01000a},
        {kParamClipListMode, 0x0f01000a},      {kParamPlaylistName, 0x0f03000a},
        {kParamClipsToDelete, 0x7b01000a},     {kParamDeleteClipsStatus, 0x7d01120a},
        {kParamFirewireAVCPause, 0x7d05000a},  {kParamMediaChangedTime, 0x7d06000a},
        {kParamFirewireMode, 0x0c010100},      {kParamSlotRemountCommand, 0x5d020000},
        {kParamRecordSetting1301, 0x1301000a}, {kParamRecordSetting1303, 0x1303000a},
        {kParamRecordSetting2304, 0x23040000}, {kParamRecordSetting1302, 0x1302000a},
    };
    for (const auto& [name, identifier] : table) EXPECT_EQ(name, identifier);
}

// --- init

TEST_F(StartTest, constructorDoesNothingButMakeTheManagerKnown) {
    makeManager();
    expectNoEffects();
    EXPECT_EQ(MediaManager::_pMediaManager, manager.get());
}

TEST_F(StartTest, destructorTouchesNothing) {
    startWithMedium();
    manager.reset();
    expectNoEffects();
}

TEST_F(StartTest, initDoesEverythingInItsOrder) {
    config.recordGets = true;
    os.recordSemaphores = true;
    makeManager();
    EXPECT_EQ(manager->init(), 0);
    expectEffects(join({{sets(kParamMediaDaemonStatus, 1), "semaphore 1", "listen", gets(kParamTransportState),
                         gets(kParamSystemState), gets(kParamSystemCommand), gets(kParamMediaCommand),
                         gets(kParamSelectedSlot)},
                        publishesFirstSelection(0),
                        {"run scan drivers"},
                        preparesSlot(S1),
                        preparesSlot(S2),
                        // The board's first slot is tried, and with no medium anywhere it comes to no slot at all.
                        {"wait", "post", sets(kParamSlotChangeCommand, 0)}}));
    ASSERT_EQ(world.events.listeners.size(), 1U);
    EXPECT_EQ(world.events.listeners[0], manager.get());
}

TEST_F(StartTest, initWithTheHackEnablesItAroundTheDriverCheck) {
    world.card.put(8005, 0xffffffff);
    makeManager(kWithHack);
    EXPECT_EQ(manager->init(), 0);
    expectEffects(join({{sets(kParamMediaDaemonStatus, 1), "listen"},
                        publishesFirstSelection(0),
                        {"write 8005 value=0 mask=0x900 shift=0", "run scan drivers", "run enable hack"},
                        preparesSlot(S1),
                        preparesSlot(S2),
                        // The first look at a slot runs its command, whichever way it comes out.
                        {"run S1 off", "run S2 off", sets(kParamSlotChangeCommand, 0)}}));
    EXPECT_EQ(world.card.get(8005), 0xfffff6ffU);
}

TEST_F(StartTest, initPreparesTheSlotsInTheOrderOfTheirNames) {
    makeManager(kWithFourSlots);
    EXPECT_EQ(manager->init(), 0);
    EXPECT_EQ(effectsOf("mkdir"), (Lines{"mkdir /mnt/D1 1411", "mkdir /mnt/D2 1411", "mkdir /mnt/S1 1411",
                                         "mkdir /mnt/S2 1411"}));
}

TEST_F(StartTest, initGoesOnWhenADirectoryIsThereAlready) {
    os.files.insert("/mnt/S1");
    makeManager();
    EXPECT_EQ(manager->init(), 0);
    EXPECT_EQ(effectsOf("mkdir"), (Lines{"mkdir /mnt/S1 1411", "mkdir /mnt/S2 1411"}));
    EXPECT_EQ(manager->getStoragePath(eStorageSlotS1), "/mnt/S1/NEVO");
}

TEST_F(StartTest, initReportsASemaphoreThatCannotBeMadeAndGoesOn) {
    os.semaphoreInitError = EMFILE;
    makeManager();
    EXPECT_EQ(manager->init(), 0);
    expectError("SemaphoreHelper::Init - failed\n: Too many open files\n");
    EXPECT_EQ(effectsOf("listen"), Lines{"listen"});
}

TEST_F(StartTest, driverScanThatSucceedsAtOnceLoadsNothing) {
    makeManager();
    manager->init();
    Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run scan drivers"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run load drivers"), 0);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "sleepMicroseconds 250000"), 0);
}

TEST_F(StartTest, driverScanThatFailsLoadsTheDriverOnceAndScansUntilItSucceeds) {
    makeManager();
    shell.answer("scan drivers", 1, "", 3);
    EXPECT_EQ(manager->init(), 0);
    expectEffects(join({{sets(kParamMediaDaemonStatus, 1), "listen"},
                        publishesFirstSelection(0),
                        {"run scan drivers", "run load drivers", "sleepMicroseconds 250000", "run scan drivers",
                         "sleepMicroseconds 250000", "run scan drivers", "sleepMicroseconds 250000",
                         "run scan drivers"},
                        preparesSlot(S1),
                        preparesSlot(S2),
                        {sets(kParamSlotChangeCommand, 0)}}));
}

TEST_F(StartTest, driverLoadThatFailsChangesNothing) {
    makeManager();
    shell.answer("scan drivers", 1, "", 1);
    shell.answer("load drivers", 1);
    EXPECT_EQ(manager->init(), 0);
    EXPECT_EQ(effectsOf("run"), (Lines{"run scan drivers", "run load drivers", "run scan drivers"}));
}

TEST_F(StartTest, driverScanIsTriedForEver) {
    makeManager();
    shell.answer("scan drivers", 1, "", 2000);
    EXPECT_EQ(manager->init(), 0);
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run scan drivers"), 2001);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "sleepMicroseconds 250000"), 2000);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run load drivers"), 1);
}

TEST_F(StartTest, boardWithoutADriverScanStarts) {
    makeManager("usefulStrings = {}");
    EXPECT_EQ(manager->init(), 0);
}

TEST_F(StartTest, mediumInTheDefaultSlotGoesIntoUse) {
    makeManager();
    insert(S1, "sdb");
    EXPECT_EQ(manager->init(), 0);
    expectEffects(join({{sets(kParamMediaDaemonStatus, 1), "listen"},
                        publishesFirstSelection(0),
                        {"run scan drivers"},
                        preparesSlot(S1),
                        preparesSlot(S2),
                        goesIntoUse(S1, "sdb")}));
}

TEST_F(StartTest, mediumInThePreferredSlotGoesIntoUse) {
    makeManager();
    config.put(kParamSelectedSlot, 2);
    insert(S1, "sdb");
    insert(S2, "sdc");
    EXPECT_EQ(manager->init(), 0);
    expectEffects(join({{sets(kParamMediaDaemonStatus, 1), "listen"},
                        publishesFirstSelection(0),
                        {"run scan drivers"},
                        preparesSlot(S1),
                        preparesSlot(S2),
                        goesIntoUse(S2, "sdc")}));
}

TEST_F(StartTest, emptyPreferredSlotGivesTheTurnToTheNext) {
    makeManager();
    config.put(kParamSelectedSlot, 1);
    insert(S2, "sdc");
    EXPECT_EQ(manager->init(), 0);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 2);
}

TEST_F(StartTest, preferredSlotThatTheBoardDoesNotHaveMeansNoSlot) {
    makeManager();
    config.put(kParamSelectedSlot, 7);
    insert(S1, "sdb");
    EXPECT_EQ(manager->init(), 0);
    expectEffects(join({{sets(kParamMediaDaemonStatus, 1), "listen"},
                        publishesFirstSelection(0),
                        {"run scan drivers"},
                        preparesSlot(S1),
                        preparesSlot(S2),
                        {sets(kParamSlotChangeCommand, 0)}}));
}

TEST_F(StartTest, boardWithoutADefaultSlotSelectsNone) {
    makeManager("specification.nextSlot.default = nil");
    insert(S1, "sdb");
    EXPECT_EQ(manager->init(), 0);
    expectEffects(join({{sets(kParamMediaDaemonStatus, 1), "listen"},
                        publishesFirstSelection(0),
                        {"run scan drivers"},
                        preparesSlot(S1),
                        preparesSlot(S2),
                        {sets(kParamSlotChangeCommand, 0)}}));
}

TEST_F(StartTest, defaultOfTheBoardIsTheSlotThatIsTried) {
    makeManager("specification.nextSlot.default = 'S2'");
    insert(S1, "sdb");
    insert(S2, "sdc");
    EXPECT_EQ(manager->init(), 0);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 2);
}

TEST_F(StartTest, transportStateIsKeptFromTheStartButDoesNotHoldUpCommands) {
    config.put(kParamTransportState, 2);
    startWithMedium();
    EXPECT_TRUE(manager->pass());
    const Lines lines = effects();
    // Recording flashes, and the pass came as far as the check of the codec, which only commands do.
    EXPECT_NE(std::find(lines.begin(), lines.end(), led(S1, eStorageLEDFlash)), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "run df | grep /mnt/S1 | awk '{ print $5 }'"), lines.end());
}

// A channel that has something to say at once.
class EagerChannel : public ConfigEventChannel {
public:
    void addListener(ConfigEvents* listener) override {
        listener->ParamChanged(kParamTransportState, 15, timeval{});
        listener->ParamChanged(kParamRecordSetting1102, 1, timeval{});
        listener->ParamChanged(kParamMediaCommand, 1, timeval{});
    }
};

TEST_F(StartTest, changesThatComeWithTheRegistrationAreTaken) {
    makeManager();
    EagerChannel eager;
    config.put(kParamAlarms, 0x40000);
    manager = std::make_unique<MediaManager>(listener.get(), &world.card, &config, &eager, &shell, os);
    EXPECT_EQ(manager->init(), 0);
    EXPECT_TRUE(manager->storageInUse());
    effects();
    // State 15 is idle, although it came before everything else was ready: commands are handled.
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(config.integer(kParamAlarms), 0);
}

TEST_F(StartTest, transportThatBecomesActiveDuringInitStaysActive) {
    makeManager();
    shell.handle("scan drivers", [this](const std::string&) {
        world.events.raise(kParamTransportState, 5);
        return fakes::FakeFileUtils::Answer{};
    });
    manager->init();
    effects();
    EXPECT_TRUE(manager->pass());
    expectEffects({"sleepSeconds 1"});
}

// --- run

TEST_F(StartTest, runOnTheCallersThread) {
    start();
    os.onSleep = [](long long) { Daemonizer::killed = 1; };
    manager->run(false);
    expectEffects({sets(kParamMediaDaemonStatus, 3), "sleepSeconds 1"});
}

TEST_F(StartTest, runOnAThreadOfItsOwn) {
    start();
    os.onSleep = [](long long) { Daemonizer::killed = 1; };
    manager->run(true);
    expectError("Media Managerstarting MediaManager\n");
    expectEffects({"thread joinable", "join", sets(kParamMediaDaemonStatus, 3), "sleep 250000000"});
}

TEST_F(StartTest, threadThatCannotBeStarted) {
    start();
    os.threadError = EAGAIN;
    manager->run(true);
    expectError("Media Managerstarting MediaManager\n"
                "Media Managerpthread_create failed with: Resource temporarily unavailable\n");
    expectEffects({"thread joinable"});
}

TEST_F(StartTest, threadThatCannotBeJoined) {
    start();
    os.joinError = EDEADLK;
    manager->run(true);
    expectError("Media Managerstarting MediaManager\n"
                "Media Managerpthread_join failed with: Resource deadlock avoided\n");
    expectEffects({"thread joinable", "join"});
}

TEST_F(StartTest, threadFunctionRunsTheLoopAndGivesNothingBack) {
    start();
    Daemonizer::killed = 1;
    EXPECT_EQ(MediaManager::RunCommandThread(manager.get()), nullptr);
    expectEffects({sets(kParamMediaDaemonStatus, 3)});
}

// --- cleanup

TEST_F(StartTest, cleanupUnmountsWhatIsReadyAndReportsBothStates) {
    startWithMedium();
    manager->cleanup();
    expectEffects(join({{sets(kParamMediaDaemonStatus, 5), "run /bin/sync -f /mnt/S1"},
                        unmounts(S1, "sdb", true, false),
                        {led(S1, eStorageLEDOff)},
                        unmountOfNothing(S1, true),
                        deletesFromBus("sdb"),
                        {"closeDescriptor 300", sets(kParamMediaDaemonStatus, 6)}}));
    EXPECT_EQ(MediaManager::_pMediaManager, nullptr);
}

TEST_F(StartTest, cleanupHappensOnce) {
    start();
    manager->cleanup();
    expectEffects({sets(kParamMediaDaemonStatus, 5), "closeDescriptor 300", sets(kParamMediaDaemonStatus, 6)});
    manager->cleanup();
    expectNoEffects();
}

} // namespace
