// clips and playlists, from segments that are written here byte by byte, good and hostile ones.

#include <cJSON.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>

#include "recorder.h"
#include "segment.h"

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

struct Listing : Recorder {
    ClipSegment clips;
    Segment playlists{"SharedPlaylistCache", kPlaylistSegment};

    void putClip(std::size_t index, const std::string& name, std::uint32_t time, char match,
                 const std::string& attributes) {
        clips.putClip(index, name, time, match, attributes);
    }
    void putPlaylist(std::size_t index, const std::string& path, const std::string& text, std::uint32_t modified) {
        const std::size_t begin = 23 + 8196 * index;
        playlists.put(begin, path).put(begin + 4096, text).put(begin + 8192, modified);
    }

    // The parsed output of a command that is done.
    static Json json(const std::string& command) {
        const Result result = mediactl({command, "--json"});
        EXPECT_EQ(result.status, 0) << result.errors;
        Json document(cJSON_ParseWithOpts(result.output.c_str(), nullptr, 1), &cJSON_Delete);
        EXPECT_TRUE(document) << result.output;
        EXPECT_TRUE(isUtf8(result.output));
        return document;
    }

    static void expectJson(const std::string& command, const std::string& expected) {
        const Json right(cJSON_Parse(expected.c_str()), &cJSON_Delete);
        ASSERT_TRUE(right) << expected;
        const Json found = json(command);
        const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_Print(found.get()), &cJSON_free);
        EXPECT_TRUE(cJSON_Compare(found.get(), right.get(), true)) << text.get();
    }

    // Empty, and said to be; done all the same.
    static void expectNothingYet() {
        for (const std::string command : {"clips", "playlists"}) {
            const Result result = mediactl({command, "--json"});
            EXPECT_EQ(result.status, 0);
            EXPECT_EQ(result.output, "[]\n");
            EXPECT_EQ(result.errors, "mediactl: no medium cache yet\n");
            const Result table = mediactl({command});
            EXPECT_EQ(table.status, 0);
            EXPECT_EQ(std::count(table.output.begin(), table.output.end(), '\n'), 1) << "the heading only";
            EXPECT_EQ(table.errors, "mediactl: no medium cache yet\n");
        }
    }
};

TEST(NoSegments, giveAnEmptyListAndAreNotMade) {
    Listing::expectNothingYet();
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm"));
}

TEST_F(Listing, ofSegmentsThatNobodyHasWrittenIsEmpty) {
    clips.store();
    playlists.store();
    expectNothingYet();
}

TEST_F(Listing, ofSegmentsInTheMakingIsEmpty) {
    clips.resize(0).store();
    playlists.resize(19).store();
    expectNothingYet();
}

TEST_F(Listing, ofClipsAsJson) {
    clips.put(0, "SharedClipCache").put(15, 2U);
    putClip(0, "Take 1", 0xffffffff, 1, "Format\n1080i\nEncode Type\n1\n");
    putClip(1,
            "Stra\xc3\x9f"
            "e",
            1763696400, 0, "Width\n\n1920\nWidth\n1280\nHeight\n");
    clips.store();
    expectJson("clips", R"([
        {"index": 0, "name": "Take 1", "time": -1, "encode_match": true,
         "attributes": {"Format": "1080i", "Encode Type": "1"}},
        {"index": 1, "name": "Straße", "time": 1763696400, "encode_match": false, "attributes": {"Width": "1280"}}])");
    EXPECT_EQ(clips.count(), 1) << "the mutex was given back";
}

