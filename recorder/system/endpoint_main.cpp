// endpoint: what serves a disk to a computer on the FireWire bus, played by a program without a bus. The virtual recorder
// has it as "/usr/bin/endpoint"; the computer is played by recorder/guest/remote-host.
//
// Its disk is the one on the SCSI host whose scan file "/etc/endpoint.conf" names (scan=/sys/class/scsi_host/host0/scan).
// It asks the bus for it once, at its start, and opens it exclusively, so never one that is mounted. A disk that came in
// another way and that no endpoint had before is somebody's who may be looking at it: that one it leaves alone until
// nobody has looked for a while. The computer speaks to it through files in /run/firewire: a line in "request", appearing
// whole, is answered by a line in "reply", "done ..." or "refused: REASON".
//
//   login PID   the data partition as a loop device, "done /dev/loop0"; PID lives in the computer's mount namespace
//   stop        the computer is going to let go
//   logout      it has: nothing of it is mounted any more
//   cut         the cable is pulled: what the computer has not written is lost, and so are its processes
//
//   /var/run/endpointdisknotinuse     removed at a login, made when that has ended, however it does
//   /var/run/endpointdiskstop         made at a stop, removed with the end of the login
//   /var/run/endpointdiskunavailable  made when the medium is lost while the computer uses it; otherwise nobody notices
//
// None of them is asked for here: mediad's only request of an endpoint is that it ends.
//
// A termination signal cuts the computer off. What happens is written to /var/log/firewire.log. A second one ends the first
// and takes its place.

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr char kConfiguration[] = "/etc/endpoint.conf";
constexpr char kLog[] = "/var/log/firewire.log";
constexpr char kFolder[] = "/run/firewire";
constexpr char kRequest[] = "/run/firewire/request";
constexpr char kReply[] = "/run/firewire/reply";
constexpr char kPidFile[] = "/run/firewire/pid";
constexpr char kHadFile[] = "/run/firewire/had"; // the kernel's number of the disk that the last endpoint had
constexpr char kNotInUse[] = "/var/run/endpointdisknotinuse";
constexpr char kStop[] = "/var/run/endpointdiskstop";
constexpr char kUnavailable[] = "/var/run/endpointdiskunavailable";

constexpr char kDataPartition[] = "2";
constexpr unsigned long long kSector = 512;

constexpr std::chrono::milliseconds kTick{100};
constexpr std::chrono::seconds kOthersFirst{8};
constexpr std::chrono::seconds kPatience{5};

void log(const std::string& text) {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    char line[256];
    const int length =
        std::snprintf(line, sizeof line, "%ld.%03ld endpoint %s\n", static_cast<long>(now.tv_sec), now.tv_nsec / 1'000'000,
                      text.c_str());
    const int file = open(kLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file < 0) return;
    // One write, for others write here as well. A log that is lost stops nothing.
    [[maybe_unused]] const ssize_t written = write(file, line, static_cast<std::size_t>(length));
    close(file);
}

void makeFlag(const char* path) {
    const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file >= 0) close(file);
}

sigset_t endingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int each : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, each);
    return signals;
}

// One tick long; true when a signal has come.
bool isToldToEnd() {
    const sigset_t signals = endingSignals();
    const timespec tick{0, std::chrono::nanoseconds(kTick).count()};
    return sigtimedwait(&signals, nullptr, &tick) > 0;
}

// Looks again and again. A termination signal does not end the wait: these are steps that have to be gone to their end.
bool waitFor(const std::function<bool()>& condition) {
    const Clock::time_point end = Clock::now() + kPatience;
    while (!condition()) {
        if (Clock::now() >= end) return false;
        usleep(static_cast<useconds_t>(std::chrono::microseconds(kTick).count() / 5));
    }
    return true;
}

unsigned long long number(const fs::path& file) {
    unsigned long long value = 0;
    std::ifstream(file) >> value;
    return value;
}

// What the last line that begins with `key` says.
std::string configured(const std::string& key) {
    std::ifstream file(kConfiguration);
    std::string value;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(key + "=")) value = line.substr(key.size() + 1);
    return value;
}

// The folder in /sys of the unit that is configured, empty while the bus has none.
fs::path findUnit() {
    const fs::path host = fs::path(configured("scan")).parent_path() / "device";
    std::error_code ignored;
    for (const fs::directory_entry& target : fs::directory_iterator(host, ignored))
        if (target.path().filename().string().starts_with("target"))
            for (const fs::directory_entry& unit : fs::directory_iterator(target, ignored))
                if (fs::exists(unit.path() / "scsi_level", ignored)) return unit;
    return {};
}

