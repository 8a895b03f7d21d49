// The hot-plug listener against a socket made of memory.

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "daemonizer.h"
#include "slots/slot_listener.h"
#include "tests/fakes/fakes.h"

namespace {

using fakes::Lines;
using fakes::uevent;

const char kBoard[] = R"lua(
board_id = 0x0a3c
mediaCapabilities = {}
specification = { slots = { { name = "S2", address = "/ata2/" }, { name = "S1", address = "/ata1/" } } }
)lua";

const char kPath1[] = "PHYSDEVPATH=/devices/1f000000.pcie/pci0000:00/0000:00:00.0/ata1/host0/target0:0:0/0:0:0:0";
const char kPath2[] = "PHYSDEVPATH=/devices/1f000000.pcie/pci0000:00/0000:00:00.0/ata2/host1/target1:0:0/1:0:0:0";

class HotPlugTest : public testing::Test {
protected:
    HotPlugTest() { parse(kBoard); }
    void SetUp() override { Daemonizer::name = "Media Manager"; }
    void TearDown() override { Daemonizer::name = ""; }

    void parse(const std::string& text) {
        listener = std::make_unique<SlotListener>(&world.config, &world.card, world.os);
        ASSERT_EQ(0, listener->parseSpecification("0x00000a3c", text, &world.shell));
    }

    // The counter that parseKeventBuffer returns; the bytes lie in a buffer of exactly their number.
    int handleBytes(const std::string& datagram) {
        std::vector<char> buffer(datagram.begin(), datagram.end());
        return listener->parseKeventBuffer(action, devname, path, buffer.data(), static_cast<int>(buffer.size()));
    }
    int handle(const Lines& lines) { return handleBytes(uevent(lines)); }

    // Steps until nothing is waiting any more, which a wait for nothing says.
    void hearAll() {
        while (listener->listenStep()) {
        }
    }

    SlotAnnouncement slot1() { return listener->getSlot(eStorageSlotS1).readAnnouncement(); }
    SlotAnnouncement slot2() { return listener->getSlot(eStorageSlotS2).readAnnouncement(); }

    const SlotAnnouncement kNothing{};
    fakes::World world;
    std::unique_ptr<SlotListener> listener;
    char action[SlotListener::kLineSize] = {};
    char devname[SlotListener::kLineSize] = {};
    char path[SlotListener::kLineSize] = {};
};

// --- one datagram ---

TEST_F(HotPlugTest, AnAddedDiskIsAnnouncedToItsSlot) {
    EXPECT_EQ(3, handle({"add@/devices/x", "ACTION=add", "DEVNAME=sdb", kPath1, "SEQNUM=7"}));
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
    EXPECT_EQ(kNothing, slot2());
    EXPECT_STREQ("ACTION=add", action) << "whole lines are kept";
    EXPECT_STREQ("DEVNAME=sdb", devname);
    EXPECT_STREQ(kPath1, path);
}

TEST_F(HotPlugTest, TheLinesMayComeInAnyOrder) {
    EXPECT_EQ(3, handle({kPath2, "DEVNAME=sdc", "ACTION=add"}));
    EXPECT_EQ((SlotAnnouncement{true, true, "sdc"}), slot2());
}

TEST_F(HotPlugTest, APartitionDoesNotChangeTheSlotAndItsDiskDoes) {
    EXPECT_EQ(0, handle({"ACTION=add", "DEVNAME=sdb1", kPath1}));
    EXPECT_EQ(kNothing, slot1());
    EXPECT_EQ(3, handle({"ACTION=add", "DEVNAME=sdb", kPath1}));
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
}

TEST_F(HotPlugTest, EveryDigitMakesAPartition) {
    for (char digit = '0'; digit <= '9'; ++digit)
        EXPECT_EQ(0, handle({"ACTION=add", std::string("DEVNAME=sdb") + digit, kPath1})) << digit;
    EXPECT_EQ(kNothing, slot1());
}

