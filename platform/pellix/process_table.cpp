#include "process_table.h"

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

std::optional<ProcessEntry> ProcessEntry::of(pid_t id) {
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

std::vector<ProcessEntry> ProcessEntry::membersOf(pid_t group) {
    std::vector<ProcessEntry> members;
    DIR* const directory = opendir("/proc");
    if (directory == nullptr) return members;
    while (const dirent* entry = readdir(directory)) {
        const auto id = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (id <= 0) continue;
        if (const auto process = of(id); process && process->group == group && !process->isOver)
            members.push_back(*process);
    }
    closedir(directory);
    return members;
}
