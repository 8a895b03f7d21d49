#include "media/segment_editing.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "playlist.h"
#include "shared_segment.h"

namespace nevo::media {

namespace {

constexpr std::uint32_t kNowhere = UINT32_MAX;

template <typename Byte>
Byte* clipAt(Byte* segment, std::uint32_t index) {
    return segment + kClipRecordsOffset + kClipStride * index;
}

template <typename Byte>
Byte* playlistAt(Byte* segment, std::uint32_t index) {
    return segment + kPlaylistRecordsOffset + kPlaylistStride * index;
}

std::uint32_t clipCount(const std::byte* segment) {
    bool written = false;
    return recordCount(segment, kClipMagic, kClipMagicSize, kClipCapacity, written);
}

std::uint32_t playlistCount(const std::byte* segment) {
    bool written = false;
    return recordCount(segment, kPlaylistMagic, kPlaylistMagicSize, kPlaylistCapacity, written);
}

void writeFront(std::byte* segment, const char* magic, std::size_t magicSize, std::uint32_t count) {
    willWrite(magic);
    std::memcpy(segment, magic, magicSize);
    std::memcpy(segment + magicSize, &count, sizeof count);
}

std::string_view textAt(const std::byte* field, std::size_t size) {
    const char* const text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, size)};
}

std::string_view nameOfClip(const std::byte* record) { return textAt(record, sizeof Clip::name); }

// As `nameOfClip(record) == name`, without measuring every name: most differ early.
bool isNamed(const std::byte* record, std::string_view name) {
    return std::memcmp(record, name.data(), name.size()) == 0 &&
           (name.size() == sizeof Clip::name || record[name.size()] == std::byte{0});
}

std::int32_t timeOf(const std::byte* record) {
    std::int32_t time;
    std::memcpy(&time, record + offsetof(Clip, time), sizeof time);
    return time;
}

std::string_view pathOf(const std::byte* record) { return textAt(record, sizeof PlaylistCacheEntry::path); }

std::string_view nameOfPlaylist(const std::byte* record) { return playlistNameIn(pathOf(record)); }

// One record at a time, and of each no more than its own bytes: one move of the whole block would take the padding along.
void copyClip(std::byte* to, const void* from) {
    willWrite(kClipMagic);
    std::memcpy(to, from, kClipBytesCopied);
}

// The clips from `first` up to before `end` move one place on; the one at `end` is overwritten.
void moveClipsUp(std::byte* segment, std::uint32_t first, std::uint32_t end) {
    for (std::uint32_t i = end; i > first; --i) copyClip(clipAt(segment, i), clipAt(segment, i - 1));
}

// The clips behind `first` up to and with `last` move one place back; the one at `first` is overwritten.
void moveClipsDown(std::byte* segment, std::uint32_t first, std::uint32_t last) {
    for (std::uint32_t i = first; i < last; ++i) copyClip(clipAt(segment, i), clipAt(segment, i + 1));
}

// What a segment says about the place of a new clip.
struct ClipPlace {
    std::uint32_t same = kNowhere;  // the one of the same name
    std::uint32_t before = 0;       // how many of the others are not later
    bool isInOrder = true;          // the others, by time; and only one has the name
};

ClipPlace findPlace(const std::byte* segment, std::uint32_t count, std::string_view name, std::int32_t time) {
    ClipPlace place;
    std::int32_t last = INT32_MIN;
    for (std::uint32_t i = 0; i < count && place.isInOrder; ++i) {
        const std::byte* const record = clipAt(segment, i);
        if (isNamed(record, name)) {
            place.isInOrder = place.same == kNowhere;
            place.same = i;
            continue;
        }
        const std::int32_t its = timeOf(record);
        place.isInOrder = last <= its;
        last = its;
        if (its <= time) ++place.before;
    }
    return place;
}

// Whether a clip of this time keeps the order at this place.
bool isPlaceOf(const std::byte* segment, std::uint32_t count, std::uint32_t place, std::int32_t time) {
    return (place == 0 || timeOf(clipAt(segment, place - 1)) <= time) &&
           (place == count || time < timeOf(clipAt(segment, place)));
}

