// What changes on the medium in use: the inotify instance and its watch, what each event does to the shared segments, and
// the current clip after a change. Clips, playlists and segments are real ones.

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <utility>

#include "tests/media/clip_files.h"
#include "tests/media_manager/manager_test.h"

using clipfiles::kClipSegment;
using clipfiles::kPlaylistSegment;
using clipfiles::RawSegment;
using clipfiles::readFile;
using clipfiles::writeFile;
using fakes::inotifyEvent;

namespace {

// As the kernel numbers them.
constexpr std::uint32_t kCloseWrite = 0x8;
constexpr std::uint32_t kMovedFrom = 0x40;
constexpr std::uint32_t kMovedTo = 0x80;
constexpr std::uint32_t kCreate = 0x100;
constexpr std::uint32_t kDelete = 0x200;
constexpr std::uint32_t kDeleteSelf = 0x400;
constexpr std::uint32_t kMoveSelf = 0x800;
constexpr std::uint32_t kUnmount = 0x2000;
constexpr std::uint32_t kOverflow = 0x4000;
constexpr std::uint32_t kIgnored = 0x8000;
constexpr std::uint32_t kDirectory = 0x40000000;

constexpr char kDirectoryOfS1[] = "/mnt/S1/NEVO/";
constexpr char kShow[] = R"({"name": "Show", "cliplist": ["a", "b"]})";

class WatchTest : public ManagerTest {
protected:
    WatchTest() {
        for (const char* name : {kClipSegment, kPlaylistSegment, clipfiles::kClipMutex, clipfiles::kPlaylistMutex})
            std::filesystem::remove_all(name);
        for (const char* slot : {"S1", "S2"}) {
            std::filesystem::remove_all(std::string("/mnt/") + slot);
            std::filesystem::create_directories(std::string("/mnt/") + slot + "/NEVO");
        }
    }

    static std::string at(const std::string& name) { return kDirectoryOfS1 + name; }
    // A usable clip on the medium, made `time` seconds after the epoch.
    static void putClip(const std::string& name, std::uint32_t time = 1000) {
        writeFile(at(name), clipfiles::clipMadeAt(time));
    }

    // What the next read of the instance brings, all in one.
    void happens(const std::string& events) { os.feed(events); }
    // The same, taken by the manager at once.
    void taken(const std::string& events) {
        happens(events);
        manager->checkMediaEvents();
    }

    static bool segmentsExist() {
        return std::filesystem::exists(kClipSegment) || std::filesystem::exists(kPlaylistSegment);
    }
    // Makes the segments, so that a test can write to them first.
    void makeSegments() { taken(inotifyEvent(kCloseWrite, "nothing.txt")); }
    static Lines clipNames() { return RawSegment(kClipSegment).clipNames(); }
    static std::int32_t playlistCount() {
        const RawSegment segment(kPlaylistSegment);
        return segment.bytes(0, 19) == "SharedPlaylistCache" ? segment.word(19) : -1;
    }
    static std::string playlistPath(int index) { return RawSegment(kPlaylistSegment).text(23 + 8196LL * index, 4096); }

