// The loop and its passes: timing, the order of the work, what holds what up, and how it ends.

#include <algorithm>

#include "tests/media_manager/manager_test.h"

namespace {

constexpr char kCapacityOfS1[] = "run df | grep /mnt/S1 | awk '{ print $5 }'";

class LoopTest : public ManagerTest {
protected:
    // The passes, counted from 1, of the next `count` in which the capacity was measured.
    std::vector<int> passesThatMeasure(int count) {
        std::vector<int> measuring;
        for (int number = 1; number <= count; ++number) {
            EXPECT_TRUE(manager->pass());
            const Lines lines = effects();
            if (std::find(lines.begin(), lines.end(), kCapacityOfS1) != lines.end()) measuring.push_back(number);
        }
        return measuring;
    }
};

// --- the loop

TEST_F(LoopTest, loopSaysThatItRunsAndSleepsBeforeEveryPass) {
    start();
    int sleeps = 0;
    os.onSleep = [&sleeps](long long) {
        if (++sleeps == 3) Daemonizer::killed = 1;
    };
    manager->loop();
    expectEffects({sets(kParamMediaDaemonStatus, 3), "sleepSeconds 1", "sleepSeconds 1", "sleepSeconds 1"});
}

TEST_F(LoopTest, loopOfAKilledDaemonEndsBeforeItSleeps) {
    start();
    Daemonizer::killed = 1;
    manager->loop();
    expectEffects({sets(kParamMediaDaemonStatus, 3)});
}

TEST_F(LoopTest, passOfAKilledDaemonDoesNothingAndIsTheLast) {
    start();
    Daemonizer::killed = 1;
    EXPECT_FALSE(manager->pass());
    expectNoEffects();
}

TEST_F(LoopTest, passSleepsAQuarterOfASecondOnAThreadOfItsOwn) {
    start();
    int sleeps = 0;
    os.onSleep = [&sleeps](long long) {
        if (++sleeps == 2) Daemonizer::killed = 1;
    };
    manager->run(true);
    takeErrors();
    EXPECT_EQ(effectsOf("sleep"), (Lines{"sleep 250000000", "sleep 250000000"}));
}

TEST_F(LoopTest, removalOfTheMediumInUseEndsTheLoop) {
    startWithMedium();
    pinGoesOut(S1);
    manager->run(false);
    const Lines lines = effectsOf("sleep");
    EXPECT_EQ(lines, Lines{"sleepSeconds 1"});
    EXPECT_EQ(Daemonizer::killed, 0);
}

TEST_F(LoopTest, passThatFindsTheMediumInUseGoneIsTheLast) {
    startWithMedium();
    EXPECT_TRUE(manager->pass());
    pinGoesOut(S1);
    EXPECT_FALSE(manager->pass());
}

// --- an active transport

class TransportTest : public LoopTest, public ::testing::WithParamInterface<unsigned int> {};
class IdleTransportTest : public TransportTest {};
class ActiveTransportTest : public TransportTest {};

INSTANTIATE_TEST_SUITE_P(, IdleTransportTest, ::testing::Values(0U, 1U, 15U, 19U, 20U));
INSTANTIATE_TEST_SUITE_P(, ActiveTransportTest,
                         ::testing::Values(2U, 3U, 4U, 5U, 6U, 10U, 14U, 16U, 18U, 21U, 100U, 0xffffffffU));

TEST_P(IdleTransportTest, commandsAreHandled) {
    startWithMedium();
    post(kParamTransportState, 5);
    post(kParamTransportState, GetParam());
    post(kParamSlotChangeCommand, 6);
    manager->pass();
    EXPECT_EQ(config.integer(kParamSlotChangeCommand), 0);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
}

TEST_P(ActiveTransportTest, commandsWaitUntilItIsIdle) {
    startWithMedium();
    post(kParamTransportState, GetParam());
    post(kParamSlotChangeCommand, 6);
    manager->pass();
    manager->pass();
    EXPECT_EQ(config.integer(kParamSlotChangeCommand), 6);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
    post(kParamTransportState, 1);
    manager->pass();
    EXPECT_EQ(config.integer(kParamSlotChangeCommand), 0);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
}

TEST_F(LoopTest, passWithAnActiveTransportOnlyShowsTheRecording) {
    startWithMedium();
    post(kParamTransportState, 2);
    EXPECT_TRUE(manager->pass());
    expectEffects({"sleepSeconds 1", led(S1, eStorageLEDFlash)});
    post(kParamTransportState, 5);
    EXPECT_TRUE(manager->pass());
    expectEffects({"sleepSeconds 1", led(S1, eStorageLEDOn)});
}

TEST_F(LoopTest, activeTransportDoesNotEvenSeeAMediumGo) {
    startWithMedium();
    post(kParamTransportState, 2);
    manager->pass();
    pinGoesOut(S1);
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(config.integer(kParamAlarms), 0);
    post(kParamTransportState, 1);
    EXPECT_FALSE(manager->pass());
    EXPECT_EQ(config.integer(kParamAlarms), 0x10000);
}

TEST_F(LoopTest, activeTransportHasTheCapacityMeasuredInEveryNinthPass) {
    startWithMedium();
    post(kParamTransportState, 5);
    EXPECT_EQ(passesThatMeasure(30), (std::vector<int>{9, 18, 27}));
}

TEST_F(LoopTest, everyNinthPassIsStillHeldToFiveSeconds) {
    startWithMedium();
    post(kParamTransportState, 5);
    std::vector<int> measuring;
    int number = 0;
    os.onSleep = [&](long long) {
        ++number;
        if (number == 46) Daemonizer::killed = 1;
    };
    shell.handle("df | grep", [&](const std::string&) {
        measuring.push_back(number);
        return fakes::FakeFileUtils::Answer{0, "40%\n"};
    });
    manager->run(true);
    takeErrors();
    // 2.25 s, then 4.5 and 6.75 s (too soon), then 9 s after the start.
    EXPECT_EQ(measuring, (std::vector<int>{9, 36}));
}

TEST_F(LoopTest, capacityCounterBeginsAnewWithTheLoop) {
    startWithMedium();
    post(kParamTransportState, 5);
    int passes = 0;
    int last = 5;
    os.onSleep = [&](long long) {
        if (++passes == last) Daemonizer::killed = 1;
    };
    manager->run(false);
    effects();
    passes = 0;
    last = 8;
    Daemonizer::killed = 0;
    manager->run(false);
    EXPECT_EQ(effectsOf("run"), Lines{});
    passes = 0;
    last = 9;
    Daemonizer::killed = 0;
    manager->run(false);
    EXPECT_EQ(effectsOf("run"), Lines{kCapacityOfS1});
}

TEST_F(LoopTest, capacityCounterStandsStillWhileTheTransportIsIdle) {
    startWithMedium();
    post(kParamTransportState, 5);
    for (int i = 0; i < 8; ++i) manager->pass();
    EXPECT_EQ(effectsOf("run"), Lines{});
    post(kParamTransportState, 1);
    manager->pass();
    EXPECT_EQ(effectsOf("run"), Lines{kCapacityOfS1}); // idle passes measure by themselves
    os.advance(10'000'000'000);
    post(kParamTransportState, 5);
    manager->pass();
    EXPECT_EQ(effectsOf("run"), Lines{kCapacityOfS1}); // the ninth
}

TEST_F(LoopTest, shutdownCommandEndsTheLoopUnderAnActiveTransport) {
    startWithMedium();
    post(kParamTransportState, 2);
    os.onSleep = [this](long long) { post(kParamSystemCommand, 8); };
    manager->run(false);
    EXPECT_EQ(effectsOf("sleep"), Lines{"sleepSeconds 1"});
}

// --- one pass of commands

TEST_F(LoopTest, passWithNothingToDo) {
    start();
    config.recordGets = true;
    os.recordSemaphores = true;
    world.card.recordReads = true;
    EXPECT_EQ(manager->checkMessages(), 0);
    expectEffects({
        gets(kParamSystemCommand), // shutdown?
        "wait", "post",            // settings changed?
        "wait", "post",            // no new mount any more
        "wait", "post",            // clips to delete?
        gets(kParamEncodeType), gets(kParamExtendedAlarms),
        gets(kParamCapacityRemaining), // nothing selected: 0 as before, and nothing to measure
        "read 61 mask=0x10 shift=0", "read 61 mask=0x20 shift=0",
    });
}

TEST_F(LoopTest, passWithTheMediumInUse) {
    startWithMedium();
    config.recordGets = true;
    os.recordSemaphores = true;
    EXPECT_EQ(manager->checkMessages(), 1);
    expectEffects({
        gets(kParamSystemCommand),
        "wait", "post", // settings changed?
        "wait", "post", // a new mount?
        "wait", "post", // not any more
        "wait", "post", // clips to delete?
        gets(kParamEncodeType), gets(kParamExtendedAlarms), gets(kParamCapacityRemaining), kCapacityOfS1,
        sets(kParamCapacityRemaining, 60), gets(kParamAlarms), gets(kParamAlarms),
    });
}

TEST_F(LoopTest, passMountsTheSelectedMediumForUse) {
    makeManager();
    insert(S1, "sdb");
    start();
    manager->pass();
    expectEffects(join({{"sleepSeconds 1"},
                        mounts(S1, "sdb", false, true),
                        {kCapacityOfS1, sets(kParamCapacityRemaining, 60)}}));
}

TEST_F(LoopTest, shutdownParameterStopsEverythingElse) {
    startWithMedium();
    post(kParamSlotRemountCommand, 2);
    post(kParamSlotChangeCommand, 6);
    config.put(kParamSystemCommand, 8);
    EXPECT_EQ(manager->checkMessages(), 0);
    EXPECT_EQ(Daemonizer::killed, 1);
    expectNoEffects();
    EXPECT_FALSE(manager->pass());
}

TEST_F(LoopTest, otherSystemCommandsStopNothing) {
    start();
    for (unsigned int value : {0U, 1U, 7U, 9U}) {
        post(kParamSystemCommand, value);
        EXPECT_TRUE(manager->pass()) << value;
    }
    EXPECT_EQ(Daemonizer::killed, 0);
}

TEST_F(LoopTest, settingsChangeClearsItsAlarmOnceAndFirst) {
    makeManager();
    insert(S1, "sdb");
    start();
    config.put(kParamAlarms, 0x40402);
    post(kParamRecordSetting1102, 1);
    manager->checkMessages();
    const Lines lines = effects();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), sets(kParamAlarms, 0x402));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), sets(kParamAlarms, 0x402)), 1);
    // The flag is down: an alarm that comes back stays.
    config.put(kParamAlarms, 0x40000);
    manager->checkMessages();
    EXPECT_EQ(config.integer(kParamAlarms), 0x40000);
}

