#include "playlist.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>
#include <utime.h>

#include <atomic>
#include <map>
#include <thread>

#include "media/media_cache.h"
#include "read_file.h"
#include "tests/media/clip_files.h"

using nevo::media::MediaCache;
using nevo::media::Playlist;
using nevo::media::PlaylistCacheEntry;
using nevo::media::PlaylistReader;
using namespace clipfiles;

namespace {

using Names = std::vector<std::string>;

constexpr char kShowA[] = R"({"name": "Show A", "cliplist": ["Clip_0001", "Clip_0002"]})";

class PlaylistReaderTest : public testing::Test {
protected:
    bool read(const std::string& text) {
        std::istringstream stream(text);
        _playlist.name = "before";
        _playlist.clipList = {"before"};
        return PlaylistReader::Read(stream, _playlist);
    }

    Playlist _playlist;
};

TEST_F(PlaylistReaderTest, APlaylistHasANameAndClipsInFileOrder) {
    EXPECT_TRUE(read(kShowA));
    EXPECT_EQ(_playlist.name, "Show A");
    EXPECT_EQ(_playlist.clipList, (Names{"Clip_0001", "Clip_0002"}));
    EXPECT_TRUE(read(R"({"colour": [1], "cliplist": ["b", "a", "b"], "x": {}, "name": "B"})"));
    EXPECT_EQ(_playlist.clipList, (Names{"b", "a", "b"}));
    EXPECT_EQ(_playlist.name, "B");
}

TEST_F(PlaylistReaderTest, APlaylistOverSeveralLinesIsRejectedBecauseOnlyTheFirstLineIsParsed) {
    EXPECT_FALSE(read("{\"name\": \"A\",\n\"cliplist\": [\"a\"]}"));
    EXPECT_FALSE(read("\n" + std::string(kShowA)));
    EXPECT_EQ(_playlist.name, "before");
    EXPECT_TRUE(read(std::string(kShowA) + "\nrubbish"));
}

TEST_F(PlaylistReaderTest, TheLineFeedIsNotTakenIntoTheText) {
    std::istringstream stream(std::string(kShowA) + "\nnext");
    EXPECT_TRUE(PlaylistReader::Read(stream, _playlist));
    std::string rest;
    std::getline(stream, rest, '\0');
    EXPECT_EQ(rest, "\nnext");
}

TEST_F(PlaylistReaderTest, AnEmptyClipListIsAccepted) {
    EXPECT_TRUE(read(R"({"name": "A", "cliplist": []})"));
    EXPECT_EQ(_playlist.clipList, Names{});
}

TEST_F(PlaylistReaderTest, ANumberAmongStringsIsRejectedAndTheStringsAreCollectedAllTheSame) {
    EXPECT_FALSE(read(R"({"name": "A", "cliplist": ["a", 5, "b", null, ["c"], "d"]})"));
    EXPECT_EQ(_playlist.clipList, (Names{"a", "b", "d"}));
    EXPECT_EQ(_playlist.name, "A");
}

TEST_F(PlaylistReaderTest, WithoutAClipListTheNameIsFilledAndTheListUntouched) {
    EXPECT_FALSE(read(R"({"name": "A"})"));
    EXPECT_EQ(_playlist.name, "A");
    EXPECT_EQ(_playlist.clipList, Names{"before"});
}

TEST_F(PlaylistReaderTest, ANameThatIsNoStringIsNotTaken) {
    for (const char* name : {"5", "null", "[]", "{}", "true"}) {
        EXPECT_TRUE(read(R"({"cliplist": ["a"], "name": )" + std::string(name) + "}")) << name;
        EXPECT_EQ(_playlist.name, "before") << name;
    }
}

TEST_F(PlaylistReaderTest, AClipListWithoutEntriesOfItsOwnIsEmpty) {
    for (const char* list : {"5", "null", "{}", "\"a\""}) {
        EXPECT_TRUE(read(R"({"name": "A", "cliplist": )" + std::string(list) + "}")) << list;
        EXPECT_EQ(_playlist.clipList, Names{}) << list;
    }
}

TEST_F(PlaylistReaderTest, WhatIsNoJsonIsRejectedAndNothingTouched) {
    for (const std::string& text : {std::string(), std::string("{"), std::string("rubbish"),
                                    std::string(kShowA).substr(0, 40), std::string("{\"cliplist\": [\"a\"")}) {
        EXPECT_FALSE(read(text)) << text;
        EXPECT_EQ(_playlist.name, "before");
        EXPECT_EQ(_playlist.clipList, Names{"before"});
    }
    for (const char* text : {"[1, 2]", "5", "\"cliplist\"", "null"}) EXPECT_FALSE(read(text)) << text;
}

// The buffer holds 544,767 characters and the end.
TEST_F(PlaylistReaderTest, ALineIsReadUpToTheLengthOfTheBuffer) {
    const std::string begin = R"({"name": ")";
    const std::string end = R"(", "cliplist": ["a"]})";
    const std::string filling(544'767 - begin.size() - end.size(), 'x');
    EXPECT_TRUE(read(begin + filling + end));
    EXPECT_EQ(_playlist.name, filling);
    EXPECT_FALSE(read(begin + filling + "x" + end));
    EXPECT_TRUE(read(begin + end + std::string(2'000'000, ' ')));
}

