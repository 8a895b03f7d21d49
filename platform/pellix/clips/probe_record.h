#ifndef MEDIAD_PLATFORM_PELLIX_CLIPS_PROBE_RECORD_H
#define MEDIAD_PLATFORM_PELLIX_CLIPS_PROBE_RECORD_H

// What the daemon and its worker clip-probe say to each other, over a pair of SOCK_SEQPACKET sockets; the worker's is
// its standard input. Both come from one build: integers have the machine's own byte order and size.
//
//   daemon to worker   one datagram: 1 to kProbeBatch requests, and as many descriptors (SCM_RIGHTS) in the same order,
//                      open for reading
//   worker to daemon   one datagram for each of these, with as many answers in the same order. By then the descriptors
//                      are closed.
//
// The daemon sends the next datagram before the last answers are there, so that the worker never waits for it, and
// neither is woken for every single clip.
//
// The worker reads files that anybody may have written: what it answers is believed no further than it can be checked.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "quicktime_header.h"

inline constexpr std::size_t kProbeBatch = 32;

struct ProbeRequest {
    std::uint32_t serial; // any number; the answer repeats it
    std::uint32_t spare;  // 0
    std::int64_t size;    // of the file
};

struct ProbeAnswer {
    std::uint32_t serial;
    std::uint32_t usable; // 1, or 0: everything behind it is 0, too
    std::uint32_t encodeType;
    std::int32_t width;
    std::int32_t height;
    std::uint32_t interlaced;
    std::int32_t frameRateNumerator;
    std::int32_t frameRateDenominator;
    std::int32_t audioChannels;
    std::uint32_t hasCreationTime; // 1; or 0, and the time is 0
    std::int64_t creationTime;
    std::int64_t frames;
    char startTimecode[16]; // filled up with NUL bytes, at least one
};
static_assert(sizeof(ProbeRequest) == 16 && sizeof(ProbeAnswer) == 72);

// The most audio channels that a header is taken to have.
inline constexpr int kMostAudioChannels = 32 * 1024;

// Whether `text` is what a timecode track makes: "10:00:00:00", or "." or ";" in front of the frames, of which there are
// two digits or three.
bool isTimecode(std::string_view text);

ProbeAnswer makeProbeAnswer(std::uint32_t serial, const std::optional<QuickTimeHeader>& header);

enum class ProbeVerdict { Usable, NotUsable, Invalid };
// What the answer to the request `serial` says: the header of a usable clip is put into `header`. Invalid: a worker
// that keeps the rules does not say such a thing.
ProbeVerdict readProbeAnswer(const ProbeAnswer& answer, std::uint32_t serial, QuickTimeHeader& header);

#endif