TEST_F(Listing, ofClipsAsATable) {
    clips.put(0, "SharedClipCache").put(15, 2U);
    putClip(0, "Take\x1b[2J 1", 0, 1, "");
    putClip(1, "Take 2", 1763696400, 0, "");
    clips.store();
    const Result result = mediactl({"clips"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.output,
              "INDEX  TIME                     FRAMES  START        MATCH  NAME\n"
              "0      1970-01-01 00:00:00 UTC  250     10:00:00:00  yes    Take\\x1b[2J 1\n"
              "1      2025-11-21 03:40:00 UTC  250     10:00:00:00  no     Take 2\n");
}

TEST_F(Listing, ofPlaylistsAsJson) {
    playlists.put(0, "SharedPlaylistCache").put(19, 4U);
    putPlaylist(0, "/mnt/S1/NEVO/show.playlist", R"({"name":"Show A","cliplist":["Clip_1", "Clip_2"]})", 1763696400);
    putPlaylist(1, "/mnt/S1/NEVO/a.playlist.bak", "", 0);
    putPlaylist(2, "notes.txt", "two\nlines", 0xffffffff);
    putPlaylist(3, "/mnt/S1/NEVO/b/", R"({"name":"","cliplist":[]})", 0);
    playlists.store();
    expectJson("playlists", R"([
        {"index": 0, "name": "show", "title": "Show A", "path": "/mnt/S1/NEVO/show.playlist", "modified": 1763696400,
         "text": "{\"name\":\"Show A\",\"cliplist\":[\"Clip_1\", \"Clip_2\"]}", "clips": ["Clip_1", "Clip_2"],
         "complete": true},
        {"index": 1, "name": "a", "title": null, "path": "/mnt/S1/NEVO/a.playlist.bak", "modified": 0, "text": "",
         "clips": [], "complete": false},
        {"index": 2, "name": "notes.txt", "title": null, "path": "notes.txt", "modified": -1, "text": "two\nlines",
         "clips": [], "complete": false},
        {"index": 3, "name": "b", "title": "", "path": "/mnt/S1/NEVO/b/", "modified": 0,
         "text": "{\"name\":\"\",\"cliplist\":[]}", "clips": [], "complete": true}])");
    EXPECT_EQ(playlists.count(), 1) << "the mutex was given back";
}

TEST_F(Listing, ofPlaylistsAsATable) {
    playlists.put(0, "SharedPlaylistCache").put(19, 2U);
    putPlaylist(0, "/mnt/S1/NEVO/show.playlist", R"({"name":"\u001b[2J","cliplist":["Clip\u001b[2J_1","Clip_2"]})",
                1763696400);
    putPlaylist(1, "/mnt/S1/NEVO/x.playlist", "{}", 0);
    playlists.store();
    EXPECT_EQ(mediactl({"playlists"}).output,
              "INDEX  MODIFIED                 NAME  CLIPS  TITLE    PATH\n"
              "0      2025-11-21 03:40:00 UTC  show  2      \\x1b[2J  /mnt/S1/NEVO/show.playlist\n"
              "       Clip\\x1b[2J_1\n"
              "       Clip_2\n"
              "1      1970-01-01 00:00:00 UTC  x     ?      ?        /mnt/S1/NEVO/x.playlist\n"
              "       (this is no playlist)\n");
}

// A playlist of more text than a record holds, and the number of its clips.
std::string longPlaylist(int clips) {
    std::string text = R"({"name":"Long","cliplist":["Clip_0")";
    for (int i = 1; i < clips; ++i) text += ",\"Clip_" + std::to_string(i) + "\"";
    return text + "]}";
}

TEST_F(Listing, ofALongPlaylistReadsItsFile) {
    const std::string path = "/mnt/S1/NEVO/long.playlist";
    std::filesystem::create_directories("/mnt/S1/NEVO");
    const std::string text = longPlaylist(1000);
    playlists.put(0, "SharedPlaylistCache").put(19, 1U);
    putPlaylist(0, path, text.substr(0, 4096), 0);
    playlists.store();
    writeFile(path, text);
    const Json whole = json("playlists");
    const cJSON* entry = cJSON_GetArrayItem(whole.get(), 0);
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(entry, "complete")));
    EXPECT_STREQ(cJSON_GetObjectItem(entry, "title")->valuestring, "Long");
    ASSERT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(entry, "clips")), 1000);
    EXPECT_STREQ(cJSON_GetArrayItem(cJSON_GetObjectItem(entry, "clips"), 999)->valuestring, "Clip_999");

    // What is not there, or no playlist any more, leaves the list cut.
    const auto expectCut = [&path] {
        const Json cut = json("playlists");
        const cJSON* record = cJSON_GetArrayItem(cut.get(), 0);
        EXPECT_FALSE(cJSON_IsTrue(cJSON_GetObjectItem(record, "complete")));
        EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItem(record, "title")));
        EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(record, "clips")), 0);
        const Result table = mediactl({"playlists"});
        EXPECT_EQ(table.status, 0);
        EXPECT_EQ(table.errors, "");
        EXPECT_NE(table.output.find(path + "\n       (the list is cut: "), std::string::npos) << table.output;
    };
    writeFile(path, text.substr(0, 5000));
    expectCut();
    std::filesystem::remove(path);
    expectCut();
    ASSERT_EQ(mkfifo(path.c_str(), 0666), 0); // must not hang
    expectCut();
    std::filesystem::remove(path);
}

