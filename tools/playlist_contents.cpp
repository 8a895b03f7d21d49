#include "tools/playlist_contents.h"

#include <unistd.h>

#include <sstream>

#include "shared_segment.h"
#include "tools/json_text.h"
#include "tools/safe_text.h"

namespace mediactl {

namespace {

using nevo::media::fieldText;
using nevo::media::Playlist;
using nevo::media::PlaylistCacheEntry;
using nevo::media::PlaylistReader;

// The reader is not for a document without a name.
bool namesItself(const std::string& text) {
    const Json document(cJSON_Parse(text.substr(0, text.find('\n')).c_str()));
    return document && cJSON_GetObjectItem(document.get(), "name");
}

bool readText(const std::string& text, Playlist& playlist) {
    if (!namesItself(text)) return false;
    std::istringstream stream(text);
    return PlaylistReader::Read(stream, playlist);
}

// The reader of files complains about a path as it stands; one that a terminal would obey is not worth that.
bool readFile(const std::string& path, Playlist& playlist) {
    if (printable(path) != path || ::access(path.c_str(), R_OK) != 0) return false;
    PlaylistCacheEntry ignored;
    return nevo::media::readPlaylistFile(path, ignored, playlist);
}

} // namespace

PlaylistContents contentsOf(const PlaylistCacheEntry& record) {
    using State = PlaylistContents::State;
    const std::string text = fieldText(record.text);
    PlaylistContents contents;
    // Also a full record may hold the whole list: only the file's first line counts.
    if (readText(text, contents.playlist)) {
        contents.state = State::Whole;
    } else if (text.size() == sizeof record.text) {
        contents.playlist = {};
        contents.state = readFile(fieldText(record.path), contents.playlist) ? State::Whole : State::Cut;
    }
    return contents;
}

} // namespace mediactl
