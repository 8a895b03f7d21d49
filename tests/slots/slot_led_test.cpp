// Status LEDs: on a card register, flashed by a thread, and in a parameter.

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "slots/slot_led_param.h"
#include "slots/slot_led_register.h"
#include "tests/fakes/fakes.h"

namespace {

using fakes::Lines;

constexpr long kQuarterSecond = 250'000'000; // nanoseconds

class SlotLEDTest : public testing::Test {
protected:
    void SetUp() override { SlotLEDRegister::resetFlashers(); }
    void TearDown() override { SlotLEDRegister::resetFlashers(); }

    // The LED on bit 2 of register 62.
    std::unique_ptr<SlotLEDRegister> makeLED(unsigned int bit = 2) {
        return std::make_unique<SlotLEDRegister>(62, bit, &world.card, world.os);
    }

    fakes::World world;
};

const char kOn[] = "write 62 value=1 mask=0x4 shift=2";
const char kOff[] = "write 62 value=0 mask=0x4 shift=2";
const char kThread[] = "thread detached";
const char kSleep[] = "sleep 250000000";

TEST(LEDStatus, Numbers) {
    EXPECT_EQ(0, eStorageLEDOff);
    EXPECT_EQ(1, eStorageLEDOn);
    EXPECT_EQ(2, eStorageLEDFlash);
    static_assert(sizeof(eStorageLEDStatus_t) == 4);
}

// Without the fixture: what a process that has just begun finds.
TEST(SlotLEDAtStart, TheVeryFirstFlashLights) {
    fakes::World world;
    SlotLEDRegister led(62, 2, &world.card, world.os);
    led.lightFlash();
    led.flasherStep();
    EXPECT_EQ((Lines{kThread, kSleep, kOn}), world.journal.take());
    SlotLEDRegister::resetFlashers();
}

// --- parameter LEDs ---

TEST_F(SlotLEDTest, ParameterLEDCarriesItsStatus) {
    SlotLEDParam led(0x7e010000, &world.config);
    led.lightOn();
    EXPECT_EQ(eStorageLEDOn, led.getStatus());
    led.lightFlash();
    EXPECT_EQ(eStorageLEDFlash, led.getStatus());
    led.lightOff();
    EXPECT_EQ(eStorageLEDOff, led.getStatus());
    EXPECT_EQ((Lines{"set 0x7e010000 1", "set 0x7e010000 2", "set 0x7e010000 0"}), world.journal.take());
}

TEST_F(SlotLEDTest, ParameterLEDIgnoresARepeatedCommand) {
    SlotLEDParam led(0x7e010000, &world.config);
    led.lightOff();
    led.lightOff();
    led.lightOn();
    led.lightOn();
    led.lightFlash();
    led.lightFlash();
    EXPECT_EQ((Lines{"set 0x7e010000 0", "set 0x7e010000 1", "set 0x7e010000 2"}), world.journal.take());
}

TEST_F(SlotLEDTest, ParameterLEDIgnoresTheStoresAnswer) {
    world.config.setStatus = kConfigRefused;
    SlotLEDParam led(0x7e010000, &world.config);
    led.lightOn();
    EXPECT_EQ(eStorageLEDOn, led.getStatus());
}

// --- register LEDs ---

TEST_F(SlotLEDTest, TheFirstCommandAlwaysTakesEffect) {
    makeLED()->lightOff();
    makeLED()->lightOn();
    EXPECT_EQ((Lines{kOff, kOn}), world.journal.take());
    auto led = makeLED();
    led->lightFlash();
    EXPECT_EQ((Lines{kThread}), world.journal.take());
}

TEST_F(SlotLEDTest, LightOnOnALitLEDWritesNothing) {
    auto led = makeLED();
    led->lightOn();
    led->lightOn();
    EXPECT_EQ((Lines{kOn}), world.journal.take());
    EXPECT_EQ(eStorageLEDOn, led->getStatus());
}

TEST_F(SlotLEDTest, LightOffOnADarkLEDWritesNothing) {
    auto led = makeLED();
    led->lightOff();
    led->lightOff();
    EXPECT_EQ((Lines{kOff}), world.journal.take());
    EXPECT_EQ(eStorageLEDOff, led->getStatus());
}

TEST_F(SlotLEDTest, LightFlashTwiceStartsOneThread) {
    auto led = makeLED();
    led->lightFlash();
    led->lightFlash();
    EXPECT_EQ((Lines{kThread}), world.journal.take());
    EXPECT_EQ(eStorageLEDFlash, led->getStatus());
}

TEST_F(SlotLEDTest, SetStatusShowsNothing) {
    auto led = makeLED();
    led->setStatus(eStorageLEDOn);
    EXPECT_EQ(eStorageLEDOn, led->getStatus());
    led->lightOn();
    EXPECT_EQ(Lines{}, world.journal.take());
}

TEST_F(SlotLEDTest, ItsNeighboursInTheRegisterStay) {
    world.card.put(62, 0xfffffff0);
    auto led = makeLED();
    led->lightOn();
    EXPECT_EQ(0xfffffff4U, world.card.get(62));
    led->lightOff();
    EXPECT_EQ(0xfffffff0U, world.card.get(62));
}

TEST_F(SlotLEDTest, TheHighestBit) {
    makeLED(31)->lightOn();
    EXPECT_EQ((Lines{"write 62 value=1 mask=0x80000000 shift=31"}), world.journal.take());
}

TEST_F(SlotLEDTest, ABitOutsideTheRegisterHasAnEmptyMask) {
    makeLED(32)->lightOn();
    makeLED(0xffffffff)->lightOn();
    EXPECT_EQ((Lines{"write 62 value=1 mask=0x0 shift=32", "write 62 value=1 mask=0x0 shift=4294967295"}),
              world.journal.take());
}

TEST_F(SlotLEDTest, TheRegisterWritesResultIsIgnored) {
    world.card.writeResult = false;
    auto led = makeLED();
    led->lightOn();
    EXPECT_EQ(eStorageLEDOn, led->getStatus());
}

TEST_F(SlotLEDTest, TheFlasherSleepsThenShowsToggleWhichBeginsTrue) {
    auto led = makeLED();
    led->lightFlash();
    EXPECT_TRUE(led->flasherStep());
    EXPECT_TRUE(led->flasherStep());
    EXPECT_TRUE(led->flasherStep());
    EXPECT_EQ((Lines{kThread, kSleep, kOn, kSleep, kOff, kSleep, kOn}), world.journal.take());
    EXPECT_EQ(3 * kQuarterSecond, world.os.now());
}

TEST_F(SlotLEDTest, LightOffDuringFlashingEndsDarkWhenTheFlasherWakes) {
    auto led = makeLED();
    led->lightFlash();
    int sleeps = 0;
    world.os.onSleep = [&](long long) {
        if (++sleeps == 2) led->lightOff();
    };
    world.os.run(0);
    // On waking, the flasher shows what toggle says and at once what was commanded.
    EXPECT_EQ((Lines{kThread, kSleep, kOn, kSleep, kOff, kOff, kOff}), world.journal.take());
    EXPECT_EQ(0U, world.card.get(62));
}

TEST_F(SlotLEDTest, LightOnDuringFlashingEndsLitWhenTheFlasherWakes) {
    auto led = makeLED();
    led->lightFlash();
    int sleeps = 0;
    world.os.onSleep = [&](long long) {
        if (++sleeps == 2) led->lightOn();
    };
    world.os.run(0);
    EXPECT_EQ((Lines{kThread, kSleep, kOn, kSleep, kOn, kOff, kOn}), world.journal.take());
    EXPECT_EQ(4U, world.card.get(62));
}

TEST_F(SlotLEDTest, ACommandJustBeforeTheFlashersLastWriteIsNotUndone) {
    const auto led = makeLED();
    led->lightFlash();
    led->lightOn();
    world.journal.take();
    world.os.beforeNextWait = [&led] { led->lightOff(); };
    EXPECT_FALSE(led->flasherStep());
    EXPECT_EQ(world.journal.take().back(), kOff);
}

TEST_F(SlotLEDTest, AFlasherThatStartsLateOnlyShowsTheCommandedLevel) {
    auto led = makeLED();
    led->lightFlash();
    led->lightOn();
    world.os.run(0);
    EXPECT_EQ((Lines{kThread, kOn, kOn}), world.journal.take());
}

TEST_F(SlotLEDTest, FlashOffFlashBeforeTheFlasherWakesGivesTwoFlashers) {
    auto led = makeLED();
    led->lightFlash();
    int sleeps = 0;
    world.os.onSleep = [&](long long) {
        if (++sleeps == 1) {
            led->lightOff();
            led->lightFlash();
        }
        if (sleeps == 3) led->lightOff();
    };
    world.os.run(0); // the old one goes on: it wakes to the status flash again
    EXPECT_EQ((Lines{kThread, kSleep, kOff, kThread, kOn, kSleep, kOff, kSleep, kOff, kOn, kOff}),
              world.journal.take());
    ASSERT_EQ(2U, world.os.threads.size());
    EXPECT_FALSE(world.os.threads[1].taken);
    world.os.run(1);
    EXPECT_EQ((Lines{kOff}), world.journal.take());
}

TEST_F(SlotLEDTest, TwoFlashingLEDsShareOneToggle) {
    auto first = makeLED(0);
    auto second = makeLED(1);
    first->lightFlash();
    second->lightFlash();
    world.journal.clear();
    world.os.recordSleeps = false;
    for (int i = 0; i < 2; ++i) {
        first->flasherStep();
        second->flasherStep();
    }
    // Each sees every other value, so the first only ever lights and the second only ever darkens.
    EXPECT_EQ((Lines{"write 62 value=1 mask=0x1 shift=0", "write 62 value=0 mask=0x2 shift=1",
                     "write 62 value=1 mask=0x1 shift=0", "write 62 value=0 mask=0x2 shift=1"}),
              world.journal.take());
}

TEST_F(SlotLEDTest, ToggleGoesOnWhereTheLastFlasherLeftIt) {
    auto led = makeLED();
    led->lightFlash();
    led->flasherStep();
    led->lightOff();
    EXPECT_FALSE(led->flasherStep());
    led->lightFlash();
    world.journal.clear();
    led->flasherStep();
    EXPECT_EQ((Lines{kSleep, kOff}), world.journal.take());
}

TEST_F(SlotLEDTest, AThreadThatCannotStartIsReportedAndTheStatusStaysFlash) {
    auto led = makeLED();
    led->lightOn();
    world.os.threadError = EAGAIN;
    const fakes::StandardError error;
    led->lightFlash();
    EXPECT_EQ(std::string("lightFlash: ") + std::strerror(EAGAIN) + "\n", error.text());
    EXPECT_EQ(eStorageLEDFlash, led->getStatus());
    EXPECT_EQ((Lines{kOn, kThread}), world.journal.take()) << "the level stays";
    led->lightFlash();
    EXPECT_EQ(Lines{}, world.journal.take()) << "no second try";
    SlotLEDRegister::endFlashers(world.os); // counts no flasher that never was
}

TEST_F(SlotLEDTest, AWriteLockThatCannotBeMadeIsReportedAndTheLEDIsUsedAllTheSame) {
    world.os.semaphoreInitError = ENOSPC;
    const fakes::StandardError error;
    SlotLEDRegister led(62, 2, &world.card, world.os);
    world.os.semaphoreInitError = 0;
    EXPECT_EQ(std::string("SemaphoreHelper::Init - failed\n: ") + std::strerror(ENOSPC) + "\n", error.text());
    led.lightOn();
    EXPECT_EQ((Lines{kOn}), world.journal.take());
}

TEST_F(SlotLEDTest, AWriteLockThatCannotBeWaitedForIsReportedAndTheWriteIsMade) {
    auto led = makeLED();
    world.os.semaphoreWaitError = EINVAL;
    const fakes::StandardError error;
    led->lightOn();
    world.os.semaphoreWaitError = 0;
    EXPECT_EQ(std::string("Semaphore(): call to sem_wait failed\n: ") + std::strerror(EINVAL) + "\n", error.text());
    EXPECT_EQ((Lines{kOn}), world.journal.take());
}

TEST_F(SlotLEDTest, AWriteLockThatCannotBeReleasedIsReported) {
    auto led = makeLED();
    world.os.semaphorePostError = EOVERFLOW;
    const fakes::StandardError error;
    led->lightOn();
    world.os.semaphorePostError = 0;
    EXPECT_EQ(std::string("SemaphoreHelper::~SemaphoreHelper failed to post\n: ") + std::strerror(EOVERFLOW) + "\n",
              error.text());
}

TEST_F(SlotLEDTest, TheWriteLockIsOfCountOneAndHeldAroundTheWrite) {
    world.os.recordSemaphores = true;
    auto led = makeLED();
    led->lightOn();
    EXPECT_EQ((Lines{"semaphore 1", "wait", kOn, "post"}), world.journal.take());
    world.os.recordSemaphores = false;
}

// --- the exit latch, with real threads ---

TEST_F(SlotLEDTest, TheLatchEndsAFlasherThatHasNotBegunWithoutAWrite) {
    auto led = makeLED();
    led->lightFlash();
    SlotLEDRegister::endFlashers(world.os);
    EXPECT_EQ((Lines{kThread}), world.journal.take());
}

TEST_F(SlotLEDTest, TheLatchWaitsForEveryFlasherAndLetsNoneStart) {
    world.os.threadMode = fakes::FakeOperatingSystem::Threads::Started;
    world.os.sleeps = fakes::FakeOperatingSystem::Sleeps::Wait;
    auto first = makeLED(0);
    auto second = makeLED(1);
    first->lightFlash();
    second->lightFlash();
    ASSERT_TRUE(fakes::eventually([&] { return world.os.sleepers() == 2; }));

    std::atomic<bool> latched{false};
    std::thread leaving([&] {
        SlotLEDRegister::endFlashers(world.os);
        world.card.Close();
        latched = true;
    });
    // Wakes them until the latch was noticed: the wake after it is the last one.
    EXPECT_TRUE(fakes::eventually([&] {
        world.os.advance(kQuarterSecond);
        return latched.load();
    }));
    leaving.join();
    EXPECT_EQ(0, world.os.sleepers());
    world.os.advance(kQuarterSecond);
    EXPECT_EQ("close", world.journal.lines().back()) << "nothing touches the card after it";

    world.journal.clear();
    second->lightOff();
    second->lightFlash();
    EXPECT_EQ((Lines{"write 62 value=0 mask=0x2 shift=1"}), world.journal.take()) << "no new flasher";
    SlotLEDRegister::endFlashers(world.os); // may be said twice
}

TEST_F(SlotLEDTest, ADestroyedLEDIsNotTouchedAnyMore) {
    world.os.threadMode = fakes::FakeOperatingSystem::Threads::Started;
    world.os.sleeps = fakes::FakeOperatingSystem::Sleeps::Wait;
    auto led = makeLED();
    auto other = makeLED(3);
    other->lightFlash();
    led->lightFlash();
    led->lightOff();
    led->lightFlash(); // two flashers where the first has not woken, else one
    ASSERT_TRUE(fakes::eventually([&] { return world.os.sleepers() >= 2; }));
    std::atomic<bool> gone{false};
    std::thread destroyer([&] {
        led.reset();
        gone = true;
    });
    EXPECT_TRUE(fakes::eventually([&] {
        world.os.advance(kQuarterSecond);
        return gone.load();
    }));
    destroyer.join();
    EXPECT_TRUE(fakes::eventually([&] { return world.os.sleepers() == 1; })) << "the other LED flashes on";
    std::thread([&] {
        other->lightOff();
        EXPECT_TRUE(fakes::eventually([&] {
            world.os.advance(kQuarterSecond);
            return world.os.sleepers() == 0;
        }));
    }).join();
    SlotLEDRegister::endFlashers(world.os);
}

TEST_F(SlotLEDTest, LightOffDuringFlashingLeavesTheLEDDarkAndTheThreadEnds) {
    world.os.threadMode = fakes::FakeOperatingSystem::Threads::Started;
    world.os.sleeps = fakes::FakeOperatingSystem::Sleeps::Wait;
    auto led = makeLED();
    led->lightFlash();
    ASSERT_TRUE(fakes::eventually([&] { return world.os.sleepers() == 1; }));
    led->lightOff();
    world.os.advance(kQuarterSecond);
    led.reset(); // returns once the thread has ended
    EXPECT_EQ(0, world.os.sleepers());
    EXPECT_EQ(kOff, world.journal.lines().back());
    EXPECT_EQ(0U, world.card.get(62));
}

TEST_F(SlotLEDTest, CommandsAndFlashersMeetWithoutHarm) {
    world.os.threadMode = fakes::FakeOperatingSystem::Threads::Started;
    world.os.recordSleeps = false;
    world.card.recordWrites = false;
    world.card.put(62, 0xf0);
    auto first = makeLED(0);
    auto second = makeLED(1);
    for (int i = 0; i < 50; ++i) {
        first->lightFlash();
        second->lightFlash();
        first->lightOn();
        second->lightOff();
    }
    first->lightFlash();
    SlotLEDRegister::endFlashers(world.os);
    first->lightOff();
    EXPECT_EQ(0xf0U, world.card.get(62));
}

TEST_F(SlotLEDTest, FlashesOnTheRealClock) {
    SlotLEDRegister led(62, 2, &world.card);
    led.lightFlash();
    EXPECT_TRUE(fakes::eventually([&] { return world.journal.lines().size() >= 2; }));
    SlotLEDRegister::endFlashers();
    const Lines writes = world.journal.take();
    EXPECT_EQ(kOn, writes.at(0));
    EXPECT_EQ(kOff, writes.at(1));
}

} // namespace
