// The reader of clip headers: any file that somebody put on a medium. What it finds passes the daemon's own check of what
// the worker answers, unchanged, and makes a record that is well formed.

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "clip.h"
#include "fuzzers/fuzzer.h"
#include "platform/pellix/clip_probe/quicktime_reader.h"
#include "platform/pellix/clips/clip_examination.h"
#include "platform/pellix/clips/probe_record.h"
#include "shared_segment.h"

namespace {

using fuzzers::require;

bool isSame(const QuickTimeHeader& one, const QuickTimeHeader& other) {
    return one.encodeType == other.encodeType && one.width == other.width && one.height == other.height &&
           one.interlaced == other.interlaced && one.frameRateNumerator == other.frameRateNumerator &&
           one.frameRateDenominator == other.frameRateDenominator && one.frames == other.frames &&
           one.audioChannels == other.audioChannels && one.startTimecode == other.startTimecode &&
           one.creationTime == other.creationTime;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = ::memfd_create("clip", MFD_CLOEXEC);
    require(::ftruncate(file, 0) == 0 && ::pwrite(file, data, size, 0) == static_cast<ssize_t>(size), "the file is there");

    const auto header = readQuickTimeHeader(file, static_cast<std::int64_t>(size));
    const ProbeAnswer answer = makeProbeAnswer(7, header);
    QuickTimeHeader read;
    const ProbeVerdict verdict = readProbeAnswer(answer, 7, read);
    require(verdict == (header ? ProbeVerdict::Usable : ProbeVerdict::NotUsable), "the answer passes the daemon's check");
    if (!header) return 0;
    require(isSame(*header, read), "the answer says what the header says");

    const auto clip = std::make_unique<Clip>();
    std::memset(static_cast<void*>(clip.get()), 0, sizeof *clip);
    fillClip(*clip, "/mnt/S1/NEVO/Clip_1.mov", 1, *header);
    require(nevo::media::fieldText(clip->name) == "Clip_1", "the name of the record");
    require(std::memchr(clip->startTimecode, 0, sizeof clip->startTimecode) != nullptr, "the timecode ends");
    require(std::memchr(clip->attributes.text, 0, sizeof clip->attributes.text) != nullptr, "the attributes end");
    const auto attributes = clip->attributes.getAttributesMap();
    require(attributes.at(nevo::media::MediaVideoEncodeType) == std::to_string(header->encodeType), "the encode type");
    require(attributes.at(nevo::media::MediaWidth) == std::to_string(header->width), "the width");
    for (const auto& [name, value] : attributes) require(fuzzers::isHarmless(name + value), "attributes are plain text");
    return 0;
}
