// Which slot is in use: requests, activation, release.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>

#include "shared_segment.h"
#include "tests/media_manager/manager_test.h"

namespace {

constexpr auto kRecheck = static_cast<eStorageSlot_t>(5);
constexpr char kClipSegment[] = "/dev/shm/NewCacheSharedClipCache_shm";

// Whether this process holds the clip segment open, which it does for the life of a cache object only.
bool cacheIsOpen() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry.path(), error) == kClipSegment) return true;
    }
    return false;
}

class SelectionTest : public ManagerTest {
protected:
    // A medium that is in the slot, announced and noticed, and not selected.
    void waits(const Place& place, const std::string& device) {
        insert(place, device);
        listener->getSlot(place.id).setNewlyInserted(false);
    }
    int selected() { return config.integer(kParamSelectedSlot); }
    Lines firstSelection(int slot) {
        return {sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0), sets(kParamSelectedSlot, slot)};
    }
};

// --- the selection itself

TEST_F(SelectionTest, firstSelectionClearsTheClip) {
    start();
    manager->setSelectedSlot(eStorageSlotS2);
    expectEffects(firstSelection(2));
}

TEST_F(SelectionTest, laterSelectionsOnlyPublish) {
    start();
    manager->setSelectedSlot(eStorageSlotS2);
    effects();
    manager->setSelectedSlot(eStorageSlotS1);
    manager->setSelectedSlot(eStorageSlotS1);
    manager->setSelectedSlot(eStorageSlotUnknown);
    expectEffects({sets(kParamSelectedSlot, 1), sets(kParamSelectedSlot, 1), sets(kParamSelectedSlot, 0)});
}

TEST_F(SelectionTest, previousSlotIsTheLastOneThatWasReplaced) {
    start();
    waits(S1, "sdb");
    waits(S2, "sdc");
    manager->setSelectedSlot(eStorageSlotS2);
    manager->setSelectedSlot(eStorageSlotUnknown); // S2 was replaced
    manager->setSelectedSlot(eStorageSlotUnknown); // nothing was
    post(kParamSlotChangeCommand, 6);
    manager->checkMessages();
    EXPECT_EQ(selected(), 1); // what follows S2
}

TEST_F(SelectionTest, nextSlotFollowsTheBoardOnlyWithNothingSelected) {
    start();
    EXPECT_EQ(manager->getNextSlot(eStorageSlotUnknown, eStorageSlotS1), eStorageSlotS2);
    EXPECT_EQ(manager->getNextSlot(eStorageSlotUnknown, eStorageSlotS2), eStorageSlotS1);
    EXPECT_EQ(manager->getNextSlot(eStorageSlotUnknown, eStorageSlotUnknown), eStorageSlotS1);
    EXPECT_EQ(manager->getNextSlot(eStorageSlotUnknown, eStorageSlotD1), eStorageSlotUnknown);
    for (eStorageSlot_t mode : {eStorageSlotS1, eStorageSlotS2, kRecheck})
        for (eStorageSlot_t slot : {eStorageSlotUnknown, eStorageSlotS1, eStorageSlotS2})
            EXPECT_EQ(manager->getNextSlot(mode, slot), eStorageSlotUnknown);
    expectNoEffects();
}

TEST_F(SelectionTest, nextAvailableSlotIsTheFirstPresentOneFromTheGivenOneOn) {
    start();
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotUnknown), eStorageSlotUnknown);
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS1), eStorageSlotUnknown);
    pinGoesIn(S2);
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS1), eStorageSlotS2);
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS2), eStorageSlotS2);
    pinGoesIn(S1);
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS1), eStorageSlotS1);
    // What no slot at all is followed by is not asked for.
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotUnknown), eStorageSlotUnknown);
}

TEST_F(SelectionTest, nextAvailableSlotEndsWithTheMap) {
    start("specification.nextSlot = { default = 'S1', S1 = 'S2' }");
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS1), eStorageSlotUnknown);
    pinGoesIn(S1);
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS2), eStorageSlotUnknown);
}

