#include "process_table.h"

#include <dirent.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

std::optional<ProcessEntry> ProcessEntry::of(pid_t id) {
    errno = 0;
    std::ifstream file("/proc/" + std::to_string(id) + "/stat");
    std::string line;
    std::getline(file, line);
    // A program's name may hold anything, blanks and parentheses too.
    const std::size_t name = line.rfind(')');
    if (name == std::string::npos) return std::nullopt;
    std::istringstream fields(line.substr(name + 1));
    ProcessEntry entry;
    entry.id = id;
    char state = 0;
    pid_t parent = 0;
    fields >> state >> parent >> entry.group;
    std::string skipped;
    for (int field = 6; field < 22; ++field) fields >> skipped;
    fields >> entry.startTime;
    if (!fields) return std::nullopt;
    entry.isOver = state == 'Z' || state == 'X';
    return entry;
}

std::optional<std::vector<ProcessEntry>> ProcessEntry::membersOf(pid_t group) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc"), &closedir);
    if (!directory) return std::nullopt;
    std::vector<ProcessEntry> members;
    while (const dirent* entry = readdir(directory.get())) {
        const auto id = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (id <= 0) continue;
        const auto process = of(id);
        if (!process && errno != 0 && errno != ENOENT && errno != ESRCH) return std::nullopt;
        if (process && process->group == group && !process->isOver) members.push_back(*process);
    }
    return members;
}
