#include "recorder/system/held_tool.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kRefused = 8;

bool isBlockDevice(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 && S_ISBLK(status.st_mode);
}

// The descriptor is meant to be inherited: it holds the device for as long as the program has it open.
bool hold(const char* self, const char* device) {
    // Without O_CREAT, O_EXCL on a block device claims it as a mount does; only one can.
    if (open(device, O_RDONLY | O_NONBLOCK | O_EXCL) >= 0) return true;
    const int error = errno;
    if (error == EBUSY)
        std::fprintf(stderr, "%s: %s is in use; it has to be unmounted first\n", self, device);
    else
        std::fprintf(stderr, "%s: %s: %s\n", self, device, std::strerror(error));
    return false;
}

} // namespace

int becomeHolding(const char* self, char* const* arguments) {
    for (char* const* argument = arguments + 1; *argument != nullptr; ++argument)
        if (isBlockDevice(*argument) && !hold(self, *argument)) return kRefused;
    execvp(arguments[0], arguments);
    std::fprintf(stderr, "%s: %s: %s\n", self, arguments[0], std::strerror(errno));
    return kRefused;
}
