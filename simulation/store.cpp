#include "simulation/store.h"

#include <sys/time.h>

#include "simulation/world.h"

namespace simulation {

namespace {

std::unique_ptr<StoreEngine> makeEngine(World& world) {
    return std::make_unique<StoreEngine>([&world] {
        timeval when{};
        when.tv_sec = world.time();
        return when;
    });
}

} // namespace

SimulatedStore::SimulatedStore(World& world) : _world(world), _engine(makeEngine(world)) {}

int SimulatedStore::integer(eParam_t id) const {
    int value = 0;
    _engine->getInteger(id, value);
    return value;
}

std::string SimulatedStore::text(eParam_t id) const {
    std::string value;
    _engine->getString(id, value);
    return value;
}

eConfigStatus_t SimulatedStore::set(const char* who, eParam_t id, int value) {
    const eConfigStatus_t status = _engine->setInteger(id, value);
    _world.note([&] {
        return std::string(who) + " sets " + parameterName(id) + " " + std::to_string(value) +
               (status == kConfigOk ? "" : ", refused");
    });
    wakeDelivery();
    return status;
}

eConfigStatus_t SimulatedStore::set(const char* who, eParam_t id, const std::string& value) {
    const eConfigStatus_t status = _engine->setString(id, value);
    _world.note([&] {
        return std::string(who) + " sets " + parameterName(id) + " \"" + value + "\"" +
               (status == kConfigOk ? "" : ", refused");
    });
    wakeDelivery();
    return status;
}

void SimulatedStore::startDelivering() {
    _world.scheduler.start("store", Scheduler::Unwinding::Returns, [this] {
        while (!_world.scheduler.isDying()) {
            if (_engine->pump(1) == 0) _world.scheduler.waitFor(this);
        }
    });
}

void SimulatedStore::wakeDelivery() {
    if (_delivering) return;
    _delivering = true;
    const auto deliver = [this] {
        _delivering = false;
        _world.scheduler.wake(this);
    };
    const std::uint64_t hurry = _world.random.below(10);
    if (hurry < 7)
        _world.scheduler.afterEffects(1 + _world.random.below(6), deliver);
    else if (hurry < 9)
        _world.scheduler.after(_world.random.between(0, 20 * kMillisecond), deliver);
    else
        _world.scheduler.after(_world.random.between(0, 400 * kMillisecond), deliver);
}

void SimulatedStore::restart() {
    auto fresh = makeEngine(_world);
    for (const ParameterDescriptor& descriptor : parameterDescriptors()) {
        StoreEntry entry;
        if (descriptor.kind == ParameterKind::State && _engine->find(descriptor.id, entry))
            fresh->restore(descriptor.id, entry);
    }
    for (const SlotHardware& slot : _world.appliance.slots()) {
        StoreEntry entry;
        if (_engine->find(slot.ledParameter, entry)) fresh->restore(slot.ledParameter, entry);
    }
    _engine = std::move(fresh);
}

const char* parameterName(eParam_t id) {
    const ParameterDescriptor* const descriptor = findParameter(id);
    return descriptor != nullptr ? descriptor->name : "an LED's parameter";
}

} // namespace simulation
