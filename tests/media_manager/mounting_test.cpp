// Check, repair, mount, unmount, and the bus.

#include <algorithm>
#include <cerrno>

#include "tests/media_manager/manager_test.h"

namespace {

constexpr char kQuickCheck[] = "/usr/local/bin/fsck.hfsplus -q /dev/sdb2 2>&1 | grep FILESYSTEM";
constexpr char kRepair[] = "/usr/local/bin/fsck.hfsplus /dev/sdb2";
constexpr char kMount[] = "/bin/mount -onoatime /dev/sdb2 /mnt/S1 2>&1";
constexpr char kScheduler[] = "/bin/echo noop > /sys/block/sdb/queue/scheduler";
constexpr char kFindNode[] = "/bin/mount | grep /dev/sdb2";
constexpr char kFindPoint[] = "/bin/mount | grep /mnt/S1";
constexpr char kLabel[] = "/usr/local/bin/volname.hfsplus /dev/sdb2 | awk -F': ' '{printf $2}'";
constexpr char kNode[] = "/usr/local/bin/volname.hfsplus /dev/sdb2 2>&1";

constexpr char kGuard[] = "guard /mnt/S1";

std::string run(const std::string& line) { return "run " + line; }

class MountingTest : public ManagerTest {
protected:
    // A medium in S1 as sdb, with nothing done about it.
    void startBeside() {
        start();
        insert(S1, "sdb");
        effects();
    }
    // Whether the manager takes the selected medium for mounted; S1 has to be selected. Does not change it.
    bool countsAsMounted() {
        manager->setLED(eStorageSlotS1, eStorageLEDOff);
        effects();
        manager->StalkTransporterAndFlashIfRecording();
        return !effects().empty();
    }
    // S1 selected with its medium not yet mounted.
    void startSelected() {
        makeManager();
        config.put(kParamSelectedSlot, 1);
        insert(S1, "sdb");
        start();
    }
};

// --- the questions

TEST_F(MountingTest, isSlotMountedAsksForThePartition) {
    startBeside();
    shell.answer(kFindNode, 0, "", 1);
    EXPECT_TRUE(manager->isSlotMounted(eStorageSlotS1));
    for (int status : {1, 2, 127}) {
        shell.answer(kFindNode, status, "/dev/sdb2 on /mnt/S1", 1);
        EXPECT_FALSE(manager->isSlotMounted(eStorageSlotS1));
    }
    expectEffects({run(kFindNode), run(kFindNode), run(kFindNode), run(kFindNode)});
}

TEST_F(MountingTest, quickCheckWantsStatusAndWords) {
    startBeside();
    struct Verdict {
        int status;
        std::string output;
        int result;
    };
    for (const Verdict& verdict :
         {Verdict{0, "QUICKCHECK ONLY; FILESYSTEM CLEAN\n", 0}, Verdict{0, "FILESYSTEM CLEAN", 0},
          Verdict{0, "QUICKCHECK ONLY; FILESYSTEM DIRTY\n", -1}, Verdict{0, "", -1},
          Verdict{0, "FILESYSTEM  CLEAN", -1}, Verdict{1, "FILESYSTEM CLEAN", -1}, Verdict{3, "", -1}}) {
        shell.answer(kQuickCheck, verdict.status, verdict.output, 1);
        EXPECT_EQ(manager->quickCheck(eStorageSlotS1), verdict.result) << verdict.output;
        expectEffects({run(kQuickCheck)});
    }
}

TEST_F(MountingTest, repairThatSucceeds) {
    startBeside();
    EXPECT_EQ(manager->fsckSlot(eStorageSlotS1), 0);
    expectEffects({run(kRepair)});
}

TEST_F(MountingTest, repairThatFails) {
    startBeside();
    shell.answer(kRepair, 8, "", 1);
    EXPECT_EQ(manager->fsckSlot(eStorageSlotS1), 8);
    expectEffects({run(kRepair), sets(kParamInvalidMediaAlert, 1)});
    expectError("MediaManager::fsckSlot: Could not repair /dev/sdb2, result:0x8\n");
    shell.answer(kRepair, 139, "", 1);
    EXPECT_EQ(manager->fsckSlot(eStorageSlotS1), 139);
    expectError("MediaManager::fsckSlot: Could not repair /dev/sdb2, result:0x8B\n");
}

TEST_F(MountingTest, slotIsUnformattedWhenTheToolFindsNoDevice) {
    startBeside();
    struct Verdict {
        int status;
        std::string output;
        bool formatted;
    };
    for (const Verdict& verdict :
         {Verdict{0, "/dev/sdb2: CARD\n", true}, Verdict{1, "/dev/sdb2: No such device\n", false},
          Verdict{0, "No such device", false}, Verdict{1, "volname: input/output error\n", true}, Verdict{1, "", true},
          Verdict{127, "no such device", true}}) {
        shell.answer(kNode, verdict.status, verdict.output, 1);
        EXPECT_EQ(manager->isSlotFormatted(eStorageSlotS1), verdict.formatted) << verdict.output;
        expectEffects({run(kNode)});
    }
}

TEST_F(MountingTest, volumeName) {
    startBeside();
    struct Name {
        std::string output;
        std::string name;
    };
    for (const Name& each :
         {Name{"CARD", "CARD"}, Name{"My Card 7", "My Card 7"}, Name{"untitled", "N/A"}, Name{"", "N/A"},
          Name{"a\tb\nc", "a_b_c"}, Name{"\x01\x1f\x7f", "___"}, Name{"Untitled", "Untitled"},
          Name{"untitled ", "untitled "}, Name{"M\xc3\xbchle", "M\xc3\xbchle"}, Name{"untitled\n", "untitled_"}}) {
        shell.answer(kLabel, 0, each.output, 1);
        std::string name = "before";
        EXPECT_EQ(manager->getVolumeName(eStorageSlotS1, name), 0);
        EXPECT_EQ(name, each.name);
        expectEffects({run(kLabel)});
    }
}

TEST_F(MountingTest, volumeNameIsCutToTheBuffer) {
    startBeside();
    shell.answer(kLabel, 0, std::string(400, 'x'));
    std::string name;
    EXPECT_EQ(manager->getVolumeName(eStorageSlotS1, name), 0);
    EXPECT_EQ(name, std::string(255, 'x'));
}

TEST_F(MountingTest, volumeNameThatCannotBeRead) {
    startBeside();
    shell.answer(kLabel, 5, "CARD");
    std::string name = "before";
    EXPECT_EQ(manager->getVolumeName(eStorageSlotS1, name), 5);
    EXPECT_EQ(name, "before");
    effects();
    EXPECT_EQ(manager->displayVolumeName(eStorageSlotS1), 5);
    expectEffects({run(kLabel)});
}

TEST_F(MountingTest, displayedVolumeName) {
    startBeside();
    EXPECT_EQ(manager->displayVolumeName(eStorageSlotS1), 0);
    media.media["sdb"].label = "untitled";
    EXPECT_EQ(manager->displayVolumeName(eStorageSlotS1), 0);
    media.media["sdb"].label = "tab\there";
    EXPECT_EQ(manager->displayVolumeName(eStorageSlotS1), 0);
    expectEffects({run(kLabel), sets(kParamVolumeName, "CARD"), run(kLabel), sets(kParamVolumeName, "N/A"), run(kLabel),
                   sets(kParamVolumeName, "tab_here")});
}

TEST_F(MountingTest, controlCharactersAreReplacedInPlace) {
    char text[] = "a\nb\rc\x7f" "d \xe4\x1b";
    MediaManager::replaceControlChars(text);
    EXPECT_STREQ(text, "a_b_c_d \xe4_");
    char nothing[] = "";
    MediaManager::replaceControlChars(nothing);
    EXPECT_STREQ(nothing, "");
}

// --- paths and directories

TEST_F(MountingTest, storagePath) {
    start();
    EXPECT_EQ(manager->getStoragePath(eStorageSlotS1), "/mnt/S1/NEVO");
    EXPECT_EQ(manager->getStoragePath(eStorageSlotS2), "/mnt/S2/NEVO");
    EXPECT_EQ(manager->getStoragePath(eStorageSlotUnknown), "");
    // A slot that the board does not have has an empty mount point.
    EXPECT_EQ(manager->getStoragePath(eStorageSlotD2), "/NEVO");
    expectNoEffects();
    manager->setStoragePath(eStorageSlotS1);
    manager->setStoragePath(eStorageSlotS2);
    manager->setStoragePath(eStorageSlotS2);
    manager->setStoragePath(eStorageSlotUnknown);
    expectEffects({sets(kParamStoragePath, "/mnt/S1/NEVO"), sets(kParamStoragePath, "/mnt/S2/NEVO"),
                   sets(kParamStoragePath, "/mnt/S2/NEVO"), sets(kParamStoragePath, "")});
}

TEST_F(MountingTest, makerDirectoryAndItsNote) {
    startBeside();
    EXPECT_EQ(manager->configureDirectories(eStorageSlotS1), 0);
    expectEffects({"run /bin/mkdir -p /mnt/S1/NEVO/.uploads/",
                   "run echo 'This directory contains temporary upload files - DO NOT PUT YOUR FILES INTO THIS "
                   "FOLDER!!! THEY WILL BE DELETED!!!' > /mnt/S1/NEVO/.uploads/README.txt"});
}

TEST_F(MountingTest, makerDirectoryThatCannotBeMade) {
    startBeside();
    shell.answer("/bin/mkdir -p /mnt/S1/NEVO/.uploads/", 3);
    EXPECT_EQ(manager->configureDirectories(eStorageSlotS1), 3);
    expectEffects({"run /bin/mkdir -p /mnt/S1/NEVO/.uploads/"});
}

TEST_F(MountingTest, noteThatCannotBeWrittenIsReportedAndNoFailure) {
    startBeside();
    shell.handle("README.txt", [](const std::string&) {
        errno = ENOSPC;
        return fakes::FakeFileUtils::Answer{1, ""};
    });
    EXPECT_EQ(manager->configureDirectories(eStorageSlotS1), 0);
    const std::string error = takeErrors();
    EXPECT_TRUE(error.starts_with("Unable to create .uploads/README.txt: ")) << error;
    EXPECT_TRUE(error.ends_with("\n")) << error;
}

TEST_F(MountingTest, nothingIsWrittenThroughALinkOnTheMedium) {
    startBeside();
    for (const std::string link : {"/mnt/S1/NEVO", "/mnt/S1/NEVO/.uploads"}) {
        os.links = {link};
        EXPECT_NE(manager->configureDirectories(eStorageSlotS1), 0);
        expectNoEffects();
        expectError("Media Managerrefused a symbolic link on the medium: " + link + "\n");
    }
    os.links = {"/mnt/S1/NEVO/.uploads/README.txt"};
    EXPECT_EQ(manager->configureDirectories(eStorageSlotS1), 0);
    expectEffects({"run /bin/mkdir -p /mnt/S1/NEVO/.uploads/"});
    expectError("Media Managerrefused a symbolic link on the medium: /mnt/S1/NEVO/.uploads/README.txt\n");
}

// --- mountSlot

TEST_F(MountingTest, mountForUse) {
    startBeside();
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), 0);
    expectEffects({
        "unlink /var/www/media",
        run(kFindPoint),
        run(kQuickCheck),
        led(S1, eStorageLEDOn),
        run(kMount),
        kGuard,
        run(kScheduler),
        run(kFindNode),
        "unlink /var/www/media",
        "system ln -s /mnt/S1/NEVO /var/www/media",
        sets(kParamStoragePath, "/mnt/S1/NEVO"),
    });
}