TEST_F(HotPlugTest, APartitionAfterItsDiskDoesNotActOnTheKeptLines) {
    handle({"ACTION=add", "DEVNAME=sdb", kPath1});
    listener->getSlot(eStorageSlotS1).takeAnnouncement();
    EXPECT_EQ(0, handle({"ACTION=remove", "DEVNAME=sdb1", kPath1}));
    EXPECT_EQ((SlotAnnouncement{true, false, "sdb"}), slot1());
    EXPECT_STREQ("ACTION=remove", action);
    EXPECT_STREQ("DEVNAME=sdb", devname);
}

TEST_F(HotPlugTest, WithoutAPhysicalPathNothingHappensThoughAnOldOneIsKept) {
    handle({"ACTION=add", "DEVNAME=sdb", kPath1});
    EXPECT_EQ(0, handle({"ACTION=remove", "DEVNAME=sdb", "SEQNUM=8"}));
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
    EXPECT_STREQ(kPath1, path);
}

TEST_F(HotPlugTest, WhatACurrentKernelSendsIsNoEvent) {
    EXPECT_EQ(0, handle({"add@/devices/pci0000:00/0000:00:02.0/virtio0/host0/target0:0:0/0:0:0:0/block/sda",
                         "ACTION=add",
                         "DEVPATH=/devices/pci0000:00/0000:00:02.0/virtio0/host0/target0:0:0/0:0:0:0/block/sda",
                         "SUBSYSTEM=block", "MAJOR=8", "MINOR=0", "DEVNAME=sda", "DEVTYPE=disk", "DISKSEQ=9",
                         "SEQNUM=697"}));
    EXPECT_STREQ("DEVNAME=sda", devname);
    EXPECT_EQ(kNothing, slot1());
}

TEST_F(HotPlugTest, ARemovalClearsNameAndRecognitionAndLeavesNewlyInserted) {
    handle({"ACTION=add", "DEVNAME=sdb", kPath1});
    EXPECT_EQ(3, handle({"ACTION=remove", "DEVNAME=sdb", kPath1}));
    EXPECT_EQ((SlotAnnouncement{false, true, ""}), slot1());
    listener->getSlot(eStorageSlotS1).setNewlyInserted(false);
    EXPECT_EQ(3, handle({"ACTION=remove", "DEVNAME=sdb", kPath1}));
    EXPECT_EQ(kNothing, slot1());
}

TEST_F(HotPlugTest, AnyOtherActionChangesNothing) {
    handle({"ACTION=add", "DEVNAME=sdb", kPath1});
    listener->getSlot(eStorageSlotS1).takeAnnouncement();
    for (const char* other : {"ACTION=change", "ACTION=bind", "ACTION=", "ACTION", "MYACTION"}) {
        EXPECT_EQ(3, handle({other, "DEVNAME=sdz", kPath1})) << other;
        EXPECT_EQ((SlotAnnouncement{true, false, "sdb"}), slot1()) << other;
    }
}

TEST_F(HotPlugTest, TheActionIsFoundAnywhereInItsLine) {
    EXPECT_EQ(3, handle({"XACTION=added", "DEVNAME=sdb", kPath1}));
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
}

TEST_F(HotPlugTest, AnEventForNoSlotIsIgnoredInSilence) {
    const fakes::StandardError error;
    EXPECT_EQ(3, handle({"ACTION=add", "DEVNAME=sdb", "PHYSDEVPATH=/devices/usb1/host9"}));
    EXPECT_EQ(kNothing, slot1());
    EXPECT_EQ(kNothing, slot2());
    EXPECT_EQ("", error.text());
}

TEST_F(HotPlugTest, OfTwoSlotsThatMatchTheSmallerNameWins) {
    parse("board_id = 0x0a3c\nmediaCapabilities = {}\n"
          "specification = { slots = { { name = 'S2', address = '/ata' }, { name = 'S1', address = '/ata1/' },\n"
          "{ name = 'X1', address = '/' } } }");
    handle({"ACTION=add", "DEVNAME=sdb", kPath1});
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
    EXPECT_EQ(kNothing, slot2());
    handle({"ACTION=add", "DEVNAME=sdc", kPath2});
    EXPECT_EQ((SlotAnnouncement{true, true, "sdc"}), slot2());
}

TEST_F(HotPlugTest, AnEmptyAddressMatchesEveryPath) {
    parse("board_id = 0x0a3c\nmediaCapabilities = {}\nspecification = { slots = { { name = 'S1' } } }");
    handle({"ACTION=add", "DEVNAME=sdb", "PHYSDEVPATH="});
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
}

