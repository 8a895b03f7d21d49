// A shared-memory file system that has no room left: a private one, as small as each test needs it.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>

#include "media/media_cache.h"
#include "shared_segment.h"
#include "tests/media/clip_files.h"

using nevo::media::MediaCache;
using nevo::media::SegmentState;
using namespace clipfiles;
namespace ipc = boost::interprocess;

namespace {

constexpr std::int64_t kBlock = 512;

class FullSharedMemoryTest : public SegmentTest {
protected:
    ~FullSharedMemoryTest() override {
        while (_mounted-- > 0) ::umount2("/dev/shm", MNT_DETACH);
    }
    void giveRoom(const std::string& size) {
        ASSERT_EQ(::mount("shm", "/dev/shm", "tmpfs", 0, ("mode=1777,size=" + size).c_str()), 0) << std::strerror(errno);
        ++_mounted;
    }
    // Takes every page that is left.
    static void fillUp() {
        const int descriptor = open("/dev/shm/filler", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        const std::string page(4096, 'x');
        while (write(descriptor, page.data(), page.size()) > 0) {}
        EXPECT_EQ(errno, ENOSPC);
        close(descriptor);
    }
    static std::int64_t allocated(const char* path) {
        struct stat status {};
        EXPECT_EQ(stat(path, &status), 0);
        return static_cast<std::int64_t>(status.st_blocks) * kBlock;
    }
    // What a daemon without this care has left behind: the sizes, and memory only where something was written.
    static void makeSparse() {
        { MediaCache cache("NewCache"); }
        for (const char* name : {kClipSegment, kPlaylistSegment}) {
            const auto size = static_cast<std::int64_t>(std::filesystem::file_size(name));
            ASSERT_EQ(truncate(name, 0), 0);
            ASSERT_EQ(truncate(name, size), 0);
            ASSERT_LT(allocated(name), size);
        }
    }

private:
    int _mounted = 0;
};

TEST_F(FullSharedMemoryTest, NewSegmentsHaveAllOfTheirMemory) {
    { MediaCache cache("NewCache"); }
    EXPECT_GE(allocated(kClipSegment), 26'771'475);
    EXPECT_GE(allocated(kPlaylistSegment), 8'392'727);
}

TEST_F(FullSharedMemoryTest, NoRoomForTheClipsIsAnErrorAndNoCrash) {
    giveRoom("1m");
    const std::size_t before = openDescriptors();
    for (int i = 0; i < 2; ++i) {
        try {
            MediaCache cache("NewCache");
            ADD_FAILURE() << "there is no room";
        } catch (const ipc::interprocess_exception& failure) {
            EXPECT_EQ(failure.get_native_error(), ENOSPC);
            EXPECT_STREQ(failure.what(), "No space left on device");
        }
    }
    EXPECT_EQ(openDescriptors(), before);
    // Nothing was taken that would be needed elsewhere.
    EXPECT_EQ(allocated(kClipSegment), 0);
}

TEST_F(FullSharedMemoryTest, NoRoomForThePlaylistsIsAnErrorToo) {
    giveRoom("30m");
    try {
        MediaCache cache("NewCache");
        ADD_FAILURE() << "there is no room";
    } catch (const ipc::interprocess_exception& failure) {
        EXPECT_EQ(failure.get_native_error(), ENOSPC);
    }
}

TEST_F(FullSharedMemoryTest, NoRoomForTheMutexIsAnErrorToo) {
    giveRoom("40m");
    fillUp();
    EXPECT_THROW(MediaCache("NewCache"), ipc::interprocess_exception);
}

TEST_F(FullSharedMemoryTest, ASparseSegmentGetsItsMemoryAndKeepsItsContents) {
    makeSparse();
    {
        RawSegment segment(kClipSegment);
        segment.fillClips(3);
    }
    { MediaCache cache("NewCache"); }
    EXPECT_GE(allocated(kClipSegment), 26'771'475);
    EXPECT_GE(allocated(kPlaylistSegment), 8'392'727);
    const auto clips = nevo::media::readClips();
    EXPECT_EQ(clips.state, SegmentState::Filled);
    EXPECT_EQ(clips.records.size(), 3U);
}

TEST_F(FullSharedMemoryTest, ASparseSegmentThatCannotBeFilledIsAnErrorAndNoCrash) {
    giveRoom("40m");
    makeSparse();
    RawSegment(kClipSegment).fillClips(3);
    fillUp();
    EXPECT_THROW(MediaCache("NewCache"), ipc::interprocess_exception);
    // What was in it is still there.
    EXPECT_EQ(nevo::media::readClips().records.size(), 3U);
}

TEST_F(FullSharedMemoryTest, WhoeverLooksReadsAroundHoles) {
    giveRoom("40m");
    makeSparse();
    // A count that reaches far into the hole.
    RawSegment clips(kClipSegment);
    clips.fillClips(2);
    clips.putWord(15, 1000);
    RawSegment playlists(kPlaylistSegment);
    playlists.put(0, "SharedPlaylistCache");
    playlists.putWord(19, 1000);
    fillUp();
    const auto found = nevo::media::readClips();
    EXPECT_EQ(found.state, SegmentState::Filled);
    ASSERT_EQ(found.records.size(), 1000U);
    EXPECT_STREQ(found.records.front().name, "old_0000");
    EXPECT_STREQ(found.records.back().name, "");
    EXPECT_EQ(nevo::media::readPlaylists().records.size(), 1000U);
}

} // namespace
