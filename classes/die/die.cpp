#include "classes/die/die.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "daemonizer.h"

namespace {

// Two threads inside exit() at once is undefined: the first to come here may call it.
std::atomic<bool> exitTaken{false};

} // namespace

void die(const char* message) {
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, message, std::strlen(message));
    Daemonizer::killed = 1;
    if (exitTaken.exchange(true)) ::_exit(1);
    std::exit(1);
}

int leaveMain(int status) {
    while (exitTaken.exchange(true)) ::pause();
    return status;
}