// That of its disk, which may come a moment after it.
fs::path findDisk() {
    const fs::path unit = findUnit();
    std::error_code ignored;
    if (!unit.empty())
        for (const fs::directory_entry& disk : fs::directory_iterator(unit / "block", ignored)) return disk;
    return {};
}

// Whether any process has the disk, or a partition of it, open or mounted.
bool isLookedAt(const std::string& disk) {
    const std::string device = "/dev/" + disk;
    std::ifstream mounts("/proc/self/mounts");
    for (std::string line; std::getline(mounts, line);)
        if (line.starts_with(device)) return true;
    std::error_code ignored;
    for (const fs::directory_entry& process : fs::directory_iterator("/proc", ignored)) {
        if (std::atoi(process.path().filename().c_str()) <= 0) continue;
        // Processes and their files go while they are being looked through.
        std::error_code gone;
        fs::directory_iterator file(process.path() / "fd", gone);
        for (; !gone && file != fs::directory_iterator(); file.increment(gone)) {
            std::error_code closed;
            if (fs::read_symlink(file->path(), closed).string().starts_with(device)) return true;
        }
    }
    return false;
}

class Endpoint {
public:
    Endpoint() {
        unlink(kStop); // that was somebody else's
        log("starts");
        const std::string scan = configured("scan");
        if (!findDisk().empty()) return;
        std::ofstream(scan) << "0 0 0";
        // The kernel has looked when that is written; the disk on top of the unit may need a moment more.
        _brought = !findUnit().empty();
    }

    void step() {
        if (_disk < 0) seek();
        else watch();
        answer();
    }

    void end() {
        if (_loop >= 0) cut("ends");
        log("ends"); // before anybody else can have the disk
        letGo();
    }

private:
    void seek() {
        const fs::path found = findDisk();
        const Clock::time_point now = Clock::now();
        if (found.empty()) {
            _seen = {};
            _busy = false;
            return;
        }
        if (_busy) return; // somebody else's, for as long as it is there
        if (_seen == Clock::time_point{}) _seen = _quietSince = now;
        const unsigned long long disk = number(found / "diskseq");
        const bool own = _brought || number(kHadFile) == disk;
        const std::string name = found.filename();
        if (!own && isLookedAt(name)) _quietSince = now;
        if (!own && now - _quietSince < kOthersFirst) return;
        _disk = open(("/dev/" + name).c_str(), O_RDWR | O_EXCL | O_DIRECT | O_CLOEXEC);
        if (_disk >= 0) {
            _path = found;
            std::ofstream(kHadFile) << disk << '\n';
            log("has " + name);
        } else if (errno == EBUSY) {
            _busy = true;
            log("leaves " + name + " alone, which is in use");
        }
    }

    void watch() {
        alignas(4096) static std::array<char, 4096> buffer;
        if (pread(_disk, buffer.data(), buffer.size(), 0) == static_cast<ssize_t>(buffer.size())) return;
        log("lost " + _path.filename().string());
        if (_loop >= 0) {
            makeFlag(kUnavailable);
            cut("lost");
        }
        letGo();
    }

    void letGo() {
        if (_disk >= 0) close(_disk);
        _disk = -1;
        _brought = false;
        _seen = {};
    }

    void answer() {
        std::ifstream file(kRequest);
        std::string request;
        if (!std::getline(file, request)) return;
        unlink(kRequest);
        std::string reply;
        if (request.starts_with("login ")) reply = login(std::atoi(request.c_str() + 6));
        else if (_loop < 0) reply = "refused: nobody is logged in";
        else if (request == "stop") makeFlag(kStop), log("is asked to stop"), reply = "done";
        else if (request == "logout") reply = logout();
        else if (request == "cut") cut("cable"), reply = "done";
        else reply = "refused: what is " + request + "?";
        const std::string whole = std::string(kReply) + ".new";
        std::ofstream(whole) << reply << '\n';
        std::rename(whole.c_str(), kReply);
    }

