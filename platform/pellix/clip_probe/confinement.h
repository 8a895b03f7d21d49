#ifndef MEDIAD_PLATFORM_PELLIX_CLIP_PROBE_CONFINEMENT_H
#define MEDIAD_PLATFORM_PELLIX_CLIP_PROBE_CONFINEMENT_H

#include <sys/types.h>

// Gives up, for good, whatever rights the calling process has, down to what reading headers needs: read from the
// descriptors that it gets, write to those that it has, take and give back memory, ask for the time, end.
// - It becomes a user of its own where it was root and that user exists (there may be none in a user namespace), has
//   no capabilities, and can gain none.
// - Every other system call fails with EPERM. Where the kernel has no filters, and under an emulator of user programs,
//   they work as far as that user may use them.
// - Its memory, its descriptors and its processor time are limited; it makes no files, processes or memory images.
// - It ends with the thread that started it.
// False when something of this failed that should not; the process must then end. To be called with one thread running.
//
// In programs built for a sanitizer the filter and the limits are left out: the sanitizers need more than that.
bool confineProcess();

// The user and group; no account of the system needs to have the number, and none should.
inline constexpr uid_t kConfinedUser = 65432;

inline constexpr unsigned int kConfinedMemory = 256U << 20; // bytes of address space
inline constexpr unsigned int kConfinedDescriptors = 36;    // the three standard ones and a batch of clips
inline constexpr unsigned int kConfinedSeconds = 120;       // of processor time, for all clips together

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kInstrumented = true;
#elif defined(__has_feature) // clang's way to say it
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kInstrumented = true;
#else
inline constexpr bool kInstrumented = false;
#endif
#else
inline constexpr bool kInstrumented = false;
#endif

#endif
