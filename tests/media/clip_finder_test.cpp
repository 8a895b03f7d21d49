#include "clip_finder.h"

#include <gtest/gtest.h>

#include <boost/interprocess/exceptions.hpp>
#include <cerrno>

#include "media/media_cache.h"
#include "parameters.h"
#include "tests/fakes/fakes.h"
#include "tests/media/clip_files.h"

using namespace clipfiles;

namespace {

using Clips = std::vector<std::pair<std::string, std::int32_t>>;
using Names = std::vector<std::string>;

class ClipFinderTest : public SegmentTest {
protected:
    ClipFinder finder() { return ClipFinder(&_config); }

    void scan() { finder().scanMedia(_folder); }
    Clips segment() const { return RawSegment(kClipSegment).clips(); }

    static Names names(const std::list<Clip>& clips) {
        Names found;
        for (const Clip& clip : clips) found.emplace_back(clip.name);
        return found;
    }
    Names find(bool a, bool b, bool c) { return names(finder().findClips(a, b, c)); }

    static std::list<Clip> listOf(const Names& clipNames) {
        std::list<Clip> clips;
        for (const std::string& name : clipNames) std::strcpy(clips.emplace_back().name, name.c_str());
        return clips;
    }
    std::string next(const Names& clips, const std::string& current, const std::set<std::string>& deleted) {
        return finder().NextClipNameAfterDelete(listOf(clips), current, deleted);
    }
    // The next take after a medium with these clips.
    int nextTake(const Names& clipNames, int before = 0) {
        _config.put(kParamNextTakeNumber, before);
        std::list<Clip> clips = listOf(clipNames);
        finder().ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
        return _config.integer(kParamNextTakeNumber);
    }
    // Three clips in the segment and one playlist.
    void publish(const std::string& playlistPath, const std::string& playlistText) {
        makeClip("a.mov", 300);
        makeClip("b.mov", 200);
        makeClip("Scene 1.5.mov", 100);
        scan();
        RawSegment playlists(kPlaylistSegment);
        playlists.putPlaylist(0, "/m/other.playlist", R"({"name": "Other", "cliplist": ["b"]})", 1);
        playlists.putPlaylist(1, playlistPath, playlistText, 1);
        playlists.putWord(19, 2);
    }

