#ifndef MEDIAD_PLATFORM_PELLIX_CLIPS_QUICKTIME_HEADER_H
#define MEDIAD_PLATFORM_PELLIX_CLIPS_QUICKTIME_HEADER_H

#include <cstdint>
#include <optional>
#include <string>

#include "encode_type.h"

class ClipFile;

// What the header of a QuickTime file says about its first video track of a known encode type.
struct QuickTimeHeader {
    eEncodeType_t encodeType = kEncodeUnknown;
    int width = 0;
    int height = 0;
    bool interlaced = false;
    int frameRateNumerator = 0; // 0 when the file does not tell
    int frameRateDenominator = 0;
    std::int64_t frames = 0;
    int audioChannels = 0;                    // of all audio tracks together
    std::string startTimecode;                // "10:00:00:00", empty when the file has none
    std::optional<std::int64_t> creationTime; // seconds since the epoch

    // Reads the header; media data are not touched. Nothing when it is no QuickTime file or has no such track. Any
    // thread.
    static std::optional<QuickTimeHeader> read(const ClipFile& file);
};

#endif
