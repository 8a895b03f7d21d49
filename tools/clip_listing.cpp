#include "tools/clip_listing.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iostream>
#include <map>
#include <vector>

#include "shared_segment.h"
#include "tools/json_text.h"
#include "tools/safe_text.h"

namespace mediactl {

namespace {

using nevo::media::fieldText;
using nevo::media::PlaylistCacheEntry;
using nevo::media::SegmentReading;
using nevo::media::SegmentState;

using Row = std::vector<std::string>;

// The first row is the heading. The last column is not padded.
void printTable(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const Row& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columns(row[i]));
    for (const Row& row : rows) {
        for (std::size_t i = 0; i + 1 < row.size(); ++i) std::cout << padded(row[i], widths[i]) << "  ";
        std::cout << row.back() << '\n';
    }
}

// "2026-11-21 03:40:00 UTC"
std::string dateText(std::int32_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    char buffer[64];
    if (!gmtime_r(&time, &parts) || std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
        return std::to_string(seconds);
    return buffer;
}

// Says why there is nothing to list, where that needs saying. An empty list is a good answer to "which clips?" as long
// as the daemon has none; a segment that cannot be read is not.
template <typename Record>
Outcome outcomeOf(const SegmentReading<Record>& reading) {
    switch (reading.state) {
    case SegmentState::Filled: return Outcome::Done;
    case SegmentState::Unwritten:
    case SegmentState::Absent: say("no medium cache yet"); return Outcome::Done;
    case SegmentState::Locked:
        return fail(Outcome::Failed, "the medium cache is locked, and whoever locked it does not let go");
    case SegmentState::Failed: break;
    }
    return fail(Outcome::Failed, std::string("the medium cache cannot be read: ") +
                                     (reading.error ? std::strerror(reading.error) : "unknown failure"));
}

Json describe(std::int32_t index, const Clip& clip) {
    Json attributes = jsonObject();
    // Two names may be the same once what is no UTF-8 is replaced; an object holds each name once.
    std::map<std::string, std::string> named;
    for (const auto& [name, value] : clip.attributes.getAttributesMap()) named[validUtf8(name)] = value;
    for (const auto& [name, value] : named) addMember(attributes, name, value);

    Json object = jsonObject();
    addMember(object, "index", index);
    addMember(object, "name", fieldText(clip.name));
    addMember(object, "time", clip.time);
    addFlag(object, "encode_match", clip.sameCodec == 1);
    addMember(object, "attributes", std::move(attributes));
    return object;
}

Json describe(std::int32_t index, const PlaylistCacheEntry& playlist) {
    Json object = jsonObject();
    addMember(object, "index", index);
    addMember(object, "name", nevo::media::playlistName(playlist));
    addMember(object, "path", fieldText(playlist.path));
    addMember(object, "modified", playlist.modified);
    addMember(object, "text", fieldText(playlist.text));
    return object;
}

Row heading(const Clip*) { return {"INDEX", "TIME", "FRAMES", "START", "MATCH", "NAME"}; }

Row row(std::int32_t index, const Clip& clip) {
    return {std::to_string(index),
            dateText(clip.time),
            std::to_string(clip.frames),
            printable(fieldText(clip.startTimecode)),
            clip.sameCodec == 1 ? "yes" : "no",
            printable(fieldText(clip.name))};
}

Row heading(const PlaylistCacheEntry*) { return {"INDEX", "MODIFIED", "NAME", "PATH"}; }

Row row(std::int32_t index, const PlaylistCacheEntry& playlist) {
    return {std::to_string(index), dateText(playlist.modified), printable(nevo::media::playlistName(playlist)),
            printable(fieldText(playlist.path))};
}

template <typename Record>
Outcome list(const SegmentReading<Record>& reading, bool json) {
    const Outcome outcome = outcomeOf(reading);
    if (outcome != Outcome::Done) return outcome;
    std::int32_t index = 0;
    if (json) {
        const Json array = jsonArray();
        for (const Record& record : reading.records) addElement(array, describe(index++, record));
        std::cout << writtenOut(array, true) << '\n';
        return Outcome::Done;
    }
    std::vector<Row> rows{heading(static_cast<const Record*>(nullptr))};
    for (const Record& record : reading.records) rows.push_back(row(index++, record));
    printTable(rows);
    return Outcome::Done;
}

} // namespace

Outcome listClips(bool json) { return list(nevo::media::readClips(), json); }

Outcome listPlaylists(bool json) { return list(nevo::media::readPlaylists(), json); }

} // namespace mediactl
