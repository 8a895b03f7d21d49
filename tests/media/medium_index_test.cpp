// The segments against the directory of the medium in use.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include "clip_finder.h"
#include "media/media_cache.h"
#include "parameters.h"
#include "tests/fakes/fakes.h"
#include "tests/media/clip_files.h"

using nevo::media::MediaCache;
using namespace clipfiles;

namespace {

using Clips = std::vector<std::pair<std::string, std::int32_t>>;
using Names = std::vector<std::string>;

constexpr char kShow[] = R"({"name": "Show", "cliplist": ["a"]})";
constexpr char kOther[] = R"({"name": "Show", "cliplist": ["b"]})"; // of the same length

class MediumIndexTest : public SegmentTest {
protected:
    void SetUp() override {
        SegmentTest::SetUp();
        ClipFinder(&_config).flushAll(); // what earlier tests left in the process's memory
        for (const char* name : {kClipSegment, kPlaylistSegment, kClipMutex, kPlaylistMutex}) unlink(name);
        _config.put(kParamStoragePath, _folder);
    }

    Names heal() {
        Names found;
        for (const Clip& clip : ClipFinder(&_config).findClips(true, false, true)) found.emplace_back(clip.name);
        return found;
    }
    std::string healQuietly() {
        testing::internal::CaptureStderr();
        heal();
        return testing::internal::GetCapturedStderr();
    }
    void scan() { ClipFinder(&_config).scanMedia(_folder); }
    bool remove(const std::string& name) { return ClipFinder(&_config).removeClip(at(name)); }
    int add(const std::string& name, unsigned int encodeType = 1) {
        int index = -1;
        EXPECT_TRUE(MediaCache("NewCache").AddClip(at(name), encodeType, index, false));
        return index;
    }
    static Clips segment() { return RawSegment(kClipSegment).clips(); }
    static Names playlists() {
        const RawSegment segment(kPlaylistSegment);
        Names paths;
        for (std::int64_t i = 0; i < segment.word(19); ++i) {
            const std::string path = segment.text(23 + 8196 * i, 4096);
            paths.push_back(path.substr(path.rfind('/') + 1));
        }
        return paths;
    }
    void makePlaylist(const std::string& name, const std::string& text = kShow, time_t modified = 1000) const {
        writeFile(at(name), text);
        setTime(name, modified);
    }
    void setTime(const std::string& name, time_t modified) const {
        const utimbuf times{modified, modified};
        EXPECT_EQ(utime(at(name).c_str(), &times), 0);
    }

