#include "file_utils.h"

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "daemonizer.h"
#include "platform/pellix/line_limits.h"

namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

struct Result {
    int status;
    std::string output;
};

Result run(const std::string& line) {
    std::string buffer(65536, '#');
    const int status = FileUtils().executeCommand(line, buffer.data(), buffer.size());
    return {status, buffer.c_str()};
}

std::set<std::string> entriesOf(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) names.insert(entry.path().filename());
    return names;
}

std::size_t openDescriptors() { return entriesOf("/proc/self/fd").size(); }

class FileUtilsTest : public testing::Test {
protected:
    void SetUp() override {
        Daemonizer::name = "Media Manager";
        std::filesystem::remove_all(kMedium);
        ASSERT_EQ(mkdir(kMedium, 0755), 0);
    }

    void TearDown() override {
        // Whatever happened: no process and no directory is left.
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
        for (const std::string& name : entriesOf("/run")) EXPECT_NE(name.rfind("mediad.", 0), 0U) << name;
    }

    static constexpr char kMedium[] = "/tmp/medium";

    static void put(const std::string& name, const std::string& content = "x") {
        writeFile(std::string(kMedium) + "/" + name, content);
    }
};

// ---- results

TEST_F(FileUtilsTest, GivesTheShellsExitStatus) {
    EXPECT_EQ(run("true").status, 0);
    EXPECT_EQ(run("exit 3").status, 3);
    EXPECT_EQ(run("exit 255").status, 255);
    EXPECT_EQ(run("false; true").status, 0);
    EXPECT_EQ(run("true; false").status, 1);
    EXPECT_EQ(run("").status, 0);
    EXPECT_EQ(run("/nowhere/tool 2>/dev/null").status, 127);
    EXPECT_EQ(run("echo ( 2>/dev/null").status, 2);
    EXPECT_EQ(FileUtils().executeCommand("exit 3"), 3);
    EXPECT_EQ(FileUtils().executeCommand(""), 0);
}

TEST_F(FileUtilsTest, GivesTheStatusOfTheLastOfAPipe) {
    EXPECT_EQ(run("echo /dev/sdb2 | grep sdb2").status, 0);
    EXPECT_EQ(run("echo /dev/sdb2 | grep sdc2").status, 1);
}

TEST_F(FileUtilsTest, KilledToolGives128AndTheSignal) {
    EXPECT_EQ(run("kill -KILL $$").status, 128 + SIGKILL);
    EXPECT_EQ(run("kill -TERM $$").status, 128 + SIGTERM);
    EXPECT_EQ(run("bash -c 'ulimit -c 0; kill -SEGV $$' 2>/dev/null").status, 128 + SIGSEGV);
    EXPECT_EQ(run("(bash -c 'kill -INT $$'; exit $?) 2>/dev/null").status, 128 + SIGINT);
    EXPECT_EQ(FileUtils().executeCommand("kill -KILL $$"), 128 + SIGKILL);
}

TEST_F(FileUtilsTest, RunsThroughBash) {
    EXPECT_EQ(run("pushd /usr >/dev/null; pwd; popd >/dev/null; [[ a == a ]] && echo $((1+1))").output, "/usr\n2\n");
    EXPECT_EQ(run("echo $BASH").output, "/bin/bash\n");
}

TEST_F(FileUtilsTest, LineEndsAtItsFirstNulByte) {
    EXPECT_EQ(run(std::string("echo a\0echo b", 13)).output, "a\n");
}

TEST_F(FileUtilsTest, LineMayHaveLines) { EXPECT_EQ(run("echo a\necho b\n").output, "a\nb\n"); }

// ---- output

TEST_F(FileUtilsTest, CapturesStandardOutputOnly) {
    testing::internal::CaptureStderr();
    const Result result = run("echo out; echo err >&2");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "err\n");
    EXPECT_EQ(result.output, "out\n");
    EXPECT_EQ(run("{ echo out; echo err >&2; } 2>&1").output, "out\nerr\n");
}

TEST_F(FileUtilsTest, OutputIsBoundedTerminatedAndDrained) {
    for (const std::size_t size : {1U, 2U, 10U, 256U, 4097U}) {
        std::vector<char> buffer(size + 1, '#');
        // A tool that cannot get rid of its output would end with a signal, or never.
        EXPECT_EQ(FileUtils().executeCommand("set -o pipefail; head -c 300000 /dev/zero | tr '\\0' x", buffer.data(), size),
                  0);
        EXPECT_EQ(std::string(buffer.data()), std::string(size - 1, 'x'));
        EXPECT_EQ(buffer[size], '#');
    }
}

TEST_F(FileUtilsTest, OutputThatFitsExactlyIsWhole) {
    std::vector<char> buffer(6, '#');
    EXPECT_EQ(FileUtils().executeCommand("printf 12345", buffer.data(), buffer.size()), 0);
    EXPECT_STREQ(buffer.data(), "12345");
}

