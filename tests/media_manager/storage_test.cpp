// Media that appear and vanish, and the mount for use.

#include <algorithm>

#include "tests/media_manager/manager_test.h"

namespace {

class StorageTest : public ManagerTest {
protected:
    int selected() { return config.integer(kParamSelectedSlot); }

    Lines removal(const Place& place) {
        return {sets(kParamAlarms, 0x10000), sets(kParamSlotChangeCommand, 14), led(place, eStorageLEDOff)};
    }
};

// --- findStorage

TEST_F(StorageTest, emptySlots) {
    start();
    EXPECT_FALSE(manager->findStorage(true));
    EXPECT_FALSE(manager->findStorage(false));
    expectNoEffects();
}

TEST_F(StorageTest, everySlotIsLookedAtOnceAWalkInTheOrderOfTheNames) {
    start(kWithFourSlots);
    world.card.recordReads = true;
    manager->findStorage(true);
    expectEffects({"read 61 mask=0x40 shift=0", "read 61 mask=0x80 shift=0", "read 61 mask=0x10 shift=0",
                   "read 61 mask=0x20 shift=0"});
}

TEST_F(StorageTest, secondMediumIsLookedAtOnceToo) {
    startWithMedium();
    insert(S2, "sdc");
    world.card.recordReads = true;
    manager->findStorage(true);
    expectEffects(join({{"read 61 mask=0x10 shift=0", "read 61 mask=0x20 shift=0"},
                        unmountOfNothing(S2, true),
                        deletesFromBus("sdc")}));
}

TEST_F(StorageTest, mediumThatComesIsLoading) {
    start();
    pinGoesIn(S1);
    EXPECT_FALSE(manager->findStorage(true));
    expectEffects({sets(kParamMediaLoadingStatus, 1)});
    EXPECT_TRUE(manager->isMediaLoading());
    // Until it is announced nothing changes.
    EXPECT_FALSE(manager->findStorage(true));
    expectNoEffects();
    kernelAdds(S1, "sdb");
    media.media["sdb"];
    EXPECT_TRUE(manager->findStorage(true));
    expectEffects(join({goesIntoUse(S1, "sdb"), {sets(kParamMediaLoadingStatus, 0)}}));
}

TEST_F(StorageTest, mediumThatComesBesideTheOneInUseIsNotLoading) {
    startWithMedium();
    pinGoesIn(S2);
    EXPECT_TRUE(manager->findStorage(true));
    expectNoEffects();
}

TEST_F(StorageTest, loadingThatNothingCanEndIsCleared) {
    start();
    pinGoesIn(S1);
    manager->findStorage(true);
    effects();
    pinGoesOut(S1);
    EXPECT_FALSE(manager->findStorage(true));
    expectEffects({sets(kParamMediaLoadingStatus, 0)});
    EXPECT_FALSE(manager->isMediaLoading());
}

TEST_F(StorageTest, loadingGoesOnWhileAnotherSlotIsPresent) {
    start();
    pinGoesIn(S1);
    pinGoesIn(S2);
    manager->findStorage(true);
    effects();
    pinGoesOut(S1);
    manager->findStorage(true);
    expectNoEffects();
    EXPECT_TRUE(manager->isMediaLoading());
}

TEST_F(StorageTest, hackProbesTheBusOfAMediumThatComes) {
    start(kWithHack);
    pinGoesIn(S2);
    EXPECT_FALSE(manager->findStorage(true));
    expectEffects({"run S2 on", sets(kParamMediaLoadingStatus, 1),
                   "system echo 0 0 0 > /sys/class/scsi_host/host2/scan"});
    manager->findStorage(true);
    expectNoEffects();
}

TEST_F(StorageTest, hackProbesBesideTheMediumInUseToo) {
    startWithMedium(S1, "sdb", kWithHack);
    manager->findStorage(true);
    effects();
    pinGoesIn(S2);
    EXPECT_TRUE(manager->findStorage(true));
    expectEffects({"run S2 on", "system echo 0 0 0 > /sys/class/scsi_host/host2/scan"});
}

TEST_F(StorageTest, mediumThatWasThereFromTheFirstLookOnIsNotNew) {
    makeManager(kWithHack);
    config.put(kParamSelectedSlot, 2);
    insert(S2, "sdc"); // S1 is not looked at in the start
    start();
    pinGoesIn(S1);
    EXPECT_TRUE(manager->findStorage(true));
    expectEffects({"run S1 on"});
}

TEST_F(StorageTest, announcedMediumGoesIntoUse) {
    start();
    insert(S2, "sdc");
    EXPECT_TRUE(manager->findStorage(true));
    expectEffects(join(
        {{sets(kParamMediaLoadingStatus, 1)}, goesIntoUse(S2, "sdc"), {sets(kParamMediaLoadingStatus, 0)}}));
}

TEST_F(StorageTest, announcedMediumWithoutItsPinIsThrownOut) {
    start();
    kernelAdds(S1, "sdb");
    EXPECT_FALSE(manager->findStorage(true));
    expectEffects(join({unmountOfNothing(S1, true), deletesFromBus("sdb")}));
}

TEST_F(StorageTest, mediumThatHasBeenNoticedIsLeftAlone) {
    start();
    insert(S1, "sdb");
    listener->getSlot(eStorageSlotS1).setNewlyInserted(false);
    manager->findStorage(true);
    effects();
    EXPECT_TRUE(manager->findStorage(true));
    expectNoEffects();
    EXPECT_EQ(selected(), 0);
}

TEST_F(StorageTest, announcedMediumWaitsForTheReleaseOfTheStorage) {
    start();
    manager->acquireStorage();
    insert(S1, "sdb");
    EXPECT_TRUE(manager->findStorage(true));
    expectEffects({sets(kParamMediaLoadingStatus, 1), sets(kParamSlotChangeCommand, 15), sets(kParamClipName, "N/A"),
                   sets(kParamClipIndex, 0), sets(kParamSelectedSlot, 0)});
    manager->releaseStorage();
    EXPECT_TRUE(manager->findStorage(true));
    expectEffects(join({goesIntoUse(S1, "sdb"), {sets(kParamMediaLoadingStatus, 0)}}));
}

TEST_F(StorageTest, twoMediaAtOnce) {
    start();
    insert(S1, "sdb");
    insert(S2, "sdc");
    EXPECT_TRUE(manager->findStorage(true));
    expectEffects(join({{sets(kParamMediaLoadingStatus, 1)},
                        goesIntoUse(S1, "sdb"),
                        unmountOfNothing(S2, true),
                        deletesFromBus("sdc"),
                        {sets(kParamMediaLoadingStatus, 0)}}));
}

TEST_F(StorageTest, secondMediumIsPutOffTheBus) {
    startWithMedium();
    manager->findStorage(true);
    effects();
    insert(S2, "sdc");
    EXPECT_TRUE(manager->findStorage(true));
    expectEffects(join({unmountOfNothing(S2, true), deletesFromBus("sdc")}));
    EXPECT_EQ(selected(), 1);
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    kernelRemoves(S2, "sdc");
    EXPECT_TRUE(manager->findStorage(true));
    expectNoEffects();
}

TEST_F(StorageTest, secondMediumDoesNotUnmountTheOneInUseInTheManagersMind) {
    startWithMedium();
    insert(S2, "sdc");
    manager->findStorage(true);
    effects();
    manager->ServiceMountRequests();
    expectNoEffects();
}

TEST_F(StorageTest, mediumInUseWhosePinGoesEndsTheDaemon) {
    startWithMedium();
    pinGoesOut(S1);
    EXPECT_FALSE(manager->findStorage(true));
    expectEffects(join({unmounts(S1, "sdb", false, true), deletesFromBus("sdb"), removal(S1)}));
}

TEST_F(StorageTest, mediumInUseThatTheKernelLosesFirstEndsTheDaemonWithThePin) {
    startWithMedium();
    kernelRemoves(S1, "sdb");
    // Still in its slot: nobody knows yet what is going on.
    EXPECT_FALSE(manager->findStorage(true));
    EXPECT_EQ(config.integer(kParamAlarms), 0);
    effects();
    pinGoesOut(S1);
    EXPECT_FALSE(manager->pass());
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run /bin/umount  /mnt/S1"), 1);
    const auto alarm = std::find(lines.begin(), lines.end(), sets(kParamAlarms, 0x10000));
    ASSERT_NE(alarm, lines.end());
    EXPECT_EQ(Lines(alarm, lines.end()), removal(S1));
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
}

TEST_F(StorageTest, mediumThatIsNotInUseMayGo) {
    startWithMedium();
    insert(S2, "sdc");
    listener->getSlot(eStorageSlotS2).setNewlyInserted(false);
    manager->findStorage(true);
    effects();
    pinGoesOut(S2);
    EXPECT_TRUE(manager->findStorage(true));
    expectEffects(join({unmountOfNothing(S2, true), deletesFromBus("sdc")}));
    EXPECT_EQ(config.integer(kParamAlarms), 0);
    kernelRemoves(S2, "sdc");
    EXPECT_TRUE(manager->findStorage(true));
    expectNoEffects();
    EXPECT_TRUE(manager->pass());
}

TEST_F(StorageTest, walkGoesOnBehindARemoval) {
    startWithMedium();
    insert(S2, "sdc");
    pinGoesOut(S1);
    EXPECT_TRUE(manager->findStorage(true)); // S2 holds one
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "system echo -n 1 > /sys/block/sdb/device/delete"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "system echo -n 1 > /sys/block/sdc/device/delete"), 1);
}