    fakes::Journal _journal;
    fakes::FakeConfig _config{_journal};
};

TEST_F(MediumIndexTest, ANeighbourThatTheSubstringRuleDroppedComesBack) {
    makeClip("Clip_1.mov", 100);
    makeClip("Clip_12.mov", 200);
    scan();
    // Asked for and then seen: the second removal takes the neighbour.
    EXPECT_TRUE(remove("Clip_12.mov"));
    unlink(at("Clip_12.mov").c_str());
    EXPECT_EQ(segment(), (Clips{{"Clip_12", 200}}));
    EXPECT_EQ(heal(), Names{"Clip_1"});
    EXPECT_TRUE(remove("Clip_12.mov"));
    EXPECT_EQ(segment(), Clips{});
    EXPECT_EQ(heal(), Names{"Clip_1"});
    EXPECT_EQ(segment(), (Clips{{"Clip_1", 100}}));
}

TEST_F(MediumIndexTest, ARecordWhoseFileIsGoneGoes) {
    for (const char* name : {"a.mov", "b.mov", "c.mov"}) makeClip(name, 100);
    scan();
    unlink(at("b.mov").c_str());
    EXPECT_EQ(heal(), (Names{"a", "c"}));
    EXPECT_EQ(segment(), (Clips{{"a", 100}, {"c", 100}}));
    ASSERT_EQ(mkdir(at("d").c_str(), 0777), 0);
    ASSERT_EQ(rename(at("a.mov").c_str(), at("d/a.mov").c_str()), 0);
    EXPECT_EQ(heal(), Names{"c"});
}

TEST_F(MediumIndexTest, AFileThatNobodyAnnouncedGetsARecord) {
    makeClip("a.mov", 200);
    scan();
    makeClip("b.mov", 100);
    makeClip("c.mov", 200, "AVdn");
    _config.put(kParamEncodeType, 6);
    EXPECT_EQ(heal(), (Names{"b", "a", "c"}));
    EXPECT_EQ(segment(), (Clips{{"b", 100}, {"a", 200}, {"c", 200}}));
    EXPECT_EQ(RawSegment(kClipSegment).bytes(19 + 4132, 1), std::string(1, '\0'));
    EXPECT_EQ(RawSegment(kClipSegment).bytes(19 + 2 * 6536 + 4132, 1), "\1");
}

TEST_F(MediumIndexTest, ARecordFromTheDirectoryIsTheRecordThatTheExaminationMakes) {
    makeClip("a.mov", 100, "apcs");
    add("a.mov", 2);
    const std::string added = RawSegment(kClipSegment).bytes(0, 19 + 6533);
    ClipFinder(&_config).flushAll();
    _config.put(kParamEncodeType, 2);
    heal();
    EXPECT_TRUE(RawSegment(kClipSegment).bytes(0, 19 + 6533) == added);
    remove("a.mov");
    heal(); // remembered by now
    EXPECT_TRUE(RawSegment(kClipSegment).bytes(0, 19 + 6533) == added);
}

TEST_F(MediumIndexTest, AChangedFileIsExaminedAgain) {
    makeClip("a.mov", 100);
    makeClip("b.mov", 200);
    scan();
    makeClip("a.mov", 300);
    setTime("a.mov", 5000); // the same size
    EXPECT_EQ(heal(), (Names{"b", "a"}));
    EXPECT_EQ(segment(), (Clips{{"b", 200}, {"a", 300}}));
    makeClip("a.mov", 50, "apcs"); // another size
    setTime("a.mov", 5000);
    EXPECT_EQ(heal(), (Names{"a", "b"}));
    // Another file of the same size and time.
    makeClip("new", 400, "apcs");
    setTime("new", 5000);
    ASSERT_EQ(rename(at("new").c_str(), at("a.mov").c_str()), 0);
    EXPECT_EQ(heal(), (Names{"b", "a"}));
}

TEST_F(MediumIndexTest, AnUnchangedFileIsNotExaminedAgain) {
    makeClip("a.mov", 100);
    makePlaylist("show.playlist");
    setTime("a.mov", 5000);
    scan();
    const auto unnoticed = [this](std::uint32_t time, const char* text) {
        writeFile(at("a.mov"), clipMadeAt(time));
        setTime("a.mov", 5000);
        makePlaylist("show.playlist", text);
        heal();
        return segment().at(0).second == 100 && RawSegment(kPlaylistSegment).text(23 + 4096, 4096) == kShow;
    };
    EXPECT_TRUE(unnoticed(300, kOther));
    ClipFinder(&_config).flushAll(); // forgets
    EXPECT_FALSE(unnoticed(400, kOther));
}

TEST_F(MediumIndexTest, WhatIsRememberedNeverOverrulesARecordThatIsRight) {
    makeClip("a.mov", 100);
    makePlaylist("show.playlist");
    setTime("a.mov", 5000);
    scan();
    // Rewritten within the resolution of the medium's clock, and announced.
    writeFile(at("a.mov"), clipMadeAt(300));
    setTime("a.mov", 5000);
    makePlaylist("show.playlist", kOther);
    add("a.mov");
    EXPECT_TRUE(MediaCache("NewCache").AddPlaylist(at("show.playlist")));
    heal();
    EXPECT_EQ(segment(), (Clips{{"a", 300}}));
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23 + 4096, 4096), kOther);

    const std::string clip = clipMadeAt(400);
    writeFile(at("b.mov"), std::string(clip.size(), 'x'));
    setTime("b.mov", 5000);
    EXPECT_EQ(heal(), Names{"a"});
    writeFile(at("b.mov"), clip);
    setTime("b.mov", 5000);
    add("b.mov");
    EXPECT_EQ(heal(), (Names{"a", "b"}));
}

TEST_F(MediumIndexTest, AnUnusableFileHasNoRecordAndIsRemembered) {
    makeClip("a.mov", 100);
    scan();
    writeFile(at("a.mov"), "no clip");
    makePlaylist("show.playlist", "no playlist");
    EXPECT_EQ(heal(), Names{});
    // The same size and time with a usable content behind it: nobody looks.
    const std::string clip = clipMadeAt(100);
    writeFile(at("b.mov"), std::string(clip.size(), 'x'));
    setTime("b.mov", 5000);
    EXPECT_EQ(heal(), Names{});
    writeFile(at("b.mov"), clip);
    setTime("b.mov", 5000);
    EXPECT_EQ(heal(), Names{});
    setTime("b.mov", 5001);
    EXPECT_EQ(heal(), Names{"b"});
}

