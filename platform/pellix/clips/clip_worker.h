#ifndef MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_WORKER_H
#define MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_WORKER_H

#include <sys/types.h>

#include <memory>
#include <span>
#include <string>

#include "platform/pellix/child_process.h"
#include "platform/pellix/descriptor.h"
#include "probe_record.h"

// A process that runs clip-probe. One thread at a time; the kernel ends the process with the thread that started it.
class ClipWorker {
public:
    // Nothing, and the reason in `error`, when none can be started.
    static std::unique_ptr<ClipWorker> start(int& error);
    // Ends the process, and waits for that: from then on it keeps nothing open on a medium. Not for ever, though: one
    // that hangs in the kernel is left behind.
    ~ClipWorker();
    ClipWorker(const ClipWorker&) = delete;
    ClipWorker& operator=(const ClipWorker&) = delete;

    // At most kProbeBatch requests with their open files. False, with errno, when the worker takes no more.
    bool send(std::span<const ProbeRequest> requests, std::span<const int> descriptors);

    enum class Received { Answers, Late, Lost };
    // Waits for the answers to what was sent first of all that is unanswered. Lost: the worker has ended, or has said
    // something that is not so many answers.
    Received receive(std::span<ProbeAnswer> answers, ChildProcess::Clock::time_point deadline);

    // The program: in the folder "mediad" beside the library that this is part of. Tests put another in its place,
    // before there are threads.
    static std::string& program();

    // While somebody keeps workers, one that is given back serves the next who takes one; otherwise it is ended. Any
    // thread.
    static void keep();
    static void keepNoLonger();
    static std::unique_ptr<ClipWorker> takeKept(); // or nothing
    static void giveBack(std::unique_ptr<ClipWorker> worker);

private:
    ClipWorker(pid_t process, Descriptor socket) : _child(process), _socket(std::move(socket)) {}

    ChildProcess _child;
    Descriptor _socket;
};

#endif
