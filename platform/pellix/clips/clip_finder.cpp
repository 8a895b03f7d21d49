#include "clip_finder.h"

#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

#include "clip_examiner.h"
#include "clip_finder_handles.h"
#include "clip_worker.h"
#include "medium_index.h"
#include "parameters.h"
#include "playlist.h"
#include "shared_segment.h"

using namespace nevo::media;

namespace {

std::string nameOf(const Clip& clip) { return fieldText(clip.name); }

// A clip's name in lists that people and programs write: with the file's extension or without. A point in what carries
// no clip extension belongs to the name ("Scene 1.5").
std::string withoutExtension(const std::string& name) { return ClipExaminer::isClipPath(name) ? ClipExaminer::clipName(name) : name; }

// The clips that a playlist names. A record holds the beginning of its file only, so a long playlist is read again.
std::vector<std::string> clipNamesOf(const PlaylistCacheEntry& entry) {
    Playlist playlist;
    std::string text = fieldText(entry.text);
    if (text.size() == sizeof entry.text) {
        PlaylistCacheEntry again;
        readPlaylistFile(fieldText(entry.path), again, playlist);
    } else {
        std::istringstream stream(std::move(text));
        PlaylistReader::Read(stream, playlist);
    }
    return playlist.clipList;
}

// The number that ends a clip's name, or nothing where no digit does or no next take could be above it.
constexpr std::int64_t kNoTake = -1;
std::int64_t takeNumberOf(const std::string& name) {
    const std::size_t digits = name.find_last_not_of("0123456789") + 1; // npos + 1 is 0
    if (digits == name.size()) return kNoTake;
    std::int64_t number = 0;
    for (const char digit : name.substr(digits)) {
        number = number * 10 + (digit - '0');
        if (number >= std::numeric_limits<std::int32_t>::max()) return kNoTake;
    }
    return number;
}

} // namespace

// One piece of work often looks into several clips, the ones that MediaCache adds meanwhile included: one worker does.
ClipFinder::ClipFinder(Config* config) : _config(config), _handles(std::make_unique<Handles>()) { ClipWorker::keep(); }

ClipFinder::~ClipFinder() {
    ClipWorker::keepNoLonger();
#ifdef __GLIBC__
    // The lists are gone by now, but small things that stay were allocated between their records, so that the library would
    // keep most of their memory: tens of megabytes that the recorder has better use for.
    if (_handles->hadWholeTables) ::malloc_trim(0);
#endif
}

void ClipFinder::scanMedia(std::string path) {
    // It may be another medium than the last time, under the same path.
    forgetExaminedFiles();
    _handles->hadWholeTables = true;
    std::list<Clip> clips;
    std::list<PlaylistCacheEntry> playlists;
    if (const auto names = listDirectory(path)) {
        bringClipsInStep(clips, path, *names, static_cast<unsigned int>(_config->getInteger(kParamEncodeType)));
        bringPlaylistsInStep(playlists, path, *names);
    }
    storeClips(_handles->clips, _handles->clipMutex, clips);
    storePlaylists(_handles->playlists, _handles->playlistMutex, playlists);
}

void ClipFinder::bringInStep() {
    std::string path;
    _config->getString(kParamStoragePath, path);
    if (path.empty()) return;
    // A medium that was pulled cannot be read any more; that is no reason to forget what is on it.
    const auto names = listDirectory(path);
    if (!names) return;
    std::list<Clip> clips = takeClips(_handles->clips, _handles->clipMutex);
    if (bringClipsInStep(clips, path, *names, static_cast<unsigned int>(_config->getInteger(kParamEncodeType))))
        storeClips(_handles->clips, _handles->clipMutex, clips);
    bool written = false;
    auto playlists = takePlaylists(_handles->playlists, _handles->playlistMutex, written);
    if (bringPlaylistsInStep(playlists, path, *names))
        storePlaylists(_handles->playlists, _handles->playlistMutex, playlists);
}

std::list<Clip> ClipFinder::findClips(bool playlistSelected, bool filtered, bool /*refresh*/) {
    _handles->hadWholeTables = true;
    bringInStep();
    std::list<Clip> clips = takeClips(_handles->clips, _handles->clipMutex);
    clips.sort(Clip::compare_clips_by_time);
    if (!playlistSelected || !filtered) return clips;

    std::string selected;
    _config->getString(kParamPlaylistName, selected);
    bool written = false;
    const auto playlists = takePlaylists(_handles->playlists, _handles->playlistMutex, written);
    const auto playlist =
        std::find_if(playlists.begin(), playlists.end(),
                     [&selected](const PlaylistCacheEntry& entry) { return playlistName(entry) == selected; });
    std::set<std::string> wanted;
    if (playlist != playlists.end()) {
        for (const std::string& name : clipNamesOf(*playlist)) {
            wanted.insert(name);
            wanted.insert(withoutExtension(name));
        }
    }
    clips.remove_if([&wanted](const Clip& clip) { return !wanted.contains(nameOf(clip)); });
    return clips;
}

void ClipFinder::flushClips() { storeClips(_handles->clips, _handles->clipMutex, {}); }

void ClipFinder::flushAll() {
    forgetExaminedFiles();
    flushClips();
    storePlaylists(_handles->playlists, _handles->playlistMutex, {});
}

std::string ClipFinder::NextClipNameAfterDelete(std::list<Clip> clips, std::string current,
                                                std::set<std::string> deleted) {
    std::set<std::string> gone;
    for (const std::string& name : deleted) gone.insert(withoutExtension(name));
    const bool all = deleted.contains("*");
    const auto survives = [&gone, all](const Clip& clip) { return !all && !gone.contains(nameOf(clip)); };

    const auto named = [&clips](const std::string& name) {
        return std::find_if(clips.begin(), clips.end(), [&name](const Clip& clip) { return nameOf(clip) == name; });
    };
    auto at = named(current);
    if (at == clips.end()) at = named(withoutExtension(current));
    if (at == clips.end() || survives(*at)) return current;

    if (const auto next = std::find_if(at, clips.end(), survives); next != clips.end()) return nameOf(*next);
    const auto last = std::find_if(clips.rbegin(), clips.rend(), survives);
    return last == clips.rend() ? "N/A" : nameOf(*last);
}

void ClipFinder::ensureNextRecordedTakeIsGreaterThanAnyOnMedia(std::list<Clip>& clips) {
    std::int64_t highest = kNoTake;
    for (const Clip& clip : clips) highest = std::max(highest, takeNumberOf(nameOf(clip)));
    if (highest != kNoTake && _config->getInteger(kParamNextTakeNumber) <= highest)
        _config->setInteger(kParamNextTakeNumber, static_cast<int>(highest + 1));
}