TEST_F(MountingTest, quietMountLeavesLEDAndLinkAlone) {
    startBeside();
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, true), 0);
    expectEffects({run(kFindPoint), run(kQuickCheck), run(kMount), kGuard, run(kScheduler), run(kFindNode),
                   sets(kParamStoragePath, "/mnt/S1/NEVO")});
}

TEST_F(MountingTest, quietMountCountsAsMounted) {
    startSelected();
    EXPECT_FALSE(countsAsMounted());
    manager->mountSlot(eStorageSlotS1, true);
    EXPECT_TRUE(countsAsMounted());
}

TEST_F(MountingTest, mountUnmountsLazilyFirst) {
    startBeside();
    manager->mountSlot(eStorageSlotS1, false);
    effects();
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), 0);
    expectEffects({
        "unlink /var/www/media",
        run(kFindPoint),
        "run /bin/umount -l /mnt/S1",
        sets(kParamStoragePath, ""),
        run(kFindNode),
        led(S1, eStorageLEDOff),
        run(kQuickCheck),
        led(S1, eStorageLEDOn),
        run(kMount),
        kGuard,
        run(kScheduler),
        run(kFindNode),
        "unlink /var/www/media",
        "system ln -s /mnt/S1/NEVO /var/www/media",
        sets(kParamStoragePath, "/mnt/S1/NEVO"),
    });
}

