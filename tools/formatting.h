#ifndef MEDIAD_TOOLS_FORMATTING_H
#define MEDIAD_TOOLS_FORMATTING_H

#include <chrono>

#include "tools/outcome.h"

namespace mediactl {

// Has mediad erase the medium in use and make a fresh file system on it, follows that to its end and shows the new
// volume name on standard output. Asks first unless `yes`. A request that mediad does not take up in time is withdrawn,
// so that it does not erase a medium that is pushed in later. So is one that SIGINT, SIGTERM or SIGHUP interrupts before
// mediad has begun. An interrupted format is Failed either way; one that cannot be withdrawn, since the store does not
// answer, is NobodyServes.
Outcome formatMedium(bool yes, std::chrono::seconds patience);

} // namespace mediactl

#endif
