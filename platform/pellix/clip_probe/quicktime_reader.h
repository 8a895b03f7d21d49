#ifndef MEDIAD_PLATFORM_PELLIX_CLIP_PROBE_QUICKTIME_READER_H
#define MEDIAD_PLATFORM_PELLIX_CLIP_PROBE_QUICKTIME_READER_H

#include <cstdint>
#include <optional>

#include "platform/pellix/clips/quicktime_header.h"

// Reads the header of the file of `size` bytes that is open as `descriptor`; media data are not touched, nor is the
// descriptor's position. Nothing when it is no QuickTime file or has no video of a known encode type. Any thread.
std::optional<QuickTimeHeader> readQuickTimeHeader(int descriptor, std::int64_t size);

#endif
