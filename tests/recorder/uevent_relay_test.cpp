#include "recorder/system/uevent_relay.h"

#include <gtest/gtest.h>

namespace {

using namespace std::literals;

// An announcement as the kernel sends it: a line "ACTION@DEVPATH", then "KEY=value" lines.
std::string announcement(const std::string& action, const std::string& path, const std::string& name, const std::string& type,
                         const std::string& subsystem = "block") {
    std::string text = action + "@" + path + '\0';
    for (const std::string& line : {"ACTION=" + action, "DEVPATH=" + path, "SUBSYSTEM=" + subsystem, "MAJOR=8"s, "MINOR=0"s,
                                    "DEVNAME=" + name, "DEVTYPE=" + type, "DISKSEQ=9"s, "SEQNUM=697"s}) {
        text += line + '\0';
    }
    return text;
}

const std::string kDisk = "/devices/pci0000:00/0000:00:10.0/virtio0/host0/target0:0:0/0:0:0:0/block/sda";

TEST(UeventRelay, RepeatsADiskWithThePathOfItsPhysicalParent) {
    const auto datagrams = relayedDatagrams(announcement("add", kDisk, "sda", "disk"));
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(datagrams[0], "ACTION=add\0DEVNAME=sda\0"
                            "PHYSDEVPATH=/devices/pci0000:00/0000:00:10.0/virtio0/host0/target0:0:0/0:0:0:0\0"s);
}

TEST(UeventRelay, RepeatsEveryAction) {
    const auto datagrams = relayedDatagrams(announcement("remove", kDisk, "sda", "disk"));
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(datagrams[0].substr(0, 14), "ACTION=remove\0"s);
}

TEST(UeventRelay, GivesAPartitionThePathOfItsDisk) {
    const auto datagrams = relayedDatagrams(announcement("add", kDisk + "/sda2", "sda2", "partition"));
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(datagrams[0], "ACTION=add\0DEVNAME=sda2\0"
                            "PHYSDEVPATH=/devices/pci0000:00/0000:00:10.0/virtio0/host0/target0:0:0/0:0:0:0\0"s);
}

TEST(UeventRelay, KnowsDisksWithoutABlockFolder) {
    const auto datagrams =
        relayedDatagrams(announcement("add", "/devices/pci0000:00/0000:00:04.0/nvme/nvme0/nvme0n1", "nvme0n1", "disk"));
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(datagrams[0], "ACTION=add\0DEVNAME=nvme0n1\0PHYSDEVPATH=/devices/pci0000:00/0000:00:04.0/nvme/nvme0\0"s);
}

TEST(UeventRelay, LeavesOutWhatIsNoRealBlockDevice) {
    EXPECT_TRUE(relayedDatagrams(announcement("add", "/devices/virtual/block/loop0", "loop0", "disk")).empty());
    EXPECT_TRUE(relayedDatagrams(announcement("add", "/devices/pci0000:00/0000:00:10.0", "sda", "disk", "pci")).empty());
    EXPECT_TRUE(relayedDatagrams(announcement("add", kDisk, "sda", "disk", "blocks")).empty());
    EXPECT_TRUE(relayedDatagrams("").empty());
    EXPECT_TRUE(relayedDatagrams("ACTION=add\0DEVNAME=sda\0SUBSYSTEM=block\0"sv).empty());
    EXPECT_TRUE(relayedDatagrams("ACTION=add\0DEVPATH=/devices/a/block/sda\0SUBSYSTEM=block\0"sv).empty());
    EXPECT_TRUE(relayedDatagrams("DEVPATH=/devices/a/block/sda\0DEVNAME=sda\0SUBSYSTEM=block\0"sv).empty());
    // What was relayed once has no DEVPATH.
    EXPECT_TRUE(relayedDatagrams(relayedDatagrams(announcement("add", kDisk, "sda", "disk"))[0]).empty());
}

TEST(UeventRelay, ReadsALastLineThatIsNotEnded) {
    const auto datagrams = relayedDatagrams("SUBSYSTEM=block\0ACTION=add\0DEVNAME=sdb\0DEVPATH=/devices/x/1/block/sdb"sv);
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(datagrams[0], "ACTION=add\0DEVNAME=sdb\0PHYSDEVPATH=/devices/x/1\0"s);
}

// Wherever in a path an address of up to kPathOverlap characters stands, one of the datagrams holds it whole, and each
// is a whole announcement within the listener's buffer.
TEST(UeventRelay, TellsALongPathInPiecesThatHoldEveryAddress) {
    for (const std::size_t length : {150u, 214u, 215u, 216u, 217u, 300u, 333u, 1000u}) {
        std::string parent = "/devices";
        for (unsigned int i = 0; parent.size() < length; ++i) {
            parent += "/0000:" + std::to_string(i) + ":00.0";
        }
        parent.resize(length, 'x');
        const auto datagrams = relayedDatagrams(announcement("remove", parent + "/block/sdaa", "sdaa", "disk"));
        ASSERT_FALSE(datagrams.empty());
        const std::string head = "ACTION=remove\0DEVNAME=sdaa\0PHYSDEVPATH="s;
        for (const std::string& datagram : datagrams) {
            EXPECT_LE(datagram.size(), 255u);
            EXPECT_EQ(datagram.substr(0, head.size()), head);
            EXPECT_EQ(datagram.find('\0', head.size()), datagram.size() - 1);
        }
        EXPECT_EQ(datagrams.size() == 1, head.size() + length + 1 <= 255) << length;
        for (std::size_t start = 0; start + kPathOverlap <= length; ++start) {
            const std::string address = parent.substr(start, kPathOverlap);
            EXPECT_TRUE(std::any_of(datagrams.begin(), datagrams.end(), [&](const std::string& datagram) {
                return datagram.find(address) != std::string::npos;
            })) << length << " at " << start;
        }
    }
}

} // namespace