    std::string stamped() { return sets(kParamMediaChangedTime, now()); }
};

// --- the inotify instance

TEST_F(WatchTest, instanceIsOpenedRightAfterTheFirstStatus) {
    os.descriptorFlags = 0x2;
    os.recordSemaphores = true;
    makeManager();
    manager->init();
    Lines lines = allEffects();
    lines.resize(6);
    EXPECT_EQ(lines, (Lines{sets(kParamMediaDaemonStatus, 1), "inotify", "getFlags 300", "setFlags 300 0x802",
                            "semaphore 1", "listen"}));
}

TEST_F(WatchTest, instanceThatCannotBeHadIsReportedAndSoIsEveryPass) {
    os.inotifyError = EMFILE;
    makeManager();
    manager->init();
    expectError("init - call to inotify_init failed Too many open files\n");
    Lines lines = allEffects();
    lines.resize(3);
    EXPECT_EQ(lines, (Lines{sets(kParamMediaDaemonStatus, 1), "inotify", "listen"}));
    for (int pass = 0; pass < 2; ++pass) {
        EXPECT_TRUE(manager->pass());
        expectError("Media Managerinotify failed with: 9 (Bad file descriptor)\n");
    }
    allEffects();
    os.recordReads = true;
    manager->checkMediaEvents();
    takeErrors();
    expectAllEffects({"readDescriptor -1 4210688"});
    manager->teardown_inotify();
    expectAllEffects({});
}

TEST_F(WatchTest, mediumIsUsedWithoutAnInstanceToo) {
    os.inotifyError = EMFILE;
    makeManager();
    insert(S1, "sdb");
    manager->init();
    manager->findStorage(true);
    takeErrors();
    manager->ServiceMountRequests();
    expectError("inotify_add_watch failed for _fd -1, path /mnt/S1/NEVO, Bad file descriptor\n");
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
}

TEST_F(WatchTest, flagsThatCannotBeReadCountAsAllOnes) {
    os.getFlagsError = EBADF;
    makeManager();
    manager->setup_inotify();
    expectError("fcntl failed: Bad file descriptor\n");
    expectAllEffects({"inotify", "getFlags 300", "setFlags 300 0xffffffff"});
    EXPECT_TRUE(manager->watchPath("/a"));
}

TEST_F(WatchTest, flagsThatCannotBeSetAreReported) {
    os.setFlagsError = EINVAL;
    makeManager();
    manager->setup_inotify();
    expectError("fctl: Invalid argument\n");
    expectAllEffects({"inotify", "getFlags 300", "setFlags 300 0x800"});
    EXPECT_TRUE(manager->watchPath("/a"));
    expectAllEffects({"watch 300 /a 0xec8"});
}

TEST_F(WatchTest, bothFlagFailuresAreReported) {
    os.getFlagsError = EBADF;
    os.setFlagsError = EINVAL;
    makeManager();
    manager->setup_inotify();
    expectError("fcntl failed: Bad file descriptor\nfctl: Invalid argument\n");
}

TEST_F(WatchTest, secondSetUpTearsTheFirstDown) {
    makeManager();
    manager->setup_inotify();
    manager->watchPath("/a");
    allEffects();
    manager->setup_inotify();
    expectAllEffects({"unwatch 300 1", "closeDescriptor 300", "inotify", "getFlags 300", "setFlags 300 0x800"});
}

TEST_F(WatchTest, teardownRemovesTheWatchThenCloses) {
    makeManager();
    manager->setup_inotify();
    manager->watchPath("/a");
    allEffects();
    manager->teardown_inotify();
    expectAllEffects({"unwatch 300 1", "closeDescriptor 300"});
    manager->teardown_inotify();
    expectAllEffects({});
}

TEST_F(WatchTest, teardownWithoutAWatchOnlyCloses) {
    makeManager();
    manager->setup_inotify();
    allEffects();
    manager->teardown_inotify();
    expectAllEffects({"closeDescriptor 300"});
}

TEST_F(WatchTest, teardownThatFailsIsReportedAndBothAreGoneAllTheSame) {
    makeManager();
    manager->setup_inotify();
    manager->watchPath("/a");
    allEffects();
    os.unwatchError = EINVAL;
    os.closeError = EIO;
    manager->teardown_inotify();
    expectError("inotify_rm_watch failed for _fd 300, _wd 1, Invalid argument\n"
                "close failed for _fd 300, Input/output error\n");
    expectAllEffects({"unwatch 300 1", "closeDescriptor 300"});
    manager->teardown_inotify();
    expectAllEffects({});
}

TEST_F(WatchTest, cleanupTearsDownBetweenTheUnmountsAndTheLastStatus) {
    startWithMedium();
    manager->cleanup();
    expectAllEffects(join({{sets(kParamMediaDaemonStatus, 5), "run /bin/sync -f /mnt/S1"},
                           unmounts(S1, "sdb", true, false),
                           {led(S1, eStorageLEDOff)},
                           unmountOfNothing(S1, true),
                           deletesFromBus("sdb"),
                           {"unwatch 300 1", "closeDescriptor 300", sets(kParamMediaDaemonStatus, 6)}}));
}

// --- the watch

TEST_F(WatchTest, oneDirectoryIsWatchedAtATime) {
    makeManager();
    manager->setup_inotify();
    allEffects();
    EXPECT_TRUE(manager->watchPath("/a path"));
    expectAllEffects({"watch 300 /a path 0xec8"});
    EXPECT_TRUE(manager->watchPath("/b"));
    expectAllEffects({"unwatch 300 1", "watch 300 /b 0xec8"});
    manager->teardown_inotify();
    expectAllEffects({"unwatch 300 2", "closeDescriptor 300"});
}

TEST_F(WatchTest, failureToRemoveTheOldWatchIsNotReported) {
    makeManager();
    manager->setup_inotify();
    manager->watchPath("/a");
    allEffects();
    os.unwatchError = EINVAL;
    EXPECT_TRUE(manager->watchPath("/b"));
    expectAllEffects({"unwatch 300 1", "watch 300 /b 0xec8"});
}

TEST_F(WatchTest, watchThatCannotBeAddedIsReportedAndNoneIsLeft) {
    makeManager();
    manager->setup_inotify();
    manager->watchPath("/a");
    allEffects();
    os.watchError = ENOSPC;
    EXPECT_FALSE(manager->watchPath("/b"));
    expectError("inotify_add_watch failed for _fd 300, path /b, No space left on device\n");
    expectAllEffects({"unwatch 300 1", "watch 300 /b 0xec8"});
    os.watchError = 0;
    EXPECT_TRUE(manager->watchPath("/c"));
    expectAllEffects({"watch 300 /c 0xec8"});
    os.watchError = ENOENT;
    EXPECT_FALSE(manager->watchPath("/d"));
    takeErrors();
    allEffects();
    manager->teardown_inotify();
    expectAllEffects({"closeDescriptor 300"});
}

TEST_F(WatchTest, mountForUseWatchesBeforeTheWebLinkIsMade) {
    startWithMedium();
    media.mounts.clear();
    manager->mountSlot(eStorageSlotS1, false);
    Lines expected = mounts(S1, "sdb", false);
    const auto link = std::find(expected.begin() + 1, expected.end(), kUnlink); // the second of them
    expected.insert(link, {"unwatch 300 1", "watch 300 /mnt/S1/NEVO 0xec8"});
    expectAllEffects(expected);
}

TEST_F(WatchTest, quietMountLeavesTheWatchAlone) {
    startWithMedium();
    media.mounts.clear();
    manager->mountSlot(eStorageSlotS1, true);
    expectAllEffects(mounts(S1, "sdb", true));
}

TEST_F(WatchTest, readOnlyMediumIsNotWatched) {
    startWithMedium();
    media.mounts.clear();
    media.media["sdb"].readOnly = true;
    manager->mountSlot(eStorageSlotS1, false);
    takeErrors();
    for (const std::string& line : allEffects()) EXPECT_EQ(line.find("watch"), std::string::npos) << line;
}

TEST_F(WatchTest, mediumThatCannotBeWatchedIsUsedAllTheSame) {
    startWithMedium();
    os.watchError = ENOSPC;
    media.mounts.clear();
    EXPECT_EQ(manager->mountSlot(eStorageSlotS1, false), 0);
    expectError("inotify_add_watch failed for _fd 300, path /mnt/S1/NEVO, No space left on device\n");
    EXPECT_EQ(effectsOf("system"), Lines{"system ln -s /mnt/S1/NEVO /var/www/media"});
    EXPECT_EQ(config.text(kParamStoragePath), "/mnt/S1/NEVO");
}

// --- reading the events

class ReadEventsTest : public WatchTest {
protected:
    using Events = std::list<std::pair<std::string, unsigned int>>;