TEST_F(MediumIndexTest, WhatIsSaidAboutAnUnusablePlaylistIsSaidOnce) {
    makePlaylist("huge.playlist");
    ASSERT_EQ(truncate(at("huge.playlist").c_str(), 20'000'000), 0);
    EXPECT_NE(healQuietly(), "");
    EXPECT_EQ(healQuietly(), "");
    setTime("huge.playlist", 1001);
    EXPECT_NE(healQuietly(), "");
}

TEST_F(MediumIndexTest, FilesThatAreOpenForWritingAreNeitherAddedNorDropped) {
    makeClip("old.mov", 100);
    makePlaylist("old.playlist");
    scan();
    makeClip("new.mov", 200);
    makePlaylist("new.playlist");
    std::vector<int> writers;
    for (const char* name : {"old.mov", "new.mov", "old.playlist", "new.playlist"}) {
        writers.push_back(open(at(name).c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_NE(writers.back(), -1);
    }
    EXPECT_EQ(heal(), Names{"old"});
    EXPECT_EQ(playlists(), Names{"old.playlist"});
    for (const int writer : writers) ASSERT_EQ(ftruncate(writer, 5), 0);
    EXPECT_EQ(heal(), Names{"old"});
    EXPECT_EQ(segment(), (Clips{{"old", 100}}));
    EXPECT_EQ(playlists(), Names{"old.playlist"});
    for (const int writer : writers) close(writer);
    EXPECT_EQ(heal(), Names{});
    EXPECT_EQ(playlists(), Names{});
}

TEST_F(MediumIndexTest, FilesThatCannotBeOpenedAreNeitherAddedNorDropped) {
    makeClip("old.mov", 100);
    makePlaylist("old.playlist");
    scan();
    makeClip("new.mov", 200);
    makePlaylist("new.playlist");
    setTime("old.mov", 5000); // the file is looked at anew
    setTime("old.playlist", 5000);
    std::vector<int> holders;
    for (const char* name : {"old.mov", "new.mov", "old.playlist", "new.playlist"}) {
        // Whoever opens the file without waiting is refused, and we are told by a signal that does nothing.
        holders.push_back(open(at(name).c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_NE(holders.back(), -1);
        ASSERT_NE(fcntl(holders.back(), F_SETSIG, SIGURG), -1);
        ASSERT_EQ(fcntl(holders.back(), F_SETLEASE, F_WRLCK), 0) << std::strerror(errno);
    }
    EXPECT_EQ(heal(), Names{"old"});
    EXPECT_EQ(playlists(), Names{"old.playlist"});
    for (const int holder : holders) {
        ASSERT_EQ(fcntl(holder, F_SETLEASE, F_UNLCK), 0);
        close(holder);
    }
    EXPECT_EQ(heal(), (Names{"old", "new"})) << "nothing was remembered of them";
    EXPECT_EQ(playlists(), (Names{"new.playlist", "old.playlist"}));
}

TEST_F(MediumIndexTest, ALinkToAPlaylistIsFollowed) {
    makePlaylist("note.txt");
    ASSERT_EQ(symlink("note.txt", at("link.playlist").c_str()), 0);
    EXPECT_EQ(heal(), Names{});
    EXPECT_EQ(playlists(), Names{"link.playlist"});
}

TEST_F(MediumIndexTest, ForAPlaylistOneDescriptorIsEnough) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    ClipFinder finder(&_config);
    // A sanitizer needs descriptors, too, when it sees an object's type for the first time.
    makePlaylist("a.playlist");
    finder.findClips(true, false, true);
    makePlaylist("b.playlist");
    const int lowest = dup(STDIN_FILENO);
    ASSERT_NE(lowest, -1);
    close(lowest);
    const rlimit one{static_cast<rlim_t>(lowest) + 1, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &one), 0);
    finder.findClips(true, false, true);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(playlists(), (Names{"a.playlist", "b.playlist"}));
}

TEST_F(MediumIndexTest, AKnownClipThatIsBeingWrittenAgainIsNotPutBack) {
    makeClip("a.mov", 100);
    scan();
    const int writer = open(at("a.mov").c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_TRUE(remove("a.mov"));
    EXPECT_EQ(heal(), Names{});
    close(writer);
    EXPECT_EQ(heal(), Names{"a"});
}

TEST_F(MediumIndexTest, NothingIsTouchedWithoutAStoragePath) {
    makeClip("a.mov", 100);
    makePlaylist("show.playlist");
    { const ClipFinder made(&_config); }
    RawSegment(kClipSegment).fillClips(2);
    _config.put(kParamStoragePath, "");
    EXPECT_EQ(heal(), (Names{"old_0000", "old_0001"}));
    EXPECT_EQ(RawSegment(kPlaylistSegment).bytes(0, 23), std::string(23, '\0'));
    _config.put(kParamStoragePath, _folder);
    EXPECT_EQ(heal(), Names{"a"});
    EXPECT_EQ(playlists(), Names{"show.playlist"});
}

TEST_F(MediumIndexTest, NothingIsTouchedWhenTheDirectoryCannotBeRead) {
    { const ClipFinder made(&_config); }
    RawSegment(kClipSegment).fillClips(2);
    _config.put(kParamStoragePath, at("missing"));
    const std::string said = healQuietly();
    EXPECT_NE(said.find("missing: No such file or directory\n"), std::string::npos) << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    EXPECT_EQ(segment().size(), 2U);
}

TEST_F(MediumIndexTest, ASegmentThatIsInStepIsNotWritten) {
    EXPECT_EQ(heal(), Names{});
    EXPECT_EQ(RawSegment(kClipSegment).bytes(0, 19), std::string(19, '\0'));
    EXPECT_EQ(RawSegment(kPlaylistSegment).bytes(0, 23), std::string(23, '\0'));

    // An order that no writer of ours leaves behind would not survive a write.
    makeClip("a.mov", 100);
    makeClip("b.mov", 200);
    makePlaylist("a.playlist");
    makePlaylist("b.playlist");
    scan();
    RawSegment clips(kClipSegment);
    RawSegment lists(kPlaylistSegment);
    const std::string clipA = clips.bytes(19, 6533);
    clips.put(19, clips.bytes(19 + 6536, 6533));
    clips.put(19 + 6536, clipA);
    const std::string listA = lists.bytes(23, 8196);
    lists.put(23, lists.bytes(23 + 8196, 8196));
    lists.put(23 + 8196, listA);
    EXPECT_EQ(heal(), (Names{"a", "b"}));
    EXPECT_EQ(segment(), (Clips{{"b", 200}, {"a", 100}}));
    EXPECT_EQ(playlists(), (Names{"b.playlist", "a.playlist"}));
    makeClip("c.mov", 50);
    makePlaylist("c.playlist");
    heal();
    EXPECT_EQ(segment(), (Clips{{"c", 50}, {"a", 100}, {"b", 200}}));
    EXPECT_EQ(playlists(), (Names{"a.playlist", "b.playlist", "c.playlist"}));
}

TEST_F(MediumIndexTest, TheCodecFlagOfARecordThatIsThereIsNotTouched) {
    makeClip("a.mov", 100, "apcn");
    _config.put(kParamEncodeType, 1);
    scan();
    _config.put(kParamEncodeType, 6);
    heal();
    EXPECT_EQ(RawSegment(kClipSegment).bytes(19 + 4132, 1), "\1");
}

TEST_F(MediumIndexTest, RecordsThatADyingWriterLeftHalfWrittenAreHealed) {
    for (const char* name : {"a.mov", "b.mov", "c.mov"}) makeClip(name, 100);
    makePlaylist("show.playlist");
    scan();
    RawSegment clips(kClipSegment);
    clips.put(19, "b");                                    // one name twice
    clips.put(19 + 2 * 6536 + 4133, "Format\n99x\n");      // wrong attributes
    RawSegment(kPlaylistSegment).put(23 + 4096, "{\"nome"); // wrong text
    RawSegment(kPlaylistSegment).putWord(19, 900);          // records that are none
    EXPECT_EQ(heal(), (Names{"b", "a", "c"}));
    EXPECT_EQ(clips.text(19 + 2 * 6536 + 4133, 2400).substr(0, 10), "Format\n48p");
    EXPECT_EQ(playlists(), Names{"show.playlist"});
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23 + 4096, 4096), kShow);
    clips.putWord(15, -1);
    EXPECT_EQ(heal(), (Names{"b", "a", "c"}));
    EXPECT_EQ(clips.word(15), 3);
}

TEST_F(MediumIndexTest, OfTwoFilesOfOneNameTheLastUsableOneCounts) {
    makeClip("clip.MOV", 100);
    makeClip("clip.mov", 200);
    EXPECT_EQ(heal(), Names{"clip"});
    EXPECT_EQ(segment(), (Clips{{"clip", 200}}));
    add("clip.MOV");
    heal();
    EXPECT_EQ(segment(), (Clips{{"clip", 200}}));
    writeFile(at("clip.mov"), "no clip");
    heal();
    EXPECT_EQ(segment(), (Clips{{"clip", 100}}));
    makePlaylist("show.playlist");
    makePlaylist("show.playlist.bak", kOther);
    heal();
    EXPECT_EQ(playlists(), Names{"show.playlist.bak"});
    unlink(at("show.playlist.bak").c_str());
    heal();
    EXPECT_EQ(playlists(), Names{"show.playlist"});
}

TEST_F(MediumIndexTest, OnlyRegularFilesAreLookedInto) {
    ASSERT_EQ(mkfifo(at("pipe.mov").c_str(), 0666), 0);
    ASSERT_EQ(mkfifo(at("pipe.playlist").c_str(), 0666), 0);
    ASSERT_EQ(mkdir(at("folder.playlist").c_str(), 0777), 0);
    ASSERT_EQ(mkdir(at("folder.mov").c_str(), 0777), 0);
    ASSERT_EQ(symlink("/dev/zero", at("device.playlist").c_str()), 0);
    makeClip("a.mov", 100);
    ASSERT_EQ(symlink("a.mov", at("link.mov").c_str()), 0);
    EXPECT_EQ(healQuietly(), "");
    EXPECT_EQ(segment(), (Clips{{"a", 100}}));
    EXPECT_EQ(RawSegment(kPlaylistSegment).word(19), 0);
    unlink(at("a.mov").c_str());
    ASSERT_EQ(mkfifo(at("a.mov").c_str(), 0666), 0);
    EXPECT_EQ(heal(), Names{});
}

TEST_F(MediumIndexTest, AnotherMediumUnderTheSamePathIsExaminedWhole) {
    makeClip("a.mov", 100);
    makePlaylist("show.playlist");
    setTime("a.mov", 5000);
    const std::string clip = clipMadeAt(400);
    writeFile(at("b.mov"), std::string(clip.size(), 'x'));
    setTime("b.mov", 5000);
    scan();
    EXPECT_EQ(segment(), (Clips{{"a", 100}}));
    writeFile(at("b.mov"), clip);
    setTime("b.mov", 5000);
    writeFile(at("a.mov"), clipMadeAt(300)); // the same file as far as can be seen
    setTime("a.mov", 5000);
    makePlaylist("show.playlist", kOther);
    scan();
    EXPECT_EQ(segment(), (Clips{{"a", 300}, {"b", 400}}));
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23 + 4096, 4096), kOther);
}