int putIntoWholeTable(std::byte* segment, const Clip& clip, std::string_view name) {
    bool written = false;
    std::list<Clip> clips = clipsOf(segment, written);
    clips.remove_if([name](const Clip& other) { return fieldText(other.name) == name; });
    if (clips.size() >= kClipCapacity) return -1;
    clips.push_back(clip);
    clips.sort(Clip::compare_clips_by_time); // stable: a clip follows the older ones of its time
    putClips(segment, clips);
    return static_cast<int>(clips.size()) - 1;
}

// Where a name stands among the playlists, or would.
struct PlaylistPlace {
    std::uint32_t before = 0; // how many names are less
    bool isThere = false;
    bool isInOrder = true; // every name is less than the next
};

PlaylistPlace findPlace(const std::byte* segment, std::uint32_t count, std::string_view name) {
    PlaylistPlace place;
    std::string_view last;
    for (std::uint32_t i = 0; i < count && place.isInOrder; ++i) {
        const std::string_view its = nameOfPlaylist(playlistAt(segment, i));
        place.isInOrder = i == 0 || last < its;
        last = its;
        const int order = its.compare(name);
        if (order < 0) ++place.before;
        if (order == 0) place.isThere = true;
    }
    return place;
}

std::map<std::string, PlaylistCacheEntry> playlistsByName(const std::byte* segment) {
    bool written = false;
    std::map<std::string, PlaylistCacheEntry> playlists;
    for (const PlaylistCacheEntry& playlist : playlistsOf(segment, written)) playlists[playlistName(playlist)] = playlist;
    return playlists;
}

void putWholeTable(std::byte* segment, const std::map<std::string, PlaylistCacheEntry>& byName) {
    std::list<PlaylistCacheEntry> playlists;
    for (const auto& [name, playlist] : byName) playlists.push_back(playlist);
    putPlaylists(segment, playlists);
}

bool occursIn(std::string_view path, std::string_view part) { return path.find(part) != std::string_view::npos; }

} // namespace

bool hasRoomForClip(const std::byte* segment, std::string_view name) {
    const std::uint32_t count = clipCount(segment);
    if (count < kClipCapacity) return true;
    // No record has a longer one, and comparing would run over its end.
    if (name.size() > sizeof Clip::name) return false;
    for (std::uint32_t i = 0; i < count; ++i)
        if (isNamed(clipAt(segment, i), name)) return true;
    return false;
}

ClipsSeen::Seen ClipsSeen::look(const std::byte* record) {
    return {std::hash<std::string_view>()(nameOfClip(record)), timeOf(record)};
}

bool ClipsSeen::stillHolds(const std::byte* segment, std::uint32_t count) {
    constexpr std::uint32_t kLookedAt = 16;
    if (_records.empty() || _records.size() != count) return false;
    const auto isAsBefore = [this, segment](std::uint32_t index) {
        const Seen now = look(clipAt(segment, index));
        return now.name == _records[index].name && now.time == _records[index].time;
    };
    bool holds = isAsBefore(0) && isAsBefore(count - 1);
    for (std::uint32_t i = 0; i < kLookedAt && holds; ++i) {
        _next = _next + 1 < count ? _next + 1 : 0;
        holds = isAsBefore(_next);
    }
    return holds;
}

bool ClipsSeen::mayHave(std::string_view name) const { return _names.contains(std::hash<std::string_view>()(name)); }

std::uint32_t ClipsSeen::placeOf(std::int32_t time) const {
    const auto later = std::upper_bound(_records.begin(), _records.end(), time,
                                        [](std::int32_t wanted, const Seen& seen) { return wanted < seen.time; });
    return static_cast<std::uint32_t>(later - _records.begin());
}

void ClipsSeen::insert(std::uint32_t place, const std::byte* record) {
    const Seen seen = look(record);
    _records.insert(_records.begin() + place, seen);
    _names.insert(seen.name);
}

void ClipsSeen::learn(const std::byte* segment, std::uint32_t count) {
    forget();
    if (count < _worthIt || !std::exchange(_isRepeated, true)) return;
    _records.reserve(kClipCapacity);
    for (std::uint32_t i = 0; i < count; ++i) insert(i, clipAt(segment, i));
}

void ClipsSeen::forget() {
    _records.clear();
    _names.clear();
}

