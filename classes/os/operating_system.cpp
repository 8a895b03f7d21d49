#include "classes/os/operating_system.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "signals_held.h"
#include "thread_sleep.h"

namespace {

// Older C libraries have no name for it, and older kernels ignore it.
constexpr unsigned long kNoSymbolicLinks = 256;

constexpr int kUeventReceiveBuffer = 16 * 1024 * 1024; // bytes; the kernel doubles it for its own bookkeeping

void sleepFor(timespec left) {
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

} // namespace

OperatingSystem& OperatingSystem::host() {
    // Never destroyed: threads may still be on their way out when main has returned.
    static OperatingSystem* const system = new OperatingSystem;
    return *system;
}

std::time_t OperatingSystem::time() { return ::time(nullptr); }

std::time_t OperatingSystem::steadyTime() {
    constexpr std::time_t kBeforeTheStart = 60;
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return kBeforeTheStart + now.tv_sec;
}

void OperatingSystem::sleep(ThreadSleep& sleeper, long nanoseconds) { sleeper.sleep(nanoseconds); }

void OperatingSystem::sleepSeconds(unsigned int seconds) {
    timespec left{};
    left.tv_sec = static_cast<std::time_t>(seconds);
    sleepFor(left);
}

void OperatingSystem::sleepMicroseconds(unsigned int microseconds) {
    timespec left{};
    left.tv_sec = static_cast<std::time_t>(microseconds / 1'000'000);
    left.tv_nsec = static_cast<long>(microseconds % 1'000'000) * 1000;
    sleepFor(left);
}

int OperatingSystem::system(const std::string& line) {
    // Ours is 0 for the sake of the named semaphores; what a command makes is not everybody's to write.
    return std::system(("umask 022\n" + line).c_str());
}

int OperatingSystem::makeDirectory(const std::string& path, mode_t mode) { return ::mkdir(path.c_str(), mode); }

int OperatingSystem::unlink(const std::string& path) { return ::unlink(path.c_str()); }

bool OperatingSystem::exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

int OperatingSystem::createFile(const std::string& path, mode_t mode) {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    return descriptor == -1 ? -1 : ::close(descriptor);
}

bool OperatingSystem::isRunning(const std::string& name) {
    DIR* const processes = ::opendir("/proc");
    if (processes == nullptr) return true;
    bool found = false;
    while (const dirent* entry = found ? nullptr : ::readdir(processes)) {
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0) continue;
        const int descriptor = ::open(("/proc/" + std::string(entry->d_name) + "/comm").c_str(), O_RDONLY | O_CLOEXEC);
        if (descriptor == -1) {
            found = errno != ENOENT && errno != ESRCH; // else it has ended meanwhile
            continue;
        }
        char program[32] = {};
        const ssize_t length = ::read(descriptor, program, sizeof program - 1);
        ::close(descriptor);
        found = length > 0 && std::strstr(program, name.c_str()) != nullptr;
    }
    ::closedir(processes);
    return found;
}

bool OperatingSystem::isLink(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

int OperatingSystem::guardMount(const std::string& path) {
    struct statvfs mounted;
    if (::statvfs(path.c_str(), &mounted) == -1) return -1;
    // This kind of remount leaves the file system alone and replaces all flags of the mount: those it has are given again.
    unsigned long flags = MS_REMOUNT | MS_BIND | kNoSymbolicLinks | MS_NODEV | MS_NOSUID | MS_NOEXEC;
    if ((mounted.f_flag & ST_RDONLY) != 0) flags |= MS_RDONLY;
    if ((mounted.f_flag & ST_NODIRATIME) != 0) flags |= MS_NODIRATIME;
    if ((mounted.f_flag & ST_NOATIME) != 0)
        flags |= MS_NOATIME;
    else
        flags |= (mounted.f_flag & ST_RELATIME) != 0 ? MS_RELATIME : MS_STRICTATIME;
    return ::mount(nullptr, path.c_str(), nullptr, flags, nullptr);
}

int OperatingSystem::startThread(ThreadKind kind, void* (*body)(void*), void* argument, pthread_t& thread) {
    pthread_attr_t attributes;
    int result = pthread_attr_init(&attributes);
    if (result != 0) return result;
    if (kind != ThreadKind::Joinable) pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (kind == ThreadKind::DetachedScheduled) {
        sched_param parameters{};
        pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&attributes, SCHED_OTHER);
        pthread_attr_setschedparam(&attributes, &parameters);
    }
    {
        // Only the main thread takes signals; a thread inherits the mask it is made under.
        const SignalsHeld held;
        result = pthread_create(&thread, &attributes, body, argument);
    }
    pthread_attr_destroy(&attributes);
    return result;
}