class PlaylistTest : public SegmentTest {
protected:
    std::string make(const std::string& name, const std::string& text, time_t modified = 1000) const {
        writeFile(at(name), text);
        const utimbuf times{modified, modified};
        EXPECT_EQ(utime(at(name).c_str(), &times), 0);
        return at(name);
    }
    static bool add(const std::string& path) { return MediaCache("NewCache").AddPlaylist(path); }
    // What AddPlaylist says about a file that it refuses; the segment stays as it is.
    std::string refused(const std::string& path) {
        { MediaCache made("NewCache"); }
        const std::string before = RawSegment(kPlaylistSegment).bytes(0, 23 + 3 * 8196);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(add(path)) << path;
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(RawSegment(kPlaylistSegment).bytes(0, 23 + 3 * 8196) == before) << path;
        return said;
    }
    // Writes `count` made-up playlists, "old_0000" upwards.
    static void fill(std::int32_t count) {
        RawSegment segment(kPlaylistSegment);
        segment.put(0, "SharedPlaylistCache");
        segment.putWord(19, count);
        for (std::int32_t i = 0; i < count; ++i) {
            const std::string number = std::to_string(i);
            segment.putPlaylist(i, "/m/old_" + std::string(4 - number.size(), '0') + number + ".playlist", "{}", i);
        }
    }
};

TEST_F(PlaylistTest, APlaylistIsStoredWithItsPathItsTextAndItsTime) {
    const std::string path = make("show.playlist", std::string(kShowA) + "\nmore\n", 1'234'567'890);
    EXPECT_TRUE(add(path));
    const RawSegment segment(kPlaylistSegment);
    EXPECT_EQ(segment.bytes(0, 19), "SharedPlaylistCache");
    EXPECT_EQ(segment.word(19), 1);
    std::string record = path + std::string(4096 - path.size(), '\0') + kShowA + "\nmore\n";
    record.resize(8192);
    EXPECT_EQ(segment.bytes(23, 8192), record);
    EXPECT_EQ(segment.word(23 + 8192), 1'234'567'890);
    EXPECT_EQ(segment.bytes(23 + 8196, 8196), std::string(8196, '\0'));
}

TEST_F(PlaylistTest, RecordsStandInTheOrderOfTheirNames) {
    for (const char* name : {"m.playlist", "Z.playlist", "a.playlist"}) EXPECT_TRUE(add(make(name, kShowA)));
    const RawSegment segment(kPlaylistSegment);
    EXPECT_EQ(segment.word(19), 3);
    EXPECT_EQ(segment.text(23, 4096), at("Z.playlist"));
    EXPECT_EQ(segment.text(23 + 8196, 4096), at("a.playlist"));
    EXPECT_EQ(segment.text(23 + 2 * 8196, 4096), at("m.playlist"));
}

TEST_F(PlaylistTest, OfALongFileTheFirst4096BytesAreStored) {
    const std::string text = R"({"cliplist": ["a"], "name": ")" + std::string(6000, 'n') + "\"}";
    EXPECT_TRUE(add(make("long.playlist", text)));
    EXPECT_EQ(RawSegment(kPlaylistSegment).bytes(23 + 4096, 4096), text.substr(0, 4096));
    EXPECT_EQ(RawSegment(kPlaylistSegment).word(23 + 8192), 1000);
}

TEST_F(PlaylistTest, OfTwoFilesOfOneNameTheOneAddedLastWins) {
    ASSERT_EQ(mkdir(at("a").c_str(), 0777), 0);
    ASSERT_EQ(mkdir(at("b").c_str(), 0777), 0);
    EXPECT_TRUE(add(make("b/show.playlist", kShowA)));
    EXPECT_TRUE(add(make("a/show.playlist", kShowA)));
    EXPECT_EQ(RawSegment(kPlaylistSegment).word(19), 1);
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23, 4096), at("a/show.playlist"));
}

