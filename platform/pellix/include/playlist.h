#ifndef MEDIAD_PLATFORM_PLAYLIST_H
#define MEDIAD_PLATFORM_PLAYLIST_H

#include <istream>
#include <string>
#include <string_view>
#include <vector>

#include "clip.h"

namespace nevo::media {

class Playlist {
public:
    virtual ~Playlist() = default;

    std::string name;                  // as shown; the file's name is another matter
    std::vector<std::string> clipList; // clip names in play order
};

// Reads playlist files: one JSON object on the first line, {"name": "Show A", "cliplist": ["Clip_0001", "Clip_0002"]};
// other members are ignored. The text comes from a medium and is not trusted. Any thread.
class PlaylistReader {
public:
    // Reads up to the first line feed, and no more than 544,767 characters. True when the text is JSON with a
    // "cliplist" of which every entry is a string. The name is filled in as soon as it is read; the clip list, with
    // every entry that is a string, whenever there is one. A document without a "name" is not for this reader.
    static bool Read(std::istream& in, Playlist& playlist);
};

// Reads the playlist file at `path`, checks it with the reader and makes its record: path, text and modification time,
// what is too long cut off. The file's text ends at its first NUL byte. False, with `entry` as it was, when the file is
// no regular file (a link to one is), is larger than 16 MiB, cannot be read whole, has no "name" or is refused by the
// reader. A missing, a too large and a short file are said in one line. Any thread.
bool readPlaylistFile(const std::string& path, PlaylistCacheEntry& entry, Playlist& playlist);

// The name under which a playlist is known: the last component of its path, up to the first ".playlist". The view is of
// `path`, or of a constant; it allocates nothing.
std::string_view playlistNameIn(std::string_view path);
inline std::string playlistName(const std::string& path) { return std::string(playlistNameIn(path)); }

} // namespace nevo::media

#endif
