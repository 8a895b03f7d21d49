#ifndef MEDIAD_BENCHMARKS_WHOLE_TABLE_H
#define MEDIAD_BENCHMARKS_WHOLE_TABLE_H

// The straightforward way to change a segment: read the whole table out, change it, write the whole table back. What
// segment_editing.h does in place is measured against it here, and in the tests held to it, byte by byte.
//
// Each operation is a read and a write; `Segment` runs each of the two on the mapped bytes (under a lock, or on a plain
// buffer): visit(std::byte*).

#include <algorithm>
#include <list>
#include <map>
#include <string>

#include "shared_segment.h"

namespace wholetable {

using nevo::media::PlaylistCacheEntry;

template <typename Visit>
std::list<Clip> readClips(Visit& visit) {
    std::list<Clip> clips;
    visit([&clips](std::byte* segment) {
        bool written = false;
        clips = nevo::media::clipsOf(segment, written);
    });
    return clips;
}

template <typename Visit>
void writeClips(Visit& visit, const std::list<Clip>& clips) {
    visit([&clips](std::byte* segment) { nevo::media::putClips(segment, clips); });
}

// The number of clips less one; -1, and nothing written, when there is no room.
template <typename Visit>
int putClip(Visit&& visit, const Clip& clip) {
    std::list<Clip> clips = readClips(visit);
    const std::string name = nevo::media::fieldText(clip.name);
    clips.remove_if([&name](const Clip& other) { return nevo::media::fieldText(other.name) == name; });
    if (clips.size() >= nevo::media::kClipCapacity) return -1;
    clips.push_back(clip);
    clips.sort(Clip::compare_clips_by_time);
    writeClips(visit, clips);
    return static_cast<int>(clips.size()) - 1;
}

template <typename Visit>
bool takeOutClip(Visit&& visit, const std::string& path) {
    std::list<Clip> clips = readClips(visit);
    const auto named = std::find_if(clips.begin(), clips.end(), [&path](const Clip& clip) {
        return path.find(nevo::media::fieldText(clip.name)) != std::string::npos;
    });
    const bool found = named != clips.end();
    if (found) clips.erase(named);
    writeClips(visit, clips);
    return found;
}

template <typename Visit>
std::map<std::string, PlaylistCacheEntry> readPlaylists(Visit& visit) {
    std::map<std::string, PlaylistCacheEntry> playlists;
    visit([&playlists](std::byte* segment) {
        bool written = false;
        for (const PlaylistCacheEntry& playlist : nevo::media::playlistsOf(segment, written))
            playlists[nevo::media::playlistName(playlist)] = playlist;
    });
    return playlists;
}

template <typename Visit>
void writePlaylists(Visit& visit, const std::map<std::string, PlaylistCacheEntry>& byName) {
    std::list<PlaylistCacheEntry> playlists;
    for (const auto& [name, playlist] : byName) playlists.push_back(playlist);
    visit([&playlists](std::byte* segment) { nevo::media::putPlaylists(segment, playlists); });
}

template <typename Visit>
bool putPlaylist(Visit&& visit, const PlaylistCacheEntry& playlist) {
    std::map<std::string, PlaylistCacheEntry> playlists = readPlaylists(visit);
    playlists[nevo::media::playlistName(playlist)] = playlist;
    if (playlists.size() > nevo::media::kPlaylistCapacity) return false;
    writePlaylists(visit, playlists);
    return true;
}

template <typename Visit>
bool takeOutPlaylist(Visit&& visit, const std::string& path) {
    std::map<std::string, PlaylistCacheEntry> playlists = readPlaylists(visit);
    const auto named = std::find_if(playlists.begin(), playlists.end(), [&path](const auto& playlist) {
        return path.find(nevo::media::fieldText(playlist.second.path)) != std::string::npos;
    });
    const bool found = named != playlists.end();
    if (found) playlists.erase(named);
    writePlaylists(visit, playlists);
    return found;
}

} // namespace wholetable

#endif
