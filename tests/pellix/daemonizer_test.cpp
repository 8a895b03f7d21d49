#include "daemonizer.h"

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "child.h"
#include "platform/pellix/pid_file.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

constexpr char kName[] = "Media Manager";
constexpr char kPidFile[] = "/run/mediad.pid";

void say(const std::string& text) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}

// Tells what the framework had done when it called, and spoils errno.
void tellingHandler(int signal) {
    const char* const text = Daemonizer::killed == 1 ? "called after killed " : "called before killed ";
    [[maybe_unused]] ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
    const char* const name = signal == SIGTERM ? "TERM\n" : signal == SIGINT ? "INT\n" : signal == SIGHUP ? "HUP\n" : "?\n";
    written = write(STDERR_FILENO, name, std::strlen(name));
    errno = 4711;
}

std::map<int, std::string> descriptorsOf(pid_t process) {
    const std::string directory = "/proc/" + std::to_string(process) + "/fd";
    std::map<int, std::string> descriptors;
    DIR* const entries = opendir(directory.c_str());
    while (const dirent* const entry = entries != nullptr ? readdir(entries) : nullptr) {
        if (entry->d_name[0] == '.') continue;
        std::array<char, 256> target{};
        if (readlink((directory + "/" + entry->d_name).c_str(), target.data(), target.size() - 1) > 0)
            descriptors[std::atoi(entry->d_name)] = target.data();
    }
    if (entries != nullptr) closedir(entries);
    return descriptors;
}

bool isPidFileLocked() {
    const int file = open(kPidFile, O_RDWR | O_CLOEXEC);
    if (file == -1) return false;
    const bool locked = flock(file, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK;
    close(file);
    return locked;
}

// A daemon leaves its exit status here for a test that is not its parent.
std::string statusFileOf(pid_t process) { return "/tmp/status." + std::to_string(process); }

// The end of a daemon, which is, or has become, a child of the test wherever that can be.
int endOf(pid_t process) {
    int status = 0;
    pid_t ended = 0;
    do {
        ended = waitpid(process, &status, 0);
    } while (ended == -1 && errno == EINTR);
    if (ended == process) return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    EXPECT_TRUE(kEmulated);
    EXPECT_TRUE(eventually([&] { return kill(process, 0) == -1; }));
    return exists(statusFileOf(process)) ? std::atoi(contentOf(statusFileOf(process)).c_str()) : 128 + SIGKILL;
}

class DaemonizerTest : public testing::Test {
protected:
    void SetUp() override {
        // Daemons that were left by their starters become children of the test.
        ASSERT_TRUE(prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0 || kEmulated);
        ASSERT_FALSE(exists(kPidFile));
        // Also where a starter's directory, mask and signals come from.
        umask(027);
        // The thread sanitizer makes the place for a thread's signals in the first call that may block, and forgets a
        // signal that comes meanwhile; a daemon that is stopped at once would live on. Children inherit the place.
        usleep(1);
    }

    void TearDown() override {
        if (_daemon > 0) {
            kill(_daemon, SIGKILL);
            endOf(_daemon);
        }
        unlink(kPidFile);
        rmdir(kPidFile);
    }

    // A daemon that lives until it is killed, then says goodbye and gives the pid file back. The status is the
    // starter's.
    Ending start(const std::function<void()>& before = [] {}) {
        Ending ending = runInChild([&] {
            before();
            Daemonizer::daemonize(kName, tellingHandler, nullptr, true);
            live();
        });
        if (ending.status == 0) _daemon = std::atoi(contentOf(kPidFile).c_str());
        return ending;
    }

    [[noreturn]] static void live() {
        while (Daemonizer::killed == 0) usleep(1000);
        Daemonizer::setDone();
        writeFile(statusFileOf(getpid()), "42");
        _exit(42);
    }

    // The daemon in the foreground, in a process of its own, once it holds the pid file.
    void startForeground(const std::function<void()>& before = [] {}) {
        _daemon = fork();
        if (_daemon == 0) {
            before();
            Daemonizer::setupSignalHandler(kName, tellingHandler, nullptr, true);
            live();
        }
        ASSERT_TRUE(eventually([&] { return isPidFileLocked() && !contentOf(kPidFile).empty(); }));
    }

    int stop(int signal = SIGTERM) {
        kill(_daemon, signal);
        const int status = endOf(_daemon);
        _daemon = 0;
        return status;
    }

    pid_t _daemon = 0;
};

TEST_F(DaemonizerTest, StarterEndsWithStatus0WhenTheDaemonHoldsItsPidFile) {
    const Ending ending = start();
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.diagnostics, "");
    ASSERT_GT(_daemon, 0);
    EXPECT_EQ(contentOf(kPidFile), std::to_string(_daemon) + "\n");
    EXPECT_TRUE(isPidFileLocked());
    EXPECT_EQ(kill(_daemon, 0), 0);
    EXPECT_EQ(stop(), 42);
}