TEST_F(SelectionTest, nextAvailableSlotEndsInARingThatLeavesTheFirstSlotOut) {
    start(std::string(kWithFourSlots) + "specification.nextSlot = { S1 = 'S2', S2 = 'D1', D1 = 'S2' }");
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS1), eStorageSlotUnknown);
    pinGoesIn(D1);
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS1), eStorageSlotD1);
}

TEST_F(SelectionTest, nextAvailableSlotEndsAtASlotThatFollowsItself) {
    start("specification.nextSlot = { S1 = 'S1' }");
    EXPECT_EQ(manager->getNextAvailableSlot(eStorageSlotS1), eStorageSlotUnknown);
}

// --- attemptSlotChange

TEST_F(SelectionTest, slotThatIsSelectedAlreadyOnlyClearsTheRequest) {
    startWithMedium();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 0U);
    expectEffects({sets(kParamSlotChangeCommand, 0)});
    // Also in use, and also where the medium is gone.
    manager->acquireStorage();
    pinGoesOut(S1);
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 0U);
    expectEffects({sets(kParamSlotChangeCommand, 0)});
}

TEST_F(SelectionTest, noSlotThatIsSelectedAlready) {
    start();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotUnknown), 0U);
    expectEffects({sets(kParamSlotChangeCommand, 0)});
}

TEST_F(SelectionTest, storageInUseKeepsTheSelection) {
    startWithMedium();
    waits(S2, "sdc");
    manager->acquireStorage();
    effects();
    for (eStorageSlot_t slot : {eStorageSlotS2, eStorageSlotUnknown, kRecheck}) {
        EXPECT_EQ(manager->attemptSlotChange(slot), 15U);
        expectEffects({sets(kParamSlotChangeCommand, 15), sets(kParamSelectedSlot, 1)});
    }
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
}

TEST_F(SelectionTest, storageInUseWithNothingSelected) {
    start();
    waits(S1, "sdb");
    manager->acquireStorage();
    effects();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 15U);
    expectEffects(join({{sets(kParamSlotChangeCommand, 15)}, firstSelection(0)}));
}

TEST_F(SelectionTest, mediumGoesIntoUse) {
    start();
    insert(S1, "sdb");
    effects();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 0U);
    expectEffects({
        "run /usr/local/bin/volname.hfsplus /dev/sdb2 | awk -F': ' '{printf $2}'",
        sets(kParamVolumeName, "CARD"),
        "run /usr/local/bin/volname.hfsplus /dev/sdb2 2>&1",
        // The check, in its quiet mount.
        "run /bin/mount | grep /mnt/S1",
        "run /usr/local/bin/fsck.hfsplus -q /dev/sdb2 2>&1 | grep FILESYSTEM",
        "run /bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1",
        "guard /mnt/S1",
        "run /bin/echo noop > /sys/block/sdb/queue/scheduler",
        "run /bin/mount | grep /dev/sdb2",
        sets(kParamStoragePath, "/mnt/S1/NEVO"),
        // The activation, which mounts again.
        "run /bin/mount | grep /mnt/S1",
        "run /bin/umount -l /mnt/S1",
        sets(kParamStoragePath, ""),
        "run /bin/mount | grep /dev/sdb2",
        "run /usr/local/bin/fsck.hfsplus -q /dev/sdb2 2>&1 | grep FILESYSTEM",
        "run /bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1",
        "guard /mnt/S1",
        "run /bin/echo noop > /sys/block/sdb/queue/scheduler",
        "run /bin/mount | grep /dev/sdb2",
        sets(kParamStoragePath, "/mnt/S1/NEVO"),
        "run /bin/mkdir -p /mnt/S1/NEVO/.uploads/",
        "run echo 'This directory contains temporary upload files - DO NOT PUT YOUR FILES INTO THIS FOLDER!!! "
        "THEY WILL BE DELETED!!!' > /mnt/S1/NEVO/.uploads/README.txt",
        "clips scan /mnt/S1/NEVO",
        "clips find true false true",
        "unlink /var/www/media",
        "run /bin/mount | grep /mnt/S1",
        "run /bin/umount  /mnt/S1",
        sets(kParamStoragePath, ""),
        "run /bin/mount | grep /dev/sdb2",
        sets(kParamMediaChangedTime, now()),
        sets(kParamSlotChangeCommand, 0),
        sets(kParamClipName, "N/A"),
        sets(kParamClipIndex, 0),
        sets(kParamSelectedSlot, 1),
    });
    EXPECT_FALSE(listener->getSlot(eStorageSlotS1).isNewlyInserted());
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
}