TEST_F(HotPlugTest, WhatIsReportedOfAnAnnouncementSteersNoTerminal) {
    const fakes::StandardError error;
    handle({"ACTION=add", "DEVNAME=sdb", "D\x1b[2J\nPHYSDEVPATH=\xc2\x9b/M\xc3\xbchle"});
    EXPECT_EQ("parseKeventBuffer ERROR: strstr() claims PHYSDEVPATH matches D?[2J?PHYSDEVPATH=?/M\xc3\xbchle It should be "
              "impossible to be here!\n",
              error.text());
}

TEST_F(HotPlugTest, APhysicalPathInALineThatBeginsWithDIsReportedAndCountsNothing) {
    const fakes::StandardError error;
    EXPECT_EQ(0, handle({"ACTION=add", "DEVNAME=sdb", "DXPHYSDEVPATH=/devices/ata1/x"}));
    EXPECT_EQ("parseKeventBuffer ERROR: strstr() claims PHYSDEVPATH matches DXPHYSDEVPATH=/devices/ata1/x It should be "
              "impossible to be here!\n",
              error.text());
    EXPECT_EQ(kNothing, slot1());
    EXPECT_STREQ("", path);
}

TEST_F(HotPlugTest, NoReportMovesTheCursorOfATerminal) {
    const fakes::StandardError error;
    handle({"DPHYSDEVPATH=\x1b[2J\x04\x7f"});
    EXPECT_EQ("parseKeventBuffer ERROR: strstr() claims PHYSDEVPATH matches DPHYSDEVPATH=?[2J?? It should be impossible to "
              "be here!\n",
              error.text());
}

TEST_F(HotPlugTest, TheResultIsTheCounterAtTheLastEvent) {
    EXPECT_EQ(0, handle({"ACTION=add", "DEVNAME=sdb"})) << "never completed";
    // One line that is two things: the third capture and a fourth.
    EXPECT_EQ(4, handle({"ACTION=add", "DEVNAME=sdb", "XACTION=add PHYSDEVPATH=/devices/ata1/x"}));
    // What comes behind a complete event counts from the start.
    EXPECT_EQ(3, handle({"ACTION=add", "DEVNAME=sdb", kPath1, "ACTION=add", "DEVNAME=sdb"}));
}

TEST_F(HotPlugTest, TwoEventsInOneDatagramAreTwoEvents) {
    EXPECT_EQ(3, handle({"ACTION=add", "DEVNAME=sdb", kPath1, "ACTION=add", "DEVNAME=sdc", kPath2}));
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
    EXPECT_EQ((SlotAnnouncement{true, true, "sdc"}), slot2());
}

TEST_F(HotPlugTest, ARepeatedLineCountsAgain) {
    // The device's name and the path are of an earlier datagram: three captures are three captures.
    handle({"DEVNAME=sdb", kPath1});
    EXPECT_EQ(3, handle({"ACTION=add", "ACTION=add", "ACTION=add"}));
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
}

TEST_F(HotPlugTest, ADeviceNameWithoutAnEqualsSignChangesNothing) {
    EXPECT_EQ(3, handle({"ACTION=add", "DEVNAME", kPath1}));
    EXPECT_EQ(kNothing, slot1());
}

TEST_F(HotPlugTest, ARemovalCountsWithoutAnEqualsSignToo) {
    handle({"ACTION=add", "DEVNAME=sdb", kPath1});
    EXPECT_EQ(3, handle({"ACTION=remove", "DEVNAME", kPath1}));
    EXPECT_EQ((SlotAnnouncement{false, true, ""}), slot1());
}

TEST_F(HotPlugTest, ADeviceNameThatIsNotLettersDigitsAndDashesChangesNothing) {
    for (const char* name :
         {"", "sd b", "sdb;reboot;x", "$(x)", "../sdb", "mapper/x", "sd_b", "sd\xc3\xa4", "sdb\n", "*"}) {
        EXPECT_EQ(3, handle({"ACTION=add", std::string("DEVNAME=") + name, kPath1})) << name;
        EXPECT_EQ(kNothing, slot1()) << name;
    }
    EXPECT_EQ(3, handle({"ACTION=add", "DEVNAME=dm-0a-Z", kPath1}));
    EXPECT_EQ((SlotAnnouncement{true, true, "dm-0a-Z"}), slot1());
}

