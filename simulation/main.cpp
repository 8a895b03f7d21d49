// simulate: lives simulated histories of the recorder, each decided by its seed alone, and says nothing while all goes
// well. See ARCHITECTURE.md.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/pellix/clips/clip_worker.h"
#include "segment_mutex.h"
#include "simulation/history.h"
#include "simulation/invariants.h"
#include "simulation/world.h"

namespace {

constexpr std::uint64_t kDefaultPasses = 200;
constexpr std::size_t kLinesOfAFailure = 40;

struct Options {
    std::uint64_t seeds = 0;
    std::uint64_t from = 1;
    std::uint64_t passes = kDefaultPasses;
    bool print = false;
    bool keep = false;
    bool summary = false;
};

Options options;
int trueStandardError = STDERR_FILENO;
volatile std::uint64_t seedInWork = 0;

[[noreturn]] void usage() {
    std::fputs("usage: simulate --seeds N [--from S] [--passes P] [--trace] [--summary]\n"
               "  --trace    prints everything that happens; the same for the same seed\n"
               "  --summary  prints, at the end, how many passes there were, how fast, and which exceptions were used\n"
               "       simulate --exceptions   what the invariants except, as a table\n",
               stderr);
    std::exit(2);
}

std::uint64_t number(const char* text) {
    if (text == nullptr || *text < '0' || *text > '9') usage();
    return std::strtoull(text, nullptr, 10);
}

Options parse(int count, char** arguments) {
    Options parsed;
    for (int i = 1; i < count; ++i) {
        const std::string argument = arguments[i];
        const char* const next = i + 1 < count ? arguments[i + 1] : nullptr;
        if (argument == "--trace") {
            parsed.print = true;
        } else if (argument == "--keep-last") { // of a history that has failed once
            parsed.keep = true;
        } else if (argument == "--exceptions") {
            for (const simulation::ExceptionText& each : simulation::kExceptions)
                std::printf("| %s | %s |\n", each.name, each.why);
            std::exit(0);
        } else if (argument == "--summary") {
            parsed.summary = true;
        } else if (argument == "--seeds" || argument == "--from" || argument == "--passes") {
            (argument == "--seeds" ? parsed.seeds : argument == "--from" ? parsed.from : parsed.passes) = number(next);
            ++i;
        } else {
            usage();
        }
    }
    if (parsed.seeds == 0) usage();
    return parsed;
}

// In a process of its own: what the failed history has left in this one shall not matter.
void liveOnceMore(std::uint64_t seed) {
    std::fflush(stdout);
    ::dup2(trueStandardError, STDERR_FILENO);
    const std::string seedText = std::to_string(seed);
    const std::string passesText = std::to_string(options.passes);
    ::execl("/proc/self/exe", "simulate", "--seeds", "1", "--from", seedText.c_str(), "--passes", passesText.c_str(),
            "--keep-last", static_cast<char*>(nullptr));
    std::perror("simulate: cannot run the failed history once more");
    ::_exit(1);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Only what a signal handler may do: the number of the history that brought the program down.
void crash(int signal) {
    char text[64] = "simulate: crashed in the history of seed ";
    std::size_t length = std::strlen(text);
    char digits[24];
    std::size_t count = 0;
    std::uint64_t seed = seedInWork;
    do {
        digits[count++] = static_cast<char>('0' + seed % 10);
        seed /= 10;
    } while (seed > 0);
    while (count > 0) text[length++] = digits[--count];
    text[length++] = '\n';
    [[maybe_unused]] const ssize_t written = ::write(trueStandardError, text, length);
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}
#endif

// The daemon's standard error goes to a file in memory, and from there into the trace.
void catchDiagnostics() {
    trueStandardError = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10);
    const int file = ::memfd_create("standard error", MFD_CLOEXEC);
    if (file == -1 || trueStandardError == -1) {
        std::perror("simulate: no place for diagnostics");
        std::exit(1);
    }
    ::fcntl(file, F_SETFL, O_APPEND);
    ::dup2(file, STDERR_FILENO);
    ::close(file);
}

void printSummary(std::uint64_t passes, double seconds) {
    std::printf("%llu histories, %llu passes, %.0f passes a second\n", static_cast<unsigned long long>(options.seeds),
                static_cast<unsigned long long>(passes), static_cast<double>(passes) / seconds);
    for (std::size_t i = 0; i < static_cast<std::size_t>(simulation::Exception::Count); ++i)
        std::printf("%10llu  %s\n", static_cast<unsigned long long>(simulation::Invariants::uses[i]),
                    simulation::kExceptions[i].name);
}

} // namespace

int main(int count, char** arguments) {
    options = parse(count, arguments);
    simulation::liveAgain = liveOnceMore;
    ::umask(0); // as in the daemon
    nevo::media::segmentMutexPatience = 1; // milliseconds; they are real ones
    // One worker for all histories: the look at a clip costs less than the start of a process.
    ClipWorker::keep();
    catchDiagnostics();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    for (const int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) ::signal(signal, crash);
#endif
    using simulation::Trace;
    const Trace::Mode mode = options.print ? Trace::Mode::Print : options.keep ? Trace::Mode::KeepLast : Trace::Mode::Off;
    const auto begin = std::chrono::steady_clock::now();
    std::uint64_t passes = 0;
    for (std::uint64_t i = 0; i < options.seeds; ++i) {
        seedInWork = options.from + i;
        passes += simulation::liveHistory(options.from + i, options.passes, mode, kLinesOfAFailure);
    }
    if (options.keep) {
        std::printf("seed %llu failed once, and did not fail again: something in it is not decided by its seed\n",
                    static_cast<unsigned long long>(options.from));
        return 1;
    }
    if (options.summary)
        printSummary(passes, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    return 0;
}
