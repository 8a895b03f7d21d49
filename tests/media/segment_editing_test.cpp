// Editing in place against the whole-table way, on segments that hold anything: tables in no order, names that are there
// twice, texts without an end, counts beyond the room, padding and stale records full of bytes.

#include "media/segment_editing.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "benchmarks/whole_table.h"

using namespace nevo::media;

namespace {

constexpr std::uint32_t kRecordsUsed = 12; // no history gets further than that
constexpr std::size_t kClipBytesCompared = kClipRecordsOffset + kClipStride * (kRecordsUsed + 2);
constexpr std::size_t kPlaylistBytesCompared = kPlaylistRecordsOffset + kPlaylistStride * (kRecordsUsed + 2);

// The thread sanitizer has nothing to find where there is one thread, and takes minutes for all of them.
#ifdef __SANITIZE_THREAD__
constexpr unsigned int kHistories = 100;
#else
constexpr unsigned int kHistories = 1000;
#endif

// A segment in plain memory, ending exactly where a mapped one does, so that the address sanitizer sees what goes beyond.
class Segment {
public:
    explicit Segment(std::size_t size) : _bytes(static_cast<std::byte*>(std::calloc(size, 1)), &std::free) {}
    std::byte* bytes() const { return _bytes.get(); }
    template <typename Look>
    void operator()(Look look) const {
        look(bytes());
    }

private:
    std::unique_ptr<std::byte, decltype(&std::free)> _bytes;
};

class SegmentEditingTest : public testing::Test {
protected:
    unsigned int any(unsigned int below) { return static_cast<unsigned int>(_random()) % below; }

    void scribble(void* to, std::size_t size) {
        auto* const bytes = static_cast<std::byte*>(to);
        for (std::size_t at = 0; at < size; at += 4) {
            const auto word = static_cast<std::uint32_t>(_random());
            std::memcpy(bytes + at, &word, std::min<std::size_t>(size - at, sizeof word));
        }
    }

    // Few names, parts of each other, one empty, one that fills its field.
    std::string anyClipName() {
        static const std::vector<std::string> names{"Clip_1", "Clip_12", "Clip_2", "h", "", std::string(4096, 'n'),
                                                    "Clip_3", "Clip_33", "k"};
        // An empty name is part of every path: seldom.
        return names[any(20) == 0 ? 4 : any(4) == 0 ? any(9) : any(4)];
    }

    Clip anyClip() {
        Clip clip;
        scribble(&clip, sizeof clip);
        const std::string name = anyClipName();
        std::memcpy(clip.name, name.c_str(), std::min(name.size() + 1, sizeof clip.name));
        clip.time = any(8) == 0 ? static_cast<std::int32_t>(_random()) : static_cast<std::int32_t>(any(5)) - 2;
        return clip;
    }

    PlaylistCacheEntry anyPlaylist() {
        PlaylistCacheEntry playlist;
        scribble(&playlist, sizeof playlist);
        static const std::vector<std::string> paths{"/m/a.playlist", "/n/a.playlist", "/m/b.playlist", "/m/B.playlist",
                                                    "/m/c.playlist.bak", "/m/\xe4.playlist", "b", "/", "",
                                                    "/" + std::string(4095, 'p')};
        const std::string path = paths[any(static_cast<unsigned int>(paths.size()))];
        std::memcpy(playlist.path, path.c_str(), std::min(path.size() + 1, sizeof playlist.path));
        return playlist;
    }

    template <typename Record>
    void fill(std::byte* segment, const char* magic, std::size_t magicSize, std::size_t stride,
              const std::vector<Record>& records) {
        if (any(8) == 0) return; // nobody has written to it yet
        scribble(segment + magicSize + 4, stride * (kRecordsUsed + 1));
        std::memcpy(segment, magic, magicSize);
        const auto count = static_cast<std::uint32_t>(records.size());
        std::memcpy(segment + magicSize, &count, sizeof count);
        for (std::size_t i = 0; i < records.size(); ++i)
            std::memcpy(segment + magicSize + 4 + stride * i, &records[i],
                        sizeof(Record) == kClipStride ? kClipBytesCopied : sizeof(Record));
        if (any(10) == 0) segment[any(static_cast<unsigned int>(magicSize))] ^= std::byte{1};
    }