TEST_F(HotPlugTest, ARemovalCountsWhateverTheNameIs) {
    handle({"ACTION=add", "DEVNAME=sdb", kPath1});
    EXPECT_EQ(3, handle({"ACTION=remove", "DEVNAME=sd b", kPath1}));
    EXPECT_EQ((SlotAnnouncement{false, true, ""}), slot1());
}

TEST_F(HotPlugTest, TheNameIsWhatFollowsTheFirstEqualsSign) {
    handle({"ACTION=add", "DEVNAME=sdb=c", kPath1});
    EXPECT_EQ(kNothing, slot1()) << "sdb=c is no device name";
}

TEST_F(HotPlugTest, NothingBehindTheLengthIsLookedAt) {
    std::string datagram = uevent({"ACTION=add", "DEVNAME=sdb", kPath1});
    std::vector<char> buffer(datagram.begin(), datagram.end());
    const int withoutPath = static_cast<int>(uevent({"ACTION=add", "DEVNAME=sdb"}).size());
    EXPECT_EQ(0, listener->parseKeventBuffer(action, devname, path, buffer.data(), withoutPath));
    EXPECT_EQ(0, listener->parseKeventBuffer(action, devname, path, buffer.data(), 0));
    EXPECT_EQ(0, listener->parseKeventBuffer(action, devname, path, buffer.data(), -1));
    EXPECT_EQ(kNothing, slot1());
}

TEST_F(HotPlugTest, ALastLineWithoutItsNulEndsWithTheDatagram) {
    std::string datagram = uevent({"ACTION=add", kPath1, "DEVNAME=sdb"});
    datagram.pop_back();
    EXPECT_EQ(3, handleBytes(datagram));
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
}

TEST_F(HotPlugTest, EmptyLinesAreLines) {
    EXPECT_EQ(3, handle({"", "ACTION=add", "", "", "DEVNAME=sdb", kPath1, ""}));
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
}

TEST_F(HotPlugTest, ALineLongerThanItsBufferIsCut) {
    const std::string longPath = "PHYSDEVPATH=/devices/ata1/" + std::string(400, 'x');
    EXPECT_EQ(3, handle({"ACTION=add", "DEVNAME=sdb", longPath}));
    EXPECT_EQ(longPath.substr(0, 255), path);
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
}

// --- the thread ---

TEST_F(HotPlugTest, ListenBindsAllGroupsBeforeItStartsTheThread) {
    EXPECT_EQ(0, listener->listen());
    EXPECT_EQ((Lines{"uevents", "bind 100 0xffffffff", "thread detached, scheduled"}), world.journal.take());
    listener.reset();
    EXPECT_EQ((Lines{"wake 200", "closeDescriptor 200", "closeDescriptor 100"}), world.journal.take());
}

TEST_F(HotPlugTest, AListenerThatNeverListenedTouchesNothing) {
    listener.reset();
    EXPECT_EQ(Lines{}, world.journal.take());
}

TEST_F(HotPlugTest, AThreadThatCannotStartIsReportedAndReturned) {
    world.os.threadError = EAGAIN;
    const fakes::StandardError error;
    EXPECT_EQ(EAGAIN, listener->listen());
    EXPECT_EQ(std::string("Media Managerlisten: ") + std::strerror(EAGAIN) + "\n", error.text());
    listener.reset();
}

TEST_F(HotPlugTest, AWakeThatCannotBeHadIsReportedAndReturned) {
    world.os.wakeError = EMFILE;
    const fakes::StandardError error;
    EXPECT_EQ(EMFILE, listener->listen());
    EXPECT_EQ(std::string("Media Managerlisten: ") + std::strerror(EMFILE) + "\n", error.text());
    EXPECT_EQ(Lines{}, world.journal.matching("thread"));
}

