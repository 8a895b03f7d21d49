#ifndef MEDIAD_FUZZERS_HOSTILE_SEGMENT_H
#define MEDIAD_FUZZERS_HOSTILE_SEGMENT_H

// The shared segments with whatever an input says in them, as another process may have left them.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "clip.h"
#include "fuzzers/fuzzer.h"
#include "shared_segment.h"

namespace fuzzers {

// More records than an input brings along (kMostRecords): whoever checks many things picks one.
inline constexpr std::size_t kMany = 64;
inline constexpr std::size_t kMostRecords = 15;

// A segment in shared memory, looked at from outside. Made once; every input begins with nothing but zeros in it.
class HostileSegment {
public:
    HostileSegment(const std::string& name, std::size_t size) : _size(size) {
        ::umask(0);
        _descriptor = ::shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0777);
        if (_descriptor == -1) std::abort();
        cut(_size);
        void* const mapped = ::mmap(nullptr, _size, PROT_READ, MAP_SHARED, _descriptor, 0);
        if (mapped == MAP_FAILED) std::abort();
        _bytes = static_cast<const char*>(mapped);
    }

    // All zeros, and the whole size. What a small count can have brought is written over, for the pages of all the rest take
    // longer than most inputs.
    void clear() {
        if (_isMany || size() != _size) {
            cut(0);
            cut(_size);
        } else {
            static constexpr std::array<char, (kMany + 2) * nevo::media::kPlaylistStride> kZeros{};
            put(0, kZeros.data(), kZeros.size());
        }
        _isMany = false;
    }
    void cut(std::size_t size) {
        if (::ftruncate(_descriptor, static_cast<off_t>(size)) == -1) std::abort();
    }
    void put(std::size_t at, const void* bytes, std::size_t count) {
        const std::size_t fitting = at < _size ? std::min(count, _size - at) : 0;
        if (::pwrite(_descriptor, bytes, fitting, static_cast<off_t>(at)) == -1) std::abort();
    }
    // Not of a segment that was cut.
    const char* at(std::size_t offset) const { return _bytes + offset; }
    std::string bytes(std::size_t offset, std::size_t count) const { return {at(offset), count}; }
    std::uint32_t count(std::size_t offset) const {
        std::uint32_t count = 0;
        std::memcpy(&count, at(offset), sizeof count);
        return count;
    }
    std::size_t size() const {
        struct stat status {};
        if (::fstat(_descriptor, &status) == -1) std::abort();
        return static_cast<std::size_t>(status.st_size);
    }

    // Text and count at the front, good or bad.
    void putHead(Input& input, const char* magic, std::size_t magicSize, std::size_t capacity) {
        const std::uint8_t kind = input.byte();
        const std::string text = (kind & 1) != 0 ? input.text() : std::string(magic, magicSize);
        put(0, text.data(), text.size());
        // Mostly small: a large count makes an input slow.
        std::uint32_t count = kind >> 4;
        if ((kind & 0x0e) == 0x0e) count = static_cast<std::uint32_t>(capacity) - 1 + (kind >> 4) % 3;
        if ((kind & 0x0e) == 0x0c) count = input.number();
        put(magicSize, &count, sizeof count);
        _isMany = count > kMany;
    }

private:
    std::size_t _size;
    bool _isMany = false;
    int _descriptor;
    const char* _bytes;
};

template <std::size_t size>
void putField(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

inline void fill(Input& input, Clip& clip) {
    putField(clip.name, input.longText());
    clip.time = static_cast<std::int32_t>(input.number());
    clip.frames = input.number();
    putField(clip.startTimecode, input.text());
    clip.sameCodec = input.byte();
    putField(clip.attributes.text, input.longText());
}

inline void fill(Input& input, nevo::media::PlaylistCacheEntry& playlist) {
    putField(playlist.path, input.longText());
    putField(playlist.text, input.longText());
    playlist.modified = static_cast<std::int32_t>(input.number());
}

// As many records as the input says, from the first on.
inline void putClips(Input& input, HostileSegment& segment) {
    using namespace nevo::media;
    segment.putHead(input, kClipMagic, kClipMagicSize, kClipCapacity);
    for (std::size_t count = input.byte() % (kMostRecords + 1), i = 0; i < count; ++i) {
        Clip clip{};
        fill(input, clip);
        segment.put(kClipRecordsOffset + kClipStride * i, &clip, kClipBytesCopied);
    }
}

inline void putPlaylists(Input& input, HostileSegment& segment) {
    using namespace nevo::media;
    segment.putHead(input, kPlaylistMagic, kPlaylistMagicSize, kPlaylistCapacity);
    for (std::size_t count = input.byte() % (kMostRecords + 1), i = 0; i < count; ++i) {
        PlaylistCacheEntry playlist{};
        fill(input, playlist);
        segment.put(kPlaylistRecordsOffset + kPlaylistStride * i, &playlist, kPlaylistStride);
    }
}

// The bytes of a record up to the zeros that end it: nearly all records of a full segment are nothing but zeros.
inline std::string contentOf(const char* record, std::size_t size) {
    if (record[0] == 0 && std::memcmp(record, record + 1, size - 1) == 0) return {};
    while (record[size - 1] == 0) --size;
    return {record, size};
}
inline std::string contentOf(const Clip& clip) {
    return contentOf(reinterpret_cast<const char*>(&clip), nevo::media::kClipBytesCopied);
}
inline std::string contentOf(const nevo::media::PlaylistCacheEntry& playlist) {
    return contentOf(reinterpret_cast<const char*>(&playlist), nevo::media::kPlaylistStride);
}

using Contents = std::vector<std::string>;

template <typename Record>
Contents contentsOf(const std::list<Record>& records) {
    Contents contents;
    for (const Record& record : records) contents.push_back(contentOf(record));
    return contents;
}

// The records of a segment by the book.
inline Contents clipsIn(const HostileSegment& segment) {
    using namespace nevo::media;
    Contents contents;
    if (segment.bytes(0, kClipMagicSize) != kClipMagic) return contents;
    const std::size_t count = std::min<std::size_t>(segment.count(kClipCountOffset), kClipCapacity);
    for (std::size_t i = 0; i < count; ++i)
        contents.push_back(contentOf(segment.at(kClipRecordsOffset + kClipStride * i), kClipBytesCopied));
    return contents;
}
inline Contents playlistsIn(const HostileSegment& segment) {
    using namespace nevo::media;
    Contents contents;
    if (segment.bytes(0, kPlaylistMagicSize) != kPlaylistMagic) return contents;
    const std::size_t count = std::min<std::size_t>(segment.count(kPlaylistCountOffset), kPlaylistCapacity);
    for (std::size_t i = 0; i < count; ++i)
        contents.push_back(contentOf(segment.at(kPlaylistRecordsOffset + kPlaylistStride * i), kPlaylistStride));
    return contents;
}

// The field of 4096 bytes that a record begins with.
inline std::string firstField(const std::string& content) {
    return content.substr(0, std::min<std::size_t>(content.find('\0'), 4096));
}

} // namespace fuzzers

#endif
