#ifndef MEDIAD_CLASSES_OS_OPERATING_SYSTEM_H
#define MEDIAD_CLASSES_OS_OPERATING_SYSTEM_H

// The door to the operating system: every outside effect of the daemon that is not a parameter, a card register or a
// shell command goes through here, and so does the start of every thread. A test puts its own object behind the door.
//
// Results are the system call's own (-1 with errno set on failure) unless said otherwise. Any thread may call any
// operation; none is called with a lock held (the semaphore operations are the locks).

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

class ThreadSleep;

class OperatingSystem {
public:
    enum class ThreadKind {
        Joinable,          // default attributes; the caller joins
        Detached,          // detached, default scheduling
        DetachedScheduled, // detached, explicit scheduling: SCHED_OTHER, priority 0
    };

    // The system this process runs on.
    static OperatingSystem& host();

    virtual ~OperatingSystem() = default;

    // Seconds since the epoch. The date of a recorder may be set at any moment: what has to last so long is measured with
    // the next one.
    virtual std::time_t time();
    // Seconds since some moment at least a minute before the recorder was switched on; nobody sets them.
    virtual std::time_t steadyTime();

    // Suspends the calling thread. The first goes through the product library's sleeper.
    virtual void sleep(ThreadSleep& sleeper, long nanoseconds);
    virtual void sleepSeconds(unsigned int seconds);
    virtual void sleepMicroseconds(unsigned int microseconds);

    // The system library's system(), with umask 022. It ignores SIGINT in the whole process while the line runs, so one
    // that comes meanwhile is lost; the lines that go this way take milliseconds.
    virtual int system(const std::string& line);

    virtual int makeDirectory(const std::string& path, mode_t mode);
    virtual int unlink(const std::string& path);
    virtual bool exists(const std::string& path);
    // An empty file; one that is there already keeps its mode and loses its content. 0 or -1.
    virtual int createFile(const std::string& path, mode_t mode);
    // Whether some process has `name` in the name of its program, where pgrep would find it; true also when not every
    // process could be looked at. No process is started for the look.
    virtual bool isRunning(const std::string& name);
    // Whether `path` itself is a symbolic link, wherever it leads.
    virtual bool isLink(const std::string& path);
    // Sets nosymfollow, nodev, nosuid and noexec on what is mounted at `path` and keeps its other flags. A kernel before 5.10
    // knows no nosymfollow and sets the rest. Fails where nothing is mounted.
    virtual int guardMount(const std::string& path);

    // Starts a thread with all signals blocked: only the main thread takes them. Returns 0 or the error number.
    virtual int startThread(ThreadKind kind, void* (*body)(void*), void* argument, pthread_t& thread);
    virtual int joinThread(pthread_t thread);

    virtual int initSemaphore(sem_t* semaphore, unsigned int value); // process-private
    virtual int waitSemaphore(sem_t* semaphore);                     // an interrupting signal does not end the wait
    virtual int postSemaphore(sem_t* semaphore);

    // Kernel uevents: the socket, its binding (port id = process id), readiness and one datagram. `openUevents` asks
    // for a receive buffer of 16 MiB; datagrams that are dropped all the same are counted, not reported as errors.
    virtual int openUevents();
    virtual int bindUevents(int socket, std::uint32_t groups);
    // Waits for a datagram or for `wake` (an eventfd; -1 for none). 1: a datagram, 0: woken, -1: failed.
    virtual int pollUevents(int socket, int wake);
    // Whether a datagram is there already, without waiting. 1: yes, 0: no, -1: failed.
    virtual int lookForUevent(int socket);
    virtual ssize_t receiveUevent(int socket, void* buffer, std::size_t size);
    // Datagrams dropped since the socket was opened.
    virtual std::uint32_t droppedUevents(int socket);

    // An eventfd to end a wait with, and its signal.
    virtual int openWake();
    virtual void signalWake(int wake);

    virtual int openInotify();
    virtual int getDescriptorFlags(int descriptor);
    virtual int setDescriptorFlags(int descriptor, int flags);
    virtual int addInotifyWatch(int descriptor, const std::string& path, std::uint32_t mask);
    virtual int removeInotifyWatch(int descriptor, int watch);
    virtual ssize_t read(int descriptor, void* buffer, std::size_t size);
    virtual int close(int descriptor);
};

#endif