TEST_F(LoopTest, alarmOfSettingsStaysWithoutAChangeOfSettings) {
    start();
    config.put(kParamAlarms, 0x40000);
    manager->checkMessages();
    EXPECT_EQ(config.integer(kParamAlarms), 0x40000);
}

TEST_F(LoopTest, settingsFlagIsReadThenTheAlarmClearedThenTheFlag) {
    start();
    config.put(kParamAlarms, 0x40000);
    post(kParamRecordSetting1102, 1);
    effects();
    config.recordGets = true;
    os.recordSemaphores = true;
    manager->checkMessages();
    Lines lines = effects();
    ASSERT_GT(lines.size(), 7U);
    lines.resize(7);
    EXPECT_EQ(lines, (Lines{gets(kParamSystemCommand), "wait", "post", gets(kParamAlarms), sets(kParamAlarms, 0),
                            "wait", "post"}));
}

TEST_F(LoopTest, newMountRequestPublishesThePathOnce) {
    startWithMedium();
    manager->pass();
    effects();
    post(kParamMediaCommand, 1);
    EXPECT_TRUE(manager->isNewMountRequest());
    expectEffects({sets(kParamMediaCommand, 0)});
    manager->pass();
    expectEffects({"sleepSeconds 1", sets(kParamStoragePath, "/mnt/S1/NEVO")});
    EXPECT_FALSE(manager->isNewMountRequest());
    manager->pass();
    expectEffects({"sleepSeconds 1"});
}

