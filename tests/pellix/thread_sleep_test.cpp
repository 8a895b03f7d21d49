#include "thread_sleep.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

long long nanosecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
}

TEST(ThreadSleep, SleepsTheWholeTime) {
    // More than a carry of nanoseconds into seconds can get wrong.
    for (const long nanoseconds : {1L, 999'999L, 20'000'000L, 999'999'999L, 1'000'000'001L}) {
        const Clock::time_point start = Clock::now();
        ThreadSleep().sleep(nanoseconds);
        EXPECT_GE(nanosecondsSince(start), nanoseconds);
    }
}

TEST(ThreadSleep, NothingToSleepReturns) {
    ThreadSleep().sleep(0);
    ThreadSleep().sleep(-1);
}

TEST(ThreadSleep, SignalsDoNotShortenIt) {
    static std::atomic<int> signals;
    signals = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals; };
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0); // without SA_RESTART

    constexpr long kNanoseconds = 300'000'000;
    std::atomic<bool> done{false};
    long long slept = 0;
    std::thread sleeper([&] {
        const Clock::time_point start = Clock::now();
        ThreadSleep().sleep(kNanoseconds);
        slept = nanosecondsSince(start);
        done = true;
    });
    while (!done) {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    sleeper.join();
    EXPECT_GE(slept, kNanoseconds);
    EXPECT_GT(signals, 0);
}

} // namespace
