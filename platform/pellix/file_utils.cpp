#include "file_utils.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>

#include "diagnostic_line.h"

namespace {

constexpr int kNoShell = 127;
constexpr char kShell[] = "/bin/bash";

// The kernel takes 32 pages for one argument, its terminator included; pages have 4096 bytes or more.
constexpr std::size_t kLongestArgument = 32 * 4096 - 1;

// Where the shell finds a script that does not come as an argument.
constexpr int kScriptDescriptor = STDERR_FILENO + 1;
constexpr char kScriptPath[] = "/proc/self/fd/3";

// What stands before every line.
//
// A file called "-r" among those that "*" stands for must never become an option of rm, and must be removed like the
// others. The shell has expanded the arguments before rm sees them, so rm cannot tell an option from a file of that
// name: the one option that our lines use, a first argument that is exactly -f, is therefore the only one there is,
// everything behind it is a file, and so is a first argument that is anything else. The worst that a file's name can do
// is to be taken for -f itself.
constexpr char kPrelude[] =
    "umask 022\n"
    "rm() { if [ \"${1-}\" = -f ]; then shift; command rm -f -- \"$@\"; else command rm -- \"$@\"; fi; }\n";

// The line's commands get nothing of ours, the script included.
constexpr char kCloseScript[] = "exec 3<&-\n";

char pathVariable[] = "PATH=/usr/local/bin:/bin:/usr/bin:/sbin:/usr/sbin:/usr/local/sbin";
// Messages and numbers of the tools are read by the daemon: never in the words of some language.
char localeVariable[] = "LC_ALL=C";
char* const kEnvironment[] = {pathVariable, localeVariable, nullptr};

// A descriptor, closed with its holder. Those of ours never are standard descriptors, whatever the program was started
// with: the child's standard descriptors are put in place one after the other.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : _descriptor(descriptor) {
        if (_descriptor < 0 || _descriptor > STDERR_FILENO) return;
        const int low = _descriptor;
        _descriptor = fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int error = errno;
        close(low);
        errno = error;
    }
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(_descriptor, other._descriptor);
        return *this;
    }

    int get() const { return _descriptor; }
    bool isOpen() const { return _descriptor >= 0; }
    void reset() {
        if (isOpen()) close(_descriptor);
        _descriptor = -1;
    }

private:
    int _descriptor = -1;
};

// The empty directory that a line starts in, of this line alone: what a relative name or a "*" means after a "pushd"
// that failed is nothing. It goes with the line; a program left in the background keeps a working directory without a
// name.
class PrivateDirectory {
public:
    PrivateDirectory() {
        for (const char* parent : {"/run", "/tmp"}) {
            _path = std::string(parent) + "/mediad.XXXXXX";
            if (mkdtemp(_path.data()) != nullptr) return;
        }
        _path.clear();
    }
    ~PrivateDirectory() {
        if (_path.empty() || rmdir(_path.c_str()) == 0) return;
        // A tool left something behind there, a memory image for instance.
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;

    bool exists() const { return !_path.empty(); }
    const std::string& path() const { return _path; }

private:
    std::string _path;
};

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

// What a child is started with; owns the two structures of posix_spawn.
struct SpawnSettings {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    SpawnSettings() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
    }
    ~SpawnSettings() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;
};

// Starts the shell with `line`; its standard output is `output`, nothing when that is -1. 0 and `shell`, or the
// error number.
int startShell(const std::string& line, int output, const std::string& directory, pid_t& shell) {
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
        posix_spawn_file_actions_addopen(actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    else
        posix_spawn_file_actions_adddup2(actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (!asArgument) posix_spawn_file_actions_adddup2(actions, file.get(), kScriptDescriptor);
    // Descriptors that some library opened without close-on-exec stay here as well.
    posix_spawn_file_actions_addclosefrom_np(actions, asArgument ? kScriptDescriptor : kScriptDescriptor + 1);
    posix_spawn_file_actions_addchdir_np(actions, directory.c_str());

    // The loop's thread blocks every signal and the daemon ignores SIGPIPE: neither is for the tools. A session of
    // their own, so that an interrupt from the terminal of a daemon in the foreground does not end a repair half way.
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&settings.attributes, &all);
    posix_spawnattr_setsigmask(&settings.attributes, &none);
    posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);

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

// The wait status as a shell tells it.
int exitStatus(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Waits for the shell; with WNOHANG in `options`, looks whether it has ended. True when it has.
bool shellEnded(pid_t shell, int options, int& status) {
    pid_t ended = 0;
    do {
        ended = waitpid(shell, &status, options);
    } while (ended == -1 && errno == EINTR);
    if (ended == -1) {
        // Somebody else took the status, so there is nothing more to wait for.
        writeDiagnosticLine(" lost the exit status of a shell command", errno);
        status = kNoShell << 8;
    }
    return ended != 0;
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

// Takes the output until the shell has ended, and then what it left in the pipe. A program in the background may keep
// the other end for ever, and may go on writing.
int captureUntilEnd(pid_t shell, Descriptor& pipe, OutputSink& sink) {
    constexpr std::size_t kPiece = 65536;
    // Without a pidfd (a kernel before 5.3) the shell is looked after between waits.
    constexpr int kLookMilliseconds = 20;
    const Descriptor end(static_cast<int>(syscall(SYS_pidfd_open, shell, 0)));
    fcntl(pipe.get(), F_SETFL, O_NONBLOCK);

    int status = 0;
    for (;;) {
        std::array<pollfd, 2> waits{{{pipe.get(), POLLIN, 0}, {end.get(), POLLIN, 0}}};
        poll(waits.data(), waits.size(), end.isOpen() ? -1 : kLookMilliseconds);
        if (shellEnded(shell, WNOHANG, status)) break;
        if (sink.take(pipe.get(), kPiece) == 0) {
            shellEnded(shell, 0, status);
            return status;
        }
    }
    int left = 0;
    if (ioctl(pipe.get(), FIONREAD, &left) == -1) left = 0;
    while (left > 0) {
        const ssize_t taken = sink.take(pipe.get(), static_cast<std::size_t>(left));
        if (taken == -1 && errno == EINTR) continue;
        if (taken <= 0) break;
        left -= static_cast<int>(taken);
    }
    return status;
}

} // namespace

FileUtils::FileUtils() = default;
FileUtils::~FileUtils() = default;

int FileUtils::executeCommand(const std::string& line, char* output, std::size_t outputSize) {
    // Up to its first NUL byte: that much of it a shell can be given. From here on the caller's text is not needed.
    const std::string command = withThisKernelsScheduler(line.c_str());
    const bool captured = output != nullptr && outputSize > 0;
    if (captured) *output = '\0';

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
    const PrivateDirectory directory;
    if (!directory.exists()) {
        writeDiagnosticLine(" cannot make a directory to run a shell command in", errno);
        return kNoShell;
    }

    pid_t shell = -1;
    const int error = startShell(command, pipeIn.get(), directory.path(), shell);
    if (error != 0) {
        writeDiagnosticLine(" cannot run a shell command", error);
        return kNoShell;
    }
    // While ours is open the output has no end, and only the shell's own end says that it is complete.
    pipeIn.reset();

    if (captured) {
        OutputSink sink(output, outputSize);
        return exitStatus(captureUntilEnd(shell, pipeOut, sink));
    }
    int status = 0;
    shellEnded(shell, 0, status);
    return exitStatus(status);
}
