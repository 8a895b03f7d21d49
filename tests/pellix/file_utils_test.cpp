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
