// The loop, the parameter store's thread and the kernel's, all at once. What these tests prove they prove together with
// the thread sanitizer.

#include <atomic>
#include <thread>

#include "tests/media_manager/manager_test.h"

namespace {

class ThreadsTest : public ManagerTest {
protected:
    ThreadsTest() {
        os.threadMode = fakes::FakeOperatingSystem::Threads::Started;
        os.recordSleeps = false;
    }

    // The loop on its own thread, as fast as it goes, until stop.
    void run() {
        os.onSleep = [this](long long) {
            ++passes;
            std::this_thread::yield();
        };
        loop = std::thread([this] { manager->run(true); });
    }
    void stop() {
        Daemonizer::killed = 1;
        loop.join();
        expectError("Media Managerstarting MediaManager\n");
    }
    bool passesGoOn(int count) {
        const int before = passes;
        return fakes::eventually([&] { return passes > before + count; });
    }

    std::atomic<int> passes{0};
    std::thread loop;
};

TEST_F(ThreadsTest, acquiresAndReleasesAreCountedWhileTheLoopReads) {
    startWithMedium();
    run();
    for (int i = 0; i < 500; ++i) {
        world.events.raise(kParamMediaCommand, 1);
        world.events.raise(kParamMediaCommand, 1);
        world.events.raise(kParamMediaCommand, 2);
        world.events.raise(kParamMediaCommand, 2);
    }
    EXPECT_TRUE(passesGoOn(3));
    EXPECT_FALSE(manager->storageInUse());
    world.events.raise(kParamMediaCommand, 1);
    EXPECT_TRUE(manager->storageInUse());
    EXPECT_TRUE(fakes::eventually([this] { return !manager->isNewMountRequest(); }));
    stop();
    // Four answers a round, and the last one.
    EXPECT_EQ(world.journal.count(sets(kParamMediaCommand, 0)), 2001U);
}

TEST_F(ThreadsTest, everyChangeMayComeWhileTheLoopRuns) {
    startWithMedium();
    run();
    for (unsigned int i = 0; i < 300; ++i) {
        world.events.raise(kParamRecordSetting1102, i);
        world.events.raise(kParamTransportState, i % 21);
        world.events.raise(kParamClipListMode, 2);
        world.events.raise(kParamPlaylistName, "evening");
        world.events.raise(kParamFirewireMode, 0);
        world.events.raise(kParamFirewireAVCPause, i % 3);
        world.events.raise(kParamSystemCommand, i % 8);
        world.events.raise(kParamRecordSetting1302, "");
        world.events.raise(kParamMediaCommand, 3);
        world.events.raise(kParamSlotRemountCommand, 1);
    }
    world.events.raise(kParamTransportState, 1);
    EXPECT_TRUE(passesGoOn(3));
    stop();
}

TEST_F(ThreadsTest, kernelAnnouncesWhileTheLoopWalks) {
    start();
    media.media["sdc"];
    pinGoesIn(S2);
    run();
    std::thread kernel([this] {
        for (int i = 0; i < 200; ++i) {
            kernelAdds(S2, "sdc");
            kernelRemoves(S2, "sdc");
        }
        kernelAdds(S2, "sdc");
    });
    kernel.join();
    EXPECT_TRUE(fakes::eventually([this] { return config.text(kParamStoragePath) == "/mnt/S2/NEVO"; }) ||
                config.integer(kParamSelectedSlot) == 2);
    stop();
    takeErrors(); // commands on a device without a name fail, and say so
}

TEST_F(ThreadsTest, slotChangesOfTwoClientsEachRunOnce) {
    startWithMedium();
    // The store's events come on its own thread, and late: the loop has gone on meanwhile.
    std::atomic<int> pending{0};
    config.onSet = [&](eParam_t id) {
        if (id == kParamSlotChangeCommand) ++pending;
    };
    run();
    world.events.raise(kParamSlotChangeCommand, 6);
    EXPECT_TRUE(fakes::eventually([&] { return pending == 1; }));
    EXPECT_TRUE(passesGoOn(5));
    EXPECT_EQ(pending, 1);
    world.events.raise(kParamSlotChangeCommand, 0);
    EXPECT_TRUE(passesGoOn(5));
    EXPECT_EQ(pending, 1);
    stop();
}

TEST_F(ThreadsTest, shutdownCommandEndsTheLoopThread) {
    start();
    run();
    world.events.raise(kParamSystemCommand, 8);
    loop.join();
    expectError("Media Managerstarting MediaManager\n");
}

} // namespace
