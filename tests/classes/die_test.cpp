// The ends of the process: who may end it, and with which status.

#include "classes/die/die.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "daemonizer.h"

namespace {

int goOn[2]; // a pipe: held back until something is written

void waitForGo() {
    char byte = 0;
    while (::read(goOn[0], &byte, 1) == -1) {
    }
}

TEST(DieDeathTest, writesItsMessageAsItStandsAndEndsWithOne) {
    EXPECT_EXIT(die("Not root\n"), testing::ExitedWithCode(1), "^Not root\n$");
}

TEST(DieDeathTest, stopsTheDaemon) {
    EXPECT_EXIT(
        {
            std::atexit([] { ::_exit(Daemonizer::killed == 1 ? 7 : 8); });
            die("x");
        },
        testing::ExitedWithCode(7), "^x$");
}

TEST(DieDeathTest, mainLeavesWithItsStatus) { EXPECT_EXIT(std::exit(leaveMain(0)), testing::ExitedWithCode(0), "^$"); }

TEST(DieDeathTest, dyingWhileMainLeavesStillEndsWithOne) {
    EXPECT_EXIT(
        {
            const int status = leaveMain(0);
            std::thread([] { die("x\n"); }).join();
            std::exit(status);
        },
        testing::ExitedWithCode(1), "^x\n$");
}

TEST(DieDeathTest, mainDoesNotOvertakeAThreadThatIsDying) {
    EXPECT_EXIT(
        {
            if (::pipe(goOn) == -1) std::abort();
            // The dying thread stands in the exit handlers while main wants to leave.
            std::atexit(waitForGo);
            std::thread dying([] { die("x\n"); });
            while (Daemonizer::killed == 0) std::this_thread::yield();
            std::thread([] {
                const char byte = 0;
                if (::write(goOn[1], &byte, 1) != 1) std::abort();
            }).detach();
            // Whichever of the two is first: the status is 1, and the handlers run once.
            const int status = leaveMain(0);
            std::exit(status);
        },
        testing::ExitedWithCode(1), "^x\n$");
}

} // namespace
