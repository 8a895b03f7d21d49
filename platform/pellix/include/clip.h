#ifndef MEDIAD_PLATFORM_CLIP_H
#define MEDIAD_PLATFORM_CLIP_H

// The clip record and the two shared segments. Other programs read them: every byte position is binding.
//
// All integers are 32 bits in the byte order of the machine that writes them. No field of a segment is aligned.
//
//   clip segment, 26,771,475 bytes                 playlist segment, 8,392,727 bytes
//   offset  size         field                     offset  size         field
//   0       15           "SharedClipCache"         0       19           "SharedPlaylistCache"
//   15      4            clip count N              19      4            playlist count N
//   19      6536 * 4096  clip records              23      8196 * 1024  playlist records
//
//   clip record, 6536 bytes                        playlist record, 8196 bytes
//   0       4096         name, NUL-terminated      0       4096         full path of the file
//   4096    4            time, signed; sort key    4096    4096         the file's first 4096 bytes
//   4100    4            frames                    8192    4            modification time, seconds
//   4104    28           starting timecode
//   4132    1            codec flag
//   4133    2400         attribute text
//   6533    3            padding, never copied
//
// A segment that does not begin with its text is empty, whatever follows.

#include <cstddef>
#include <cstdint>

#include "media_attributes.h"

struct Clip {
    char name[4096];                     // file name without its extension; the identity of the clip
    std::int32_t time;                   // creation time, seconds since the epoch
    std::uint32_t frames;                // length in frames
    char startTimecode[28];              // "10:00:00:00"
    std::uint8_t sameCodec;              // 1: same codec as the one in use when the clip was added
    nevo::media::MediaAttributes attributes;

    static bool compare_clips_by_time(const Clip& a, const Clip& b) { return a.time < b.time; }
};

namespace nevo::media {

struct PlaylistCacheEntry {
    char path[4096];        // not terminated when the path fills it
    char text[4096];        // not terminated when the text fills it
    std::int32_t modified;  // st_mtime
};

inline constexpr char kCachePrefix[] = "NewCache";

inline constexpr char kClipMagic[] = "SharedClipCache";
inline constexpr std::size_t kClipMagicSize = sizeof kClipMagic - 1;
inline constexpr std::size_t kClipCountOffset = kClipMagicSize;
inline constexpr std::size_t kClipRecordsOffset = kClipCountOffset + 4;
inline constexpr std::size_t kClipStride = 6536;
inline constexpr std::size_t kClipBytesCopied = 6533;
inline constexpr std::size_t kClipCapacity = 4096;
inline constexpr std::size_t kClipSegmentSize = kClipRecordsOffset + kClipStride * kClipCapacity;

inline constexpr char kPlaylistMagic[] = "SharedPlaylistCache";
inline constexpr std::size_t kPlaylistMagicSize = sizeof kPlaylistMagic - 1;
inline constexpr std::size_t kPlaylistCountOffset = kPlaylistMagicSize;
inline constexpr std::size_t kPlaylistRecordsOffset = kPlaylistCountOffset + 4;
inline constexpr std::size_t kPlaylistStride = 8196;
inline constexpr std::size_t kPlaylistCapacity = 1024;
inline constexpr std::size_t kPlaylistSegmentSize = kPlaylistRecordsOffset + kPlaylistStride * kPlaylistCapacity;

static_assert(kClipSegmentSize == 26'771'475);
static_assert(kPlaylistSegmentSize == 8'392'727);
static_assert(sizeof(Clip) == kClipStride);
static_assert(offsetof(Clip, time) == 4096 && offsetof(Clip, frames) == 4100 && offsetof(Clip, startTimecode) == 4104);
static_assert(offsetof(Clip, sameCodec) == 4132 && offsetof(Clip, attributes) == 4133);
static_assert(sizeof(PlaylistCacheEntry) == kPlaylistStride);
static_assert(offsetof(PlaylistCacheEntry, text) == 4096 && offsetof(PlaylistCacheEntry, modified) == 8192);

} // namespace nevo::media

#endif