TEST_F(MediumIndexTest, TheSegmentsFollowAnotherStoragePath) {
    makeClip("a.mov", 100);
    makePlaylist("a.playlist");
    scan();
    ASSERT_EQ(mkdir(at("other").c_str(), 0777), 0);
    makeClip("other/b.mov", 100);
    makePlaylist("other/a.playlist");
    _config.put(kParamStoragePath, at("other"));
    EXPECT_EQ(heal(), Names{"b"});
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23, 4096), at("other/a.playlist"));
}

TEST_F(MediumIndexTest, AScanTakesThePlaylistsIn) {
    makePlaylist("b.playlist", kOther, 2000);
    makePlaylist("a.playlist", kShow, 1000);
    makePlaylist("broken.playlist", R"({"cliplist": []})");
    makePlaylist("a.mov.playlist"); // a clip to the watcher, and no usable one
    makePlaylist("note.txt");
    scan();
    EXPECT_EQ(playlists(), (Names{"a.playlist", "b.playlist"}));
    const RawSegment segment(kPlaylistSegment);
    EXPECT_EQ(segment.text(23, 4096), at("a.playlist"));
    EXPECT_EQ(segment.text(23 + 4096, 4096), kShow);
    EXPECT_EQ(segment.word(23 + 8192), 1000);
    EXPECT_EQ(segment.word(23 + 8196 + 8192), 2000);
}

