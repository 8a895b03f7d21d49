#ifndef MEDIAD_SIMULATION_WORLD_H
#define MEDIAD_SIMULATION_WORLD_H

// Everything that one history is about, made anew from its seed.

#include <cstdint>
#include <ctime>
#include <string>

#include "simulation/appliance.h"
#include "simulation/endpoint.h"
#include "simulation/invariants.h"
#include "simulation/random.h"
#include "simulation/scheduler.h"
#include "simulation/store.h"
#include "simulation/trace.h"

namespace simulation {

class DaemonLife;

// What a history is like, drawn once from its seed: some are all quiet, some are all faults. Shares are per mille.
struct Temper {
    unsigned int toolFaults = 0;      // a tool fails, each time it runs
    unsigned int toolStalls = 0;      // a tool takes its time
    unsigned int announcementLoss = 0;
    unsigned int announcementDoubles = 0;
    Nanoseconds announcementDelay = 0; // at most
    Nanoseconds pinDelay = 0;          // at most
    Nanoseconds operatorPause = 0;     // between two acts, at most; 0: the operator does nothing
    Nanoseconds clientPause = 0;
    Nanoseconds enginePause = 0;
    Nanoseconds killPause = 0;
    Nanoseconds firewirePause = 0;     // of the client that starts and stops access, and of the computer
    unsigned int endpointStays = 0;    // it does not end when it is told to
    bool clientsRelease = false;       // clients ask for slot changes and remounts
    bool storeDiesWithDaemon = false;  // the daemon hosts the parameter store
};

struct World {
    World(std::uint64_t seed, Trace::Mode mode, std::size_t keptLines);

    // Ends the program: the history's seed, the invariant, what happened, and what happened before.
    [[noreturn]] void fail(const char* invariant, const std::string& what);

    template <typename Text>
    void note(const Text& text) {
        trace.add(scheduler.now(), text);
    }
    std::time_t time() const { return 1'700'000'000 + static_cast<std::time_t>(scheduler.now() / kSecond); }

    // For the door through which a pass of the loop ends.
    void passEnds();
    // Takes what the daemon has written to standard error since the last call into the trace.
    void takeDiagnostics();

    const std::uint64_t seed;
    Random random;
    Temper temper;
    Trace trace;
    Scheduler scheduler;
    SimulatedStore store;
    Appliance appliance;
    Endpoint endpoint;
    Invariants invariants;
    DaemonLife* life = nullptr;
    std::uint64_t passes = 0;     // of the daemon's loop, in all its lives
    std::uint64_t passTarget = 0; // the world gets its turn when there have been so many
    bool faults = true;           // false once the world has calmed down
};

// How the program lives a history that has failed once more, with its trace. Set by main.
extern void (*liveAgain)(std::uint64_t seed);

} // namespace simulation

#endif