int putClip(std::byte* segment, const Clip& clip, ClipsSeen* seen) {
    const std::uint32_t count = clipCount(segment);
    const std::string_view name(clip.name, strnlen(clip.name, sizeof clip.name));
    const bool isKnown = seen != nullptr && count < kClipCapacity && seen->stillHolds(segment, count) &&
                         !seen->mayHave(name) && isPlaceOf(segment, count, seen->placeOf(clip.time), clip.time);
    ClipPlace place;
    if (isKnown)
        place.before = seen->placeOf(clip.time);
    else
        place = findPlace(segment, count, name, clip.time);
    if (!place.isInOrder) {
        if (seen != nullptr) seen->forget();
        return putIntoWholeTable(segment, clip, name);
    }

    std::uint32_t newCount = count;
    if (place.same == kNowhere) {
        if (count == kClipCapacity) return -1;
        moveClipsUp(segment, place.before, count);
        ++newCount;
    } else if (place.before <= place.same) {
        moveClipsUp(segment, place.before, place.same);
    } else {
        moveClipsDown(segment, place.same, place.before);
    }
    copyClip(clipAt(segment, place.before), &clip);
    writeFront(segment, kClipMagic, kClipMagicSize, newCount);
    if (isKnown)
        seen->insert(place.before, clipAt(segment, place.before));
    else if (seen != nullptr)
        seen->learn(segment, newCount);
    return static_cast<int>(newCount) - 1;
}

bool takeOutClip(std::byte* segment, std::string_view path) {
    std::uint32_t count = clipCount(segment);
    std::uint32_t first = 0;
    while (first < count && !occursIn(path, nameOfClip(clipAt(segment, first)))) ++first;
    const bool found = first < count;
    if (found) {
        moveClipsDown(segment, first, count - 1);
        --count;
    }
    writeFront(segment, kClipMagic, kClipMagicSize, count);
    return found;
}

bool hasRoomForPlaylist(const std::byte* segment, std::string_view name) {
    const std::uint32_t count = playlistCount(segment);
    if (count < kPlaylistCapacity) return true;
    // One that is there twice takes up one place once the table is written.
    std::set<std::string_view> names{name};
    for (std::uint32_t i = 0; i < count; ++i) names.insert(nameOfPlaylist(playlistAt(segment, i)));
    return names.size() <= kPlaylistCapacity;
}

bool putPlaylist(std::byte* segment, const PlaylistCacheEntry& playlist) {
    const std::uint32_t count = playlistCount(segment);
    const std::string name = playlistName(playlist);
    const PlaylistPlace place = findPlace(segment, count, name);
    if (!place.isInOrder) {
        std::map<std::string, PlaylistCacheEntry> playlists = playlistsByName(segment);
        playlists[name] = playlist;
        if (playlists.size() > kPlaylistCapacity) return false;
        putWholeTable(segment, playlists);
        return true;
    }
    std::byte* const here = playlistAt(segment, place.before);
    if (!place.isThere) {
        if (count == kPlaylistCapacity) return false;
        // Without padding, the records can move as one block.
        willWrite(kPlaylistMagic);
        std::memmove(here + kPlaylistStride, here, kPlaylistStride * (count - place.before));
    }
    willWrite(kPlaylistMagic);
    std::memcpy(here, &playlist, kPlaylistStride);
    writeFront(segment, kPlaylistMagic, kPlaylistMagicSize, place.isThere ? count : count + 1);
    return true;
}

bool takeOutPlaylist(std::byte* segment, std::string_view path) {
    std::uint32_t count = playlistCount(segment);
    if (!findPlace(segment, count, {}).isInOrder) {
        std::map<std::string, PlaylistCacheEntry> playlists = playlistsByName(segment);
        const auto named = std::find_if(playlists.begin(), playlists.end(), [path](const auto& playlist) {
            return occursIn(path, fieldText(playlist.second.path));
        });
        const bool found = named != playlists.end();
        if (found) playlists.erase(named);
        putWholeTable(segment, playlists);
        return found;
    }
    std::uint32_t first = 0;
    while (first < count && !occursIn(path, pathOf(playlistAt(segment, first)))) ++first;
    const bool found = first < count;
    if (found) {
        std::byte* const here = playlistAt(segment, first);
        willWrite(kPlaylistMagic);
        std::memmove(here, here + kPlaylistStride, kPlaylistStride * (count - 1 - first));
        --count;
    }
    writeFront(segment, kPlaylistMagic, kPlaylistMagicSize, count);
    return found;
}

} // namespace nevo::media
