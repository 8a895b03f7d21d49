// The playlist segment as found in memory, with anything in it, and what the recorder does to it.

#include <fstream>
#include <map>
#include <memory>

#include "clip_finder.h"
#include "fuzzers/hostile_segment.h"
#include "media/media_cache.h"
#include "media/segment_editing.h"
#include "parameters.h"
#include "tests/fakes/fakes.h"

using namespace nevo::media;

namespace {

using fuzzers::require;
using fuzzers::Contents;
using Playlists = std::map<std::string, std::string>; // contents by name, the last of a name

constexpr char kFolder[] = "/tmp/playlists";

std::string nameOf(const std::string& record) { return playlistName(fuzzers::firstField(record)); }

Playlists byName(const Contents& records) {
    Playlists playlists;
    for (const std::string& record : records) playlists[nameOf(record)] = record;
    return playlists;
}

void checkWritten(const fuzzers::HostileSegment& segment, const Playlists& expected) {
    require(segment.size() == kPlaylistSegmentSize, "the size of the segment");
    require(segment.bytes(0, kPlaylistMagicSize) == kPlaylistMagic, "the text of the segment");
    const std::uint32_t count = segment.count(kPlaylistCountOffset);
    require(count <= kPlaylistCapacity, "the count of the segment");
    require(count == std::min(expected.size(), kPlaylistCapacity), "there are as many as there should be");
    const Contents records = fuzzers::playlistsIn(segment);
    auto each = expected.begin();
    for (const std::string& record : records) require(record == (each++)->second, "the playlists, by their names");
}

// What lies behind so many records, as far as an input may have written there.
std::string behind(const fuzzers::HostileSegment& segment, std::size_t records) {
    const std::size_t at = kPlaylistRecordsOffset + kPlaylistStride * records;
    const std::size_t end = kPlaylistRecordsOffset + kPlaylistStride * (fuzzers::kMostRecords + 1);
    return at < end ? segment.bytes(at, end - at) : std::string();
}

// The functions that work on bytes, on memory of exactly the segment's size.
void checkCopies(const fuzzers::HostileSegment& segment, const Contents& expected) {
    static const std::unique_ptr<std::byte[]> bytes(new std::byte[kPlaylistSegmentSize]());
    std::memcpy(bytes.get(), segment.at(0),
                std::min(kPlaylistRecordsOffset + kPlaylistStride * (expected.size() + 1), kPlaylistSegmentSize));
    bool written = false;
    std::list<PlaylistCacheEntry> playlists = playlistsOf(bytes.get(), written);
    require(fuzzers::contentsOf(playlists) == expected, "the playlists of the bytes");
    playlists.emplace_back(PlaylistCacheEntry{});
    nevo::media::putPlaylists(bytes.get(), playlists);
    require(recordCount(bytes.get(), kPlaylistMagic, kPlaylistMagicSize, SIZE_MAX, written) ==
                std::min(expected.size() + 1, kPlaylistCapacity) && written,
            "the playlists written back");
}

// What takeOutPlaylist promises, on a plain list: the first, in the order of the names, whose path occurs in `path`.
bool takeOutPlainly(Playlists& playlists, const std::string& path) {
    const auto named = std::find_if(playlists.begin(), playlists.end(), [&path](const auto& playlist) {
        return path.find(fuzzers::firstField(playlist.second)) != std::string::npos;
    });
    if (named == playlists.end()) return false;
    playlists.erase(named);
    return true;
}

// What putPlaylist promises, on a plain list: by its name, instead of one of the same name.
bool putPlainly(Playlists& playlists, const PlaylistCacheEntry& playlist) {
    const std::string record = fuzzers::contentOf(playlist);
    if (playlists.size() >= kPlaylistCapacity && !playlists.contains(nameOf(record))) return false;
    playlists[nameOf(record)] = record;
    return true;
}

// Changes the segment on memory of exactly its size, from where the outcome goes back into the segment.
template <typename Change>
bool changeCopy(fuzzers::HostileSegment& segment, Change change) {
    static const std::unique_ptr<std::byte[]> bytes(new std::byte[kPlaylistSegmentSize]());
    const std::size_t records = std::max(fuzzers::playlistsIn(segment).size(), fuzzers::kMostRecords);
    const std::size_t end = std::min(kPlaylistRecordsOffset + kPlaylistStride * (records + 2), kPlaylistSegmentSize);
    std::memcpy(bytes.get(), segment.at(0), end);
    const bool result = change(bytes.get());
    segment.put(0, bytes.get(), end);
    return result;
}

void writeWhole(SharedSegments& segments, const std::map<std::string, PlaylistCacheEntry>& found) {
    std::list<PlaylistCacheEntry> playlists;
    for (const auto& [name, playlist] : found) playlists.push_back(playlist);
    storePlaylists(segments.playlists, segments.playlistMutex, playlists);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzzers::StandardError errors;
    static fuzzers::HostileSegment segment(playlistSegmentName(kCachePrefix), kPlaylistSegmentSize);
    static fuzzers::HostileSegment clips(clipSegmentName(kCachePrefix), kClipSegmentSize);
    ::mkdir(kFolder, 0777);
    fuzzers::Input input(data, size);
    fakes::World world;
    MediaCache cache(kCachePrefix);
    ClipFinder finder(&world.config);
    SharedSegments segments(kCachePrefix);
    segment.clear();
    clips.clear();
    fuzzers::putPlaylists(input, segment);

    const Contents records = fuzzers::playlistsIn(segment);
    const bool isMany = records.size() > fuzzers::kMany;
    if (!isMany || input.isEmpty()) {
        require(fuzzers::contentsOf(readPlaylists().records) == records, "a reader finds what is there");
        checkCopies(segment, records);
    }
    Playlists expected = byName(records);

    for (int step = 0; step < (isMany ? 1 : 4) && !input.isEmpty(); ++step) {
        std::map<std::string, PlaylistCacheEntry> found;
        cache.ReadPlaylistCacheFromSharedMemory(found);
        require(found.size() == expected.size(), "the cache has every playlist");
        switch (input.byte() % 8) {
        case 0: {
            const std::string path = std::string(kFolder) + "/fuzzed.playlist";
            std::ofstream(path, std::ios::binary) << input.longText();
            const bool hasRoom = cache.hasRoomForPlaylist(path);
            require(hasRoom == (expected.size() < kPlaylistCapacity || expected.contains("fuzzed")), "there is room");
            PlaylistCacheEntry entry;
            Playlist playlist;
            const bool isPlaylist = readPlaylistFile(path, entry, playlist);
            require(cache.AddPlaylist(path) == (hasRoom && isPlaylist), "a playlist is added where there is room");
            if (hasRoom && isPlaylist) {
                expected["fuzzed"] = fuzzers::contentOf(entry);
                checkWritten(segment, expected);
            }
            ::unlink(path.c_str());
            break;
        }
        case 1: {
            const std::string name = input.longText();
            found.erase(name);
            expected.erase(name);
            const std::string before = behind(segment, expected.size());
            writeWhole(segments, found);
            checkWritten(segment, expected);
            require(behind(segment, expected.size()) == before, "nothing is written behind the records");
            break;
        }
        case 2: {
            // What the recorder lists while a playlist is selected; there are no clips.
            world.config.put(kParamPlaylistName, input.longText());
            require(finder.findClips(true, true, true).empty(), "no clip is made up");
            break;
        }
        case 3: {
            // Brought in step with a directory in which there is one playlist at most.
            const std::string path = std::string(kFolder) + "/fuzzed.playlist";
            std::ofstream(path, std::ios::binary) << input.longText();
            PlaylistCacheEntry entry;
            Playlist playlist;
            const bool isPlaylist = readPlaylistFile(path, entry, playlist);
            world.config.put(kParamStoragePath, std::string(kFolder));
            finder.findClips(true, false, true);
            world.config.put(kParamStoragePath, std::string());
            expected.clear();
            if (isPlaylist) expected["fuzzed"] = fuzzers::contentOf(entry);
            require(byName(fuzzers::playlistsIn(segment)) == expected, "the segment says what the directory says");
            ::unlink(path.c_str());
            break;
        }
        case 4:
            finder.flushAll();
            expected.clear();
            checkWritten(segment, expected);
            break;
        case 5: {
            segment.cut(input.number() % kPlaylistSegmentSize);
            bool isRefused = false;
            try {
                writeWhole(segments, found);
            } catch (const boost::interprocess::interprocess_exception&) {
                isRefused = true;
            }
            require(isRefused, "a segment that is too short is not touched");
            require(readPlaylists().records.empty(), "nothing is read from it");
            segment.clear();
            expected.clear();
            break;
        }
        case 6: {
            const bool isCopy = (input.byte() & 1) != 0;
            const std::string path = input.longText();
            const std::string before = behind(segment, 0);
            const bool isThere = takeOutPlainly(expected, path);
            const bool isTakenOut =
                isCopy ? changeCopy(segment, [&path](std::byte* bytes) { return takeOutPlaylist(bytes, path); })
                       : cache.RemovePlaylist(path);
            require(isTakenOut == isThere, "a playlist is taken out where there is one");
            checkWritten(segment, expected);
            const std::string after = behind(segment, expected.size());
            require(after == before.substr(before.size() - after.size()), "nothing is written behind the records");
            break;
        }
        case 7: {
            PlaylistCacheEntry entry{};
            fuzzers::fill(input, entry);
            const Contents listed = fuzzers::playlistsIn(segment);
            const std::string before = behind(segment, 0);
            const bool hasRoom = putPlainly(expected, entry);
            require(changeCopy(segment, [&entry](std::byte* bytes) { return putPlaylist(bytes, entry); }) == hasRoom,
                    "a playlist is put in where there is room");
            if (!hasRoom) {
                require(behind(segment, 0) == before && fuzzers::playlistsIn(segment) == listed, "nothing is changed");
                break;
            }
            checkWritten(segment, expected);
            const std::string after = behind(segment, expected.size());
            require(after == before.substr(before.size() - after.size()), "nothing is written behind the records");
            break;
        }
        }
    }
    require(fuzzers::isHarmless(errors.take()), "what is said is fit for a terminal");
    return 0;
}