TEST_F(MountingTest, unmountThatFailsDoesNotKeepFromMounting) {
    startBeside();
    manager->mountSlot(eStorageSlotS1, true);
    media.umountStatus = 32;
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, true), 0);
    expectError("Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n");
}

TEST_F(MountingTest, dirtyMediumIsRepairedAndMounted) {
    startBeside();
    media.media["sdb"].clean = false;
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), 0);
    expectEffects({
        "unlink /var/www/media",
        run(kFindPoint),
        run(kQuickCheck),
        run(kRepair),
        led(S1, eStorageLEDOn),
        run(kMount),
        kGuard,
        run(kScheduler),
        run(kFindNode),
        "unlink /var/www/media",
        "system ln -s /mnt/S1/NEVO /var/www/media",
        sets(kParamStoragePath, "/mnt/S1/NEVO"),
    });
}

TEST_F(MountingTest, repairIsBelievedWithoutASecondCheck) {
    startBeside();
    shell.answer(kQuickCheck, 0, "FILESYSTEM DIRTY\n");
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, true), 0);
    expectEffects({run(kFindPoint), run(kQuickCheck), run(kRepair), run(kMount), kGuard, run(kScheduler), run(kFindNode),
                   sets(kParamStoragePath, "/mnt/S1/NEVO")});
}

