#ifndef MEDIAD_PLATFORM_PELLIX_PROCESS_GROUP_H
#define MEDIAD_PLATFORM_PELLIX_PROCESS_GROUP_H

#include <sys/types.h>

#include <functional>

// Ends the process group: with SIGTERM first, what is left after the grace of LineLimits with SIGKILL. `meanwhile` is
// called again and again while it waits. False when something of it hangs in the kernel and was left behind. The group's
// number must belong to it for as long as this takes. Any thread.
bool endProcessGroup(pid_t group, const std::function<void()>& meanwhile);

#endif