    fakes::Journal _journal;
    fakes::FakeConfig _config{_journal};
};

TEST_F(ClipFinderTest, ConstructionMakesTheSegmentsAndKeepsTheirContents) {
    { const ClipFinder first(&_config); }
    RawSegment segment(kClipSegment);
    EXPECT_EQ(segment.size(), 26'771'475);
    EXPECT_EQ(RawSegment(kPlaylistSegment).size(), 8'392'727);
    segment.fillClips(2);
    { const ClipFinder again(&_config); }
    EXPECT_EQ(segment.clips().size(), 2U);
    for (const char* name : {kClipSegment, kPlaylistSegment, kClipMutex, kPlaylistMutex}) {
        struct stat status {};
        ASSERT_EQ(stat(name, &status), 0) << name;
        EXPECT_EQ(status.st_mode & 07777U, 0777U) << name;
    }
}

TEST_F(ClipFinderTest, AFailingConstructionReleasesWhatItOpened) {
    ASSERT_EQ(mkdir(kPlaylistMutex, 0700), 0);
    const std::size_t before = openDescriptors();
    EXPECT_THROW(ClipFinder finder(&_config), boost::interprocess::interprocess_exception);
    EXPECT_EQ(openDescriptors(), before);
    rmdir(kPlaylistMutex);
}

TEST_F(ClipFinderTest, AScanFillsTheSegmentInTimeOrder) {
    makeClip("late.mov", 300);
    makeClip("early.mov", 100);
    makeClip("middle.MOV", 200, "AVdn");
    scan();
    EXPECT_EQ(segment(), (Clips{{"early", 100}, {"middle", 200}, {"late", 300}}));
    EXPECT_EQ(RawSegment(kClipSegment).word(19 + 6536 + 4100), 2); // frames of "middle"
}

// Every byte that a name can have, the longest name, and what a shell or a terminal would act on.
TEST_F(ClipFinderTest, NamesWithAnythingInThemAreListedAndSaidNowhere) {
    std::vector<std::string> stems = {"\x1b[2J\x1b]0;x\x07", "a\nb", "\"; rm -rf $(pwd) `id` \\", "-rf", "%s%n%x", "\xc2\x9b" "2J",
                                      "\xe0\x80", std::string(251, 'x')};
    for (int c = 1; c < 256; ++c)
        if (c != '/') stems.push_back("byte" + std::string(1, static_cast<char>(c)));
    std::uint32_t time = 100;
    for (const std::string& stem : stems) makeClip(stem + ".mov", time++);
    writeFile(at("\x1b[2J.playlist"), "no playlist");
    ASSERT_EQ(mkdir(at("\x1b[3J.mov").c_str(), 0755), 0);
    ASSERT_EQ(symlink("/dev/zero", at("\x1b[4J.mov").c_str()), 0);
    const fakes::StandardError error;
    scan();
    Names expected = stems;
    Names listed;
    for (const auto& [name, when] : segment()) listed.push_back(name);
    // A name ends at its last dot, and one of the bytes is a dot.
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(find(true, false, true), expected);
    // One that cannot be read.
    finder().scanMedia(_folder + "/\x1b[2J");
    const std::string said = error.text();
    EXPECT_NE(said.find("/?[2J"), std::string::npos) << said;
    for (const char c : said) EXPECT_TRUE(c == '\n' || (static_cast<unsigned char>(c) >= ' ' && c != 0x7f)) << said;
    for (const std::string& name : expected) finder().removeClip(at(name + ".mov"));
}

TEST_F(ClipFinderTest, ClipsOfOneTimeStandInTheOrderOfTheirNames) {
    for (const char* name : {"m.mov", "z.mov", "a.mov", "k.mov"}) makeClip(name, 100);
    scan();
    EXPECT_EQ(segment(), (Clips{{"a", 100}, {"k", 100}, {"m", 100}, {"z", 100}}));
}

TEST_F(ClipFinderTest, AScanReplacesWhatWasThere) {
    { const ClipFinder made(&_config); }
    RawSegment clips(kClipSegment);
    RawSegment playlists(kPlaylistSegment);
    clips.fillClips(5);
    playlists.put(0, "SharedPlaylistCache");
    playlists.putWord(19, 3);
    makeClip("new.mov", 100);
    scan();
    EXPECT_EQ(clips.clips(), (Clips{{"new", 100}}));
    EXPECT_EQ(playlists.bytes(0, 19), "SharedPlaylistCache");
    EXPECT_EQ(playlists.word(19), 0);
}

TEST_F(ClipFinderTest, AnEmptyDirectoryGivesMagicAndNoClip) {
    scan();
    EXPECT_EQ(RawSegment(kClipSegment).bytes(0, 15), "SharedClipCache");
    EXPECT_EQ(RawSegment(kClipSegment).word(15), 0);
    EXPECT_EQ(RawSegment(kPlaylistSegment).bytes(0, 19), "SharedPlaylistCache");
    EXPECT_EQ(RawSegment(kPlaylistSegment).word(19), 0);
}

TEST_F(ClipFinderTest, ADirectoryThatCannotBeReadCountsAsEmptyAndIsReported) {
    { const ClipFinder made(&_config); }
    RawSegment(kClipSegment).fillClips(5);
    testing::internal::CaptureStderr();
    finder().scanMedia(at("missing"));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("missing: No such file or directory\n"), std::string::npos) << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
    EXPECT_EQ(segment(), Clips{});
}

TEST_F(ClipFinderTest, WhatIsNoClipStaysOut) {
    makeClip("good.mov", 100);
    writeFile(at("broken.mov"), "no clip");
    writeFile(at("foreign.mov"), clipBytes("foreign"));
    writeFile(at("empty.mov"), "");
    makeClip("noclip.Mov", 100);
    makeClip("noclip.mxf", 100);
    makeClip(".mov", 100);
    ASSERT_EQ(mkdir(at("folder.mov").c_str(), 0777), 0);
    makeClip("folder.mov/inside.mov", 100);
    ASSERT_EQ(mkfifo(at("pipe.mov").c_str(), 0666), 0);
    ASSERT_EQ(symlink(at("good.mov").c_str(), at("link.mov").c_str()), 0);
    scan();
    EXPECT_EQ(segment(), (Clips{{"good", 100}}));
}