    bool reads(Events& events) { return manager->ReadEvents(events, 77, 5); }
};

TEST_F(ReadEventsTest, oneReadOfTheWholeBufferFromTheGivenDescriptor) {
    makeManager();
    os.recordReads = true;
    Events events;
    happens(inotifyEvent(kDelete, "a"));
    happens(inotifyEvent(kDelete, "b"));
    EXPECT_TRUE(reads(events));
    expectAllEffects({"readDescriptor 77 4210688"});
    EXPECT_EQ(events, (Events{{"a", kDelete}}));
}

TEST_F(ReadEventsTest, recordsComeInTheirOrderBehindWhatIsThere) {
    makeManager();
    Events events{{"before", 1}};
    const std::string name31 = "a_name_that_just_fills_32_bytes";
    happens(inotifyEvent(kCloseWrite, "a.mov") + inotifyEvent(kDelete | kDirectory, "b", 64) +
            inotifyEvent(kDeleteSelf) + inotifyEvent(kMovedTo, name31, 32, 9) + inotifyEvent(kOverflow, "", 0, -1));
    EXPECT_TRUE(reads(events));
    EXPECT_EQ(events, (Events{{"before", 1},
                              {"a.mov", kCloseWrite},
                              {"b", kDelete | kDirectory},
                              {"PATH", kDeleteSelf},
                              {name31, kMovedTo},
                              {"PATH", kOverflow}}));
}

TEST_F(ReadEventsTest, asManyAsTheBufferHolds) {
    makeManager();
    Events events;
    const std::string one = inotifyEvent(kCloseWrite, "clip.mov", 16);
    std::string all;
    for (std::size_t i = 0; i < 0x404000 / one.size(); ++i) all += one;
    ASSERT_EQ(all.size(), 4'210'688U);
    happens(all);
    EXPECT_TRUE(reads(events));
    EXPECT_EQ(events.size(), 131'584U);
    EXPECT_EQ(events.back(), (std::pair<std::string, unsigned int>("clip.mov", kCloseWrite)));
}

TEST_F(ReadEventsTest, whatAnEarlierReadLeftBehindIsNotReadAgain) {
    makeManager();
    Events events;
    happens(inotifyEvent(kDelete, "a", 16) + inotifyEvent(kDelete, "b", 16) + inotifyEvent(kDelete, "c", 16));
    happens(inotifyEvent(kCloseWrite, "d", 16));
    EXPECT_TRUE(reads(events));
    events.clear();
    EXPECT_TRUE(reads(events));
    EXPECT_EQ(events, (Events{{"d", kCloseWrite}}));
}

TEST_F(ReadEventsTest, recordThatIsCutOffIsNotTaken) {
    makeManager();
    Events events;
    happens(inotifyEvent(kDelete, "a") + inotifyEvent(kDelete, "b", 32).substr(0, 40));
    EXPECT_TRUE(reads(events));
    EXPECT_EQ(events, (Events{{"a", kDelete}}));
    events.clear();
    happens(inotifyEvent(kDelete, "a") + inotifyEvent(kDelete).substr(0, 12));
    EXPECT_TRUE(reads(events));
    EXPECT_EQ(events, (Events{{"a", kDelete}}));
}

TEST_F(ReadEventsTest, nothingPendingIsNoError) {
    makeManager();
    Events events;
    EXPECT_FALSE(reads(events));
    EXPECT_TRUE(events.empty());
}

TEST_F(ReadEventsTest, nothingReadIsNoEvent) {
    makeManager();
    Events events;
    happens("");
    EXPECT_FALSE(reads(events));
    EXPECT_TRUE(events.empty());
}

TEST_F(ReadEventsTest, otherErrorsAreReported) {
    makeManager();
    Events events;
    os.readError = EIO;
    EXPECT_FALSE(reads(events));
    expectError("Media Managerinotify failed with: 5 (Input/output error)\n");
    os.readError = EINTR;
    EXPECT_FALSE(reads(events));
    expectError("Media Managerinotify failed with: 4 (Interrupted system call)\n");
}

// --- a pass without events

TEST_F(WatchTest, passWithoutEventsTouchesNeitherTheCacheNorTheStamp) {
    startWithMedium();
    std::filesystem::remove(kClipSegment);
    std::filesystem::remove(kPlaylistSegment);
    config.recordGets = true;
    os.recordReads = true;
    manager->checkMediaEvents();
    expectAllEffects({"readDescriptor 300 4210688"});
    happens("");
    manager->checkMediaEvents();
    os.readError = EIO;
    manager->checkMediaEvents();
    expectError("Media Managerinotify failed with: 5 (Input/output error)\n");
    expectAllEffects({"readDescriptor 300 4210688", "readDescriptor 300 4210688"});
    EXPECT_FALSE(segmentsExist());
}

TEST_F(WatchTest, eventsAreTakenRightAfterTheSleepWithAnActiveTransportToo) {
    startWithMedium();
    post(kParamTransportState, 2);
    happens(inotifyEvent(kDelete, "a.mov"));
    EXPECT_TRUE(manager->pass());
    Lines lines = allEffects();
    lines.resize(3);
    EXPECT_EQ(lines, (Lines{"sleepSeconds 1", "clips remove /mnt/S1/NEVO/a.mov",
                            sets(kParamMediaChangedTime, now())}));
}

// --- clips that arrive

TEST_F(WatchTest, closedClipIsIndexed) {
    startWithMedium();
    putClip("a.mov", 5000);
    config.put(kParamEncodeType, 2);
    config.put(kParamClipListMode, 1);
    config.recordGets = true;
    taken(inotifyEvent(kCloseWrite, "a.mov"));
    expectAllEffects({gets(kParamEncodeType), gets(kParamClipListMode), sets(kParamNewClipIndex, 0), stamped()});
    const RawSegment segment(kClipSegment);
    EXPECT_EQ(segment.clips(), (std::vector<std::pair<std::string, std::int32_t>>{{"a", 5000}}));
    EXPECT_EQ(segment.bytes(19 + 4132, 1), "\1");
}

TEST_F(WatchTest, codecFlagIsAgainstTheEncodeTypeParameter) {
    startWithMedium();
    putClip("a.mov");
    config.put(kParamEncodeType, 6);
    taken(inotifyEvent(kCloseWrite, "a.mov"));
    EXPECT_EQ(RawSegment(kClipSegment).bytes(19 + 4132, 1), std::string(1, '\0'));
}

TEST_F(WatchTest, clipThatIsMovedInIsIndexed) {
    startWithMedium();
    putClip("a.mov");
    taken(inotifyEvent(kMovedTo, "a.mov"));
    expectAllEffects({sets(kParamNewClipIndex, 0), stamped()});
    EXPECT_EQ(clipNames(), Lines{"a"});
}

TEST_F(WatchTest, indexIsTheNumberOfClipsLessOne) {
    startWithMedium();
    putClip("late.mov", 2000);
    putClip("early.mov", 1000);
    taken(inotifyEvent(kCloseWrite, "late.mov"));
    allEffects();
    taken(inotifyEvent(kCloseWrite, "early.mov"));
    expectAllEffects({sets(kParamNewClipIndex, 1), stamped()});
    EXPECT_EQ(clipNames(), (Lines{"early", "late"}));
}

class ClipNameTest : public WatchTest, public ::testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(, ClipNameTest,
                         ::testing::Values("a.mov", "a.MOV", "clip.MOV.txt", "a.mov.part", "a.movie", "x..mov",
                                           "show.playlist.mov", "show.mov.playlist"));

TEST_P(ClipNameTest, countsAsAClipWhenItArrives) {
    startWithMedium();
    putClip(GetParam());
    taken(inotifyEvent(kCloseWrite, GetParam()));
    expectAllEffects({sets(kParamNewClipIndex, 0), stamped()});
    EXPECT_EQ(RawSegment(kPlaylistSegment).bytes(0, 1), std::string(1, '\0'));
}

TEST_P(ClipNameTest, countsAsAClipWhenItGoes) {
    startWithMedium();
    taken(inotifyEvent(kDelete, GetParam()));
    expectAllEffects({std::string("clips remove /mnt/S1/NEVO/") + GetParam(), stamped()});
    EXPECT_EQ(RawSegment(kPlaylistSegment).bytes(0, 1), std::string(1, '\0'));
}

class OtherNameTest : public WatchTest, public ::testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(, OtherNameTest,
                         ::testing::Values("a.Mov", "mov", "a_mov", "a.mxf", "README.txt", "show.PLAYLIST", "playlist",
                                           "a.play"));

TEST_P(OtherNameTest, isIgnored) {
    startWithMedium();
    putClip(GetParam());
    config.recordGets = true;
    taken(inotifyEvent(kCloseWrite, GetParam()) + inotifyEvent(kMovedTo, GetParam()) + inotifyEvent(kDelete, GetParam()));
    expectAllEffects({});
    EXPECT_EQ(RawSegment(kClipSegment).bytes(0, 1), std::string(1, '\0'));
}

TEST_F(WatchTest, newClipIndexIsNeverWrittenInPlaylistMode) {
    startWithMedium();
    putClip("a.mov");
    config.put(kParamClipListMode, 2);
    config.recordGets = true;
    taken(inotifyEvent(kCloseWrite, "a.mov"));
    expectAllEffects({gets(kParamEncodeType), gets(kParamClipListMode), stamped()});
    EXPECT_EQ(clipNames(), Lines{"a"});
}

TEST_F(WatchTest, newClipIndexIsWrittenInEveryOtherMode) {
    startWithMedium();
    putClip("a.mov");
    for (const int mode : {0, 1, 3}) {
        config.put(kParamClipListMode, mode);
        taken(inotifyEvent(kCloseWrite, "a.mov"));
        expectAllEffects({sets(kParamNewClipIndex, 0), stamped()});
    }
}

TEST_F(WatchTest, clipThatIsNoneStampsAndLeavesTheIndexAlone) {
    startWithMedium();
    writeFile(at("a.mov"), "no clip");
    config.recordGets = true;
    taken(inotifyEvent(kCloseWrite, "a.mov"));
    expectAllEffects({gets(kParamEncodeType), stamped()});
    EXPECT_EQ(RawSegment(kClipSegment).bytes(0, 1), std::string(1, '\0'));
}

TEST_F(WatchTest, clipThatHasGoneAgainStampsAndLeavesTheIndexAlone) {
    startWithMedium();
    taken(inotifyEvent(kCloseWrite, "a.mov"));
    expectAllEffects({stamped()});
}

TEST_F(WatchTest, folderThatIsCalledAsAClipStamps) {
    startWithMedium();
    std::filesystem::create_directory(at("a.mov"));
    taken(inotifyEvent(kMovedTo | kDirectory, "a.mov"));
    expectAllEffects({stamped()});
}

// --- playlists that arrive

TEST_F(WatchTest, playlistThatArrivesIsIndexed) {
    startWithMedium();
    writeFile(at("show.playlist"), kShow);
    config.recordGets = true;
    taken(inotifyEvent(kCloseWrite, "show.playlist"));
    expectAllEffects({stamped()});
    EXPECT_EQ(playlistCount(), 1);
    EXPECT_EQ(playlistPath(0), "/mnt/S1/NEVO/show.playlist");
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23 + 4096, 4096), kShow);