TEST_F(StorageTest, mediumAnnouncedAgainWhileItIsMountedIsLeftAlone) {
    startWithMedium();
    kernelAdds(S1, "sdb");
    EXPECT_TRUE(manager->findStorage(true));
    EXPECT_EQ(effectsOf("set"), Lines{});
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    EXPECT_EQ(selected(), 1);
    // The announcement has been noticed.
    EXPECT_FALSE(listener->getSlot(eStorageSlotS1).isNewlyInserted());
    manager->findStorage(true);
    expectNoEffects();
}

TEST_F(StorageTest, swappedMediumIsReleasedAndTaken) {
    startWithMedium();
    media.media["sdd"].label = "OTHER";
    kernelRemoves(S1, "sdb");
    kernelAdds(S1, "sdd"); // the pin was too slow to say anything
    EXPECT_TRUE(manager->findStorage(true));
    const Lines lines = effects();
    // The remount sequence: nothing selected, a second, the slot again.
    const auto none = std::find(lines.begin(), lines.end(), sets(kParamSelectedSlot, 0));
    ASSERT_NE(none, lines.end());
    ASSERT_NE(none + 1, lines.end());
    EXPECT_EQ(*(none + 1), "sleepSeconds 1");
    EXPECT_EQ(std::count(lines.begin(), none, "system echo -n 1 > /sys/block/sdd/device/delete"), 1);
    EXPECT_EQ(std::count(lines.begin(), none, sets(kParamVolumeName, "N/A")), 1);
    EXPECT_EQ(std::count(none, lines.end(), sets(kParamVolumeName, "OTHER")), 1);
    EXPECT_EQ(lines.back(), sets(kParamSelectedSlot, 1));
    manager->pass();
    ASSERT_EQ(media.mounts.size(), 1U);
    EXPECT_EQ(media.mounts[0].node, "/dev/sdd2");
}

