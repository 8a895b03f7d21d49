#include "clip_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

ClipFile::ClipFile(const std::string& path) {
    struct stat status;
    // Asked before the open as well: merely opening a device node can set something going.
    if (::lstat(path.c_str(), &status) == -1 || !S_ISREG(status.st_mode)) return;
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor == -1) return;
    if (::fstat(descriptor, &status) == -1 || !S_ISREG(status.st_mode)) {
        ::close(descriptor);
        return;
    }
    _descriptor = descriptor;
    _size = status.st_size;
    _modified = status.st_mtime;
}

ClipFile::~ClipFile() {
    if (_descriptor != -1) ::close(_descriptor);
}

bool ClipFile::isBeingWritten() const {
    // A read lease is refused while anybody has the file open for writing. A writer who comes while we hold it is let
    // in as soon as we give it back, and the kernel tells us with a signal: the default one would end the process.
    ::fcntl(_descriptor, F_SETSIG, SIGURG);
    if (::fcntl(_descriptor, F_SETLEASE, F_RDLCK) == 0) {
        ::fcntl(_descriptor, F_SETLEASE, F_UNLCK);
        return false;
    }
    // Anything but EAGAIN: another user's file, or a file system without leases. A clip too early in the list does
    // less harm than a medium without clips.
    return errno == EAGAIN;
}