    writeFile(at("a.playlist.bak"), kShow);
    taken(inotifyEvent(kMovedTo, "a.playlist.bak"));
    expectAllEffects({stamped()});
    EXPECT_EQ(playlistCount(), 2);
    EXPECT_EQ(playlistPath(0), "/mnt/S1/NEVO/a.playlist.bak");
}

TEST_F(WatchTest, playlistThatIsRefusedStampsToo) {
    startWithMedium();
    writeFile(at("show.playlist"), "{}");
    taken(inotifyEvent(kCloseWrite, "show.playlist"));
    expectAllEffects({stamped()});
    EXPECT_EQ(playlistCount(), -1);
}

// --- what goes

TEST_F(WatchTest, deletedPlaylistLeavesTheSegment) {
    startWithMedium();
    makeSegments();
    std::string expected;
    {
        RawSegment segment(kPlaylistSegment);
        segment.put(0, "SharedPlaylistCache");
        segment.putWord(19, 3);
        segment.putPlaylist(0, at("a.playlist"), "A", 10);
        segment.putPlaylist(1, at("b.playlist"), "B", 20);
        segment.putPlaylist(2, at("c.playlist"), "C", 30);
        // The count, then the others packed; what is behind the count stays as it was.
        expected = readFile(kPlaylistSegment);
        const std::int32_t two = 2;
        expected.replace(19, 4, reinterpret_cast<const char*>(&two), 4);
        expected.replace(23 + 8196, 8196, expected.substr(23 + 2 * 8196, 8196));
    }
    allEffects();
    config.recordGets = true;
    taken(inotifyEvent(kDelete, "b.playlist"));
    expectAllEffects({stamped()});
    EXPECT_TRUE(readFile(kPlaylistSegment) == expected);
}

