// What goes wrong around the daemon, and is made good: a life that was cut off, pins that bounce or come late, cards that
// are swapped, announcements that never come, media that stay mounted.

#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "media/media_cache.h"
#include "tests/media/clip_files.h"
#include "tests/media_manager/manager_test.h"

namespace {

class RecoveryTest : public ManagerTest {
protected:
    RecoveryTest() {
        for (const char* name : {clipfiles::kClipSegment, clipfiles::kPlaylistSegment, clipfiles::kClipMutex,
                                 clipfiles::kPlaylistMutex})
            std::filesystem::remove_all(name);
    }
    // From here on deleting a disk makes the kernel announce its end, and a probe of the slot's bus makes it find `device`.
    void busAnswers(const Place& place, const std::string& old, const std::string& device) {
        os.onSystem = [this, place, old, device](const std::string& line) {
            if (line == "echo -n 1 > /sys/block/" + old + "/device/delete") kernelRemoves(place, old);
            if (line == "echo 0 0 0 > /sys/class/scsi_host/host" + place.bus.substr(4, 1) + "/scan")
                kernelAdds(place, device);
            return 0;
        };
    }
    // With a medium in S1 that is selected, and not yet mounted for use.
    void startSelected() {
        makeManager();
        config.put(kParamSelectedSlot, 1);
        insert(S1, "sdb");
        start();
        ASSERT_EQ(config.integer(kParamSelectedSlot), 1);
        ASSERT_FALSE(media.isMounted("/mnt/S1"));
    }
    // With a medium in S1 that was refused as damaged, and is good again: a contact was dirty, not the card.
    void startRefused() {
        makeManager();
        config.put(kParamSelectedSlot, 1);
        insert(S1, "sdb");
        media.media["sdb"].clean = false;
        media.media["sdb"].repairable = false;
        EXPECT_EQ(manager->init(), 0);
        takeErrors();
        ASSERT_EQ(config.integer(kParamSlotChangeCommand), 11);
        media.media["sdb"].clean = true;
        effects();
    }
    // With no slot selected, and the medium that was in S1 still there, off the bus.
    void startReleased() {
        startWithMedium();
        manager->attemptSlotChange(eStorageSlotUnknown);
        kernelRemoves(S1, "sdb");
        manager->findStorage(true);
        effects();
    }
    void bounce(const Place& place) {
        pinGoesOut(place);
        manager->findStorage(true);
        pinGoesIn(place);
    }
    void passSeconds(int seconds) { os.advance(1'000'000'000LL * seconds); }
    bool has(const Lines& lines, const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    bool wasScanned() { return has(effects(), "clips scan /mnt/S1/NEVO"); }

    const std::string kProbe1 = "system echo 0 0 0 > /sys/class/scsi_host/host1/scan";
    const std::string kProbe2 = "system echo 0 0 0 > /sys/class/scsi_host/host2/scan";
    const std::string kMountForUse = "/bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1";
};

// --- a daemon that was killed

TEST_F(RecoveryTest, whatAKilledDaemonHasLeftInTheStoreIsTakenBack) {
    makeManager();
    config.put(kParamStoragePath, "/mnt/S1/NEVO");
    config.put(kParamProgressStatus, 3);
    config.put(kParamMediaLoadingStatus, 1);
    effects();
    manager->clearLeftovers();
    expectEffects({sets(kParamStoragePath, ""), sets(kParamProgressStatus, 0), sets(kParamMediaLoadingStatus, 0)});
    EXPECT_FALSE(manager->isMediaLoading());
}

// What a pulled medium has left: the daemon that saw it go did not deselect it.
TEST_F(RecoveryTest, whatIsShownOfAPulledMediumIsTakenBack) {
    makeManager();
    config.put(kParamAlarms, 0x7FFFFFFF);
    config.put(kParamVolumeName, "DAY 1");
    effects();
    manager->clearLeftovers();
    EXPECT_EQ(config.integer(kParamAlarms), 0x7E7FFFFF);
    EXPECT_EQ(config.text(kParamVolumeName), "N/A");
    effects();
    manager->clearLeftovers();
    EXPECT_EQ(effectsOf("set "), Lines{});
}

// It may have died while it wrote it.
TEST_F(RecoveryTest, indexOfAKilledDaemonIsEmptied) {
    makeManager();
    { const nevo::media::MediaCache made(nevo::media::kCachePrefix); }
    effects();
    manager->clearLeftovers();
    EXPECT_EQ(effectsOf("clips"), Lines{"clips flushAll"});
}

TEST_F(RecoveryTest, indexThatIsNotThereIsNotMade) {
    makeManager();
    effects();
    manager->clearLeftovers();
    EXPECT_EQ(effectsOf("clips"), Lines{});
    EXPECT_NE(::access(clipfiles::kClipSegment, F_OK), 0);
}

TEST_F(RecoveryTest, cleanStoreIsNotWritten) {
    makeManager();
    effects();
    manager->clearLeftovers();
    EXPECT_EQ(effectsOf("set "), Lines{});
}

// --- media that went into use unscanned

TEST_F(RecoveryTest, mediumWhoseActivationCouldNotMountItIsScannedOnceItIsInUse) {
    makeManager();
    config.put(kParamSelectedSlot, 1);
    insert(S1, "sdb");
    int mountings = 0;
    shell.handle(kMountForUse, [&](const std::string& line) {
        if (++mountings == 2) return fakes::FakeFileUtils::Answer{32, ""};
        media.mounts.push_back({"/dev/sdb2", "/mnt/S1", "rw"});
        return fakes::FakeFileUtils::Answer{0, line.substr(0, 0)};
    });
    EXPECT_EQ(manager->init(), 0);
    expectError("Media Managermount failed for: /dev/sdb2 on /mnt/S1\n");
    EXPECT_FALSE(wasScanned());
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
    manager->pass();
    EXPECT_TRUE(wasScanned());
    manager->pass();
    EXPECT_FALSE(wasScanned()) << "once is enough";
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
}

TEST_F(RecoveryTest, mediumThatWasRefusedIsScannedWhenItGoesIntoUseAfterAll) {
    startRefused();
    manager->pass();
    EXPECT_TRUE(wasScanned());
}

TEST_F(RecoveryTest, mediumThatWasRefusedIsShownAsAnyOtherOnceItIsInUse) {
    startRefused();
    config.put(kParamAlarms, 0x01800000 | 0x40);
    ASSERT_EQ(config.text(kParamVolumeName), "N/A");
    manager->pass();
    EXPECT_EQ(config.integer(kParamAlarms), 0x40);
    EXPECT_EQ(config.text(kParamVolumeName), "CARD");
}

TEST_F(RecoveryTest, formattedMediumThatCouldNotBeMountedIsScannedOnceItIsInUse) {
    startWithMedium();
    shell.answer(kMountForUse, 32, "", 2); // both tries after the format
    EXPECT_FALSE(manager->eraseStorage(eStorageSlotS1));
    takeErrors();
    EXPECT_FALSE(wasScanned());
    manager->pass();
    EXPECT_TRUE(wasScanned());
}

TEST_F(RecoveryTest, unscannedMediumIsLeftAloneWhileTheStorageIsAcquired) {
    startRefused();
    manager->acquireStorage();
    effects();
    manager->pass();
    EXPECT_FALSE(wasScanned());
    manager->releaseStorage();
    manager->pass();
    EXPECT_TRUE(wasScanned());
}

TEST_F(RecoveryTest, ordinaryMediumIsScannedOnce) {
    startSelected();
    manager->pass();
    manager->pass();
    EXPECT_FALSE(wasScanned());
}

// --- cards that are swapped

TEST_F(RecoveryTest, cardSwappedBeforeItsMountForUseIsTakenAnew) {
    startSelected();
    kernelRemoves(S1, "sdb");
    media.media["sdb"].label = "OTHER"; // nothing was mounted, so its name is free for the next
    kernelAdds(S1, "sdb");
    busAnswers(S1, "sdb", "sdb");
    manager->pass();
    EXPECT_TRUE(has(effects(), "system echo -n 1 > /sys/block/sdb/device/delete"));
    manager->pass();
    EXPECT_EQ(config.text(kParamVolumeName), "OTHER");
    EXPECT_TRUE(wasScanned());
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
}

TEST_F(RecoveryTest, cardSwappedWithoutAWordOfTheOneBeforeIsTakenAnewToo) {
    startSelected();
    media.media["sdc"].label = "OTHER";
    kernelAdds(S1, "sdc");
    busAnswers(S1, "sdc", "sdc");
    manager->pass();
    EXPECT_TRUE(has(effects(), "system echo -n 1 > /sys/block/sdc/device/delete"));
    manager->pass();
    EXPECT_EQ(config.text(kParamVolumeName), "OTHER");
    EXPECT_TRUE(wasScanned());
}

TEST_F(RecoveryTest, announcementThatIsRepeatedBeforeTheMountForUseCostsNothing) {
    startSelected();
    kernelAdds(S1, "sdb");
    manager->pass();
    EXPECT_EQ(effectsOf("system echo"), Lines{});
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
}

TEST_F(RecoveryTest, anotherDeviceThatComesDuringTheCheckIsNotMountedUnchecked) {
    startSelected();
    media.media["sdc"];
    shell.handle("fsck.hfsplus -q /dev/sdb2", [this](const std::string&) {
        kernelRemoves(S1, "sdb");
        kernelAdds(S1, "sdc");
        return fakes::FakeFileUtils::Answer{0, "QUICKCHECK ONLY; FILESYSTEM CLEAN\n"};
    });
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), -1);
    expectError("Media Manageranother device came during the check of /mnt/S1\n");
    EXPECT_EQ(effectsOf("run /bin/mount -onoatime"), Lines{});
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
    EXPECT_EQ(config.integer(S1.led), eStorageLEDOff);
}

TEST_F(RecoveryTest, anotherDeviceThatComesBehindTheCheckIsNotMountedInItsPlace) {
    startSelected();
    media.media["sdc"];
    config.onSet = [this](eParam_t id) { // the LED, just before the mount
        if (id != S1.led) return;
        config.onSet = nullptr;
        kernelRemoves(S1, "sdb");
        kernelAdds(S1, "sdc");
    };
    manager->mountSlot(eStorageSlotS1, false);
    EXPECT_EQ(effectsOf("run /bin/mount -onoatime"), Lines{"run /bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1"});
    takeErrors();
}

TEST_F(RecoveryTest, deviceThatAReleaseHasDeletedIsNotTakenAgain) {
    startWithMedium();
    kernelAdds(S1, "sdb"); // once more, and nobody has looked
    manager->attemptSlotChange(eStorageSlotUnknown);
    effects();
    manager->findStorage(true); // the kernel has not yet said that it has gone
    expectNoEffects();
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
}

// --- pins that come late or bounce

TEST_F(RecoveryTest, mediumThatWasAnnouncedBeforeItsPinIsProbedForOnceThePinIsThere) {
    start();
    insert(S1, "sdb");
    pinGoesOut(S1);
    manager->findStorage(true);
    expectEffects(join({unmountOfNothing(S1, true), deletesFromBus("sdb")}));
    kernelRemoves(S1, "sdb");
    manager->findStorage(true);
    expectNoEffects();
    pinGoesIn(S1);
    manager->findStorage(true);
    expectEffects({sets(kParamMediaLoadingStatus, 1), kProbe1});
    manager->findStorage(true);
    expectNoEffects();
}

TEST_F(RecoveryTest, hackProbesForALateMediumOnlyOnce) {
    start(kWithHack);
    insert(S1, "sdb");
    pinGoesOut(S1);
    manager->findStorage(true);
    kernelRemoves(S1, "sdb");
    effects();
    pinGoesIn(S1);
    manager->findStorage(true);
    EXPECT_EQ(effectsOf("system"), Lines{kProbe1});
}

TEST_F(RecoveryTest, mediumWhosePinWasOnIsNotProbedForWhenItComesBack) {
    start();
    insert(S1, "sdb");
    listener->getSlot(eStorageSlotS1).takeAnnouncement(); // noticed, and thrown out when it was pulled
    pinGoesOut(S1);
    manager->findStorage(true);
    kernelRemoves(S1, "sdb");
    effects();
    pinGoesIn(S1);
    manager->findStorage(true);
    expectEffects({sets(kParamMediaLoadingStatus, 1)});
}

TEST_F(RecoveryTest, pinThatBouncesDuringARemountCostsNothing) {
    startWithMedium();
    busAnswers(S1, "sdb", "sdb");
    os.onSleep = [this](long long nanoseconds) {
        if (nanoseconds == 1'000'000'000) pinGoesOut(S1);
    };
    post(kParamSlotRemountCommand, 2);
    manager->checkMessages();
    os.onSleep = {};
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
    effects();
    pinGoesIn(S1);
    manager->findStorage(true);
    EXPECT_EQ(effectsOf("system"), Lines{kProbe1});
    manager->findStorage(true);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
}

TEST_F(RecoveryTest, storageThatIsAcquiredDuringARemountCostsNothing) {
    startWithMedium();
    busAnswers(S1, "sdb", "sdb");
    os.onSleep = [this](long long nanoseconds) {
        if (nanoseconds != 1'000'000'000) return;
        kernelRemoves(S1, "sdb");
        manager->acquireStorage();
    };
    post(kParamSlotRemountCommand, 2);
    manager->checkMessages();
    os.onSleep = {};
    EXPECT_EQ(config.integer(kParamSlotChangeCommand), 15);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
    effects();
    manager->findStorage(true);
    EXPECT_EQ(effectsOf("system"), Lines{kProbe1});
    manager->releaseStorage();
    manager->findStorage(true);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
}

TEST_F(RecoveryTest, releasedMediumWhosePinBouncesIsProbedForWhenNothingIsAnnounced) {
    startReleased();
    bounce(S1);
    manager->findStorage(true);
    expectEffects({sets(kParamMediaLoadingStatus, 1)});
    passSeconds(2);
    manager->findStorage(true);
    expectNoEffects();
    passSeconds(1);
    manager->findStorage(true);
    expectEffects({kProbe1});
    passSeconds(10);
    manager->findStorage(true);
    expectNoEffects();
}

TEST_F(RecoveryTest, releasedMediumIsProbedForInTimeWhateverTheDate) {
    startReleased();
    bounce(S1);
    manager->findStorage(true);
    effects();
    os.startTime += 1'000'000;
    passSeconds(2);
    manager->findStorage(true);
    expectNoEffects();
    os.startTime -= 2'000'000;
    passSeconds(1);
    manager->findStorage(true);
    expectEffects({kProbe1});
}

// The daemon before has ended because of the pin, and has taken the medium off the bus.
TEST_F(RecoveryTest, mediumWhosePinWasOffAtTheStartIsProbedForWhenNothingIsAnnounced) {
    makeManager();
    start();
    effects();
    pinGoesIn(S2);
    manager->findStorage(true);
    expectEffects({sets(kParamMediaLoadingStatus, 1)});
    passSeconds(3);
    manager->findStorage(true);
    expectEffects({kProbe2});
    kernelAdds(S2, "sdb");
    manager->findStorage(true);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 2);
}

TEST_F(RecoveryTest, newMediumInAReleasedSlotIsNotProbedFor) {
    startReleased();
    bounce(S1);
    manager->findStorage(true);
    kernelAdds(S1, "sdb");
    manager->findStorage(true);
    EXPECT_EQ(effectsOf("system"), Lines{});
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
    passSeconds(10);
    manager->findStorage(true);
    EXPECT_EQ(effectsOf("system"), Lines{});
}

TEST_F(RecoveryTest, newMediumThatWaitsForTheStorageIsNotProbedFor) {
    startReleased();
    manager->acquireStorage();
    bounce(S1);
    manager->findStorage(true);
    kernelAdds(S1, "sdb");
    manager->findStorage(true);
    passSeconds(10);
    manager->findStorage(true);
    EXPECT_EQ(effectsOf("system"), Lines{});
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
}

TEST_F(RecoveryTest, releasedMediumThatStaysInItsSlotIsNotProbedFor) {
    startReleased();
    for (int i = 0; i < 10; ++i) {
        passSeconds(1);
        manager->findStorage(true);
    }
    expectNoEffects();
}

TEST_F(RecoveryTest, secondMediumWhosePinBouncesIsProbedForOnceNothingIsInUse) {
    startWithMedium();
    insert(S2, "sdc");
    manager->findStorage(true);
    kernelRemoves(S2, "sdc");
    bounce(S2);
    passSeconds(10);
    manager->findStorage(true);
    EXPECT_EQ(effectsOf("system echo 0"), Lines{}) << "one is in use";
    manager->attemptSlotChange(eStorageSlotUnknown);
    kernelRemoves(S1, "sdb");
    effects();
    bounce(S2);
    manager->findStorage(true);
    passSeconds(3);
    manager->findStorage(true);
    EXPECT_EQ(effectsOf("system"), Lines{kProbe2});
}

TEST_F(RecoveryTest, nobodyIsProbedForOnceAnotherMediumIsInUse) {
    startReleased();
    bounce(S1);
    manager->findStorage(true);
    insert(S2, "sdc");
    manager->findStorage(true);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 2);
    passSeconds(10);
    effects();
    manager->findStorage(true);
    expectNoEffects();
}

TEST_F(RecoveryTest, loadingEndsWithTheLastMediumThatItIsShownFor) {
    startReleased();
    insert(S2, "sdc");
    listener->getSlot(eStorageSlotS2).takeAnnouncement();
    manager->findStorage(true); // loading, for S2
    bounce(S1);
    manager->findStorage(true);
    EXPECT_TRUE(manager->isMediaLoading());
    effects();
    pinGoesOut(S1);
    manager->findStorage(true);
    EXPECT_TRUE(manager->isMediaLoading()) << "S2 is still waited for";
    pinGoesOut(S2);
    manager->findStorage(true);
    EXPECT_FALSE(manager->isMediaLoading());
}

// FireWire access that is resumed ends the loading by itself.
TEST_F(RecoveryTest, mediumWhoseLoadingHasEndedIsNotWaitedForLater) {
    start();
    pinGoesIn(S1);
    manager->findStorage(true);
    manager->setMediaLoading(false);
    pinGoesIn(S2);
    manager->findStorage(true);
    EXPECT_TRUE(manager->isMediaLoading());
    pinGoesOut(S2);
    manager->findStorage(true);
    EXPECT_FALSE(manager->isMediaLoading());
}

TEST_F(RecoveryTest, mediumThatNobodyWaitsForDoesNotKeepTheLoadingUp) {
    startWithMedium();
    insert(S2, "sdc");
    manager->findStorage(true); // a second one: off the bus
    kernelRemoves(S2, "sdc");
    manager->attemptSlotChange(eStorageSlotUnknown);
    kernelRemoves(S1, "sdb");
    bounce(S1);
    manager->findStorage(true);
    ASSERT_TRUE(manager->isMediaLoading());
    pinGoesOut(S1);
    manager->findStorage(true);
    EXPECT_FALSE(manager->isMediaLoading()) << "S2 is there, and will never be announced";
}

// --- names of devices that are gone

TEST_F(RecoveryTest, emptySlotsDeviceIsDeletedOnce) {
    start();
    kernelAdds(S1, "sdb");
    manager->findStorage(true);
    expectEffects(join({unmountOfNothing(S1, true), deletesFromBus("sdb")}));
    manager->findStorage(true); // the kernel never says that it is gone
    expectNoEffects();
}

TEST_F(RecoveryTest, secondMediumsDeviceIsDeletedOnce) {
    startWithMedium();
    insert(S2, "sdc");
    manager->findStorage(true);
    EXPECT_TRUE(has(effects(), "system echo -n 1 > /sys/block/sdc/device/delete"));
    manager->findStorage(true);
    expectNoEffects();
}

// The deletion of a device takes its time, and a card is pulled and the next one put in meanwhile.
TEST_F(RecoveryTest, cardThatIsAnnouncedWhileTheOneBeforeIsDeletedIsNotForgotten) {
    startWithMedium();
    insert(S2, "sdc");
    const auto exchange = [this](const std::string& line) {
        if (line == "echo -n 1 > /sys/block/sdc/device/delete") {
            kernelRemoves(S2, "sdc");
            kernelAdds(S2, "sdd");
        }
        return 0;
    };
    os.onSystem = exchange;
    manager->findStorage(true);
    EXPECT_TRUE(listener->getSlot(eStorageSlotS2).isRecognizedByTheDriver());
    effects();
    manager->findStorage(true);
    EXPECT_TRUE(has(effects(), "system echo -n 1 > /sys/block/sdd/device/delete"));

    pinGoesOut(S2);
    kernelAdds(S2, "sdc"); // of an empty slot
    manager->findStorage(true);
    EXPECT_EQ(manager->getDevice(eStorageSlotS2), "sdd");
}

TEST_F(RecoveryTest, cardThatIsAnnouncedDuringAReleaseIsTaken) {
    startWithMedium();
    media.media.try_emplace("sdd");
    os.onSystem = [this](const std::string& line) {
        if (line == "echo -n 1 > /sys/block/sdb/device/delete") {
            kernelRemoves(S1, "sdb");
            kernelAdds(S1, "sdd");
        }
        return 0;
    };
    manager->attemptSlotChange(eStorageSlotUnknown);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 0);
    manager->findStorage(true);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
    EXPECT_EQ(manager->getDevice(eStorageSlotS1), "sdd");
}

TEST_F(RecoveryTest, nameOfASecondMediumThatAnotherSlotsDiskGetsIsNotUsed) {
    startWithMedium();
    insert(S2, "sdc");
    manager->findStorage(true);
    manager->attemptSlotChange(eStorageSlotUnknown);
    kernelRemoves(S1, "sdb");
    kernelAdds(S1, "sdc"); // S2's was never said to be gone
    manager->findStorage(true);
    EXPECT_EQ(config.integer(kParamSelectedSlot), 1);
    effects();
    manager->attemptSlotChange(eStorageSlotUnknown);
    effects();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS2), 0U);
    expectEffects({sets(kParamMediaLoadingStatus, 1), kProbe2, sets(kParamSlotChangeCommand, 0)});
}

