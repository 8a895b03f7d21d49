// What mediactl lists of segments with anything in them: every text fit for a terminal, every JSON readable. The first
// byte of an input chooses which segment, and in which form it is listed.

#include <cJSON.h>

#include <iostream>
#include <sstream>

#include "fuzzers/hostile_segment.h"
#include "tools/clip_listing.h"
#include "tools/safe_text.h"

using namespace nevo::media;

namespace {

using fuzzers::require;

template <typename Record>
void checkTable(const std::string& text, const std::list<Record>& records) {
    require(fuzzers::isHarmless(text), "no control characters");
    require(mediactl::validUtf8(text) == text, "what is printed is UTF-8");
    for (const char* mark : {"\u0085", "\u009b", "\u061c", "\u200e", "\u2028", "\u202e", "\u2066"})
        require(text.find(mark) == text.npos, "no marks that move the text");
    // Every record begins a line of its own; what belongs to a playlist is indented.
    std::istringstream lines(text);
    std::size_t rows = 0;
    for (std::string line; std::getline(lines, line);) rows += line.empty() || line[0] == ' ' ? 0U : 1U;
    require(rows == records.size() + 1, "a line for each record");
}

template <typename Record>
void checkJson(const std::string& text, const std::list<Record>& records) {
    require(mediactl::validUtf8(text) == text, "JSON is UTF-8");
    cJSON* const document = cJSON_ParseWithOpts(text.c_str(), nullptr, 1);
    require(document != nullptr && cJSON_IsArray(document), "JSON reads as an array");
    require(cJSON_GetArraySize(document) == static_cast<int>(records.size()), "an element for each record");
    std::size_t i = 0;
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, document)
        require(cJSON_GetNumberValue(cJSON_GetObjectItemCaseSensitive(element, "index")) == static_cast<double>(i++),
                "the elements are counted");
    cJSON_Delete(document);
}

// Takes what goes to standard output while it lives.
class Output {
public:
    Output() : _before(std::cout.rdbuf(_text.rdbuf())) {}
    ~Output() { std::cout.rdbuf(_before); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    std::string text() const { return _text.str(); }

private:
    std::ostringstream _text;
    std::streambuf* _before;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzzers::StandardError errors;
    static fuzzers::HostileSegment clips(clipSegmentName(kCachePrefix), kClipSegmentSize);
    static fuzzers::HostileSegment playlists(playlistSegmentName(kCachePrefix), kPlaylistSegmentSize);
    static SharedSegments segments(kCachePrefix); // for their mutexes
    fuzzers::Input input(data, size);
    const std::uint8_t choice = input.byte();
    const bool isJson = (choice & 1) != 0;
    const bool isClips = (choice & 2) != 0;
    if (isClips) {
        clips.clear();
        fuzzers::putClips(input, clips);
    } else {
        playlists.clear();
        fuzzers::putPlaylists(input, playlists);
    }
    // Cut short by another program.
    if ((choice & 0x70) == 0x70) (isClips ? clips : playlists).cut(input.number() % kPlaylistSegmentSize);

    std::string text;
    {
        const Output output;
        const mediactl::Outcome outcome = isClips ? mediactl::listClips(isJson) : mediactl::listPlaylists(isJson);
        require(outcome == mediactl::Outcome::Done, "what can be listed is listed");
        text = output.text();
    }
    if (isClips && isJson) checkJson(text, readClips().records);
    if (isClips && !isJson) checkTable(text, readClips().records);
    if (!isClips && isJson) checkJson(text, readPlaylists().records);
    if (!isClips && !isJson) checkTable(text, readPlaylists().records);
    require(fuzzers::isHarmless(errors.take()), "what is said is fit for a terminal");
    return 0;
}