TEST_F(PlaylistTest, AChangedFileReplacesItsRecordAndItsTime) {
    EXPECT_TRUE(add(make("show.playlist", kShowA, 1000)));
    EXPECT_TRUE(add(make("show.playlist", R"({"name": "B", "cliplist": []})", 2000)));
    const RawSegment segment(kPlaylistSegment);
    EXPECT_EQ(segment.word(19), 1);
    EXPECT_EQ(segment.text(23 + 4096, 4096), R"({"name": "B", "cliplist": []})"); // and nothing of the longer text
    EXPECT_EQ(segment.word(23 + 8192), 2000);
}

TEST_F(PlaylistTest, ASegmentWithoutTheMagicCountsAsEmpty) {
    { MediaCache made("NewCache"); }
    fill(3);
    RawSegment(kPlaylistSegment).put(18, "E");
    EXPECT_TRUE(add(make("show.playlist", kShowA)));
    EXPECT_EQ(RawSegment(kPlaylistSegment).word(19), 1);
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23, 4096), at("show.playlist"));
    EXPECT_EQ(RawSegment(kPlaylistSegment).text(23 + 8196, 4096), "/m/old_0001.playlist"); // stale, and stays
}

TEST_F(PlaylistTest, AMissingFileIsReportedWithItsPath) {
    EXPECT_EQ(refused(at("missing.playlist")), at("missing.playlist") + ": No such file or directory\n");
}

TEST_F(PlaylistTest, WhatIsNoPlaylistIsRefusedWithoutAWord) {
    EXPECT_EQ(refused(make("a.playlist", "rubbish")), "");
    EXPECT_EQ(refused(make("a.playlist", "")), "");
    EXPECT_EQ(refused(make("a.playlist", R"({"name": "A"})")), "");
    EXPECT_EQ(refused(make("a.playlist", R"({"name": "A", "cliplist": [1]})")), "");
    EXPECT_EQ(refused(make("a.playlist", "{\"name\": \"A\",\n\"cliplist\": []}")), "");
}

TEST_F(PlaylistTest, ADocumentWithoutANameIsRefused) {
    EXPECT_EQ(refused(make("a.playlist", R"({"cliplist": ["a"]})")), "");
    EXPECT_EQ(refused(make("a.playlist", "{\"cliplist\": [\"a\"]}\n{\"name\": \"A\"}")), "");
    EXPECT_TRUE(add(make("a.playlist", R"({"cliplist": ["a"], "name": ""})")));
}

TEST_F(PlaylistTest, ADocumentThatIsNoObjectIsRefused) {
    for (const char* text : {"[]", R"(["name", "cliplist"])", R"([{"name": "A", "cliplist": []}])", "5", "\"name\"",
                             "null", "true", "{}"})
        EXPECT_EQ(refused(make("a.playlist", text)), "") << text;
}

TEST_F(PlaylistTest, ADeepDocumentIsRefused) {
    for (const std::size_t depth : {std::size_t{1'500}, std::size_t{200'000}}) {
        EXPECT_EQ(refused(make("a.playlist", std::string(depth, '['))), "");
        EXPECT_EQ(refused(make("a.playlist", R"({"name": "A", "cliplist": )" + std::string(depth, '[') +
                                                 std::string(depth, ']') + "}")), "");
        std::string objects = R"({"name": "A", "cliplist": [], "x": )";
        for (std::size_t i = 0; i < depth; ++i) objects += "{\"x\":";
        EXPECT_EQ(refused(make("a.playlist", objects + "1" + std::string(depth + 1, '}'))), "");
    }
}

