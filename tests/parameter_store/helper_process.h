#ifndef MEDIAD_TESTS_HELPER_PROCESS_H
#define MEDIAD_TESTS_HELPER_PROCESS_H

// The test's end of store_helper.cpp, and of any other program that it starts.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

inline constexpr std::chrono::seconds kPatience{60};

// Asks again until it is so; false when patience is over.
inline bool eventually(const std::function<bool()>& isSo) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!isSo()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        usleep(2000);
    }
    return true;
}

class Program {
public:
    // Standard error goes to a file, or to `standardError`, which said() then knows nothing of.
    explicit Program(const std::string& path, int standardError = -1) {
        static int number = 0;
        _errorPath = "/tmp/stderr-" + std::to_string(++number);
        int input[2];
        int output[2];
        EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(output, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], 0);
        posix_spawn_file_actions_adddup2(&actions, output[1], 1);
        if (standardError != -1)
            posix_spawn_file_actions_adddup2(&actions, standardError, 2);
        else
            posix_spawn_file_actions_addopen(&actions, 2, _errorPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND,
                                             0600);
        char* arguments[] = {const_cast<char*>(path.c_str()), nullptr};
        EXPECT_EQ(posix_spawn(&_process, path.c_str(), &actions, nullptr, arguments, environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        _input = input[1];
        _output = output[0];
    }

    ~Program() {
        if (_process != -1) {
            ::kill(_process, SIGKILL);
            waitpid(_process, nullptr, 0);
        }
        close(_input);
        close(_output);
        // A killed program has no exit status to tell of it.
        const std::string error = said();
        EXPECT_TRUE(error.find("Sanitizer") == std::string::npos && error.find("runtime error") == std::string::npos)
            << error;
    }

    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void signal(int number) const { ::kill(_process, number); }
    // All of its threads stand still when this returns.
    void stop() const {
        signal(SIGSTOP);
        int status = 0;
        EXPECT_EQ(waitpid(_process, &status, WUNTRACED), _process);
        EXPECT_TRUE(WIFSTOPPED(status));
    }
    void goOn() const { signal(SIGCONT); }
    pid_t process() const { return _process; }

    // Whether all of its threads sleep in the kernel, waiting for something.
    bool isAsleep() const {
        const std::string tasks = "/proc/" + std::to_string(_process) + "/task";
        for (const auto& task : std::filesystem::directory_iterator(tasks)) {
            std::ifstream status(task.path() / "status");
            const std::string all{std::istreambuf_iterator<char>(status), {}};
            if (all.find("\nState:\tS") == std::string::npos) return false;
        }
        return true;
    }

    // The exit status, 128 + the signal, or -1 when it does not end.
    int end() {
        int status = 0;
        if (!eventually([&] { return waitpid(_process, &status, WNOHANG) == _process; })) return -1;
        _process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    void tell(const std::string& command) const {
        const std::string line = command + "\n";
        ASSERT_EQ(write(_input, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }

    // The next answer; the events before it are put aside.
    std::string answer() {
        for (;;) {
            std::string line;
            if (!readLine(line)) return "(no answer; standard error: " + said() + ")";
            if (!line.starts_with("event ")) return line;
            _events.push_back(line.substr(6));
        }
    }

    std::string ask(const std::string& command) {
        tell(command);
        return answer();
    }

    // The events so far, once there are `count`.
    const std::vector<std::string>& events(std::size_t count) {
        std::string line;
        while (_events.size() < count && readLine(line)) {
            EXPECT_TRUE(line.starts_with("event ")) << line;
            _events.push_back(line.substr(6));
        }
        return _events;
    }
    void forgetEvents() { _events.clear(); }

    // What it has written to standard error.
    std::string said() const {
        std::ifstream file(_errorPath);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    bool readLine(std::string& line) {
        for (;;) {
            const std::size_t end = _read.find('\n');
            if (end != std::string::npos) {
                line = _read.substr(0, end);
                _read.erase(0, end + 1);
                return true;
            }
            pollfd descriptor{_output, POLLIN, 0};
            if (poll(&descriptor, 1, 1000 * static_cast<int>(kPatience.count())) <= 0) return false;
            char piece[65536];
            const ssize_t received = read(_output, piece, sizeof piece);
            if (received <= 0) return false;
            _read.append(piece, static_cast<std::size_t>(received));
        }
    }

    pid_t _process = -1;
    int _input = -1;
    int _output = -1;
    std::string _errorPath;
    std::string _read;
    std::vector<std::string> _events;
};

// A store_helper that has its descriptors and its Config.
class Helper : public Program {
public:
    enum class Starts { Bare, Attached, Hosting };

    explicit Helper(Starts starts, int standardError = -1) : Program(STORE_HELPER, standardError) {
        if (starts == Starts::Bare) return;
        EXPECT_EQ(ask("create"), "ok");
        EXPECT_EQ(ask(starts == Starts::Hosting ? "open udp 0 1" : "open udp 0 0"), "ok");
    }

    void listen() {
        EXPECT_EQ(ask("channel multicast://127.0.0.1:63110/configid=0"), "ok");
        EXPECT_EQ(ask("listen"), "ok");
    }
};

#endif