TEST_F(LoopTest, newMountRequestIsDroppedWhenNothingIsSelected) {
    start();
    manager->acquireStorage();
    manager->pass();
    EXPECT_FALSE(manager->isNewMountRequest());
    EXPECT_TRUE(manager->storageInUse());
}

TEST_F(LoopTest, slotChangeIsTheLastWorkOfItsPass) {
    startWithMedium();
    insert(S2, "sdc");
    post(kParamSlotChangeCommand, 6);
    const int result = manager->checkMessages();
    // The second medium has been announced, but nobody has looked at it; nothing was measured either.
    expectEffects(join({releases(S1, "sdb", now()), {sets(kParamSlotChangeCommand, 0), sets(kParamSelectedSlot, 0)}}));
    EXPECT_EQ(result, 0);
}

TEST_F(LoopTest, slotChangeGivesItsResult) {
    startWithMedium();
    manager->acquireStorage();
    manager->pass();
    effects();
    post(kParamSlotChangeCommand, 6);
    EXPECT_EQ(manager->checkMessages(), 15);
    expectEffects({sets(kParamSlotChangeCommand, 15), sets(kParamSelectedSlot, 1)});
}

TEST_F(LoopTest, slotChangeReleasesTheMediumAndASecondOneTakesTheNext) {
    startWithMedium();
    post(kParamSlotChangeCommand, 6);
    manager->checkMessages();
    kernelRemoves(S1, "sdb");
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
    insert(S2, "sdc");
    listener->getSlot(eStorageSlotS2).setNewlyInserted(false); // leave it to the command
    post(kParamSlotChangeCommand, 6);
    effects();
    manager->checkMessages();
    expectEffects(goesIntoUse(S2, "sdc"));
}

