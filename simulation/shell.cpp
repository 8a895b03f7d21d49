#include "simulation/shell.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <optional>
#include <vector>

#include "simulation/world.h"

namespace simulation {

namespace {

constexpr int kNotFound = 1;     // grep's
constexpr int kToolFailed = 1;
constexpr int kSegmentationFault = 139;

// What stands between `before` and `after` in a line that is nothing else.
std::optional<std::string> between(const std::string& line, const std::string& before, const std::string& after = "") {
    if (line.size() < before.size() + after.size() || !line.starts_with(before) || !line.ends_with(after)) return {};
    return line.substr(before.size(), line.size() - before.size() - after.size());
}

// As an argument that nobody quoted must be.
bool isPlain(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char each) {
        return std::isalnum(each) != 0 || each == '/' || each == '-' || each == '_' || each == '.' || each == ':';
    });
}

// Two plain arguments.
std::optional<std::pair<std::string, std::string>> twoArguments(const std::string& text) {
    const std::size_t blank = text.find(' ');
    if (blank == std::string::npos) return {};
    const std::string first = text.substr(0, blank);
    const std::string second = text.substr(blank + 1);
    if (!isPlain(first) || !isPlain(second)) return {};
    return std::pair(first, second);
}

// The words of rm's arguments, as the shell makes them; nothing when a word could be more than a name.
std::optional<std::vector<std::string>> quotedWords(const std::string& text) {
    std::vector<std::string> words;
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] == ' ') {
            ++at;
            continue;
        }
        if (text[at] != '"') return {};
        const std::size_t end = text.find('"', at + 1);
        if (end == std::string::npos) return {};
        const std::string word = text.substr(at + 1, end - at - 1);
        if (word.find_first_of("$`\\") != std::string::npos) return {};
        // Right behind a closing quote the word would go on.
        if (end + 1 < text.size() && text[end + 1] != ' ') return {};
        words.push_back(word);
        at = end + 1;
    }
    return words;
}

// While it lives, a tool has the disk open exclusively. It lives no longer than the daemon.
class Claim {
public:
    Claim(Appliance& appliance, const std::string& node) : _claimed(appliance.claimed()) {
        // "/dev/sdb2", or a whole disk's name.
        _claimed = node.starts_with("/dev/") ? node.substr(5, node.size() - 6) : node;
    }
    ~Claim() { _claimed.clear(); }
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

private:
    std::string& _claimed;
};

} // namespace

