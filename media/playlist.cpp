#include "media/playlist.h"

#include <cjson/cJSON.h>

#include <memory>

namespace nevo::media {

namespace {

constexpr std::streamsize kReadBufferSize = 0x85000;

} // namespace

bool PlaylistReader::Read(std::istream& in, Playlist& playlist) {
    const auto buffer = std::make_unique<char[]>(static_cast<std::size_t>(kReadBufferSize));
    in.getline(buffer.get(), kReadBufferSize);
    const std::unique_ptr<cJSON, decltype(&cJSON_Delete)> document(cJSON_Parse(buffer.get()), &cJSON_Delete);
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

} // namespace nevo::media
