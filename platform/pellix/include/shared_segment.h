#ifndef MEDIAD_PLATFORM_SHARED_SEGMENT_H
#define MEDIAD_PLATFORM_SHARED_SEGMENT_H

// How the shared clip and playlist segments (clip.h draws them) are named, locked, mapped, read and written.
//
// The lock protocol is part of the format: a segment is mapped only while its named mutex is held, and unmapped before
// the mutex is given back. The mutex is a POSIX named semaphore; a process that dies while it holds it leaves it
// locked, so nobody may be killed in between. The recorder itself takes it over after a while (segment_mutex.h).
//
// Its pages are taken from the shared-memory file system when it is made, and where a hole is found later: a page that is
// not to be had when it is first touched would be SIGBUS, for whoever touches it. Who only looks reads around holes.
//
// Whoever only wants to look calls readClips or readPlaylists: they create nothing and throw nothing. Everything else
// here throws boost::interprocess::interprocess_exception on failure. Any thread may call anything; the handles
// that are passed in belong to one thread at a time.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "clip.h"
#include "playlist.h"
#include "segment_mutex.h"
#include "signals_held.h"

namespace nevo::media {

// The names of the four objects. The library that opens them puts a "/" in front where there is none.
inline std::string clipSegmentName(const std::string& prefix) { return prefix + kClipMagic + "_shm"; }
inline std::string clipMutexName(const std::string& prefix) { return prefix + kClipMagic + "_mutex"; }
inline std::string playlistSegmentName(const std::string& prefix) { return prefix + kPlaylistMagic + "_shm"; }
inline std::string playlistMutexName(const std::string& prefix) { return prefix + kPlaylistMagic + "_mutex"; }

// --- The bytes of a mapped segment. Nothing in it is aligned, hence the copying; a count is whatever somebody wrote
// --- there, hence the bounds.

// The number of records, never more than there is room for; 0 without the text at the front, `written` tells which.
inline std::uint32_t recordCount(const std::byte* segment, const char* magic, std::size_t magicSize,
                                 std::size_t capacity, bool& written) {
    written = std::memcmp(segment, magic, magicSize) == 0;
    if (!written) return 0;
    std::uint32_t count = 0;
    std::memcpy(&count, segment + magicSize, sizeof count);
    return std::min(count, static_cast<std::uint32_t>(capacity));
}

inline std::list<Clip> clipsOf(const std::byte* segment, bool& written) {
    std::list<Clip> clips;
    const std::uint32_t count = recordCount(segment, kClipMagic, kClipMagicSize, kClipCapacity, written);
    for (std::uint32_t i = 0; i < count; ++i)
        std::memcpy(&clips.emplace_back(), segment + kClipRecordsOffset + kClipStride * i, kClipBytesCopied);
    return clips;
}

// Called before each record that is written, and where records are edited in place before the front, too, with the lock held,
// and told which segment it is: simulation lets a daemon die there.
inline void (*beforeRecord)(const char* magic) = nullptr;

inline void willWrite(const char* magic) {
    if (beforeRecord != nullptr) beforeRecord(magic);
}

// Writes text, count and records. Records behind the new count and the padding of each keep the bytes they had. Clips
// beyond the capacity are not written: refuse them before it comes to this.
inline void putClips(std::byte* segment, const std::list<Clip>& clips) {
    const auto count = static_cast<std::uint32_t>(std::min<std::size_t>(clips.size(), kClipCapacity));
    std::memcpy(segment, kClipMagic, kClipMagicSize);
    std::memcpy(segment + kClipCountOffset, &count, sizeof count);
    std::size_t i = 0;
    for (const Clip& clip : clips) {
        if (i == count) break;
        willWrite(kClipMagic);
        std::memcpy(segment + kClipRecordsOffset + kClipStride * i++, &clip, kClipBytesCopied);
    }
}

inline std::list<PlaylistCacheEntry> playlistsOf(const std::byte* segment, bool& written) {
    std::list<PlaylistCacheEntry> playlists;
    const std::uint32_t count =
        recordCount(segment, kPlaylistMagic, kPlaylistMagicSize, kPlaylistCapacity, written);
    for (std::uint32_t i = 0; i < count; ++i)
        std::memcpy(&playlists.emplace_back(), segment + kPlaylistRecordsOffset + kPlaylistStride * i, kPlaylistStride);
    return playlists;
}

// As putClips. `playlists` holds the entries in the order in which they are to stand.
inline void putPlaylists(std::byte* segment, const std::list<PlaylistCacheEntry>& playlists) {
    const auto count = static_cast<std::uint32_t>(std::min<std::size_t>(playlists.size(), kPlaylistCapacity));
    std::memcpy(segment, kPlaylistMagic, kPlaylistMagicSize);
    std::memcpy(segment + kPlaylistCountOffset, &count, sizeof count);
    std::size_t i = 0;
    for (const PlaylistCacheEntry& playlist : playlists) {
        if (i == count) break;
        willWrite(kPlaylistMagic);
        std::memcpy(segment + kPlaylistRecordsOffset + kPlaylistStride * i++, &playlist, kPlaylistStride);
    }
}

// A field that is terminated only when its text is shorter than the field.
template <std::size_t size>
std::string fieldText(const char (&field)[size]) {
    return std::string(field, strnlen(field, size));
}

// The name under which a playlist is known.
inline std::string playlistName(const PlaylistCacheEntry& playlist) { return playlistName(fieldText(playlist.path)); }

// --- The pages of a segment.

// Whether each of the `size` bytes has memory of its own.
inline bool isAllocated(int segment, std::size_t size) {
    struct stat status;
    return ::fstat(segment, &status) == 0 && static_cast<std::uint64_t>(status.st_blocks) * 512 >= size;
}

// Gives the segment memory where it has none, and changes no byte that is there.
inline void allocate(const boost::interprocess::shared_memory_object& segment, std::size_t size) {
    const int descriptor = segment.get_mapping_handle().handle;
    if (isAllocated(descriptor, size)) return;
    int result;
    do {
        result = ::fallocate(descriptor, 0, 0, static_cast<off_t>(size));
    } while (result == -1 && errno == EINTR);
    // A kernel that cannot do it beforehand does it page by page, as ever.
    if (result == -1 && errno != EOPNOTSUPP && errno != ENOSYS)
        throw boost::interprocess::interprocess_exception(boost::interprocess::error_info(errno));
}

// --- Access under the mutex.

// The four objects of a medium's index, opened in this order.
struct SharedSegments {
    // Opens or makes them, and gives the segments their sizes and their memory: one that has its size already keeps its
    // contents, a new one becomes all zeros. Nothing is ever removed.
    explicit SharedSegments(const std::string& prefix)
        : clips(open(clipSegmentName(prefix))),
          clipMutex(clipMutexName(prefix)),
          playlists(open(playlistSegmentName(prefix))),
          playlistMutex(playlistMutexName(prefix)) {
        clips.truncate(static_cast<boost::interprocess::offset_t>(kClipSegmentSize));
        playlists.truncate(static_cast<boost::interprocess::offset_t>(kPlaylistSegmentSize));
        allocate(clips, kClipSegmentSize);
        allocate(playlists, kPlaylistSegmentSize);
    }

