#include "read_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

bool read_file(const std::string& path, std::string& text) {
    text.clear();
    // Without O_NONBLOCK a FIFO that somebody put on a medium would hold us for ever.
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor == -1) return false;
    struct stat status;
    if (::fstat(descriptor, &status) == -1) {
        ::close(descriptor);
        std::fputs("::read_file - fstat failed\n", stderr);
        return false;
    }
    // On a 32-bit board a file may be larger than any buffer; its size must not wrap.
    const auto fileSize = static_cast<std::uint64_t>(status.st_size);
    const bool fits = fileSize < SIZE_MAX;
    const auto size = static_cast<std::size_t>(fits ? fileSize : 0);
    const std::unique_ptr<char, decltype(&std::free)> buffer(
        fits ? static_cast<char*>(std::calloc(size + 1, 1)) : nullptr, &std::free);
    if (!buffer) {
        ::close(descriptor);
        std::fputs("::read_file - malloc failed\n", stderr);
        return false;
    }
    // One read on purpose: a file that comes in pieces is a file that somebody is still writing.
    const ssize_t count = ::read(descriptor, buffer.get(), size);
    ::close(descriptor);
    if (count < 0 || static_cast<std::size_t>(count) < size) {
        std::fputs("::read_file - read failed to read enough data\n", stderr);
        return false;
    }
    text = buffer.get();
    return true;
}
