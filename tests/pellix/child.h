#ifndef MEDIAD_TESTS_PELLIX_CHILD_H
#define MEDIAD_TESTS_PELLIX_CHILD_H

// Pieces of a test that need a process of their own.

#include <sys/types.h>

#include <functional>
#include <string>

// Under an emulator of user programs: system calls cannot be filtered, what /proc says about signals is the emulator's,
// a process cannot become the parent of orphans, and a failing exec looks like a program that ended with 127.
#ifdef MEDIAD_TEST_EMULATED
inline constexpr bool kEmulated = true;
#else
inline constexpr bool kEmulated = false;
#endif

// What became of a process, and what it said on standard error.
struct Ending {
    int status; // exit status, 128 + signal when one ended it
    std::string diagnostics;
};

// Runs `body` in a child process and waits for its end. The child's failed expectations show in the test's output and
// make its status 99; otherwise its status is the one that `body` ends it with, or 0.
Ending runInChild(const std::function<void()>& body);

// As EXPECT_EQ(0, ...), with what the child said.
void expectDoneInChild(const std::function<void()>& body);

// Waits until `condition` holds; false when it does not within half a minute.
bool eventually(const std::function<bool()>& condition);

// Puts an empty file system in place of `directory`, for the calling process only (single-threaded). False when the
// machine does not allow it.
bool replaceDirectory(const char* directory, bool readOnly);
// The same with one file; what it shows is `replacement`.
bool replaceFile(const char* file, const char* replacement);

// From now on the system call fails with `error` in this process. False when the machine does not allow it.
bool makeSystemCallsFail(std::initializer_list<long> numbers, int error);

std::string contentOf(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
bool exists(const std::string& path);

// The value behind `key` in /proc/<process>/status.
std::string statusOf(pid_t process, const std::string& key);

#endif