    boost::interprocess::shared_memory_object clips;
    SegmentMutex clipMutex;
    boost::interprocess::shared_memory_object playlists;
    SegmentMutex playlistMutex;

private:
    static boost::interprocess::shared_memory_object open(const std::string& name) {
        return {boost::interprocess::open_or_create, name.c_str(), boost::interprocess::read_write,
                segmentPermissions()};
    }
};

// Locks `mutex` (a SegmentMutex, or a measurement's cover of one), maps the whole of `segment` read-write, calls
// visit(std::byte*) and unmaps before it unlocks. `size` is the size that a segment of its kind has. Waits as long as
// SegmentMutex does; what a writer who died has left behind is then read as it stands, no further than there is room for.
template <typename Mutex, typename Visitor>
void visitSegment(boost::interprocess::shared_memory_object& segment, Mutex& mutex, std::size_t size, Visitor visit) {
    namespace ipc = boost::interprocess;
    ipc::scoped_lock<Mutex> lock(mutex);
    {
        ipc::mapped_region region(segment, ipc::read_write);
        // Another program has cut it short: touching what is missing would be SIGBUS.
        if (region.get_size() < size) throw ipc::interprocess_exception(ipc::error_info(ipc::size_error));
        visit(static_cast<std::byte*>(region.get_address()));
    }
    // Said aloud, because the lock's destructor keeps a failure to itself.
    lock.unlock();
}

// The whole of a segment in one locked access.
inline std::list<Clip> takeClips(boost::interprocess::shared_memory_object& segment, SegmentMutex& mutex) {
    std::list<Clip> clips;
    visitSegment(segment, mutex, kClipSegmentSize, [&clips](const std::byte* bytes) {
        bool written = false;
        clips = clipsOf(bytes, written);
    });
    return clips;
}

inline void storeClips(boost::interprocess::shared_memory_object& segment, SegmentMutex& mutex,
                       const std::list<Clip>& clips) {
    visitSegment(segment, mutex, kClipSegmentSize, [&clips](std::byte* bytes) { putClips(bytes, clips); });
}

// `written` becomes false when nobody has written to the segment yet.
inline std::list<PlaylistCacheEntry> takePlaylists(boost::interprocess::shared_memory_object& segment,
                                                   SegmentMutex& mutex, bool& written) {
    std::list<PlaylistCacheEntry> playlists;
    visitSegment(segment, mutex, kPlaylistSegmentSize,
                 [&](const std::byte* bytes) { playlists = playlistsOf(bytes, written); });
    return playlists;
}

inline void storePlaylists(boost::interprocess::shared_memory_object& segment, SegmentMutex& mutex,
                           const std::list<PlaylistCacheEntry>& playlists) {
    visitSegment(segment, mutex, kPlaylistSegmentSize,
                 [&playlists](std::byte* bytes) { putPlaylists(bytes, playlists); });
}

// --- For those who only look: tools, other programs.

enum class SegmentState {
    Filled,    // the segment carries its text; there may still be no record in it
    Unwritten, // nobody has written to it yet: the same as empty
    Absent,    // it does not exist: the daemon has not come so far since the system started
    Locked,    // whoever holds its mutex does not let go
    Failed,    // `error` says why, EACCES for instance
};

template <typename Record>
struct SegmentReading {
    SegmentState state = SegmentState::Failed;
    int error = 0; // errno, where there is one
    std::list<Record> records;
};

// The bytes of a segment that has holes, which read as zeros; reading takes no memory from its file system.
inline std::vector<std::byte> copyOf(int segment, std::size_t size) {
    std::vector<std::byte> bytes(size);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::pread(segment, bytes.data() + done, size - done, static_cast<off_t>(done));
        if (count == -1 && errno == EINTR) continue;
        if (count == -1) throw boost::interprocess::interprocess_exception(boost::interprocess::error_info(errno));
        if (count == 0) break; // cut short this moment
        done += static_cast<std::size_t>(count);
    }
    return bytes;
}

