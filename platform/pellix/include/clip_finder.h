#ifndef MEDIAD_PLATFORM_CLIP_FINDER_H
#define MEDIAD_PLATFORM_CLIP_FINDER_H

#include <list>
#include <memory>
#include <set>
#include <string>

#include "clip.h"
#include "config.h"

// The clip scanner. Made for one piece of work and dropped again; the shared segments are the state. One thread at a
// time. Construction opens the segments and makes them where they are missing; failures of the shared memory arrive as
// boost::interprocess::interprocess_exception, from there and from every operation that touches a segment.
class ClipFinder {
public:
    // `config` must outlive the finder.
    explicit ClipFinder(Config* config);
    ~ClipFinder();
    ClipFinder(const ClipFinder&) = delete;
    ClipFinder& operator=(const ClipFinder&) = delete;

    // Examines the clips and playlists in the directory `path` and refills both segments, each in one go. Clips are
    // usable clip files (ClipExaminer) with ".mov" or ".MOV" anywhere in the full path; playlists are other files with
    // ".playlist" in it that readPlaylistFile takes. Files that are open for writing at this moment are left out. Clips
    // of equal time stand in the order of their names. Of more than a segment has room for, the newest clips (the take
    // numbering must still see the last ones) and the first playlists are kept; one line on standard error says so. Of
    // two files that give one name the later in the order of file names counts. The codec flag is set against the
    // encode type parameter. A directory that cannot be read is reported in one line and counts as empty.
    void scanMedia(std::string path);

    // The clips of the medium in use in time order. When the first two flags are both true, only those that the selected
    // playlist names; none when there is no such playlist. `refresh` is reserved.
    //
    // First both segments are brought in step with the directory in the storage path parameter: records of files that
    // are gone or no longer usable go, files without a record get one while there is room, files that have changed
    // (size or modification time) are examined again. Records of files that are open for writing stay as they are. A
    // segment that is in step already is not written. Nothing is touched while the parameter is empty or the directory
    // cannot be read.
    std::list<Clip> findClips(bool playlistSelected, bool filtered, bool refresh);

    // Empties the clip segment.
    void flushClips();

    // Empties both segments and forgets what was found in the files.
    void flushAll();

    // The clip that is current after the clips named in `deleted` (file names, or "*" for all) are gone: `current`
    // where it survives or is not in `clips`, else the next survivor in the list, else the last one, else "N/A". Names
    // are compared without their extension.
    std::string NextClipNameAfterDelete(std::list<Clip> clips, std::string current, std::set<std::string> deleted);

    // Keeps the next take's number above the highest number that ends a clip's name. Numbers that the parameter cannot
    // be above are no take numbers.
    void ensureNextRecordedTakeIsGreaterThanAnyOnMedia(std::list<Clip>& clips);

    // Removes the first clip of the segment whose name occurs in `path`, a full path of a clip file; true when there
    // was one. The segment is rewritten in every case. (media/clip_removal.cpp)
    bool removeClip(std::string path);

private:
    void bringInStep();

    struct Handles; // the clip and playlist segments with their mutexes
    Config* _config;
    std::unique_ptr<Handles> _handles;
};

#endif
