#ifndef MEDIAD_CLASSES_SEMAPHORE_SEMAPHORE_HELPER_H
#define MEDIAD_CLASSES_SEMAPHORE_SEMAPHORE_HELPER_H

#include <semaphore.h>

#include "classes/os/operating_system.h"

// Holds a POSIX semaphore for the length of a scope, which makes a lock of a semaphore with the count 1. A wait or post
// that fails is reported through perror, and the scope goes on all the same: a recorder that cannot lock still records.
// What was not taken is not given back, or the count would be one too high from then on and two could hold it.
class SemaphoreHelper {
public:
    // Makes `semaphore` ready, process-private, with the count 1. A failure is reported, not returned.
    static void Init(sem_t* semaphore, OperatingSystem& os = OperatingSystem::host());

    explicit SemaphoreHelper(sem_t* semaphore, OperatingSystem& os = OperatingSystem::host());
    ~SemaphoreHelper();
    SemaphoreHelper(const SemaphoreHelper&) = delete;
    SemaphoreHelper& operator=(const SemaphoreHelper&) = delete;

private:
    sem_t* _semaphore;
    OperatingSystem& _os;
    bool _held;
};

#endif
