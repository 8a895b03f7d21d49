// The hot-plug listener on a real uevent socket, in a network of its own where the test may speak as the kernel does.

#include <gtest/gtest.h>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <memory>
#include <mutex>

#include "slots/slot_listener.h"
#include "tests/fakes/fakes.h"

namespace {

using fakes::eventually;
using fakes::uevent;

const char kBoard[] = R"lua(
board_id = 0x0a3c
mediaCapabilities = {}
specification = { slots = { { name = "S1", address = "/host0/" }, { name = "S2", address = "/host1/" } } }
)lua";

const char kPath[] = "PHYSDEVPATH=/devices/pci0000:00/0000:00:02.0/virtio0/host0/target0:0:0/0:0:0:0";

class Sender {
public:
    Sender() : _socket(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT)) {}
    ~Sender() { close(_socket); }

    void send(const std::string& datagram, std::uint32_t group = 1) {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = group;
        const ssize_t sent = sendto(_socket, datagram.data(), datagram.size(), 0,
                                    reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ASSERT_EQ(static_cast<ssize_t>(datagram.size()), sent) << std::strerror(errno);
    }

private:
    int _socket;
};

// The real system with a receive buffer that holds next to nothing, and a reader that waits until it is let go.
class NarrowSystem : public OperatingSystem {
public:
    int openUevents() override {
        const int socket = OperatingSystem::openUevents();
        const int size = 4096;
        EXPECT_EQ(0, setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size));
        return socket;
    }
    ssize_t receiveUevent(int socket, void* buffer, std::size_t size) override {
        std::unique_lock lock(_lock);
        _changed.wait(lock, [this] { return _open; });
        return OperatingSystem::receiveUevent(socket, buffer, size);
    }
    void letGo() {
        const std::lock_guard lock(_lock);
        _open = true;
        _changed.notify_all();
    }

private:
    std::mutex _lock;
    std::condition_variable _changed;
    bool _open = false;
};

class UeventSocketTest : public testing::Test {
protected:
    void make(OperatingSystem& os = OperatingSystem::host()) {
        listener = std::make_unique<SlotListener>(&world.config, &world.card, os);
        ASSERT_EQ(0, listener->parseSpecification("0x00000a3c", kBoard, &world.shell));
        ASSERT_EQ(0, listener->listen());
    }
    SlotAnnouncement slot(eStorageSlot_t slotID) { return listener->getSlot(slotID).readAnnouncement(); }

    fakes::World world;
    std::unique_ptr<SlotListener> listener;
    Sender sender;
};

TEST_F(UeventSocketTest, WhatIsAnnouncedRightAfterListenIsSeen) {
    make();
    sender.send(uevent({"ACTION=add", "DEVNAME=sda", kPath}));
    EXPECT_TRUE(eventually([&] { return slot(eStorageSlotS1) == SlotAnnouncement{true, true, "sda"}; }));
    sender.send(uevent({"ACTION=remove", "DEVNAME=sda", kPath}));
    EXPECT_TRUE(eventually([&] { return slot(eStorageSlotS1) == SlotAnnouncement{false, true, ""}; }));
    EXPECT_FALSE(listener->takeDriverScanRequest());
}

TEST_F(UeventSocketTest, EveryGroupIsHeard) {
    make();
    for (std::uint32_t group : {1U, 2U, 4U, 0x80000000U}) {
        sender.send(uevent({"ACTION=add", "DEVNAME=sda", kPath}), group);
        EXPECT_TRUE(eventually([&] { return slot(eStorageSlotS1).recognized; })) << group;
        listener->getSlot(eStorageSlotS1).retract();
    }
}

TEST_F(UeventSocketTest, TheKernelsOwnFormatIsPassedOverAndARepeatedOneWithItsPathIsNot) {
    make();
    const char device[] = "/devices/pci0000:00/0000:00:02.0/virtio0/host0/target0:0:0/0:0:0:0/block/sda";
    sender.send(uevent({std::string("add@") + device, "ACTION=add", std::string("DEVPATH=") + device, "SUBSYSTEM=block",
                        "MAJOR=8", "MINOR=0", "DEVNAME=sda", "DEVTYPE=disk", "DISKSEQ=9", "SEQNUM=697"}));
    // A partition's is longer than the buffer.
    sender.send(uevent({std::string("add@") + device + "/sda1", "ACTION=add",
                        std::string("DEVPATH=") + device + "/sda1", "SUBSYSTEM=block", "MAJOR=8", "MINOR=1",
                        "DEVNAME=sda1", "DEVTYPE=partition", "DISKSEQ=9", "PARTN=1", "SEQNUM=698"}));
    sender.send(uevent({"ACTION=add", "DEVNAME=sdq", "PHYSDEVPATH=/devices/host1/x"}), 4);
    EXPECT_TRUE(eventually([&] { return slot(eStorageSlotS2).recognized; }));
    EXPECT_EQ(SlotAnnouncement{}, slot(eStorageSlotS1)) << "it came before the last one";
    sender.send(uevent({"ACTION=add", "DEVNAME=sda", kPath}), 4);
    EXPECT_TRUE(eventually([&] { return slot(eStorageSlotS1) == SlotAnnouncement{true, true, "sda"}; }));
}

TEST_F(UeventSocketTest, ThePortIsTheProcessId) {
    make();
    const int other = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<std::uint32_t>(getpid());
    EXPECT_EQ(-1, bind(other, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    EXPECT_EQ(EADDRINUSE, errno);
    close(other);
}

TEST_F(UeventSocketTest, TheListenerCanGoWhileItsThreadWaits) {
    for (int i = 0; i < 20; ++i) {
        make(); // binds the same port again: the last one has let go of it
        listener.reset();
    }
    make();
    sender.send(uevent({"ACTION=add", "DEVNAME=sda", kPath}));
    EXPECT_TRUE(eventually([&] { return slot(eStorageSlotS1).recognized; }));
    listener.reset();
}

TEST_F(UeventSocketTest, AnOverrunIsSurvivedAndAsksForADriverScan) {
    NarrowSystem os;
    make(os);
    for (int i = 0; i < 300; ++i) sender.send(uevent({"ACTION=add", "DEVNAME=sdq", "PHYSDEVPATH=/devices/host1/x"}));
    EXPECT_FALSE(listener->takeDriverScanRequest());
    os.letGo();
    EXPECT_TRUE(eventually([&] { return listener->takeDriverScanRequest(); }));
    // Whatever was lost: the next announcement arrives. It may be lost itself as long as the old ones are being read.
    EXPECT_TRUE(eventually([&] {
        sender.send(uevent({"ACTION=add", "DEVNAME=sda", kPath}));
        return slot(eStorageSlotS1).recognized;
    }));
    listener.reset();
}

using UeventSocketDeathTest = UeventSocketTest;

TEST_F(UeventSocketDeathTest, AnOccupiedPortEndsTheProcess) {
    // The port is the process id, so the occupant has to be of the process that dies.
    EXPECT_EXIT(
        {
            SlotListener first(&world.config, &world.card);
            first.listen();
            SlotListener second(&world.config, &world.card);
            second.listen();
        },
        testing::ExitedWithCode(1), "^Bind failed\n$");
}

} // namespace