    std::mt19937 _random;
};

TEST_F(SegmentEditingTest, ClipsAreLeftAsTheWholeTableWayLeavesThem) {
    for (unsigned int seed = 1; seed <= kHistories; ++seed) {
        _random.seed(seed);
        const Segment edited(kClipSegmentSize), rewritten(kClipSegmentSize);
        std::vector<Clip> clips(any(7));
        for (Clip& clip : clips) clip = anyClip();
        if (any(4) != 0) std::ranges::stable_sort(clips, Clip::compare_clips_by_time);
        fill(edited.bytes(), kClipMagic, kClipMagicSize, kClipStride, clips);
        std::memcpy(rewritten.bytes(), edited.bytes(), kClipBytesCompared);
        for (int step = 0; step < 6; ++step) {
            if (any(3) != 0) {
                const Clip clip = anyClip();
                ASSERT_EQ(putClip(edited.bytes(), clip), wholetable::putClip(rewritten, clip)) << "seed " << seed;
            } else {
                const std::string path = "/mnt/S1/" + anyClipName() + ".mov";
                ASSERT_EQ(takeOutClip(edited.bytes(), path), wholetable::takeOutClip(rewritten, path)) << "seed " << seed;
            }
            ASSERT_EQ(std::memcmp(edited.bytes(), rewritten.bytes(), kClipBytesCompared), 0)
                << "seed " << seed << " step " << step;
        }
    }
}

// Clip after clip by one who remembers what he has seen, while others change the table as well: more clips, fewer clips,
// a clip in the place of another, another order.
TEST_F(SegmentEditingTest, WhatWasSeenChangesNothing) {
    for (unsigned int seed = 1; seed <= kHistories; ++seed) {
        _random.seed(seed);
        const Segment edited(kClipSegmentSize), rewritten(kClipSegmentSize);
        ClipsSeen seen(0);
        for (int step = 0; step < 10; ++step) {
            Clip clip = anyClip();
            std::uint32_t count = 0;
            std::memcpy(&count, edited.bytes() + kClipCountOffset, sizeof count);
            const unsigned int what = any(16);
            if (what == 0) {
                const std::string path = "/mnt/S1/" + anyClipName() + ".mov";
                ASSERT_EQ(takeOutClip(edited.bytes(), path), wholetable::takeOutClip(rewritten, path));
            } else if (what == 1) {
                ASSERT_EQ(putClip(edited.bytes(), clip), wholetable::putClip(rewritten, clip));
            } else if (what == 2 && count != 0) {
                const std::size_t at = kClipRecordsOffset + kClipStride * any(count);
                std::memcpy(edited.bytes() + at, &clip, kClipStride);
                std::memcpy(rewritten.bytes() + at, &clip, kClipStride);
            } else {
                ASSERT_EQ(putClip(edited.bytes(), clip, &seen), wholetable::putClip(rewritten, clip)) << "seed " << seed;
            }
            ASSERT_EQ(std::memcmp(edited.bytes(), rewritten.bytes(), kClipBytesCompared), 0)
                << "seed " << seed << " step " << step;
        }
    }
}

// Two segments alike, with so many clips, a second apart; whoever adds has seen all of them.
class LongTableTest : public SegmentEditingTest {
protected:
    static Clip clip(unsigned int number, std::int32_t time) {
        Clip clip{};
        std::snprintf(clip.name, sizeof clip.name, "clip_%05u", number);
        clip.time = time;
        return clip;
    }
    void fillBoth(std::uint32_t count) {
        for (std::byte* const segment : {edited.bytes(), rewritten.bytes()}) {
            std::memcpy(segment, kClipMagic, kClipMagicSize);
            std::memcpy(segment + kClipCountOffset, &count, sizeof count);
            for (std::uint32_t i = 0; i < count; ++i) {
                const Clip each = clip(i, static_cast<std::int32_t>(1000 + i));
                std::memcpy(segment + kClipRecordsOffset + kClipStride * i, &each, kClipBytesCopied);
            }
        }
    }
    void put(const Clip& clip) {
        ASSERT_EQ(putClip(edited.bytes(), clip, &seen), wholetable::putClip(rewritten, clip));
        ASSERT_EQ(std::memcmp(edited.bytes(), rewritten.bytes(), kClipSegmentSize), 0);
    }
    // What another program does, unseen.
    void putElsewhere(const Clip& clip) {
        ASSERT_EQ(putClip(edited.bytes(), clip), wholetable::putClip(rewritten, clip));
    }

