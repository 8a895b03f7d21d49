#include "diagnostic_line.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "daemonizer.h"

void writeDiagnosticLine(const std::string& text) {
    const int error = errno;
    const std::string line = Daemonizer::name + text + "\n";
    const char* at = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        const ssize_t written = ::write(STDERR_FILENO, at, left);
        if (written == -1 && errno == EINTR) continue;
        if (written <= 0) break; // nobody to tell
        at += written;
        left -= static_cast<std::size_t>(written);
    }
    errno = error;
}

void writeDiagnosticLine(const std::string& text, int error) {
    writeDiagnosticLine(text + ": " + std::generic_category().message(error));
}
