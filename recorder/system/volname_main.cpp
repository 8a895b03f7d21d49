// volname.hfsplus DEV: prints "DEV: NAME", the name of the HFS+ volume on a partition, in the form that hfs_volume.h
// draws. Status 0. Otherwise status 1 and one line on standard error: "No such device" when there is no such partition
// or no HFS+ volume on it, and only then, for those who format a medium rely on that text; anything else otherwise.

#include "recorder/system/hfs_volume.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

// A disk is announced before its partitions have their nodes.
constexpr auto kAppearance = 1s;
constexpr auto kRetry = 20ms;

constexpr char kNone[] = "No such device";

bool mayStillAppear(int error) {
    return error == ENOENT || error == ENXIO || error == ENODEV || error == ENOMEDIUM;
}

int openWhenThere(const char* device) {
    const auto deadline = std::chrono::steady_clock::now() + kAppearance;
    for (;;) {
        const int descriptor = open(device, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (descriptor >= 0 || !mayStillAppear(errno) || std::chrono::steady_clock::now() >= deadline) {
            return descriptor;
        }
        std::this_thread::sleep_for(kRetry);
    }
}

int fail(const char* device, const char* reason) {
    std::fprintf(stderr, "volname.hfsplus: %s: %s\n", device, reason);
    return 1;
}

} // namespace

int main(int count, char* arguments[]) {
    if (count != 2) {
        std::fprintf(stderr, "usage: volname.hfsplus DEV\n");
        return 2;
    }
    const char* device = arguments[1];
    const int descriptor = openWhenThere(device);
    if (descriptor < 0) {
        return fail(device, mayStillAppear(errno) ? kNone : std::strerror(errno));
    }
    int error = 0;
    bool tooSmall = false;
    const VolumeName volume = readVolumeName([&](std::uint64_t offset, void* bytes, std::size_t size) {
        auto* place = static_cast<char*>(bytes);
        while (size > 0) {
            const ssize_t got = pread(descriptor, place, size, static_cast<off_t>(offset));
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                error = got < 0 ? errno : 0;
                tooSmall = got == 0;
                return false;
            }
            place += got;
            offset += static_cast<std::uint64_t>(got);
            size -= static_cast<std::size_t>(got);
        }
        return true;
    });
    close(descriptor);
    if (volume.state == VolumeState::Named) {
        const std::string text = printedVolumeName(device, volume.name);
        return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0 ? 0 : 1;
    }
    if (error != 0) {
        // Taken out while it was read: the system's own text for that is the one that must not be said for anything
        // else.
        return fail(device, error == ENODEV || error == ENXIO ? kNone : std::strerror(error));
    }
    if (volume.state == VolumeState::NotHfs) {
        return fail(device, kNone);
    }
    return fail(device, tooSmall ? "the volume ends too early" : "the catalog of the volume cannot be read");
}