TEST_F(PlaylistTest, AHugeDocumentIsRefusedOrReadAsFarAsTheReaderGoes) {
    std::string wide = R"({"name": "A", "cliplist": ["a")";
    while (wide.size() < 400'000) wide += ", \"a\"";
    EXPECT_TRUE(add(make("wide.playlist", wide + "]}")));
    while (wide.size() < 600'000) wide += ", \"a\"";
    EXPECT_EQ(refused(make("wider.playlist", wide + "]}")), "");
    EXPECT_TRUE(add(make("tail.playlist", std::string(kShowA) + "\n" + std::string(5'000'000, 'x'))));
    make("huge.playlist", kShowA);
    ASSERT_EQ(truncate(at("huge.playlist").c_str(), 16 * 1024 * 1024 + 1), 0);
    const std::string said = refused(at("huge.playlist"));
    EXPECT_NE(said.find(" this is too large for a playlist: " + at("huge.playlist") + "\n"), std::string::npos) << said;
    ASSERT_EQ(truncate(at("huge.playlist").c_str(), 16 * 1024 * 1024), 0);
    EXPECT_TRUE(add(at("huge.playlist")));
    // A hole of a size that no memory has.
    ASSERT_EQ(truncate(at("huge.playlist").c_str(), off_t{1} << 40), 0);
    EXPECT_NE(refused(at("huge.playlist")), "");
}

TEST_F(PlaylistTest, EveryTruncationOfAPlaylistIsRefused) {
    const std::string text = kShowA;
    for (std::size_t size = 0; size < text.size(); ++size)
        EXPECT_EQ(refused(make("a.playlist", text.substr(0, size))), "") << size;
}

TEST_F(PlaylistTest, TheTextEndsAtItsFirstNulByte) {
    EXPECT_TRUE(add(make("a.playlist", std::string(kShowA) + std::string("\0more", 5))));
    EXPECT_EQ(RawSegment(kPlaylistSegment).bytes(23 + 4096, 70), kShowA + std::string(70 - sizeof kShowA + 1, '\0'));
    const std::string text = kShowA;
    for (std::size_t at = 0; at < text.size(); ++at) {
        std::string cut = text;
        cut[at] = '\0';
        EXPECT_EQ(refused(make("a.playlist", cut)), "") << at;
    }
    EXPECT_EQ(refused(make("a.playlist", std::string(5000, '\0'))), "");
}

TEST_F(PlaylistTest, NoByteInAPlaylistDoesHarm) {
    const std::string text = R"({"name": "\u00e9\ud83d\ude00", "cliplist": ["a\\b\n", "\"c\"", 1e400]})";
    const auto limit = static_cast<int>(text.size());
    for (int at = 0; at < limit; ++at) {
        for (const char byte : {'\x80', '\xff', '\\', '"', '[', '{', '\x01', 'u', '-'}) {
            std::string changed = text;
            changed[static_cast<std::size_t>(at)] = byte;
            PlaylistCacheEntry entry;
            Playlist playlist;
            nevo::media::readPlaylistFile(make("a.playlist", changed), entry, playlist);
        }
    }
}

TEST_F(PlaylistTest, OnlyRegularFilesAreRead) {
    ASSERT_EQ(mkfifo(at("pipe.playlist").c_str(), 0666), 0);
    EXPECT_EQ(refused(at("pipe.playlist")), ""); // and does not wait for a writer
    ASSERT_EQ(mkdir(at("folder.playlist").c_str(), 0777), 0);
    EXPECT_EQ(refused(at("folder.playlist")), "");
    ASSERT_EQ(symlink("/dev/zero", at("device.playlist").c_str()), 0);
    EXPECT_EQ(refused(at("device.playlist")), "");
    ASSERT_EQ(symlink(at("pipe.playlist").c_str(), at("pipelink.playlist").c_str()), 0);
    EXPECT_EQ(refused(at("pipelink.playlist")), "");
    ASSERT_EQ(symlink("nowhere", at("dangling.playlist").c_str()), 0);
    EXPECT_NE(refused(at("dangling.playlist")), "");
    make("real.playlist", kShowA);
    ASSERT_EQ(symlink("real.playlist", at("link.playlist").c_str()), 0);
    EXPECT_TRUE(add(at("link.playlist")));
}

// A pipe that takes the file's place between the look and the open.
TEST_F(PlaylistTest, OpeningAFifoDoesNotWaitForAWriter) {
    ASSERT_EQ(mkfifo(at("pipe").c_str(), 0666), 0);
    std::string text = "before";
    EXPECT_TRUE(read_file(at("pipe"), text));
    EXPECT_EQ(text, "");
}

// The kernel's attribute files have a size of a page and less in them.
TEST_F(PlaylistTest, AFileThatGivesLessThanItsSizeIsReportedAndRefused) {
    const std::string path = "/sys/class/net/lo/mtu";
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || status.st_size < 100) GTEST_SKIP() << "no such file here";
    EXPECT_EQ(refused(path), "::read_file - read failed to read enough data\n");
}

TEST_F(PlaylistTest, AFileThatCannotBeOpenedIsRefusedWithoutAWord) {
    std::string text = "before";
    testing::internal::CaptureStderr();
    EXPECT_FALSE(read_file(at("missing"), text));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(text, "");
}

