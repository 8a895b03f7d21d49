#ifndef MEDIAD_TOOLS_PLAYLIST_CONTENTS_H
#define MEDIAD_TOOLS_PLAYLIST_CONTENTS_H

#include "clip.h"
#include "playlist.h"

namespace mediactl {

// What a playlist record says.
struct PlaylistContents {
    enum class State {
        Whole,
        Cut,   // the record holds the beginning of the file only, and the file is not there to be read
        Broken // the text is no playlist; what could be read of it is there
    };

    State state = State::Broken;
    nevo::media::Playlist playlist;
};

// Reads the record's text, and the file at its path where the record holds only its beginning. Whatever the record says
// is not believed: any process can write it.
PlaylistContents contentsOf(const nevo::media::PlaylistCacheEntry& record);

} // namespace mediactl

#endif
