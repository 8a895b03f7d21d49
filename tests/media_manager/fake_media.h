#ifndef MEDIAD_TESTS_MEDIA_MANAGER_FAKE_MEDIA_H
#define MEDIAD_TESTS_MEDIA_MANAGER_FAKE_MEDIA_H

// Media and a mount table behind the fake shell: what the image's tools would say to the daemon's command lines. A rule
// that a test adds to the shell afterwards comes first.

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/fakes/fakes.h"

namespace fakes {

struct Medium {
    std::string label = "CARD";
    bool formatted = true;
    bool clean = true;
    bool repairable = true; // a dirty one
    bool readOnly = false;  // the kernel mounts it so
    int used = 40;          // percent
};

class FakeMedia {
public:
    struct Mount {
        std::string node;
        std::string point;
        std::string options;
    };

    explicit FakeMedia(FakeFileUtils& shell) {
        shell.handle("", [this](const std::string& line) { return run(line); });
    }

    // By device name ("sdb").
    std::map<std::string, Medium> media;
    std::vector<Mount> mounts;
    int umountStatus = 0; // with another one nothing is unmounted

    bool isMounted(const std::string& point) const {
        for (const Mount& mount : mounts)
            if (mount.point == point) return true;
        return false;
    }

private:
    using Answer = FakeFileUtils::Answer;

    static bool startsWith(const std::string& line, const std::string& begin) { return line.starts_with(begin); }

    // The medium whose partition the line names.
    Medium* medium(const std::string& line) {
        for (auto& [device, each] : media)
            if (line.find("/dev/" + device + "2") != std::string::npos) return &each;
        return nullptr;
    }

    Answer run(const std::string& line) {
        if (startsWith(line, "/bin/mount | grep ")) return table(line.substr(18));
        if (startsWith(line, "/bin/mount ")) return mount(line);
        if (startsWith(line, "/bin/umount ")) return unmount(line);
        if (startsWith(line, "/usr/local/bin/fsck.hfsplus -q ")) {
            const Medium* found = medium(line);
            if (found == nullptr) return {1, ""};
            return {0, found->clean ? "QUICKCHECK ONLY; FILESYSTEM CLEAN\n" : "QUICKCHECK ONLY; FILESYSTEM DIRTY\n"};
        }
        if (startsWith(line, "/usr/local/bin/fsck.hfsplus ")) {
            Medium* found = medium(line);
            if (found == nullptr || !found->repairable) return {8, ""};
            found->clean = true;
            return {0, ""};
        }
        if (startsWith(line, "/usr/local/bin/volname.hfsplus ")) return volumeName(line);
        if (startsWith(line, "df | grep ")) return capacity(line);
        return {};
    }

    Answer table(const std::string& pattern) const {
        std::string lines;
        for (const Mount& each : mounts) {
            const std::string line = each.node + " on " + each.point + " type hfsplus (" + each.options + ",noatime)\n";
            if (line.find(pattern) != std::string::npos) lines += line;
        }
        return {lines.empty() ? 1 : 0, lines};
    }

    Answer mount(const std::string& line) {
        std::istringstream words(line);
        std::string tool, option, node, point;
        words >> tool >> option >> node >> point;
        const Medium* found = medium(line);
        if (found == nullptr || !found->formatted) return {32, "mount: wrong fs type\n"};
        mounts.push_back({node, point, found->readOnly ? "ro" : "rw"});
        return {};
    }

    Answer unmount(const std::string& line) {
        if (umountStatus != 0) return {umountStatus, ""};
        const std::string point = line.substr(line.rfind(' ') + 1);
        for (auto each = mounts.rbegin(); each != mounts.rend(); ++each)
            if (each->point == point) {
                mounts.erase(std::next(each).base());
                return {};
            }
        return {1, ""};
    }

    Answer volumeName(const std::string& line) {
        const Medium* found = medium(line);
        const bool whole = line.find("awk") == std::string::npos;
        if (found == nullptr || !found->formatted) return {whole ? 1 : 0, whole ? "No such device\n" : ""};
        return {0, whole ? "/dev/xxx: " + found->label + "\n" : found->label};
    }

    Answer capacity(const std::string& line) {
        const std::string pattern = line.substr(10, line.find(" | awk") - 10);
        for (const Mount& each : mounts)
            if (each.point.find(pattern) != std::string::npos)
                return {0, std::to_string(medium(each.node)->used) + "%\n"};
        return {};
    }
};

} // namespace fakes

#endif