TEST_F(SelectionTest, changeFromOneMediumToAnother) {
    startWithMedium();
    waits(S2, "sdc");
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS2), 0U);
    Lines expected = goesIntoUse(S2, "sdc");
    // A selection that replaces another one leaves the clip alone.
    expected.erase(expected.end() - 3, expected.end() - 1);
    expectEffects(expected);
    EXPECT_EQ(manager->getNextSlot(eStorageSlotUnknown, eStorageSlotS1), eStorageSlotS2);
}

TEST_F(SelectionTest, emptySlotMovesTheRequestToTheNextPresentOne) {
    start();
    waits(S2, "sdc");
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 0U);
    expectEffects(goesIntoUse(S2, "sdc"));
}

TEST_F(SelectionTest, emptySlotsEverywhereDeselect) {
    startWithMedium();
    pinGoesOut(S1);
    kernelRemoves(S1, "sdb");
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS2), 0U);
    EXPECT_EQ(selected(), 0);
    EXPECT_EQ(config.text(kParamVolumeName), "N/A");
}

TEST_F(SelectionTest, emptySlotThatEndsAtTheSelectedOne) {
    startWithMedium();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS2), 0U);
    expectEffects({sets(kParamSlotChangeCommand, 0)});
    EXPECT_EQ(selected(), 1);
}

TEST_F(SelectionTest, deviceThatTheKernelHasNotAnnouncedIsProbedFor) {
    startWithMedium();
    pinGoesIn(S2);
    effects();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS2), 0U);
    expectEffects({sets(kParamMediaLoadingStatus, 1), "system echo 0 0 0 > /sys/class/scsi_host/host2/scan",
                   sets(kParamSlotChangeCommand, 0)});
    EXPECT_TRUE(manager->isMediaLoading());
    EXPECT_EQ(selected(), 1); // nothing is selected now, but that is not published
    kernelAdds(S2, "sdc");
    manager->checkMessages();
    EXPECT_EQ(selected(), 2);
    EXPECT_FALSE(manager->isMediaLoading());
}

TEST_F(SelectionTest, requestClearsTheNewlyInsertedMarkOfItsSlotOnly) {
    start();
    insert(S1, "sdb");
    insert(S2, "sdc");
    manager->attemptSlotChange(eStorageSlotS1);
    EXPECT_FALSE(listener->getSlot(eStorageSlotS1).isNewlyInserted());
    EXPECT_TRUE(listener->getSlot(eStorageSlotS2).isNewlyInserted());
}

TEST_F(SelectionTest, unformattedMediumIsSelectedWithTen) {
    start();
    insert(S1, "sdb");
    media.media["sdb"].formatted = false;
    config.put(kParamAlarms, 0x2);
    effects();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 10U);
    expectEffects(join({{"run /usr/local/bin/volname.hfsplus /dev/sdb2 | awk -F': ' '{printf $2}'",
                         sets(kParamVolumeName, "N/A"), "run /usr/local/bin/volname.hfsplus /dev/sdb2 2>&1",
                         sets(kParamAlarms, 0x800002), sets(kParamSlotChangeCommand, 10)},
                        firstSelection(1)}));
}

