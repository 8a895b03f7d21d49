#include "media/media_cache.h"

#include <cstdlib>
#include <string_view>
#include <utility>

#include "encode_type.h"
#include "playlist.h"

namespace nevo::media {

namespace {

// Whether `clip` is of the codec that `encodeType` belongs to, by what its attribute text says.
bool isSameCodec(const Clip& clip, unsigned int encodeType) {
    const auto attributes = clip.attributes.getAttributesMap();
    const auto found = attributes.find(MediaVideoEncodeType);
    if (found == attributes.end()) return false;
    const auto clipType = static_cast<unsigned int>(std::strtol(found->second.c_str(), nullptr, 10));
    return CIsEncodeType::areEncodeTypesDifferentCodecs(clipType, encodeType) == 0;
}

} // namespace

MediaCache::MediaCache(std::string prefix) : _prefix(std::move(prefix)), _segments(_prefix) {}

MediaCache::~MediaCache() = default;

bool MediaCache::hasRoomFor(const std::string& path) {
    const std::string name = clipName(path);
    bool room = false;
    visitSegment(_segments.clips, _segments.clipMutex, kClipSegmentSize,
                 [&](const std::byte* segment) { room = hasRoomForClip(segment, name); });
    return room;
}

bool MediaCache::AddClip(std::string path, unsigned int encodeType, int& index, bool option) {
    Clip added{};
    if (!GrokClip(added, path, option)) return false;
    added.sameCodec = isSameCodec(added, encodeType) ? 1 : 0;

    int last = -1;
    visitSegment(_segments.clips, _segments.clipMutex, kClipSegmentSize,
                 [&](std::byte* segment) { last = putClip(segment, added, &_clipsSeen); });
    if (last == -1) return false;
    // Not the clip's place: the recorder counts on the number of clips less one.
    index = last;
    return true;
}

bool MediaCache::ReadPlaylistCacheFromSharedMemory(std::map<std::string, PlaylistCacheEntry>& cache) {
    bool written = false;
    for (const PlaylistCacheEntry& playlist : takePlaylists(_segments.playlists, _segments.playlistMutex, written))
        cache[playlistName(playlist)] = playlist;
    return written;
}

bool MediaCache::hasRoomForPlaylist(const std::string& path) {
    const std::string_view name = playlistNameIn(path);
    bool room = false;
    visitSegment(_segments.playlists, _segments.playlistMutex, kPlaylistSegmentSize,
                 [&](const std::byte* segment) { room = media::hasRoomForPlaylist(segment, name); });
    return room;
}

bool MediaCache::AddPlaylist(std::string path) {
    PlaylistCacheEntry entry;
    Playlist playlist;
    if (!readPlaylistFile(path, entry, playlist)) return false;
    bool stored = false;
    visitSegment(_segments.playlists, _segments.playlistMutex, kPlaylistSegmentSize,
                 [&](std::byte* segment) { stored = putPlaylist(segment, entry); });
    return stored;
}

bool MediaCache::RemovePlaylist(const std::string& path) {
    bool removed = false;
    visitSegment(_segments.playlists, _segments.playlistMutex, kPlaylistSegmentSize,
                 [&](std::byte* segment) { removed = takeOutPlaylist(segment, path); });
    return removed;
}

} // namespace nevo::media