Shell::Answer Shell::run(const std::string& line) {
    Invariants& invariants = _world.invariants;
    if (const auto what = between(line, "/bin/mount | grep "); what && isPlain(*what)) return listMounts(*what);
    if (const auto node = between(line, "/usr/local/bin/fsck.hfsplus -q ", " 2>&1 | grep FILESYSTEM");
        node && isPlain(*node))
        return quickCheck(*node);
    if (const auto node = between(line, "/usr/local/bin/fsck.hfsplus "); node && isPlain(*node)) return repair(*node);
    if (const auto node = between(line, "/usr/local/bin/volname.hfsplus ", " 2>&1"); node && isPlain(*node))
        return volumeName(*node, true);
    if (const auto node = between(line, "/usr/local/bin/volname.hfsplus ", " | awk -F': ' '{printf $2}'");
        node && isPlain(*node))
        return volumeName(*node, false);
    if (const auto point = between(line, "/bin/mkdir -p ", "/NEVO/.uploads/"); point && isPlain(*point))
        return makeDirectories(*point);
    if (const auto point = between(line, "echo 'This directory contains temporary upload files - DO NOT PUT YOUR FILES INTO "
                                         "THIS FOLDER!!! THEY WILL BE DELETED!!!' > ", "/NEVO/.uploads/README.txt");
        point && isPlain(*point))
        return writeReadme(*point);
    if (const auto both = between(line, "/bin/mount -onoatime ", " 2>&1")) {
        if (const auto arguments = twoArguments(*both)) return mount(arguments->first, arguments->second);
    }
    if (const auto disk = between(line, "/bin/echo noop > /sys/block/", "/queue/scheduler"); disk && isPlain(*disk)) {
        if (tool("echo", 0) && _world.appliance.disk(*disk) != nullptr) return {};
        _world.appliance.lastMountStays();
        return {kToolFailed, ""};
    }
    if (const auto point = between(line, "/bin/umount -l "); point && isPlain(*point)) return unmount(*point, true);
    if (const auto point = between(line, "/bin/umount  "); point && isPlain(*point)) return unmount(*point, false);
    if (const auto point = between(line, "/bin/sync -f "); point && isPlain(*point)) {
        const bool worked = tool("sync", 50 * kMillisecond);
        // One that fails has been tried; nobody can do more.
        _world.appliance.sync(*point);
        return {worked ? 0 : kToolFailed, ""};
    }
    if (const auto point = between(line, "df | grep ", " | awk '{ print $5 }'"); point && isPlain(*point))
        return freeSpace(*point);
    if (const auto rest = between(line, "pushd ", "; popd")) {
        const std::size_t end = rest->find("; rm -f ");
        if (end != std::string::npos && isPlain(rest->substr(0, end))) {
            const Answer answer = remove(rest->substr(0, end), rest->substr(end + 8));
            invariants.deletionRan();
            return answer;
        }
    }
    if (const auto disk = between(line, "/usr/sbin/parted /dev/", " rm 1 >/dev/null 2>&1"); disk && isPlain(*disk))
        return partitionTool("parted", *disk);
    if (const auto disk = between(line, "/usr/sbin/parted /dev/", " rm 2 >/dev/null 2>&1"); disk && isPlain(*disk))
        return partitionTool("parted rm 2", *disk);
    if (const auto disk = between(line, "/usr/local/bin/fdisk.gpt /dev/", "  >/dev/null 2>&1"); disk && isPlain(*disk))
        return partitionTool("fdisk.gpt", *disk);
    if (const auto rest = between(line, "/usr/local/bin/mkfs.hfsplus /dev/", " >/dev/null 2>&1")) {
        const std::size_t end = rest->find("2 -v ");
        if (end != std::string::npos && isPlain(rest->substr(0, end)) && isPlain(rest->substr(end + 5)))
            return makeFileSystem(rest->substr(0, end), rest->substr(end + 5));
    }
    if (const auto path = between(line, "ln -s ", " /var/www/media"); path && isPlain(*path)) {
        const bool worked = tool("ln", 0);
        invariants.links(worked);
        if (!worked) return {kToolFailed, ""};
        const bool isNew = _world.appliance.files().emplace("/var/www/media", *path).second;
        return {isNew ? 0 : kToolFailed, ""};
    }
    // Writing to a file of the kernel's fails only where there is none.
    if (const auto path = between(line, "echo 0 0 0 > "); path && isPlain(*path)) {
        for (SlotHardware& slot : _world.appliance.slots())
            if (slot.scanPath == *path) _world.appliance.probe(slot);
        return {};
    }
    if (const auto disk = between(line, "echo -n 1 > /sys/block/", "/device/delete"); disk && isPlain(*disk)) {
        if (_world.appliance.disk(*disk) == nullptr) return {kToolFailed, ""};
        _world.appliance.deleteDisk(*disk);
        return {};
    }
    if (const auto both = between(line, "cp /etc/endpoint.conf.", " /etc/endpoint.conf"); both && isPlain(*both))
        return copyConfiguration(*both);
    if (const auto numbers = between(line, "/usr/local/bin/fwreset.sh ")) return resetBus(*numbers);
    if (line == "/usr/bin/endpoint &") {
        invariants.offers();
        _world.endpoint.start();
        return {};
    }
    if (line == "/usr/bin/pkill endpoint") return tellEndpointToEnd();
    if (line == "/usr/bin/pgrep endpoint") {
        invariants.looksForEndpoint();
        return {_world.endpoint.isRunning() ? 0 : 1, ""};
    }
    if (line == "scan-driver") return scanDriver();
    if (line == "load-driver" || line == "echo 1 > /proc/cf_enable" ||
        (line.starts_with("echo ") && line.find(" > /proc/") == 6 && line.ends_with("_power")))
        return {};
    invariants.unknownCommandLine(line);
    return {127, ""};
}