TEST_F(StorageTest, swappedMediumThatTheReleaseThrewOutIsProbedFor) {
    startWithMedium();
    media.media["sdd"];
    kernelRemoves(S1, "sdb");
    kernelAdds(S1, "sdd");
    os.onSystem = [this](const std::string& line) {
        if (line.ends_with("/device/delete")) kernelRemoves(S1, "sdd");
        if (line.starts_with("echo 0 0 0")) kernelAdds(S1, "sde");
        return 0;
    };
    media.media["sde"].label = "AGAIN";
    manager->findStorage(true);
    EXPECT_TRUE(manager->isMediaLoading());
    manager->pass();
    EXPECT_EQ(selected(), 1);
    EXPECT_EQ(config.text(kParamVolumeName), "AGAIN");
    EXPECT_FALSE(manager->isMediaLoading());
    EXPECT_EQ(config.integer(kParamAlarms), 0);
}

TEST_F(StorageTest, unmountedSelectedMediumThatIsAnnouncedAgainIsNotRemounted) {
    makeManager();
    config.put(kParamSelectedSlot, 1);
    insert(S1, "sdb");
    media.media["sdb"].formatted = false;
    start();
    kernelAdds(S1, "sdb");
    EXPECT_TRUE(manager->findStorage(true));
    EXPECT_EQ(effectsOf("sleep"), Lines{});
    EXPECT_EQ(selected(), 1);
}

