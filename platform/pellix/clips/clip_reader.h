#ifndef MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_READER_H
#define MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_READER_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "clip_file.h"
#include "clip_worker.h"
#include "quicktime_header.h"

// Reads the headers of clip files, one after the other, in a process without rights: whatever a file does to the
// reader of QuickTime files, it does not do it to the daemon. While the worker reads, the caller opens the next files.
//
// A worker that ends, takes too long or answers what no honest worker does is replaced, and the clips that it had are
// tried once more, one by one. The clip that takes too long alone, or costs two workers that had it alone, is NotUsable,
// and one line on standard error says so; a worker that ends while it has no clip costs none of them. A reader belongs
// to one thread; readers do not disturb one another.
class ClipReader {
public:
    enum class Outcome {
        Usable,
        NotUsable,
        NotRead, // there is no worker that takes it, after one line on standard error; the clip has nothing to do with it
    };
    // The header is filled in for a usable clip only.
    using Done = std::function<void(Outcome outcome, const ClipFile& file, const QuickTimeHeader& header)>;

    // Starts nothing yet.
    ClipReader() = default;
    ~ClipReader();
    ClipReader(const ClipReader&) = delete;
    ClipReader& operator=(const ClipReader&) = delete;

    // Takes over an open file. `done` is called with what its header says, now, during a later call or in finish(), in
    // the order of the calls. `path` is for messages.
    void read(std::unique_ptr<ClipFile> file, const std::string& path, Done done);
    // Returns when `done` was called for every file.
    void finish();

    // How long a worker may take for what it is sent at once. Tests change it, before there are threads.
    static std::chrono::milliseconds& patience();

private:
    struct Clip {
        std::unique_ptr<ClipFile> file;
        std::string path;
        Done done;
        std::uint32_t serial;
        bool again; // a worker was lost that had it alone
    };

    void sendMore();
    void readNothing(int error);
    void takeAnswers();
    void loseWorker(bool late);
    void settle(Outcome outcome, const QuickTimeHeader& header);

    std::deque<Clip> _clips;          // not answered yet
    std::deque<std::size_t> _batches; // with the worker: so many of them, from the first on
    std::size_t _sent = 0;            // all batches together
    std::size_t _alone = 0;           // the first so many go one by one
    std::unique_ptr<ClipWorker> _worker;
    bool _isWithoutWorker = false;
    ChildProcess::Clock::time_point _since; // when the worker began with the first batch
};

#endif
