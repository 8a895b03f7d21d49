#include "simulation/world.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace simulation {

void (*liveAgain)(std::uint64_t seed) = nullptr;

namespace {

Nanoseconds effectTime(Random& random) {
    // The slower an effect, the more of the world happens between two of them.
    static const std::vector<Nanoseconds> times = {20 * kMicrosecond, 200 * kMicrosecond, 2 * kMillisecond};
    return random.oneOf(times);
}

Temper drawTemper(Random& random) {
    Temper temper;
    const auto maybe = [&random](unsigned int share, std::int64_t low, std::int64_t high) {
        return random.chance(share) ? random.between(low, high) : 0;
    };
    temper.toolFaults = static_cast<unsigned int>(maybe(400, 5, 120));
    temper.toolStalls = static_cast<unsigned int>(maybe(400, 5, 100));
    temper.announcementLoss = static_cast<unsigned int>(maybe(400, 20, 400));
    temper.announcementDoubles = static_cast<unsigned int>(maybe(500, 20, 500));
    temper.announcementDelay = random.between(kMillisecond, random.chance(300) ? 2 * kSecond : 50 * kMillisecond);
    temper.pinDelay = random.between(kMillisecond, random.chance(300) ? 2 * kSecond : 50 * kMillisecond);
    temper.operatorPause = maybe(800, 2, 30) * kSecond;
    temper.clientPause = maybe(900, 1, 20) * kSecond;
    temper.enginePause = maybe(900, 1, 10) * kSecond;
    temper.killPause = maybe(400, 5, 60) * kSecond;
    temper.firewirePause = maybe(900, 2, 16) * kSecond;
    temper.endpointStays = static_cast<unsigned int>(maybe(200, 20, 500));
    temper.clientsRelease = random.chance(500);
    temper.storeDiesWithDaemon = random.chance(400);
    return temper;
}

} // namespace

World::World(std::uint64_t theSeed, Trace::Mode mode, std::size_t keptLines)
    : seed(theSeed), random(theSeed), temper(drawTemper(random)), trace(mode, keptLines), scheduler(effectTime(random)),
      store(*this), appliance(*this), endpoint(*this), invariants(*this) {}

void World::passEnds() {
    takeDiagnostics();
    invariants.passEnds();
    ++passes;
    note([&] { return "pass " + std::to_string(passes); });
    if (passes == passTarget) scheduler.after(0, [] {});
}

void World::takeDiagnostics() {
    struct stat status;
    if (::fstat(STDERR_FILENO, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0) return;
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t count = ::pread(STDERR_FILENO, text.data(), text.size(), 0);
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    [[maybe_unused]] const int result = ::ftruncate(STDERR_FILENO, 0);
    ::lseek(STDERR_FILENO, 0, SEEK_SET);
    if (trace.isOn()) {
        std::size_t at = 0;
        while (at < text.size()) {
            const std::size_t end = std::min(text.find('\n', at), text.size());
            note([&] { return "says " + text.substr(at, end - at); });
            at = end + 1;
        }
    }
    invariants.diagnostics(text);
}

void World::fail(const char* invariant, const std::string& what) {
    if (!trace.isOn()) {
        liveAgain(seed); // does not return
    }
    std::printf("seed %llu, after %llu passes: %s: %s\n", static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(passes), invariant, shown(what).c_str());
    for (const std::string& line : trace.lines()) std::printf("  %s\n", line.c_str());
    std::printf("  threads: %s\n", scheduler.threads().c_str());
    std::fflush(stdout);
    ::_exit(1);
}

} // namespace simulation
