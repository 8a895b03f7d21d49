#include "pid_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

std::atomic<int> heldDescriptor{-1};
const char* heldPath = nullptr; // written before there are threads

// The previous holder may have removed the file between our open and our lock: then the lock is on a file that nobody
// will ever find again.
bool isStillAt(int descriptor, const char* path) {
    struct stat ours {};
    struct stat there {};
    return fstat(descriptor, &ours) == 0 && lstat(path, &there) == 0 && ours.st_dev == there.st_dev &&
           ours.st_ino == there.st_ino;
}

pid_t readHolder(int descriptor) {
    std::array<char, 16> text{};
    const ssize_t size = pread(descriptor, text.data(), text.size() - 1, 0);
    return size > 0 ? static_cast<pid_t>(std::strtol(text.data(), nullptr, 10)) : 0;
}

bool writeOwnId(int descriptor) {
    const std::string text = std::to_string(getpid()) + "\n";
    return ftruncate(descriptor, 0) == 0 &&
           pwrite(descriptor, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

void closeKeepingErrno(int descriptor) {
    const int error = errno;
    close(descriptor);
    errno = error;
}

} // namespace

PidFile::Result PidFile::take(const char* path, pid_t& holder) {
    for (;;) {
        const int descriptor = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (descriptor == -1) return Result::Failed;
        int locked = 0;
        do {
            locked = flock(descriptor, LOCK_EX | LOCK_NB);
        } while (locked == -1 && errno == EINTR);
        if (locked == -1) {
            const bool taken = errno == EWOULDBLOCK;
            if (taken) holder = readHolder(descriptor);
            closeKeepingErrno(descriptor);
            return taken ? Result::Taken : Result::Failed;
        }
        if (!isStillAt(descriptor, path)) {
            close(descriptor);
            continue;
        }
        if (!writeOwnId(descriptor)) {
            closeKeepingErrno(descriptor);
            return Result::Failed;
        }
        heldPath = path;
        heldDescriptor = descriptor;
        return Result::Held;
    }
}

void PidFile::giveBack() {
    const int descriptor = heldDescriptor.exchange(-1);
    if (descriptor == -1) return;
    // Removed before it is unlocked: afterwards it may be the next daemon's.
    if (isStillAt(descriptor, heldPath)) unlink(heldPath);
    close(descriptor);
}
