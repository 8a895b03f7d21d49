#include "child_process.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

namespace {

constinit std::mutex lock;
// Never destroyed: a thread that outlives main may still come here.
std::vector<pid_t>& leftBehind() {
    static auto& children = *new std::vector<pid_t>;
    return children;
}

void takeStatuses() {
    const std::lock_guard guard(lock);
    std::erase_if(leftBehind(), [](pid_t child) { return waitpid(child, nullptr, WNOHANG) != 0; });
}

} // namespace

ChildProcess::ChildProcess(pid_t id) : _id(id), _end(static_cast<int>(syscall(SYS_pidfd_open, id, 0))) {
    takeStatuses();
}

ChildProcess::~ChildProcess() {
    if (!hasEnded()) {
        const std::lock_guard guard(lock);
        leftBehind().push_back(_id);
    }
    takeStatuses();
}

bool ChildProcess::hasEnded() {
    if (_ended) return true;
    pid_t ended = 0;
    do {
        ended = waitpid(_id, &_status, WNOHANG);
    } while (ended == -1 && errno == EINTR);
    if (ended == -1) _lost = errno;
    return _ended = ended != 0;
}

bool ChildProcess::endsBefore(Clock::time_point deadline) {
    while (!hasEnded()) {
        if (Clock::now() >= deadline) return false;
        pollfd wait{_end.get(), POLLIN, 0};
        const int left = millisecondsUntil(deadline);
        poll(&wait, 1, _end.isOpen() ? left : std::min(left, kLookMilliseconds));
    }
    return true;
}

int ChildProcess::millisecondsUntil(Clock::time_point deadline) {
    constexpr std::chrono::milliseconds longest = std::chrono::hours(24);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), longest).count());
}
