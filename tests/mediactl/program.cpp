#include "program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kDeadline{60}; // generous: emulated and sanitized builds share two processors

void closeIfOpen(int& descriptor) {
    if (descriptor >= 0) close(descriptor);
    descriptor = -1;
}

} // namespace

Program::Program(std::vector<std::string> arguments, Output kind) {
    int input[2] = {-1, -1};
    int output[2] = {-1, -1};
    int errors[2] = {-1, -1};
    bool good = pipe2(input, O_CLOEXEC) == 0 && pipe2(errors, O_CLOEXEC) == 0;
    if (kind == Output::Pipe) {
        good = good && pipe2(output, O_CLOEXEC) == 0;
    } else {
        output[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        good = good && grantpt(output[0]) == 0 && unlockpt(output[0]) == 0;
        output[1] = good ? open(ptsname(output[0]), O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
        good = output[1] >= 0;
    }
    if (!good) abort();

    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    _pid = fork();
    if (_pid == 0) {
        const bool console = kind == Output::Console;
        dup2(console ? output[1] : input[0], STDIN_FILENO);
        dup2(output[1], STDOUT_FILENO);
        dup2(console ? output[1] : errors[1], STDERR_FILENO);
        // Whoever started the tests may have had them ignored.
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, SIG_DFL);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(input[0]);
    close(output[1]);
    close(errors[1]);
    _out = output[0];
    _input = input[1];
    _console = kind == Output::Console;
    _err = errors[0];
}

Program::~Program() {
    if (!_status && _pid > 0) {
        ::kill(_pid, SIGKILL);
        waitpid(_pid, nullptr, 0);
    }
    closeIfOpen(_input);
    closeIfOpen(_out);
    closeIfOpen(_err);
}

bool Program::readSome(int milliseconds) {
    pollfd descriptors[2] = {{_out, POLLIN, 0}, {_err, POLLIN, 0}};
    if (_out < 0 && _err < 0) return false;
    if (poll(descriptors, 2, milliseconds) <= 0) return true;
    const auto take = [](const pollfd& ready, int& descriptor, std::string& stream) {
        if (ready.revents == 0) return;
        char buffer[65536];
        const ssize_t size = read(descriptor, buffer, sizeof buffer);
        if (size > 0)
            stream.append(buffer, static_cast<std::size_t>(size));
        else
            closeIfOpen(descriptor); // a terminal whose other end is closed gives an error instead of an end
    };
    take(descriptors[0], _out, _output);
    take(descriptors[1], _err, _errors);
    return true;
}

bool Program::waitFor(std::string& stream, std::size_t& seen, const std::string& text) {
    const Clock::time_point end = Clock::now() + kDeadline;
    for (;;) {
        const std::size_t found = stream.find(text, seen);
        if (found != std::string::npos) {
            seen = found + text.size();
            return true;
        }
        if (Clock::now() >= end || !readSome(100)) return false;
    }
}

bool Program::waitForOutput(const std::string& text) { return waitFor(_output, _outputSeen, text); }

bool Program::waitForErrors(const std::string& text) { return waitFor(_errors, _errorsSeen, text); }

void Program::readWhatIsThere() {
    const auto waiting = [this] {
        pollfd descriptors[2] = {{_out, POLLIN, 0}, {_err, POLLIN, 0}};
        return poll(descriptors, 2, 0) > 0;
    };
    while ((_out >= 0 || _err >= 0) && waiting()) readSome(0);
}

int Program::wait() {
    const Clock::time_point end = Clock::now() + kDeadline;
    while (!_status && Clock::now() < end) {
        // Not the end of the pipes: something that the program left behind may hold them open.
        int status = 0;
        const bool ended = waitpid(_pid, &status, WNOHANG) == _pid;
        readWhatIsThere();
        if (ended)
            _status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        else if (!readSome(5))
            poll(nullptr, 0, 5); // both streams are closed, the program is about to end
    }
    return _status.value_or(-1);
}

void Program::kill(int signal) { ::kill(_pid, signal); }

void Program::stop() {
    ::kill(_pid, SIGSTOP);
    int status = 0;
    if (waitpid(_pid, &status, WUNTRACED) != _pid || !WIFSTOPPED(status)) abort();
}

void Program::type(const std::string& text) {
    const ssize_t size = static_cast<ssize_t>(text.size());
    if (write(_console ? _out : _input, text.data(), text.size()) != size) abort();
}

void Program::setTerminalSize(unsigned short rows, unsigned short columns) {
    const winsize size{rows, columns, 0, 0};
    if (ioctl(_out, TIOCSWINSZ, &size) != 0) abort();
}

void Program::closeInput() { closeIfOpen(_input); }

std::vector<std::string> commandLine(const std::string& program, std::vector<std::string> arguments) {
    std::vector<std::string> result;
    std::istringstream launcher(LAUNCHER);
    for (std::string word; launcher >> word;) result.push_back(word);
    result.push_back(program);
    result.insert(result.end(), arguments.begin(), arguments.end());
    return result;
}

namespace {

Result run(std::vector<std::string> arguments) {
    Program program(std::move(arguments));
    const int status = program.wait();
    return {status, program.output(), program.errors()};
}

} // namespace

Result mediactl(std::vector<std::string> arguments) { return run(commandLine(MEDIACTL, std::move(arguments))); }

Result mediactlAsNobody(std::vector<std::string> arguments) {
    // The build tree may lie in a folder that is its owner's alone: the program must be found all the same.
    std::vector<std::string> line{"/usr/bin/setpriv",
                                  "--reuid=65534",
                                  "--regid=65534",
                                  "--clear-groups",
                                  "--inh-caps=+dac_read_search",
                                  "--ambient-caps=+dac_read_search"};
    for (std::string& word : commandLine(MEDIACTL, std::move(arguments))) line.push_back(std::move(word));
    return run(std::move(line));
}
