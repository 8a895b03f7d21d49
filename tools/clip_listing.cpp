#include "tools/clip_listing.h"

#include <algorithm>
#include <ctime>
#include <iostream>
#include <map>
#include <optional>
#include <vector>

#include "parameters.h"
#include "shared_segment.h"
#include "tools/index_problem.h"
#include "tools/json_text.h"
#include "tools/live_view.h"
#include "tools/playlist_contents.h"
#include "tools/safe_text.h"
#include "tools/store_watch.h"

namespace mediactl {

namespace {

using nevo::media::fieldText;
using nevo::media::PlaylistCacheEntry;
using nevo::media::SegmentReading;

using Row = std::vector<std::string>;

// The first row is the heading. The last column is not padded. One row, one line.
std::vector<std::string> tableLines(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const Row& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columns(row[i]));
    std::vector<std::string> lines;
    for (const Row& row : rows) {
        std::string& line = lines.emplace_back();
        for (std::size_t i = 0; i + 1 < row.size(); ++i) line += padded(row[i], widths[i]) + "  ";
        line += row.back() + "\n";
    }
    return lines;
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
    const std::string problem = indexProblem(reading.state, reading.error);
    if (!problem.empty()) return fail(Outcome::Failed, problem);
    if (isIndexMissing(reading.state)) say(kNoIndexYet);
    return Outcome::Done;
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

Json describe(std::int32_t index, const PlaylistCacheEntry& record) {
    const PlaylistContents contents = contentsOf(record);
    const bool whole = contents.state == PlaylistContents::State::Whole;
    Json clips = jsonArray();
    for (const std::string& clip : contents.playlist.clipList) addElement(clips, jsonText(clip));

    Json object = jsonObject();
    addMember(object, "index", index);
    addMember(object, "name", nevo::media::playlistName(record));
    addMember(object, "title", whole ? jsonText(contents.playlist.name) : Json(cJSON_CreateNull()));
    addMember(object, "path", fieldText(record.path));
    addMember(object, "modified", record.modified);
    addMember(object, "text", fieldText(record.text));
    addMember(object, "clips", std::move(clips));
    addFlag(object, "complete", whole);
    return object;
}

std::string clipTable(const std::list<Clip>& clips, std::optional<std::size_t> mostLines) {
    std::vector<Row> rows{{"INDEX", "TIME", "FRAMES", "START", "MATCH", "NAME"}};
    std::int32_t index = 0;
    for (const Clip& clip : clips)
        rows.push_back({std::to_string(index++), dateText(clip.time), std::to_string(clip.frames),
                        printable(fieldText(clip.startTimecode)), clip.sameCodec == 1 ? "yes" : "no",
                        printable(fieldText(clip.name))});
    std::vector<std::string> lines = tableLines(rows);
    // The cursor stands on a line of its own, below.
    constexpr std::size_t kFewest = 4; // heading, what is left out, one clip, cursor
    if (mostLines && lines.size() + 1 > std::max(*mostLines, kFewest)) {
        const std::size_t kept = std::max(*mostLines, kFewest) - 3;
        const std::size_t leftOut = lines.size() - 1 - kept;
        lines.erase(lines.begin() + 1, lines.end() - static_cast<std::ptrdiff_t>(kept));
        lines.insert(lines.begin() + 1, "... " + std::to_string(leftOut) + " before these\n");
    }
    std::string text;
    for (const std::string& line : lines) text += line;
    return text;
}

std::string playlistTable(const std::list<PlaylistCacheEntry>& records) {
    using State = PlaylistContents::State;
    std::vector<Row> rows{{"INDEX", "MODIFIED", "NAME", "CLIPS", "TITLE", "PATH"}};
    std::vector<std::string> below{""}; // what stands below each row
    std::int32_t index = 0;
    for (const PlaylistCacheEntry& record : records) {
        const PlaylistContents contents = contentsOf(record);
        const bool whole = contents.state == State::Whole;
        const std::vector<std::string>& clips = contents.playlist.clipList;
        rows.push_back({std::to_string(index++), dateText(record.modified),
                        printable(nevo::media::playlistName(record)), whole ? std::to_string(clips.size()) : "?",
                        whole ? printable(contents.playlist.name) : "?", printable(fieldText(record.path))});
        std::string& lines = below.emplace_back();
        for (const std::string& clip : clips) lines += "       " + printable(clip) + "\n";
        if (contents.state == State::Cut)
            lines += "       (the list is cut: it is longer than the index holds, and its file cannot be read)\n";
        if (contents.state == State::Broken) lines += "       (this is no playlist)\n";
    }
    const std::vector<std::string> lines = tableLines(rows);
    std::string text;
    for (std::size_t i = 0; i < lines.size(); ++i) text += lines[i] + below[i];
    return text;
}

std::string tableText(const std::list<Clip>& clips) { return clipTable(clips, std::nullopt); }
std::string tableText(const std::list<PlaylistCacheEntry>& playlists) { return playlistTable(playlists); }

template <typename Record>
std::string jsonList(const std::list<Record>& records, bool indented) {
    const Json array = jsonArray();
    std::int32_t index = 0;
    for (const Record& record : records) addElement(array, describe(index++, record));
    return writtenOut(array, indented) + "\n";
}

template <typename Record>
Outcome list(const SegmentReading<Record>& reading, bool json) {
    const Outcome outcome = outcomeOf(reading);
    if (outcome == Outcome::Done) std::cout << (json ? jsonList(reading.records, true) : tableText(reading.records));
    return outcome;
}

} // namespace

Outcome listClips(bool json) { return list(nevo::media::readClips(), json); }

Outcome watchClips(bool json) {
    // Not the stamp alone: mediad brings the index in step with the medium after it, and writes the current clip then.
    StoreWatch watch({kParamMediaChangedTime, kParamSelectedSlot, kParamStoragePath, kParamClipName, kParamClipIndex,
                      kParamNewClipIndex});
    if (!watch.connect()) return failNobodyServes();
    constexpr int kTryAgainMilliseconds = 1000; // nothing tells when an index that could not be read can be

    LiveView view(json);
    std::optional<std::string> shown;
    std::string said;
    while (std::cout) {
        const auto reading = nevo::media::readClips();
        const std::string problem = indexProblem(reading.state, reading.error);
        const std::string complaint = isIndexMissing(reading.state) ? kNoIndexYet : problem;
        if (complaint != said) {
            if (!complaint.empty()) {
                say(complaint);
                if (view.forget()) shown.reset();
            }
            said = complaint;
        }
        if (problem.empty()) {
            // While it cannot be read the last list stands.
            std::string text = json ? jsonList(reading.records, false) : clipTable(reading.records, view.lines());
            if (text != shown) view.show(text);
            shown = std::move(text);
        }
        ConfigEvent event;
        const StoreWatch::Result result = watch.next(event, problem.empty() ? -1 : kTryAgainMilliseconds);
        watch.drain(result);
        if (result == StoreWatch::Result::Reconnected && view.forget()) shown.reset();
    }
    return Outcome::Done; // main reports that standard output does not take any more
}

Outcome listPlaylists(bool json) { return list(nevo::media::readPlaylists(), json); }

} // namespace mediactl
