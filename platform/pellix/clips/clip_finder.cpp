#include "clip_finder.h"

#include <cjson/cJSON.h>
#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <map>
#include <vector>

#include "clip_examination.h"
#include "clip_examiner.h"
#include "clip_file.h"
#include "clip_finder_handles.h"
#include "encode_type.h"
#include "parameters.h"
#include "platform/pellix/diagnostic_line.h"
#include "shared_segment.h"

using namespace nevo::media;

namespace {

std::string nameOf(const Clip& clip) { return fieldText(clip.name); }

// The same rule as the media watcher's: a substring of the full path, not a suffix.
bool isClipPath(const std::string& path) {
    return path.find(".mov") != std::string::npos || path.find(".MOV") != std::string::npos;
}

// A clip's name in lists that people and programs write: with the file's extension or without. A point in what carries
// no clip extension belongs to the name ("Scene 1.5").
std::string withoutExtension(const std::string& name) { return isClipPath(name) ? ClipExaminer::clipName(name) : name; }

// The names in a directory, sorted, so that a scan does not depend on how the file system arranges them.
std::vector<std::string> listDirectory(const std::string& path) {
    std::vector<std::string> names;
    DIR* directory = ::opendir(path.c_str());
    if (directory == nullptr) {
        writeDiagnosticLine(" ClipFinder - cannot read " + path, errno);
        return names;
    }
    errno = 0;
    while (const dirent* entry = ::readdir(directory)) names.emplace_back(entry->d_name);
    if (errno != 0) writeDiagnosticLine(" ClipFinder - reading " + path + " ended early", errno);
    ::closedir(directory);
    std::sort(names.begin(), names.end());
    return names;
}

// The clips of a scan: one for each name, in the order in which they go into the segment, and never more in memory
// than it has room for, however many files a medium holds.
class ScannedClips {
public:
    void add(const Clip& clip) {
        if (const auto same = _byName.find(nameOf(clip)); same != _byName.end()) {
            _ordered.erase(same->second);
            _byName.erase(same);
        }
        Key key{clip.time, nameOf(clip)};
        _byName[key.second] = key;
        _ordered.emplace(std::move(key), clip);
        if (_ordered.size() <= kClipCapacity) return;
        ++_leftOut;
        _byName.erase(_ordered.begin()->first.second);
        _ordered.erase(_ordered.begin());
    }

    std::size_t leftOut() const { return _leftOut; }

    std::list<Clip> take() {
        std::list<Clip> clips;
        // One at a time: a second whole table is a lot for the board.
        for (; !_ordered.empty(); _ordered.erase(_ordered.begin())) clips.push_back(_ordered.begin()->second);
        _byName.clear();
        return clips;
    }

private:
    using Key = std::pair<std::int32_t, std::string>; // time, name
    std::map<Key, Clip> _ordered;
    std::map<std::string, Key> _byName;
    std::size_t _leftOut = 0;
};

// The names in a playlist's text. Like the reader that let it into the cache, only the first line counts.
std::vector<std::string> clipNamesOf(const PlaylistCacheEntry& playlist) {
    std::vector<std::string> names;
    const std::string text = fieldText(playlist.text);
    cJSON* document = cJSON_Parse(text.substr(0, text.find('\n')).c_str());
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, cJSON_GetObjectItem(document, "cliplist")) {
        if (const char* name = cJSON_GetStringValue(entry); name != nullptr) names.emplace_back(name);
    }
    cJSON_Delete(document);
    return names;
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

ClipFinder::ClipFinder(Config* config) : _config(config), _handles(std::make_unique<Handles>()) {}

ClipFinder::~ClipFinder() = default;

void ClipFinder::scanMedia(std::string path) {
    const auto encodeType = static_cast<unsigned int>(_config->getInteger(kParamEncodeType));
    ScannedClips found;
    for (const std::string& name : listDirectory(path)) {
        const std::string file = path + "/" + name;
        if (!isClipPath(file)) continue;
        const ClipFile clipFile(file);
        if (!clipFile.isOpen() || clipFile.isBeingWritten()) continue;
        Clip clip{};
        const eEncodeType_t clipType = examineClip(clipFile, file, clip);
        if (clipType == kEncodeUnknown) continue;
        clip.sameCodec = CIsEncodeType::areEncodeTypesDifferentCodecs(clipType, encodeType) == 0 ? 1 : 0;
        found.add(clip);
    }
    if (found.leftOut() != 0)
        writeDiagnosticLine(" ClipFinder - " + path + " has more clips than the cache has room for, left out the " +
                            std::to_string(found.leftOut()) + " oldest");
    storeClips(_handles->clips, _handles->clipMutex, found.take());
    storePlaylists(_handles->playlists, _handles->playlistMutex, {});
}

std::list<Clip> ClipFinder::findClips(bool playlistSelected, bool filtered, bool /*refresh*/) {
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
    std::list<Clip> chosen;
    if (playlist == playlists.end()) return chosen;

    std::map<std::string, const Clip*> byName;
    for (const Clip& clip : clips) byName.emplace(nameOf(clip), &clip);
    for (const std::string& name : clipNamesOf(*playlist)) {
        auto found = byName.find(name);
        if (found == byName.end()) found = byName.find(withoutExtension(name));
        if (found != byName.end()) chosen.push_back(*found->second);
    }
    return chosen;
}

void ClipFinder::flushClips() { storeClips(_handles->clips, _handles->clipMutex, {}); }

void ClipFinder::flushAll() {
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