TEST_F(FileUtilsTest, SilentLineGivesAnEmptyText) {
    char buffer[] = "before";
    EXPECT_EQ(FileUtils().executeCommand("true", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "");
}

TEST_F(FileUtilsTest, NothingIsWrittenIntoABufferWithoutSize) {
    char buffer[] = "before";
    EXPECT_EQ(FileUtils().executeCommand("echo after", buffer, 0), 0);
    EXPECT_STREQ(buffer, "before");
}

TEST_F(FileUtilsTest, LineAndOutputMayBeOneBuffer) {
    char buffer[256] = "echo a; echo b";
    EXPECT_EQ(FileUtils().executeCommand(buffer, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "a\nb\n");

    std::string line = "echo 0123456789; echo 0123456789";
    EXPECT_EQ(FileUtils().executeCommand(line, line.data(), line.size()), 0);
    EXPECT_STREQ(line.c_str(), "0123456789\n0123456789\n");
}

TEST_F(FileUtilsTest, OutputComesInPieces) {
    EXPECT_EQ(run("for i in 1 2 3; do echo $i; sleep 0.02; done").output, "1\n2\n3\n");
}

TEST_F(FileUtilsTest, OutputWithoutACaptureGoesNowhere) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(FileUtils().executeCommand("echo x; [ /proc/self/fd/1 -ef /dev/null ]"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// ---- what the line leaves in the background

void expectNoWaitForTheBackground() {
    // The program in the background keeps the pipe.
    const Result result = run("sleep 1000 & echo $!");
    EXPECT_EQ(result.status, 0);
    const pid_t background = std::atoi(result.output.c_str());
    ASSERT_GT(background, 1);
    EXPECT_EQ(kill(background, 0), 0) << "it was waited for";
    kill(background, SIGKILL);
}

TEST_F(FileUtilsTest, WaitsForTheShellNotForThePipe) { expectNoWaitForTheBackground(); }

TEST_F(FileUtilsTest, WaitsForTheShellOnOldKernelsToo) {
    // No thread may run when the filter is installed; hence the child.
    const Ending ending = runInChild([] {
        if (!makeSystemCallsFail({SYS_pidfd_open}, ENOSYS)) _exit(77);
        expectNoWaitForTheBackground();
        EXPECT_EQ(run("for i in 1 2 3; do echo $i; sleep 0.03; done; exit 4").output, "1\n2\n3\n");
        EXPECT_EQ(run("sleep 0.05; exit 4").status, 4);
    });
    if (ending.status == 77) GTEST_SKIP() << "system calls cannot be filtered here";
    EXPECT_EQ(ending.status, 0) << ending.diagnostics;
}

TEST_F(FileUtilsTest, TalkativeProgramInTheBackgroundDoesNotHoldUsUp) {
    const Result result = run("echo first; yes & echo $! >/tmp/talker; exit 5");
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.output.substr(0, 6), "first\n");
    // It ends by itself once nobody reads: the signal that says so is its default again.
    const pid_t talker = std::atoi(contentOf("/tmp/talker").c_str());
    ASSERT_GT(talker, 1);
    EXPECT_TRUE(eventually([&] {
        const std::string state = statusOf(talker, "State");
        return state.empty() || state[0] == 'Z';
    }));
}

TEST_F(FileUtilsTest, WhatTheShellWroteLastIsThere) {
    // The program in the background keeps the pipe, so the shell's last words must be found behind its end.
    for (int i = 0; i < 50; ++i) {
        const Result result = run("sleep 1000 & echo $! >/tmp/keeper; printf %5000s x");
        EXPECT_EQ(result.output.size(), 5000U);
        kill(std::atoi(contentOf("/tmp/keeper").c_str()), SIGKILL);
    }
}

// ---- what the line is given

TEST_F(FileUtilsTest, StandardInputIsEmpty) {
    EXPECT_EQ(run("cat; echo $?").output, "0\n");
    EXPECT_EQ(run("[ /proc/self/fd/0 -ef /dev/null ]; echo $?").output, "0\n");
}

TEST_F(FileUtilsTest, EnvironmentIsClean) {
    expectDoneInChild([] {
        writeFile("/tmp/start-up", "echo hijacked\n");
        for (const char* variable : {"POSIXLY_CORRECT=1", "BASH_ENV=/tmp/start-up", "ENV=/tmp/start-up", "LC_ALL=de_DE.UTF-8",
                                     "LANG=de_DE.UTF-8", "PATH=/nowhere", "CDPATH=/usr", "GLOBIGNORE=*", "SHELLOPTS=noglob",
                                     "BASHOPTS=dotglob", "BASH_FUNC_rm%%=() { echo hijacked; }",
                                     "BASH_FUNC_command%%=() { echo hijacked; }"})
            putenv(const_cast<char*>(variable));
        std::istringstream lines(run("/usr/bin/env").output);
        std::set<std::string> variables;
        for (std::string line; std::getline(lines, line);)
            if (line.rfind("PWD=", 0) != 0 && line.rfind("SHLVL=", 0) != 0 && line.rfind("_=", 0) != 0) variables.insert(line);
        EXPECT_THAT(variables,
                    ElementsAre("LC_ALL=C", "PATH=/usr/local/bin:/bin:/usr/bin:/sbin:/usr/sbin:/usr/local/sbin"));
        EXPECT_EQ(run("echo x").output, "x\n");
        EXPECT_EQ(run("shopt -o posix").output, "posix          \toff\n");
        EXPECT_EQ(run("declare -F; alias").output, "declare -f rm\n");
        // Nor does a program of the line get functions of ours.
        EXPECT_EQ(run("bash -c 'declare -F'").output, "");
    });
}

TEST_F(FileUtilsTest, UmaskIs022) {
    for (const mode_t mask : {0U, 077U}) {
        const mode_t before = umask(mask);
        EXPECT_EQ(run("umask").output, "0022\n");
        EXPECT_EQ(run("> /tmp/medium/file; stat -c %a /tmp/medium/file; /bin/rm /tmp/medium/file").output, "644\n");
        EXPECT_EQ(umask(before), mask) << "ours is none of its business";
    }
}

TEST_F(FileUtilsTest, SignalStateIsClean) {
    expectDoneInChild([] {
        for (const int signal : {SIGPIPE, SIGINT, SIGHUP, SIGUSR1}) std::signal(signal, SIG_IGN);
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        std::istringstream lines(run("/bin/grep '^Sig' /proc/self/status").output);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("SigBlk", 0) != 0 && line.rfind("SigIgn", 0) != 0) continue;
            // The two signals that the C library keeps for itself are not counted.
            EXPECT_EQ(std::strtoull(line.c_str() + 8, nullptr, 16) & 0x7fffffffULL, 0U) << line;
        }
        sigset_t now;
        sigprocmask(SIG_SETMASK, nullptr, &now);
        EXPECT_EQ(sigismember(&now, SIGTERM), 1) << "ours stays as it was";
    });
}

TEST_F(FileUtilsTest, RunsInASessionOfItsOwn) {
    const std::string session = run("read -r _ _ _ _ group session _ </proc/$$/stat; echo $$ $group $session").output;
    std::istringstream numbers(session);
    int shell = 0;
    int group = 0;
    int own = 0;
    numbers >> shell >> group >> own;
    EXPECT_EQ(shell, group);
    EXPECT_EQ(shell, own);
    EXPECT_NE(own, getsid(0));
}

TEST_F(FileUtilsTest, InheritsNoDescriptorOfOurs) {
    expectDoneInChild([] {
        const int file = open("/tmp", O_RDONLY); // without close-on-exec
        for (const int number : {3, 4, 50, 900}) ASSERT_EQ(dup2(file, number), number);
        // The tool's own look at the directory is its third.
        const std::string listing = "for f in $(/bin/ls /proc/self/fd); do echo $f; done";
        EXPECT_EQ(run(listing).output, "0\n1\n2\n3\n");
        EXPECT_EQ(run("# " + std::string(200000, 'x') + "\n" + listing).output, "0\n1\n2\n3\n");
        EXPECT_EQ(run("[ -e /proc/self/fd/50 ]").status, 1);
    });
}

TEST_F(FileUtilsTest, WorksWithoutStandardDescriptors) {
    for (const std::string& line : {std::string("echo x; exit 6"), "# " + std::string(200000, 'x') + "\necho x; exit 6"}) {
        const Ending ending = runInChild([&] {
            for (const int number : {0, 1, 2}) close(number);
            char buffer[8];
            const int status = FileUtils().executeCommand(line, buffer, sizeof buffer);
            const bool right = status == 6 && std::strcmp(buffer, "x\n") == 0 && FileUtils().executeCommand(line) == 6;
            _exit(right ? 0 : 1);
        });
        EXPECT_EQ(ending.status, 0);
    }
}

TEST_F(FileUtilsTest, StartsInAnEmptyPrivateDirectoryThatGoesWithTheLine) {
    const std::string directory = run("pwd").output;
    EXPECT_EQ(directory.rfind("/run/mediad.", 0), 0U) << directory;
    EXPECT_FALSE(exists(directory.substr(0, directory.size() - 1)));
    EXPECT_EQ(run("ls -A; stat -c '%a %u' .").output, "700 " + std::to_string(geteuid()) + "\n");
    EXPECT_NE(run("pwd").output, directory) << "the next line has its own";
    // What a tool leaves there goes too; what a link there leads to does not.
    put("a.mov");
    EXPECT_EQ(run("echo x >core; mkdir -p a/b; echo x >a/b/c; ln -s /tmp/medium link").status, 0);
    EXPECT_TRUE(exists("/tmp/medium/a.mov"));
}

TEST_F(FileUtilsTest, PrivateDirectoryIsElsewhereWhereRunIsReadOnly) {
    const Ending ending = runInChild([] {
        if (!replaceDirectory("/run", true)) _exit(77);
        const Result result = run("pwd");
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output.rfind("/tmp/mediad.", 0), 0U) << result.output;
        EXPECT_FALSE(exists(result.output.substr(0, result.output.size() - 1)));
    });
    if (ending.status == 77) GTEST_SKIP() << "no mounts of one's own here";
    EXPECT_EQ(ending.status, 0) << ending.diagnostics;
}