TEST_F(MountingTest, mediumThatCannotBeRepairedIsNotMounted) {
    startSelected();
    media.media["sdb"].clean = false;
    media.media["sdb"].repairable = false;
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), -1);
    expectEffects({"unlink /var/www/media", run(kFindPoint), run(kQuickCheck), run(kRepair),
                   sets(kParamInvalidMediaAlert, 1)});
    expectError("MediaManager::fsckSlot: Could not repair /dev/sdb2, result:0x8\n"
                "Media Managerfailure repairing slot for /mnt/S1\n");
    EXPECT_FALSE(countsAsMounted());
    EXPECT_EQ(config.text(kParamStoragePath), "");
}

TEST_F(MountingTest, mountThatFails) {
    startSelected();
    shell.answer(kMount, 32, "mount: wrong fs type\n");
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), 32);
    expectEffects({"unlink /var/www/media", run(kFindPoint), run(kQuickCheck), led(S1, eStorageLEDOn), run(kMount)});
    expectError("Media Managermount failed for: /dev/sdb2 on /mnt/S1\n");
    EXPECT_FALSE(countsAsMounted());
    EXPECT_EQ(config.text(kParamStoragePath), "");
}

TEST_F(MountingTest, quietMountThatFailsLightsNothing) {
    startBeside();
    shell.answer(kMount, 32);
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, true), 32);
    expectEffects({run(kFindPoint), run(kQuickCheck), run(kMount)});
    expectError("Media Managermount failed for: /dev/sdb2 on /mnt/S1\n");
}

TEST_F(MountingTest, schedulerThatCannotBeSetLeavesTheMediumMountedAndUnused) {
    startSelected();
    shell.answer(kScheduler, 1);
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), 1);
    expectEffects({"unlink /var/www/media", run(kFindPoint), run(kQuickCheck), led(S1, eStorageLEDOn), run(kMount),
                   kGuard,
                   run(kScheduler)});
    expectError("Media Managerfailed to set IO Scheduler to noop for /dev/sdb\n");
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    EXPECT_FALSE(countsAsMounted());
}

TEST_F(MountingTest, readOnlyMountIsASuccessThatIsNotInUse) {
    startSelected();
    media.media["sdb"].readOnly = true;
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), 0);
    expectEffects({"unlink /var/www/media", run(kFindPoint), run(kQuickCheck), led(S1, eStorageLEDOn), run(kMount),
                   kGuard,
                   run(kScheduler), run(kFindNode), sets(kParamInvalidMediaAlert, 1)});
    expectError("Media Managermount failed or read-only mount for: /dev/sdb2 on /mnt/S1 output was: "
                "/dev/sdb2 on /mnt/S1 type hfsplus (ro,noatime)\n\n");
    EXPECT_TRUE(media.isMounted("/mnt/S1"));
    EXPECT_FALSE(countsAsMounted());
    EXPECT_EQ(config.text(kParamStoragePath), "");
}

