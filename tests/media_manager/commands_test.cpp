// What other processes write, and the small operations that read and answer it.

#include <algorithm>
#include <cerrno>

#include "tests/media_manager/manager_test.h"

namespace {

class CommandsTest : public ManagerTest {
protected:
    // Whether the settings-changed flag is up: the loop then clears its alarm. Puts the flag down.
    bool settingsChanged() {
        config.put(kParamAlarms, 0x40000);
        manager->checkMessages();
        const bool changed = config.integer(kParamAlarms) == 0;
        config.put(kParamAlarms, 0);
        effects();
        return changed;
    }
    void raise(eParam_t id, unsigned int value) { world.events.raise(id, value); }
    void raise(eParam_t id, const std::string& text) { world.events.raise(id, text); }
};

// --- integer changes

TEST_F(CommandsTest, changesOfUnknownParametersAreIgnored) {
    start();
    for (const eParam_t id : {0x12345678U, 0U, 0xffffffffU, kParamSelectedSlot, kParamAlarms, kParamEncodeType,
                              kParamProgressStatus, kParamRecordSetting1302, kParamClipsToDelete, kParamPlaylistName}) {
        raise(id, 2U);
        raise(id, 6U);
        raise(id, 8U);
    }
    expectNoEffects();
    EXPECT_EQ(Daemonizer::killed, 0);
    EXPECT_FALSE(manager->slotChangeRequested());
    EXPECT_FALSE(manager->eraseRequested());
    EXPECT_FALSE(manager->storageInUse());
    EXPECT_FALSE(manager->firewireStartRequested());
    EXPECT_FALSE(manager->firewireStopRequested());
    EXPECT_FALSE(settingsChanged());
}

TEST_F(CommandsTest, firewireMode) {
    start();
    for (unsigned int stop : {0U, 1U}) {
        raise(kParamFirewireMode, 2);
        EXPECT_TRUE(manager->firewireStartRequested());
        EXPECT_FALSE(manager->firewireStopRequested());
        raise(kParamFirewireMode, stop);
        EXPECT_FALSE(manager->firewireStartRequested());
        EXPECT_TRUE(manager->firewireStopRequested());
    }
    expectNoEffects();
}

TEST_F(CommandsTest, firewireModesAboveTwoChangeNothing) {
    start();
    for (unsigned int value : {3U, 4U, 0xffffffffU}) {
        raise(kParamFirewireMode, value);
        EXPECT_FALSE(manager->firewireStartRequested());
        EXPECT_FALSE(manager->firewireStopRequested());
    }
    raise(kParamFirewireMode, 2);
    raise(kParamFirewireMode, 3);
    EXPECT_TRUE(manager->firewireStartRequested());
    raise(kParamFirewireMode, 1);
    raise(kParamFirewireMode, 3);
    EXPECT_TRUE(manager->firewireStopRequested());
}

TEST_F(CommandsTest, clipListModeAsksForNothingElse) {
    start();
    raise(kParamClipListMode, 2);
    expectNoEffects();
    EXPECT_FALSE(settingsChanged());
}

TEST_F(CommandsTest, systemCommandEightKills) {
    start();
    for (unsigned int value : {0U, 1U, 7U, 9U, 80U}) raise(kParamSystemCommand, value);
    EXPECT_EQ(Daemonizer::killed, 0);
    raise(kParamSystemCommand, 8);
    EXPECT_EQ(Daemonizer::killed, 1);
    expectNoEffects();
}

TEST_F(CommandsTest, acquireCountsThenAnswers) {
    start();
    bool countedAtTheAnswer = false;
    config.onSet = [&](eParam_t) { countedAtTheAnswer = manager->storageInUse(); };
    raise(kParamMediaCommand, 1);
    EXPECT_TRUE(countedAtTheAnswer);
    EXPECT_TRUE(manager->storageInUse());
    EXPECT_TRUE(manager->isNewMountRequest());
    expectEffects({sets(kParamMediaCommand, 0)});
}

TEST_F(CommandsTest, releaseCountsThenAnswers) {
    start();
    raise(kParamMediaCommand, 1);
    effects();
    bool countedAtTheAnswer = true;
    config.onSet = [&](eParam_t) { countedAtTheAnswer = manager->storageInUse(); };
    raise(kParamMediaCommand, 2);
    EXPECT_FALSE(countedAtTheAnswer);
    EXPECT_FALSE(manager->storageInUse());
    expectEffects({sets(kParamMediaCommand, 0)});
}

TEST_F(CommandsTest, acquiresAndReleasesBalance) {
    start();
    raise(kParamMediaCommand, 1);
    raise(kParamMediaCommand, 1);
    raise(kParamMediaCommand, 2);
    EXPECT_TRUE(manager->storageInUse());
    raise(kParamMediaCommand, 2);
    EXPECT_FALSE(manager->storageInUse());
}

TEST_F(CommandsTest, spuriousReleaseIsReportedAndAnswered) {
    start();
    raise(kParamMediaCommand, 2);
    expectError("Media Managerspurious release storage message!\n");
    EXPECT_FALSE(manager->storageInUse());
    expectEffects({sets(kParamMediaCommand, 0)});
    // The count is 0 and not -1.
    raise(kParamMediaCommand, 1);
    EXPECT_TRUE(manager->storageInUse());
}

TEST_F(CommandsTest, releaseRaisesNoMountRequest) {
    start();
    manager->acquireStorage();
    manager->clearNewMountRequest();
    manager->releaseStorage();
    EXPECT_FALSE(manager->isNewMountRequest());
}

TEST_F(CommandsTest, mediaCommandThreeIsStoredAndCausesNothing) {
    start();
    raise(kParamMediaCommand, 4);
    EXPECT_TRUE(manager->eraseRequested());
    raise(kParamMediaCommand, 3);
    EXPECT_FALSE(manager->eraseRequested());
    EXPECT_FALSE(manager->storageInUse());
    expectNoEffects();
    manager->pass();
    EXPECT_EQ(effectsOf("set"), Lines{});
}

TEST_F(CommandsTest, eraseStandsUntilItIsTakenUp) {
    start();
    raise(kParamMediaCommand, 4);
    EXPECT_TRUE(manager->eraseRequested());
    expectNoEffects();
}

TEST_F(CommandsTest, slotChangeIsRequestedBySixOnly) {
    start();
    for (unsigned int value : {0U, 1U, 5U, 7U, 10U, 14U}) {
        raise(kParamSlotChangeCommand, 6);
        EXPECT_TRUE(manager->slotChangeRequested());
        raise(kParamSlotChangeCommand, value);
        EXPECT_FALSE(manager->slotChangeRequested()) << value;
    }
    expectNoEffects();
}

TEST_F(CommandsTest, avcPauseWithoutFirewireDoesNothing) {
    start();
    for (unsigned int value : {0U, 1U, 2U}) raise(kParamFirewireAVCPause, value);
    expectNoEffects();
}

TEST_F(CommandsTest, mediaChangedTimeIsOnlyStored) {
    start();
    raise(kParamMediaChangedTime, 1234);
    expectNoEffects();
    EXPECT_FALSE(settingsChanged());
}

class RecordSettingTest : public CommandsTest, public ::testing::WithParamInterface<eParam_t> {};

INSTANTIATE_TEST_SUITE_P(, RecordSettingTest,
                         ::testing::Values(0x1102000a, 0x1103000a, 0x1104000a, 0x1105000a, 0x1107000a, 0x1108000a,
                                           0x1301000a, 0x1303000a, 0x1304000a, 0x1601000a, 0x23040000, 0x23050000));

TEST_P(RecordSettingTest, marksTheSettingsAsChanged) {
    start();
    os.recordSemaphores = true;
    raise(GetParam(), 0);
    expectEffects({"wait", "post"});
    os.recordSemaphores = false;
    EXPECT_TRUE(settingsChanged());
    raise(GetParam(), 17);
    EXPECT_TRUE(settingsChanged());
    EXPECT_FALSE(settingsChanged());
}

TEST_P(RecordSettingTest, doesNotAsText) {
    start();
    raise(GetParam(), "1");
    EXPECT_FALSE(settingsChanged());
}

TEST_F(CommandsTest, neighboursOfTheRecordingSettingsAreIgnored) {
    start();
    for (const eParam_t id : {0x1101000aU, 0x1106000aU, 0x1109000aU, 0x1300000aU, 0x1302000aU, 0x1305000aU, 0x1600000aU,
                              0x1602000aU, 0x23030000U, 0x23060000U})
        raise(id, 1);
    EXPECT_FALSE(settingsChanged());
}

// --- text changes

TEST_F(CommandsTest, clipsToDeleteArePended) {
    start();
    os.recordSemaphores = true;
    raise(kParamClipsToDelete, "a.mov|b.mov");
    expectEffects({"wait", "post"});
    EXPECT_EQ(manager->getClipsToDelete(), (std::set<std::string>{"a.mov", "b.mov"}));
    raise(kParamClipsToDelete, "b.mov|c.mov");
    EXPECT_EQ(manager->getClipsToDelete(), (std::set<std::string>{"a.mov", "b.mov", "c.mov"}));
}

TEST_F(CommandsTest, clipsToDeleteDoNotChangeTheSettings) {
    start();
    raise(kParamClipsToDelete, "");
    EXPECT_TRUE(manager->getClipsToDelete().empty());
    EXPECT_FALSE(settingsChanged());
}

TEST_F(CommandsTest, recordSetting1302IsAlsoAListOfClipsToDelete) {
    start();
    os.recordSemaphores = true;
    raise(kParamRecordSetting1302, "a.mov|b.mov");
    // One after the other: the semaphore is no lock that could be taken twice.
    expectEffects({"wait", "post", "wait", "post"});
    os.recordSemaphores = false;
    EXPECT_EQ(manager->getClipsToDelete(), (std::set<std::string>{"a.mov", "b.mov"}));
}

TEST_F(CommandsTest, recordSetting1302ChangesTheSettings) {
    start();
    raise(kParamRecordSetting1302, "");
    EXPECT_TRUE(manager->getClipsToDelete().empty());
    EXPECT_TRUE(settingsChanged());
}

TEST_F(CommandsTest, playlistNameAsksForNothingElse) {
    start();
    raise(kParamPlaylistName, "evening|morning");
    expectNoEffects();
    EXPECT_TRUE(manager->getClipsToDelete().empty());
    EXPECT_FALSE(settingsChanged());
}

TEST_F(CommandsTest, otherTextsAreIgnored) {
    start();
    for (const eParam_t id : {0x12345678U, kParamClipName, kParamVolumeName, kParamDeleteClipsStatus, kParamStoragePath,
                              kParamMediaCommand, kParamSlotChangeCommand, kParamSystemCommand})
        raise(id, "6");
    expectNoEffects();
    EXPECT_TRUE(manager->getClipsToDelete().empty());
    EXPECT_FALSE(manager->slotChangeRequested());
    EXPECT_FALSE(settingsChanged());
}

// --- the list of clips

struct Splitting {
    std::string text;
    std::vector<std::string> pieces;
};

class SplitTest : public ::testing::TestWithParam<Splitting> {};

INSTANTIATE_TEST_SUITE_P(, SplitTest,
                         ::testing::Values(Splitting{"", {}}, Splitting{"a", {"a"}}, Splitting{"a|b", {"a", "b"}},
                                           Splitting{"a||b", {"a", "", "b"}}, Splitting{"a|", {"a"}},
                                           Splitting{"|a", {"", "a"}}, Splitting{"|", {""}}, Splitting{"||", {"", ""}},
                                           Splitting{"a|b||", {"a", "b", ""}},
                                           Splitting{"a b.mov|c\n.mov", {"a b.mov", "c\n.mov"}}));

TEST_P(SplitTest, givesThePieces) {
    std::vector<std::string> pieces;
    MediaManager::split(GetParam().text, '|', pieces);
    EXPECT_EQ(pieces, GetParam().pieces);
}

TEST(SplitTests, appendsAndKeepsToTheSeparator) {
    std::vector<std::string> pieces{"before"};
    MediaManager::split("a,b|c", ',', pieces);
    EXPECT_EQ(pieces, (std::vector<std::string>{"before", "a", "b|c"}));
}

TEST_F(CommandsTest, parsingAddsToWhatIsPending) {
    start();
    std::set<std::string> pending{"z.mov"};
    EXPECT_TRUE(manager->parseClipsToDelete(pending, "a.mov||b.mov|a.mov"));
    EXPECT_EQ(pending, (std::set<std::string>{"", "a.mov", "b.mov", "z.mov"}));
    EXPECT_FALSE(manager->parseClipsToDelete(pending, ""));
    EXPECT_EQ(pending.size(), 4U);
    EXPECT_TRUE(manager->parseClipsToDelete(pending, "*"));
    EXPECT_TRUE(pending.contains("*"));
}

TEST_F(CommandsTest, pendingClipsAreCopied) {
    start();
    raise(kParamClipsToDelete, "a.mov");
    manager->getClipsToDelete().clear();
    EXPECT_EQ(manager->getClipsToDelete(), std::set<std::string>{"a.mov"});
}

// --- the semaphore

TEST_F(CommandsTest, failedWaitIsReportedAndTheWorkIsDone) {
    start();
    os.semaphoreWaitError = EINVAL;
    const std::string line = "Semaphore(): call to sem_wait failed\n: Invalid argument\n";
    manager->acquireStorage();
    expectError(line);
    EXPECT_TRUE(manager->storageInUse());
    expectError(line);
    raise(kParamClipsToDelete, "a.mov");
    expectError(line);
    EXPECT_EQ(manager->getClipsToDelete().size(), 1U);
    expectError(line);
    os.semaphoreWaitError = 0;
    EXPECT_TRUE(manager->isNewMountRequest());
}

TEST_F(CommandsTest, failedPostIsReported) {
    start();
    os.semaphorePostError = EOVERFLOW;
    manager->acquireStorage();
    expectError("SemaphoreHelper::~SemaphoreHelper failed to post\n: Value too large for defined data type\n");
    raise(kParamClipsToDelete, "a.mov");
    expectError("SemaphoreHelper::~SemaphoreHelper failed to post\n: Value too large for defined data type\n");
    os.semaphorePostError = 0;
    EXPECT_TRUE(manager->storageInUse());
}

TEST_F(CommandsTest, everyGuardedOperationTakesTheSemaphoreOnce) {
    start();
    os.recordSemaphores = true;
    const Lines once{"wait", "post"};
    manager->acquireStorage();
    expectEffects(once);
    manager->storageInUse();
    expectEffects(once);
    manager->isNewMountRequest();
    expectEffects(once);
    manager->clearNewMountRequest();
    expectEffects(once);
    manager->releaseStorage();
    expectEffects(once);
    manager->getClipsToDelete();
    expectEffects(once);
}

// --- requests, answers, flags

TEST_F(CommandsTest, shutdownIsRequestedByTheFlagOrByTheParameter) {
    start();
    config.recordGets = true;
    EXPECT_FALSE(manager->shutdownRequested());
    expectEffects({gets(kParamSystemCommand)});
    config.put(kParamSystemCommand, 8);
    EXPECT_TRUE(manager->shutdownRequested());
    config.put(kParamSystemCommand, 7);
    EXPECT_FALSE(manager->shutdownRequested());
    effects();
    Daemonizer::killed = 2;
    EXPECT_TRUE(manager->shutdownRequested());
    expectNoEffects();
}

TEST_F(CommandsTest, answersOfASlotChange) {
    start();
    raise(kParamSlotChangeCommand, 6);
    manager->clearSlotChangeRequest();
    expectEffects({sets(kParamSlotChangeCommand, 0)});
    EXPECT_FALSE(manager->slotChangeRequested());
    for (int code : {10, 11, 14, 15}) {
        raise(kParamSlotChangeCommand, 6);
        manager->setSlotChangeError(static_cast<eStorageSlot_t>(code));
        expectEffects({sets(kParamSlotChangeCommand, code)});
        EXPECT_FALSE(manager->slotChangeRequested());
    }
}

TEST_F(CommandsTest, answerIsRememberedBeforeItIsWritten) {
    start();
    raise(kParamSlotChangeCommand, 6);
    // A client that sees the answer and asks again at once is not forgotten.
    config.onSet = [this](eParam_t) {
        EXPECT_FALSE(manager->slotChangeRequested());
        world.events.raise(kParamSlotChangeCommand, 6);
    };
    manager->clearSlotChangeRequest();
    EXPECT_TRUE(manager->slotChangeRequested());
    manager->setSlotChangeError(static_cast<eStorageSlot_t>(14));
    EXPECT_TRUE(manager->slotChangeRequested());
}

TEST_F(CommandsTest, eraseIsAcknowledgedAndRemembered) {
    start();
    raise(kParamMediaCommand, 4);
    config.onSet = [this](eParam_t) { EXPECT_FALSE(manager->eraseRequested()); };
    manager->clearEraseCommand();
    expectEffects({sets(kParamMediaCommand, 0)});
    config.onSet = [this](eParam_t) { world.events.raise(kParamMediaCommand, 4); };
    manager->clearEraseCommand();
    EXPECT_TRUE(manager->eraseRequested());
}

TEST_F(CommandsTest, progress) {
    start();
    manager->startProgress(eProgressFormattingS1);
    expectEffects({sets(kParamProgressStatus, 3)});
    manager->endProgress();
    expectEffects({sets(kParamProgressStatus, 0)});
}

TEST_F(CommandsTest, mediaLoadingIsWrittenOnChangeAndTheFirstTime) {
    start();
    EXPECT_FALSE(manager->isMediaLoading());
    manager->setMediaLoading(false);
    expectEffects({sets(kParamMediaLoadingStatus, 0)});
    manager->setMediaLoading(false);
    expectNoEffects();
    manager->setMediaLoading(true);
    expectEffects({sets(kParamMediaLoadingStatus, 1)});
    EXPECT_TRUE(manager->isMediaLoading());
    manager->setMediaLoading(true);
    expectNoEffects();
    EXPECT_TRUE(manager->isMediaLoading());
    manager->setMediaLoading(false);
    expectEffects({sets(kParamMediaLoadingStatus, 0)});
    EXPECT_FALSE(manager->isMediaLoading());
}

TEST_F(CommandsTest, firstMediaLoadingMayBeTrue) {
    start();
    manager->setMediaLoading(true);
    expectEffects({sets(kParamMediaLoadingStatus, 1)});
}

TEST_F(CommandsTest, firewireRequestsExcludeEachOther) {
    start();
    EXPECT_FALSE(manager->firewireStartRequested());
    EXPECT_FALSE(manager->firewireStopRequested());
    manager->requestStartFirewireAccess();
    EXPECT_TRUE(manager->firewireStartRequested());
    EXPECT_FALSE(manager->firewireStopRequested());
    manager->requestStopFirewireAccess();
    EXPECT_FALSE(manager->firewireStartRequested());
    EXPECT_TRUE(manager->firewireStopRequested());
}

TEST_F(CommandsTest, currentClip) {
    start();
    manager->setClip(eStorageSlotS1, "evening", 7);
    expectEffects({sets(kParamClipName, "evening"), sets(kParamClipIndex, 7)});
    EXPECT_EQ(manager->getClip(eStorageSlotS2, "before"), "evening");
}

TEST_F(CommandsTest, clipThatNobodyHasWrittenKeepsTheCallersText) {
    makeManager();
    EXPECT_EQ(manager->getClip(eStorageSlotS1, "before"), "before");
}

TEST_F(CommandsTest, deviceOfASlot) {
    start();
    EXPECT_EQ(manager->getDevice(eStorageSlotS1), "");
    kernelAdds(S1, "sdq");
    EXPECT_EQ(manager->getDevice(eStorageSlotS1), "sdq");
    EXPECT_EQ(manager->getDevice(eStorageSlotS2), "");
    EXPECT_EQ(manager->getDevice(eStorageSlotUnknown), "");
    kernelRemoves(S1, "sdq");
    EXPECT_EQ(manager->getDevice(eStorageSlotS1), "");
}

TEST_F(CommandsTest, slotPresentTellsOfReadiness) {
    start();
    pinGoesIn(S1);
    world.card.recordReads = true;
    EXPECT_FALSE(manager->slotPresent(eStorageSlotS1)); // present, but the kernel has not announced it
    expectNoEffects();
    kernelAdds(S1, "sdb");
    EXPECT_TRUE(manager->slotPresent(eStorageSlotS1));
    expectEffects({"read 61 mask=0x10 shift=0"});
    pinGoesOut(S1);
    EXPECT_FALSE(manager->slotPresent(eStorageSlotS1));
    EXPECT_FALSE(manager->slotPresent(eStorageSlotUnknown));
}

TEST_F(CommandsTest, emptyHooksDoNothing) {
    start();
    manager->setStorageError();
    manager->LogEvent(nullptr);
    expectNoEffects();
}

} // namespace
