#include "child.h"

#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace {

// Where lines are counted, each library writes its counts in its own exit handler.
[[noreturn]] void leave(int status) {
#ifdef MEDIAD_TEST_COVERAGE
    std::exit(status);
#else
    _exit(status);
#endif
}


// A mount namespace of this process's own; an ordinary user gets one with a user namespace around it.
bool ownMounts() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWNS) == -1) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) == -1) return false;
        writeFile("/proc/self/setgroups", "deny");
        writeFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        writeFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

} // namespace

Ending runInChild(const std::function<void()>& body) {
    constexpr int kFailedExpectation = 99;
    std::FILE* const diagnostics = std::tmpfile();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(fileno(diagnostics), STDERR_FILENO);
        body();
        std::fflush(nullptr);
        leave(testing::Test::HasFailure() ? kFailedExpectation : 0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    Ending ending{WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status), {}};
    std::rewind(diagnostics);
    for (int c = 0; (c = std::fgetc(diagnostics)) != EOF;) ending.diagnostics.push_back(static_cast<char>(c));
    std::fclose(diagnostics);
    return ending;
}

void expectDoneInChild(const std::function<void()>& body) {
    const Ending ending = runInChild(body);
    EXPECT_EQ(ending.status, 0) << ending.diagnostics;
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool replaceDirectory(const char* directory, bool readOnly) {
    return ownMounts() && mount("tmpfs", directory, "tmpfs", readOnly ? MS_RDONLY : 0, nullptr) == 0;
}

bool replaceFile(const char* file, const char* replacement) {
    return ownMounts() && mount(replacement, file, nullptr, MS_BIND, nullptr) == 0;
}

bool makeSystemCallsFail(std::initializer_list<long> numbers, int error) {
    std::vector<sock_filter> program;
    program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0)); // the number comes first in seccomp_data
    for (const long number : numbers) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content) { std::ofstream(path) << content; }

bool exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

std::string statusOf(pid_t process, const std::string& key) {
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(file, line);)
        if (line.rfind(key + ":\t", 0) == 0) return line.substr(key.size() + 2);
    return {};
}