TEST_F(DaemonizerTest, RunsInASessionThatItDoesNotLead) {
    start();
    ASSERT_GT(_daemon, 0);
    EXPECT_NE(getsid(_daemon), getsid(0));
    EXPECT_NE(getsid(_daemon), _daemon);
    EXPECT_NE(getpgid(_daemon), getpgid(0));
}

TEST_F(DaemonizerTest, WorksInTheRootDirectoryWithoutUmask) {
    start([] { ASSERT_EQ(chdir("/tmp"), 0); });
    ASSERT_GT(_daemon, 0);
    std::array<char, 256> directory{};
    ASSERT_GT(readlink(("/proc/" + std::to_string(_daemon) + "/cwd").c_str(), directory.data(), directory.size() - 1), 0);
    EXPECT_STREQ(directory.data(), "/");
    EXPECT_EQ(statusOf(_daemon, "Umask"), "0000");
}

TEST_F(DaemonizerTest, KeepsStandardErrorAndNothingElse) {
    start([] {
        const int file = open("/tmp", O_RDONLY); // without close-on-exec
        for (const int number : {3, 50, 700}) ASSERT_EQ(dup2(file, number), number);
    });
    ASSERT_GT(_daemon, 0);
    // The starter may end an instant before the daemon closes what it told it through.
    std::map<int, std::string> descriptors;
    EXPECT_TRUE(eventually([&] { return (descriptors = descriptorsOf(_daemon)).size() == 4; })) << descriptors.size();
    const std::string diagnostics = descriptors[2];
    EXPECT_NE(diagnostics, "/dev/null");
    descriptors.erase(2);
    ASSERT_EQ(descriptors.size(), 3U);
    EXPECT_EQ(descriptors[0], "/dev/null");
    EXPECT_EQ(descriptors[1], "/dev/null");
    EXPECT_EQ(descriptors.rbegin()->second, kPidFile);
}

TEST_F(DaemonizerTest, PidFileIsNotForTheProgramsItRuns) {
    startForeground();
    const std::map<int, std::string> descriptors = descriptorsOf(_daemon);
    for (const auto& [number, target] : descriptors) {
        if (target != kPidFile) continue;
        const std::string information =
            contentOf("/proc/" + std::to_string(_daemon) + "/fdinfo/" + std::to_string(number));
        const std::size_t flags = information.find("flags:\t");
        ASSERT_NE(flags, std::string::npos);
        EXPECT_NE(std::strtol(information.c_str() + flags + 7, nullptr, 8) & O_CLOEXEC, 0);
        return;
    }
    FAIL() << "no descriptor holds the pid file";
}

TEST_F(DaemonizerTest, StandardDescriptorsThatWereClosedLeadNowhere) {
    for (const bool background : {true, false}) {
        const auto closeAll = [] {
            for (const int number : {0, 1, 2}) close(number);
        };
        if (background)
            start(closeAll);
        else
            startForeground(closeAll);
        ASSERT_GT(_daemon, 0);
        std::map<int, std::string> descriptors = descriptorsOf(_daemon);
        for (const int number : {0, 1, 2}) EXPECT_EQ(descriptors[number], "/dev/null") << number;
        stop();
    }
}

TEST_F(DaemonizerTest, WhatWasBufferedIsWrittenOnce) {
    unlink("/tmp/buffered");
    start([] {
        ASSERT_NE(std::freopen("/tmp/buffered", "w", stdout), nullptr);
        std::fputs("once\n", stdout);
    });
    ASSERT_GT(_daemon, 0);
    stop();
    EXPECT_EQ(contentOf("/tmp/buffered"), "once\n");
}