    const Segment edited{kClipSegmentSize}, rewritten{kClipSegmentSize};
    ClipsSeen seen;
};

TEST_F(LongTableTest, ClipsAddedOneAfterTheOtherAreWhereTheyBelong) {
    fillBoth(ClipsSeen::kWorthIt - 2);
    for (unsigned int number = 0; number < 40; ++number)
        put(clip(5000 + number * 7 % 40, static_cast<std::int32_t>(990 + number * 37 % 560)));
    put(clip(300, 1700)); // one that is there
    put(clip(301, 900));
}

TEST_F(LongTableTest, OrderIsKeptWhenAnotherProgramMovesAClipUnseen) {
    fillBoth(600);
    put(clip(5000, 2000));
    put(clip(5001, 2001));
    putElsewhere(clip(300, 1500)); // in its old place stands now the next one, up to the 500th
    put(clip(5002, 1400));
}

TEST_F(LongTableTest, ClipThatAnotherProgramPutIntoAFullTableIsReplaced) {
    fillBoth(kClipCapacity);
    put(clip(10, 1010)); // replaced, and so seen
    put(clip(11, 1011));
    for (std::byte* const segment : {edited.bytes(), rewritten.bytes()}) {
        const Clip other = clip(9999, 3000);
        std::memcpy(segment + kClipRecordsOffset + kClipStride * 2000, &other, kClipBytesCopied);
    }
    put(clip(9999, 3000));
}

TEST_F(SegmentEditingTest, PlaylistsAreLeftAsTheWholeTableWayLeavesThem) {
    for (unsigned int seed = 1; seed <= kHistories; ++seed) {
        _random.seed(seed);
        const Segment edited(kPlaylistSegmentSize), rewritten(kPlaylistSegmentSize);
        std::vector<PlaylistCacheEntry> playlists(any(7));
        for (PlaylistCacheEntry& playlist : playlists) playlist = anyPlaylist();
        if (any(4) != 0) {
            const auto name = [](const PlaylistCacheEntry& playlist) { return playlistName(playlist); };
            std::ranges::stable_sort(playlists, {}, name);
            if (any(4) != 0)
                playlists.erase(std::ranges::unique(playlists, {}, name).begin(), playlists.end());
        }
        fill(edited.bytes(), kPlaylistMagic, kPlaylistMagicSize, kPlaylistStride, playlists);
        std::memcpy(rewritten.bytes(), edited.bytes(), kPlaylistBytesCompared);
        for (int step = 0; step < 6; ++step) {
            const PlaylistCacheEntry playlist = anyPlaylist();
            if (any(3) != 0) {
                ASSERT_EQ(putPlaylist(edited.bytes(), playlist), wholetable::putPlaylist(rewritten, playlist))
                    << "seed " << seed;
            } else {
                const std::string path = fieldText(playlist.path);
                ASSERT_EQ(takeOutPlaylist(edited.bytes(), path), wholetable::takeOutPlaylist(rewritten, path))
                    << "seed " << seed;
            }
            ASSERT_EQ(std::memcmp(edited.bytes(), rewritten.bytes(), kPlaylistBytesCompared), 0)
                << "seed " << seed << " step " << step;
        }
    }
}

// A table without room for one more, and a count that says more than there is room for.
class FullSegmentTest : public SegmentEditingTest, public testing::WithParamInterface<std::uint32_t> {
protected:
    void fillClips(std::byte* segment) {
        Clip clip;
        std::memset(&clip, 0x55, sizeof clip);
        for (std::uint32_t i = 0; i < kClipCapacity; ++i) {
            std::snprintf(clip.name, sizeof clip.name, "clip_%05u", i);
            clip.time = static_cast<std::int32_t>(i / 2);
            std::memcpy(segment + kClipRecordsOffset + kClipStride * i, &clip, kClipStride);
        }
        std::memcpy(segment, kClipMagic, kClipMagicSize);
        const std::uint32_t count = GetParam();
        std::memcpy(segment + kClipCountOffset, &count, sizeof count);
    }
    void fillPlaylists(std::byte* segment) {
        PlaylistCacheEntry playlist;
        std::memset(&playlist, 0x55, sizeof playlist);
        for (std::uint32_t i = 0; i < kPlaylistCapacity; ++i) {
            std::snprintf(playlist.path, sizeof playlist.path, "/mnt/S1/NEVO/%05u.playlist", i);
            std::memcpy(segment + kPlaylistRecordsOffset + kPlaylistStride * i, &playlist, kPlaylistStride);
        }
        std::memcpy(segment, kPlaylistMagic, kPlaylistMagicSize);
        const std::uint32_t count = GetParam();
        std::memcpy(segment + kPlaylistCountOffset, &count, sizeof count);
    }
};

TEST_P(FullSegmentTest, NoClipMoreGetsInAndOneOfTheSameNameDoes) {
    const Segment edited(kClipSegmentSize), rewritten(kClipSegmentSize);
    fillClips(edited.bytes());
    fillClips(rewritten.bytes());
    const auto agree = [&] { return std::memcmp(edited.bytes(), rewritten.bytes(), kClipSegmentSize) == 0; };

    Clip clip{};
    std::strcpy(clip.name, "new");
    clip.time = 77;
    EXPECT_FALSE(hasRoomForClip(edited.bytes(), "new"));
    EXPECT_FALSE(hasRoomForClip(edited.bytes(), std::string(5000, 'x')));
    EXPECT_EQ(putClip(edited.bytes(), clip), -1);
    EXPECT_TRUE(agree());
    for (const char* name : {"clip_00000", "clip_04095", "clip_00154"}) {
        std::strcpy(clip.name, name);
        EXPECT_TRUE(hasRoomForClip(edited.bytes(), name));
        EXPECT_EQ(putClip(edited.bytes(), clip), 4095);
        EXPECT_EQ(wholetable::putClip(rewritten, clip), 4095);
        EXPECT_TRUE(agree()) << name;
    }
    for (const char* path : {"/mnt/clip_04094.mov", "/mnt/clip_00001.mov", "/mnt/nothing.mov"}) {
        EXPECT_EQ(takeOutClip(edited.bytes(), path), wholetable::takeOutClip(rewritten, path));
        EXPECT_TRUE(agree()) << path;
    }
}

TEST_P(FullSegmentTest, NoPlaylistMoreGetsInAndOneOfTheSameNameDoes) {
    const Segment edited(kPlaylistSegmentSize), rewritten(kPlaylistSegmentSize);
    fillPlaylists(edited.bytes());
    fillPlaylists(rewritten.bytes());
    const auto agree = [&] { return std::memcmp(edited.bytes(), rewritten.bytes(), kPlaylistSegmentSize) == 0; };

    PlaylistCacheEntry playlist{};
    std::strcpy(playlist.path, "/n/new.playlist");
    EXPECT_FALSE(hasRoomForPlaylist(edited.bytes(), "new"));
    EXPECT_FALSE(putPlaylist(edited.bytes(), playlist));
    EXPECT_TRUE(agree());
    for (const char* name : {"00000", "01023", "00500"}) {
        std::strcpy(playlist.path, (std::string("/n/") + name + ".playlist").c_str());
        EXPECT_TRUE(hasRoomForPlaylist(edited.bytes(), name));
        EXPECT_TRUE(putPlaylist(edited.bytes(), playlist));
        EXPECT_TRUE(wholetable::putPlaylist(rewritten, playlist));
        EXPECT_TRUE(agree()) << name;
    }
    for (const char* path : {"/mnt/S1/NEVO/00001.playlist", "/n/01023.playlist", "/n/nothing"}) {
        EXPECT_EQ(takeOutPlaylist(edited.bytes(), path), wholetable::takeOutPlaylist(rewritten, path));
        EXPECT_TRUE(agree()) << path;
    }
}

TEST_P(FullSegmentTest, APlaylistThatIsThereTwiceMakesRoomForAnother) {
    const Segment edited(kPlaylistSegmentSize), rewritten(kPlaylistSegmentSize);
    PlaylistCacheEntry playlist{};
    std::strcpy(playlist.path, "/n/00003.playlist");
    for (const Segment* segment : {&edited, &rewritten}) {
        fillPlaylists(segment->bytes());
        std::memcpy(segment->bytes() + kPlaylistRecordsOffset + 8 * kPlaylistStride, &playlist, kPlaylistStride);
    }
    std::strcpy(playlist.path, "/n/new.playlist");
    EXPECT_TRUE(hasRoomForPlaylist(edited.bytes(), "new"));
    EXPECT_TRUE(putPlaylist(edited.bytes(), playlist));
    EXPECT_TRUE(wholetable::putPlaylist(rewritten, playlist));
    EXPECT_EQ(std::memcmp(edited.bytes(), rewritten.bytes(), kPlaylistSegmentSize), 0);
}

INSTANTIATE_TEST_SUITE_P(Counts, FullSegmentTest, testing::Values(4096U, 4097U, 0xffffffffU));

} // namespace