bool Shell::tool(const char* name, Nanoseconds duration) {
    if (_world.faults && _world.random.chance(_world.temper.toolStalls))
        duration += _world.random.between(0, 3 * kSecond);
    if (duration > 0) _world.scheduler.sleep(duration);
    if (!_world.faults || !_world.random.chance(_world.temper.toolFaults)) return true;
    _world.note([&] { return std::string("  ") + name + " fails"; });
    return false;
}

bool Shell::endpointHas(const std::string& node) {
    const std::string disk = node.size() > 6 ? node.substr(5, node.size() - 6) : "";
    if (!_world.endpoint.has(disk)) return false;
    _world.invariants.touchesOffered(disk);
    return true;
}

bool Shell::cardAnswers(const std::string& node) {
    Disk* const disk = _world.appliance.partition(node);
    if (disk == nullptr) return false;
    if (disk->medium->toolsUntilDeath > 0 && --disk->medium->toolsUntilDeath == 0) {
        _world.note([&] { return disk->medium->name() + " dies"; });
        return false;
    }
    return true;
}

Shell::Answer Shell::listMounts(const std::string& what) {
    // Reading the mount table does not fail on a machine that runs at all.
    if (what.empty()) return {2, ""}; // grep without anything to look for
    Answer answer{kNotFound, ""};
    for (const Mount& each : _world.appliance.mounts()) {
        if (each.line().find(what) == std::string::npos) continue;
        answer.output += each.line();
        answer.status = 0;
    }
    return answer;
}

Shell::Answer Shell::quickCheck(const std::string& node) {
    // A tool that dies has printed no verdict, and grep finds none.
    if (endpointHas(node)) return {kNotFound, ""};
    const Claim claim(_world.appliance, node);
    if (!tool("fsck.hfsplus -q", 20 * kMillisecond) || !cardAnswers(node)) return {kNotFound, ""};
    const Medium& medium = *_world.appliance.partition(node)->medium;
    _world.invariants.checked(node, medium);
    if (!medium.formatted) return {kNotFound, ""}; // "NO HFS SIGNATURE FOUND" is no line for grep
    return {0, std::string("QUICKCHECK ONLY; FILESYSTEM ") + (medium.clean && !medium.damaged ? "CLEAN" : "DIRTY") + "\n"};
}

Shell::Answer Shell::repair(const std::string& node) {
    _world.invariants.repairStarts(node);
    if (endpointHas(node)) return {8, ""};
    const Claim claim(_world.appliance, node);
    if (!tool("fsck.hfsplus", _world.random.between(0, 2 * kSecond))) return {kSegmentationFault, ""};
    if (!cardAnswers(node)) return {8, ""};
    Medium& medium = *_world.appliance.partition(node)->medium;
    if (!medium.formatted || medium.damaged || (!medium.clean && !medium.repairable)) return {8, ""};
    if (!_world.appliance.isMounted(medium)) medium.clean = true;
    _world.invariants.repaired(node);
    return {};
}

Shell::Answer Shell::volumeName(const std::string& node, bool withErrors) {
    const auto failure = [&](const std::string& why) {
        // Behind the pipe the status is awk's, and nothing has been printed for it to read.
        return withErrors ? Answer{1, "volname.hfsplus: " + node + ": " + why + "\n"} : Answer{0, ""};
    };
    if (!tool("volname.hfsplus", 0)) return withErrors ? failure("Input/output error") : Answer{kToolFailed, ""};
    if (!cardAnswers(node)) {
        const Disk* const disk = _world.appliance.disk(node.substr(5, node.size() - 6));
        if (disk != nullptr && disk->medium->isDead()) return failure("Input/output error");
        return failure("No such device");
    }
    const Medium& medium = *_world.appliance.partition(node)->medium;
    if (!medium.formatted) return failure("No such device");
    // The tool lets no label be misread: one that could be goes on in a second line.
    std::string label = medium.volumeName;
    for (const std::string& part : {std::string(": "), std::string("No such device")})
        if (const std::size_t at = label.find(part); at != std::string::npos) label.insert(at + 1, "\n");
    if (withErrors) return {0, node + ": " + label + "\n"};
    return {0, label}; // what awk prints of it
}