TEST_F(DaemonizerTest, HasOneThreadAndNoSocketWhenDaemonizeReturns) {
    // One, or what a sanitizer adds to every process.
    runInChild([] { writeFile("/tmp/threads", statusOf(getpid(), "Threads")); });
    start();
    ASSERT_GT(_daemon, 0);
    EXPECT_EQ(statusOf(_daemon, "Threads"), contentOf("/tmp/threads"));
    for (const auto& [number, target] : descriptorsOf(_daemon)) EXPECT_EQ(target.find("socket:"), std::string::npos);
}

TEST_F(DaemonizerTest, SecondDaemonSaysSoAndEndsWith255) {
    start();
    ASSERT_GT(_daemon, 0);
    const std::string line = std::string(kName) + " is already running as process " + std::to_string(_daemon) + "\n";

    const Ending background = runInChild([] {
        Daemonizer::daemonize(kName, tellingHandler, nullptr, true);
        say("it runs\n");
        _exit(0);
    });
    EXPECT_EQ(background.status, 255);
    EXPECT_EQ(background.diagnostics, line);

    const Ending foreground = runInChild([] {
        Daemonizer::setupSignalHandler(kName, tellingHandler, nullptr, true);
        say("it runs\n");
        _exit(0);
    });
    EXPECT_EQ(foreground.status, 255);
    EXPECT_EQ(foreground.diagnostics, line);

    EXPECT_EQ(contentOf(kPidFile), std::to_string(_daemon) + "\n");
    EXPECT_EQ(stop(), 42);
}

TEST_F(DaemonizerTest, OneInTheForegroundKeepsOthersAwayToo) {
    startForeground();
    const pid_t first = _daemon;
    EXPECT_EQ(contentOf(kPidFile), std::to_string(first) + "\n");
    const Ending ending = start();
    EXPECT_EQ(ending.status, 255);
    EXPECT_EQ(ending.diagnostics, std::string(kName) + " is already running as process " + std::to_string(first) + "\n");
}

TEST_F(DaemonizerTest, OfManyStartedAtOnceOneRuns) {
    constexpr int kStarters = 12;
    std::vector<pid_t> starters;
    for (int i = 0; i < kStarters; ++i) {
        const pid_t starter = fork();
        if (starter == 0) {
            const int nowhere = open("/dev/null", O_WRONLY);
            dup2(nowhere, STDERR_FILENO);
            Daemonizer::daemonize(kName, tellingHandler, nullptr, true);
            live();
        }
        starters.push_back(starter);
    }
    std::map<int, int> statuses;
    for (const pid_t starter : starters) ++statuses[endOf(starter)];
    EXPECT_THAT(statuses, ElementsAre(Pair(0, 1), Pair(255, kStarters - 1)));
    _daemon = std::atoi(contentOf(kPidFile).c_str());
    EXPECT_EQ(stop(), 42);
}

TEST_F(DaemonizerTest, PidFileThatAKilledDaemonLeftStopsNobody) {
    start();
    ASSERT_GT(_daemon, 0);
    const pid_t first = _daemon;
    EXPECT_EQ(stop(SIGKILL), 128 + SIGKILL);
    EXPECT_EQ(contentOf(kPidFile), std::to_string(first) + "\n");
    EXPECT_EQ(start().status, 0);
    EXPECT_NE(_daemon, first);
    EXPECT_EQ(contentOf(kPidFile), std::to_string(_daemon) + "\n");
}

TEST_F(DaemonizerTest, LongOldContentIsReplaced) {
    writeFile(kPidFile, "some text that is longer than a process id\nand has lines\n");
    EXPECT_EQ(start().status, 0);
    EXPECT_EQ(contentOf(kPidFile), std::to_string(_daemon) + "\n");
}

TEST_F(DaemonizerTest, PidFileThatCannotBeHeldIsAFailedStart) {
    ASSERT_EQ(mkdir(kPidFile, 0755), 0);
    const std::string line = std::string(kName) + " cannot hold /run/mediad.pid: Is a directory\n";
    const Ending background = start();
    EXPECT_EQ(background.status, 255);
    EXPECT_EQ(background.diagnostics, line);
    const Ending foreground = runInChild([] { Daemonizer::setupSignalHandler(kName, tellingHandler, nullptr, true); });
    EXPECT_EQ(foreground.status, 255);
    EXPECT_EQ(foreground.diagnostics, line);
}

