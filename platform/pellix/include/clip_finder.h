#ifndef MEDIAD_PLATFORM_CLIP_FINDER_H
#define MEDIAD_PLATFORM_CLIP_FINDER_H

#include <list>
#include <memory>
#include <set>
#include <string>

#include "clip.h"
#include "config.h"

// The clip scanner. Made for one piece of work and dropped again; the shared segments are the state. One thread at a
// time. Failures of the shared memory arrive as boost::interprocess::interprocess_exception.
class ClipFinder {
public:
    explicit ClipFinder(Config* config);
    ~ClipFinder();
    ClipFinder(const ClipFinder&) = delete;
    ClipFinder& operator=(const ClipFinder&) = delete;

    // Examines the clips and playlists in the directory `path` and refills both segments with them. Clips are regular
    // files with ".mov" or ".MOV" anywhere in the full path; files that are still open for writing are left out.
    void scanMedia(std::string path);

    // The clips in time order. When both flags are true, only those of the selected playlist, in the playlist's order.
    std::list<Clip> findClips(bool playlistSelected, bool filtered, bool refresh);

    // Empties the clip segment.
    void flushClips();

    // Empties both segments.
    void flushAll();

    // The clip that is current after the clips named in `deleted` (file names, or "*" for all) are gone: `current` where it
    // survives or is not in `clips`, else the next survivor in the list, else the last one, else "N/A". Names are
    // compared without their extension.
    std::string NextClipNameAfterDelete(std::list<Clip> clips, std::string current, std::set<std::string> deleted);

    // Keeps the next take's number above the highest number that ends a clip's name.
    void ensureNextRecordedTakeIsGreaterThanAnyOnMedia(std::list<Clip>& clips);

    // Removes the first clip whose name occurs in `path` from the clip segment; true when one was removed.
    // (media/clip_removal.cpp)
    bool removeClip(std::string path);

private:
    struct Handles; // the clip and playlist segments with their mutexes
    Config* _config;
    std::unique_ptr<Handles> _handles;
};

#endif