Shell::Answer Shell::makeDirectories(const std::string& mountPoint) {
    if (!tool("mkdir", 0)) return {kToolFailed, ""};
    const std::string maker = _world.appliance.folderAt(mountPoint) + "/NEVO";
    if (isDirectory(maker + "/.uploads")) return {};
    Mount* const mount = _world.appliance.mountAt(mountPoint);
    if (mount == nullptr) _world.invariants.writesBelowMountPoint(mountPoint);
    if (mount == nullptr) {
        ::mkdir(maker.c_str(), 0755);
        return {::mkdir((maker + "/.uploads").c_str(), 0755) == 0 ? 0 : kToolFailed, ""};
    }
    if (mount->dead || mount->readOnly || mount->medium->isDead()) return {kToolFailed, ""};
    _world.invariants.writesTo(*mount);
    if (mount->medium->isFull()) return {kToolFailed, ""};
    mount->medium->makeMakerDirectory();
    return {};
}

Shell::Answer Shell::writeReadme(const std::string& mountPoint) {
    if (!tool("echo", 0)) return {kToolFailed, ""};
    const Mount* const mount = _world.appliance.mountAt(mountPoint);
    const std::string uploads = _world.appliance.folderAt(mountPoint) + "/NEVO/.uploads";
    if (!isDirectory(uploads)) return {kToolFailed, ""};
    if (mount == nullptr)
        _world.invariants.writesBelowMountPoint(mountPoint);
    else if (mount->dead || mount->readOnly || mount->medium->isDead())
        return {kToolFailed, ""};
    else
        _world.invariants.writesTo(*mount);
    if (mount != nullptr && mount->medium->isFull()) return {kToolFailed, ""};
    writeFile(uploads + "/README.txt", "", _world.scheduler.now());
    return {};
}

Shell::Answer Shell::mount(const std::string& node, const std::string& mountPoint) {
    if (!tool("mount", 10 * kMillisecond) || endpointHas(node) || !cardAnswers(node))
        return {32, "mount: " + mountPoint + ": failed.\n"};
    _world.invariants.mounts(node, *_world.appliance.partition(node)->medium);
    return {_world.appliance.mount(node, mountPoint), ""};
}

Shell::Answer Shell::unmount(const std::string& mountPoint, bool lazy) {
    const bool worked = tool("umount", 10 * kMillisecond);
    _world.invariants.unmounts(mountPoint);
    if (!worked) {
        _world.appliance.unmountFails(mountPoint);
        return {32, ""};
    }
    return {_world.appliance.unmount(mountPoint, lazy), ""};
}

Shell::Answer Shell::freeSpace(const std::string& mountPoint) {
    Answer answer;
    if (!tool("df", 0) || mountPoint.empty()) return answer; // awk is content with nothing
    for (const Mount& each : _world.appliance.mounts())
        if (each.mountPoint.find(mountPoint) != std::string::npos)
            answer.output += std::to_string(each.medium->usedPercent) + "%\n";
    return answer;
}

Shell::Answer Shell::remove(const std::string& directory, const std::string& arguments) {
    const bool everything = arguments == "*";
    const auto words = everything ? std::vector<std::string>() : quotedWords(arguments);
    if (!words) {
        _world.invariants.unquotedText(arguments);
        return {2, ""};
    }
    if (!tool("rm", 10 * kMillisecond)) return {kToolFailed, ""};
    // Where "pushd" fails, the names that follow mean nothing: the line runs in an empty directory of its own.
    const std::string tail = "/NEVO/";
    const std::string mountPoint = directory.ends_with(tail) ? directory.substr(0, directory.size() - tail.size()) : "";
    const std::string folder = _world.appliance.folderAt(mountPoint) + "/NEVO";
    if (mountPoint.empty() || !isDirectory(folder)) return {};
    const Mount* const mount = _world.appliance.mountAt(mountPoint);
    _world.invariants.removesIn(mountPoint, mount);
    if (mount == nullptr || mount->readOnly) return {};
    _world.invariants.writesTo(*mount);
    std::vector<std::string> names = everything ? filesIn(folder) : *words;
    for (const std::string& name : names) {
        if (name.empty() || (everything && name.starts_with('.'))) continue;
        if (name.find('/') != std::string::npos || name == "..") _world.invariants.leavesMakerDirectory(name);
        if (name.starts_with('/')) continue; // no medium's
        const std::string path = folder + "/" + name;
        if (isDirectory(path) || ::unlink(path.c_str()) != 0) continue;
        _world.note([&] { return "  " + mount->medium->name() + " loses " + name; });
        _world.invariants.fileRemoved(*mount->medium, name);
        _world.appliance.fileEvent(*mount->medium, name, IN_DELETE);
    }
    return {};
}