TEST_F(MountingTest, whatIsReportedOfTheMountTableSteersNoTerminal) {
    startSelected();
    shell.answer(kFindNode, 0, "/dev/sdb2 on /mnt/\x1b[2J\r (ro,noatime)\n");
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, true), 0);
    expectError("Media Managermount failed or read-only mount for: /dev/sdb2 on /mnt/S1 output was: "
                "/dev/sdb2 on /mnt/?[2J? (ro,noatime)\n\n");
    manager->unmountSlot(eStorageSlotS1, false, true);
    expectError("Media Managerumount failed or double mount for: /dev/sdb2 on /mnt/S1 output was: "
                "/dev/sdb2 on /mnt/?[2J? (ro,noatime)\n\n");
}

TEST_F(MountingTest, mountThatTheTableDoesNotShow) {
    startSelected();
    shell.answer(kFindNode, 1, "");
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, true), 1);
    expectError("Media Managermount failed or read-only mount for: /dev/sdb2 on /mnt/S1 output was: \n");
    EXPECT_EQ(config.integer(kParamInvalidMediaAlert), 1);
    EXPECT_FALSE(countsAsMounted());
}

TEST_F(MountingTest, mountThatTheTableShowsUnderAnotherName) {
    startSelected();
    shell.answer(kFindNode, 0, "/dev/sdbb on /mnt/S1 (rw,noatime)");
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, true), 0);
    expectError("Media Managermount failed or read-only mount for: /dev/sdb2 on /mnt/S1 output was: "
                "/dev/sdbb on /mnt/S1 (rw,noatime)\n");
    EXPECT_FALSE(countsAsMounted());
}

TEST_F(MountingTest, tableWithTheNodeButAFailingGrep) {
    startSelected();
    shell.answer(kFindNode, 2, "/dev/sdb2 on /mnt/S1 (rw,noatime)");
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, true), 2);
    takeErrors();
    EXPECT_FALSE(countsAsMounted());
}

TEST_F(MountingTest, mountThatCannotBeGuardedIsUsedAllTheSame) {
    startSelected();
    os.guardError = EPERM;
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, true), 0);
    expectEffects(mounts(S1, "sdb", true));
    expectError("Media Managerfailed to guard the mount on /mnt/S1: Operation not permitted\n");
    EXPECT_TRUE(countsAsMounted());
}

TEST_F(MountingTest, mediumWhoseMakerDirectoryIsALinkIsUnmountedAgain) {
    startSelected();
    os.links = {"/mnt/S1/NEVO"};
    for (const bool quiet : {true, false}) {
        config.put(kParamInvalidMediaAlert, 0);
        EXPECT_EQ(manager->mountSlot(eStorageSlotS1, quiet), -1);
        expectError("Media Managerrefused a symbolic link on the medium: /mnt/S1/NEVO\n");
        Lines expected = mounts(S1, "sdb", true, !quiet);
        if (!quiet) expected.insert(expected.begin(), kUnlink);
        expected.back() = sets(kParamInvalidMediaAlert, 1);
        expected = join({expected, unmounts(S1, "sdb", true, quiet)});
        if (!quiet) expected.push_back(led(S1, eStorageLEDOff));
        expectAllEffects(expected);
        EXPECT_FALSE(media.isMounted("/mnt/S1"));
        EXPECT_FALSE(countsAsMounted());
    }
    // Formatted it is as good as any other.
    os.links.clear();
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), 0);
    EXPECT_TRUE(countsAsMounted());
}

TEST_F(MountingTest, webLinkThatCannotBeMadeIsIgnored) {
    startSelected();
    os.onSystem = [](const std::string&) { return 256; };
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), 0);
    EXPECT_TRUE(countsAsMounted());
}

// --- unmountSlot

TEST_F(MountingTest, unmountOfNoSlot) {
    start();
    EXPECT_EQ(manager->unmountSlot(eStorageSlotUnknown, true, false), 0);
    expectNoEffects();
}

