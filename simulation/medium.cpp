#include "simulation/medium.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

namespace simulation {

namespace {

constexpr std::uint32_t kEpochSince1904 = 2'082'844'800;
constexpr std::int64_t kSwitchedOn = 1'700'000'000; // seconds since the epoch

std::string number(std::uint64_t value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) text += static_cast<char>(static_cast<unsigned char>(value >> (8 * i)));
    return text;
}

std::string zeros(std::size_t count) { return std::string(count, '\0'); }

std::string atom(const char* type, const std::string& content) { return number(8 + content.size(), 4) + type + content; }

std::string versioned(const char* type, const std::string& content, std::uint32_t flags = 0) {
    return atom(type, number(flags, 4) + content);
}

} // namespace

Medium::Medium(int number, std::string root) : _number(number), _root(std::move(root)) {
    removeTree(_root);
    ::mkdir(_root.c_str(), 0755);
}

void Medium::format(const std::string& name) {
    removeTree(_root);
    ::mkdir(_root.c_str(), 0755);
    partitioned = true;
    formatted = true;
    clean = true;
    repairable = true;
    damaged = false;
    usedPercent = 1;
    volumeName = name;
    renamedAway.clear();
    synced();
}

void Medium::changes(Nanoseconds now) {
    if (!leaves && !hasUnwritten(now)) unwrittenSince = now;
}

void Medium::made(const std::string& file) {
    renamedAway.erase(file.substr(0, file.rfind('.')));
}

void Medium::closed() {
    if (--busy > 0) return;
    openAcrossLives = false;
    if (!lingers) return;
    lingers = false;
    synced();
}

void Medium::makeMakerDirectory() {
    ::mkdir(makerDirectory().c_str(), 0755);
    ::mkdir((makerDirectory() + "/.uploads").c_str(), 0755);
}

void writeFile(const std::string& path, const std::string& bytes, Nanoseconds now) {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (descriptor == -1) return;
    [[maybe_unused]] const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    ::close(descriptor);
    setFileTime(path, now);
}

void setFileTime(const std::string& path, Nanoseconds now) {
    timespec time{};
    time.tv_sec = static_cast<std::time_t>(kSwitchedOn + now / kSecond);
    time.tv_nsec = static_cast<long>(now % kSecond);
    const timespec both[2] = {time, time};
    ::utimensat(AT_FDCWD, path.c_str(), both, 0);
}

std::vector<std::string> filesIn(const std::string& directory) {
    std::vector<std::string> names;
    DIR* const folder = ::opendir(directory.c_str());
    if (folder == nullptr) return names;
    while (const dirent* entry = ::readdir(folder)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(folder);
    std::sort(names.begin(), names.end());
    return names;
}

bool isDirectory(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void removeTree(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string clipBytes(std::uint32_t seconds, int frames) {
    const std::string matrix = number(0x10000, 4) + zeros(12) + number(0x10000, 4) + zeros(12) + number(0x40000000, 4);
    const auto count = static_cast<std::uint64_t>(frames);
    const std::string movie = versioned("mvhd", number(seconds + kEpochSince1904, 4) + zeros(4) + number(600, 4) +
                                                    number(count * 25, 4) + number(0x10000, 4) + number(0x100, 2) +
                                                    zeros(10) + matrix + zeros(24) + number(2, 4));
    const std::string track =
        versioned("tkhd", zeros(8) + number(1, 4) + zeros(4) + number(count * 25, 4) + zeros(16) + matrix +
                              number(64 << 16, 4) + number(48 << 16, 4), 7);
    const std::string mediaHeader =
        versioned("mdhd", zeros(8) + number(600, 4) + number(count * 25, 4) + zeros(4));
    const std::string handler = versioned("hdlr", zeros(4) + "vide" + zeros(13));
    const std::string format =
        atom("apcn", zeros(6) + number(1, 2) + zeros(16) + number(64, 2) + number(48, 2) + number(0x480000, 4) +
                         number(0x480000, 4) + zeros(4) + number(1, 2) + zeros(32) + number(24, 2) + number(0xffff, 2));
    const std::string table = atom(
        "stbl", versioned("stsd", number(1, 4) + format) +
                    versioned("stts", number(1, 4) + number(count, 4) + number(25, 4)) +
                    versioned("stsc", number(1, 4) + number(1, 4) + number(count, 4) + number(1, 4)) +
                    versioned("stsz", number(8, 4) + number(count, 4)) +
                    versioned("stco", number(1, 4) + number(8, 4)));
    const std::string data = atom("dinf", versioned("dref", number(1, 4) + versioned("url ", "", 1)));
    const std::string information = atom("minf", versioned("vmhd", zeros(8), 1) + data + table);
    return atom("ftyp", "qt  " + zeros(4) + "qt  ") + atom("mdat", zeros(32)) +
           atom("moov", movie + atom("trak", track + atom("mdia", mediaHeader + handler + information)));
}

std::string playlistBytes(const std::string& name, const std::vector<std::string>& clips) {
    std::string text = "{\"name\":\"" + name + "\",\"cliplist\":[";
    for (std::size_t i = 0; i < clips.size(); ++i) text += (i == 0 ? "\"" : ",\"") + clips[i] + "\"";
    return text + "]}\n";
}

} // namespace simulation