// What readClips and readPlaylists share: `take` makes the records of a mapped segment.
template <typename Record>
SegmentReading<Record> readSegment(const std::string& segmentName, const std::string& mutexName, std::size_t size,
                                   unsigned int seconds,
                                   std::list<Record> (*take)(const std::byte* segment, bool& written)) noexcept {
    namespace ipc = boost::interprocess;
    SegmentReading<Record> reading;
    try {
        ipc::shared_memory_object segment(ipc::open_only, segmentName.c_str(), ipc::read_only);
        ipc::named_mutex mutex(ipc::open_only, mutexName.c_str());
        // The library waits by the date, which may be set at any moment.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        // A tool that is interrupted between lock and unlock would leave the recorder locked.
        const SignalsHeld held;
        ipc::scoped_lock<ipc::named_mutex> lock(mutex, ipc::try_to_lock);
        while (!lock.owns() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            lock.try_lock();
        }
        if (!lock.owns()) {
            reading.state = SegmentState::Locked;
            return reading;
        }
        ipc::offset_t present = 0;
        if (!segment.get_size(present) || static_cast<std::uint64_t>(present) < size) {
            reading.state = SegmentState::Unwritten; // made this moment, and not yet sized
        } else {
            bool written = false;
            if (const int descriptor = segment.get_mapping_handle().handle; isAllocated(descriptor, size)) {
                const ipc::mapped_region region(segment, ipc::read_only, 0, size);
                reading.records = take(static_cast<const std::byte*>(region.get_address()), written);
            } else {
                reading.records = take(copyOf(descriptor, size).data(), written);
            }
            reading.state = written ? SegmentState::Filled : SegmentState::Unwritten;
        }
        lock.unlock();
    } catch (const ipc::interprocess_exception& failure) {
        reading.error = failure.get_native_error();
        reading.state = reading.error == ENOENT ? SegmentState::Absent : SegmentState::Failed;
    } catch (const std::bad_alloc&) {
        reading.error = ENOMEM;
        reading.state = SegmentState::Failed;
    }
    return reading;
}

// The clips in segment order (by time), the playlists in segment order (by name). Waits up to `seconds` for the mutex,
// with this thread's signals held back; maps read-only.
inline SegmentReading<Clip> readClips(const std::string& prefix = kCachePrefix, unsigned int seconds = 5) {
    return readSegment<Clip>(clipSegmentName(prefix), clipMutexName(prefix), kClipSegmentSize, seconds, clipsOf);
}

inline SegmentReading<PlaylistCacheEntry> readPlaylists(const std::string& prefix = kCachePrefix,
                                                        unsigned int seconds = 5) {
    return readSegment<PlaylistCacheEntry>(playlistSegmentName(prefix), playlistMutexName(prefix),
                                           kPlaylistSegmentSize, seconds, playlistsOf);
}

} // namespace nevo::media

#endif