TEST_F(WatchTest, onlyTheFirstPlaylistInTheOrderOfTheNamesGoes) {
    startWithMedium();
    makeSegments();
    std::string expected;
    {
        RawSegment segment(kPlaylistSegment);
        segment.put(0, "SharedPlaylistCache");
        segment.putWord(19, 4);
        // By name: "NEVO", "a", "a.play", "z". Of those, the paths of the first three occur in the deleted file's.
        segment.putPlaylist(0, "z.playlist", "Z", 1);
        segment.putPlaylist(1, "/NEVO/a.play", "PLAY", 2);
        segment.putPlaylist(2, "/mnt/S1/NEVO/a.playlist", "A", 3);
        segment.putPlaylist(3, "/mnt/S1/NEVO", "DIRECTORY", 4);
        const std::string before = readFile(kPlaylistSegment);
        const auto record = [&before](std::size_t index) { return before.substr(23 + 8196 * index, 8196); };
        expected = before;
        const std::int32_t three = 3;
        expected.replace(19, 4, reinterpret_cast<const char*>(&three), 4);
        expected.replace(23, 3 * 8196, record(2) + record(1) + record(0));
    }
    taken(inotifyEvent(kDelete, "a.playlist"));
    EXPECT_TRUE(readFile(kPlaylistSegment) == expected);
}

TEST_F(WatchTest, pathThatOccursInTheDeletedOnesIsEnough) {
    startWithMedium();
    makeSegments();
    {
        RawSegment segment(kPlaylistSegment);
        segment.put(0, "SharedPlaylistCache");
        segment.putWord(19, 2);
        segment.putPlaylist(0, at("a.playlist"), "A", 1);
        segment.putPlaylist(1, at("long.playlist.bak"), "LONG", 1);
    }
    // The other way round it is not.
    taken(inotifyEvent(kDelete, "long.playlist"));
    EXPECT_EQ(playlistCount(), 2);
    taken(inotifyEvent(kDelete, "a.playlist.bak"));
    EXPECT_EQ(playlistCount(), 1);
    EXPECT_EQ(playlistPath(0), at("long.playlist.bak"));
}

TEST_F(WatchTest, deletedPlaylistThatIsUnknownStillRewritesTheSegmentAndStamps) {
    startWithMedium();
    makeSegments();
    std::string expected;
    {
        RawSegment segment(kPlaylistSegment);
        segment.put(0, "SharedPlaylistCache");
        segment.putWord(19, 2);
        segment.putPlaylist(0, at("b.playlist"), "B", 1);
        segment.putPlaylist(1, at("a.playlist"), "A", 2);
        expected = readFile(kPlaylistSegment);
        expected = expected.substr(0, 23) + expected.substr(23 + 8196, 8196) + expected.substr(23, 8196) +
                   expected.substr(23 + 2 * 8196);
    }
    allEffects();
    taken(inotifyEvent(kDelete, "c.playlist"));
    expectAllEffects({stamped()});
    EXPECT_TRUE(readFile(kPlaylistSegment) == expected);
}

TEST_F(WatchTest, deletedPlaylistBringsAnUnwrittenSegmentIntoItsForm) {
    startWithMedium();
    makeSegments();
    std::string expected = readFile(kPlaylistSegment);
    expected.replace(0, 19, "SharedPlaylistCache");
    allEffects();
    taken(inotifyEvent(kDelete, "c.playlist"));
    expectAllEffects({stamped()});
    EXPECT_TRUE(readFile(kPlaylistSegment) == expected);
}

// --- masks

TEST_F(WatchTest, arrivalComesBeforeDeletion) {
    startWithMedium();
    putClip("a.mov");
    writeFile(at("show.playlist"), kShow);
    for (const std::uint32_t arrival : {kCloseWrite, kMovedTo}) {
        taken(inotifyEvent(arrival | kDelete, "a.mov"));
        expectAllEffects({sets(kParamNewClipIndex, 0), stamped()});
        taken(inotifyEvent(arrival | kDelete, "show.playlist"));
        expectAllEffects({stamped()});
        EXPECT_EQ(playlistCount(), 1);
    }
}

class OtherMaskTest : public WatchTest, public ::testing::WithParamInterface<std::uint32_t> {};
INSTANTIATE_TEST_SUITE_P(, OtherMaskTest,
                         ::testing::Values(kMovedFrom, kDeleteSelf, kMoveSelf, kCreate, kUnmount, kIgnored, kDirectory,
                                           kMovedFrom | kDirectory, 0U));

TEST_P(OtherMaskTest, isIgnored) {
    startWithMedium();
    putClip("a.mov");
    writeFile(at("show.playlist"), kShow);
    config.recordGets = true;
    taken(inotifyEvent(GetParam(), "a.mov") + inotifyEvent(GetParam(), "show.playlist") + inotifyEvent(GetParam()));
    expectAllEffects({});
    EXPECT_EQ(RawSegment(kClipSegment).bytes(0, 1), std::string(1, '\0'));
    EXPECT_EQ(playlistCount(), -1);
}

TEST_F(WatchTest, clipThatIsMovedAwayStaysInTheIndex) {
    startWithMedium();
    putClip("a.mov");
    taken(inotifyEvent(kCloseWrite, "a.mov"));
    allEffects();
    std::filesystem::remove(at("a.mov"));
    taken(inotifyEvent(kMovedFrom, "a.mov"));
    expectAllEffects({});
    EXPECT_EQ(clipNames(), Lines{"a"});
}

TEST_F(WatchTest, eventsOnTheDirectoryItselfAreIgnored) {
    startWithMedium();
    taken(inotifyEvent(kCloseWrite) + inotifyEvent(kMovedTo) + inotifyEvent(kDelete) + inotifyEvent(kDeleteSelf) +
          inotifyEvent(kMoveSelf));
    expectAllEffects({});
}

// --- several events, the stamp, the directory

