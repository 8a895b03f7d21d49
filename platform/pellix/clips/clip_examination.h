#ifndef MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_EXAMINATION_H
#define MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_EXAMINATION_H

#include <cstdint>
#include <string>

#include "clip.h"
#include "quicktime_header.h"

// Fills the zeroed `clip`, except for the codec flag, with what the header of the clip file at `path` says. `modified`
// is the file's modification time in seconds since the epoch. Any thread.
void fillClip(Clip& clip, const std::string& path, std::int64_t modified, const QuickTimeHeader& header);

#endif
