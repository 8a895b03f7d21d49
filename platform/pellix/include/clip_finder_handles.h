#ifndef MEDIAD_PLATFORM_CLIP_FINDER_HANDLES_H
#define MEDIAD_PLATFORM_CLIP_FINDER_HANDLES_H

// The segments as the clip scanner holds them. Only the scanner's own operations need this.

#include "clip_finder.h"
#include "shared_segment.h"

struct ClipFinder::Handles : nevo::media::SharedSegments {
    Handles() : SharedSegments(nevo::media::kCachePrefix) {}

    bool hadWholeTables = false; // of which each takes up to 26 MB while it lasts
};

#endif
