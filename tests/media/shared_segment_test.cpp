#include "shared_segment.h"

#include <gtest/gtest.h>
#include <semaphore.h>

#include "media/media_cache.h"
#include "tests/media/clip_files.h"

using nevo::media::MediaCache;
using nevo::media::SegmentState;
using namespace clipfiles;

namespace {

class SharedSegmentTest : public SegmentTest {};

TEST_F(SharedSegmentTest, LookingCreatesNothing) {
    EXPECT_EQ(nevo::media::readClips().state, SegmentState::Absent);
    EXPECT_EQ(nevo::media::readPlaylists().state, SegmentState::Absent);
    EXPECT_FALSE(std::filesystem::exists(kClipSegment));
    EXPECT_FALSE(std::filesystem::exists(kClipMutex));
    EXPECT_FALSE(std::filesystem::exists(kPlaylistSegment));
    EXPECT_FALSE(std::filesystem::exists(kPlaylistMutex));
}

TEST_F(SharedSegmentTest, ASegmentWithoutItsMutexIsAbsent) {
    { MediaCache cache("NewCache"); }
    unlink(kClipMutex);
    EXPECT_EQ(nevo::media::readClips().state, SegmentState::Absent);
    EXPECT_FALSE(std::filesystem::exists(kClipMutex));
}

TEST_F(SharedSegmentTest, NewSegmentsAreUnwritten) {
    { MediaCache cache("NewCache"); }
    EXPECT_EQ(nevo::media::readClips().state, SegmentState::Unwritten);
    EXPECT_EQ(nevo::media::readPlaylists().state, SegmentState::Unwritten);
    ASSERT_EQ(truncate(kClipSegment, 0), 0);
    EXPECT_EQ(nevo::media::readClips().state, SegmentState::Unwritten);
}

TEST_F(SharedSegmentTest, RecordsComeInSegmentOrder) {
    { MediaCache cache("NewCache"); }
    RawSegment(kClipSegment).fillClips(3);
    RawSegment playlists(kPlaylistSegment);
    playlists.put(0, "SharedPlaylistCache");
    playlists.putWord(19, 2);
    playlists.putPlaylist(0, "/m/z.playlist", "one", 7);
    playlists.putPlaylist(1, "/m/a.playlist", "two", 8);

    const auto clips = nevo::media::readClips("NewCache");
    EXPECT_EQ(clips.state, SegmentState::Filled);
    ASSERT_EQ(clips.records.size(), 3U);
    EXPECT_STREQ(clips.records.front().name, "old_0000");
    EXPECT_EQ(clips.records.back().time, 1002);
    const auto found = nevo::media::readPlaylists("/NewCache");
    EXPECT_EQ(found.state, SegmentState::Filled);
    ASSERT_EQ(found.records.size(), 2U);
    EXPECT_EQ(nevo::media::playlistName(found.records.front()), "z");
    EXPECT_EQ(found.records.back().modified, 8);
}

TEST_F(SharedSegmentTest, AMutexThatNobodyGivesBackIsReportedAndTheSegmentLeftAlone) {
    { MediaCache cache("NewCache"); }
    sem_t* semaphore = sem_open("/NewCacheSharedClipCache_mutex", 0);
    ASSERT_NE(semaphore, SEM_FAILED);
    sem_wait(semaphore);
    EXPECT_EQ(nevo::media::readClips("NewCache", 0).state, SegmentState::Locked);
    int value = -1;
    sem_getvalue(semaphore, &value);
    EXPECT_EQ(value, 0);
    sem_post(semaphore);
    EXPECT_EQ(nevo::media::readClips("NewCache", 0).state, SegmentState::Unwritten);
    sem_getvalue(semaphore, &value);
    EXPECT_EQ(value, 1);
    sem_close(semaphore);
}

TEST_F(SharedSegmentTest, AFailureCarriesItsErrorNumber) {
    ASSERT_EQ(mkdir(kClipMutex, 0700), 0);
    writeFile(kClipSegment, "");
    const auto clips = nevo::media::readClips();
    EXPECT_EQ(clips.state, SegmentState::Failed);
    EXPECT_EQ(clips.error, EISDIR);
    rmdir(kClipMutex);
}

TEST_F(SharedSegmentTest, NeverMoreRecordsAreWrittenThanThereIsRoomFor) {
    MediaCache cache("NewCache");
    std::vector<std::byte> segment(nevo::media::kClipSegmentSize + 1, std::byte{0x55});
    std::list<Clip> clips(4097);
    nevo::media::putClips(segment.data(), clips);
    bool written = false;
    EXPECT_EQ(nevo::media::clipsOf(segment.data(), written).size(), 4096U);
    EXPECT_EQ(segment.back(), std::byte{0x55});

    segment.assign(nevo::media::kPlaylistSegmentSize + 1, std::byte{0x55});
    std::list<nevo::media::PlaylistCacheEntry> playlists(1025);
    nevo::media::putPlaylists(segment.data(), playlists);
    EXPECT_EQ(nevo::media::playlistsOf(segment.data(), written).size(), 1024U);
    EXPECT_TRUE(written);
    EXPECT_EQ(segment.back(), std::byte{0x55});
}

} // namespace