TEST_F(FileUtilsTest, WithoutAPrivateDirectoryNothingRuns) {
    const Ending ending = runInChild([] {
        if (!replaceDirectory("/run", true) || !replaceDirectory("/tmp", true)) _exit(77);
        char buffer[] = "before";
        EXPECT_EQ(FileUtils().executeCommand("echo x", buffer, sizeof buffer), 127);
        EXPECT_STREQ(buffer, "");
        if (!HasFailure()) _exit(0); // a build that counts its lines would want to write them down, in a tree below /tmp
    });
    if (ending.status == 77) GTEST_SKIP() << "no mounts of one's own here";
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.diagnostics, "Media Manager cannot make a directory to run a shell command in: Read-only file system\n");
}

// ---- rm

TEST_F(FileUtilsTest, DeletesTheNamedFiles) {
    put("a.mov");
    put("b c.mov");
    put("keep.mov");
    EXPECT_EQ(run("pushd /tmp/medium/; rm -f  \"a.mov\" \"b c.mov\" \"gone.mov\"; popd").status, 0);
    EXPECT_THAT(entriesOf(kMedium), ElementsAre("keep.mov"));
}

TEST_F(FileUtilsTest, OptionOfTheLineCounts) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(run("rm -f gone.mov").status, 0);
    EXPECT_EQ(run("rm -f").status, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(run("rm gone.mov").status, 1);
    EXPECT_EQ(run("rm").status, 1);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST_F(FileUtilsTest, EmptyNameDeletesNothing) {
    put("a.mov");
    put("b.mov");
    EXPECT_EQ(run("pushd /tmp/medium/; rm -f  \"\" \"a.mov\"; popd").status, 0);
    EXPECT_THAT(entriesOf(kMedium), ElementsAre("b.mov"));
}

TEST_F(FileUtilsTest, AfterAFailedPushdNothingIsDeleted) {
    testing::internal::CaptureStderr();
    // Where the test itself is.
    ASSERT_EQ(chdir(kMedium), 0);
    put("a.mov");
    put("b.mov");
    run("pushd /tmp/missing/; rm -f  \"a.mov\"; popd");
    run("pushd /tmp/missing/; rm -f *; popd");
    EXPECT_THAT(entriesOf(kMedium), ElementsAre("a.mov", "b.mov"));
    ASSERT_EQ(chdir("/"), 0);
    testing::internal::GetCapturedStderr();
}

TEST_F(FileUtilsTest, StarNeverBecomesAnOption) {
    testing::internal::CaptureStderr();
    for (const char* name : {"-r", "-rf x", "-rf", "--recursive", "--", "-f", "-i", "--help", "a.mov"}) put(name);
    put(".hidden");
    ASSERT_EQ(mkdir("/tmp/medium/directory", 0755), 0);
    put("directory/inside");
    run("pushd /tmp/medium/; rm -f *; popd");
    EXPECT_THAT(entriesOf(kMedium), ElementsAre(".hidden", "directory"));
    EXPECT_TRUE(exists("/tmp/medium/directory/inside"));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Is a directory"), std::string::npos);
}

TEST_F(FileUtilsTest, NamesThatLookLikeOptionsAreNames) {
    for (const char* name : {"-r", "-f", "--", "-v", "a.mov"}) put(name);
    ASSERT_EQ(mkdir("/tmp/medium/x", 0755), 0);
    testing::internal::CaptureStderr();
    EXPECT_NE(run("pushd /tmp/medium/; rm -f  \"-r\" \"x\" \"-f\" \"--\"").status, 0);
    testing::internal::GetCapturedStderr();
    EXPECT_THAT(entriesOf(kMedium), ElementsAre("-v", "a.mov", "x"));
}

TEST_F(FileUtilsTest, StarWithoutTheOptionIsSafeToo) {
    testing::internal::CaptureStderr();
    put("-r");
    put("a.mov");
    ASSERT_EQ(mkdir("/tmp/medium/directory", 0755), 0);
    run("pushd /tmp/medium/; rm *; popd");
    testing::internal::GetCapturedStderr();
    EXPECT_THAT(entriesOf(kMedium), ElementsAre("directory"));
}

TEST_F(FileUtilsTest, StarInAnEmptyDirectoryIsNoError) {
    EXPECT_EQ(run("pushd /tmp/medium/; rm -f *; popd").status, 0);
}

TEST_F(FileUtilsTest, SafeInEveryCornerOfALine) {
    testing::internal::CaptureStderr();
    put("-r");
    ASSERT_EQ(mkdir("/tmp/medium/directory", 0755), 0);
    run("(cd /tmp/medium && rm -f * | cat) || true");
    testing::internal::GetCapturedStderr();
    EXPECT_THAT(entriesOf(kMedium), ElementsAre("directory"));
}

// ---- long lines

TEST_F(FileUtilsTest, TakesALineThatIsTooLongForAnArgument) {
    std::string line = "pushd /tmp/medium/; rm -f ";
    for (int i = 0; i < 4000; ++i) {
        const std::string name = std::string(60, 'n') + std::to_string(i) + ".mov";
        put(name, "");
        line += " \"" + name + "\"";
    }
    put("-r");
    put("keep.mov");
    line += " \"-r\"; popd";
    ASSERT_GT(line.size(), 200000U);
    EXPECT_EQ(run(line).status, 0);
    EXPECT_THAT(entriesOf(kMedium), ElementsAre("keep.mov"));
}

TEST_F(FileUtilsTest, BothWaysBehaveAlike) {
    testing::internal::CaptureStderr();
    for (const std::string& padding : {std::string(), "# " + std::string(1'000'000, 'x') + "\n"}) {
        EXPECT_EQ(run(padding + "cat; echo out; exit 9").status, 9);
        EXPECT_EQ(run(padding + "cat; echo out; exit 9").output, "out\n");
        EXPECT_EQ(run(padding + "kill -KILL $$").status, 128 + SIGKILL);
        EXPECT_EQ(run(padding + "umask; pwd | cut -c1-12; set -- ; echo $#").output, "0022\n/run/mediad.\n0\n");
        EXPECT_EQ(run(padding + "echo (").status, 2);
        put("-r");
        run(padding + "pushd /tmp/medium/; rm -f *; popd");
        EXPECT_TRUE(entriesOf(kMedium).empty());
    }
    testing::internal::GetCapturedStderr();
}

TEST_F(FileUtilsTest, NoLengthFallsBetweenTheTwoWays) {
    // Set by the shell when the line came as an argument.
    const auto comesAsArgument = [](std::size_t length) {
        const std::string command = "echo ${BASH_EXECUTION_STRING+argument} # ";
        const Result result = run(command + std::string(length - command.size(), 'x'));
        EXPECT_EQ(result.status, 0) << length;
        return result.output == "argument\n";
    };
    std::size_t argument = 1000;
    std::size_t file = 1'000'000;
    ASSERT_TRUE(comesAsArgument(argument));
    ASSERT_FALSE(comesAsArgument(file));
    while (file - argument > 1) {
        const std::size_t middle = (file + argument) / 2;
        (comesAsArgument(middle) ? argument : file) = middle;
    }
    EXPECT_GT(argument, 100'000U);
}

// ---- the scheduler's name

class SchedulerTest : public FileUtilsTest {
protected:
    static constexpr char kLine[] = "/bin/echo noop > /sys/block/sdb/queue/scheduler";

    // What `line` leaves in the scheduler file of sdb that says `schedulers` before.
    static void expectWritten(const std::string& schedulers, const std::string& line, const std::string& after) {
        const Ending ending = runInChild([&] {
            if (!replaceDirectory("/sys", false)) _exit(77);
            std::filesystem::create_directories("/sys/block/sdb/queue");
            std::filesystem::create_directories("/sys/block/sdc/queue");
            writeFile("/sys/block/sdb/queue/scheduler", schedulers);
            writeFile("/sys/block/sdc/queue/scheduler", "[noop] deadline\n");
            EXPECT_EQ(run(line).status, 0);
            EXPECT_EQ(contentOf("/sys/block/sdb/queue/scheduler"), after) << line;
        });
        if (ending.status == 77) GTEST_SKIP() << "no mounts of one's own here";
        EXPECT_EQ(ending.status, 0) << ending.diagnostics;
    }
};

TEST_F(SchedulerTest, IsNoneOnKernelsThatCallItSo) {
    expectWritten("[none] mq-deadline kyber bfq\n", kLine, "none\n");
    expectWritten("[mq-deadline] kyber none\n", kLine, "none\n");
    expectWritten("none\n", kLine, "none\n");
    expectWritten("mq-deadline [none]", kLine, "none\n");
}

TEST_F(SchedulerTest, IsNoopOnKernelsThatCallItSo) {
    expectWritten("noop [deadline] cfq\n", kLine, "noop\n");
    expectWritten("[noop]\n", kLine, "noop\n");
    expectWritten("none [noop]\n", kLine, "noop\n");
}

TEST_F(SchedulerTest, IsLeftAloneWhenTheQueueKnowsNeither) {
    expectWritten("[mq-deadline] kyber\n", kLine, "noop\n");
    expectWritten("[nonesuch] anonymous\n", kLine, "noop\n");
    expectWritten("", kLine, "noop\n");
}

TEST_F(SchedulerTest, LooksAtTheQueueThatIsWritten) {
    expectWritten("[none]\n", "echo noop >/sys/block/sdb/queue/scheduler", "none\n");
    expectWritten("[none]\n", "/bin/echo noop > /sys/block/sdc/queue/scheduler", "[none]\n");
    expectWritten("[none]\n",
                  "echo noop > /sys/block/sdb/queue/scheduler; grep -x noop /sys/block/sdc/queue/scheduler ||"
                  " echo noop > /sys/block/sdc/queue/scheduler; grep -x noop /sys/block/sdc/queue/scheduler",
                  "none\n");
}

TEST_F(SchedulerTest, OtherLinesStayAsTheyAre) {
    expectWritten("[none]\n", "echo deadline > /sys/block/sdb/queue/scheduler", "deadline\n");
    expectWritten("[none]\n", "echo noop", "[none]\n");
    EXPECT_EQ(run("echo noop > /tmp/noop; cat /tmp/noop").output, "noop\n");
    EXPECT_EQ(run("echo noop noop; echo 'noop > /sys/block/'").output, "noop noop\nnoop > /sys/block/\n");
    EXPECT_EQ(run("echo noop > ").status, 2);
}

TEST_F(SchedulerTest, QueueThatIsNotThereFails) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(run("/bin/echo noop > /sys/block/sdnone/queue/scheduler").status, 1);
    testing::internal::GetCapturedStderr();
}

// ---- lines that take too long

class LimitTest : public FileUtilsTest {
protected:
    void SetUp() override {
        FileUtilsTest::SetUp();
        // Long enough for a shell to get as far as its waiting, on a busy machine too.
        LineLimits::ofProcess().line = std::chrono::milliseconds(1200);
    }
    void TearDown() override {
        LineLimits::ofProcess() = LineLimits();
        FileUtilsTest::TearDown();
    }

    static Result runQuietly(const std::string& line) {
        testing::internal::CaptureStderr();
        const Result result = run(line);
        said() = testing::internal::GetCapturedStderr();
        return result;
    }
    // Of a line that makes "/tmp/ready" on its way: once more, with twice the time, as long as a busy machine has not let it
    // get that far.
    static Result runUntilReady(const std::string& line) {
        for (;;) {
            std::filesystem::remove("/tmp/ready");
            Result result = runQuietly(line);
            std::chrono::milliseconds& limit = LineLimits::ofProcess().line;
            if (std::filesystem::exists("/tmp/ready") || limit > std::chrono::seconds(60)) return result;
            limit *= 2;
        }
    }
    static std::string& said() {
        static std::string text;
        return text;
    }
    // The process whose number the line has written into the file.
    static pid_t writtenTo(const std::string& file) { return std::atoi(contentOf(file).c_str()); }
    static bool isThere(pid_t process) {
        const std::string state = statusOf(process, "State");
        return process > 0 && !state.empty() && state[0] != 'Z';
    }
};

TEST_F(LimitTest, AreAMinuteAnHourAndSomeSeconds) {
    const LineLimits limits;
    EXPECT_EQ(limits.line, std::chrono::seconds(60));
    EXPECT_EQ(limits.fileSystemLine, std::chrono::hours(1));
    EXPECT_EQ(limits.grace, std::chrono::seconds(5));
    EXPECT_EQ(limits.end, std::chrono::seconds(2));
}

TEST_F(LimitTest, LineThatHangsIsEnded) {
    const std::string line = "echo before; sleep 1000 & echo $! >/tmp/tool; >/tmp/ready; wait; echo behind";
    const Result result = runUntilReady(line);
    EXPECT_EQ(result.status, 124);
    EXPECT_EQ(result.output, "before\n");
    const std::string limit = std::to_string(LineLimits::ofProcess().line.count());
    EXPECT_EQ(said(), "Media Manager ended a shell command that took more than " + limit + " ms: " + line + "\n");
    EXPECT_FALSE(isThere(writtenTo("/tmp/tool")));
    testing::internal::CaptureStderr();
    EXPECT_EQ(FileUtils().executeCommand("sleep 1000 | cat"), 124);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Media Manager ended a shell command that took more than " + limit + " ms: sleep 1000 | cat\n");
}

TEST_F(LimitTest, LineHasTimeToEndByItself) {
    const Result result = runUntilReady("trap 'echo bye; exit 0' TERM; >/tmp/ready; sleep 1000 & wait");
    EXPECT_EQ(result.output, "bye\n");
    EXPECT_EQ(result.status, 124) << "not the success that it speaks of";
}

TEST_F(LimitTest, WhoDoesNotListenIsKilled) {
    LineLimits::ofProcess().grace = std::chrono::milliseconds(100);
    for (const char* file : {"/tmp/shell", "/tmp/tool"}) unlink(file);
    EXPECT_EQ(runUntilReady("trap '' TERM; echo $$ >/tmp/shell; >/tmp/ready; sleep 1000").status, 124);
    EXPECT_GT(writtenTo("/tmp/shell"), 0);
    EXPECT_FALSE(isThere(writtenTo("/tmp/shell")));
    // The shell goes at once; what it has started does not.
    EXPECT_EQ(
        runUntilReady("(trap '' TERM; echo $BASHPID >/tmp/tool; >/tmp/ready; while :; do sleep 1000; done); :").status, 124);
    EXPECT_GT(writtenTo("/tmp/tool"), 0);
    EXPECT_FALSE(isThere(writtenTo("/tmp/tool")));
}

TEST_F(LimitTest, StoppedLineIsEndedToo) {
    LineLimits::ofProcess().grace = std::chrono::seconds(60);
    EXPECT_EQ(runUntilReady("trap 'echo bye; exit' TERM; >/tmp/ready; kill -STOP $$").output, "bye\n");
}

TEST_F(LimitTest, TalkativeLineIsEndedToo) {
    const Result result = runQuietly("yes; :");
    EXPECT_EQ(result.status, 124);
    EXPECT_EQ(result.output.size(), 65535U);
    // One that must get rid of what it has to say before it can end.
    EXPECT_EQ(runUntilReady("trap 'head -c 300000 /dev/zero | tr \\\\0 x; exit' TERM; >/tmp/ready; sleep 1000 & wait")
                  .output.size(),
              65535U);
}

TEST_F(LimitTest, CheckingAndMakingFileSystemsMayTakeLonger) {
    LineLimits::ofProcess().fileSystemLine = std::chrono::seconds(60);
    for (const char* tool : {"fsck.hfsplus", "mkfs"}) {
        const std::string path = std::string(kMedium) + "/" + tool;
        writeFile(path, "sleep 1.5\n");
        chmod(path.c_str(), 0755);
        EXPECT_EQ(runQuietly(path + " -q /dev/null 2>&1").status, 0) << tool;
        EXPECT_EQ(runQuietly("cd " + std::string(kMedium) + "; PATH=/bin:. " + tool + " /dev/null").status, 0);
    }
    for (const char* line : {"sleep 1000; rm -f \"mkfs.mov\"", "sleep 1000; : notmkfs", "sleep 1000; : x.fsck"})
        EXPECT_EQ(runQuietly(line).status, 124) << line;
    LineLimits::ofProcess() = {.line = std::chrono::seconds(60), .fileSystemLine = std::chrono::milliseconds(1200)};
    EXPECT_EQ(runQuietly("sleep 1000; fsck.hfsplus /dev/sdb2").status, 124);
    EXPECT_EQ(runQuietly("fsck() { sleep 1000; }; fsck").status, 124);
}

TEST_F(LimitTest, WhatIsLeftInTheBackgroundIsNotCounted) {
    EXPECT_EQ(runQuietly("sleep 1000 & echo $! >/tmp/endpoint").status, 0);
    const pid_t endpoint = writtenTo("/tmp/endpoint");
    // The other line takes longer than the first one might have.
    EXPECT_EQ(runQuietly("sleep 1000").status, 124);
    EXPECT_TRUE(isThere(endpoint));
    kill(endpoint, SIGKILL);
}

TEST_F(LimitTest, WhatIsSaidOfALineIsOneShortLine) {
    runQuietly("sleep 1000 # \x1b[2J\n" + std::string(100'000, 'x'));
    EXPECT_EQ(said(), "Media Manager ended a shell command that took more than 1200 ms: sleep 1000 # ?[2J?" +
                          std::string(200 - 18, 'x') + "...\n");
}

TEST_F(LimitTest, WhatCannotBeEndedIsLeftBehind) {
    const Ending ending = runInChild([] {
        LineLimits::ofProcess().grace = LineLimits::ofProcess().end = std::chrono::milliseconds(100);
        // As good as a process that hangs in the kernel.
        if (!makeSystemCallsFail({SYS_kill}, EPERM)) _exit(77);
        EXPECT_EQ(FileUtils().executeCommand("sleep 4; :"), 124);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "it is still there";
        // Its status is taken when it has ended after all.
        EXPECT_TRUE(eventually([] {
            FileUtils().executeCommand("true");
            siginfo_t ended{};
            return waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == -1;
        }));
    });
    if (ending.status == 77) GTEST_SKIP() << "system calls cannot be filtered here";
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.diagnostics,
              "Media Manager left a shell command behind that took more than 1200 ms: sleep 4; :\n");
}

// ---- lines that outlive the daemon

class LeftLineTest : public LimitTest {
protected:
    void SetUp() override {
        if (kEmulated) GTEST_SKIP() << "what /proc says of a process is the emulator's";
        LimitTest::SetUp();
        LineLimits::ofProcess().line = std::chrono::seconds(60);
        for (const char* file : {"/tmp/shell", "/tmp/tool"}) unlink(file);
        run("true"); // this process has looked for left lines; those that it forks have not
    }

    // A daemon that runs the line; returns when the sleep runs whose number the line has written into /tmp/tool.
    static pid_t startDaemon(const std::string& line) {
        const pid_t daemon = fork();
        if (daemon == 0) _exit(FileUtils().executeCommand("echo $$ >/tmp/shell; " + line));
        EXPECT_TRUE(eventually([] { return isSleep(writtenTo("/tmp/tool")); }));
        return daemon;
    }
    static bool isSleep(pid_t process) {
        return process > 0 && contentOf("/proc/" + std::to_string(process) + "/comm") == "sleep\n";
    }
    static void killDaemon(pid_t daemon) {
        kill(daemon, SIGKILL);
        EXPECT_EQ(waitpid(daemon, nullptr, 0), daemon);
    }
    // What the next daemon says when it runs its first line.
    static std::string startNext() {
        const Ending ending = runInChild([] { EXPECT_EQ(run("echo x").output, "x\n"); });
        EXPECT_EQ(ending.status, 0) << ending.diagnostics;
        return ending.diagnostics;
    }
    static void leaveRecord(const std::string& folder, mode_t mode, const std::string& text) {
        ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
        writeFile(folder + "/process", text);
        ASSERT_EQ(chmod(folder.c_str(), mode), 0);
    }

    // The tool is not the shell's last command, so that the shell waits for it.
    static constexpr char kLine[] = "sleep 1000 & echo $! >/tmp/tool; wait; :";
};

TEST_F(LeftLineTest, IsEndedByTheNextDaemon) {
    killDaemon(startDaemon(kLine));
    const pid_t tool = writtenTo("/tmp/tool");
    EXPECT_TRUE(isThere(tool)) << "a shell's end does not end what it has started";
    EXPECT_EQ(startNext(), "Media Manager ended what an earlier run has left running: bash, sleep\n");
    EXPECT_FALSE(isThere(tool));
    EXPECT_FALSE(isThere(writtenTo("/tmp/shell")));
}

TEST_F(LeftLineTest, IsEndedWhenItsShellIsGone) {
    const pid_t daemon = startDaemon("trap '' TERM; " + std::string(kLine));
    kill(daemon, SIGSTOP); // it must not see the shell's end
    kill(writtenTo("/tmp/shell"), SIGKILL);
    killDaemon(daemon);
    const pid_t tool = writtenTo("/tmp/tool");
    ASSERT_TRUE(eventually([] { return !isThere(writtenTo("/tmp/shell")); }));
    EXPECT_TRUE(isThere(tool));
    LineLimits::ofProcess().grace = std::chrono::milliseconds(100); // it does not listen
    EXPECT_EQ(startNext(), "Media Manager ended what an earlier run has left running: sleep\n");
    EXPECT_FALSE(isThere(tool));
}

TEST_F(LeftLineTest, IsEndedOnlyOnceItsDaemonIsGone) {
    const pid_t daemon = startDaemon(kLine);
    EXPECT_EQ(startNext(), "");
    EXPECT_TRUE(isThere(writtenTo("/tmp/tool")));
    killDaemon(daemon);
    EXPECT_NE(startNext(), "");
}

TEST_F(LeftLineTest, LineThatIsOverLeavesNothingToEnd) {
    // Such as the endpoint of FireWire.
    const pid_t daemon = startDaemon("sleep 1000 & echo $! >/tmp/tool");
    waitpid(daemon, nullptr, 0);
    EXPECT_EQ(startNext(), "");
    const pid_t tool = writtenTo("/tmp/tool");
    EXPECT_TRUE(isThere(tool));
    kill(tool, SIGKILL);
}

TEST_F(LeftLineTest, FolderOfALineThatIsOverGoes) {
    const pid_t daemon = startDaemon(kLine);
    killDaemon(daemon);
    kill(-writtenTo("/tmp/shell"), SIGKILL);
    ASSERT_TRUE(eventually([] { return !isThere(writtenTo("/tmp/shell")) && !isThere(writtenTo("/tmp/tool")); }));
    EXPECT_EQ(startNext(), "");
}

TEST_F(LeftLineTest, StrangersWithARecordedNumberAreLeftAlone) {
    // Two groups that the record speaks of: one whose leader came later, one without a leader and with another
    // environment than ours.
    const pid_t leader = fork();
    if (leader == 0) {
        setsid();
        for (;;) pause();
    }
    const pid_t gone = fork();
    if (gone == 0) {
        setsid();
        clearenv();
        char name[] = "sleep";
        char time[] = "1000";
        char* const arguments[] = {name, time, nullptr};
        const pid_t member = fork();
        if (member == 0) execv("/bin/sleep", arguments);
        writeFile("/tmp/tool", std::to_string(member));
        _exit(0);
    }
    waitpid(gone, nullptr, 0);
    const pid_t member = writtenTo("/tmp/tool");
    ASSERT_TRUE(eventually([&] { return isSleep(member); }));
    ASSERT_TRUE(eventually([&] { return getsid(leader) == leader; }));
    leaveRecord("/run/mediad.aaaaaa", 0700, "999999 1 " + std::to_string(leader) + " 1\n");
    leaveRecord("/run/mediad.bbbbbb", 0700, "999999 1 " + std::to_string(gone) + " 1\n");
    EXPECT_EQ(startNext(), "");
    EXPECT_TRUE(isThere(leader));
    EXPECT_TRUE(isThere(member));
    kill(leader, SIGKILL);
    kill(member, SIGKILL);
    waitpid(leader, nullptr, 0);
}

TEST_F(LeftLineTest, RecordThatAnybodyCouldHaveWrittenIsNotRead) {
    killDaemon(startDaemon(kLine));
    const pid_t tool = writtenTo("/tmp/tool");
    std::string folder;
    for (const std::string& name : entriesOf("/run"))
        if (name.rfind("mediad.", 0) == 0) folder = "/run/" + name;
    const std::string record = contentOf(folder + "/process");
    std::filesystem::remove_all(folder);
    leaveRecord("/tmp/mediad.open", 0777, record);
    leaveRecord("/tmp/real", 0700, record);
    ASSERT_EQ(symlink("/tmp/real", "/tmp/mediad.link"), 0);
    leaveRecord("/tmp/mediad.cut", 0700, record.substr(0, record.size() - 1));
    leaveRecord("/tmp/mediad.none", 0700, "");
    leaveRecord("/tmp/mediad.text", 0700, "a b c d\n");
    leaveRecord("/tmp/mediad.init", 0700, "999999 1 1 1\n");
    EXPECT_EQ(startNext(), "");
    EXPECT_TRUE(isThere(tool));
    leaveRecord("/tmp/mediad.good", 0700, record);
    EXPECT_NE(startNext(), "");
    EXPECT_FALSE(isThere(tool));
    for (const char* name :
         {"mediad.open", "mediad.link", "real", "mediad.cut", "mediad.none", "mediad.text", "mediad.init"})
        std::filesystem::remove_all(std::string("/tmp/") + name);
}

TEST_F(LeftLineTest, RecordTellsWhoseLineItIs) {
    std::istringstream record(run("cat ../process; echo $$").output);
    int owner = 0;
    int shell = 0;
    int self = 0;
    std::string ownerTime;
    std::string shellTime;
    record >> owner >> ownerTime >> shell >> shellTime >> self;
    EXPECT_EQ(owner, getpid());
    EXPECT_EQ(shell, self);
    EXPECT_GT(std::stoll(shellTime), 0);
    EXPECT_GE(std::stoll(shellTime), std::stoll(ownerTime));
}

TEST_F(LeftLineTest, ShellThatIsNotToldToBeginDoesNothing) {
    // As when the daemon is killed before it has written the record.
    const Ending ending = runInChild([] {
        if (!makeSystemCallsFail({SYS_sendto}, EPERM)) _exit(77);
        EXPECT_EQ(run("echo done; echo done >/tmp/medium/done").output, "");
    });
    if (ending.status == 77) GTEST_SKIP() << "system calls cannot be filtered here";
    EXPECT_EQ(ending.status, 0);
    EXPECT_FALSE(exists("/tmp/medium/done"));
}

// ---- failures and load

TEST_F(FileUtilsTest, FailingForkGives127AndOneLine) {
    const Ending ending = runInChild([] {
        const std::initializer_list<long> calls{
            SYS_clone,
#ifdef SYS_clone3
            SYS_clone3,
#endif
#ifdef SYS_fork
            SYS_fork,
#endif
#ifdef SYS_vfork
            SYS_vfork,
#endif
        };
        const std::size_t descriptors = openDescriptors();
        if (!makeSystemCallsFail(calls, EAGAIN)) _exit(77);
        char buffer[] = "before";
        EXPECT_EQ(FileUtils().executeCommand("echo x", buffer, sizeof buffer), 127);
        EXPECT_STREQ(buffer, "");
        EXPECT_EQ(openDescriptors(), descriptors);
        for (const std::string& name : entriesOf("/run")) EXPECT_NE(name.rfind("mediad.", 0), 0U);
    });
    if (ending.status == 77) GTEST_SKIP() << "system calls cannot be filtered here";
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.diagnostics, "Media Manager cannot run a shell command: Resource temporarily unavailable\n");
}

TEST_F(FileUtilsTest, MissingShellGives127) {
    const Ending ending = runInChild([] {
        if (!replaceFile("/bin/bash", "/dev/null")) _exit(77);
        EXPECT_EQ(run("echo x").status, 127);
    });
    if (ending.status == 77) GTEST_SKIP() << "no mounts of one's own here";
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.diagnostics,
              kEmulated ? "" : "Media Manager cannot run a shell command: Permission denied\n");
}

