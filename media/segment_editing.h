#ifndef MEDIAD_MEDIA_SEGMENT_EDITING_H
#define MEDIAD_MEDIA_SEGMENT_EDITING_H

// Single records put into a mapped segment (clip.h draws it) and taken out of it, in place: only the records that change
// their place are moved.
//
// Every operation leaves the bytes that reading the whole table out, changing it and writing it back would leave (one that
// remembers, with the restriction that ClipsSeen names). A table out of its order, or with one name twice, is put right on
// that occasion, by exactly that way. The padding of a record belongs to its place in the segment and never moves; what
// stands behind the count stays.
//
// A segment holds whatever somebody wrote there: counts are bounded by the room there is, texts by their fields.
//
// To be called while the segment is mapped under its mutex (visitSegment). Any thread.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "clip.h"

namespace nevo::media {

// Whether putClip of a clip of this name keeps within the segment.
bool hasRoomForClip(const std::byte* segment, std::string_view name);

// What whoever adds clip after clip has seen in the segment, so that a burst of thousands does not look at every record
// for every one of them. The segment stays the state: this only tells that a name is not in it and where a time belongs,
// and it is dropped as soon as the segment's count, its first or last clip, or one of some that are looked at in turn, is
// not what it was, or where its place does not keep the order. What it cannot notice is that another program has put a clip
// of the very name that is added next in the place of another, somewhere in between: that name is then there twice, until the
// index is compared with the directory. Short tables are looked at as a whole each time. To be kept for one piece of work, in
// which nobody else rewrites the segment. One thread.
class ClipsSeen {
public:
    static constexpr std::uint32_t kWorthIt = 512;

    explicit ClipsSeen(std::uint32_t worthIt = kWorthIt) : _worthIt(worthIt) {}

private:
    friend int putClip(std::byte* segment, const Clip& clip, ClipsSeen* seen);

    struct Seen {
        std::size_t name; // hash
        std::int32_t time;
    };

    static Seen look(const std::byte* record);
    bool stillHolds(const std::byte* segment, std::uint32_t count);
    bool mayHave(std::string_view name) const;
    std::uint32_t placeOf(std::int32_t time) const;
    void insert(std::uint32_t place, const std::byte* record);
    void learn(const std::byte* segment, std::uint32_t count);
    void forget();

    std::uint32_t _worthIt;
    bool _isRepeated = false;   // what is seen once is not worth remembering
    std::uint32_t _next = 0;    // to be looked at
    std::vector<Seen> _records; // in segment order, which is by time; empty: nothing is known
    std::unordered_set<std::size_t> _names;
};

// Puts `clip` in behind the last clip that is not later, instead of every clip of the same name. The number of clips less
// one, wherever it stands; -1, with nothing changed, when there is no room.
int putClip(std::byte* segment, const Clip& clip, ClipsSeen* seen = nullptr);

// Takes out the first clip whose name occurs in `path`; true when there was one. Text and count are written in any case.
bool takeOutClip(std::byte* segment, std::string_view path);

bool hasRoomForPlaylist(const std::byte* segment, std::string_view name);

// Puts `playlist` in by its name (playlistName), instead of one of the same name. False, with nothing changed, when there
// is no room.
bool putPlaylist(std::byte* segment, const PlaylistCacheEntry& playlist);

// Takes out the first playlist, in the order of the names, whose stored path occurs in `path`; true when there was one.
// Text and count are written in any case.
bool takeOutPlaylist(std::byte* segment, std::string_view path);

} // namespace nevo::media

#endif
