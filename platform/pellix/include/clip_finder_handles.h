#ifndef MEDIAD_PLATFORM_CLIP_FINDER_HANDLES_H
#define MEDIAD_PLATFORM_CLIP_FINDER_HANDLES_H

// The segments as the clip scanner holds them. Only the scanner's own operations need this.

#include "clip_finder.h"
#include "shared_segment.h"

struct ClipFinder::Handles {
    using Segment = boost::interprocess::shared_memory_object;

    static Segment openSegment(const std::string& name) {
        return Segment(boost::interprocess::open_or_create, name.c_str(), boost::interprocess::read_write,
                       nevo::media::segmentPermissions());
    }

    Handles()
        : clips(openSegment(nevo::media::clipSegmentName(nevo::media::kCachePrefix))),
          clipMutex(nevo::media::clipMutexName(nevo::media::kCachePrefix)),
          playlists(openSegment(nevo::media::playlistSegmentName(nevo::media::kCachePrefix))),
          playlistMutex(nevo::media::playlistMutexName(nevo::media::kCachePrefix)) {
        clips.truncate(static_cast<boost::interprocess::offset_t>(nevo::media::kClipSegmentSize));
        playlists.truncate(static_cast<boost::interprocess::offset_t>(nevo::media::kPlaylistSegmentSize));
    }

    // The order is the order in which they are opened.
    Segment clips;
    nevo::media::SegmentMutex clipMutex;
    Segment playlists;
    nevo::media::SegmentMutex playlistMutex;
};

#endif