TEST_F(ClipFinderTest, TheExtensionMayStandAnywhereInTheFullPath) {
    makeClip("clip.MOV.txt", 100);
    makeClip("x.movie", 200);
    ASSERT_EQ(mkdir(at("medium.mov.d").c_str(), 0777), 0);
    makeClip("medium.mov.d/other.txt", 300);
    scan();
    EXPECT_EQ(segment(), (Clips{{"clip.MOV", 100}, {"x", 200}}));
    finder().scanMedia(at("medium.mov.d"));
    EXPECT_EQ(segment(), (Clips{{"other", 300}}));
}

TEST_F(ClipFinderTest, AFileThatIsOpenForWritingIsLeftOut) {
    makeClip("done.mov", 100);
    const std::string growing = makeClip("growing.mov", 200);
    const int reader = open(at("done.mov").c_str(), O_RDONLY | O_CLOEXEC);
    const int writer = open(growing.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_NE(writer, -1);
    scan();
    EXPECT_EQ(segment(), (Clips{{"done", 100}}));
    close(writer);
    close(reader);
    scan();
    EXPECT_EQ(segment(), (Clips{{"done", 100}, {"growing", 200}}));
}

TEST_F(ClipFinderTest, TheCodecFlagIsSetAgainstTheEncodeTypeInUse) {
    makeClip("a.mov", 100, "apch");
    makeClip("b.mov", 200, "AVdn");
    makeClip("c.mov", 300, "ap4h");
    const auto flags = [this](int encodeType) {
        _config.put(kParamEncodeType, encodeType);
        scan();
        std::string found;
        for (std::int64_t i = 0; i < 3; ++i)
            found += static_cast<char>('0' + RawSegment(kClipSegment).bytes(19 + 6536 * i + 4132, 1)[0]);
        return found;
    };
    EXPECT_EQ(flags(0), "000");
    for (const int prores : {1, 2, 3, 4, 5}) EXPECT_EQ(flags(prores), "101");
    EXPECT_EQ(flags(6), "010");
    EXPECT_EQ(flags(7), "000");
}

TEST_F(ClipFinderTest, AScanAndAddingTheSameClipGiveTheSameRecord) {
    const std::string path = makeClip("a.mov", 100, "apcs");
    _config.put(kParamEncodeType, 2);
    scan();
    const std::string scanned = RawSegment(kClipSegment).bytes(0, 19 + 6536);
    finder().flushClips();
    int index = -1;
    ASSERT_TRUE(nevo::media::MediaCache("NewCache").AddClip(path, 2, index, false));
    EXPECT_EQ(RawSegment(kClipSegment).bytes(0, 19 + 6536), scanned);
}

TEST_F(ClipFinderTest, OfTwoFilesOfOneClipNameTheLaterFileNameCounts) {
    makeClip("clip.MOV", 100);
    makeClip("clip.mov", 50);
    makeClip("clip.mov.bak", 10);
    scan();
    EXPECT_EQ(segment(), (Clips{{"clip.mov", 10}, {"clip", 50}}));
}

TEST_F(ClipFinderTest, OfMoreClipsThanThereIsRoomForTheNewestAreKept) {
    const std::string common = makeClip("0000.mov", 1000);
    for (int i = 1; i < 4096; ++i) {
        std::string name = std::to_string(i);
        name = std::string(4 - name.size(), '0') + name + ".mov";
        ASSERT_EQ(link(common.c_str(), at(name).c_str()), 0);
    }
    testing::internal::CaptureStderr();
    scan();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(segment().size(), 4096U);

    makeClip("oldest.mov", 10);
    makeClip("newest.mov", 2000);
    testing::internal::CaptureStderr();
    scan();
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    EXPECT_NE(said.find("left out 2\n"), std::string::npos) << said;
    const Clips clips = segment();
    ASSERT_EQ(clips.size(), 4096U);
    EXPECT_EQ(clips.front(), (std::pair<std::string, std::int32_t>{"0001", 1000}));
    EXPECT_EQ(clips.back(), (std::pair<std::string, std::int32_t>{"newest", 2000}));
}

TEST_F(ClipFinderTest, FlushClipsEmptiesTheClipSegmentOnly) {
    { const ClipFinder made(&_config); }
    RawSegment clips(kClipSegment);
    RawSegment playlists(kPlaylistSegment);
    clips.fillClips(2);
    playlists.put(0, "SharedPlaylistCache");
    playlists.putWord(19, 1);
    finder().flushClips();
    EXPECT_EQ(clips.bytes(0, 15), "SharedClipCache");
    EXPECT_EQ(clips.word(15), 0);
    EXPECT_EQ(clips.text(19, 20), "old_0000"); // stale bytes stay
    EXPECT_EQ(playlists.word(19), 1);
}

TEST_F(ClipFinderTest, FlushAllEmptiesBothSegments) {
    { const ClipFinder made(&_config); }
    RawSegment clips(kClipSegment);
    RawSegment playlists(kPlaylistSegment);
    clips.fillClips(2);
    playlists.put(0, "SharedPlaylistCache");
    playlists.putWord(19, 1);
    finder().flushAll();
    EXPECT_EQ(clips.word(15), 0);
    EXPECT_EQ(playlists.bytes(0, 19), "SharedPlaylistCache");
    EXPECT_EQ(playlists.word(19), 0);
}

TEST_F(ClipFinderTest, FindClipsGivesTheSegmentInTimeOrder) {
    EXPECT_EQ(find(true, false, true), Names{});
    RawSegment segment(kClipSegment);
    segment.fillClips(3);
    segment.putWord(19 + 4096, 5000);
    const Names inTimeOrder{"old_0001", "old_0002", "old_0000"};
    for (const bool a : {false, true})
        for (const bool b : {false, true})
            for (const bool c : {false, true})
                if (!(a && b)) {
                    EXPECT_EQ(find(a, b, c), inTimeOrder) << a << b << c;
                }
}

TEST_F(ClipFinderTest, BothFlagsRestrictToTheSelectedPlaylist) {
    publish("/m/show.playlist", R"({"name": "Show", "cliplist": ["a", "Scene 1.5", "missing", "b.mov", "a.mov"]})");
    _config.put(kParamPlaylistName, "show");
    for (const bool refresh : {false, true})
        EXPECT_EQ(find(true, true, refresh), (Names{"Scene 1.5", "b", "a"}));
    EXPECT_EQ(find(true, false, true), (Names{"Scene 1.5", "b", "a"}));
    EXPECT_EQ(find(false, true, true), (Names{"Scene 1.5", "b", "a"}));
    _config.put(kParamPlaylistName, "other");
    EXPECT_EQ(find(true, true, true), Names{"b"});
}

TEST_F(ClipFinderTest, WithoutAUsablePlaylistOfThatNameThereIsNoClip) {
    publish("/m/show.playlist", R"({"name": "Show", "cliplist": ["a"]})");
    for (const char* name : {"", "nothing", "Show"}) {
        _config.put(kParamPlaylistName, name);
        EXPECT_EQ(find(true, true, true), Names{}) << name;
    }
    _config.put(kParamPlaylistName, "show");
    EXPECT_EQ(find(true, true, true), Names{"a"});
    // No JSON, JSON of another kind, JSON that goes on in the next line, JSON that does not fit into the record.
    for (const std::string& text :
         {std::string("rubbish"), std::string("[1]"), std::string(R"({"cliplist": 1})"), std::string(""),
          std::string("{\"cliplist\":\n[\"a\"]}"), R"({"cliplist": ["a"], "x": ")" + std::string(5000, 'x') + "\"}"}) {
        RawSegment(kPlaylistSegment).putPlaylist(1, "/m/show.playlist", text, 1);
        EXPECT_EQ(find(true, true, true), Names{}) << text;
    }
    RawSegment(kPlaylistSegment)
        .putPlaylist(1, "/m/show.playlist", "{\"cliplist\": [1, \"b\", null]}\nand more", 1);
    EXPECT_EQ(find(true, true, true), Names{"b"});
}

