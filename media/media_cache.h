#ifndef MEDIAD_MEDIA_MEDIA_CACHE_H
#define MEDIAD_MEDIA_MEDIA_CACHE_H

#include <map>
#include <string>

#include "clip_examiner.h"
#include "media/segment_editing.h"
#include "shared_segment.h"

namespace nevo::media {

// The clips and playlists of the medium in use, published to the other processes of the recorder in two shared segments
// (clip.h draws them). The segments are the state: an object of this class is made for one operation and dropped again,
// and every operation is complete in one locked visit of its segment (segment_editing.h). The two mutexes are never held
// together. A mutex that its holder does not give back within ten seconds is taken over. Between its calls an object keeps
// no more than a hint for a burst of clips (ClipsSeen), which is checked against the segment.
//
// One thread at a time for an object. Failures of the shared memory, at construction and in every operation, are thrown
// as boost::interprocess::interprocess_exception.
class MediaCache : public ClipExaminer {
public:
    // Opens or makes the four objects whose names begin with `prefix`, and gives the segments their sizes. What is in
    // them stays. Their modes are 0777; the semaphores' obey the umask.
    explicit MediaCache(std::string prefix);

    // Closes everything and removes nothing: the contents survive until the system restarts.
    ~MediaCache();

    MediaCache(const MediaCache&) = delete;
    MediaCache& operator=(const MediaCache&) = delete;

    // Whether AddClip of this path keeps within the segment: there is room, or the clip's name is in it already.
    // Whoever adds clips asks first, and reports the clip that has to stay out.
    bool hasRoomFor(const std::string& path);

    // Examines the clip at `path` and stores its record, instead of one of the same name where there is one. The codec
    // flag tells whether the clip is of the codec of `encodeType`. `option` goes to GrokClip. True when stored; then
    // `index` is the number of clips in the cache less one, wherever the clip stands. False, with segment and `index`
    // untouched, when the examination fails or there is no room.
    bool AddClip(std::string path, unsigned int encodeType, int& index, bool option);

    // Puts every playlist of the segment into `cache` under its name (playlistName), over what is there. True when the
    // segment has been written to, even with no playlist in it.
    bool ReadPlaylistCacheFromSharedMemory(std::map<std::string, PlaylistCacheEntry>& cache);

    // Whether AddPlaylist of this path keeps within the segment, as hasRoomFor.
    bool hasRoomForPlaylist(const std::string& path);

    // Reads the playlist file at `path` (playlist.h tells what it looks like) and stores its record, instead of one of
    // the same name, even from another directory, where there is one. True when stored. False when the file cannot be
    // read or is no playlist (readPlaylistFile), or there is no room; the segment is untouched then.
    bool AddPlaylist(std::string path);

    // Takes out the first playlist, in the order of the names, whose stored path occurs in `path`; true when there was
    // one. The segment is well formed afterwards in any case.
    bool RemovePlaylist(const std::string& path);

private:
    std::string _prefix;
    SharedSegments _segments;
    ClipsSeen _clipsSeen;
};

} // namespace nevo::media

#endif