    std::string login(pid_t pid) {
        if (_disk < 0) return "refused: there is no disk";
        if (_loop >= 0) return "refused: somebody is logged in";
        const fs::path partition = _path / (_path.filename().string() + kDataPartition);
        const unsigned long long size = number(partition / "size") * kSector;
        if (size == 0) return "refused: the disk has no data partition";

        const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        const int free = control < 0 ? -1 : ioctl(control, LOOP_CTL_GET_FREE);
        if (control >= 0) close(control);
        if (free < 0) return std::string("refused: no loop device: ") + std::strerror(errno);
        _device = "/dev/loop" + std::to_string(free);
        const int loop = open(_device.c_str(), O_RDWR | O_CLOEXEC);
        loop_config configuration{};
        configuration.fd = static_cast<unsigned int>(_disk);
        configuration.block_size = kSector;
        configuration.info.lo_offset = number(partition / "start") * kSector;
        configuration.info.lo_sizelimit = size;
        configuration.info.lo_flags = LO_FLAGS_AUTOCLEAR | LO_FLAGS_DIRECT_IO;
        if (loop < 0 || ioctl(loop, LOOP_CONFIGURE, &configuration) != 0) {
            const std::string reason = std::strerror(errno);
            if (loop >= 0) close(loop);
            return "refused: " + _device + ": " + reason;
        }
        _loop = loop;
        _host = pid;
        unlink(kNotInUse);
        log("serves " + _path.filename().string());
        return "done " + _device;
    }

    std::string logout() {
        close(_loop);
        if (!waitFor([this] { return isDetached(); })) {
            _loop = open(_device.c_str(), O_RDWR | O_CLOEXEC);
            return "refused: the disk is still mounted";
        }
        ended("logout");
        return "done";
    }

    // A loop device without a backing file: nobody has it mounted.
    bool isDetached() const {
        const int loop = open(_device.c_str(), O_RDONLY | O_CLOEXEC);
        if (loop < 0) return true;
        loop_info64 information{};
        const bool detached = ioctl(loop, LOOP_GET_STATUS64, &information) != 0 && errno == ENXIO;
        close(loop);
        return detached;
    }

    void ended(const char* how) {
        _loop = -1;
        _host = 0;
        makeFlag(kNotInUse);
        unlink(kStop);
        log(std::string("serves no more: ") + how);
    }

    // From here on nothing that the computer writes reaches the disk, an unmount's last words included: the device ends
    // behind its first sector.
    void cut(const char* why) {
        const auto shrunk = [this] {
            loop_info64 information{};
            if (ioctl(_loop, LOOP_GET_STATUS64, &information) != 0) return true;
            information.lo_sizelimit = kSector;
            return ioctl(_loop, LOOP_SET_STATUS64, &information) == 0 || errno != EAGAIN;
        };
        if (!waitFor(shrunk)) log("cannot cut the cable");
        killHost();
        close(_loop);
        if (!waitFor([this] { return isDetached(); })) log("cannot take the disk back");
        ended(why);
    }

    // Whoever lives in the computer's mount namespace: with the last one of them it is gone, and its mounts with it.
    void killHost() const {
        const auto space = [](const fs::path& process) {
            std::error_code none;
            return fs::read_symlink(process / "ns/mnt", none);
        };
        const fs::path host = space("/proc/" + std::to_string(_host));
        if (host.empty() || host == space("/proc/self")) return;
        std::error_code ignored;
        for (const fs::directory_entry& each : fs::directory_iterator("/proc", ignored)) {
            const int pid = std::atoi(each.path().filename().c_str());
            if (pid > 0 && space(each) == host) kill(pid, SIGKILL);
        }
    }

    int _disk = -1;   // open exclusively
    fs::path _path;   // of the disk, in /sys
    bool _busy = false;
    bool _brought = false; // by the bus, because this one asked
    Clock::time_point _seen{};  // the disk on the bus, before it is open
    Clock::time_point _quietSince{}; // nobody else has looked at it
    int _loop = -1;   // while a computer is logged in
    std::string _device;
    pid_t _host = 0;
};

// True when this is the only one. The lock ends with the process.
bool takePlace() {
    mkdir(kFolder, 0755);
    const int file = open(kPidFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0) return false;
    while (flock(file, LOCK_EX | LOCK_NB) != 0) {
        char text[16]{};
        if (pread(file, text, sizeof text - 1, 0) > 0 && std::atoi(text) > 0) kill(std::atoi(text), SIGTERM);
        if (isToldToEnd()) return false;
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    return ftruncate(file, 0) == 0 && pwrite(file, pid.data(), pid.size(), 0) > 0;
}

} // namespace

int main() {
    const sigset_t signals = endingSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    if (!takePlace()) return 1;
    Endpoint endpoint;
    do endpoint.step();
    while (!isToldToEnd());
    endpoint.end();
    return 0;
}