TEST_F(SelectionTest, damagedMediumIsSelectedWithElevenAfterTwoAttempts) {
    start();
    insert(S1, "sdb");
    media.media["sdb"].clean = false;
    media.media["sdb"].repairable = false;
    config.put(kParamAlarms, 0x2);
    effects();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 11U);
    const Lines attempt{"run /bin/mount | grep /mnt/S1",
                        "run /usr/local/bin/fsck.hfsplus -q /dev/sdb2 2>&1 | grep FILESYSTEM",
                        "run /usr/local/bin/fsck.hfsplus /dev/sdb2", sets(kParamInvalidMediaAlert, 1)};
    expectEffects(join({{"run /usr/local/bin/volname.hfsplus /dev/sdb2 | awk -F': ' '{printf $2}'",
                         sets(kParamVolumeName, "CARD"), "run /usr/local/bin/volname.hfsplus /dev/sdb2 2>&1"},
                        attempt,
                        attempt,
                        {sets(kParamAlarms, 0x1000002), sets(kParamVolumeName, "N/A"),
                         sets(kParamSlotChangeCommand, 11)},
                        firstSelection(1)}));
    const std::string once = "MediaManager::fsckSlot: Could not repair /dev/sdb2, result:0x8\n"
                             "Media Managerfailure repairing slot for /mnt/S1\n";
    expectError(once + once);
}

TEST_F(SelectionTest, secondAttemptToMountMaySucceed) {
    start();
    insert(S1, "sdb");
    shell.answer("/bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1", 32, "", 1);
    effects();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 0U);
    expectError("Media Managermount failed for: /dev/sdb2 on /mnt/S1\n");
    EXPECT_EQ(config.integer(kParamAlarms), 0);
    EXPECT_EQ(selected(), 1);
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run /bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1"), 3);
}

TEST_F(SelectionTest, readOnlyMediumIsSelectedAndTriedAgainEveryPass) {
    start();
    insert(S1, "sdb");
    media.media["sdb"].readOnly = true;
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 0U);
    EXPECT_EQ(selected(), 1);
    EXPECT_EQ(config.integer(kParamInvalidMediaAlert), 1);
    takeErrors();
    for (int pass = 0; pass < 3; ++pass) {
        effects();
        EXPECT_TRUE(manager->pass());
        const Lines lines = effects();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "run /bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1"), 1);
        takeErrors();
    }
    // Commands are served all the same.
    post(kParamSlotChangeCommand, 6);
    manager->pass();
    takeErrors();
    EXPECT_EQ(selected(), 0);
}

TEST_F(SelectionTest, releaseOfTheMediumInUse) {
    startWithMedium();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotUnknown), 0U);
    expectEffects({
        sets(kParamVolumeName, "N/A"),
        sets(kParamClipName, "N/A"),
        sets(kParamClipIndex, 0),
        "clips flushAll",
        sets(kParamPlaylistName, ""),
        sets(kParamMediaChangedTime, now()),
        "run /bin/mount | grep /dev/sdb2",
        "unlink /var/www/media",
        "run /bin/mount | grep /mnt/S1",
        "run /bin/umount  /mnt/S1",
        sets(kParamStoragePath, ""),
        "run /bin/mount | grep /dev/sdb2",
        led(S1, eStorageLEDOff),
        "run /bin/mount | grep /mnt/S1",
        "system echo -n 1 > /sys/block/sdb/device/delete",
        sets(kParamSlotChangeCommand, 0),
        sets(kParamSelectedSlot, 0),
    });
}

TEST_F(SelectionTest, recheckReleasesAndMarksTheSettings) {
    startWithMedium();
    config.put(kParamAlarms, 0x40000);
    os.recordSemaphores = true;
    EXPECT_EQ(manager->attemptSlotChange(kRecheck), 0U);
    Lines lines = effects();
    lines.resize(5);
    EXPECT_EQ(lines, (Lines{"wait", "post", "wait", "post", sets(kParamVolumeName, "N/A")}));
    EXPECT_EQ(selected(), 0);
    manager->checkMessages();
    EXPECT_EQ(config.integer(kParamAlarms), 0); // what a change of settings does
}

TEST_F(SelectionTest, recheckWithNothingSelected) {
    start();
    config.put(kParamAlarms, 0x40000);
    EXPECT_EQ(manager->attemptSlotChange(kRecheck), 0U);
    const Lines lines = effects();
    ASSERT_GE(lines.size(), 4U);
    // 5 is a request, never a selection.
    EXPECT_EQ(lines.back(), sets(kParamSelectedSlot, 0));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "system echo -n 1 > /sys/block//device/delete"), 0);
    manager->checkMessages();
    EXPECT_EQ(config.integer(kParamAlarms), 0);
}