Shell::Answer Shell::partitionTool(const char* name, const std::string& disk) {
    const bool isPartitioner = std::string(name) == "fdisk.gpt";
    _world.invariants.formats(disk, name);
    if (endpointHas("/dev/" + disk + "2")) return {kToolFailed, ""};
    if (!tool(name, 30 * kMillisecond)) return {kToolFailed, ""};
    Disk* const found = _world.appliance.disk(disk);
    if (found == nullptr || found->slot->medium != found->medium || found->medium->isDead()) return {kToolFailed, ""};
    // The partitioner refuses a device that is mounted read-write, and takes what is mounted read-only off it.
    for (const Mount& each : std::vector<Mount>(_world.appliance.mounts())) {
        if (each.disk != disk) continue;
        if (!each.readOnly) return {kToolFailed, ""};
        if (isPartitioner) _world.appliance.unmount(each.mountPoint, true);
    }
    if (found->medium->writeProtected) return {kToolFailed, ""};
    if (isPartitioner || std::string(name) == "parted rm 2") {
        found->medium->partitioned = isPartitioner;
        found->medium->formatted = false;
    }
    return {};
}

Shell::Answer Shell::makeFileSystem(const std::string& disk, const std::string& volumeName) {
    _world.invariants.formats(disk, "mkfs.hfsplus");
    if (endpointHas("/dev/" + disk + "2")) return {kToolFailed, ""};
    const Claim claim(_world.appliance, disk);
    Disk* const before = _world.appliance.disk(disk);
    Medium* const medium = before == nullptr ? nullptr : before->medium;
    bool made = false;
    try {
        made = tool("mkfs.hfsplus", _world.random.between(0, 2 * kSecond));
    } catch (const DaemonGone&) {
        // It dies with the daemon, in the middle of its work.
        if (medium != nullptr) medium->formatted = false;
        throw;
    }
    if (!cardAnswers("/dev/" + disk + "2")) return {kToolFailed, ""};
    Medium& target = *_world.appliance.partition("/dev/" + disk + "2")->medium;
    if (target.writeProtected || _world.appliance.isMounted(target)) return {kToolFailed, ""};
    if (!made) {
        // Before it has written anything, or when what was there is gone.
        if (_world.random.chance(500)) target.formatted = false;
        return {kToolFailed, ""};
    }
    target.format(volumeName);
    return {};
}

Shell::Answer Shell::copyConfiguration(const std::string& disk) {
    auto& files = _world.appliance.files();
    const auto from = files.find("/etc/endpoint.conf." + disk);
    const bool copied = tool("cp", 0) && from != files.end();
    _world.invariants.configures(disk, copied);
    if (!copied) return {kToolFailed, ""};
    files[Endpoint::kConfiguration] = from->second;
    return {};
}

Shell::Answer Shell::resetBus(const std::string& numbers) {
    unsigned int upper = 0;
    unsigned int lower = 0;
    unsigned int mode = 0;
    int end = 0;
    if (std::sscanf(numbers.c_str(), "0x%x 0x%x 0x%x%n", &upper, &lower, &mode, &end) != 3 ||
        static_cast<std::size_t>(end) != numbers.size())
        _world.invariants.unknownCommandLine(numbers);
    _world.invariants.resetsBus(static_cast<int>(mode));
    return {tool("fwreset.sh", 0) ? 0 : kToolFailed, ""};
}

Shell::Answer Shell::tellEndpointToEnd() {
    _world.invariants.endsEndpoint();
    if (!tool("pkill", 0)) {
        _world.endpoint.misses();
        return {kToolFailed, ""};
    }
    const bool anybody = _world.endpoint.isRunning();
    _world.endpoint.askToEnd();
    return {anybody ? 0 : kNotFound, ""};
}

Shell::Answer Shell::scanDriver() {
    if (!_world.appliance.driverAnswers()) return {kToolFailed, ""};
    _world.appliance.repeatAnnouncements();
    return {};
}

} // namespace simulation