TEST_F(MediumIndexTest, AScannedAndAnAddedPlaylistHaveTheSameRecord) {
    makePlaylist("a.playlist", R"({"cliplist": ["a"], "name": ")" + std::string(6000, 'n') + "\"}", -5);
    scan();
    const std::string scanned = RawSegment(kPlaylistSegment).bytes(0, 23 + 8196);
    EXPECT_EQ(scanned.substr(23 + 4096, 12), "{\"cliplist\":");
    ClipFinder(&_config).flushAll();
    EXPECT_TRUE(MediaCache("NewCache").AddPlaylist(at("a.playlist")));
    EXPECT_TRUE(RawSegment(kPlaylistSegment).bytes(0, 23 + 8196) == scanned);
}

TEST_F(MediumIndexTest, PlaylistsComeGoAndChangeWithTheirFiles) {
    makePlaylist("a.playlist");
    makePlaylist("b.playlist");
    heal();
    EXPECT_EQ(playlists(), (Names{"a.playlist", "b.playlist"}));
    unlink(at("a.playlist").c_str());
    makePlaylist("b.playlist", kOther, 2000);
    makePlaylist("c.playlist");
    heal();
    EXPECT_EQ(playlists(), (Names{"b.playlist", "c.playlist"}));
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23 + 4096, 4096), kOther);
    EXPECT_EQ(RawSegment(kPlaylistSegment).word(23 + 8192), 2000);
    makePlaylist("b.playlist", "broken");
    heal();
    EXPECT_EQ(playlists(), Names{"c.playlist"});
}