TEST_F(Listing, ofAPlaylistWhoseFirstLineFitsNeedsNoFile) {
    playlists.put(0, "SharedPlaylistCache").put(19, 1U);
    putPlaylist(0, "/nowhere.playlist", R"({"name":"Show A","cliplist":["Clip_1"]})" "\n" + std::string(4050, 'x'), 0);
    playlists.store();
    EXPECT_NE(mediactl({"playlists"}).output.find("Show A"), std::string::npos);
}

TEST_F(Listing, ofAPathThatATerminalWouldObeyReadsNoFile) {
    std::filesystem::create_directories("/mnt/S1/NEVO");
    const std::string path = "/mnt/S1/NEVO/\x1b[2J.playlist";
    writeFile(path, longPlaylist(1000));
    playlists.put(0, "SharedPlaylistCache").put(19, 1U);
    putPlaylist(0, path, longPlaylist(1000).substr(0, 4096), 0);
    playlists.store();
    const Result result = mediactl({"playlists"});
    EXPECT_NE(result.output.find("the list is cut"), std::string::npos) << result.output;
    EXPECT_EQ((result.output + result.errors).find('\x1b'), std::string::npos);
}

struct BrokenPlaylists : Listing, testing::WithParamInterface<const char*> {};

TEST_P(BrokenPlaylists, areListedAsSuch) {
    playlists.put(0, "SharedPlaylistCache").put(19, 1U);
    putPlaylist(0, "/mnt/S1/NEVO/x.playlist", GetParam(), 0);
    playlists.store();
    const Result result = mediactl({"playlists"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("(this is no playlist)\n"), std::string::npos) << result.output;
    EXPECT_FALSE(cJSON_IsTrue(cJSON_GetObjectItem(cJSON_GetArrayItem(json("playlists").get(), 0), "complete")));
}

INSTANTIATE_TEST_SUITE_P(Rows, BrokenPlaylists,
                         testing::Values("", "{", "[]", "[1]", "7", "\"text\"", "null", R"({"name":"x"})",
                                         R"({"cliplist":["a"]})", R"({"name":"x","cliplist":["a",7]})",
                                         "{\n\"name\":\"x\",\"cliplist\":[]}"));

TEST_F(Listing, ofEmptyCachesIsEmptyWithoutAWord) {
    clips.put(0, "SharedClipCache").store();
    playlists.put(0, "SharedPlaylistCache").store();
    for (const std::string command : {"clips", "playlists"}) {
        const Result result = mediactl({command, "--json"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, "[]\n");
        EXPECT_EQ(result.errors, "");
    }
}

TEST_F(Listing, ofAFullCacheIsWhole) {
    clips.put(0, "SharedClipCache").put(15, 4096U);
    for (std::size_t i = 0; i < 4096; ++i) putClip(i, "Take " + std::to_string(i), 0, 1, "Width\n1920\n");
    clips.store();
    const Json document = json("clips");
    ASSERT_EQ(cJSON_GetArraySize(document.get()), 4096);
    EXPECT_STREQ(cJSON_GetObjectItem(cJSON_GetArrayItem(document.get(), 4095), "name")->valuestring, "Take 4095");
}

// --- What a broken or malicious writer leaves.

TEST_F(Listing, countsBeyondTheCapacityAreCut) {
    clips.put(0, "SharedClipCache").put(15, 0xffffffffU).store();
    playlists.put(0, "SharedPlaylistCache").put(19, 0x80000001U).store();
    EXPECT_EQ(cJSON_GetArraySize(json("clips").get()), 4096);
    EXPECT_EQ(cJSON_GetArraySize(json("playlists").get()), 1024);
    EXPECT_EQ(mediactl({"clips"}).status, 0);
    EXPECT_EQ(mediactl({"playlists"}).status, 0);
}

TEST_F(Listing, fieldsWithoutAnEndStopAtTheFieldsEnd) {
    clips.put(0, "SharedClipCache").put(15, 1U).put(19, std::string(6536, 'x')).store();
    playlists.put(0, "SharedPlaylistCache").put(19, 1U).put(23, std::string(8196, 'y')).store();
    const Json clip = json("clips");
    const cJSON* const first = cJSON_GetArrayItem(clip.get(), 0);
    EXPECT_EQ(cJSON_GetObjectItem(first, "name")->valuestring, std::string(4096, 'x'));
    EXPECT_FALSE(cJSON_IsTrue(cJSON_GetObjectItem(first, "encode_match")));
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(first, "attributes")), 0);
    const Json playlist = json("playlists");
    const cJSON* const entry = cJSON_GetArrayItem(playlist.get(), 0);
    EXPECT_EQ(cJSON_GetObjectItem(entry, "path")->valuestring, std::string(4096, 'y'));
    EXPECT_EQ(cJSON_GetObjectItem(entry, "text")->valuestring, std::string(4096, 'y'));
    EXPECT_EQ(mediactl({"clips"}).status, 0);
    EXPECT_EQ(mediactl({"playlists"}).status, 0);
}

