#ifndef MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_EXAMINATION_H
#define MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_EXAMINATION_H

#include <string>

#include "clip.h"
#include "encode_type.h"

class ClipFile;

// Fills the zeroed `clip` from an open clip file, except for the codec flag. Returns the clip's encode type, or
// kEncodeUnknown, with `clip` as it was, when it is not a usable clip. Any thread.
eEncodeType_t examineClip(const ClipFile& file, const std::string& path, Clip& clip);

#endif
