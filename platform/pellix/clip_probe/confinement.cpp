#include "confinement.h"

#include <grp.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <iterator>

namespace {

#if defined(__x86_64__)
constexpr unsigned int kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__powerpc__) && !defined(__powerpc64__)
constexpr unsigned int kArchitecture = AUDIT_ARCH_PPC;
#elif defined(__aarch64__)
constexpr unsigned int kArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "the architecture as the kernel's audit numbers it"
#endif

#ifdef SYS_mmap2
constexpr unsigned int kMapCall = SYS_mmap2;
#else
constexpr unsigned int kMapCall = SYS_mmap;
#endif

// What reading a header takes, as observed, and what the C library's memory management may use besides.
constexpr unsigned int kAllowedCalls[] = {
    SYS_pread64, SYS_recvmsg, SYS_write, SYS_close,  SYS_brk,           SYS_munmap,     SYS_mremap,
    SYS_madvise, SYS_futex,   SYS_exit,  SYS_exit_group, SYS_clock_gettime,
#ifdef SYS_clock_gettime64
    SYS_clock_gettime64,
#endif
};

// The lower half of an argument, which the kernel hands the filter as 64 bits.
constexpr unsigned int argument(unsigned int index) {
    constexpr unsigned int low = std::endian::native == std::endian::big ? 4 : 0;
    return static_cast<unsigned int>(offsetof(seccomp_data, args)) + 8 * index + low;
}

// Anonymous and not executable.
constexpr sock_filter kMapFilter[] = {
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kMapCall, 0, 5),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(3)),
    BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, MAP_ANONYMOUS, 0, 3),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(2)),
    BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, PROT_EXEC, 1, 0),
    BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
};

// Whether the kernel knows no filters is nothing to complain about: the board's may be built without.
void filterSystemCalls() {
    sock_filter program[4 + 2 * std::size(kAllowedCalls) + std::size(kMapFilter)];
    std::size_t size = 0;
    const auto add = [&](const sock_filter& instruction) { program[size++] = instruction; };
    // Another architecture's calls have other numbers.
    add(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)));
    add(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0));
    add(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_THREAD));
    add(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    for (const unsigned int call : kAllowedCalls) {
        add(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1));
        add(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    for (const sock_filter& instruction : kMapFilter) add(instruction);
    const sock_fprog filter{static_cast<unsigned short>(size), program};
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
}

bool limit(__rlimit_resource resource, rlim_t value) {
    const rlimit both{value, value};
    return setrlimit(resource, &both) == 0;
}

bool setLimits() {
    if (!limit(RLIMIT_CORE, 0)) return false;
    if (kInstrumented) return true;
    return limit(RLIMIT_AS, kConfinedMemory) && limit(RLIMIT_CPU, kConfinedSeconds) && limit(RLIMIT_FSIZE, 0) &&
           limit(RLIMIT_NOFILE, kConfinedDescriptors) && limit(RLIMIT_NPROC, 0);
}

bool becomeOwnUser() {
    if (geteuid() != 0) return true;
    if (setgroups(0, nullptr) == -1 && errno != EPERM) return false; // a user namespace may refuse it
    // EINVAL: there is no such user in this user namespace.
    if (setresgid(kConfinedUser, kConfinedUser, kConfinedUser) == -1 && errno != EINVAL) return false;
    return setresuid(kConfinedUser, kConfinedUser, kConfinedUser) == 0 || errno == EINVAL;
}

// Where there is no other user to become, root's capabilities do not go by themselves.
bool dropCapabilities() {
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
    return syscall(SYS_capset, &header, none) == 0;
}

} // namespace

bool confineProcess() {
    // The way back to capabilities; to close it takes one.
    for (unsigned long capability = 0; capability < 64; ++capability) prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    if (!setLimits() || !becomeOwnUser() || !dropCapabilities()) return false;
    // Behind the change of user, which would undo both.
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (!kInstrumented) filterSystemCalls();
    return true;
}