TEST_F(PlaylistTest, AFileThatShrinksWhileItIsReadIsReadOrRefused) {
    const std::string path = make("a.playlist", kShowA);
    const std::string whole = std::string(kShowA) + "\n" + std::string(300'000, 'x');
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop) {
            writeFile(path, whole);
            EXPECT_EQ(truncate(path.c_str(), 10), 0);
        }
    });
    testing::internal::CaptureStderr();
    for (int i = 0; i < 300; ++i) {
        PlaylistCacheEntry entry;
        Playlist playlist;
        if (nevo::media::readPlaylistFile(path, entry, playlist)) {
            EXPECT_EQ(playlist.name, "Show A");
            EXPECT_EQ(std::string(entry.text, sizeof kShowA - 1), kShowA);
        }
    }
    testing::internal::GetCapturedStderr();
    stop = true;
    writer.join();
}

TEST_F(PlaylistTest, TheLongestPathThatTheKernelTakesFits) {
    std::string path = _folder;
    while (path.size() < 4000) path += "/./././././././././././.";
    path += std::string(4095 - path.size() - 10, '/') + "a.playlist";
    ASSERT_EQ(path.size(), 4095U);
    make("a.playlist", kShowA);
    EXPECT_TRUE(add(path));
    EXPECT_EQ(RawSegment(kPlaylistSegment).bytes(23, 4096), path + std::string(1, '\0'));
}

TEST_F(PlaylistTest, ThePlaylistThatDoesNotFitStaysOutAndAReplacementFits) {
    MediaCache cache("NewCache");
    fill(1023);
    EXPECT_TRUE(cache.hasRoomForPlaylist(at("last.playlist")));
    EXPECT_TRUE(add(make("last.playlist", kShowA)));
    RawSegment segment(kPlaylistSegment);
    EXPECT_EQ(segment.word(19), 1024);

    EXPECT_FALSE(cache.hasRoomForPlaylist(make("toomany.playlist", kShowA)));
    const std::string before = readFile(kPlaylistSegment);
    EXPECT_FALSE(cache.AddPlaylist(at("toomany.playlist")));
    EXPECT_TRUE(readFile(kPlaylistSegment) == before);

    EXPECT_TRUE(cache.hasRoomForPlaylist(make("old_1000.playlist", kShowA)));
    EXPECT_FALSE(cache.hasRoomForPlaylist(at("old_100.playlist")));
    EXPECT_TRUE(cache.AddPlaylist(at("old_1000.playlist")));
    EXPECT_EQ(segment.word(19), 1024);
    EXPECT_EQ(segment.text(23 + 8196 * 1001, 4096), at("old_1000.playlist"));
}

TEST_F(PlaylistTest, ACountBeyondTheCapacityIsNotBelieved) {
    MediaCache cache("NewCache");
    fill(1024);
    RawSegment segment(kPlaylistSegment);
    for (const std::int32_t count : {1025, 2'147'483'647, -1}) {
        segment.putWord(19, count);
        EXPECT_FALSE(cache.AddPlaylist(make("toomany.playlist", kShowA)));
        EXPECT_TRUE(cache.AddPlaylist(make("old_0000.playlist", kShowA)));
        EXPECT_EQ(segment.word(19), 1024);
    }
    EXPECT_EQ(segment.size(), 8'392'727);
}

TEST_F(PlaylistTest, AListIsWrittenWholeInItsOrder) {
    nevo::media::SharedSegments segments("NewCache");
    fill(3);
    bool written = false;
    auto playlists = nevo::media::takePlaylists(segments.playlists, segments.playlistMutex, written);
    ASSERT_EQ(playlists.size(), 3U);
    playlists.erase(std::next(playlists.begin()));
    nevo::media::storePlaylists(segments.playlists, segments.playlistMutex, playlists);
    const RawSegment segment(kPlaylistSegment);
    EXPECT_EQ(segment.word(19), 2);
    EXPECT_EQ(segment.text(23, 4096), "/m/old_0000.playlist");
    EXPECT_EQ(segment.text(23 + 8196, 4096), "/m/old_0002.playlist");
    EXPECT_EQ(segment.text(23 + 2 * 8196, 4096), "/m/old_0002.playlist"); // behind the count, as it was
    nevo::media::storePlaylists(segments.playlists, segments.playlistMutex, {});
    EXPECT_EQ(segment.word(19), 0);
    EXPECT_EQ(segment.bytes(0, 19), "SharedPlaylistCache");
}

TEST_F(PlaylistTest, NothingStaysOpen) {
    const std::size_t before = openDescriptors();
    add(make("a.playlist", kShowA));
    refused(make("b.playlist", "rubbish"));
    refused(at("missing.playlist"));
    EXPECT_EQ(openDescriptors(), before);
}

} // namespace
