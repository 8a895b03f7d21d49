#ifndef MEDIAD_SIMULATION_HISTORY_H
#define MEDIAD_SIMULATION_HISTORY_H

#include <cstdint>

#include "simulation/trace.h"

namespace simulation {

// Lives the history of one seed: `passes` passes of the daemon's loop with everything that can happen, then calm, and
// the recorder must come to rest in the state it should be in. Returns the number of passes; does not return when an
// invariant is broken.
std::uint64_t liveHistory(std::uint64_t seed, std::uint64_t passes, Trace::Mode mode, std::size_t keptLines);

} // namespace simulation

#endif
