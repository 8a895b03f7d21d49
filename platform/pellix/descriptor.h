#ifndef MEDIAD_PLATFORM_PELLIX_DESCRIPTOR_H
#define MEDIAD_PLATFORM_PELLIX_DESCRIPTOR_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

// A descriptor, closed with its holder. Those of ours never are standard descriptors, whatever the program was started
// with: a child's standard descriptors are put in place one after the other.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : _descriptor(descriptor) {
        if (_descriptor < 0 || _descriptor > STDERR_FILENO) return;
        const int low = _descriptor;
        _descriptor = fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int error = errno;
        close(low);
        errno = error;
    }
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(_descriptor, other._descriptor);
        return *this;
    }

    int get() const { return _descriptor; }
    bool isOpen() const { return _descriptor >= 0; }
    void reset() {
        if (isOpen()) close(_descriptor);
        _descriptor = -1;
    }

private:
    int _descriptor = -1;
};

#endif
