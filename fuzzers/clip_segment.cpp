// The clip segment as found in memory, with anything in it, and what the recorder does to it.

#include <memory>

#include "clip_finder.h"
#include "fuzzers/hostile_segment.h"
#include "media/media_cache.h"
#include "media/segment_editing.h"
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

// The creation time of a record, whose zeros at the end are left out.
std::int32_t timeOf(const std::string& record) {
    std::int32_t time = 0;
    if (record.size() > offsetof(Clip, time))
        std::memcpy(&time, record.data() + offsetof(Clip, time),
                    std::min(sizeof time, record.size() - offsetof(Clip, time)));
    return time;
}

// What putClip promises, on a plain list: instead of every clip of the same name, and all in the order of time.
int putPlainly(Contents& records, const Clip& clip) {
    Contents others;
    const std::string record = fuzzers::contentOf(clip);
    std::copy_if(records.begin(), records.end(), std::back_inserter(others), [&record](const std::string& other) {
        return firstField(other) != firstField(record);
    });
    if (others.size() >= kClipCapacity) return -1;
    others.push_back(record);
    std::stable_sort(others.begin(), others.end(),
                     [](const std::string& a, const std::string& b) { return timeOf(a) < timeOf(b); });
    records = others;
    return static_cast<int>(records.size()) - 1;
}

// Puts a clip in, on memory of exactly the segment's size, from where the outcome goes back into the segment.
int putInto(fuzzers::HostileSegment& segment, std::size_t count, const Clip& clip, ClipsSeen* seen) {
    static const std::unique_ptr<std::byte[]> bytes(new std::byte[kClipSegmentSize]());
    const std::size_t end =
        std::min(kClipRecordsOffset + kClipStride * (std::max(count, fuzzers::kMostRecords) + 2), kClipSegmentSize);
    std::memcpy(bytes.get(), segment.at(0), end);
    const int last = putClip(bytes.get(), clip, seen);
    segment.put(0, bytes.get(), end);
    return last;
}

// The bytes between the records are each place's own: they get something to be known by.
std::string paddingOf(std::size_t place) { return {'p', static_cast<char>('A' + place), '\n'}; }

constexpr std::size_t paddingAt(std::size_t place) {
    return kClipRecordsOffset + kClipStride * place + kClipBytesCopied;
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
    for (std::size_t i = 0; i <= fuzzers::kMostRecords; ++i) segment.put(paddingAt(i), paddingOf(i).data(), 3);
    // Remembers from the second clip on, in a short table too.
    auto seen = std::make_unique<ClipsSeen>(1);

    Contents expected = fuzzers::clipsIn(segment);
    const bool isMany = expected.size() > fuzzers::kMany;
    if (!isMany || input.isEmpty()) {
        checkReaders(expected);
        checkCopies(segment, expected);
    }

    bool isCut = false;
    for (int step = 0; step < (isMany ? 1 : 4) && !input.isEmpty(); ++step) {
        const std::uint8_t operation = input.byte() % 16;
        // Every record of so few is looked at each time. With more of them, what has been seen serves one piece of work.
        if (operation < 12 && expected.size() > fuzzers::kMostRecords) seen = std::make_unique<ClipsSeen>(1);
        switch (operation) {
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
            isCut = true;
            break;
        }
        default:
            // One clip after the other, by somebody who remembers what was there, in earlier steps too, or does not.
            for (int clips = 1 + input.byte() % 4; clips > 0; --clips) {
                Clip clip{};
                fuzzers::fill(input, clip);
                const std::string before = behind(segment, 0);
                const int last = putInto(segment, expected.size(), clip, operation >= 12 ? seen.get() : nullptr);
                require(putPlainly(expected, clip) == last, "the number of clips less one, or no room");
                if (last == -1) {
                    require(behind(segment, 0) == before && fuzzers::clipsIn(segment) == expected, "nothing is changed");
                    continue;
                }
                checkWritten(segment, expected);
                const std::string after = behind(segment, expected.size());
                require(after == before.substr(before.size() - after.size()), "nothing is written behind the records");
            }
            break;
        }
    }
    for (std::size_t i = 0; i <= fuzzers::kMostRecords && !isCut; ++i)
        require(segment.bytes(paddingAt(i), 3) == paddingOf(i), "padding is never written");
    require(fuzzers::isHarmless(errors.take()), "what is said is fit for a terminal");
    return 0;
}
