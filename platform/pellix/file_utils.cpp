#include "file_utils.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "child_process.h"
#include "descriptor.h"
#include "diagnostic_line.h"
#include "line_directory.h"
#include "line_limits.h"
#include "printable.h"
#include "process_group.h"
#include "spawn_settings.h"

namespace {

constexpr int kNoShell = 127;
constexpr int kTookTooLong = 124; // as timeout(1) says it
constexpr char kShell[] = "/bin/bash";

// The kernel takes 32 pages for one argument, its terminator included; pages have 4096 bytes or more.
constexpr std::size_t kLongestArgument = 32 * 4096 - 1;

// Where the shell finds a script that does not come as an argument.
constexpr int kScriptDescriptor = STDERR_FILENO + 1;
constexpr char kScriptPath[] = "/proc/self/fd/3";

// What stands before every line.
//
// The line begins when the daemon says so, with a line end on the standard input: by then it stands on record which
// process group the line is, for the next daemon to end when this one is killed. One that is killed before it can say so
// leaves a shell that ends by itself.
//
// A file called "-r" among those that "*" stands for must never become an option of rm, and must be removed like the
// others. The shell has expanded the arguments before rm sees them, so rm cannot tell an option from a file of that
// name: the one option that our lines use, a first argument that is exactly -f, is therefore the only one there is,
// everything behind it is a file, and so is a first argument that is anything else. The worst that a file's name can do
// is to be taken for -f itself.
constexpr char kPrelude[] =
    "read -r || exit; unset REPLY; exec </dev/null\n"
    "umask 022\n"
    "rm() { if [ \"${1-}\" = -f ]; then shift; command rm -f -- \"$@\"; else command rm -- \"$@\"; fi; }\n";

// The line's commands get nothing of ours, the script included.
constexpr char kCloseScript[] = "exec 3<&-\n";

char pathVariable[] = "PATH=/usr/local/bin:/bin:/usr/bin:/sbin:/usr/sbin:/usr/local/sbin";
// Messages and numbers of the tools are read by the daemon: never in the words of some language.
char localeVariable[] = "LC_ALL=C";
char* const kEnvironment[] = {pathVariable, localeVariable, nullptr};

// Whether a queue's list of schedulers, "[mq-deadline] kyber none", has `name` in it.
bool offers(std::string_view list, std::string_view name) {
    std::size_t at = 0;
    while ((at = list.find_first_not_of(" []\t\n", at)) != std::string_view::npos) {
        const std::size_t end = std::min(list.find_first_of(" []\t\n", at), list.size());
        if (list.substr(at, end - at) == name) return true;
        at = end;
    }
    return false;
}

// The pass-through scheduler is called "noop" by kernels before 5.0 and "none" by those since: a line that writes
// "noop" to a queue's scheduler file writes whichever of the two this queue knows.
std::string withThisKernelsScheduler(std::string line) {
    static constexpr std::string_view kWord = "noop";
    static constexpr std::string_view kDirectory = "/sys/block/";
    static constexpr std::string_view kFile = "/queue/scheduler";
    static constexpr std::string_view kNameEnds = "/ \t\n;&|<>()\"'`$*?[\\";

    for (std::size_t word = line.find(kWord); word != std::string::npos; word = line.find(kWord, word + 1)) {
        std::size_t at = line.find_first_not_of(" \t", word + kWord.size());
        if (at == std::string::npos || line[at] != '>') continue;
        at = line.find_first_not_of(" \t", at + 1);
        if (at == std::string::npos || line.compare(at, kDirectory.size(), kDirectory) != 0) continue;
        const std::size_t nameEnd = line.find_first_of(kNameEnds, at + kDirectory.size());
        if (nameEnd == std::string::npos || line.compare(nameEnd, kFile.size(), kFile) != 0) continue;

        std::ifstream file(line.substr(at, nameEnd + kFile.size() - at));
        std::string list;
        std::getline(file, list);
        if (!offers(list, kWord) && offers(list, "none")) line.replace(word, kWord.size(), "none");
    }
    return line;
}

// A file without a name that holds `text`.
Descriptor fileHolding(const std::string& text) {
    Descriptor file(memfd_create("command", MFD_CLOEXEC));
    std::size_t done = 0;
    while (file.isOpen() && done < text.size()) {
        const ssize_t written = write(file.get(), text.data() + done, text.size() - done);
        if (written >= 0)
            done += static_cast<std::size_t>(written);
        else if (errno != EINTR)
            return Descriptor();
    }
    return file;
}

// Starts the shell with `line`; its standard output is `output`, nothing when that is -1. It begins with the line once
// it has read a line end from `gate`. 0 and `shell`, or the error number.
int startShell(const std::string& line, int output, int gate, const std::string& directory, pid_t& shell) {
    std::string script = kPrelude + line;
    Descriptor file;
    const bool asArgument = script.size() <= kLongestArgument;
    if (!asArgument) {
        file = fileHolding(kCloseScript + script);
        if (!file.isOpen()) return errno;
    }

    SpawnSettings settings;
    posix_spawn_file_actions_t* const actions = &settings.actions;
    if (output == -1)
        settings.need(posix_spawn_file_actions_addopen(actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0));
    else
        settings.need(posix_spawn_file_actions_adddup2(actions, output, STDOUT_FILENO));
    settings.need(posix_spawn_file_actions_adddup2(actions, gate, STDIN_FILENO));
    if (!asArgument) settings.need(posix_spawn_file_actions_adddup2(actions, file.get(), kScriptDescriptor));
    // Descriptors that some library opened without close-on-exec stay here as well.
    settings.need(posix_spawn_file_actions_addclosefrom_np(actions, asArgument ? kScriptDescriptor : kScriptDescriptor + 1));
    settings.need(posix_spawn_file_actions_addchdir_np(actions, directory.c_str()));
    if (settings.error() != 0) return settings.error();

    char name[] = "bash";
    char noProfile[] = "--noprofile";
    char noStartFile[] = "--norc";
    char fromArgument[] = "-c";
    char scriptPath[sizeof kScriptPath];
    std::memcpy(scriptPath, kScriptPath, sizeof kScriptPath);
    char* const withArgument[] = {name, noProfile, noStartFile, fromArgument, script.data(), name, nullptr};
    char* const withFile[] = {name, noProfile, noStartFile, scriptPath, nullptr};
    return posix_spawn(&shell, kShell, actions, &settings.attributes, asArgument ? withArgument : withFile,
                       kEnvironment);
}

// The wait status as a shell tells it, for a child that has ended.
int exitStatus(const ChildProcess& shell) {
    if (shell.lostStatus() != 0) {
        writeDiagnosticLine(" lost the exit status of a shell command", shell.lostStatus());
        return kNoShell;
    }
    const int status = shell.status();
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Reads up to `size` bytes of the shell's output: into the buffer while there is room, then into nothing.
class OutputSink {
public:
    OutputSink(char* buffer, std::size_t size) : _next(buffer), _room(size - 1) { *_next = '\0'; }

    // As read(): 0 at the end, -1 with errno (EAGAIN when there is nothing at the moment).
    ssize_t take(int pipe, std::size_t size) {
        std::array<char, 4096> spare;
        const bool kept = _room > 0;
        const ssize_t taken = kept ? read(pipe, _next, std::min(size, _room))
                                   : read(pipe, spare.data(), std::min(size, spare.size()));
        if (kept && taken > 0) {
            _next += taken;
            _room -= static_cast<std::size_t>(taken);
            *_next = '\0';
        }
        return taken;
    }

private:
    char* _next;
    std::size_t _room;
};

constexpr std::size_t kPiece = 65536;

// Takes what is in the pipe now: somebody may go on writing for ever.
void takeRest(const Descriptor& pipe, OutputSink& sink) {
    int left = 0;
    if (ioctl(pipe.get(), FIONREAD, &left) == -1) left = 0;
    while (left > 0) {
        const ssize_t taken = sink.take(pipe.get(), static_cast<std::size_t>(left));
        if (taken == -1 && errno == EINTR) continue;
        if (taken <= 0) break;
        left -= static_cast<int>(taken);
    }
}

// Takes the output until the shell has ended, and then what it left in the pipe. A program in the background may keep
// the other end for ever. False when the shell has not ended at the deadline.
bool captureUntilEnd(ChildProcess& shell, Descriptor& pipe, OutputSink& sink, ChildProcess::Clock::time_point deadline) {
    for (;;) {
        std::array<pollfd, 2> waits{{{pipe.get(), POLLIN, 0}, {shell.endDescriptor(), POLLIN, 0}}};
        const int left = ChildProcess::millisecondsUntil(deadline);
        poll(waits.data(), waits.size(),
             shell.endDescriptor() == -1 ? std::min(left, ChildProcess::kLookMilliseconds) : left);
        if (shell.hasEnded()) break;
        if (sink.take(pipe.get(), kPiece) == 0) return shell.endsBefore(deadline);
        if (ChildProcess::Clock::now() >= deadline) return false;
    }
    takeRest(pipe, sink);
    return true;
}

// Whether the line runs a tool that checks, repairs or makes a file system: "fsck" or "mkfs" at the start of a path's
// last part or of a word.
bool isFileSystemLine(std::string_view line) {
    static constexpr std::string_view kBefore = "/ \t\n;&|(";
    for (const std::string_view tool : {"fsck", "mkfs"})
        for (std::size_t at = line.find(tool); at != std::string_view::npos; at = line.find(tool, at + 1))
            if (at == 0 || kBefore.find(line[at - 1]) != std::string_view::npos) return true;
    return false;
}

// For one line on standard error, whatever the command line has in it.
std::string shown(const std::string& line) {
    constexpr std::size_t kShown = 200;
    return printable(line.size() <= kShown ? line : line.substr(0, kShown) + "...");
}

std::string shown(std::chrono::milliseconds time) {
    return time.count() % 1000 == 0 ? std::to_string(time.count() / 1000) + " s" : std::to_string(time.count()) + " ms";
}

// What killed daemons left is ended once, in front of the first line: until then nothing of ours happens to a medium. A
// process that was forked off is another one.
void endLeftLinesOnce() {
    static constinit std::mutex lock;
    static constinit pid_t doneFor = 0;
    const std::lock_guard guard(lock);
    if (std::exchange(doneFor, getpid()) != getpid()) LineDirectory::endLeftLines(kEnvironment);
}

} // namespace

FileUtils::FileUtils() = default;
FileUtils::~FileUtils() = default;

int FileUtils::executeCommand(const std::string& line, char* output, std::size_t outputSize) {
    // Up to its first NUL byte: that much of it a shell can be given. From here on the caller's text is not needed.
    const std::string command = withThisKernelsScheduler(line.c_str());
    const bool captured = output != nullptr && outputSize > 0;
    if (captured) *output = '\0';
    endLeftLinesOnce();

    Descriptor pipeOut;
    Descriptor pipeIn;
    int ends[2] = {-1, -1};
    if (captured) {
        if (pipe2(ends, O_CLOEXEC) == -1) {
            writeDiagnosticLine(" cannot run a shell command", errno);
            return kNoShell;
        }
        pipeOut = Descriptor(ends[0]);
        pipeIn = Descriptor(ends[1]);
    }
    // A socket: a shell that is gone before it has read must not cost us a signal.
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) {
        writeDiagnosticLine(" cannot run a shell command", errno);
        return kNoShell;
    }
    Descriptor gate(ends[0]);
    Descriptor shellsGate(ends[1]);
    const LineDirectory directory;
    if (!directory.exists()) {
        writeDiagnosticLine(" cannot make a directory to run a shell command in", errno);
        return kNoShell;
    }

