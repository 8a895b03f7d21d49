// What it costs to change a segment by one record: three ways to do it, on real segments under real locks. A change is
// undone, unmeasured, before the next one.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "benchmarks/plain_segments.h"
#include "benchmarks/whole_table.h"
#include "media/segment_editing.h"
#include "shared_segment.h"

using namespace nevo::media;

namespace {

constexpr char kPrefix[] = "Bench";
enum Way { WholeTable, InPlace, Limit };

// The thread's processor time: nothing here waits, and what other programs take away on a busy machine is not ours.
double now() {
    timespec time;
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// The recorder's lock, with a look at the clock where it is had and given back.
class TimedMutex {
public:
    explicit TimedMutex(SegmentMutex& mutex) : _mutex(mutex) {}
    void lock() {
        _mutex.lock();
        _begin = now();
    }
    void unlock() {
        longest = std::max(longest, now() - _begin);
        _mutex.unlock();
    }
    double longest = 0;

private:
    SegmentMutex& _mutex;
    double _begin = 0;
};

class Segments {
public:
    Segments() : _segments(kPrefix) {
        _clipFile = ::open((std::string("/dev/shm/") + clipSegmentName(kPrefix)).c_str(), O_RDWR | O_CLOEXEC);
        _playlistFile = ::open((std::string("/dev/shm/") + playlistSegmentName(kPrefix)).c_str(), O_RDWR | O_CLOEXEC);
        _clipLock = ::sem_open(("/" + clipMutexName(kPrefix)).c_str(), 0);
        _playlistLock = ::sem_open(("/" + playlistMutexName(kPrefix)).c_str(), 0);
        if (_clipFile == -1 || _playlistFile == -1 || _clipLock == SEM_FAILED || _playlistLock == SEM_FAILED) std::abort();
    }

    int clipFile() const { return _clipFile; }
    int playlistFile() const { return _playlistFile; }
    sem_t* clipLock() const { return _clipLock; }
    sem_t* playlistLock() const { return _playlistLock; }

    // Each access under the lock, its time with it added to `longest`.
    auto clips(double& longest) {
        return [this, &longest](auto&& visit) {
            TimedMutex mutex(_segments.clipMutex);
            visitSegment(_segments.clips, mutex, kClipSegmentSize, visit);
            longest = std::max(longest, mutex.longest);
        };
    }
    auto playlists(double& longest) {
        return [this, &longest](auto&& visit) {
            TimedMutex mutex(_segments.playlistMutex);
            visitSegment(_segments.playlists, mutex, kPlaylistSegmentSize, visit);
            longest = std::max(longest, mutex.longest);
        };
    }

private:
    SharedSegments _segments;
    int _clipFile, _playlistFile;
    sem_t* _clipLock;
    sem_t* _playlistLock;
};

Segments& segments() {
    static Segments segments;
    return segments;
}

Clip clipOf(int number) {
    Clip clip{};
    std::snprintf(clip.name, sizeof clip.name, "Clip_%05d", number);
    std::snprintf(clip.startTimecode, sizeof clip.startTimecode, "10:00:00:00");
    std::snprintf(clip.attributes.text, sizeof clip.attributes.text,
                  "Format\n1080p\nHeight\n1080\nWidth\n1920\nFrame Rate\n25\nEncode Type\n2\nAudio Chan\n2\n"
                  "Starting TC\n10:00:00:00");
    clip.time = 1'000'000 + number * 10;
    clip.frames = 250;
    return clip;
}

PlaylistCacheEntry playlistOf(int number) {
    PlaylistCacheEntry playlist{};
    std::snprintf(playlist.path, sizeof playlist.path, "/mnt/S1/NEVO/Reel_%05d.playlist", number);
    std::snprintf(playlist.text, sizeof playlist.text, "{\"name\": \"Reel\", \"cliplist\": [\"Clip_00001\"]}");
    return playlist;
}

// `count` clips, numbered from 1 on.
void fillClips(std::int64_t count) {
    double ignored = 0;
    std::list<Clip> clips;
    for (int i = 1; i <= count; ++i) clips.push_back(clipOf(i));
    segments().clips(ignored)([&clips](std::byte* bytes) { putClips(bytes, clips); });
}

void fillPlaylists(std::int64_t count) {
    double ignored = 0;
    std::list<PlaylistCacheEntry> playlists;
    for (int i = 1; i <= count; ++i) playlists.push_back(playlistOf(i));
    segments().playlists(ignored)([&playlists](std::byte* bytes) { putPlaylists(bytes, playlists); });
}

double median(std::vector<double>& values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

// Measures `change`, which gives the longest time that it held the lock, and undoes it.
void measure(benchmark::State& state, const std::function<double()>& change, const std::function<void()>& undo) {
    std::vector<double> times;
    std::vector<double> holds;
    for (auto _ : state) {
        const double begin = now();
        holds.push_back(change());
        times.push_back(now() - begin);
        state.SetIterationTime(times.back() / 1e9);
        undo();
    }
    state.counters["best_ns"] = *std::min_element(times.begin(), times.end());
    state.counters["median_ns"] = median(times);
    state.counters["hold_ns"] = median(holds);
}

void checkCount(bool isThere) {
    if (!isThere) std::abort();
}

// Adds a clip so that `cached` of them are there afterwards.
void addClip(benchmark::State& state, Way way, bool newestLast) {
    const auto cached = static_cast<int>(state.range(0));
    fillClips(cached - 1);
    const Clip clip = clipOf(newestLast ? cached : 0);
    const auto change = [&]() -> double {
        double longest = 0;
        switch (way) {
        case WholeTable:
            checkCount(wholetable::putClip(segments().clips(longest), clip) == cached - 1);
            break;
        case InPlace:
            segments().clips(longest)([&](std::byte* bytes) { checkCount(putClip(bytes, clip) == cached - 1); });
            break;
        case Limit:
            longest = static_cast<double>(plain_add_clip(segments().clipFile(), segments().clipLock(), &clip));
        }
        return longest;
    };
    measure(state, change, [&] {
        double ignored = 0;
        const std::string path = std::string("/mnt/") + clip.name + ".mov";
        segments().clips(ignored)([&path](std::byte* bytes) { takeOutClip(bytes, path); });
    });
}

void removeClip(benchmark::State& state, Way way, bool first) {
    const auto cached = static_cast<int>(state.range(0));
    fillClips(cached);
    const Clip clip = clipOf(first ? 1 : cached);
    const std::string path = std::string("/mnt/S1/NEVO/") + clip.name + ".mov";
    const auto change = [&]() -> double {
        double longest = 0;
        switch (way) {
        case WholeTable:
            checkCount(wholetable::takeOutClip(segments().clips(longest), path));
            break;
        case InPlace:
            segments().clips(longest)([&](std::byte* bytes) { checkCount(takeOutClip(bytes, path)); });
            break;
        case Limit:
            longest = static_cast<double>(plain_remove_clip(segments().clipFile(), segments().clipLock(), path.c_str()));
        }
        return longest;
    };
    measure(state, change, [&] {
        double ignored = 0;
        segments().clips(ignored)([&clip](std::byte* bytes) { putClip(bytes, clip); });
    });
}

void addPlaylist(benchmark::State& state, Way way) {
    const auto cached = static_cast<int>(state.range(0));
    fillPlaylists(cached - 1);
    const PlaylistCacheEntry playlist = playlistOf(cached);
    const auto change = [&]() -> double {
        double longest = 0;
        switch (way) {
        case WholeTable:
            checkCount(wholetable::putPlaylist(segments().playlists(longest), playlist));
            break;
        case InPlace:
            segments().playlists(longest)([&](std::byte* bytes) { checkCount(putPlaylist(bytes, playlist)); });
            break;
        case Limit:
            longest = static_cast<double>(
                plain_add_playlist(segments().playlistFile(), segments().playlistLock(), &playlist));
        }
        return longest;
    };
    measure(state, change, [&] {
        double ignored = 0;
        segments().playlists(ignored)([&playlist](std::byte* bytes) { takeOutPlaylist(bytes, playlist.path); });
    });
}

void registerAll() {
    const struct {
        Way way;
        const char* name;
    } ways[] = {{WholeTable, "whole"}, {InPlace, "place"}, {Limit, "limit"}};
    for (const auto& [way, name] : ways) {
        const std::string suffix = std::string("/") + name;
        const auto add = [&suffix, way = way](const std::string& row, std::int64_t cached, auto function, auto... more) {
            const int iterations = way == WholeTable ? 5 : cached >= 1024 ? 15 : 60;
            benchmark::RegisterBenchmark((row + suffix).c_str(), function, way, more...)
                ->Arg(cached)->Iterations(iterations)->UseManualTime();
        };
        for (const int cached : {1, 256, 1024, 4096}) {
            add("add_newest", cached, addClip, true);
            add("add_earliest", cached, addClip, false);
        }
        add("remove_first", 4096, removeClip, true);
        add("remove_last", 4096, removeClip, false);
        add("add_playlist", 1024, addPlaylist);
    }
}

} // namespace

int main(int count, char** words) {
    ::umask(0);
    benchmark::Initialize(&count, words);
    registerAll();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
