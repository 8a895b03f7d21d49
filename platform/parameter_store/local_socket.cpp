#include "platform/parameter_store/local_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

namespace local_socket {

Descriptor::~Descriptor() { close(); }

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    std::swap(_number, other._number);
    return *this;
}

void Descriptor::close() {
    if (_number != -1) ::close(_number);
    _number = -1;
}

namespace {

constexpr int kNewcomers = 128; // connections that wait to be accepted

sockaddr_un addressOf(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

Descriptor newSocket() { return Descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)); }

Io waitFor(int socket, short events, Deadline deadline) {
    pollfd descriptor{socket, events, 0};
    const int ready = ::poll(&descriptor, 1, untilDeadline(deadline));
    if (ready == -1) return errno == EINTR ? Io::Interrupted : Io::Closed;
    return ready == 0 ? Io::Again : Io::Done;
}

} // namespace

int untilDeadline(Deadline deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    // Capped: a wait in pieces is no trouble to any caller, an int that overflows is.
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1'000'000));
}

Descriptor listenAt(const char* path, const char* fresh) {
    Descriptor socket = newSocket();
    if (!socket.isOpen()) return socket;
    const sockaddr_un address = addressOf(fresh);
    ::unlink(fresh);
    if (::bind(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        ::chmod(fresh, 0666) == -1 || ::listen(socket.number(), kNewcomers) == -1 || ::rename(fresh, path) == -1) {
        const int error = errno;
        socket.close();
        ::unlink(fresh);
        errno = error;
    }
    return socket;
}

Descriptor connectBy(const char* path, Deadline deadline) {
    Descriptor socket = newSocket();
    if (!socket.isOpen()) return socket;
    const sockaddr_un address = addressOf(path);
    while (::connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN || std::chrono::steady_clock::now() >= deadline) {
            socket.close();
            break;
        }
        // There is nothing to poll for room among the newcomers with.
        const timespec pause{0, 5'000'000};
        ::nanosleep(&pause, nullptr);
    }
    return socket;
}

Io send(int socket, const wire::Packet& packet) {
    if (::send(socket, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) != -1) return Io::Done;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == ENOMEM) return Io::Again;
    return errno == EINTR ? Io::Interrupted : Io::Closed;
}

Io receive(int socket, std::uint8_t* buffer, std::size_t& size) {
    const ssize_t received = ::recv(socket, buffer, kBufferSize, MSG_DONTWAIT);
    // A packet of no bytes looks like the end of the connection, and nobody who keeps to the table sends one.
    if (received == 0) return Io::Closed;
    if (received == -1) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) return Io::Again;
        return errno == EINTR ? Io::Interrupted : Io::Closed;
    }
    size = static_cast<std::size_t>(received);
    return Io::Done;
}

Io waitToReceive(int socket, Deadline deadline) { return waitFor(socket, POLLIN, deadline); }

Io waitToSend(int socket, Deadline deadline) { return waitFor(socket, POLLOUT, deadline); }

} // namespace local_socket

void sayLine(const std::string& line) {
    const std::string whole = line + "\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, whole.data(), whole.size());
}