TEST_F(SelectionTest, mediumThatCannotBeReleasedGivesFourteen) {
    startWithMedium();
    media.umountStatus = 32;
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotUnknown), 14U);
    const Lines lines = effects();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
              (Lines{sets(kParamSlotChangeCommand, 14), sets(kParamSelectedSlot, 0)}));
    // The deletion from the bus has tried as well.
    expectError("Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n"
                "Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n");
}

// --- activateSlot

TEST_F(SelectionTest, activationNumbersTheTakesUnderBothSettings) {
    start();
    waits(S1, "sdb");
    scanner.found = {fakes::clip("a 001"), fakes::clip("a 002")};
    config.put(kParamRecordSetting1301, 21);
    config.put(kParamRecordSetting1303, 23);
    config.put(kParamRecordSetting2304, 24);
    effects();
    config.recordGets = true;
    manager->activateSlot(eStorageSlotS1);
    expectEffects(join({mounts(S1, "sdb", true),
                        makesDirectories(S1),
                        {"clips scan /mnt/S1/NEVO", "clips find true false true",
                         gets(kParamRecordSetting1301), gets(kParamRecordSetting1303), gets(kParamRecordSetting2304),
                         sets(kParamRecordSetting2304, 0), sets(kParamRecordSetting1301, 0),
                         sets(kParamRecordSetting1303, 0), "clips number 2", sets(kParamRecordSetting1301, 1),
                         sets(kParamRecordSetting1303, 1), "clips number 2", sets(kParamRecordSetting1301, 21),
                         sets(kParamRecordSetting1303, 23), sets(kParamRecordSetting2304, 24)},
                        unmounts(S1, "sdb", false, false),
                        {sets(kParamMediaChangedTime, now())}}));
}

TEST_F(SelectionTest, activationWithoutClipsNumbersNothing) {
    start();
    waits(S1, "sdb");
    effects();
    manager->activateSlot(eStorageSlotS1);
    expectEffects(join({mounts(S1, "sdb", true), makesDirectories(S1),
                        {"clips scan /mnt/S1/NEVO", "clips find true false true"}, unmounts(S1, "sdb", false, false),
                        {sets(kParamMediaChangedTime, now())}}));
}

TEST_F(SelectionTest, activationHoldsTheCacheFromTheScanToTheEnd) {
    start();
    waits(S1, "sdb");
    scanner.found = {fakes::clip("a")};
    std::vector<std::pair<std::string, bool>> seen;
    shell.handle("README.txt", [&](const std::string&) {
        seen.emplace_back("directories", cacheIsOpen());
        return fakes::FakeFileUtils::Answer{};
    });
    scanner.onCall = [&](const std::string& line) { seen.emplace_back(line, cacheIsOpen()); };
    config.onSet = [&](eParam_t id) {
        if (id == kParamMediaChangedTime) seen.emplace_back("stamp", cacheIsOpen());
    };
    manager->activateSlot(eStorageSlotS1);
    const std::vector<std::pair<std::string, bool>> expected = {{"directories", false},
                                                                {"scan /mnt/S1/NEVO", true},
                                                                {"find true false true", true},
                                                                {"number 1", true},
                                                                {"number 1", true},
                                                                {"stamp", true}};
    EXPECT_EQ(seen, expected);
    EXPECT_FALSE(cacheIsOpen());
}

TEST_F(SelectionTest, activationEndsWhereTheMountFails) {
    start();
    waits(S1, "sdb");
    shell.answer("/bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1", 32);
    effects();
    manager->activateSlot(eStorageSlotS1);
    takeErrors();
    const Lines lines = effects();
    EXPECT_EQ(lines.back(), "run /bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1");
}

TEST_F(SelectionTest, activationGoesOnWithoutItsDirectories) {
    start();
    waits(S1, "sdb");
    shell.answerPart("/bin/mkdir -p", 1);
    effects();
    manager->activateSlot(eStorageSlotS1);
    EXPECT_EQ(effectsOf("clips"), (Lines{"clips scan /mnt/S1/NEVO", "clips find true false true"}));
}