    const LineLimits& limits = LineLimits::ofProcess();
    const auto limit = isFileSystemLine(command) ? limits.fileSystemLine : limits.line;
    const auto deadline = ChildProcess::Clock::now() + limit;
    pid_t process = -1;
    const int error = startShell(command, pipeIn.get(), shellsGate.get(), directory.start(), process);
    if (error != 0) {
        writeDiagnosticLine(" cannot run a shell command", error);
        return kNoShell;
    }
    // While ours is open the output has no end, and only the shell's own end says that it is complete.
    pipeIn.reset();
    shellsGate.reset();
    ChildProcess shell(process);
    directory.record(process);
    send(gate.get(), "\n", 1, MSG_NOSIGNAL);
    gate.reset();

    std::optional<OutputSink> sink;
    if (captured) {
        fcntl(pipeOut.get(), F_SETFL, O_NONBLOCK);
        sink.emplace(output, outputSize);
    }
    if (captured ? captureUntilEnd(shell, pipeOut, *sink, deadline) : shell.endsBefore(deadline))
        return exitStatus(shell);

    // The shell's status is not taken before its group is gone: until then nobody else gets the group's number. What it
    // has to say while it ends must find its way out of the pipe.
    const bool ended = endProcessGroup(process, [&] {
        if (captured) sink->take(pipeOut.get(), kPiece);
    });
    // Its last words came after the last look into the pipe.
    if (captured) takeRest(pipeOut, *sink);
    writeDiagnosticLine((ended ? " ended a shell command that took more than "
                               : " left a shell command behind that took more than ") +
                        shown(limit) + ": " + shown(command));
    return kTookTooLong;
}
