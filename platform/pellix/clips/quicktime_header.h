#ifndef MEDIAD_PLATFORM_PELLIX_CLIPS_QUICKTIME_HEADER_H
#define MEDIAD_PLATFORM_PELLIX_CLIPS_QUICKTIME_HEADER_H

#include <cstdint>
#include <optional>
#include <string>

#include "encode_type.h"

// What the header of a QuickTime file says about its first video track of a known encode type.
struct QuickTimeHeader {
    eEncodeType_t encodeType = kEncodeUnknown;
    int width = 0; // above 0, as the height
    int height = 0;
    bool interlaced = false;
    int frameRateNumerator = 0; // both are 0 when the file does not tell, and above 0 otherwise
    int frameRateDenominator = 0;
    std::int64_t frames = 0;                  // never negative
    int audioChannels = 0;                    // of all audio tracks together
    std::string startTimecode;                // "10:00:00:00", empty when the file has none
    std::optional<std::int64_t> creationTime; // seconds since the epoch
};

#endif
