#include "tools/interruption.h"

#include <atomic>
#include <iterator>

namespace mediactl {

namespace {

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "or a signal handler may not write it");

void note(int) { interrupted = true; }

} // namespace

Interruption::Interruption() {
    struct sigaction action {};
    action.sa_handler = note; // without SA_RESTART: a wait has to end
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        sigaction(kSignals[i], nullptr, &_before[i]);
        if (_before[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &action, nullptr);
    }
}

Interruption::~Interruption() {
    for (std::size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &_before[i], nullptr);
}

bool Interruption::take() { return interrupted.exchange(false); }

} // namespace mediactl