TEST_F(WatchTest, eventsAreAppliedInTheirOrderAndStampedOnce) {
    startWithMedium();
    putClip("a.mov", 100);
    putClip("b.mov", 200);
    writeFile(at("show.playlist"), kShow);
    os.advance(77'000'000'000);
    happens(inotifyEvent(kCloseWrite, "b.mov") + inotifyEvent(kDelete, "c.mov") + inotifyEvent(kMovedFrom, "x.mov") +
            inotifyEvent(kMovedTo, "a.mov") + inotifyEvent(kCloseWrite, "show.playlist") +
            inotifyEvent(kDelete, "README.txt"));
    happens(inotifyEvent(kDelete, "later.mov"));
    manager->checkMediaEvents();
    expectAllEffects({sets(kParamNewClipIndex, 0), "clips remove /mnt/S1/NEVO/c.mov", sets(kParamNewClipIndex, 1),
                      sets(kParamMediaChangedTime, 1'700'000'077)});
    EXPECT_EQ(clipNames(), (Lines{"a", "b"}));
    EXPECT_EQ(playlistCount(), 1);
    // The second read is the next pass's.
    manager->checkMediaEvents();
    expectAllEffects({"clips remove /mnt/S1/NEVO/later.mov", sets(kParamMediaChangedTime, 1'700'000'077)});
}

TEST_F(WatchTest, eventsAreAppliedToTheSlotThatIsSelectedThen) {
    start();
    happens(inotifyEvent(kDelete, "a.mov"));
    manager->setSelectedSlot(eStorageSlotS2);
    allEffects();
    manager->checkMediaEvents();
    expectAllEffects({"clips remove /mnt/S2/NEVO/a.mov", stamped()});
    writeFile("/mnt/S2/NEVO/b.mov", clipfiles::clipMadeAt(1));
    taken(inotifyEvent(kCloseWrite, "b.mov"));
    EXPECT_EQ(clipNames(), Lines{"b"});
}

TEST_F(WatchTest, eventsWithoutASelectedSlotAreAppliedToTheBareMakerDirectory) {
    start();
    taken(inotifyEvent(kDelete, "a.mov"));
    expectAllEffects({"clips remove /NEVO/a.mov", stamped()});
}

// --- events that the kernel dropped

TEST_F(WatchTest, droppedEventsHaveTheMediumInUseScannedAgain) {
    startWithMedium();
    putClip("a.mov");
    config.recordGets = true;
    taken(inotifyEvent(kCloseWrite, "a.mov") + inotifyEvent(kOverflow, "", 0, -1) + inotifyEvent(kDelete, "b.mov"));
    expectAllEffects({gets(kParamEncodeType), gets(kParamClipListMode), sets(kParamNewClipIndex, 0),
                      "clips scan /mnt/S1/NEVO", "clips remove /mnt/S1/NEVO/b.mov", stamped()});
}

// The scan writes the index anew; who adds clip after clip must not go by what stood there before.
TEST_F(WatchTest, clipThatAScanHasFoundIsNotAddedOnceMore) {
    startWithMedium();
    makeSegments();
    RawSegment(kClipSegment).fillClips(600);
    for (const char* name : {"x.mov", "y.mov", "z.mov"}) putClip(name, 5000);
    scanner.onCall = [](const std::string& line) {
        // In the place of one that was deleted.
        if (line.starts_with("scan")) RawSegment(kClipSegment).put(19 + 6536LL * 300, std::string("z\0", 2));
    };
    taken(inotifyEvent(kCloseWrite, "x.mov") + inotifyEvent(kCloseWrite, "y.mov") + inotifyEvent(kOverflow, "", 0, -1) +
          inotifyEvent(kCloseWrite, "z.mov"));
    int times = 0;
    for (const auto& [name, time] : RawSegment(kClipSegment).clips()) times += name == "z" ? 1 : 0;
    EXPECT_EQ(times, 1);
}

TEST_F(WatchTest, droppedEventsAloneAreStamped) {
    startWithMedium();
    taken(inotifyEvent(kOverflow, "", 0, -1));
    expectAllEffects({"clips scan /mnt/S1/NEVO", stamped()});
}

TEST_F(WatchTest, droppedEventsWithNothingMountedAreOfNoMedium) {
    startWithMedium();
    manager->unmountSlot(eStorageSlotS1, false, false);
    allEffects();
    taken(inotifyEvent(kOverflow, "", 0, -1));
    expectAllEffects({});
}

// --- the segments' capacities

TEST_F(WatchTest, clipTooManyIsLeftOutWithOneLine) {
    startWithMedium();
    makeSegments();
    RawSegment(kClipSegment).fillClips(4096);
    const std::string before = readFile(kClipSegment);
    putClip("new.mov");
    allEffects();
    taken(inotifyEvent(kCloseWrite, "new.mov"));
    expectError("Media Managerthe clip cache is full; left out: /mnt/S1/NEVO/new.mov\n");
    expectAllEffects({stamped()});
    EXPECT_TRUE(readFile(kClipSegment) == before);
    EXPECT_TRUE(manager->pass());
}

TEST_F(WatchTest, clipOfAFullSegmentCanStillBeReplaced) {
    startWithMedium();
    makeSegments();
    RawSegment(kClipSegment).fillClips(4096);
    putClip("old_0007.mov", 500);
    allEffects();
    taken(inotifyEvent(kCloseWrite, "old_0007.mov"));
    expectAllEffects({sets(kParamNewClipIndex, 4095), stamped()});
    const RawSegment segment(kClipSegment);
    EXPECT_EQ(segment.word(15), 4096);
    EXPECT_EQ(segment.clips().front(), (std::pair<std::string, std::int32_t>("old_0007", 500)));
}

TEST_F(WatchTest, lastPlaceOfAClipCanBeTaken) {
    startWithMedium();
    makeSegments();
    RawSegment(kClipSegment).fillClips(4095);
    putClip("new.mov");
    allEffects();
    taken(inotifyEvent(kCloseWrite, "new.mov"));
    expectAllEffects({sets(kParamNewClipIndex, 4095), stamped()});
}

TEST_F(WatchTest, nameOfAFileThatIsLeftOutCannotSteerATerminal) {
    startWithMedium();
    makeSegments();
    RawSegment(kClipSegment).fillClips(4096);
    {
        RawSegment segment(kPlaylistSegment);
        segment.put(0, "SharedPlaylistCache");
        segment.putWord(19, 1024);
        for (int i = 0; i < 1024; ++i) segment.putPlaylist(i, at("old_" + std::to_string(i) + ".playlist"), "x", 1);
    }
    taken(inotifyEvent(kMovedTo, "a\nb\x1b[2J\x7f.mov") + inotifyEvent(kMovedTo, "c\rd.playlist"));
    expectError("Media Managerthe clip cache is full; left out: /mnt/S1/NEVO/a?b?[2J?.mov\n"
                "Media Managerthe playlist cache is full; left out: /mnt/S1/NEVO/c?d.playlist\n");
}

TEST_F(WatchTest, playlistTooManyIsLeftOutWithOneLineAndOneThatIsThereIsReplaced) {
    startWithMedium();
    makeSegments();
    {
        RawSegment segment(kPlaylistSegment);
        segment.put(0, "SharedPlaylistCache");
        segment.putWord(19, 1024);
        for (int i = 0; i < 1024; ++i) segment.putPlaylist(i, at("old_" + std::to_string(i) + ".playlist"), "x", 1);
    }
    const std::string before = readFile(kPlaylistSegment);
    writeFile(at("new.playlist"), kShow);
    allEffects();
    taken(inotifyEvent(kCloseWrite, "new.playlist"));
    expectError("Media Managerthe playlist cache is full; left out: /mnt/S1/NEVO/new.playlist\n");
    expectAllEffects({stamped()});
    EXPECT_TRUE(readFile(kPlaylistSegment) == before);

    writeFile(at("old_0.playlist"), kShow);
    taken(inotifyEvent(kCloseWrite, "old_0.playlist"));
    expectAllEffects({stamped()});
    EXPECT_EQ(playlistCount(), 1024);
    EXPECT_EQ(playlistPath(0), at("old_0.playlist")); // "old_0" is the first of them by name
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23 + 4096, 4096), kShow);
}

// --- a cache that cannot be used

TEST_F(WatchTest, unusableSegmentsEndAtTheEventsOfThisPass) {
    startWithMedium();
    std::filesystem::remove(kClipSegment);
    std::filesystem::create_directory(kClipSegment);
    happens(inotifyEvent(kCloseWrite, "a.mov") + inotifyEvent(kDelete, "b.mov"));
    EXPECT_TRUE(manager->pass());
    expectError("Media ManagercheckMediaEvents: the shared clip cache cannot be used: Invalid argument\n");
    EXPECT_EQ(effectsOf("clips"), Lines{});
    EXPECT_EQ(config.integer(kParamMediaChangedTime), 1'700'000'000); // the activation's

    // Nothing is left over for the next one.
    std::filesystem::remove(kClipSegment);
    happens(inotifyEvent(kDelete, "c.mov"));
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(effectsOf("clips"), Lines{"clips remove /mnt/S1/NEVO/c.mov"});
}

TEST_F(WatchTest, memoryThatRunsOutEndsAtTheEventsOfThisPass) {
    startWithMedium();
    scanner.onCall = [](const std::string&) { throw std::bad_alloc(); };
    taken(inotifyEvent(kDelete, "b.mov"));
    expectError("Media ManagercheckMediaEvents: the shared clip cache cannot be used: std::bad_alloc\n");
    expectAllEffects({"clips remove /mnt/S1/NEVO/b.mov"});
}

TEST_F(WatchTest, whatChangedBeforeTheCacheFailedIsStamped) {
    startWithMedium();
    putClip("a.mov");
    scanner.onCall = [](const std::string&) {
        throw boost::interprocess::interprocess_exception(boost::interprocess::error_info(ENOSPC));
    };
    taken(inotifyEvent(kCloseWrite, "a.mov") + inotifyEvent(kDelete, "b.mov") + inotifyEvent(kDelete, "c.mov"));
    expectError("Media ManagercheckMediaEvents: the shared clip cache cannot be used: No space left on device\n");
    expectAllEffects({sets(kParamNewClipIndex, 0), "clips remove /mnt/S1/NEVO/b.mov", stamped()});
}

// --- the current clip after a change

class UpdatedTest : public WatchTest {
protected:
    // A medium in use with two clips, and one of them in the selected playlist.
    void startWithClips() {
        startWithMedium();
        scanner.found = {fakes::clip("b"), fakes::clip("a")};
        scanner.selected = std::list<Clip>{fakes::clip("p")};
        std::filesystem::remove(kClipSegment);
        std::filesystem::remove(kPlaylistSegment);
        config.recordGets = true;
    }
    static Lines refreshes(const std::string& flag, const std::string& clip) {
        return {"clips find true false true", gets(kParamPlaylistName), gets(kParamClipListMode),
                "clips find " + flag + " true true", sets(kParamClipName, clip), sets(kParamClipIndex, 0)};
    }
    void expectNoRefresh() {
        manager->checkMediaUpdated();
        expectAllEffects({});
    }
    void expectRefresh(const Lines& expected) {
        manager->checkMediaUpdated();
        expectAllEffects(expected);
    }
};

TEST_F(UpdatedTest, nothingHappensWithoutAChange) {
    startWithClips();
    expectNoRefresh();
    EXPECT_FALSE(segmentsExist());
    post(kParamMediaChangedTime, 0);
    expectNoRefresh();
}

TEST_F(UpdatedTest, newStampMakesTheFirstClipTheCurrentOneOnce) {
    startWithClips();
    post(kParamMediaChangedTime, 1234);
    expectRefresh(refreshes("false", "p"));
    EXPECT_TRUE(segmentsExist());
    expectNoRefresh();
    post(kParamMediaChangedTime, 1234);
    expectNoRefresh();
    // Earlier is different, too.
    post(kParamMediaChangedTime, 1233);
    expectRefresh(refreshes("false", "p"));
    expectNoRefresh();
}

TEST_F(UpdatedTest, mediumWithoutAClipShowsNone) {
    startWithClips();
    scanner.found.clear();
    post(kParamMediaChangedTime, 1);
    expectRefresh({"clips find true false true", sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0)});
    expectNoRefresh();
}

TEST_F(UpdatedTest, playlistWithoutAClipIsAnEmptyList) {
    startWithClips();
    scanner.selected->clear();
    post(kParamMediaChangedTime, 1);
    expectRefresh(refreshes("false", "Empty List"));
}

TEST_F(UpdatedTest, theFirstOfSeveralClipsIsTaken) {
    startWithClips();
    scanner.selected = std::list<Clip>{fakes::clip("z"), fakes::clip("y")};
    post(kParamMediaChangedTime, 1);
    expectRefresh(refreshes("false", "z"));
}

TEST_F(UpdatedTest, clipWhoseNameFillsItsFieldIsTakenWhole) {
    startWithClips();
    Clip clip{};
    std::memset(clip.name, 'n', sizeof clip.name);
    scanner.selected = std::list<Clip>{clip};
    post(kParamMediaChangedTime, 1);
    expectRefresh(refreshes("false", std::string(4096, 'n')));
}

struct Filter {
    int mode;
    const char* playlist;
    const char* flag;
};

class FilterTest : public UpdatedTest, public ::testing::WithParamInterface<Filter> {};
INSTANTIATE_TEST_SUITE_P(, FilterTest,
                         ::testing::Values(Filter{2, "evening", "true"}, Filter{2, "", "false"},
                                           Filter{2, nullptr, "false"}, Filter{1, "evening", "false"},
                                           Filter{0, "evening", "false"}, Filter{3, "evening", "false"},
                                           Filter{-2, "evening", "false"}));

TEST_P(FilterTest, clipsAreThePlaylistsOnlyInPlaylistModeWithAPlaylist) {
    startWithClips();
    config.put(kParamClipListMode, GetParam().mode);
    if (GetParam().playlist != nullptr) config.put(kParamPlaylistName, GetParam().playlist);
    post(kParamMediaChangedTime, 1);
    expectRefresh(refreshes(GetParam().flag, "p"));
}

TEST_F(UpdatedTest, refreshRequestsAreServedOnce) {
    startWithClips();
    post(kParamClipListMode, 1);
    expectRefresh(refreshes("false", "p"));
    expectNoRefresh();
    post(kParamSystemCommand, 3);
    expectRefresh(refreshes("false", "p"));
    expectNoRefresh();
    post(kParamPlaylistName, "evening");
    expectRefresh(refreshes("false", "p"));
    expectNoRefresh();
    post(kParamClipsToDelete, "");
    expectRefresh(refreshes("false", "p"));
    expectNoRefresh();
}

TEST_F(UpdatedTest, changeDuringARecordingIsSeenWithoutARefresh) {
    startWithClips();
    post(kParamTransportState, 2);
    post(kParamMediaChangedTime, 1);
    expectNoRefresh();
    EXPECT_FALSE(segmentsExist());
    post(kParamTransportState, 1);
    expectNoRefresh();
    post(kParamMediaChangedTime, 2);
    expectRefresh(refreshes("false", "p"));
}

TEST_F(UpdatedTest, refreshRequestAfterARecordingBringsTheRefresh) {
    startWithClips();
    post(kParamTransportState, 2);
    post(kParamMediaChangedTime, 1);
    expectNoRefresh();
    post(kParamTransportState, 1);
    post(kParamPlaylistName, "");
    expectRefresh(refreshes("false", "p"));
}

TEST_F(UpdatedTest, refreshRequestDuringARecordingStandsUntilItsEnd) {
    startWithClips();
    post(kParamTransportState, 2);
    post(kParamPlaylistName, "");
    expectNoRefresh();
    post(kParamTransportState, 1);
    expectRefresh(refreshes("false", "p"));
    expectNoRefresh();
}

TEST_F(UpdatedTest, onlyARecordingHoldsItUp) {
    startWithClips();
    int stamp = 0;
    for (const unsigned int state : {0U, 1U, 3U, 4U, 15U, 20U}) {
        post(kParamTransportState, state);
        post(kParamMediaChangedTime, static_cast<unsigned int>(++stamp));
        expectRefresh(refreshes("false", "p"));
    }
}

TEST_F(UpdatedTest, whatComesDuringARefreshIsNotLost) {
    startWithClips();
    post(kParamMediaChangedTime, 1);
    std::function<void()> meanwhile;
    scanner.onCall = [&meanwhile](const std::string&) {
        if (const auto once = std::exchange(meanwhile, nullptr)) once();
    };
    meanwhile = [this] { world.events.raise(kParamMediaChangedTime, 2); };
    expectRefresh(refreshes("false", "p"));
    meanwhile = [this] { world.events.raise(kParamPlaylistName, ""); };
    expectRefresh(refreshes("false", "p"));
    expectRefresh(refreshes("false", "p"));
    expectNoRefresh();
}

TEST_F(UpdatedTest, stampOfTheDaemonsOwnEventsBringsTheRefresh) {
    startWithMedium();
    scanner.found = {fakes::clip("a")};
    config.onSet = [this](eParam_t id) {
        if (id == kParamMediaChangedTime) world.events.raise(id, static_cast<unsigned int>(config.integer(id)));
    };
    putClip("a.mov");
    happens(inotifyEvent(kCloseWrite, "a.mov"));
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(effectsOf("clips"), (Lines{"clips find true false true", "clips find false true true"}));
    EXPECT_EQ(config.text(kParamClipName), "a");
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(effectsOf("clips"), Lines{});
}

// Removing a clip can take a neighbour along, which only a refresh brings back.
TEST_F(UpdatedTest, secondChangeWithinASecondBringsARefreshToo) {
    startWithMedium();
    scanner.found = {fakes::clip("a")};
    config.onSet = [this](eParam_t id) {
        if (id == kParamMediaChangedTime) world.events.raise(id, static_cast<unsigned int>(config.integer(id)));
    };
    putClip("a.mov");
    happens(inotifyEvent(kCloseWrite, "a.mov"));
    EXPECT_TRUE(manager->pass());
    effects();
    const int stamp = config.integer(kParamMediaChangedTime);
    scanner.onCall = [this, stamp](const std::string&) { os.startTime += stamp - os.time(); };
    happens(inotifyEvent(kDelete, "b_12.mov"));
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(config.integer(kParamMediaChangedTime), stamp);
    EXPECT_EQ(effectsOf("clips"), (Lines{"clips remove /mnt/S1/NEVO/b_12.mov", "clips find true false true",
                                         "clips find false true true"}));
    EXPECT_TRUE(manager->pass());
    EXPECT_EQ(effectsOf("clips"), Lines{});
}

TEST_F(UpdatedTest, unusableSegmentsEndAtTheRefresh) {
    startWithMedium();
    std::filesystem::remove(kClipSegment);
    std::filesystem::create_directory(kClipSegment);
    post(kParamMediaChangedTime, 1);
    EXPECT_TRUE(manager->pass());
    expectError("Media ManagercheckMediaUpdated: the shared clip cache cannot be used: Invalid argument\n");
    EXPECT_EQ(effectsOf("clips"), Lines{});
    // Seen all the same.
    EXPECT_TRUE(manager->pass());
    expectError("");
}

TEST_F(UpdatedTest, scannerThatFailsEndsTheRefresh) {
    startWithClips();
    post(kParamMediaChangedTime, 1);
    scanner.onCall = [](const std::string&) {
        throw boost::interprocess::interprocess_exception(boost::interprocess::error_info(EACCES));
    };
    expectRefresh({"clips find true false true"});
    expectError("Media ManagercheckMediaUpdated: the shared clip cache cannot be used: Permission denied\n");
    expectNoRefresh();
}

} // namespace
