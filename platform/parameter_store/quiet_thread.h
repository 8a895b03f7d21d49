#ifndef MEDIAD_PLATFORM_QUIET_THREAD_H
#define MEDIAD_PLATFORM_QUIET_THREAD_H

// Threads of a library inside somebody else's program.

#include <pthread.h>

#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

// Starts `body` on a thread with every signal blocked: the program's own threads are the ones that expect signals.
// `name` (15 characters at most) is what the system shows for the thread. False when there can be no more threads.
template <typename Body>
bool startQuietThread(std::thread& thread, const char* name, Body body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool started = true;
    try {
        thread = std::thread(std::move(body));
        pthread_setname_np(thread.native_handle(), name);
    } catch (const std::system_error&) {
        started = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

#endif