TEST_F(FileUtilsTest, NoDescriptorsLeftGives127AndOneLine) {
    const Ending ending = runInChild([] {
        FileUtils fileUtils;
        fileUtils.executeCommand("true"); // the sanitizer looks at an object through a pipe, the first time
        std::vector<int> all;
        for (int file = 0; (file = open("/dev/null", O_RDONLY)) != -1;) all.push_back(file);
        char buffer[] = "before";
        const int status = fileUtils.executeCommand("echo x", buffer, sizeof buffer);
        for (const int file : all) close(file);
        EXPECT_EQ(status, 127);
        EXPECT_STREQ(buffer, "");
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.diagnostics, "Media Manager cannot run a shell command: Too many open files\n");
}

TEST_F(FileUtilsTest, StatusThatSomebodyElseTookIs127AndOneLine) {
    const Ending ending = runInChild([] {
        std::signal(SIGCHLD, SIG_IGN);
        char buffer[16];
        EXPECT_EQ(FileUtils().executeCommand("echo x", buffer, sizeof buffer), 127);
        EXPECT_STREQ(buffer, "x\n");
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.diagnostics, "Media Manager lost the exit status of a shell command: No child processes\n");
}

TEST_F(FileUtilsTest, SignalsDoNotDisturb) {
    expectDoneInChild([] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr); // without SA_RESTART
        const itimerval often{{0, 500}, {0, 500}};
        setitimer(ITIMER_REAL, &often, nullptr);
        for (int i = 0; i < 20; ++i) {
            const Result result = run("head -c 60000 /dev/zero | tr '\\0' x; sleep 0.005; exit 11");
            EXPECT_EQ(result.status, 11);
            EXPECT_EQ(result.output.size(), 60000U);
            EXPECT_EQ(run("# " + std::string(200000, 'x') + "\nsleep 0.005; exit 12").status, 12);
            EXPECT_EQ(FileUtils().executeCommand("sleep 0.005; exit 13"), 13);
        }
    });
}

