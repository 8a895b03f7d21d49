#ifndef MEDIAD_TESTS_MEDIACTL_SEGMENT_H
#define MEDIAD_TESTS_MEDIACTL_SEGMENT_H

// The shared segments, written byte by byte.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "recorder.h"

inline constexpr std::size_t kClipSegment = 26771475;
inline constexpr std::size_t kPlaylistSegment = 8392727;

// A shared segment as a string of bytes, with the semaphore that guards it.
class Segment {
public:
    Segment(const std::string& magic, std::size_t size) : _name("/NewCache" + magic), _bytes(size, '\0') {
        umask(0);
        const std::string semaphore = _name + "_mutex";
        _semaphore = sem_open(semaphore.c_str(), O_CREAT, 0777, 1);
        EXPECT_NE(_semaphore, SEM_FAILED);
    }
    ~Segment() { sem_close(_semaphore); }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    Segment& put(std::size_t offset, const std::string& text) {
        std::copy(text.begin(), text.end(), _bytes.begin() + static_cast<std::ptrdiff_t>(offset));
        return *this;
    }
    Segment& put(std::size_t offset, std::uint32_t number) {
        std::memcpy(&_bytes[offset], &number, sizeof number);
        return *this;
    }
    Segment& resize(std::size_t size) {
        _bytes.resize(size);
        return *this;
    }
    void store() const { writeFile("/dev/shm" + _name + "_shm", _bytes); }

    void lock() { sem_wait(_semaphore); }
    void unlock() { sem_post(_semaphore); }
    int count() {
        int result = -1;
        sem_getvalue(_semaphore, &result);
        return result;
    }

private:
    std::string _name;
    std::string _bytes;
    sem_t* _semaphore;
};

class ClipSegment : public Segment {
public:
    ClipSegment() : Segment("SharedClipCache", kClipSegment) {}

    // A clip record at its place.
    void putClip(std::size_t index, const std::string& name, std::uint32_t time = 0, char match = 1,
                 const std::string& attributes = "") {
        const std::size_t begin = 19 + 6536 * index;
        put(begin, std::string(4096, '\0'));
        put(begin, name).put(begin + 4096, time).put(begin + 4100, 250U).put(begin + 4104, "10:00:00:00");
        put(begin + 4132, std::string(1, match)).put(begin + 4133, attributes);
    }

    // Exactly these clips from now on, also for those who are looking.
    void hold(const std::vector<std::string>& names) {
        put(0, "SharedClipCache").put(15, static_cast<std::uint32_t>(names.size()));
        for (std::size_t i = 0; i < names.size(); ++i) putClip(i, names[i], static_cast<std::uint32_t>(i));
        lock();
        store();
        unlock();
    }
};

#endif
