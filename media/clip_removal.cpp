#include <algorithm>

#include "clip_finder_handles.h"

using namespace nevo::media;

bool ClipFinder::removeClip(std::string path) {
    std::list<Clip> clips = takeClips(_handles->clips, _handles->clipMutex);
    // A plain substring: "Clip_1" goes with "Clip_12.mov" when it comes first. findClips heals that from the directory.
    const auto named = std::find_if(clips.begin(), clips.end(), [&path](const Clip& clip) {
        return path.find(fieldText(clip.name)) != std::string::npos;
    });
    const bool found = named != clips.end();
    if (found) clips.erase(named);
    storeClips(_handles->clips, _handles->clipMutex, clips);
    return found;
}