TEST_F(MountingTest, unmountWithNothingMountedKeepsEverything) {
    startWithMedium();
    for (int status : {1, 2}) {
        shell.answer(kFindPoint, status, "", 1);
        EXPECT_EQ(manager->unmountSlot(eStorageSlotS1, false, false), status);
        expectEffects({"unlink /var/www/media", run(kFindPoint)});
    }
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
    EXPECT_TRUE(countsAsMounted());
}

TEST_F(MountingTest, unmount) {
    startWithMedium();
    EXPECT_EQ(manager->unmountSlot(eStorageSlotS1, false, false), 0);
    expectEffects({
        "unlink /var/www/media",
        run(kFindPoint),
        "run /bin/umount  /mnt/S1", // two blanks: the option's place is empty
        sets(kParamStoragePath, ""),
        run(kFindNode),
        led(S1, eStorageLEDOff),
    });
    EXPECT_FALSE(countsAsMounted());
}

TEST_F(MountingTest, lazyQuietUnmount) {
    startWithMedium();
    EXPECT_EQ(manager->unmountSlot(eStorageSlotS1, true, true), 0);
    expectEffects({run(kFindPoint), "run /bin/umount -l /mnt/S1", sets(kParamStoragePath, ""), run(kFindNode)});
    EXPECT_FALSE(countsAsMounted());
}

TEST_F(MountingTest, unmountThatFailsCountsAsUnmountedAllTheSame) {
    startWithMedium();
    media.umountStatus = 32;
    EXPECT_EQ(manager->unmountSlot(eStorageSlotS1, false, false), 32);
    expectEffects({"unlink /var/www/media", run(kFindPoint), "run /bin/umount  /mnt/S1", sets(kParamStoragePath, "")});
    expectError("Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n");
    EXPECT_FALSE(countsAsMounted());
}

TEST_F(MountingTest, doubleMountIsReportedAndNotReturned) {
    startWithMedium();
    media.mounts.push_back({"/dev/sdb2", "/elsewhere", "rw"});
    EXPECT_EQ(manager->unmountSlot(eStorageSlotS1, false, false), 0);
    expectEffects({"unlink /var/www/media", run(kFindPoint), "run /bin/umount  /mnt/S1", sets(kParamStoragePath, ""),
                   run(kFindNode)});
    expectError("Media Managerumount failed or double mount for: /dev/sdb2 on /mnt/S1 output was: "
                "/dev/sdb2 on /elsewhere type hfsplus (rw,noatime)\n\n");
    EXPECT_FALSE(countsAsMounted());
}

TEST_F(MountingTest, doubleMountIsSeenInTheOutputOfAFailingGrep) {
    startWithMedium();
    shell.answer(kFindNode, 2, "/dev/sdb2 on /elsewhere");
    EXPECT_EQ(manager->unmountSlot(eStorageSlotS1, false, true), 2);
    expectError("Media Managerumount failed or double mount for: /dev/sdb2 on /mnt/S1 output was: "
                "/dev/sdb2 on /elsewhere\n");
}

TEST_F(MountingTest, doubleMountIsSeenInASucceedingGrepWithoutTheNode) {
    startWithMedium();
    shell.answer(kFindNode, 0, "something");
    EXPECT_EQ(manager->unmountSlot(eStorageSlotS1, false, true), 0);
    expectError("Media Managerumount failed or double mount for: /dev/sdb2 on /mnt/S1 output was: something\n");
}

TEST_F(MountingTest, unmountAllReleasesTheReadySlotsInTheirOrder) {
    start(kWithFourSlots);
    insert(S2, "sdd");
    insert(D1, "sdb");
    insert(S1, "sdc");
    pinGoesIn(D2); // not announced
    manager->mountSlot(eStorageSlotS1, true);
    manager->mountSlot(eStorageSlotD1, true);
    pinGoesOut(S2); // announced, but gone
    effects();
    manager->unmountAll();
    expectEffects(join({unmounts(D1, "sdb", true, false),
                        unmountOfNothing(D1, true),
                        deletesFromBus("sdb"),
                        unmounts(S1, "sdc", true, false),
                        unmountOfNothing(S1, true),
                        deletesFromBus("sdc")}));
}

// --- the bus

TEST_F(MountingTest, probeOfASlot) {
    start();
    manager->probeBus(listener->getSlot(eStorageSlotS2));
    expectEffects({"system echo 0 0 0 > /sys/class/scsi_host/host2/scan"});
}

