#ifndef MEDIAD_PLATFORM_THREAD_SLEEP_H
#define MEDIAD_PLATFORM_THREAD_SLEEP_H

// Suspends the calling thread for at least so many nanoseconds, not at all for 0 and less; signals do not shorten the
// sleep. Any thread.
class ThreadSleep {
public:
    ThreadSleep();
    ~ThreadSleep();
    void sleep(long nanoseconds);
};

#endif
