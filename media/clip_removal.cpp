#include "clip_finder_handles.h"
#include "media/segment_editing.h"

using namespace nevo::media;

bool ClipFinder::removeClip(std::string path) {
    // A plain substring: "Clip_1" goes with "Clip_12.mov" when it comes first. findClips heals that from the directory.
    bool found = false;
    visitSegment(_handles->clips, _handles->clipMutex, kClipSegmentSize,
                 [&](std::byte* segment) { found = takeOutClip(segment, path); });
    return found;
}
