#include "media/media_cache.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "encode_type.h"
#include "playlist.h"
#include "shared_segment.h"

namespace nevo::media {

namespace {

namespace ipc = boost::interprocess;

// Whether `clip` is of the codec that `encodeType` belongs to, by what its attribute text says.
bool isSameCodec(const Clip& clip, unsigned int encodeType) {
    const auto attributes = clip.attributes.getAttributesMap();
    const auto found = attributes.find(MediaVideoEncodeType);
    if (found == attributes.end()) return false;
    const auto clipType = static_cast<unsigned int>(std::strtol(found->second.c_str(), nullptr, 10));
    return CIsEncodeType::areEncodeTypesDifferentCodecs(clipType, encodeType) == 0;
}

bool hasName(const Clip& clip, const std::string& name) { return fieldText(clip.name) == name; }

} // namespace

MediaCache::MediaCache(std::string prefix)
    : _prefix(std::move(prefix)),
      _clipSegment(ipc::open_or_create, clipSegmentName(_prefix).c_str(), ipc::read_write, segmentPermissions()),
      _clipMutex(clipMutexName(_prefix)),
      _playlistSegment(ipc::open_or_create, playlistSegmentName(_prefix).c_str(), ipc::read_write,
                       segmentPermissions()),
      _playlistMutex(playlistMutexName(_prefix)) {
    // The size that a segment already has keeps its contents; a new one becomes all zeros.
    _clipSegment.truncate(static_cast<ipc::offset_t>(kClipSegmentSize));
    _playlistSegment.truncate(static_cast<ipc::offset_t>(kPlaylistSegmentSize));
}

MediaCache::~MediaCache() = default;

bool MediaCache::hasRoomFor(const std::string& path) {
    const std::string name = clipName(path);
    bool room = false;
    visitSegment(_clipSegment, _clipMutex, kClipSegmentSize, [&](const std::byte* segment) {
        bool written = false;
        const std::uint32_t count = recordCount(segment, kClipMagic, kClipMagicSize, kClipCapacity, written);
        room = count < kClipCapacity;
        for (std::uint32_t i = 0; i < count && !room; ++i) {
            const char* field = reinterpret_cast<const char*>(segment + kClipRecordsOffset + kClipStride * i);
            room = name == std::string_view(field, strnlen(field, sizeof Clip::name));
        }
    });
    return room;
}

bool MediaCache::AddClip(std::string path, unsigned int encodeType, int& index, bool option) {
    Clip added{};
    if (!GrokClip(added, path, option)) return false;

    // The mutex is not held from here to the write: nobody else writes this segment.
    std::list<Clip> clips = takeClips(_clipSegment, _clipMutex);
    const std::string name = fieldText(added.name);
    clips.remove_if([&name](const Clip& clip) { return hasName(clip, name); });
    if (clips.size() >= kClipCapacity) return false;
    added.sameCodec = isSameCodec(added, encodeType) ? 1 : 0;
    clips.push_back(added);
    // Not the clip's place: the recorder counts on the number of clips less one, so this stands before the sort.
    index = static_cast<int>(clips.size()) - 1;
    // Stable: a clip follows the older ones of the same time.
    clips.sort(Clip::compare_clips_by_time);
    storeClips(_clipSegment, _clipMutex, clips);
    return true;
}

bool MediaCache::ReadPlaylistCacheFromSharedMemory(std::map<std::string, PlaylistCacheEntry>& cache) {
    bool written = false;
    for (const PlaylistCacheEntry& playlist : takePlaylists(_playlistSegment, _playlistMutex, written))
        cache[playlistName(playlist)] = playlist;
    return written;
}

void MediaCache::WritePlaylistCacheToSharedMemory(const std::map<std::string, PlaylistCacheEntry>& cache) {
    std::list<PlaylistCacheEntry> playlists;
    for (const auto& [name, playlist] : cache) playlists.push_back(playlist);
    storePlaylists(_playlistSegment, _playlistMutex, playlists);
}

bool MediaCache::hasRoomForPlaylist(const std::string& path) {
    std::map<std::string, PlaylistCacheEntry> cache;
    ReadPlaylistCacheFromSharedMemory(cache);
    return cache.size() < kPlaylistCapacity || cache.contains(playlistName(path));
}

bool MediaCache::AddPlaylist(std::string path) {
    PlaylistCacheEntry entry;
    Playlist playlist;
    if (!readPlaylistFile(path, entry, playlist)) return false;
    std::map<std::string, PlaylistCacheEntry> cache;
    ReadPlaylistCacheFromSharedMemory(cache);
    cache[playlistName(entry)] = entry;
    if (cache.size() > kPlaylistCapacity) return false;
    WritePlaylistCacheToSharedMemory(cache);
    return true;
}

} // namespace nevo::media