TEST_F(StorageTest, lostAnnouncementsAreAskedForAgain) {
    start();
    kernelOverruns();
    manager->pass();
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run scan drivers"), 1);
    manager->pass();
    EXPECT_EQ(effectsOf("run"), Lines{});
    kernelOverruns();
    manager->pass();
    EXPECT_EQ(effectsOf("run"), Lines{"run scan drivers"});
}

TEST_F(StorageTest, scanAfterLostAnnouncementsIsNotRepeatedWhenItFails) {
    start();
    kernelOverruns();
    shell.answer("scan drivers", 1);
    manager->pass();
    manager->pass();
    EXPECT_EQ(effectsOf("run"), Lines{"run scan drivers"});
}

TEST_F(StorageTest, loadingEndsWithASelectedSlot) {
    startWithMedium();
    manager->setMediaLoading(true);
    effects();
    manager->findStorage(true);
    expectEffects({sets(kParamMediaLoadingStatus, 0)});
}

TEST_F(StorageTest, unformattedMediumEndsLoadingAndStaysSelected) {
    start();
    media.media["sdb"].formatted = false;
    insert(S1, "sdb");
    EXPECT_TRUE(manager->findStorage(true));
    EXPECT_FALSE(manager->isMediaLoading());
    EXPECT_EQ(selected(), 1);
    EXPECT_EQ(config.integer(kParamSlotChangeCommand), 10);
    EXPECT_EQ(config.integer(kParamAlarms), 0x800000);
}

// --- ServiceMountRequests

TEST_F(StorageTest, mountForUseNeedsTheMediumPresent) {
    makeManager();
    config.put(kParamSelectedSlot, 1);
    insert(S1, "sdb");
    start();
    pinGoesOut(S1);
    manager->ServiceMountRequests();
    expectNoEffects();
    pinGoesIn(S1);
    manager->ServiceMountRequests();
    expectEffects(mounts(S1, "sdb", false, true));
    manager->ServiceMountRequests();
    expectNoEffects();
}

TEST_F(StorageTest, mountRequestRepublishesThePathOfAMountedMedium) {
    startWithMedium();
    manager->acquireStorage();
    manager->ServiceMountRequests();
    expectEffects({sets(kParamStoragePath, "/mnt/S1/NEVO")});
    EXPECT_TRUE(manager->isNewMountRequest()); // somebody else takes it down
    pinGoesOut(S1);
    manager->ServiceMountRequests();
    expectNoEffects();
}

TEST_F(StorageTest, mountRequestAndMountComeInDifferentPasses) {
    makeManager();
    config.put(kParamSelectedSlot, 1);
    insert(S1, "sdb");
    start();
    manager->acquireStorage();
    manager->ServiceMountRequests();
    expectEffects(mounts(S1, "sdb", false, true)); // the path once
}

TEST_F(StorageTest, mountForUseThatFailsIsTriedAgain) {
    makeManager();
    config.put(kParamSelectedSlot, 1);
    insert(S1, "sdb");
    start();
    shell.answer("/bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1", 32, "", 1);
    manager->pass();
    expectError("Media Managermount failed for: /dev/sdb2 on /mnt/S1\n");
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
    manager->pass();
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
}

} // namespace