TEST_F(MountingTest, probeOfTheUnknownSlotDoesNothing) {
    start();
    manager->probeBus(Slot::getUnknownSlot());
    expectNoEffects();
}

TEST_F(MountingTest, deletionFromTheBusUnmountsQuietlyFirst) {
    startWithMedium();
    manager->deleteDeviceFromBus(listener->getSlot(eStorageSlotS1));
    expectEffects(join({unmounts(S1, "sdb", false, true), deletesFromBus("sdb")}));
}

TEST_F(MountingTest, deletionFromTheBusGoesOnWhateverTheUnmountSays) {
    startWithMedium();
    media.umountStatus = 32;
    os.onSystem = [](const std::string&) { return -1; };
    manager->deleteDeviceFromBus(listener->getSlot(eStorageSlotS1));
    expectError("Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n");
    EXPECT_EQ(effectsOf("system"), deletesFromBus("sdb"));
}

// Status 1 is also what grep says when nothing is mounted.
TEST_F(MountingTest, mediumThatStaysMountedIsSyncedBeforeItsDeviceGoes) {
    startWithMedium();
    for (const int status : {1, 32}) {
        media.umountStatus = status;
        manager->deleteDeviceFromBus(listener->getSlot(eStorageSlotS1));
        expectEffects({run(kFindPoint), "run /bin/umount  /mnt/S1", sets(kParamStoragePath, ""),
                       "run /bin/sync -f /mnt/S1", deletesFromBus("sdb").front()});
        expectError("Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n");
    }
}

TEST_F(MountingTest, mediumThatIsMountedTwiceIsSyncedBeforeItsDeviceGoes) {
    startWithMedium();
    media.mounts.insert(media.mounts.begin(), {"/dev/sdb2", "/mnt/S1", "rw"});
    manager->deleteDeviceFromBus(listener->getSlot(eStorageSlotS1));
    expectEffects({run(kFindPoint), "run /bin/umount  /mnt/S1", sets(kParamStoragePath, ""), run(kFindNode),
                   "run /bin/sync -f /mnt/S1", deletesFromBus("sdb").front()});
    takeErrors();
}

TEST_F(MountingTest, syncThatFailsIsReportedAndTheDeviceGoes) {
    startWithMedium();
    media.umountStatus = 32;
    shell.answer("/bin/sync -f /mnt/S1", 124);
    manager->deleteDeviceFromBus(listener->getSlot(eStorageSlotS1));
    expectError("Media Managerunmount failed for: /dev/sdb2 on /mnt/S1\n"
                "Media Managerfailed to sync what is mounted on /mnt/S1\n");
    EXPECT_EQ(effects().back(), deletesFromBus("sdb").front());
}

TEST_F(MountingTest, nobodyWaitsForACardThatWasPulled) {
    startWithMedium();
    media.umountStatus = 32;
    pinGoesOut(S1);
    manager->findStorage(true);
    takeErrors();
    const Lines lines = effects();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), deletesFromBus("sdb").front()), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "run /bin/sync -f /mnt/S1"), 0);
}

// Whether anybody has acquired it or not: a download needs nobody's leave.
TEST_F(MountingTest, mediumInUseIsSyncedBeforeTheLazyUnmount) {
    startWithMedium();
    insert(S2, "sdc");
    effects();
    manager->unmountAll();
    expectEffects(join({{"run /bin/sync -f /mnt/S1"},
                        unmounts(S1, "sdb", true, false),
                        {led(S1, eStorageLEDOff)},
                        unmountOfNothing(S1, true),
                        deletesFromBus("sdb"),
                        unmountOfNothing(S2, false),
                        unmountOfNothing(S2, true),
                        deletesFromBus("sdc")}));
}

TEST_F(MountingTest, mediumThatSomebodyKeptMountedIsSyncedBeforeTheLazyUnmount) {
    startWithMedium();
    media.umountStatus = 32;
    EXPECT_EQ(manager->unmountSlot(eStorageSlotS1, false, false), 32);
    media.umountStatus = 0;
    takeErrors();
    effects();
    manager->unmountAll();
    const Lines lines = effectsOf("run ");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "run /bin/sync -f /mnt/S1");
}

} // namespace