// Everything an activation does, for a medium with a clip; the shutdown begins with one of these lines.
struct Shutdown {
    const char* name;
    const char* at;   // the first line of the journal that is exactly this
    const char* last; // the line after which nothing comes any more
};

std::ostream& operator<<(std::ostream& out, const Shutdown& shutdown) { return out << shutdown.name; }

class ShutdownTest : public SelectionTest, public ::testing::WithParamInterface<Shutdown> {};

INSTANTIATE_TEST_SUITE_P(
    , ShutdownTest,
    ::testing::Values(
        Shutdown{"duringTheMount", "run /bin/echo noop > /sys/block/sdb/queue/scheduler",
                 "set 0x7b01010a \"/mnt/S1/NEVO\""},
        Shutdown{"duringTheScan", "clips scan /mnt/S1/NEVO", "clips scan /mnt/S1/NEVO"},
        Shutdown{"duringTheSearch", "clips find true false true", "clips find true false true"}),
    [](const auto& instance) { return instance.param.name; });

TEST_P(ShutdownTest, abandonsTheActivationWithoutUnmounting) {
    start();
    waits(S1, "sdb");
    scanner.found = {fakes::clip("a")};
    const auto watch = [](const std::string& line) {
        if (line == GetParam().at) Daemonizer::killed = 1;
    };
    scanner.onCall = [&](const std::string& line) { watch("clips " + line); };
    shell.handle("/queue/scheduler", [&](const std::string& line) {
        watch("run " + line);
        return fakes::FakeFileUtils::Answer{};
    });
    effects();
    manager->activateSlot(eStorageSlotS1);
    EXPECT_EQ(Daemonizer::killed, 1);
    const Lines lines = effects();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), GetParam().last);
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    EXPECT_FALSE(cacheIsOpen());
}

TEST_F(SelectionTest, shutdownDuringTheNumberingRestoresTheSettingsAndUnmountsNothing) {
    for (int round : {1, 2}) {
        Daemonizer::killed = 0;
        manager.reset();
        listener.reset();
        media.mounts.clear();
        start();
        waits(S1, "sdb");
        scanner.found = {fakes::clip("a")};
        config.put(kParamRecordSetting1301, 21);
        config.put(kParamRecordSetting1303, 23);
        config.put(kParamRecordSetting2304, 24);
        int call = 0;
        scanner.onCall = [&](const std::string& line) {
            if (line.starts_with("number") && ++call == round) Daemonizer::killed = 1;
        };
        effects();
        manager->activateSlot(eStorageSlotS1);
        const Lines lines = effects();
        EXPECT_EQ(call, round);
        EXPECT_EQ(std::count(lines.begin(), lines.end(), sets(kParamRecordSetting1301, 1)), round - 1);
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "run /bin/umount  /mnt/S1"), 0) << round;
        EXPECT_EQ(std::count(lines.begin(), lines.end(), sets(kParamMediaChangedTime, now())), 0) << round;
        EXPECT_TRUE(media.isMounted("/mnt/S1"));
        // They are the recorder's settings, not the daemon's.
        EXPECT_EQ(config.integer(kParamRecordSetting1301), 21);
        EXPECT_EQ(config.integer(kParamRecordSetting1303), 23);
        EXPECT_EQ(config.integer(kParamRecordSetting2304), 24);
        scanner.onCall = nullptr;
        world.events.listeners.clear();
    }
}

TEST_F(SelectionTest, shutdownDuringAnActivationStillSelectsTheSlot) {
    start();
    waits(S1, "sdb");
    scanner.onCall = [](const std::string&) { Daemonizer::killed = 1; };
    effects();
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 0U);
    const Lines lines = effects();
    const auto scan = std::find(lines.begin(), lines.end(), "clips scan /mnt/S1/NEVO");
    ASSERT_NE(scan, lines.end());
    EXPECT_EQ(Lines(scan + 1, lines.end()), join({{sets(kParamSlotChangeCommand, 0)}, firstSelection(1)}));
}