TEST_F(LoopTest, slotChangeRunsOnceHoweverLateItsEventsAre) {
    startWithMedium();
    manager->pass();
    post(kParamSlotChangeCommand, 6);
    manager->pass();
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
    EXPECT_FALSE(manager->slotChangeRequested());
    effects();
    // The event of the manager's own 0 has not come yet.
    manager->pass();
    Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), sets(kParamSlotChangeCommand, 0)), 0);
    world.events.raise(kParamSlotChangeCommand, 0);
    manager->pass();
    lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), sets(kParamSlotChangeCommand, 0)), 0);
}

TEST_F(LoopTest, failedSlotChangeIsNotTriedAgain) {
    startWithMedium();
    manager->acquireStorage();
    manager->pass();
    post(kParamSlotChangeCommand, 6);
    manager->pass();
    EXPECT_EQ(config.integer(kParamSlotChangeCommand), 15);
    effects();
    manager->pass();
    EXPECT_EQ(effectsOf("set"), Lines{});
}

TEST_F(LoopTest, nothingIsHandledWhileAMediumIsLoading) {
    startWithMedium();
    config.put(kParamAlarms, 0x40000);
    post(kParamRecordSetting1102, 1);
    manager->acquireStorage();
    post(kParamSlotChangeCommand, 6);
    manager->setMediaLoading(true);
    effects();
    EXPECT_TRUE(manager->pass());
    // Only the slots are looked at; they end the loading, since a slot is selected.
    expectEffects({"sleepSeconds 1", sets(kParamMediaLoadingStatus, 0)});
    EXPECT_TRUE(manager->isNewMountRequest());
    EXPECT_EQ(config.integer(kParamAlarms), 0x40000);
    EXPECT_TRUE(manager->slotChangeRequested());
}

TEST_F(LoopTest, shutdownAndRemountAreHandledWhileAMediumIsLoading) {
    start();
    manager->setMediaLoading(true);
    pinGoesIn(S1);
    post(kParamSlotRemountCommand, 2);
    config.put(kParamSelectedSlot, 0);
    effects();
    manager->checkMessages();
    expectNoEffects(); // taken, with nothing selected, and no look at the slots
    config.put(kParamSystemCommand, 8);
    manager->checkMessages();
    EXPECT_EQ(Daemonizer::killed, 1);
}

