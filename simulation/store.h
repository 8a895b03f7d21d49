#ifndef MEDIAD_SIMULATION_STORE_H
#define MEDIAD_SIMULATION_STORE_H

// The parameter store: the real engine, whose events are delivered by a fibre, as the store's own thread would.

#include <memory>
#include <string>

#include "config.h"
#include "parameters.h"
#include "platform/parameter_store/store_engine.h"

namespace simulation {

struct World;

class SimulatedStore {
public:
    explicit SimulatedStore(World& world);

    StoreEngine& engine() { return *_engine; }
    int integer(eParam_t id) const;
    std::string text(eParam_t id) const;

    // What another process sets. Its change event reaches the daemon a little later.
    eConfigStatus_t set(const char* who, eParam_t id, int value);
    eConfigStatus_t set(const char* who, eParam_t id, const std::string& value);

    // The thread that calls the daemon's listener; one a life of the daemon.
    void startDelivering();
    // After a set: the thread gets its turn soon, or not so soon.
    void wakeDelivery();
    // The daemon hosted the store and is gone: what the journal brings back is all that is left.
    void restart();

private:
    World& _world;
    std::unique_ptr<StoreEngine> _engine;
    bool _delivering = false; // the thread is on its way
};

const char* parameterName(eParam_t id);

} // namespace simulation

#endif