TEST_F(RecoveryTest, nameThatAnotherSlotsDiskHasIsGivenUpByAnEmptySlot) {
    start();
    insert(S1, "sdb");
    pinGoesOut(S1);
    insert(S2, "sdb");
    manager->findStorage(true);
    EXPECT_FALSE(has(effects(), "system echo -n 1 > /sys/block/sdb/device/delete"));
    EXPECT_EQ(config.integer(kParamSelectedSlot), 2);
    EXPECT_EQ(manager->getDevice(eStorageSlotS1), "");
}

// --- media that stay mounted

TEST_F(RecoveryTest, mediumThatWasPulledIsUnmountedWhenItIsReleased) {
    startWithMedium();
    kernelRemoves(S1, "sdb");
    pinGoesOut(S1);
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotUnknown), 0U);
    EXPECT_TRUE(has(effects(), "run /bin/umount -l /mnt/S1"));
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
    EXPECT_EQ(config.text(kParamStoragePath), "");
}

TEST_F(RecoveryTest, mediumThatWasReplacedIsUnmountedWhenItIsReleased) {
    startWithMedium();
    kernelRemoves(S1, "sdb");
    kernelAdds(S1, "sdd");
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotUnknown), 0U);
    EXPECT_TRUE(has(effects(), "run /bin/umount -l /mnt/S1"));
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
}

