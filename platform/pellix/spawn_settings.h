#ifndef MEDIAD_PLATFORM_PELLIX_SPAWN_SETTINGS_H
#define MEDIAD_PLATFORM_PELLIX_SPAWN_SETTINGS_H

#include <spawn.h>

#include <csignal>

// What a child is started with; owns the two structures of posix_spawn. Child processes are never forked: the daemon
// has other threads, whose locks a copy of the process would hold for ever.
struct SpawnSettings {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;

    // The daemon's threads block every signal and it ignores SIGPIPE: neither is for its children. A session of their
    // own, so that an interrupt from the terminal of a daemon in the foreground does not end them half way.
    SpawnSettings() {
        need(posix_spawn_file_actions_init(&actions));
        need(posix_spawnattr_init(&attributes));
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        need(posix_spawnattr_setsigdefault(&attributes, &all));
        need(posix_spawnattr_setsigmask(&attributes, &none));
        need(posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID));
    }
    ~SpawnSettings() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    // Takes the result of a call that the child cannot do without. A child without one of its settings would run where
    // and with what it must not.
    void need(int result) {
        if (_error == 0) _error = result;
    }
    // The first error number among those results, else 0: only then may the child be started.
    int error() const { return _error; }

private:
    int _error = 0;
};

#endif
