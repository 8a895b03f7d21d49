// Erasing a medium: everything in its order, from the alarms that end with it to the medium in use again.

#include <algorithm>

#include "tests/media_manager/manager_test.h"

namespace {

constexpr unsigned int kErase = 4;

class FormattingTest : public ManagerTest {
protected:
    FormattingTest() {
        config.put(kParamReelNumber, 7);
        // What the tool does to the medium.
        shell.handle("/usr/local/bin/mkfs.hfsplus /dev/", [this](const std::string& line) {
            const std::string device = line.substr(33, 3);
            std::string label = line.substr(line.find(" -v ") + 4);
            label = label.substr(0, label.find(' '));
            media.media[device] = fakes::Medium{label, true, true, true, false, 0};
            return fakes::FakeFileUtils::Answer{};
        });
    }

    // A good medium in its slot, selected and not mounted.
    void startUnmounted(const Place& place = S1, const std::string& device = "sdb", const std::string& more = "") {
        makeManager(more);
        config.put(kParamSelectedSlot, place.id);
        insert(place, device);
        start();
    }

    static Lines begins(int progress) {
        return {sets(kParamProgressStatus, progress), sets(kParamMediaCommand, 0), sets(kParamClipName, "N/A"),
                sets(kParamClipIndex, 0)};
    }
    static Lines partitions(const std::string& device) {
        return {"run /usr/sbin/parted /dev/" + device + " rm 1 >/dev/null 2>&1",
                "run /usr/sbin/parted /dev/" + device + " rm 2 >/dev/null 2>&1",
                "run /usr/local/bin/fdisk.gpt /dev/" + device + "  >/dev/null 2>&1"};
    }
    static std::string makesFileSystem(const std::string& device, const std::string& name) {
        return "run /usr/local/bin/mkfs.hfsplus /dev/" + device + "2 -v " + name + " >/dev/null 2>&1";
    }
    Lines comesBack(const Place& place, const std::string& device, const std::string& name) {
        return join({{"run /usr/local/bin/volname.hfsplus /dev/" + device + "2 | awk -F': ' '{printf $2}'",
                      sets(kParamVolumeName, name)},
                     mounts(place, device, true),
                     makesDirectories(place),
                     activates(place, device),
                     {sets(kParamProgressStatus, 0)}});
    }
};

TEST_F(FormattingTest, mediumInUse) {
    startWithMedium();
    EXPECT_FALSE(manager->eraseStorage(eStorageSlotS1));
    // No watch is touched: the medium comes back quietly.
    Lines expected = join({begins(3), unmounts(S1, "sdb", false, false), {led(S1, eStorageLEDOff)}, partitions("sdb"),
                           {makesFileSystem("sdb", "007")}, comesBack(S1, "sdb", "007")});
    expectAllEffects(expected);

    // The next pass takes it into use.
    manager->ServiceMountRequests();
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
    EXPECT_EQ(effectsOf("system"), Lines{"system ln -s /mnt/S1/NEVO /var/www/media"});
}

TEST_F(FormattingTest, mediumThatIsNotMountedIsNotUnmounted) {
    startUnmounted();
    EXPECT_FALSE(manager->eraseStorage(eStorageSlotS1));
    expectAllEffects(join({begins(3), partitions("sdb"), {makesFileSystem("sdb", "007")}, comesBack(S1, "sdb", "007")}));
}

TEST_F(FormattingTest, reelNumberIsReadWhenTheFileSystemIsMade) {
    startUnmounted();
    config.recordGets = true;
    shell.handle("fdisk.gpt", [this](const std::string&) {
        config.put(kParamReelNumber, 8);
        return fakes::FakeFileUtils::Answer{};
    });
    manager->eraseStorage(eStorageSlotS1);
    const Lines lines = effects();
    const auto at = std::find(lines.begin(), lines.end(), makesFileSystem("sdb", "008"));
    ASSERT_NE(at, lines.end());
    EXPECT_EQ(*(at - 1), gets(kParamReelNumber));
}

struct Reel {
    int number;
    const char* name;
};

class ReelTest : public FormattingTest, public ::testing::WithParamInterface<Reel> {};
INSTANTIATE_TEST_SUITE_P(, ReelTest,
                         ::testing::Values(Reel{0, "000"}, Reel{7, "007"}, Reel{42, "042"}, Reel{999, "999"},
                                           Reel{1234, "1234"}));

TEST_P(ReelTest, namesTheVolume) {
    startWithMedium();
    config.put(kParamReelNumber, GetParam().number);
    manager->eraseStorage(eStorageSlotS1);
    EXPECT_EQ(effectsOf("run /usr/local/bin/mkfs"), Lines{makesFileSystem("sdb", GetParam().name)});
    EXPECT_EQ(config.text(kParamVolumeName), GetParam().name);
}

// --- slots

struct Erased {
    Place place;
    int progress;
};

class ErasedSlotTest : public FormattingTest, public ::testing::WithParamInterface<Erased> {};
INSTANTIATE_TEST_SUITE_P(, ErasedSlotTest,
                         ::testing::Values(Erased{S1, 3}, Erased{S2, 4}, Erased{D1, 1}, Erased{D2, 2}),
                         [](const auto& parameter) { return parameter.param.place.name; });

TEST_P(ErasedSlotTest, hasItsOwnProgress) {
    startUnmounted(GetParam().place, "sde", kWithFourSlots);
    EXPECT_FALSE(manager->eraseStorage(GetParam().place.id));
    expectEffects(join({begins(GetParam().progress), partitions("sde"), {makesFileSystem("sde", "007")},
                        comesBack(GetParam().place, "sde", "007")}));
}

TEST_F(FormattingTest, noSlotHasNoProgressAndNoDevice) {
    start();
    shell.answerPart("mkfs.hfsplus", 1);
    EXPECT_TRUE(manager->eraseStorage(eStorageSlotUnknown));
    expectError("mkfs.hfsplus failed when formatting 2\n");
    expectEffects(join({begins(0), partitions(""), {makesFileSystem("", "007"), sets(kParamProgressStatus, 0)}}));
}

// --- alarms

TEST_F(FormattingTest, alarmsThatAnEraseEndsAreClearedFirst) {
    startUnmounted();
    config.put(kParamAlarms, 0x01800400 | 0x2);
    shell.answerPart("mkfs.hfsplus", 1);
    manager->eraseStorage(eStorageSlotS1);
    takeErrors();
    expectEffects(join({{sets(kParamAlarms, 0x01800002), sets(kParamAlarms, 0x01000002), sets(kParamAlarms, 0x2)},
                        begins(3),
                        partitions("sdb"),
                        {makesFileSystem("sdb", "007"), sets(kParamProgressStatus, 0)}}));
}

// --- what fails

TEST_F(FormattingTest, fileSystemThatCannotBeMadeEndsIt) {
    startWithMedium();
    shell.answerPart("mkfs.hfsplus", 1);
    EXPECT_TRUE(manager->eraseStorage(eStorageSlotS1));
    expectError("mkfs.hfsplus failed when formatting sdb2\n");
    expectAllEffects(join({begins(3), unmounts(S1, "sdb", false, false), {led(S1, eStorageLEDOff)}, partitions("sdb"),
                           {makesFileSystem("sdb", "007"), sets(kParamProgressStatus, 0)}}));
    EXPECT_EQ(config.integer(kParamAlarms), 0);
}

TEST_F(FormattingTest, everyOtherStatusOfTheToolFailsToo) {
    startUnmounted();
    for (const int status : {-1, 8, 127}) {
        shell.answerPart("mkfs.hfsplus", status);
        EXPECT_TRUE(manager->eraseStorage(eStorageSlotS1));
        expectError("mkfs.hfsplus failed when formatting sdb2\n");
    }
}

TEST_F(FormattingTest, partitionToolsMayFail) {
    startUnmounted();
    shell.answerPart("parted", 1);
    shell.answerPart("fdisk.gpt", 1);
    EXPECT_FALSE(manager->eraseStorage(eStorageSlotS1));
    expectEffects(join({begins(3), partitions("sdb"), {makesFileSystem("sdb", "007")}, comesBack(S1, "sdb", "007")}));
}

TEST_F(FormattingTest, unmountMayFail) {
    startWithMedium();
    media.umountStatus = 1;
    shell.handle("fdisk.gpt", [this](const std::string&) {
        media.umountStatus = 0;
        return fakes::FakeFileUtils::Answer{};
    });
    EXPECT_FALSE(manager->eraseStorage(eStorageSlotS1));
    expectError("Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n");
    EXPECT_EQ(config.text(kParamVolumeName), "007");
}

TEST_F(FormattingTest, freshMediumThatCannotBeMountedStillEndsTheProgress) {
    startUnmounted();
    shell.answerPart("/bin/mount -onoatime", 32);
    EXPECT_FALSE(manager->eraseStorage(eStorageSlotS1));
    expectError("Media Managermount failed for: /dev/sdb2 on /mnt/S1\n"
                "Media Managermount failed for: /dev/sdb2 on /mnt/S1\n");
    EXPECT_EQ(config.integer(kParamProgressStatus), 0);
    EXPECT_EQ(effects().back(), sets(kParamProgressStatus, 0));
}

// --- through the loop

TEST_F(FormattingTest, requestIsTakenUpOnceAndConsumedBeforeTheWork) {
    startWithMedium();
    post(kParamMediaCommand, kErase);
    EXPECT_TRUE(manager->eraseRequested());
    int during = -1;
    shell.handle("parted", [&](const std::string&) {
        during = config.integer(kParamMediaCommand);
        EXPECT_FALSE(manager->eraseRequested());
        return fakes::FakeFileUtils::Answer{};
    });
    EXPECT_EQ(manager->checkMessages(), 0);
    EXPECT_EQ(during, 0);
    EXPECT_EQ(effectsOf("run /usr/local/bin/mkfs"), Lines{makesFileSystem("sdb", "007")});
    manager->checkMessages();
    EXPECT_EQ(effectsOf("run /usr/local/bin/mkfs"), Lines{});
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
}

TEST_F(FormattingTest, requestThatFailsIsNotRepeated) {
    startWithMedium();
    shell.answerPart("mkfs.hfsplus", 1);
    post(kParamMediaCommand, kErase);
    EXPECT_EQ(manager->checkMessages(), 1);
    expectError("mkfs.hfsplus failed when formatting sdb2\n");
    EXPECT_EQ(config.integer(kParamMediaCommand), 0);
    EXPECT_EQ(config.integer(kParamProgressStatus), 0);
    EXPECT_FALSE(manager->eraseRequested());
    effects();
    manager->checkMessages();
    EXPECT_EQ(effectsOf("run /usr/local/bin/mkfs"), Lines{});
}

TEST_F(FormattingTest, requestComesBeforeDeletions) {
    startWithMedium();
    post(kParamClipsToDelete, "a.mov");
    post(kParamMediaCommand, kErase);
    EXPECT_EQ(manager->checkMessages(), 0);
    EXPECT_EQ(effectsOf("run pushd"), Lines{});
    EXPECT_EQ(manager->checkMessages(), 1);
    EXPECT_EQ(effectsOf("run pushd").size(), 1U);
}

TEST_F(FormattingTest, unformattedMediumIsFormattedAndUsed) {
    start();
    media.media["sdb"].formatted = false;
    insert(S1, "sdb");
    manager->findStorage(true);
    EXPECT_EQ(config.integer(kParamSlotChangeCommand), 10);
    EXPECT_EQ(config.integer(kParamAlarms), 0x800000);
    effects();
    EXPECT_FALSE(manager->eraseStorage(eStorageSlotS1));
    expectEffects(join({{sets(kParamAlarms, 0)}, begins(3), partitions("sdb"), {makesFileSystem("sdb", "007")},
                        comesBack(S1, "sdb", "007")}));
    manager->ServiceMountRequests();
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
}

TEST_F(FormattingTest, readOnlyMediumCountsAsNotMounted) {
    startWithMedium();
    media.mounts.clear();
    media.media["sdb"].readOnly = true;
    manager->unmountSlot(eStorageSlotS1, false, false);
    manager->mountSlot(eStorageSlotS1, false);
    takeErrors();
    effects();
    EXPECT_FALSE(manager->eraseStorage(eStorageSlotS1));
    EXPECT_EQ(config.text(kParamVolumeName), "007");
    manager->ServiceMountRequests();
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
}

} // namespace