TEST_F(SelectionTest, numberingThatFailsRestoresTheSettings) {
    start();
    waits(S1, "sdb");
    scanner.found = {fakes::clip("a")};
    config.put(kParamRecordSetting1301, 21);
    config.put(kParamRecordSetting1303, 23);
    config.put(kParamRecordSetting2304, 24);
    scanner.onCall = [](const std::string& line) {
        if (line.starts_with("number")) throw boost::interprocess::interprocess_exception("gone");
    };
    manager->activateSlot(eStorageSlotS1);
    const std::string error = takeErrors();
    EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    EXPECT_EQ(config.integer(kParamRecordSetting1301), 21);
    EXPECT_EQ(config.integer(kParamRecordSetting1303), 23);
    EXPECT_EQ(config.integer(kParamRecordSetting2304), 24);
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
}

TEST_F(SelectionTest, sharedMemoryThatFailsIsReportedInOneLineAndTheLoopGoesOn) {
    start();
    insert(S1, "sdb");
    ::unlink(kClipSegment);
    ASSERT_EQ(::mkdir(kClipSegment, 0777), 0);
    EXPECT_TRUE(manager->pass());
    const std::string error = takeErrors();
    EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    EXPECT_TRUE(error.starts_with("Media Manager")) << error;
    EXPECT_EQ(selected(), 1);
    effects();
    EXPECT_TRUE(manager->pass());
    takeErrors();
    // The medium goes into use all the same: a recorder that cannot publish its clips still records.
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), led(S1, eStorageLEDOn)), 1);
    // And it can be released.
    post(kParamSlotChangeCommand, 6);
    EXPECT_TRUE(manager->pass());
    const std::string releaseError = takeErrors();
    EXPECT_EQ(std::count(releaseError.begin(), releaseError.end(), '\n'), 1) << releaseError;
    EXPECT_EQ(selected(), 0);
    EXPECT_FALSE(media.isMounted("/mnt/S1"));
    ::rmdir(kClipSegment);
}

TEST_F(SelectionTest, sharedMemoryThatFailsInTheScanIsReportedAndTheActivationFinished) {
    start();
    waits(S1, "sdb");
    scanner.onCall = [](const std::string& line) {
        if (line.starts_with("scan"))
            throw boost::interprocess::interprocess_exception("no room");
    };
    EXPECT_EQ(manager->attemptSlotChange(eStorageSlotS1), 0U);
    const std::string error = takeErrors();
    EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    EXPECT_EQ(selected(), 1);
    EXPECT_FALSE(cacheIsOpen());
}

// --- deselectSlot

TEST_F(SelectionTest, releaseHoldsTheCacheToItsEnd) {
    startWithMedium();
    std::vector<bool> open;
    scanner.onCall = [&](const std::string&) { open.push_back(cacheIsOpen()); };
    config.onSet = [&](eParam_t id) {
        if (id == kParamVolumeName || id == S1.led) open.push_back(cacheIsOpen());
    };
    EXPECT_EQ(manager->deselectSlot(), 0);
    EXPECT_EQ(open, (std::vector<bool>{false, true, true}));
    EXPECT_FALSE(cacheIsOpen());
}

TEST_F(SelectionTest, releaseClearsTheAlarmsOfTheMedium) {
    startWithMedium();
    config.put(kParamAlarms, 0x1816003);
    effects();
    EXPECT_EQ(manager->deselectSlot(), 0);
    const Lines lines = effectsOf("set 0x7e000000");
    EXPECT_EQ(lines, (Lines{sets(kParamAlarms, 0x1812003), sets(kParamAlarms, 0x1810003), sets(kParamAlarms, 0x0810003),
                            sets(kParamAlarms, 0x0010003)}));
}

