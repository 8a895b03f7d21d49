#ifndef MEDIAD_PLATFORM_LOCAL_SOCKET_H
#define MEDIAD_PLATFORM_LOCAL_SOCKET_H

// Packets over the store's local socket. Nothing here waits unless its name says so, and nothing raises SIGPIPE.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/parameter_store/wire.h"

namespace local_socket {

// Owns one file descriptor.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : _number(number) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : _number(other._number) { other._number = -1; }
    Descriptor& operator=(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int number() const { return _number; }
    bool isOpen() const { return _number != -1; }
    void close();

private:
    int _number;
};

using Deadline = std::chrono::steady_clock::time_point;

enum class Io { Done, Again, Interrupted, Closed };

// Milliseconds until `deadline`, rounded up, for poll.
int untilDeadline(Deadline deadline);

// A socket that listens at `path`, mode 0666, in the place of whatever stood there. `fresh` is where it is made before
// it gets its name, so that nobody ever meets a socket that does not listen yet. Not open and errno set on failure.
Descriptor listenAt(const char* path, const char* fresh);

// A connection to the host, waiting until `deadline` when its queue of newcomers is full. Not open when nobody serves.
Descriptor connectBy(const char* path, Deadline deadline);

// Sends or receives one packet. `buffer` holds kLargestPacket + 1 bytes, so that a packet beyond the limit shows;
// Closed stands for every end of a connection.
Io send(int socket, const wire::Packet& packet);
Io receive(int socket, std::uint8_t* buffer, std::size_t& size);

// Polls for readiness to receive (or send). Done, Again at the deadline, or Interrupted by a signal.
Io waitToReceive(int socket, Deadline deadline);
Io waitToSend(int socket, Deadline deadline);

inline constexpr std::size_t kBufferSize = wire::kLargestPacket + 1;

} // namespace local_socket

// One line to standard error, at once and whole.
void sayLine(const std::string& line);

#endif
