#include "daemonizer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "diagnostic_line.h"
#include "pid_file.h"

// A signal handler reads and writes it.
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<void (*)(int)>::is_always_lock_free);

std::string& Daemonizer::name = *new std::string;
constinit std::atomic<int> Daemonizer::killed{0};

namespace {

constexpr char kPidFile[] = "/run/mediad.pid";
constexpr int kFailed = 255;

constinit std::atomic<void (*)(int)> signalHandler{nullptr};

void onSignal(int signal) {
    const int error = errno;
    Daemonizer::killed = 1;
    if (void (*const handler)(int) = signalHandler.load()) handler(signal);
    errno = error;
}

// Whatever the process inherited: a parent that ignores SIGCHLD would take the exit statuses of our tools from us, one
// that blocks or ignores SIGTERM would leave no way to end the daemon.
void installSignals(void (*handler)(int)) {
    signalHandler = handler;

    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &action, nullptr);
    // A reader of ours that goes away (a log's pipe, a client's socket) is an error of that write, not the end of a
    // daemon with media mounted.
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);

    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    // One handler at a time.
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&action.sa_mask, signal);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaction(signal, &action, nullptr);

    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Standard descriptors that the caller had closed: the next file that is opened would become one of them, and
// receive our diagnostics.
void fillStandardDescriptors() {
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor < STDERR_FILENO);
    if (descriptor > STDERR_FILENO) close(descriptor);
}

// False after one line that says why.
bool takePidFile() {
    pid_t holder = 0;
    switch (PidFile::take(kPidFile, holder)) {
    case PidFile::Result::Held:
        return true;
    case PidFile::Result::Taken:
        writeDiagnosticLine(" is already running" +
                            (holder > 0 ? " as process " + std::to_string(holder) : std::string()));
        return false;
    case PidFile::Result::Failed:
        break;
    }
    writeDiagnosticLine(std::string(" cannot hold ") + kPidFile, errno);
    return false;
}

// Both variants: what makes the process a daemon apart from where it runs. False after one line that says why.
bool becomeDaemon(void (*handler)(int), bool writePidFile) {
    // The named semaphores of the shared segments get the mode they ask for; other users' processes lock them too.
    umask(0);
    installSignals(handler);
    return !writePidFile || takePidFile();
}

[[noreturn]] void failToDetach(int error) {
    writeDiagnosticLine(" cannot go to the background", error);
    _exit(kFailed);
}

// The caller's process: stays until the daemon holds its pid file or is gone, and says which with its exit status.
[[noreturn]] void waitForDaemon(pid_t between, int readiness) {
    while (waitpid(between, nullptr, 0) == -1 && errno == EINTR) {
    }
    char ready = 0;
    ssize_t size = 0;
    do {
        size = read(readiness, &ready, 1);
    } while (size == -1 && errno == EINTR);
    _exit(size == 1 ? 0 : kFailed);
}

// Returns in the daemon only, in a session of its own that it does not lead, so that no terminal it opens becomes its
// controlling one. The result is the descriptor to tell the caller's process through.
int detach() {
    // Or what is buffered now would be written twice, or never.
    std::fflush(nullptr);

    int readiness[2];
    if (pipe2(readiness, O_CLOEXEC) == -1) failToDetach(errno);
    const pid_t between = fork();
    if (between == -1) failToDetach(errno);
    if (between > 0) {
        close(readiness[1]);
        waitForDaemon(between, readiness[0]);
    }
    close(readiness[0]);
    setsid();
    const pid_t daemon = fork();
    if (daemon == -1) failToDetach(errno);
    if (daemon > 0) _exit(0);
    return readiness[1];
}

// Standard input and output are nowhere, standard error stays, `readiness` becomes 3; everything else is closed.
int putDescriptorsRight(int readiness) {
    constexpr int kReadiness = STDERR_FILENO + 1;
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nowhere != -1) {
        dup2(nowhere, STDIN_FILENO);
        dup2(nowhere, STDOUT_FILENO);
    }
    if (readiness != kReadiness) dup3(readiness, kReadiness, O_CLOEXEC);
    closefrom(kReadiness + 1);
    return kReadiness;
}

} // namespace

void Daemonizer::daemonize(std::string displayName, void (*handler)(int), std::string (*)(), bool writePidFile) {
    name = std::move(displayName);
    fillStandardDescriptors();
    const int readiness = putDescriptorsRight(detach());
    // The daemon must not keep a file system busy that happened to be where it was started.
    if (chdir("/") == -1) failToDetach(errno);
    if (!becomeDaemon(handler, writePidFile)) _exit(kFailed);
    const char ready = 1;
    while (write(readiness, &ready, 1) == -1 && errno == EINTR) {
    }
    close(readiness);
}

void Daemonizer::setupSignalHandler(std::string displayName, void (*handler)(int), std::string (*)(),
                                    bool writePidFile) {
    name = std::move(displayName);
    fillStandardDescriptors();
    if (!becomeDaemon(handler, writePidFile)) std::exit(kFailed);
}

void Daemonizer::setDone() { PidFile::giveBack(); }
