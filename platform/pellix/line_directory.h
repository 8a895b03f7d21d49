#ifndef MEDIAD_PLATFORM_PELLIX_LINE_DIRECTORY_H
#define MEDIAD_PLATFORM_PELLIX_LINE_DIRECTORY_H

#include <sys/types.h>

#include <string>

// What a running command line has in the file system: a folder of its own, "mediad.XXXXXX" in /run or else in /tmp,
// which only its owner may enter. It goes with the line.
//
//   line/     the empty directory that the line starts in: what a relative name or a "*" means after a "pushd" that
//             failed is nothing. A program left in the background keeps a working directory without a name.
//   process   "OWNER TIME SHELL TIME", ids and start times of the process that runs the line and of its shell, whose
//             process group the line is: what the next run of the daemon must end when this one is killed.
class LineDirectory {
public:
    LineDirectory();
    ~LineDirectory();
    LineDirectory(const LineDirectory&) = delete;
    LineDirectory& operator=(const LineDirectory&) = delete;

    bool exists() const { return !_path.empty(); }
    std::string start() const { return _path + "/line"; } // where the line starts

    // Says whose the line is. A failure is nobody's business: the line runs all the same.
    void record(pid_t shell) const;

    // Ends every line that a process of this user has left behind when it was killed, and takes away its folder. What
    // had to be ended is reported, a line each. A process group is only touched when its shell is the recorded one, or
    // when all its processes are younger than that and have what only our lines have in their environment.
    static void endLeftLines(const char* const* environment);

private:
    std::string _path;
};

#endif
