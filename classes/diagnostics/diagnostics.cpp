#include "classes/diagnostics/diagnostics.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>

#include "daemonizer.h"

void report(const std::string& text) { reportPlain(Daemonizer::name + text + "\n"); }

void reportPlain(const std::string& text) {
    const char* at = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t written = ::write(STDERR_FILENO, at, left);
        if (written == -1 && errno == EINTR) continue;
        if (written <= 0) return; // nobody to tell
        at += written;
        left -= static_cast<std::size_t>(written);
    }
}

std::string printable(std::string text) {
    for (char& c : text)
        if (std::iscntrl(static_cast<unsigned char>(c)) != 0) c = '?';
    return text;
}
