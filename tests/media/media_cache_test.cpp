#include "media/media_cache.h"

#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <utime.h>

#include <atomic>
#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "shared_segment.h"
#include "tests/media/clip_files.h"

using nevo::media::MediaCache;
using nevo::media::PlaylistCacheEntry;
namespace ipc = boost::interprocess;
using namespace clipfiles;

namespace {

using Clips = std::vector<std::pair<std::string, std::int32_t>>;

class MediaCacheTest : public SegmentTest {
protected:
    int add(const std::string& path, unsigned int encodeType = 1) {
        int index = -1;
        EXPECT_TRUE(MediaCache("NewCache").AddClip(path, encodeType, index, false)) << path;
        return index;
    }
};

TEST_F(MediaCacheTest, ANewSegmentIsEmptyAndTheFirstClipWritesMagicCountAndOneRecord) {
    MediaCache cache("NewCache");
    RawSegment segment(kClipSegment);
    EXPECT_EQ(segment.size(), 26'771'475);
    EXPECT_EQ(segment.bytes(0, 6536), std::string(6536, '\0'));

    int index = -1;
    ASSERT_TRUE(cache.AddClip(makeClip("first.mov", 5000), 2, index, false));
    EXPECT_EQ(index, 0);
    EXPECT_EQ(segment.bytes(0, 15), "SharedClipCache");
    EXPECT_EQ(segment.word(15), 1);
    EXPECT_EQ(segment.text(19, 4096), "first");
    EXPECT_EQ(segment.word(19 + 4096), 5000);
    EXPECT_EQ(segment.word(19 + 4100), 5);
    EXPECT_EQ(segment.text(19 + 4104, 28), "23:59:59:10");
    EXPECT_EQ(segment.bytes(19 + 4132, 1), "\1");
    EXPECT_EQ(segment.text(19 + 4133, 2400),
              "Format\n48p\nHeight\n48\nWidth\n64\nFrame Rate\n23.98\nEncode Type\n2\nAudio Chan\n0\n"
              "Starting TC\n23:59:59:10");
    EXPECT_EQ(segment.bytes(19 + 6533, 3 + 6536), std::string(3 + 6536, '\0'));
}

TEST_F(MediaCacheTest, ACachedNameIsReplacedAndTheIndexIsTheCountLessOne) {
    add(makeClip("a.mov", 100));
    add(makeClip("b.mov", 200));
    add(makeClip("c.mov", 300));
    EXPECT_EQ(add(makeClip("a.mov", 400)), 2);
    EXPECT_EQ(RawSegment(kClipSegment).clips(), (Clips{{"b", 200}, {"c", 300}, {"a", 400}}));
}

TEST_F(MediaCacheTest, EveryRecordOfTheNameIsReplaced) {
    MediaCache cache("NewCache");
    RawSegment segment(kClipSegment);
    segment.fillClips(5);
    segment.put(19 + 6536 * 1, std::string("same\0", 5));
    segment.put(19 + 6536 * 3, std::string("same\0", 5));
    EXPECT_EQ(add(makeClip("same.mov", 1)), 3);
    EXPECT_EQ(segment.clips(), (Clips{{"same", 1}, {"old_0000", 1000}, {"old_0002", 1002}, {"old_0004", 1004}}));
}

TEST_F(MediaCacheTest, ClipsOfOneTimeStayInInsertionOrder) {
    add(makeClip("z.mov", 100));
    add(makeClip("m.mov", 100));
    add(makeClip("a.mov", 100));
    EXPECT_EQ(RawSegment(kClipSegment).clipNames(), (std::vector<std::string>{"z", "m", "a"}));
}

TEST_F(MediaCacheTest, TheEarliestClipMovesToRecordZeroWhileTheIndexIsTheCountLessOne) {
    add(makeClip("b.mov", 200));
    add(makeClip("c.mov", 300));
    EXPECT_EQ(add(makeClip("a.mov", 100)), 2);
    EXPECT_EQ(RawSegment(kClipSegment).clips(), (Clips{{"a", 100}, {"b", 200}, {"c", 300}}));
}

TEST_F(MediaCacheTest, TimesAreComparedAsSignedNumbers) {
    add(makeClip("modern.mov", 100));
    const std::string old = at("old.mov");
    writeFile(old, withCreationTime(clipBytes("apcn"), 0));
    utimbuf times{-500, -500};
    ASSERT_EQ(utime(old.c_str(), &times), 0);
    add(old);
    EXPECT_EQ(RawSegment(kClipSegment).clips(), (Clips{{"old", -500}, {"modern", 100}}));
}

TEST_F(MediaCacheTest, AnUnusableClipChangesNothing) {
    add(makeClip("a.mov", 100));
    const std::string before = readFile(kClipSegment);
    writeFile(at("b.mov"), "no clip");
    int index = 77;
    EXPECT_FALSE(MediaCache("NewCache").AddClip(at("b.mov"), 1, index, false));
    EXPECT_FALSE(MediaCache("NewCache").AddClip(at("missing.mov"), 1, index, true));
    EXPECT_EQ(index, 77);
    EXPECT_TRUE(readFile(kClipSegment) == before);
}

TEST_F(MediaCacheTest, TheCodecFlagTellsWhetherTheClipIsOfTheCodecInUse) {
    const auto flag = [this](const std::string& source, unsigned int encodeType) {
        add(makeClip("clip.mov", 100, source), encodeType);
        return static_cast<int>(RawSegment(kClipSegment).bytes(19 + 4132, 1)[0]);
    };
    for (const char* prores : {"apch", "apcn", "apcs", "apco", "ap4h"}) {
        for (const unsigned int encodeType : {1U, 2U, 3U, 4U, 5U}) EXPECT_EQ(flag(prores, encodeType), 1) << prores;
        for (const unsigned int encodeType : {0U, 6U, 7U}) EXPECT_EQ(flag(prores, encodeType), 0) << prores;
    }
    EXPECT_EQ(flag("AVdn", 6), 1);
    for (const unsigned int encodeType : {0U, 1U, 5U, 7U}) EXPECT_EQ(flag("AVdn", encodeType), 0);
}

TEST_F(MediaCacheTest, RecordsBehindTheCountAndThePaddingKeepTheirBytes) {
    MediaCache cache("NewCache");
    RawSegment segment(kClipSegment);
    segment.put(19 + 6533, "abc");
    segment.put(19 + 6536 + 6533, "def");
    segment.put(19 + 2 * 6536, "stale");
    add(makeClip("a.mov", 100));
    add(makeClip("b.mov", 200));
    EXPECT_EQ(segment.bytes(19 + 6533, 3), "abc");
    EXPECT_EQ(segment.bytes(19 + 6536 + 6533, 3), "def");
    EXPECT_EQ(segment.bytes(19 + 2 * 6536, 5), "stale");
}

TEST_F(MediaCacheTest, WithoutTheMagicWhateverFollowsIsEmpty) {
    MediaCache cache("NewCache");
    RawSegment segment(kClipSegment);
    segment.fillClips(3);
    segment.put(14, "E");
    add(makeClip("a.mov", 100));
    EXPECT_EQ(segment.clips(), (Clips{{"a", 100}}));
    EXPECT_EQ(segment.text(19 + 6536, 4096), "old_0001");
}

TEST_F(MediaCacheTest, ACountBeyondTheCapacityIsNotBelieved) {
    MediaCache cache("NewCache");
    RawSegment segment(kClipSegment);
    segment.fillClips(4096);
    for (const std::int32_t count : {4097, 2'147'483'647, -1}) {
        segment.putWord(15, count);
        EXPECT_EQ(nevo::media::readClips().records.size(), 4096U);
        add(makeClip("old_0000.mov", 5));
        EXPECT_EQ(segment.word(15), 4096);
    }
    EXPECT_EQ(segment.size(), 26'771'475);
}

TEST_F(MediaCacheTest, TheClipThatDoesNotFitStaysOutAndAReplacementFits) {
    MediaCache cache("NewCache");
    RawSegment segment(kClipSegment);
    segment.fillClips(4095);
    EXPECT_TRUE(cache.hasRoomFor(at("last.mov")));
    EXPECT_EQ(add(makeClip("last.mov", 10)), 4095);
    EXPECT_EQ(segment.word(15), 4096);

    EXPECT_FALSE(cache.hasRoomFor(makeClip("toomany.mov", 20)));
    const std::string before = readFile(kClipSegment);
    int index = 77;
    EXPECT_FALSE(cache.AddClip(at("toomany.mov"), 1, index, false));
    EXPECT_EQ(index, 77);
    EXPECT_TRUE(readFile(kClipSegment) == before);

    EXPECT_TRUE(cache.hasRoomFor("/somewhere/old_4000.mov"));
    EXPECT_FALSE(cache.hasRoomFor("/somewhere/old_400.mov"));
    EXPECT_EQ(add(makeClip("old_4000.mov", 20)), 4095);
    EXPECT_EQ(segment.word(15), 4096);
    EXPECT_EQ(segment.clips()[0], (std::pair<std::string, std::int32_t>{"last", 10}));
    EXPECT_EQ(segment.clips()[1], (std::pair<std::string, std::int32_t>{"old_4000", 20}));
}

TEST_F(MediaCacheTest, APlaylistSegmentWithoutTheMagicGivesFalseAndLeavesTheMap) {
    MediaCache cache("NewCache");
    RawSegment segment(kPlaylistSegment);
    EXPECT_EQ(segment.size(), 8'392'727);
    segment.put(0, "SharedPlaylistCachE");
    segment.putWord(19, 1);
    segment.putPlaylist(0, "/m/x.playlist", "{}", 1);
    std::map<std::string, PlaylistCacheEntry> playlists{{"there", PlaylistCacheEntry{}}};
    EXPECT_FALSE(cache.ReadPlaylistCacheFromSharedMemory(playlists));
    ASSERT_EQ(playlists.size(), 1U);
    EXPECT_EQ(playlists.begin()->first, "there");
}

TEST_F(MediaCacheTest, APlaylistSegmentWithMagicAndNoRecordGivesTrue) {
    MediaCache cache("NewCache");
    RawSegment(kPlaylistSegment).put(0, "SharedPlaylistCache");
    std::map<std::string, PlaylistCacheEntry> playlists;
    EXPECT_TRUE(cache.ReadPlaylistCacheFromSharedMemory(playlists));
    EXPECT_TRUE(playlists.empty());
}

TEST_F(MediaCacheTest, PlaylistsAreNamedAfterTheirFiles) {
    MediaCache cache("NewCache");
    RawSegment segment(kPlaylistSegment);
    segment.put(0, "SharedPlaylistCache");
    const std::vector<std::pair<std::string, std::string>> names{
        {"/mnt/S1/NEVO/show.playlist", "show"}, {"a.playlist.bak", "a"}, {"/x.playlist/notes.txt", "notes.txt"},
        {"/m/dir.playlist/", "dir"},            {"/m/.playlist", ""},    {"/", "/"},
        {"/m/twice.playlist.playlist", "twice"}};
    for (std::size_t i = 0; i < names.size(); ++i)
        segment.putPlaylist(static_cast<std::int32_t>(i), names[i].first, "text " + names[i].second,
                            static_cast<std::int32_t>(i));
    segment.putWord(19, static_cast<std::int32_t>(names.size()));
    std::map<std::string, PlaylistCacheEntry> playlists;
    EXPECT_TRUE(cache.ReadPlaylistCacheFromSharedMemory(playlists));
    EXPECT_EQ(playlists.size(), names.size());
    for (const auto& [path, name] : names) {
        ASSERT_TRUE(playlists.contains(name)) << path;
        EXPECT_STREQ(playlists[name].path, path.c_str());
        EXPECT_EQ(std::string(playlists[name].text), "text " + name);
    }
    EXPECT_EQ(playlists["a"].modified, 1);
}

TEST_F(MediaCacheTest, OfTwoPlaylistsOfOneNameTheLaterIsKeptAndWhatIsInTheMapIsOverwritten) {
    MediaCache cache("NewCache");
    RawSegment segment(kPlaylistSegment);
    segment.put(0, "SharedPlaylistCache");
    segment.putPlaylist(0, "/a/show.playlist", "first", 1);
    segment.putPlaylist(1, "/b/show.playlist", "second", 2);
    segment.putWord(19, 2);
    std::map<std::string, PlaylistCacheEntry> playlists;
    playlists["show"].modified = 99;
    playlists["other"].modified = 98;
    EXPECT_TRUE(cache.ReadPlaylistCacheFromSharedMemory(playlists));
    EXPECT_EQ(playlists.size(), 2U);
    EXPECT_STREQ(playlists["show"].path, "/b/show.playlist");
    EXPECT_STREQ(playlists["show"].text, "second");
    EXPECT_EQ(playlists["show"].modified, 2);
    EXPECT_EQ(playlists["other"].modified, 98);
}

TEST_F(MediaCacheTest, PlaylistFieldsThatAreFullAndCountsBeyondTheCapacityDoNoHarm) {
    MediaCache cache("NewCache");
    RawSegment segment(kPlaylistSegment);
    segment.put(0, "SharedPlaylistCache");
    segment.putPlaylist(1023, "/" + std::string(4095, 'x'), std::string(4096, 'y'), -1);
    for (const std::int32_t count : {1024, 1025, -1}) {
        segment.putWord(19, count);
        std::map<std::string, PlaylistCacheEntry> playlists;
        EXPECT_TRUE(cache.ReadPlaylistCacheFromSharedMemory(playlists));
        EXPECT_EQ(playlists.size(), 2U); // the others have no path, and that is one name
        EXPECT_TRUE(playlists.contains(std::string(4095, 'x')));
        EXPECT_TRUE(playlists.contains("."));
    }
}

TEST_F(MediaCacheTest, ConstructingTheCacheAgainKeepsTheContents) {
    add(makeClip("a.mov", 100));
    RawSegment(kPlaylistSegment).put(0, "SharedPlaylistCache");
    const std::string clips = readFile(kClipSegment);
    const std::string playlists = readFile(kPlaylistSegment);
    { MediaCache again("NewCache"); }
    { MediaCache andAgain("NewCache"); }
    EXPECT_TRUE(readFile(kClipSegment) == clips);
    EXPECT_TRUE(readFile(kPlaylistSegment) == playlists);
}

TEST_F(MediaCacheTest, TheFourObjectsAreOpenToEverybodyWhenTheUmaskIsZero) {
    MediaCache cache("NewCache");
    for (const char* name : {kClipSegment, kPlaylistSegment, kClipMutex, kPlaylistMutex}) {
        struct stat status {};
        ASSERT_EQ(stat(name, &status), 0) << name;
        EXPECT_EQ(status.st_mode & 07777U, 0777U) << name;
    }
}

TEST_F(MediaCacheTest, APrefixThatBeginsWithASlashGetsNoSecondOne) {
    MediaCache cache("/Other");
    for (const char* name : {"OtherSharedClipCache_shm", "sem.OtherSharedClipCache_mutex",
                             "OtherSharedPlaylistCache_shm", "sem.OtherSharedPlaylistCache_mutex"})
        EXPECT_EQ(unlink((std::string("/dev/shm/") + name).c_str()), 0) << name;
}

TEST_F(MediaCacheTest, NothingStaysOpenOrLockedAndNothingIsRemoved) {
    const std::size_t before = openDescriptors();
    add(makeClip("a.mov", 100));
    {
        MediaCache cache("NewCache");
        std::map<std::string, PlaylistCacheEntry> playlists;
        cache.ReadPlaylistCacheFromSharedMemory(playlists);
    }
    EXPECT_EQ(openDescriptors(), before);
    const std::string maps = readFile("/proc/self/maps");
    EXPECT_EQ(maps.find("NewCache"), std::string::npos);
    for (const char* name : {"/NewCacheSharedClipCache_mutex", "/NewCacheSharedPlaylistCache_mutex"}) {
        sem_t* semaphore = sem_open(name, 0);
        ASSERT_NE(semaphore, SEM_FAILED) << name;
        int value = -1;
        sem_getvalue(semaphore, &value);
        EXPECT_EQ(value, 1) << name;
        sem_close(semaphore);
    }
    EXPECT_TRUE(std::filesystem::exists(kClipSegment));
}

TEST_F(MediaCacheTest, AFailureAtTheLastStepReleasesTheEarlierOnesAndCarriesItsError) {
    ASSERT_EQ(mkdir(kPlaylistMutex, 0700), 0);
    const std::size_t before = openDescriptors();
    try {
        MediaCache cache("NewCache");
        ADD_FAILURE() << "a directory is no semaphore";
    } catch (const ipc::interprocess_exception& failure) {
        EXPECT_EQ(failure.get_native_error(), EISDIR);
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(readFile("/proc/self/maps").find("NewCache"), std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(kClipSegment));
    EXPECT_TRUE(std::filesystem::exists(kClipMutex));
    EXPECT_TRUE(std::filesystem::exists(kPlaylistSegment));
    EXPECT_EQ(std::filesystem::file_size(kClipSegment), 0U); // the sizes come last
    rmdir(kPlaylistMutex);
}

TEST_F(MediaCacheTest, AnErrorNumberThatTheLibraryDoesNotKnowHasTheGenericCode) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit unlimited{};
    getrlimit(RLIMIT_FSIZE, &unlimited);
    rlimit limit = unlimited;
    limit.rlim_cur = 1'000'000;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const std::size_t before = openDescriptors();
    try {
        MediaCache cache("NewCache");
        ADD_FAILURE() << "larger than the limit";
    } catch (const ipc::interprocess_exception& failure) {
        EXPECT_EQ(failure.get_native_error(), EFBIG);
        EXPECT_EQ(static_cast<int>(failure.get_error_code()), 1);
    }
    setrlimit(RLIMIT_FSIZE, &unlimited);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(MediaCacheTest, ASegmentThatAnotherProgramCutShortIsAnErrorAndNoCrash) {
    MediaCache cache("NewCache");
    ASSERT_EQ(truncate(kClipSegment, 4096), 0);
    int index = -1;
    EXPECT_THROW(cache.AddClip(makeClip("a.mov", 100), 1, index, false), ipc::interprocess_exception);
    MediaCache("NewCache"); // gives it its size again; the mutex was given back
    EXPECT_EQ(add(at("a.mov")), 0);
}

TEST_F(MediaCacheTest, WritersAndReadersOfManyThreadsNeverSeeHalfASegment) {
    constexpr std::size_t kClips = 9;
    std::vector<std::thread> writers;
    std::atomic<bool> sound{true}, seenBetween{false}, written{false};
    for (int t = 0; t < 3; ++t) {
        for (int i = 0; i < 3; ++i)
            makeClip("c" + std::to_string(t) + std::to_string(i) + ".mov", static_cast<std::uint32_t>(100 * t + i));
        writers.emplace_back([this, t, &seenBetween] {
            for (int i = 0; i < 3; ++i) {
                add(at("c" + std::to_string(t) + std::to_string(i) + ".mov"));
                // The reader, which may begin late, is to meet the writers at work.
                for (int tries = 0; tries < 10'000 && !seenBetween; ++tries)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    std::thread reader([&sound, &seenBetween, &written] {
        while (!written) {
            const std::list<Clip> clips = nevo::media::readClips().records;
            if (!clips.empty() && clips.size() < kClips) seenBetween = true;
            for (const Clip& clip : clips)
                if (clip.name[0] != 'c' || clip.frames != 5) sound = false;
        }
    });
    for (std::thread& writer : writers) writer.join();
    written = true;
    reader.join();
    EXPECT_TRUE(seenBetween);
    EXPECT_TRUE(sound);
    const Clips clips = RawSegment(kClipSegment).clips();
    EXPECT_EQ(clips.size(), kClips) << "none gets lost between another's reading and writing";
    EXPECT_TRUE(std::is_sorted(clips.begin(), clips.end(), [](auto& a, auto& b) { return a.second < b.second; }));
}

} // namespace
