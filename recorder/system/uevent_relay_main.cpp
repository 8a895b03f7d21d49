// uevent-relay: see uevent_relay.h. Runs in the foreground until it is told to end; needs the capability CAP_NET_ADMIN.
// The file /run/uevent-relay.pid appears when it listens: what is announced from then on is repeated.

#include "recorder/system/uevent_relay.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr char kPidFile[] = "/run/uevent-relay.pid";
constexpr int kReceiveBuffer = 16 * 1024 * 1024;

int fail(const char* what) {
    std::fprintf(stderr, "uevent-relay: %s: %s\n", what, std::strerror(errno));
    return 1;
}

sockaddr_nl address(unsigned int groups) {
    sockaddr_nl result{};
    result.nl_family = AF_NETLINK;
    result.nl_groups = groups;
    return result;
}

bool isOfTheKernel(const msghdr& message, const sockaddr_nl& sender) {
    if (sender.nl_pid != 0) {
        return false;
    }
    // The headers' own walk over the control data compares signed with unsigned; one message holds one item at most.
    const cmsghdr* item = CMSG_FIRSTHDR(&message);
    if (item == nullptr || item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_CREDENTIALS) {
        return false;
    }
    ucred credentials{};
    std::memcpy(&credentials, CMSG_DATA(item), sizeof credentials);
    return credentials.uid == 0;
}

// Makes the kernel announce every disk once more: what got lost or came before we listened is made good by it, and
// whoever knows a disk already loses nothing by hearing of it again.
void announceAgain() {
    std::error_code ignored;
    for (const auto& disk : std::filesystem::directory_iterator("/sys/block", ignored)) {
        std::ofstream(disk.path() / "uevent") << "add";
    }
}

} // namespace

int main() {
    const int socketNumber = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (socketNumber < 0) {
        return fail("cannot listen for the kernel's announcements");
    }
    const int on = 1;
    setsockopt(socketNumber, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer);
    if (setsockopt(socketNumber, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
        return fail("cannot tell who announces");
    }
    const sockaddr_nl kernel = address(kKernelGroups);
    if (bind(socketNumber, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) != 0) {
        return fail("cannot listen for the kernel's announcements");
    }
    std::ofstream(kPidFile) << getpid() << '\n';
    announceAgain();

    for (;;) {
        std::array<char, 8192> buffer;
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control;
        sockaddr_nl sender{};
        iovec part{buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_name = &sender;
        message.msg_namelen = sizeof sender;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t received = recvmsg(socketNumber, &message, 0);
        if (received < 0) {
            if (errno == ENOBUFS) {
                std::fprintf(stderr, "uevent-relay: announcements were lost, every disk is announced again\n");
                announceAgain();
            } else if (errno != EINTR) {
                return fail("cannot receive the kernel's announcements");
            }
            continue;
        }
        if (!isOfTheKernel(message, sender)) {
            continue;
        }
        const sockaddr_nl listeners = address(kRelayGroups);
        for (const std::string& datagram :
             relayedDatagrams(std::string_view(buffer.data(), static_cast<std::size_t>(received)))) {
            // That nobody listens is no failure, and a listener that cannot keep up notices by itself.
            if (sendto(socketNumber, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&listeners),
                       sizeof listeners) < 0 &&
                errno != ESRCH && errno != ECONNREFUSED && errno != ENOBUFS) {
                return fail("cannot repeat an announcement");
            }
        }
    }
}