TEST_F(LoopTest, firewireStartWaitsForAController) {
    start();
    post(kParamFirewireMode, 2);
    EXPECT_TRUE(manager->pass());
    expectEffects({"sleepSeconds 1"});
    EXPECT_TRUE(manager->firewireStartRequested());
    EXPECT_EQ(config.integer(kParamFirewireMode), 2);
}

// --- remounting

TEST_F(LoopTest, remountReleasesTheMediumAndTakesItAgain) {
    startWithMedium();
    os.onSystem = [this](const std::string& line) {
        if (line.ends_with("/device/delete")) kernelRemoves(S1, "sdb");
        if (line.starts_with("echo 0 0 0")) kernelAdds(S1, "sdb");
        return 0;
    };
    post(kParamSlotRemountCommand, 2);
    effects();
    const int since = now();
    EXPECT_EQ(manager->checkMessages(), 0);
    expectEffects(join({releases(S1, "sdb", since),
                        {sets(kParamSlotChangeCommand, 0), sets(kParamSelectedSlot, 0), "sleepSeconds 1",
                         sets(kParamMediaLoadingStatus, 1), "system echo 0 0 0 > /sys/class/scsi_host/host1/scan",
                         sets(kParamSlotChangeCommand, 0)}}));
    // The bus has announced the medium again: the next pass takes it.
    EXPECT_TRUE(manager->pass());
    expectEffects(join({{"sleepSeconds 1"}, goesIntoUse(S1, "sdb"), {sets(kParamMediaLoadingStatus, 0)}}));
}

TEST_F(LoopTest, remountAgainWhereTheBusKeepsTheMedium) {
    startWithMedium();
    post(kParamSlotRemountCommand, 2);
    const int since = now();
    manager->checkMessages();
    expectEffects(join({releases(S1, "sdb", since),
                        {sets(kParamSlotChangeCommand, 0), sets(kParamSelectedSlot, 0), "sleepSeconds 1"},
                        goesIntoUse(S1, "sdb")}));
}

TEST_F(LoopTest, remountTakesTheSlotFromTheParameter) {
    startWithMedium();
    media.media["sdc"];
    pinGoesIn(S2);
    kernelAdds(S2, "sdc");
    listener->getSlot(eStorageSlotS2).setNewlyInserted(false);
    config.put(kParamSelectedSlot, 2);
    post(kParamSlotRemountCommand, 2);
    manager->checkMessages();
    EXPECT_EQ(config.integer(kParamSelectedSlot), 2);
    EXPECT_EQ(config.text(kParamVolumeName), "CARD");
}

TEST_F(LoopTest, remountWithNothingSelectedOnlyForgetsTheCommand) {
    start();
    config.put(kParamSelectedSlot, 0);
    post(kParamSlotRemountCommand, 2);
    config.recordGets = true;
    world.card.recordReads = true;
    EXPECT_EQ(manager->checkMessages(), 0);
    expectEffects({gets(kParamSystemCommand), gets(kParamSelectedSlot)});
    // Forgotten, though the parameter still holds it.
    EXPECT_EQ(config.integer(kParamSlotRemountCommand), 2);
    manager->checkMessages();
    EXPECT_GT(effects().size(), 2U);
}

TEST_F(LoopTest, remountHappensOnce) {
    startWithMedium();
    post(kParamSlotRemountCommand, 2);
    manager->checkMessages();
    effects();
    manager->checkMessages();
    EXPECT_EQ(effectsOf("sleep"), Lines{});
}

TEST_F(LoopTest, otherRemountCommandsDoNothing) {
    startWithMedium();
    manager->pass();
    for (unsigned int value : {0U, 1U, 3U}) {
        post(kParamSlotRemountCommand, value);
        effects();
        manager->pass();
        expectEffects({"sleepSeconds 1"});
    }
}

} // namespace
