#include "playlist.h"

#include <cjson/cJSON.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

#include "daemonizer.h"
#include "printable.h"
#include "read_file.h"

namespace nevo::media {

namespace {

constexpr std::streamsize kReadBufferSize = 0x85000;

// Far more than any playlist; what is larger is not read into the board's memory.
constexpr off_t kLargestPlaylistFile = 16 * 1024 * 1024; // bytes

using Document = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

Document parseFirstLine(std::istream& in) {
    const auto buffer = std::make_unique<char[]>(static_cast<std::size_t>(kReadBufferSize));
    in.get(buffer.get(), kReadBufferSize); // the line feed stays in the stream
    return {cJSON_Parse(buffer.get()), &cJSON_Delete};
}

// The reader takes the name for granted, so a document without one is kept away from it.
bool namesItself(const std::string& text) {
    std::istringstream stream(text);
    const Document document = parseFirstLine(stream);
    return document && cJSON_GetObjectItem(document.get(), "name") != nullptr;
}

// Copies what fits; the field is terminated only when the text is shorter.
template <std::size_t size>
void fillField(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

} // namespace

bool PlaylistReader::Read(std::istream& in, Playlist& playlist) {
    const Document document = parseFirstLine(in);
    if (!document) return false;
    if (const char* name = cJSON_GetStringValue(cJSON_GetObjectItem(document.get(), "name")); name != nullptr)
        playlist.name = name;
    const cJSON* const list = cJSON_GetObjectItem(document.get(), "cliplist");
    if (list == nullptr) return false;
    bool result = true;
    std::vector<std::string> clips;
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, list) {
        if (const char* clip = cJSON_GetStringValue(entry); clip != nullptr)
            clips.emplace_back(clip);
        else
            result = false;
    }
    playlist.clipList = std::move(clips);
    return result;
}

bool readPlaylistFile(const std::string& path, PlaylistCacheEntry& entry, Playlist& playlist) {
    struct stat status;
    if (::stat(path.c_str(), &status) == -1) {
        std::perror(printable(path).c_str());
        return false;
    }
    // Merely opening a device node can set something going.
    if (!S_ISREG(status.st_mode)) return false;
    if (status.st_size > kLargestPlaylistFile) {
        std::fputs((Daemonizer::name + " this is too large for a playlist: " + printable(path) + "\n").c_str(), stderr);
        return false;
    }
    std::string text;
    if (!read_file(path, text) || !namesItself(text)) return false;
    std::istringstream stream(text);
    if (!PlaylistReader::Read(stream, playlist)) return false;
    entry = PlaylistCacheEntry{};
    fillField(entry.path, path);
    fillField(entry.text, text);
    entry.modified = static_cast<std::int32_t>(status.st_mtime);
    return true;
}

std::string_view playlistNameIn(std::string_view path) {
    if (path.empty()) return "."; // what basename gives
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    if (path.size() > 1) path.remove_prefix(path.rfind('/') + 1); // npos + 1 is 0
    return path.substr(0, path.find(".playlist"));
}

} // namespace nevo::media
