// What changes on the medium in use: the maker directory is watched with inotify, and the shared cache follows.

#include <fcntl.h>
#include <sys/inotify.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>

#include "classes/diagnostics/diagnostics.h"
#include "clip_finder.h"
#include "media/media_cache.h"
#include "media_manager/cache_failure.h"
#include "media_manager/media_manager.h"
#include "parameters.h"
#include "printable.h"
#include "shared_segment.h"

using nevo::media::kCachePrefix;
using nevo::media::MediaCache;

namespace {

// A file counts when its writer closes it, not when it is created.
constexpr std::uint32_t kWatchedEvents =
    IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
static_assert(kWatchedEvents == 0xec8);

// One read takes every pending event, unless more than 15,480 of the longest names are pending: the rest waits for the next
// pass.
constexpr std::size_t kEventBufferSize = 0x404000;

constexpr char kDirectoryItself[] = "PATH"; // the name of an event that carries none

constexpr int kPlaylistMode = 2;

bool isPlaylist(const std::string& path) { return path.find(".playlist") != std::string::npos; }

} // namespace

void MediaManager::setup_inotify() {
    if (_inotify != -1) teardown_inotify();
    _inotify = _os.openInotify();
    if (_inotify == -1) {
        reportPlain(std::string("init - call to inotify_init failed ") + std::strerror(errno) + "\n");
        return;
    }
    const int flags = _os.getDescriptorFlags(_inotify);
    if (flags == -1) reportPlain(std::string("fcntl failed: ") + std::strerror(errno) + "\n");
    // The text is spelt as the field knows it.
    if (_os.setDescriptorFlags(_inotify, flags | O_NONBLOCK) == -1)
        reportPlain(std::string("fctl: ") + std::strerror(errno) + "\n");
}

void MediaManager::teardown_inotify() {
    if (_watch != -1) {
        if (_os.removeInotifyWatch(_inotify, _watch) == -1)
            reportPlain("inotify_rm_watch failed for _fd " + std::to_string(_inotify) + ", _wd " +
                        std::to_string(_watch) + ", " + std::strerror(errno) + "\n");
        _watch = -1;
    }
    if (_inotify != -1) {
        if (_os.close(_inotify) == -1)
            reportPlain("close failed for _fd " + std::to_string(_inotify) + ", " + std::strerror(errno) + "\n");
        _inotify = -1;
    }
}

bool MediaManager::watchPath(std::string path) {
    // It is gone by itself when its file system was unmounted, so a failure says nothing.
    if (_watch != -1) _os.removeInotifyWatch(_inotify, _watch);
    _watch = _os.addInotifyWatch(_inotify, path, kWatchedEvents);
    if (_watch == -1) {
        reportPlain("inotify_add_watch failed for _fd " + std::to_string(_inotify) + ", path " + path + ", " +
                    std::strerror(errno) + "\n");
        return false;
    }
    return true;
}

bool MediaManager::ReadEvents(std::list<std::pair<std::string, unsigned int>>& events, int fd, int /*wd*/) {
    // Not cleared: the records say how long they are, and clearing would touch four megabytes on every idle pass.
    if (!_eventBuffer) _eventBuffer = std::make_unique_for_overwrite<char[]>(kEventBufferSize);
    const ssize_t count = _os.read(fd, _eventBuffer.get(), kEventBufferSize);
    if (count == -1) {
        const int error = errno;
        if (error != EAGAIN)
            report("inotify failed with: " + std::to_string(error) + " (" + std::strerror(error) + ")");
        return false;
    }
    if (count == 0) return false;
    const auto size = static_cast<std::size_t>(count);
    for (std::size_t at = 0; at + sizeof(inotify_event) <= size;) {
        inotify_event* event = reinterpret_cast<inotify_event*>(_eventBuffer.get() + at);
        const std::size_t end = at + sizeof(inotify_event) + event->len;
        if (end > size) break;
        const char* name = _eventBuffer.get() + at + offsetof(inotify_event, name);
        events.emplace_back(event->len == 0 ? std::string(kDirectoryItself) : std::string(name, strnlen(name, event->len)),
                            event->mask);
        LogEvent(event);
        at = end;
    }
    return true;
}