TEST_F(FileUtilsTest, ThreadsDoNotDisturbOneAnother) {
    // The emulator's own locks are not put right in a child that is forked while other threads run.
    if (kEmulated) GTEST_SKIP() << "forking from several threads does not work under this emulator";
    constexpr int kThreads = 8;
    constexpr int kRuns = 15;
    FileUtils shared;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < kRuns; ++i) {
                const std::string word = std::to_string(thread * 100 + i);
                char buffer[64];
                // Other threads' pipes must not be kept open by this one's shell: that would hold them up.
                const int status = shared.executeCommand(
                    "echo " + word + "; >here; ls; for f in $(/bin/ls /proc/self/fd); do printf $f; done; exit " +
                        std::to_string(i),
                    buffer, sizeof buffer);
                if (status != i || buffer != word + "\nhere\n0123") ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(FileUtilsTest, KeepsNoDescriptors) {
    const std::size_t before = openDescriptors();
    for (int i = 0; i < 10; ++i) {
        run("echo x");
        run("# " + std::string(200000, 'x') + "\necho x");
        FileUtils().executeCommand("true");
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(FileUtilsInterface, IsDestroyedThroughItsBase) {
    static bool destroyed;
    struct Derived : FileUtils {
        ~Derived() override { destroyed = true; }
        int executeCommand(const std::string&, char*, std::size_t) override { return 5; }
    };
    FileUtils* const fileUtils = new Derived;
    EXPECT_EQ(fileUtils->executeCommand("x"), 5);
    delete fileUtils;
    EXPECT_TRUE(destroyed);
}

} // namespace
