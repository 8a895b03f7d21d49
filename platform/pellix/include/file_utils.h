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
    // Returns the shell's exit status, 128 + signal for a killed tool, 127 when no shell could be started.
    virtual int executeCommand(const std::string& line, char* output = nullptr, std::size_t outputSize = 0);
};

#endif