TEST_F(Listing, jsonSteersNoTerminalAndLosesNothing) {
    const std::string name = "\x1b[2J \x7f \xc2\x80 \xc2\x9b" "2J \xc2\x9f \xc2\xa0 M\xc3\xbchle \\ \"";
    clips.put(0, "SharedClipCache").put(15, 1U);
    putClip(0, name, 0, 1, "");
    clips.store();
    const Result result = mediactl({"clips", "--json"});
    EXPECT_NE(result.output.find(R"(\u001b[2J \u007f \u0080 \u009b2J \u009f )" "\xc2\xa0 M\xc3\xbchle"), std::string::npos)
        << result.output;
    const Json document = json("clips");
    EXPECT_EQ(cJSON_GetObjectItem(cJSON_GetArrayItem(document.get(), 0), "name")->valuestring, name);
}

TEST_F(Listing, bytesOfEveryKindGiveValidJson) {
    std::string all;
    for (int i = 1; i < 256; ++i) all += static_cast<char>(i);
    clips.put(0, "SharedClipCache").put(15, 2U);
    putClip(0, all, 0, 1, all + "\n" + all + "\n");
    putClip(1, "same", 0, 1, "\xff\nfirst\n\xfe\nsecond\n");
    clips.store();
    playlists.put(0, "SharedPlaylistCache").put(19, 1U);
    putPlaylist(0, all, all, 0);
    playlists.store();

    const Json document = json("clips");
    const cJSON* const attributes = cJSON_GetObjectItem(cJSON_GetArrayItem(document.get(), 1), "attributes");
    EXPECT_EQ(cJSON_GetArraySize(attributes), 1) << "names that look the same appear once";
    json("playlists");
    for (const std::string command : {"clips", "playlists"}) {
        const Result result = mediactl({command});
        EXPECT_EQ(result.status, 0);
        for (const char c : result.output)
            EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7f)) << static_cast<int>(static_cast<unsigned char>(c));
    }
}

TEST_F(Listing, waitsForTheMutex) {
    clips.put(0, "SharedClipCache").store();
    clips.lock();
    Program listing(commandLine(MEDIACTL, {"clips", "--json"}));
    clips.put(15, 1U);
    putClip(0, "written under the lock", 0, 1, "");
    clips.store();
    clips.unlock();
    EXPECT_EQ(listing.wait(), 0) << listing.errors();
    EXPECT_NE(listing.output().find("written under the lock"), std::string::npos);
}

TEST_F(Listing, givesUpOnAMutexThatIsNeverGivenBack) {
    clips.put(0, "SharedClipCache").store();
    clips.lock();
    expectFailure(mediactl({"clips"}), 1, "locked");
    clips.unlock();
}

TEST_F(Listing, ofASegmentThatCannotBeOpenedIsAFailure) {
    std::filesystem::create_symlink("/etc/passwd", "/dev/shm/NewCacheSharedClipCache_shm");
    expectFailure(mediactl({"clips"}), 1, "cannot be read");
}

// --- Going on.

struct Watching : Listing {
    static void stamp() { EXPECT_EQ(mediactl({"set", "kParamMediaChangedTime", "7"}).status, 0); }
};

TEST_F(Watching, printsATableForEachChange) {
    clips.hold({"a"});
    serve();
    Program watch(commandLine(MEDIACTL, {"clips", "--watch"}));
    ASSERT_TRUE(watch.waitForOutput("  a\n"));
    stamp(); // nothing has changed
    clips.hold({"a", "b"});
    stamp();
    ASSERT_TRUE(watch.waitForOutput("\nINDEX"));
    ASSERT_TRUE(watch.waitForOutput("  a\n1"));
    ASSERT_TRUE(watch.waitForOutput("  b\n"));
    clips.hold({"b"});
    stamp();
    ASSERT_TRUE(watch.waitForOutput("\nINDEX"));
    ASSERT_TRUE(watch.waitForOutput("  b\n"));
    std::size_t tables = 0;
    for (std::size_t at = 0; (at = watch.output().find("INDEX", at)) != std::string::npos; ++at) ++tables;
    EXPECT_EQ(tables, 3U);
    watch.kill(SIGINT);
    EXPECT_EQ(watch.wait(), 128 + SIGINT);
    EXPECT_EQ(watch.errors(), "");
}

