#ifndef MEDIAD_TOOLS_FIREWIRE_ACCESS_H
#define MEDIAD_TOOLS_FIREWIRE_ACCESS_H

// FireWire disk access as a client sees it. mediad publishes no state of it: that is put together from the mode that was
// asked for, the files by which the endpoint application and mediad speak with each other, and what that application has
// open. Whoever may not look at the latter takes its running for having the medium.

#include <chrono>

#include "tools/outcome.h"

namespace mediactl {

// Prints "idle", "offered", "in use by host" or "paused". Where access is on and nobody has the medium, the endpoint may
// only be on its way: it is "paused" when that has been so for `patience`.
Outcome showFirewireState(std::chrono::seconds patience);

// Asks for access and waits until the endpoint has the medium. Failed, with the reason if it can be known, when mediad
// refuses. A request that is not answered in time stays posted.
Outcome startFirewireAccess(std::chrono::seconds patience);

// Ends access and waits until the recorder has a slot again, or has found that there is none to have.
Outcome stopFirewireAccess(std::chrono::seconds patience);

} // namespace mediactl

#endif