TEST_F(DaemonizerTest, PidFileIsNotWrittenThroughALink) {
    writeFile("/tmp/target", "precious");
    ASSERT_EQ(symlink("/tmp/target", kPidFile), 0);
    EXPECT_EQ(start().status, 255);
    EXPECT_EQ(contentOf("/tmp/target"), "precious");
}

TEST_F(DaemonizerTest, WithoutAPidFileThereIsNone) {
    expectDoneInChild([] {
        Daemonizer::setupSignalHandler(kName, tellingHandler, nullptr, false);
        EXPECT_FALSE(exists(kPidFile));
        Daemonizer::setDone();
    });
}

TEST_F(DaemonizerTest, SetDoneGivesThePidFileBackAndMayBeCalledTwice) {
    expectDoneInChild([] {
        Daemonizer::setDone();
        Daemonizer::setupSignalHandler(kName, tellingHandler, nullptr, true);
        EXPECT_TRUE(exists(kPidFile));
        Daemonizer::setDone();
        EXPECT_FALSE(exists(kPidFile));
        // Somebody else's by now.
        writeFile(kPidFile, "1\n");
        const int file = open("/dev/null", O_RDONLY); // in the place of the one that was given back
        Daemonizer::setDone();
        EXPECT_TRUE(exists(kPidFile));
        EXPECT_NE(fcntl(file, F_GETFD), -1);
    });
    EXPECT_FALSE(isPidFileLocked());
    EXPECT_EQ(start().status, 0);
}

TEST_F(DaemonizerTest, PidFileHasOneHolderWhileOthersComeAndGo) {
    // Who holds it makes a file that must not be there yet.
    constexpr char kMark[] = "/tmp/holder";
    std::vector<pid_t> takers;
    for (int i = 0; i < 4; ++i) {
        const pid_t taker = fork();
        if (taker == 0) {
            for (int times = 0; times < 2000;) {
                pid_t holder = 0;
                const PidFile::Result result = PidFile::take(kPidFile, holder);
                if (result == PidFile::Result::Failed) _exit(1);
                if (result == PidFile::Result::Taken) continue;
                const int mark = open(kMark, O_WRONLY | O_CREAT | O_EXCL, 0600);
                if (mark == -1) _exit(2);
                close(mark);
                unlink(kMark);
                PidFile::giveBack();
                ++times;
            }
            _exit(0);
        }
        takers.push_back(taker);
    }
    for (const pid_t taker : takers) EXPECT_EQ(endOf(taker), 0);
    EXPECT_FALSE(exists(kPidFile));
}

TEST_F(DaemonizerTest, SetDoneLeavesThePidFileOfAnotherAlone) {
    startForeground();
    const pid_t first = _daemon;
    // Somebody cleans up what he should not, and another daemon starts.
    ASSERT_EQ(unlink(kPidFile), 0);
    EXPECT_EQ(start().status, 0);
    ASSERT_NE(_daemon, first);
    kill(first, SIGTERM);
    EXPECT_EQ(endOf(first), 42);
    EXPECT_EQ(contentOf(kPidFile), std::to_string(_daemon) + "\n");
}

TEST_F(DaemonizerTest, EachTerminationSignalSetsKilledThenCallsTheHandler) {
    const std::map<int, std::string> names{{SIGTERM, "TERM"}, {SIGINT, "INT"}, {SIGHUP, "HUP"}};
    for (const auto& [signal, name] : names) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        start([&, end = ends[1]] { dup2(end, STDERR_FILENO); });
        close(ends[1]);
        ASSERT_GT(_daemon, 0);
        EXPECT_EQ(stop(signal), 42);
        std::string said;
        std::array<char, 256> piece{};
        for (ssize_t size = 0; (size = read(ends[0], piece.data(), piece.size())) > 0;)
            said.append(piece.data(), static_cast<std::size_t>(size));
        close(ends[0]);
        EXPECT_EQ(said, "called after killed " + name + "\n");
    }
}

