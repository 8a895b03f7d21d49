#include "classes/semaphore/semaphore_helper.h"

#include <cstdio>

// The line ends stand inside the texts, so the error's description follows on a line of its own.

void SemaphoreHelper::Init(sem_t* semaphore, OperatingSystem& os) {
    if (os.initSemaphore(semaphore, 1) == -1) std::perror("SemaphoreHelper::Init - failed\n");
}

SemaphoreHelper::SemaphoreHelper(sem_t* semaphore, OperatingSystem& os)
    : _semaphore(semaphore), _os(os), _held(os.waitSemaphore(semaphore) != -1) {
    if (!_held) std::perror("Semaphore(): call to sem_wait failed\n");
}

SemaphoreHelper::~SemaphoreHelper() {
    if (_held && _os.postSemaphore(_semaphore) == -1) std::perror("SemaphoreHelper::~SemaphoreHelper failed to post\n");
}
