#ifndef MEDIAD_PLATFORM_SEGMENT_MUTEX_H
#define MEDIAD_PLATFORM_SEGMENT_MUTEX_H

// The named mutex of a shared segment, as the recorder's own writers and readers lock it.
//
// To every other program it is a named mutex of the shared-memory library, which is a POSIX named semaphore: sem_wait
// locks, sem_post unlocks. What is added here is that a holder who died must not stop the recorder for ever:
// - A lock that is not had in time is taken over, and one line on standard error says so.
// - The holder may have been merely slow, and still post. So the mutex is given back only where its count is 0, and
//   what the count has too many when a lock is had is taken away: it never stays at 2.

#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <boost/interprocess/creation_tags.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/permissions.hpp>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <cerrno>
#include <ctime>
#include <string>

#include "daemonizer.h"

#if !defined(BOOST_INTERPROCESS_NAMED_MUTEX_USES_POSIX_SEMAPHORES)
#error "Other programs lock POSIX named semaphores; here named mutexes are something else."
#endif

namespace nevo::media {

// How long a lock is waited for before it is taken over, in milliseconds. Tests shorten it.
inline std::atomic<long> segmentMutexPatience{10'000};

// Everybody on the recorder may read and write segments and mutexes. The semaphores obey the umask, so who makes them
// needs umask 0.
inline boost::interprocess::permissions segmentPermissions() { return boost::interprocess::permissions(0777); }

// One thread at a time for an object. Failures are thrown as boost::interprocess::interprocess_exception.
class SegmentMutex {
public:
    // Opens or makes the mutex of that name; a "/" is put in front where there is none.
    explicit SegmentMutex(const std::string& name)
        : _name(name.starts_with('/') ? name : '/' + name),
          _mutex(boost::interprocess::open_or_create, _name.c_str(), segmentPermissions()),
          // The same semaphore once more: the library's object neither tells its count nor waits by a steady clock.
          _semaphore(::sem_open(_name.c_str(), 0)) {
        if (_semaphore == SEM_FAILED) fail();
    }
    ~SegmentMutex() { ::sem_close(_semaphore); }
    SegmentMutex(const SegmentMutex&) = delete;
    SegmentMutex& operator=(const SegmentMutex&) = delete;

    void lock() {
        if (!_mutex.try_lock() && !waitForIt())
            say(" the lock " + _name + " was not given back in time and is taken over");
        while (count() > 0 && _mutex.try_lock()) {}
    }

    void unlock() {
        if (count() == 0) _mutex.unlock();
    }

private:
    [[noreturn]] static void fail() {
        throw boost::interprocess::interprocess_exception(boost::interprocess::error_info(errno));
    }

    int count() const {
        int count = 0;
        if (::sem_getvalue(_semaphore, &count) == -1) fail();
        return count;
    }

    // False when it was not had in time.
    bool waitForIt() {
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 30)
        constexpr clockid_t clock = CLOCK_MONOTONIC; // a recorder's date may be set at any moment
#else
        constexpr clockid_t clock = CLOCK_REALTIME;
#endif
        const long patience = segmentMutexPatience;
        timespec deadline;
        if (::clock_gettime(clock, &deadline) == -1) fail();
        deadline.tv_sec += static_cast<time_t>(patience / 1000);
        deadline.tv_nsec += patience % 1000 * 1'000'000;
        if (deadline.tv_nsec >= 1'000'000'000) {
            ++deadline.tv_sec;
            deadline.tv_nsec -= 1'000'000'000;
        }
        int result;
        do {
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 30)
            result = ::sem_clockwait(_semaphore, clock, &deadline);
#else
            result = ::sem_timedwait(_semaphore, &deadline);
#endif
        } while (result == -1 && errno == EINTR);
        if (result == -1 && errno != ETIMEDOUT) fail();
        return result == 0;
    }

    static void say(const std::string& text) {
        const std::string line = Daemonizer::name + text + "\n";
        [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
    }

    std::string _name;
    boost::interprocess::named_mutex _mutex;
    sem_t* _semaphore;
};

} // namespace nevo::media

#endif
