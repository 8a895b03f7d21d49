#ifndef MEDIAD_PLATFORM_SIGNALS_HELD_H
#define MEDIAD_PLATFORM_SIGNALS_HELD_H

#include <pthread.h>

#include <csignal>

// Holds back every signal from the calling thread for the length of a scope; a thread made meanwhile inherits that for
// good. Any thread.
class SignalsHeld {
public:
    SignalsHeld() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &_before);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

private:
    sigset_t _before;
};

#endif
