#ifndef MEDIAD_PLATFORM_CLIP_EXAMINER_H
#define MEDIAD_PLATFORM_CLIP_EXAMINER_H

#include <string>

#include "clip.h"

namespace nevo::media {

// The part of MediaCache that the product support library brings: looking into a clip file. Any thread.
class ClipExaminer {
public:
    // Fills the zeroed `clip` from the clip file at `path`: name, time, frames, starting timecode and attribute text;
    // the codec flag stays. `option` is reserved. False, with `clip` as it was, when the path is not a usable clip: not
    // a regular file, no QuickTime file, no video of an encode type that the recorder knows. A file is whatever
    // somebody put on a medium: nothing in it is believed further than it can be checked.
    static bool GrokClip(Clip& clip, std::string path, bool option);

    // Whether a file is a clip by its path: ".mov" or ".MOV" anywhere in it, for what a clip is called while it is uploaded has
    // more behind it.
    static bool isClipPath(const std::string& path) {
        return path.find(".mov") != std::string::npos || path.find(".MOV") != std::string::npos;
    }

    // The name that a clip file's record has: the file's name up to its last ".".
    static std::string clipName(const std::string& path) {
        const std::string file = path.substr(path.rfind('/') + 1); // npos + 1 is 0
        return file.substr(0, file.rfind('.'));
    }
};

} // namespace nevo::media

#endif