TEST_F(ClipFinderTest, ThePlaylistSegmentNeedsItsMagic) {
    publish("/m/show.playlist", R"({"cliplist": ["a"]})");
    _config.put(kParamPlaylistName, "show");
    RawSegment(kPlaylistSegment).put(0, "X");
    EXPECT_EQ(find(true, true, true), Names{});
}

TEST_F(ClipFinderTest, TheCurrentClipStaysCurrentWhereItSurvives) {
    EXPECT_EQ(next({"a", "b", "c"}, "b", {"a.mov", "c.mov"}), "b");
    EXPECT_EQ(next({"a", "b", "c"}, "b.mov", {"a.mov"}), "b.mov");
    EXPECT_EQ(next({"a", "b", "c"}, "b", {}), "b");
    EXPECT_EQ(next({"Clip_1", "Clip_12"}, "Clip_1", {"Clip_12.mov"}), "Clip_1");
}

TEST_F(ClipFinderTest, ElseTheNextSurvivorInTheListIsCurrent) {
    EXPECT_EQ(next({"a", "b", "c"}, "a", {"a.mov"}), "b");
    EXPECT_EQ(next({"a", "b", "c", "d"}, "b", {"b.MOV", "c.mov"}), "d");
    EXPECT_EQ(next({"a", "b", "c"}, "b.mov", {"b"}), "c");
    EXPECT_EQ(next({"z", "y", "x"}, "z", {"z.mov", ""}), "y");
}

