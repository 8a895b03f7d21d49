#ifndef MEDIAD_MEDIA_PLAYLIST_H
#define MEDIAD_MEDIA_PLAYLIST_H

#include <istream>
#include <string>
#include <vector>

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
    // every entry that is a string, whenever there is one.
    static bool Read(std::istream& in, Playlist& playlist);
};

} // namespace nevo::media

#endif