TEST_F(Watching, asJsonPrintsALineForEachChange) {
    clips.hold({"a"});
    serve();
    Program watch(commandLine(MEDIACTL, {"clips", "--watch", "--json"}));
    ASSERT_TRUE(watch.waitForOutput("}]\n"));
    clips.hold({});
    stamp();
    ASSERT_TRUE(watch.waitForOutput("[]\n"));
    const std::string first = watch.output().substr(0, watch.output().find('\n'));
    const Json list(cJSON_ParseWithOpts(first.c_str(), nullptr, 1), &cJSON_Delete);
    EXPECT_STREQ(cJSON_GetObjectItem(cJSON_GetArrayItem(list.get(), 0), "name")->valuestring, "a");
}

struct WakingParameters : Watching, testing::WithParamInterface<const char*> {};

// The index is brought in step before and after the stamp; each of these is written then.
TEST_P(WakingParameters, makeItLook) {
    clips.hold({"a"});
    serve();
    Program watch(commandLine(MEDIACTL, {"clips", "--watch"}));
    ASSERT_TRUE(watch.waitForOutput("  a\n"));
    clips.hold({"b"});
    EXPECT_EQ(mediactl({"set", GetParam(), "1"}).status, 0);
    EXPECT_TRUE(watch.waitForOutput("  b\n"));
}

INSTANTIATE_TEST_SUITE_P(Rows, WakingParameters,
                         testing::Values("kParamMediaChangedTime", "kParamSelectedSlot", "kParamStoragePath",
                                         "kParamClipName", "kParamClipIndex", "kParamNewClipIndex"));

TEST_F(Watching, redrawsInPlaceAndKeepsTheNewestInSight) {
    std::vector<std::string> names;
    for (int i = 0; i < 30; ++i) names.push_back("Take " + std::to_string(i));
    clips.hold({"a"});
    serve();
    Program watch(commandLine(MEDIACTL, {"clips", "--watch"}), Program::Output::Terminal);
    ASSERT_TRUE(watch.waitForOutput("\x1b[2J\x1b[HINDEX"));
    ASSERT_TRUE(watch.waitForOutput("  a\x1b[K\r\n\x1b[J"));
    watch.setTerminalSize(10, 80);
    clips.hold(names);
    stamp();
    ASSERT_TRUE(watch.waitForOutput("\x1b[HINDEX"));
    ASSERT_TRUE(watch.waitForOutput("\r\n... 23 before these\x1b[K\r\n23 "));
    ASSERT_TRUE(watch.waitForOutput("Take 29\x1b[K\r\n\x1b[J"));
    EXPECT_EQ(watch.output().find("Take 22"), std::string::npos);
    EXPECT_EQ(watch.output().find("\x1b[2J"), watch.output().rfind("\x1b[2J")) << "the screen is cleared once only";
}

TEST_F(Watching, ofALockedIndexSaysSoOnceAndGoesOn) {
    clips.hold({"a"});
    serve();
    clips.lock();
    Program watch(commandLine(MEDIACTL, {"clips", "--watch"}));
    ASSERT_TRUE(watch.waitForErrors("locked"));
    EXPECT_EQ(clips.count(), 0) << "nothing is taken over";
    clips.unlock();
    ASSERT_TRUE(watch.waitForOutput("  a\n"));
    EXPECT_EQ(std::count(watch.errors().begin(), watch.errors().end(), '\n'), 1) << watch.errors();
}

TEST_F(Watching, waitsForAnIndexThatIsNotThereYet) {
    std::filesystem::remove("/dev/shm/NewCacheSharedClipCache_shm");
    serve();
    Program watch(commandLine(MEDIACTL, {"clips", "--watch"}));
    ASSERT_TRUE(watch.waitForErrors("no medium cache yet\n"));
    ASSERT_TRUE(watch.waitForOutput("INDEX"));
    stamp();
    stamp();
    clips.hold({"a"});
    stamp();
    EXPECT_TRUE(watch.waitForOutput("  a\n"));
    EXPECT_EQ(watch.errors(), "mediactl: no medium cache yet\n") << "said once";
}

TEST_F(Watching, goesOnWhenTheStoreComesBack) {
    clips.hold({"a"});
    serve();
    Program watch(commandLine(MEDIACTL, {"clips", "--watch"}));
    ASSERT_TRUE(watch.waitForOutput("  a\n"));
    killHost();
    ASSERT_TRUE(watch.waitForErrors("nobody serves the parameter store any more"));
    clips.hold({"b"});
    serve();
    ASSERT_TRUE(watch.waitForErrors("the parameter store is served again"));
    EXPECT_TRUE(watch.waitForOutput("  b\n"));
}

} // namespace
