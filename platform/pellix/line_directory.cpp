#include "line_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "descriptor.h"
#include "diagnostic_line.h"
#include "printable.h"
#include "process_group.h"
#include "process_table.h"

namespace {

constexpr const char* kParents[] = {"/run", "/tmp"};
constexpr char kPrefix[] = "mediad.";
constexpr char kRecord[] = "process";

std::uint64_t startTimeOf(pid_t process) {
    const auto entry = ProcessEntry::of(process);
    return entry ? entry->startTime : 0;
}

void removeFolder(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

struct Record {
    pid_t owner = 0;
    std::uint64_t ownerTime = 0;
    pid_t shell = 0;
    std::uint64_t shellTime = 0;
};

// Nothing from a folder that somebody else could have made.
bool readRecord(const std::string& folder, Record& record) {
    const Descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!directory.isOpen() || fstat(directory.get(), &status) == -1 || status.st_uid != geteuid() ||
        (status.st_mode & 07777) != 0700)
        return false;
    const Descriptor file(openat(directory.get(), kRecord, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    char text[128];
    const ssize_t size = file.isOpen() ? read(file.get(), text, sizeof text) : -1;
    if (size <= 0 || text[size - 1] != '\n') return false; // nothing in it, or not all
    std::istringstream numbers(std::string(text, static_cast<std::size_t>(size)));
    numbers >> record.owner >> record.ownerTime >> record.shell >> record.shellTime;
    return static_cast<bool>(numbers) && record.owner > 0 && record.shell > 1;
}

bool isRunning(pid_t process, std::uint64_t startTime) {
    const auto entry = ProcessEntry::of(process);
    return entry && entry->startTime == startTime;
}

bool hasInEnvironment(pid_t process, const char* const* environment) {
    std::ifstream file("/proc/" + std::to_string(process) + "/environ", std::ios::binary);
    std::vector<std::string> variables;
    for (std::string variable; std::getline(file, variable, '\0');) variables.push_back(variable);
    for (; *environment != nullptr; ++environment)
        if (std::find(variables.begin(), variables.end(), *environment) == variables.end()) return false;
    return true;
}

// While one process of a group is there, no new process gets the group's number: all members are ours, or none is.
bool isLeftLine(const Record& record, const std::vector<ProcessEntry>& members, const char* const* environment) {
    return !members.empty() &&
           std::all_of(members.begin(), members.end(), [&](const ProcessEntry& process) {
               return process.id == record.shell
                          ? process.startTime == record.shellTime
                          : process.startTime >= record.shellTime && hasInEnvironment(process.id, environment);
           });
}

std::string namesOf(const std::vector<ProcessEntry>& processes) {
    std::string text;
    for (const ProcessEntry& process : processes) {
        std::ifstream file("/proc/" + std::to_string(process.id) + "/comm");
        std::string name;
        std::getline(file, name);
        text += (text.empty() ? "" : ", ") + printable(name);
    }
    return text;
}

} // namespace

LineDirectory::LineDirectory() {
    for (const char* const parent : kParents) {
        _path = std::string(parent) + "/" + kPrefix + "XXXXXX";
        if (mkdtemp(_path.data()) != nullptr) {
            if (mkdir(start().c_str(), 0700) == 0) return;
            removeFolder(_path);
        }
    }
    _path.clear();
}

LineDirectory::~LineDirectory() {
    if (_path.empty()) return;
    unlink((_path + "/" + kRecord).c_str());
    if (rmdir(start().c_str()) == 0 && rmdir(_path.c_str()) == 0) return;
    // A tool left something behind there, a memory image for instance.
    removeFolder(_path);
}

void LineDirectory::record(pid_t shell) const {
    std::ostringstream text;
    text << getpid() << ' ' << startTimeOf(getpid()) << ' ' << shell << ' ' << startTimeOf(shell) << '\n';
    std::ofstream(_path + "/" + kRecord) << text.str();
}

void LineDirectory::endLeftLines(const char* const* environment) {
    for (const char* const parent : kParents) {
        std::vector<std::string> folders;
        std::error_code error;
        for (auto entry = std::filesystem::directory_iterator(parent, error);
             entry != std::filesystem::directory_iterator(); entry.increment(error)) {
            if (error) break;
            if (entry->path().filename().string().starts_with(kPrefix)) folders.push_back(entry->path());
        }
        for (const std::string& folder : folders) {
            Record record;
            if (!readRecord(folder, record) || record.owner == getpid() || isRunning(record.owner, record.ownerTime))
                continue;
            const auto members = ProcessEntry::membersOf(record.shell);
            if (!members) continue; // the next start may be able to look
            if (isLeftLine(record, *members, environment)) {
                const std::string names = namesOf(*members);
                const bool ended = endProcessGroup(record.shell, [] {});
                writeDiagnosticLine(std::string(ended ? " ended" : " could not end") +
                                    " what an earlier run has left running: " + names);
            }
            removeFolder(folder);
        }
    }
}
