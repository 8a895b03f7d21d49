#ifndef MEDIAD_PLATFORM_CLIP_EXAMINER_H
#define MEDIAD_PLATFORM_CLIP_EXAMINER_H

#include <string>

#include "clip.h"

namespace nevo::media {

// The part of MediaCache that the product support library brings: looking into a clip file.
class ClipExaminer {
public:
    // Fills the zeroed `clip` from the clip file at `path`: name, time, frames, starting timecode and attribute text; the
    // codec flag stays. `option` is reserved. False when the path is not a usable clip: not a regular file, no QuickTime
    // file, no video of an encode type that the recorder knows. Any thread.
    static bool GrokClip(Clip& clip, std::string path, bool option);
};

} // namespace nevo::media

#endif