TEST_F(SelectionTest, releaseClearsTheAlarmsInItsOrder) {
    startWithMedium();
    config.put(kParamAlarms, 0x1806000);
    effects();
    manager->deselectSlot();
    Lines lines = effects();
    // Capacity after the unmount; damaged and unformatted before the deletion from the bus.
    const auto off = std::find(lines.begin(), lines.end(), led(S1, eStorageLEDOff));
    ASSERT_NE(off, lines.end());
    EXPECT_EQ(Lines(off, lines.end()),
              (Lines{led(S1, eStorageLEDOff), sets(kParamAlarms, 0x1802000), sets(kParamAlarms, 0x1800000),
                     sets(kParamAlarms, 0x800000), sets(kParamAlarms, 0), "run /bin/mount | grep /mnt/S1",
                     "system echo -n 1 > /sys/block/sdb/device/delete"}));
}

TEST_F(SelectionTest, releaseOfAMediumThatIsNotMountedLeavesTheCapacityAlarms) {
    makeManager();
    config.put(kParamSelectedSlot, 1);
    insert(S1, "sdb");
    start();
    config.put(kParamAlarms, 0x1806000);
    EXPECT_EQ(manager->deselectSlot(), 0);
    expectEffects({sets(kParamVolumeName, "N/A"), sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0),
                   "clips flushAll", sets(kParamPlaylistName, ""), sets(kParamMediaChangedTime, now()),
                   "run /bin/mount | grep /dev/sdb2", sets(kParamAlarms, 0x806000), sets(kParamAlarms, 0x6000),
                   "run /bin/mount | grep /mnt/S1", "system echo -n 1 > /sys/block/sdb/device/delete"});
}

TEST_F(SelectionTest, releaseOfAMediumThatIsGone) {
    startWithMedium();
    pinGoesOut(S1);
    EXPECT_EQ(manager->deselectSlot(), 0);
    expectEffects({sets(kParamVolumeName, "N/A"), sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0),
                   "clips flushAll", sets(kParamPlaylistName, ""), sets(kParamMediaChangedTime, now()),
                   sets(kParamSelectedSlot, 0), "run /bin/mount | grep /dev/sdb2", "unlink /var/www/media",
                   "run /bin/mount | grep /mnt/S1", "run /bin/umount  /mnt/S1", sets(kParamStoragePath, ""),
                   "run /bin/mount | grep /dev/sdb2", led(S1, eStorageLEDOff)});
}

TEST_F(SelectionTest, releaseThatCannotUnmount) {
    startWithMedium();
    media.umountStatus = 32;
    EXPECT_EQ(manager->deselectSlot(), 14);
    takeErrors();
    // It goes all the way.
    expectEffects({sets(kParamVolumeName, "N/A"), sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0),
                   "clips flushAll", sets(kParamPlaylistName, ""), sets(kParamMediaChangedTime, now()),
                   "run /bin/mount | grep /dev/sdb2", "unlink /var/www/media", "run /bin/mount | grep /mnt/S1",
                   "run /bin/umount  /mnt/S1", sets(kParamStoragePath, ""), "run /bin/mount | grep /mnt/S1",
                   "run /bin/umount  /mnt/S1", sets(kParamStoragePath, ""), "run /bin/sync -f /mnt/S1",
                   "system echo -n 1 > /sys/block/sdb/device/delete", led(S1, eStorageLEDOff)});
}

TEST_F(SelectionTest, releaseThatCannotUnmountWhatIsGoneIsNoFailure) {
    startWithMedium();
    media.umountStatus = 32;
    pinGoesOut(S1);
    EXPECT_EQ(manager->deselectSlot(), 0);
    expectError("Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n");
}

TEST_F(SelectionTest, doubleMountIsNoFailureOfTheRelease) {
    startWithMedium();
    media.mounts.push_back({"/dev/sdb2", "/elsewhere", "rw"});
    EXPECT_EQ(manager->deselectSlot(), 0);
    takeErrors();
}

TEST_F(SelectionTest, releaseOfNothing) {
    start();
    EXPECT_EQ(manager->deselectSlot(), 0);
    // The node of no slot is "/dev/2", and nothing is mounted from there.
    expectEffects({sets(kParamVolumeName, "N/A"), sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0),
                   "clips flushAll", sets(kParamPlaylistName, ""), sets(kParamMediaChangedTime, now()),
                   "run /bin/mount | grep /dev/2"});
}

} // namespace