void MediaManager::checkMediaEvents() {
    std::list<std::pair<std::string, unsigned int>> events;
    if (!ReadEvents(events, _inotify, _watch)) return;
    bool changed = false;
    std::optional<MediaCache> cache;
    try {
        cache.emplace(kCachePrefix);
        ClipFinder finder(_config);
        const std::string directory = _mountPoints[_selectedSlot] + "/NEVO";
        for (const auto& [name, mask] : events) {
            const std::string path = directory + "/" + name;
            if ((mask & IN_Q_OVERFLOW) != 0) {
                // The kernel dropped events; what they said stands in the directory.
                if (_mounted) {
                    finder.scanMedia(directory);
                    cache.emplace(kCachePrefix); // it remembers what the segment had before
                    changed = true;
                }
            } else if ((mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0) {
                changed = fileArrived(*cache, path) || changed;
            } else if ((mask & IN_DELETE) != 0) {
                changed = fileDeleted(*cache, finder, path) || changed;
            }
        }
    } catch (const std::exception& failure) {
        reportCacheFailure("checkMediaEvents", failure);
    }
    if (changed) stampMediaChange();
}

void MediaManager::stampMediaChange() {
    const int stamp = static_cast<int>(_os.time());
    // The second change within a second has no stamp of its own that would be seen.
    if (stamp == _lastMediaTimeSeen) _cacheRefreshRequested = true;
    _config->setInteger(kParamMediaChangedTime, stamp);
}

bool MediaManager::fileArrived(MediaCache& cache, const std::string& path) {
    if (MediaCache::isClipPath(path)) {
        if (!cache.hasRoomFor(path)) {
            report("the clip cache is full; left out: " + printable(path));
            return true;
        }
        const auto encodeType = static_cast<unsigned int>(_config->getInteger(kParamEncodeType));
        int index = -1;
        if (cache.AddClip(path, encodeType, index, false) &&
            _config->getInteger(kParamClipListMode) != kPlaylistMode && index >= 0)
            _config->setInteger(kParamNewClipIndex, index);
        return true;
    }
    if (!isPlaylist(path)) return false;
    if (!cache.hasRoomForPlaylist(path)) {
        report("the playlist cache is full; left out: " + printable(path));
        return true;
    }
    cache.AddPlaylist(path);
    return true;
}

bool MediaManager::fileDeleted(MediaCache& cache, ClipFinder& finder, const std::string& path) {
    if (MediaCache::isClipPath(path)) {
        finder.removeClip(path);
        return true;
    }
    if (!isPlaylist(path)) return false;
    // Writes also when none was found: the segment is then well formed for sure.
    cache.RemovePlaylist(path);
    return true;
}

std::list<Clip> MediaManager::findSelectedClips(ClipFinder& finder) {
    std::string playlist;
    _config->getString(kParamPlaylistName, playlist);
    const bool filtered = _config->getInteger(kParamClipListMode) == kPlaylistMode && !playlist.empty();
    return finder.findClips(filtered, true, true);
}

void MediaManager::checkMediaUpdated() {
    const int stamp = _mediaChangedTime;
    if ((stamp != _lastMediaTimeSeen || _cacheRefreshRequested) && _transportState != eTransportRecording) {
        _cacheRefreshRequested = false;
        try {
            const MediaCache cache(kCachePrefix);
            ClipFinder finder(_config);
            if (finder.findClips(true, false, true).empty()) {
                setClip(_selectedSlot, "N/A", 0);
            } else {
                const std::list<Clip> clips = findSelectedClips(finder);
                setClip(_selectedSlot, clips.empty() ? "Empty List" : nevo::media::fieldText(clips.front().name), 0);
            }
        } catch (const std::exception& failure) {
            reportCacheFailure("checkMediaUpdated", failure);
        }
    }
    // Seen in every case: what was skipped because of a recording is not caught up with, on purpose. (The loop asks only
    // while the transport is idle; what was stamped meanwhile it finds afterwards, as a change like any other.)
    _lastMediaTimeSeen = stamp;
}
