#include "thread_sleep.h"

#include <cerrno>
#include <ctime>

ThreadSleep::ThreadSleep() = default;
ThreadSleep::~ThreadSleep() = default;

void ThreadSleep::sleep(long nanoseconds) {
    constexpr long kSecond = 1'000'000'000;
    if (nanoseconds <= 0) return;
    // Until a point in time, so that interruptions do not add up; on the clock that nobody sets.
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += nanoseconds / kSecond;
    until.tv_nsec += nanoseconds % kSecond;
    if (until.tv_nsec >= kSecond) {
        ++until.tv_sec;
        until.tv_nsec -= kSecond;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}