int OperatingSystem::joinThread(pthread_t thread) { return pthread_join(thread, nullptr); }

int OperatingSystem::initSemaphore(sem_t* semaphore, unsigned int value) { return sem_init(semaphore, 0, value); }

int OperatingSystem::waitSemaphore(sem_t* semaphore) {
    int result = sem_wait(semaphore);
    // Going ahead after an interrupted wait would leave the count one too high for good.
    while (result == -1 && errno == EINTR) result = sem_wait(semaphore);
    return result;
}

int OperatingSystem::postSemaphore(sem_t* semaphore) { return sem_post(semaphore); }

int OperatingSystem::openUevents() {
    const int socket = ::socket(AF_NETLINK, SOCK_DGRAM, NETLINK_KOBJECT_UEVENT);
    if (socket == -1) return -1;
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    // As root the limit of the ordinary option does not apply; where we are not, the ordinary one does what it can.
    if (setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &kUeventReceiveBuffer, sizeof kUeventReceiveBuffer) == -1)
        setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kUeventReceiveBuffer, sizeof kUeventReceiveBuffer);
    // A receive error ends the daemon; an overrun is no reason to, and the drop count tells of it.
    const int on = 1;
    setsockopt(socket, SOL_NETLINK, NETLINK_NO_ENOBUFS, &on, sizeof on);
    return socket;
}

int OperatingSystem::bindUevents(int socket, std::uint32_t groups) {
    sockaddr_nl address;
    std::memset(&address, 0, sizeof address);
    static_assert(sizeof address == 12);
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<std::uint32_t>(getpid());
    address.nl_groups = groups;
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

int OperatingSystem::pollUevents(int socket, int wake) {
    for (;;) {
        pollfd descriptors[2] = {{socket, POLLIN, 0}, {wake, POLLIN, 0}};
        const int result = ::poll(descriptors, wake == -1 ? 1 : 2, -1);
        if (result == -1) return -1;
        if (wake != -1 && descriptors[1].revents != 0) return 0;
        if (descriptors[0].revents != 0) return 1;
    }
}

int OperatingSystem::lookForUevent(int socket) {
    pollfd descriptor{socket, POLLIN, 0};
    return ::poll(&descriptor, 1, 0);
}

ssize_t OperatingSystem::receiveUevent(int socket, void* buffer, std::size_t size) {
    return ::recv(socket, buffer, size, MSG_DONTWAIT);
}

std::uint32_t OperatingSystem::droppedUevents(int socket) {
    std::uint32_t memory[SK_MEMINFO_VARS] = {};
    socklen_t size = sizeof memory;
    if (getsockopt(socket, SOL_SOCKET, SO_MEMINFO, memory, &size) == -1) return 0;
    return memory[SK_MEMINFO_DROPS];
}

int OperatingSystem::openWake() { return eventfd(0, EFD_CLOEXEC); }

void OperatingSystem::signalWake(int wake) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake, &one, sizeof one);
}

int OperatingSystem::openInotify() {
    const int descriptor = inotify_init();
    // Tools and what they leave in the background must not inherit it.
    if (descriptor != -1) fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    return descriptor;
}

int OperatingSystem::getDescriptorFlags(int descriptor) { return fcntl(descriptor, F_GETFL); }

int OperatingSystem::setDescriptorFlags(int descriptor, int flags) { return fcntl(descriptor, F_SETFL, flags); }

int OperatingSystem::addInotifyWatch(int descriptor, const std::string& path, std::uint32_t mask) {
    return inotify_add_watch(descriptor, path.c_str(), mask);
}

int OperatingSystem::removeInotifyWatch(int descriptor, int watch) { return inotify_rm_watch(descriptor, watch); }

ssize_t OperatingSystem::read(int descriptor, void* buffer, std::size_t size) {
    return ::read(descriptor, buffer, size);
}

int OperatingSystem::close(int descriptor) { return ::close(descriptor); }
