// clips and playlists, from segments that are written here byte by byte, good and hostile ones.

#include <cJSON.h>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "recorder.h"

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

constexpr std::size_t kClipSegment = 26771475;
constexpr std::size_t kPlaylistSegment = 8392727;

// A shared segment as a string of bytes, with the semaphore that guards it.
class Segment {
public:
    Segment(const std::string& magic, std::size_t size) : _name("/NewCache" + magic), _bytes(size, '\0') {
        umask(0);
        const std::string semaphore = _name + "_mutex";
        _semaphore = sem_open(semaphore.c_str(), O_CREAT, 0777, 1);
        EXPECT_NE(_semaphore, SEM_FAILED);
    }
    ~Segment() { sem_close(_semaphore); }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    Segment& put(std::size_t offset, const std::string& text) {
        std::copy(text.begin(), text.end(), _bytes.begin() + static_cast<std::ptrdiff_t>(offset));
        return *this;
    }
    Segment& put(std::size_t offset, std::uint32_t number) {
        std::memcpy(&_bytes[offset], &number, sizeof number);
        return *this;
    }
    Segment& resize(std::size_t size) {
        _bytes.resize(size);
        return *this;
    }
    void store() const { writeFile("/dev/shm" + _name + "_shm", _bytes); }

    void lock() { sem_wait(_semaphore); }
    void unlock() { sem_post(_semaphore); }
    int count() {
        int result = -1;
        sem_getvalue(_semaphore, &result);
        return result;
    }

private:
    std::string _name;
    std::string _bytes;
    sem_t* _semaphore;
};

struct Listing : Recorder {
    Segment clips{"SharedClipCache", kClipSegment};
    Segment playlists{"SharedPlaylistCache", kPlaylistSegment};

    // A clip record at its place.
    void putClip(std::size_t index, const std::string& name, std::uint32_t time, char match,
                 const std::string& attributes) {
        const std::size_t begin = 19 + 6536 * index;
        clips.put(begin, name).put(begin + 4096, time).put(begin + 4100, 250U).put(begin + 4104, "10:00:00:00");
        clips.put(begin + 4132, std::string(1, match)).put(begin + 4133, attributes);
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
    putPlaylist(0, "/mnt/S1/NEVO/show.playlist", R"({"name":"show","cliplist":[]})", 1763696400);
    putPlaylist(1, "/mnt/S1/NEVO/a.playlist.bak", "", 0);
    putPlaylist(2, "notes.txt", "two\nlines", 0xffffffff);
    putPlaylist(3, "/mnt/S1/NEVO/b/", "", 0);
    playlists.store();
    expectJson("playlists", R"([
        {"index": 0, "name": "show", "path": "/mnt/S1/NEVO/show.playlist", "modified": 1763696400,
         "text": "{\"name\":\"show\",\"cliplist\":[]}"},
        {"index": 1, "name": "a", "path": "/mnt/S1/NEVO/a.playlist.bak", "modified": 0, "text": ""},
        {"index": 2, "name": "notes.txt", "path": "notes.txt", "modified": -1, "text": "two\nlines"},
        {"index": 3, "name": "b", "path": "/mnt/S1/NEVO/b/", "modified": 0, "text": ""}])");
    EXPECT_EQ(playlists.count(), 1) << "the mutex was given back";
}

TEST_F(Listing, ofPlaylistsAsATable) {
    playlists.put(0, "SharedPlaylistCache").put(19, 1U);
    putPlaylist(0, "/mnt/S1/NEVO/show.playlist", "{}", 1763696400);
    playlists.store();
    EXPECT_EQ(mediactl({"playlists"}).output,
              "INDEX  MODIFIED                 NAME  PATH\n"
              "0      2025-11-21 03:40:00 UTC  show  /mnt/S1/NEVO/show.playlist\n");
}

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

} // namespace
