// The clip segment as found in memory, with anything in it, and what the recorder does to it.

#include <memory>

#include "clip_finder.h"
#include "fuzzers/hostile_segment.h"
#include "media/media_cache.h"
#include "parameters.h"
#include "tests/fakes/fakes.h"

using namespace nevo::media;

namespace {

using fuzzers::Contents;
using fuzzers::firstField;
using fuzzers::require;

void checkReaders(const Contents& expected) {
    const auto reading = readClips();
    require(reading.state == SegmentState::Filled || reading.state == SegmentState::Unwritten, "it can be read");
    require(fuzzers::contentsOf(reading.records) == expected, "a reader finds what is there");
}

// Text, count and so many records are well formed.
void checkWritten(const fuzzers::HostileSegment& segment, const Contents& expected) {
    require(segment.size() == kClipSegmentSize, "the size of the segment");
    require(segment.bytes(0, kClipMagicSize) == kClipMagic, "the text of the segment");
    require(segment.count(kClipCountOffset) == expected.size() && expected.size() <= kClipCapacity, "the count");
    require(fuzzers::clipsIn(segment) == expected, "the records of the segment");
}

// What lies behind so many records, as far as an input may have written there.
std::string behind(const fuzzers::HostileSegment& segment, std::size_t records) {
    const std::size_t at = kClipRecordsOffset + kClipStride * records;
    const std::size_t end = kClipRecordsOffset + kClipStride * (fuzzers::kMostRecords + 1);
    return at < end ? segment.bytes(at, end - at) : std::string();
}

// The functions that work on bytes, on memory of exactly the segment's size.
void checkCopies(const fuzzers::HostileSegment& segment, const Contents& expected) {
    static const std::unique_ptr<std::byte[]> bytes(new std::byte[kClipSegmentSize]());
    std::memcpy(bytes.get(), segment.at(0),
                std::min(kClipRecordsOffset + kClipStride * (expected.size() + 1), kClipSegmentSize));
    bool written = false;
    std::list<Clip> clips = clipsOf(bytes.get(), written);
    require(fuzzers::contentsOf(clips) == expected, "the clips of the bytes");
    clips.emplace_back(Clip{});
    nevo::media::putClips(bytes.get(), clips);
    require(recordCount(bytes.get(), kClipMagic, kClipMagicSize, SIZE_MAX, written) ==
                std::min(expected.size() + 1, kClipCapacity) && written,
            "the clips written back");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzzers::StandardError errors;
    static fuzzers::HostileSegment segment(clipSegmentName(kCachePrefix), kClipSegmentSize);
    fuzzers::Input input(data, size);
    fakes::World world;
    MediaCache cache(kCachePrefix);
    ClipFinder finder(&world.config);
    segment.clear();
    fuzzers::putClips(input, segment);
    const std::string padding = segment.bytes(kClipRecordsOffset + kClipBytesCopied, 3);

    Contents expected = fuzzers::clipsIn(segment);
    const bool isMany = expected.size() > fuzzers::kMany;
    if (!isMany || input.isEmpty()) {
        checkReaders(expected);
        checkCopies(segment, expected);
    }

    for (int step = 0; step < (isMany ? 1 : 4) && !input.isEmpty(); ++step) {
        switch (input.byte() % 8) {
        case 0: {
            const std::string path = input.longText();
            const auto named = std::find_if(expected.begin(), expected.end(), [&path](const std::string& record) {
                return path.find(firstField(record)) != std::string::npos;
            });
            const bool found = named != expected.end();
            if (found) expected.erase(named);
            const std::string before = behind(segment, expected.size());
            require(finder.removeClip(path) == found, "a clip is removed where there is one");
            checkWritten(segment, expected);
            require(behind(segment, expected.size()) == before, "nothing is written behind the records");
            break;
        }
        case 1: {
            const std::string path = input.longText().c_str(); // a directory's names have no NUL
            const std::string name = MediaCache::clipName(path);
            const bool isThere = std::find_if(expected.begin(), expected.end(), [&name](const std::string& record) {
                                     return firstField(record) == name;
                                 }) != expected.end();
            require(cache.hasRoomFor(path) == (expected.size() < kClipCapacity || isThere), "there is room");
            break;
        }
        case 2: {
            const std::string before = behind(segment, 0);
            finder.flushClips();
            expected.clear();
            checkWritten(segment, expected);
            require(behind(segment, 0) == before, "nothing is written behind the count");
            break;
        }
        case 3: {
            int index = -1;
            require(!cache.AddClip(input.text(), input.byte(), index, false) && index == -1, "no clip is no clip");
            require(fuzzers::clipsIn(segment) == expected, "it changes nothing");
            break;
        }
        case 4: {
            // The directory holds nothing that is a clip.
            world.config.put(kParamStoragePath, std::string("/proc/self/task"));
            world.config.put(kParamPlaylistName, input.text());
            require(finder.findClips(true, (input.byte() & 1) != 0, true).empty(), "there are no clips");
            expected.clear();
            checkReaders(expected);
            break;
        }
        case 5: {
            std::list<Clip> clips = finder.findClips(false, false, true);
            require(clips.size() == expected.size(), "all clips are found");
            require(std::is_sorted(clips.begin(), clips.end(), Clip::compare_clips_by_time), "in the order of time");
            world.config.put(kParamNextTakeNumber, static_cast<int>(input.number()));
            const int before = world.config.integer(kParamNextTakeNumber);
            finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
            require(world.config.integer(kParamNextTakeNumber) >= before, "the take number does not go back");
            break;
        }
        case 6: {
            const std::string current = input.longText();
            const std::set<std::string> deleted{input.longText(), input.longText()};
            const std::string next = finder.NextClipNameAfterDelete(readClips().records, current, deleted);
            const bool isName = std::find_if(expected.begin(), expected.end(), [&next](const std::string& record) {
                                    return firstField(record) == next;
                                }) != expected.end();
            require(isName || next == current || next == "N/A", "the next clip is one of them");
            break;
        }
        case 7: {
            // Another program cuts it short.
            segment.cut(input.number() % kClipSegmentSize);
            bool isRefused = false;
            try {
                finder.removeClip("x");
            } catch (const boost::interprocess::interprocess_exception&) {
                isRefused = true;
            }
            require(isRefused, "a segment that is too short is not touched");
            require(readClips().records.empty(), "nothing is read from it");
            segment.clear();
            expected.clear();
            break;
        }
        }
    }
    if (expected.size() > 1)
        require(segment.bytes(kClipRecordsOffset + kClipBytesCopied, 3) == padding, "padding is never written");
    require(fuzzers::isHarmless(errors.take()), "what is said is fit for a terminal");
    return 0;
}
