// A storm of kernel announcements: 100,000 datagrams from another process, as fast as it can send them, to the real
// listener on a real socket. Needs a network of its own (tests/isolated).

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "slots/slot_listener.h"

namespace {

constexpr std::uint32_t kDatagrams = 100'000;
constexpr std::chrono::seconds kDeadline{120};

const char kBoard[] = R"lua(
board_id = 0x0a3c
mediaCapabilities = {}
specification = { slots = { { name = "S1", address = "/host0/" }, { name = "S2", address = "/host1/" } } }
)lua";

using Clock = std::chrono::steady_clock;

class CountingSystem : public OperatingSystem {
public:
    int openUevents() override { return socket = OperatingSystem::openUevents(); }
    ssize_t receiveUevent(int from, void* buffer, std::size_t size) override {
        const ssize_t result = OperatingSystem::receiveUevent(from, buffer, size);
        if (received.fetch_add(1) == 0) first = Clock::now();
        last = Clock::now();
        return result;
    }

    int socket = -1;
    std::atomic<std::uint32_t> received{0};
    std::atomic<Clock::time_point> first{};
    std::atomic<Clock::time_point> last{};
};

// For a slot of the board, some 175 bytes: the kernel's first line and what the daemon looks for.
std::string announcement(const char* action) {
    const std::string path = "/devices/pci0000:00/0000:00:02.0/virtio0/host1/target1:0:0/1:0:0:0";
    std::string datagram;
    for (const std::string& line : {std::string(action) + "@" + path, std::string("ACTION=") + action,
                                    std::string("DEVNAME=sda"), "PHYSDEVPATH=" + path})
        datagram += line + '\0';
    return datagram;
}

[[noreturn]] void send() {
    const int socket = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 4;
    const std::string datagrams[] = {announcement("add"), announcement("remove")};
    for (std::uint32_t i = 0; i < kDatagrams; ++i) {
        const std::string& datagram = datagrams[i % 2];
        // A broadcast that found a full buffer is refused with ENOBUFS to some senders: it counts as sent and lost.
        ::sendto(socket, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    _exit(0);
}

} // namespace

int main() {
    int go[2];
    if (::pipe(go) == -1) return 1;
    // Before there is a thread.
    const pid_t sender = ::fork();
    if (sender == 0) {
        char ignored;
        if (::read(go[0], &ignored, 1) != 1) _exit(1);
        send();
    }
    CountingSystem os;
    SlotListener listener(nullptr, nullptr, os);
    if (listener.parseSpecification("0x00000a3c", kBoard, nullptr) != 0 || listener.listen() != 0) return 1;
    const Clock::time_point begin = Clock::now();
    if (::write(go[1], "", 1) != 1) return 1;
    ::waitpid(sender, nullptr, 0);
    const Clock::time_point sent = Clock::now();
    while (os.received + os.droppedUevents(os.socket) < kDatagrams && Clock::now() < begin + kDeadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto nanoseconds = [](Clock::duration time) {
        return static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
    };
    const std::uint32_t received = os.received;
    std::printf("{\"sent\": %u, \"received\": %u, \"dropped\": %u, \"ns_a_datagram\": %.0f, \"ns_a_send\": %.0f}\n",
                kDatagrams, received, os.droppedUevents(os.socket),
                nanoseconds(os.last.load() - os.first.load()) / received, nanoseconds(sent - begin) / kDatagrams);
    std::fflush(stdout);
    _exit(0);
}