TEST_F(MediumIndexTest, ALongPlaylistSelectsClipsBehindTheEndOfItsRecord) {
    makeClip("a.mov", 100);
    makePlaylist("long.playlist", R"({"name": ")" + std::string(6000, 'n') + R"(", "cliplist": ["a"]})");
    _config.put(kParamPlaylistName, "long");
    EXPECT_EQ(ClipFinder(&_config).findClips(true, true, true).size(), 1U);
}

TEST_F(MediumIndexTest, AFullSegmentTakesNoMoreAndFillsUpWhenThereIsRoom) {
    const std::string common = makeClip("0000.mov", 1000);
    for (int i = 1; i < 4096; ++i) {
        const std::string number = std::to_string(i);
        ASSERT_EQ(link(common.c_str(), at(std::string(4 - number.size(), '0') + number + ".mov").c_str()), 0);
    }
    EXPECT_EQ(healQuietly(), "");
    EXPECT_EQ(segment().size(), 4096U);
    makeClip("older.mov", 10);
    makeClip("newer.mov", 2000);
    const std::string said = healQuietly();
    EXPECT_NE(said.find("left out 2\n"), std::string::npos) << said;
    EXPECT_EQ(healQuietly(), ""); // no news
    Clips clips = segment();
    ASSERT_EQ(clips.size(), 4096U);
    EXPECT_EQ(clips.back().second, 1000);
    unlink(at("0007.mov").c_str());
    healQuietly();
    clips = segment();
    ASSERT_EQ(clips.size(), 4096U);
    EXPECT_EQ(clips.back(), (std::pair<std::string, std::int32_t>{"newer", 2000}));
    unlink(at("0008.mov").c_str());
    EXPECT_EQ(healQuietly(), "");
    EXPECT_EQ(segment().front(), (std::pair<std::string, std::int32_t>{"older", 10}));
}

TEST_F(MediumIndexTest, OfMorePlaylistsThanThereIsRoomForTheFirstAreKept) {
    for (int i = 0; i < 1026; ++i) {
        const std::string number = std::to_string(i);
        makePlaylist(std::string(4 - number.size(), '0') + number + ".playlist");
    }
    testing::internal::CaptureStderr();
    scan();
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("left out 2\n"), std::string::npos) << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    Names found = playlists();
    ASSERT_EQ(found.size(), 1024U);
    EXPECT_EQ(found.back(), "1023.playlist");
    unlink(at("0000.playlist").c_str());
    healQuietly();
    found = playlists();
    ASSERT_EQ(found.size(), 1024U);
    EXPECT_EQ(found.back(), "1024.playlist");
}

TEST_F(MediumIndexTest, ManyThreadsLookAtOnce) {
    for (int i = 0; i < 10; ++i) {
        makeClip("c" + std::to_string(i) + ".mov", static_cast<std::uint32_t>(100 + i));
        makePlaylist("p" + std::to_string(i) + ".playlist");
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([this, t] {
            for (int i = 0; i < 5; ++i) {
                if (t == 0) ClipFinder(&_config).scanMedia(_folder);
                EXPECT_EQ(heal().size(), 10U);
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(segment().size(), 10U);
    EXPECT_EQ(playlists().size(), 10U);
}

TEST_F(MediumIndexTest, NothingStaysOpen) {
    makeClip("a.mov", 100);
    makePlaylist("a.playlist");
    const std::size_t before = openDescriptors();
    heal();
    scan();
    EXPECT_EQ(openDescriptors(), before);
}

} // namespace