TEST_F(HotPlugTest, OneStepHandlesOneDatagram) {
    ASSERT_EQ(0, listener->listen());
    world.os.sendUevent(uevent({"ACTION=add", "DEVNAME=sdb", kPath1}));
    world.os.sendUevent(uevent({"ACTION=remove", "DEVNAME=sdb", kPath1}));
    EXPECT_TRUE(listener->listenStep());
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
    EXPECT_TRUE(listener->listenStep());
    EXPECT_EQ((SlotAnnouncement{false, true, ""}), slot1());
}

TEST_F(HotPlugTest, LinesAreKeptFromOneDatagramToTheNext) {
    ASSERT_EQ(0, listener->listen());
    world.os.sendUevent(uevent({"DEVNAME=sdb", kPath1}));
    world.os.sendUevent(uevent({"ACTION=add", "ACTION=add", "ACTION=add"}));
    EXPECT_TRUE(listener->listenStep());
    EXPECT_EQ(kNothing, slot1());
    EXPECT_TRUE(listener->listenStep());
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
}

TEST_F(HotPlugTest, ADatagramOfExactlyTheBuffersSizeLosesItsLastByte) {
    ASSERT_EQ(0, listener->listen());
    std::string datagram = uevent({"ACTION=add", kPath1});
    const std::string last = "DEVNAME=sdbc";
    datagram += std::string(SlotListener::kLineSize - datagram.size() - 1 - last.size(), 'x') + '\0' + last;
    ASSERT_EQ(static_cast<std::size_t>(SlotListener::kLineSize), datagram.size());
    world.os.sendUevent(datagram);
    EXPECT_TRUE(listener->listenStep());
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot1());
}

TEST_F(HotPlugTest, ADatagramLongerThanTheBufferIsCut) {
    ASSERT_EQ(0, listener->listen());
    const std::string filler = "FILLER=" + std::string(200, 'x');
    world.os.sendUevent(uevent({"ACTION=add", filler, kPath1, "DEVNAME=sdb"}));
    world.os.sendUevent(uevent({"ACTION=add", "DEVNAME=sdc", "PHYSDEVPATH=/ata2/" + std::string(300, 'x')}));
    EXPECT_TRUE(listener->listenStep());
    EXPECT_EQ(kNothing, slot1());
    EXPECT_TRUE(listener->listenStep());
    EXPECT_EQ((SlotAnnouncement{true, true, "sdc"}), slot2());
}

TEST_F(HotPlugTest, AShorterDatagramDoesNotMeetTheRestOfALongerOne) {
    ASSERT_EQ(0, listener->listen());
    world.os.sendUevent(uevent({"ACTION=add", "DEVNAME=sdb", kPath1}));
    world.os.sendUevent("ACTION=add"); // not even ended by a NUL
    world.os.sendUevent("");
    EXPECT_TRUE(listener->listenStep());
    listener->getSlot(eStorageSlotS1).retract();
    EXPECT_TRUE(listener->listenStep());
    EXPECT_TRUE(listener->listenStep());
    EXPECT_FALSE(slot1().recognized);
}

TEST_F(HotPlugTest, LostDatagramsAskForADriverScanOnce) {
    ASSERT_EQ(0, listener->listen());
    EXPECT_FALSE(listener->takeDriverScanRequest());
    world.os.sendUevent("x");
    hearAll();
    EXPECT_FALSE(listener->takeDriverScanRequest()) << "nothing was lost";
    world.os.dropUevents(3);
    world.os.sendUevent("x");
    world.os.sendUevent("x");
    hearAll();
    EXPECT_TRUE(listener->takeDriverScanRequest());
    EXPECT_FALSE(listener->takeDriverScanRequest());
    world.os.sendUevent("x");
    hearAll();
    EXPECT_FALSE(listener->takeDriverScanRequest()) << "the count has not grown again";
    EXPECT_EQ(Lines{}, world.journal.matching("run")) << "the command is the manager's";
}

TEST_F(HotPlugTest, WhateverTheLengthOfABurstItsLossesAreKnownAtItsEnd) {
    ASSERT_EQ(0, listener->listen());
    for (int count = 1; count <= 200; ++count) {
        for (int i = 0; i < count; ++i) world.os.sendUevent("x");
        for (int i = 1; i < count; ++i) ASSERT_TRUE(listener->listenStep());
        listener->takeDriverScanRequest();
        world.os.dropUevents(1); // the queue was full behind the last one
        hearAll();
        EXPECT_TRUE(listener->takeDriverScanRequest()) << count;
    }
}