TEST_F(ClipFinderTest, ElseTheLastSurvivorIsCurrent) {
    EXPECT_EQ(next({"a", "b", "c", "d"}, "d", {"d.mov"}), "c");
    EXPECT_EQ(next({"a", "b", "c", "d"}, "c", {"c.mov", "d.mov"}), "b");
}

TEST_F(ClipFinderTest, WithoutSurvivorsThereIsNoCurrentClip) {
    EXPECT_EQ(next({"a"}, "a", {"a.mov"}), "N/A");
    EXPECT_EQ(next({"a", "b"}, "b", {"a.mov", "b.mov"}), "N/A");
    EXPECT_EQ(next({"a", "b"}, "a", {"*"}), "N/A");
    EXPECT_EQ(next({"a", "b"}, "a", {"*", "x.mov"}), "N/A");
}

TEST_F(ClipFinderTest, ACurrentNameThatIsNotInTheListIsGivenBack) {
    EXPECT_EQ(next({"a", "b"}, "x", {"a.mov", "x.mov"}), "x");
    EXPECT_EQ(next({"a", "b"}, "x.mov", {"*"}), "x.mov");
    EXPECT_EQ(next({}, "N/A", {"*"}), "N/A");
    EXPECT_EQ(next({"a"}, "", {"a.mov"}), "");
}

TEST_F(ClipFinderTest, APointInANameIsNoExtension) {
    EXPECT_EQ(next({"Scene 1", "Scene 1.5"}, "Scene 1.5", {"Scene 1.mov"}), "Scene 1.5");
    EXPECT_EQ(next({"Scene 1", "Scene 1.5"}, "Scene 1.5", {"Scene 1.5.mov"}), "Scene 1");
    EXPECT_EQ(next({"Scene 1", "Scene 1.5"}, "Scene 1", {"Scene 1.5.mov"}), "Scene 1");
}

TEST_F(ClipFinderTest, TheNextTakeIsAboveTheHighestNumberThatEndsAClipsName) {
    EXPECT_EQ(nextTake({"Clip_0007", "Clip_0012", "Clip_0003"}), 13);
    EXPECT_EQ(nextTake({"Clip_9_0003", "Scene12A", "4"}), 5);
    EXPECT_EQ(nextTake({"Clip_0"}), 1);
}

TEST_F(ClipFinderTest, TheNextTakeIsNeverLoweredAndNotWrittenWithoutNeed) {
    _journal.clear();
    EXPECT_EQ(nextTake({"Clip_0007"}, 8), 8);
    EXPECT_EQ(nextTake({"Clip_0007"}, 100), 100);
    EXPECT_EQ(nextTake({}, 0), 0);
    EXPECT_EQ(nextTake({"none", ""}, 0), 0);
    EXPECT_EQ(_journal.take(), fakes::Lines{});
    EXPECT_EQ(nextTake({"Clip_0007"}, 7), 8);
    EXPECT_EQ(_journal.take(), fakes::Lines{"set 0x7b04030a 8"});
}

TEST_F(ClipFinderTest, NumbersBeyondTheParameterAreNoTakes) {
    EXPECT_EQ(nextTake({"Clip_2147483646"}), 2147483647);
    EXPECT_EQ(nextTake({"Clip_2147483647", "Clip_5"}), 6);
    EXPECT_EQ(nextTake({"Clip_20261120103000", "Clip_5"}), 6);
    EXPECT_EQ(nextTake({"Clip_" + std::string(4000, '9')}, 3), 3);
    EXPECT_EQ(nextTake({"Clip_" + std::string(4000, '0') + "5"}), 6);
}

} // namespace
