#include "clip_worker.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/pellix/clip_probe/confinement.h"
#include "platform/pellix/spawn_settings.h"

namespace {

// How long a worker that was killed may take to be gone. It has nothing to finish; only a read that hangs in the kernel,
// on a medium that does not answer, takes longer.
constexpr std::chrono::seconds kEndTime(2);

struct Kept {
    std::mutex lock;
    unsigned int keepers = 0;
    std::unique_ptr<ClipWorker> worker;
};
// Never destroyed: a thread that outlives main may still come here.
Kept& kept() {
    static auto& theOne = *new Kept;
    return theOne;
}

// Of the library or the program that this function is part of.
std::string ownFolder() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(&ownFolder), &info) == 0 || info.dli_fname == nullptr) return ".";
    const std::string file = info.dli_fname;
    const std::size_t end = file.rfind('/');
    return end == std::string::npos ? "." : file.substr(0, end);
}

} // namespace

std::string& ClipWorker::program() {
    static auto& path = *new std::string(ownFolder() + "/mediad/clip-probe");
    return path;
}

std::unique_ptr<ClipWorker> ClipWorker::start(int& error) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == -1) {
        error = errno;
        return nullptr;
    }
    Descriptor ours(ends[0]);
    const Descriptor theirs(ends[1]);

    SpawnSettings settings;
    posix_spawn_file_actions_t* const actions = &settings.actions;
    settings.need(posix_spawn_file_actions_adddup2(actions, theirs.get(), STDIN_FILENO));
    settings.need(posix_spawn_file_actions_addopen(actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0));
    // Nothing that a clip makes it say is for our log; what a sanitizer finds is.
    if (!kInstrumented) settings.need(posix_spawn_file_actions_addopen(actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0));
    settings.need(posix_spawn_file_actions_addclosefrom_np(actions, STDERR_FILENO + 1));
    settings.need(posix_spawn_file_actions_addchdir_np(actions, "/"));
    error = settings.error();
    if (error != 0) return nullptr;
    char name[] = "clip-probe";
    char* const arguments[] = {name, nullptr};
    char* const environment[] = {nullptr};
    pid_t process = -1;
    error = posix_spawn(&process, program().c_str(), actions, &settings.attributes, arguments, environment);
    if (error != 0) return nullptr;
    return std::unique_ptr<ClipWorker>(new ClipWorker(process, std::move(ours)));
}

ClipWorker::~ClipWorker() {
    if (!_child.hasEnded()) {
        ::kill(_child.id(), SIGKILL);
        _child.endsBefore(ChildProcess::Clock::now() + kEndTime);
    }
}

bool ClipWorker::send(std::span<const ProbeRequest> requests, std::span<const int> descriptors) {
    alignas(cmsghdr) char control[CMSG_SPACE(kProbeBatch * sizeof(int))] = {};
    iovec part{const_cast<ProbeRequest*>(requests.data()), requests.size_bytes()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(descriptors.size_bytes());
    std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size_bytes());
    ssize_t sent;
    do {
        // It never waits: two batches always fit.
        sent = sendmsg(_socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent == -1 && errno == EINTR);
    return sent != -1;
}

ClipWorker::Received ClipWorker::receive(std::span<ProbeAnswer> answers, ChildProcess::Clock::time_point deadline) {
    for (;;) {
        // Descriptors that come along are not taken.
        const ssize_t size = recv(_socket.get(), answers.data(), answers.size_bytes(), MSG_DONTWAIT | MSG_TRUNC);
        if (size != -1)
            return size == static_cast<ssize_t>(answers.size_bytes()) ? Received::Answers : Received::Lost;
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return Received::Lost;
        if (ChildProcess::Clock::now() >= deadline) return Received::Late;
        pollfd wait{_socket.get(), POLLIN, 0};
        poll(&wait, 1, ChildProcess::millisecondsUntil(deadline));
    }
}

void ClipWorker::keep() {
    const std::lock_guard guard(kept().lock);
    ++kept().keepers;
}

void ClipWorker::keepNoLonger() {
    std::unique_ptr<ClipWorker> over; // ended without the lock
    const std::lock_guard guard(kept().lock);
    if (--kept().keepers == 0) over = std::move(kept().worker);
}

std::unique_ptr<ClipWorker> ClipWorker::takeKept() {
    const std::lock_guard guard(kept().lock);
    return std::move(kept().worker);
}

void ClipWorker::giveBack(std::unique_ptr<ClipWorker> worker) {
    const std::lock_guard guard(kept().lock);
    if (kept().keepers > 0 && kept().worker == nullptr) kept().worker = std::move(worker);
}