TEST_F(DaemonizerTest, ForegroundTakesTheSameSignals) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        startForeground([] { dup2(open("/dev/null", O_WRONLY), STDERR_FILENO); });
        EXPECT_EQ(stop(signal), 42);
        EXPECT_FALSE(exists(kPidFile));
    }
}

TEST_F(DaemonizerTest, SignalKeepsErrno) {
    const Ending ending = runInChild([] {
        Daemonizer::setupSignalHandler(kName, tellingHandler, nullptr, true);
        EXPECT_EQ(Daemonizer::killed, 0);
        errno = 1234;
        raise(SIGTERM);
        const int error = errno;
        EXPECT_EQ(error, 1234);
        EXPECT_EQ(Daemonizer::killed, 1);
        Daemonizer::setDone();
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.diagnostics, "called after killed TERM\n");
}

TEST_F(DaemonizerTest, SignalWithoutAHandlerSetsKilled) {
    expectDoneInChild([] {
        Daemonizer::setupSignalHandler(kName, nullptr, nullptr, true);
        raise(SIGHUP);
        EXPECT_EQ(Daemonizer::killed, 1);
        Daemonizer::setDone();
    });
}

TEST_F(DaemonizerTest, WhatTheStarterDidToSignalsDoesNotCount) {
    if (kEmulated) GTEST_SKIP();
    const auto spoil = [] {
        for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) std::signal(signal, SIG_IGN);
        std::signal(SIGPIPE, SIG_DFL);
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
    };
    const auto bit = [](int signal) { return 1ULL << (signal - 1); };
    for (const bool background : {true, false}) {
        if (background)
            start(spoil);
        else
            startForeground(spoil);
        ASSERT_GT(_daemon, 0);
        const auto mask = [&](const char* key) { return std::strtoull(statusOf(_daemon, key).c_str(), nullptr, 16); };
        EXPECT_EQ(mask("SigBlk"), 0U);
        EXPECT_EQ(mask("SigIgn") & (bit(SIGPIPE) | bit(SIGCHLD) | bit(SIGTERM) | bit(SIGINT) | bit(SIGHUP)), bit(SIGPIPE));
        EXPECT_EQ(mask("SigCgt") & (bit(SIGTERM) | bit(SIGINT) | bit(SIGHUP)), bit(SIGTERM) | bit(SIGINT) | bit(SIGHUP));
        EXPECT_EQ(stop(), 42);
    }
}

TEST_F(DaemonizerTest, ForegroundStaysWhereItIs) {
    startForeground([] { ASSERT_EQ(chdir("/tmp"), 0); });
    EXPECT_EQ(getsid(_daemon), getsid(0));
    std::array<char, 256> directory{};
    ASSERT_GT(readlink(("/proc/" + std::to_string(_daemon) + "/cwd").c_str(), directory.data(), directory.size() - 1), 0);
    EXPECT_STREQ(directory.data(), "/tmp");
    EXPECT_EQ(statusOf(_daemon, "Umask"), "0000");
}

TEST_F(DaemonizerTest, PidFileThatCannotBeWrittenIsAFailedStart) {
    ASSERT_EQ(mkfifo(kPidFile, 0600), 0);
    const Ending ending = start();
    EXPECT_EQ(ending.status, 255);
    EXPECT_EQ(ending.diagnostics, std::string(kName) + " cannot hold /run/mediad.pid: Invalid argument\n");
}

TEST_F(DaemonizerTest, DaemonThatIsKilledBeforeItIsReadyMakesTheStarterFail) {
    const Ending ending = start([] {
        // The first byte of the pid file is one too many.
        const rlimit none{0, 0};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    });
    EXPECT_EQ(ending.status, 255);
    EXPECT_EQ(ending.diagnostics, "");
}

TEST_F(DaemonizerTest, NameIsThereUntilTheVeryEnd) {
    const Ending ending = runInChild([] {
        // Runs after the destructors of everything that is made from now on.
        std::atexit([] { say(Daemonizer::name + "\n"); _exit(7); });
        Daemonizer::setupSignalHandler(kName, tellingHandler, nullptr, false);
        std::exit(0);
    });
    EXPECT_EQ(ending.status, 7);
    EXPECT_EQ(ending.diagnostics, std::string(kName) + "\n");
}

} // namespace
