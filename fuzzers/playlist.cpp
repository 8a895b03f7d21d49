// Playlist files as they lie on a medium.

#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "fuzzers/fuzzer.h"
#include "playlist.h"
#include "shared_segment.h"

using namespace nevo::media;

namespace {

constexpr char kFile[] = "/tmp/fuzzed.playlist";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzzers::StandardError errors;
    const std::string text(reinterpret_cast<const char*>(data), size);

    std::istringstream stream(text);
    Playlist straight;
    const bool isList = PlaylistReader::Read(stream, straight);

    std::ofstream(kFile, std::ios::binary) << text;
    const auto entry = std::make_unique<PlaylistCacheEntry>();
    std::memset(entry.get(), 'x', sizeof *entry);
    Playlist playlist;
    const std::string before(reinterpret_cast<const char*>(entry.get()), sizeof *entry);
    if (readPlaylistFile(kFile, *entry, playlist)) {
        // A file's text ends at its first NUL.
        const std::string known = text.substr(0, text.find('\0'));
        fuzzers::require(isList || known != text, "a file that is taken reads as a playlist");
        fuzzers::require(fieldText(entry->path) == kFile, "the path of the record");
        fuzzers::require(fieldText(entry->text) == known.substr(0, sizeof entry->text), "the text of the record");
        fuzzers::require(playlistName(*entry) == "fuzzed", "the name of the record");
        if (known == text) {
            fuzzers::require(playlist.name == straight.name, "file and text have the same name");
            fuzzers::require(playlist.clipList == straight.clipList, "file and text have the same clips");
        }
    } else {
        fuzzers::require(before == std::string(reinterpret_cast<const char*>(entry.get()), sizeof *entry),
                         "a file that is not taken leaves the record alone");
    }

    const std::string name = playlistName(text);
    fuzzers::require(name.find(".playlist") == name.npos, "a name is the file's up to the first .playlist");
    fuzzers::require(name.find('/') == name.npos || name == "/", "a name is no path");
    fuzzers::require(fuzzers::isHarmless(errors.take()), "what is said is fit for a terminal");
    return 0;
}
