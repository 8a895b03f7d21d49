#ifndef MEDIAD_PLATFORM_FILE_UTILS_H
#define MEDIAD_PLATFORM_FILE_UTILS_H

#include <cstddef>
#include <string>

// Runs shell command lines. Any thread; calls do not share state.
class FileUtils {
public:
    FileUtils();
    virtual ~FileUtils();

    // Runs `line` through bash and waits for the shell (not for what the line leaves in the background). When `output`
    // is given, its `outputSize` bytes receive the line's standard output: at most outputSize - 1 bytes, always
    // terminated, the rest is drained. The line is taken before the output is written, so both may be one buffer.
    //
    // The line sees an empty standard input, a clean environment and signal state, umask 022, an empty private
    // directory as its working directory, and an `rm` that ends its options before the line's own arguments.
    //
    // A line that takes more than a minute, or an hour when it runs an fsck or mkfs, is ended: its whole process group,
    // with SIGTERM, and what is left five seconds later with SIGKILL. One line on standard error says so. What a line
    // has left in the background when it ends is not touched.
    //
    // Before the first line of a process, the lines of processes that were killed while they waited for them are ended.
    //
    // Returns the shell's exit status, 128 + signal for a killed tool, 127 when no shell could be started, 124 for a line
    // that was ended.
    virtual int executeCommand(const std::string& line, char* output = nullptr, std::size_t outputSize = 0);
};

#endif