TEST_F(HotPlugTest, AStormThatDoesNotEndHidesNoLoss) {
    ASSERT_EQ(0, listener->listen());
    for (int i = 0; i < 1000; ++i) world.os.sendUevent("x");
    EXPECT_TRUE(listener->listenStep());
    world.os.dropUevents(1);
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(listener->listenStep());
    EXPECT_TRUE(listener->takeDriverScanRequest());
}

TEST_F(HotPlugTest, InAStormLossesAreAskedForNowAndThenOnly) {
    ASSERT_EQ(0, listener->listen());
    for (int i = 0; i < 1000; ++i) world.os.sendUevent("x");
    hearAll();
    EXPECT_LE(world.os.dropQuestions, 20);
}

TEST_F(HotPlugTest, AListenerThatGoesDoesNotWaitForTheEndOfAStorm) {
    ASSERT_EQ(0, listener->listen());
    for (int i = 0; i < 1000; ++i) world.os.sendUevent("x");
    EXPECT_TRUE(listener->listenStep());
    world.os.signalWake(fakes::FakeOperatingSystem::kWake);
    hearAll();
    EXPECT_GE(world.os.pendingUevents(), 800U);
}

TEST_F(HotPlugTest, TheThreadAnnouncesUntilTheListenerGoes) {
    world.os.threadMode = fakes::FakeOperatingSystem::Threads::Started;
    ASSERT_EQ(0, listener->listen());
    world.os.sendUevent(uevent({"ACTION=add", "DEVNAME=sdb", kPath1}));
    EXPECT_TRUE(fakes::eventually([&] { return slot1() == SlotAnnouncement{true, true, "sdb"}; }));
    std::thread manager([&] {
        for (int i = 0; i < 2000; ++i) {
            const SlotAnnouncement seen = listener->getSlot(eStorageSlotS1).takeAnnouncement();
            EXPECT_EQ(seen.recognized, !seen.devname.empty());
        }
    });
    for (int i = 0; i < 200; ++i) {
        world.os.sendUevent(uevent({"ACTION=remove", "DEVNAME=sdb", kPath1}));
        world.os.sendUevent(uevent({"ACTION=add", "DEVNAME=sdb", kPath1}));
    }
    manager.join();
    EXPECT_TRUE(fakes::eventually([&] { return world.os.pendingUevents() == 0; }));
    listener.reset();
    EXPECT_EQ("closeDescriptor 100", world.journal.lines().back());
}

// --- failures end the daemon ---

using HotPlugDeathTest = HotPlugTest;

TEST_F(HotPlugDeathTest, NoSocket) {
    world.os.ueventOpenError = EPERM;
    EXPECT_EXIT(listener->listen(), testing::ExitedWithCode(1), "^Not root\n$");
}

TEST_F(HotPlugDeathTest, NoBinding) {
    world.os.ueventBindError = EADDRINUSE;
    EXPECT_EXIT(listener->listen(), testing::ExitedWithCode(1), "^Bind failed\n$");
}

TEST_F(HotPlugDeathTest, PollFails) {
    ASSERT_EQ(0, listener->listen());
    world.os.failPoll(EINTR);
    EXPECT_EXIT(listener->listenStep(), testing::ExitedWithCode(1), "^poll\n$");
    world.os.failPoll(0);
}

TEST_F(HotPlugDeathTest, PollFailsBetweenTwoDatagrams) {
    ASSERT_EQ(0, listener->listen());
    world.os.sendUevent("x");
    world.os.sendUevent("x");
    EXPECT_TRUE(listener->listenStep());
    world.os.ueventLookError = ENOMEM;
    EXPECT_EXIT(listener->listenStep(), testing::ExitedWithCode(1), "^poll\n$");
    world.os.ueventLookError = 0;
}

TEST_F(HotPlugDeathTest, ReceiveFails) {
    ASSERT_EQ(0, listener->listen());
    world.os.sendUevent("x");
    world.os.ueventReceiveError = ENOBUFS;
    EXPECT_EXIT(listener->listenStep(), testing::ExitedWithCode(1), "^recv\n$");
}

} // namespace