TEST_F(RecoveryTest, unmountedMediumIsNotUnmountedOnceMoreWhenItIsReleased) {
    startSelected();
    kernelRemoves(S1, "sdb");
    pinGoesOut(S1);
    manager->attemptSlotChange(eStorageSlotUnknown);
    EXPECT_EQ(effectsOf("unlink"), Lines{}) << "nobody else's mount is looked for";
}

// The path of what a medium in use is refreshed by; nothing else is changed in the pass.
TEST_F(RecoveryTest, mediumThatCouldNotBeUnmountedHasItsIndexRefreshedWhenItIsUsedAgain) {
    startSelected();
    manager->pass();
    manager->pass();
    EXPECT_EQ(effectsOf("clips find"), Lines{});
    media.umountStatus = 32;
    manager->unmountSlot(eStorageSlotS1, false, true);
    media.umountStatus = 0;
    expectError("Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n");
    effects();
    manager->pass();
    EXPECT_NE(effectsOf("clips find"), Lines{});
    manager->unmountSlot(eStorageSlotS1, false, true);
    effects();
    manager->pass();
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    EXPECT_EQ(effectsOf("clips find"), Lines{}) << "once is enough";
}

TEST_F(RecoveryTest, mediumWhoseSchedulerCouldNotBeSetHasItsIndexRefreshed) {
    startSelected();
    shell.answer("/bin/echo noop > /sys/block/sdb/queue/scheduler", 1, "", 1);
    manager->pass();
    expectError("Media Managerfailed to set IO Scheduler to noop for /dev/sdb\n");
    effects();
    manager->pass();
    EXPECT_NE(effectsOf("clips find"), Lines{});
}

TEST_F(RecoveryTest, mediumThatWasUnmountedNeedsNoRefresh) {
    startSelected();
    manager->pass();
    manager->pass();
    manager->unmountSlot(eStorageSlotS1, false, true);
    effects();
    manager->pass();
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    EXPECT_EQ(effectsOf("clips find"), Lines{});
}

} // namespace
