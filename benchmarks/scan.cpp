// bench_scan CLIP COUNT SAMPLE: a directory of COUNT clips, all of them copies of CLIP made at different times, brought
// into the index (ClipFinder::scanMedia), against opening each file and reading its header on one thread, and against a
// process a clip (measured with SAMPLE clips). The directory is read once before anything is measured.

#include <dlfcn.h>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "clip_examiner.h"
#include "clip_finder.h"
#include "parameters.h"
#include "platform/pellix/clip_probe/quicktime_reader.h"
#include "platform/pellix/clips/medium_index.h"
#include "shared_segment.h"

namespace {

constexpr int kRounds = 5;
constexpr char kFolder[] = "/tmp/bench-scan";
constexpr std::uint32_t kUnixEpochSince1904 = 2'082'844'800;

std::atomic<int> locksGivenBack{0};

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

// Only the encode type in use is asked for.
class NoParameters : public Config {
public:
    int setInteger(eParam_t, int) override { return kConfigOk; }
    int getInteger(eParam_t) override { return 2; }
    int getInteger(eParam_t, int*) override { return kConfigUnknown; }
    int setString(eParam_t, std::string) override { return kConfigOk; }
    int getString(eParam_t, std::string&) override { return kConfigUnknown; }
};

std::string pathOf(int number) {
    char name[64];
    std::snprintf(name, sizeof name, "%s/Clip_%05d.mov", kFolder, number);
    return name;
}

void makeClips(const char* source, int count) {
    std::ifstream in(source, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t header = bytes.find("mvhd");
    if (header == std::string::npos) std::exit(1);
    ::mkdir(kFolder, 0755);
    for (int i = 0; i < count; ++i) {
        const std::uint32_t time = kUnixEpochSince1904 + 1'000'000 + static_cast<std::uint32_t>(i);
        for (unsigned int byte = 0; byte < 4; ++byte)
            bytes[header + 8 + byte] = static_cast<char>(static_cast<unsigned char>(time >> (24 - 8 * byte)));
        std::ofstream(pathOf(i), std::ios::binary) << bytes;
    }
}

// What a scan cannot do without.
int openAndRead(int count) {
    int usable = 0;
    const auto names = listDirectory(kFolder);
    for (const std::string& name : names.value_or(std::vector<std::string>{})) {
        const std::string path = std::string(kFolder) + "/" + name;
        if (!nevo::media::ClipExaminer::isClipPath(path)) continue;
        const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        struct stat status;
        if (file == -1 || ::fstat(file, &status) == -1) continue;
        if (readQuickTimeHeader(file, status.st_size)) ++usable;
        ::close(file);
    }
    if (usable != count) std::exit(1);
    return usable;
}

void aProcessAClip(int count) {
    for (int i = 0; i < count; ++i) {
        Clip clip{};
        if (!nevo::media::ClipExaminer::GrokClip(clip, pathOf(i), false)) std::exit(1);
    }
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

// In front of the library's: how often a segment was visited.
extern "C" int sem_post(sem_t* semaphore) {
    static const auto real = reinterpret_cast<int (*)(sem_t*)>(::dlsym(RTLD_NEXT, "sem_post"));
    ++locksGivenBack;
    return real(semaphore);
}

int main(int words, char** word) {
    if (words != 4) return 2;
    ::umask(0);
    const int count = std::atoi(word[2]);
    const int sample = std::min(std::atoi(word[3]), count);
    makeClips(word[1], count);
    NoParameters parameters;
    openAndRead(count);

    std::vector<double> scans;
    std::vector<double> limits;
    int visits = 0;
    for (int round = 0; round < kRounds; ++round) {
        Clock::time_point begin = Clock::now();
        {
            ClipFinder finder(&parameters);
            const int before = locksGivenBack;
            finder.scanMedia(kFolder);
            visits = locksGivenBack - before;
        }
        scans.push_back(secondsSince(begin));
        begin = Clock::now();
        openAndRead(count);
        limits.push_back(secondsSince(begin));
    }
    if (nevo::media::readClips().records.size() != static_cast<std::size_t>(count)) return 1;
    const Clock::time_point begin = Clock::now();
    aProcessAClip(sample);
    const double each = secondsSince(begin) / sample;
    std::printf("{\"clips\": %d, \"scan_s\": %.6f, \"limit_s\": %.6f, \"process_a_clip_s\": %.6f, "
                "\"segment_visits\": %d}\n",
                count, median(scans), median(limits), each * count, visits);
    return 0;
}
