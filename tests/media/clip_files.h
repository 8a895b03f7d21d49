#ifndef MEDIAD_TESTS_MEDIA_CLIP_FILES_H
#define MEDIAD_TESTS_MEDIA_CLIP_FILES_H

// Clip files and raw segments for the tests of the clip cache. Nothing here uses the code under test: positions and
// sizes are written out as numbers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace clipfiles {

inline constexpr char kClipSegment[] = "/dev/shm/NewCacheSharedClipCache_shm";
inline constexpr char kPlaylistSegment[] = "/dev/shm/NewCacheSharedPlaylistCache_shm";
inline constexpr char kClipMutex[] = "/dev/shm/sem.NewCacheSharedClipCache_mutex";
inline constexpr char kPlaylistMutex[] = "/dev/shm/sem.NewCacheSharedPlaylistCache_mutex";

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.is_open()) << path;
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// The bytes of one of the clips that make_clips makes.
inline std::string clipBytes(const std::string& name) {
    return readFile(std::string(MEDIAD_TEST_CLIPS) + "/" + name + ".mov");
}

// The clip with another creation time: seconds since 1904, as the file holds it; 0 for none.
inline std::string withCreationTime(std::string clip, std::uint32_t since1904) {
    const std::size_t header = clip.find("mvhd");
    EXPECT_NE(header, std::string::npos);
    for (std::size_t i = 0; i < 4; ++i)
        clip[header + 8 + i] = static_cast<char>(static_cast<unsigned char>(since1904 >> (24 - 8 * i)));
    return clip;
}

inline constexpr std::uint32_t kUnixEpochSince1904 = 2'082'844'800;

// A usable clip made `time` seconds after the epoch.
inline std::string clipMadeAt(std::uint32_t time, const std::string& name = "apcn") {
    return withCreationTime(clipBytes(name), time + kUnixEpochSince1904);
}

// A segment as any program sees it that opens the file.
class RawSegment {
public:
    explicit RawSegment(const std::string& path) : _descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
        EXPECT_NE(_descriptor, -1) << path;
    }
    ~RawSegment() { close(_descriptor); }
    RawSegment(const RawSegment&) = delete;
    RawSegment& operator=(const RawSegment&) = delete;

    std::int64_t size() const {
        struct stat status {};
        fstat(_descriptor, &status);
        return status.st_size;
    }
    std::string bytes(std::int64_t offset, std::size_t count) const {
        std::string found(count, '?');
        EXPECT_EQ(pread(_descriptor, found.data(), count, offset), static_cast<ssize_t>(count));
        return found;
    }
    std::string text(std::int64_t offset, std::size_t count) const { return bytes(offset, count).c_str(); }
    std::int32_t word(std::int64_t offset) const {
        std::int32_t value = 0;
        std::memcpy(&value, bytes(offset, 4).data(), 4);
        return value;
    }
    void put(std::int64_t offset, const std::string& bytes) {
        EXPECT_EQ(pwrite(_descriptor, bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()));
    }
    void putWord(std::int64_t offset, std::int32_t value) {
        put(offset, std::string(reinterpret_cast<const char*>(&value), sizeof value));
    }

    // The names and times of the clip segment's records.
    std::vector<std::pair<std::string, std::int32_t>> clips() const {
        std::vector<std::pair<std::string, std::int32_t>> found;
        if (bytes(0, 15) != "SharedClipCache") return found;
        for (std::int64_t i = 0; i < word(15); ++i)
            found.emplace_back(text(19 + 6536 * i, 4096), word(19 + 6536 * i + 4096));
        return found;
    }
    std::vector<std::string> clipNames() const {
        std::vector<std::string> names;
        for (const auto& [name, time] : clips()) names.push_back(name);
        return names;
    }

    // Writes `count` made-up clips, "old_0000" upwards, a second apart from time 1000 on.
    void fillClips(std::int32_t count) {
        std::string record(6536, '\0');
        put(0, "SharedClipCache");
        putWord(15, count);
        for (std::int32_t i = 0; i < count; ++i) {
            std::string name = std::to_string(i);
            name = "old_" + std::string(4 - name.size(), '0') + name;
            std::memcpy(record.data(), name.c_str(), name.size() + 1);
            const std::int32_t time = 1000 + i;
            std::memcpy(record.data() + 4096, &time, 4);
            put(19 + 6536LL * i, record);
        }
    }
    void putPlaylist(std::int32_t index, const std::string& path, const std::string& text, std::int32_t modified) {
        std::string record(8196, '\0');
        path.copy(record.data(), 4096);
        text.copy(record.data() + 4096, 4096);
        std::memcpy(record.data() + 8192, &modified, 4);
        put(23 + 8196LL * index, record);
    }

private:
    int _descriptor;
};

inline std::size_t openDescriptors() {
    const auto all = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

// Whether a thread of this process sleeps in the kernel, as one does that waits for a lock, and no signal is on its way to it.
inline bool isBlocked(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/status");
    const std::string status{std::istreambuf_iterator<char>(file), {}};
    return status.find("\nState:\tS") != std::string::npos && status.find("\nSigPnd:\t0000000000000000\n") != std::string::npos;
}

// A world without segments, and a folder to put clips into.
class SegmentTest : public testing::Test {
protected:
    void SetUp() override {
        umask(0);
        for (const char* name : {kClipSegment, kPlaylistSegment, kClipMutex, kPlaylistMutex}) unlink(name);
        char folder[] = "/tmp/clipsXXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        _folder = folder;
    }
    void TearDown() override { std::filesystem::remove_all(_folder); }

    std::string at(const std::string& name) const { return _folder + "/" + name; }

    // A usable clip of that file name, made `time` seconds after the epoch; gives its path.
    std::string makeClip(const std::string& name, std::uint32_t time, const std::string& source = "apcn") const {
        writeFile(at(name), clipMadeAt(time, source));
        return at(name);
    }

    std::string _folder;
};

} // namespace clipfiles

#endif
