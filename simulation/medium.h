#ifndef MEDIAD_SIMULATION_MEDIUM_H
#define MEDIAD_SIMULATION_MEDIUM_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "simulation/trace.h"

namespace simulation {

// A card, in a slot or in the operator's pocket. What is on its file system lies in a real folder, so that the daemon's
// clip scanner reads real files; everything else about it is a few flags.
class Medium {
public:
    // Its folder is made empty.
    Medium(int number, std::string root);

    int number() const { return _number; }
    std::string name() const { return "card" + std::to_string(_number); }
    // The root of its file system.
    const std::string& root() const { return _root; }
    std::string makerDirectory() const { return _root + "/NEVO"; }

    // A new, empty file system of that name.
    void format(const std::string& volumeName);
    void makeMakerDirectory();
    // Somebody changes a file, and later closes the last one that was open.
    void changes(Nanoseconds now);
    // A file of that name is there with new contents.
    void made(const std::string& file);
    void closed();
    void synced() { unwrittenSince = -1; }
    // Whether something would be lost with its disk. The kernel leaves nothing in memory for long.
    bool hasUnwritten(Nanoseconds now) const { return unwrittenSince >= 0 && now - unwrittenSince < 35 * kSecond; }

    // Whether the recorder is expected to take it into use.
    bool isGood() const {
        return partitioned && formatted && !damaged && !writeProtected && (clean || repairable) && !isDead();
    }

    bool partitioned = true;
    bool formatted = true;
    bool clean = true;           // its file system was unmounted before it was pulled
    bool repairable = true;      // when it is not clean
    bool damaged = false;        // beyond repair
    bool writeProtected = false;
    int toolsUntilDeath = -1;    // a dying card stops answering after so many tools; -1 never
    int usedPercent = 20;
    bool isFull() const { return usedPercent >= 100; } // not even a directory can be made
    std::string volumeName = "007";
    int busy = 0;                // somebody's open files
    bool openAcrossLives = false; // some of them since before this daemon
    bool lingers = false;        // unmounted lazily with open files: its file system lives on
    // When the first was written of what only the computer's memory has; -1 when there is nothing.
    Nanoseconds unwrittenSince = -1;
    bool leaves = false;         // synced to be taken off the bus: what is written from now on, nobody can save
    std::set<std::string> renamedAway; // names of clips that nobody has made anew

    bool isDead() const { return toolsUntilDeath == 0; }

private:
    const int _number;
    const std::string _root;
};

// Files on media. Times are virtual: a file's stamp must not tell the hour of the run.
void writeFile(const std::string& path, const std::string& bytes, Nanoseconds now);
void setFileTime(const std::string& path, Nanoseconds now);
// Sorted; without "." and "..".
std::vector<std::string> filesIn(const std::string& directory);
bool isDirectory(const std::string& path);
void removeTree(const std::string& path);

// A smallest QuickTime file that the recorder takes for one of its clips, made `seconds` after the epoch.
std::string clipBytes(std::uint32_t seconds, int frames);
std::string playlistBytes(const std::string& name, const std::vector<std::string>& clips);

} // namespace simulation

#endif
