#ifndef MEDIAD_SIMULATION_DOORS_H
#define MEDIAD_SIMULATION_DOORS_H

// What stands behind the daemon's doors in the simulation. Each operation is an effect: it passes Scheduler::point(),
// does what the appliance would do, and leaves a line in the trace.

#include <memory>
#include <set>
#include <string>

#include "classes/os/operating_system.h"
#include "config.h"
#include "file_utils.h"
#include "platform/parameter_store/store_objects.h"
#include "simulation/scheduler.h"
#include "simulation/shell.h"
#include "simulation/store.h"
#include "slots/card.h"

class SlotLED;

namespace simulation {

struct World;

class DoorConfig : public Config {
public:
    explicit DoorConfig(World& world) : _world(world) {}
    int setInteger(eParam_t id, int value) override;
    int getInteger(eParam_t id) override;
    int getInteger(eParam_t id, int* value) override;
    int setString(eParam_t id, std::string value) override;
    int getString(eParam_t id, std::string& value) override;

private:
    World& _world;
};

class DoorChannel : public ConfigEventChannel {
public:
    explicit DoorChannel(World& world);
    void addListener(ConfigEvents* listener) override;

private:
    // Hears each event before the daemon does.
    class Overhearing : public ConfigEvents {
    public:
        Overhearing(World& world, ConfigEvents* listener) : _world(world), _listener(listener) {}
        void ParamChanged(eParam_t id, unsigned int value, timeval when) override;
        void ParamChanged(eParam_t id, std::string value, timeval when) override;
        bool DataChanged(eParam_t id, std::string& data, timeval when) override;
        void ParamChanged(ConfigEvent event) override;

    private:
        World& _world;
        ConfigEvents* const _listener;
    };

    World& _world;
    std::unique_ptr<Overhearing> _overhearing; // as long as the channel, which calls it
    StoreChannel<StoreEngine> _channel;
};

class DoorCard : public Card {
public:
    explicit DoorCard(World& world) : _world(world) {}
    bool Open() override { return true; }
    bool Close() override { return true; }
    bool WriteRegister(unsigned int reg, unsigned int value, unsigned int mask, unsigned int shift) override;
    bool ReadRegister(unsigned int reg, unsigned int* value, unsigned int mask, unsigned int shift) override;

private:
    World& _world;
};

class DoorShell : public FileUtils {
public:
    explicit DoorShell(World& world) : _world(world), _shell(world) {}
    int executeCommand(const std::string& line, char* output, std::size_t outputSize) override;

private:
    World& _world;
    Shell _shell;
};

class DoorSystem : public OperatingSystem {
public:
    explicit DoorSystem(World& world) : _world(world), _shell(world) {}

    std::time_t time() override;
    std::time_t steadyTime() override;
    void sleep(ThreadSleep& sleeper, long nanoseconds) override;
    void sleepSeconds(unsigned int seconds) override;
    void sleepMicroseconds(unsigned int microseconds) override;
    int system(const std::string& line) override;
    int makeDirectory(const std::string& path, mode_t mode) override;
    int unlink(const std::string& path) override;
    bool exists(const std::string& path) override;
    int createFile(const std::string& path, mode_t mode) override;
    bool isRunning(const std::string& name) override;
    bool isLink(const std::string& path) override;
    int guardMount(const std::string& path) override;

    int startThread(ThreadKind kind, void* (*body)(void*), void* argument, pthread_t& thread) override;
    int joinThread(pthread_t thread) override;
    int initSemaphore(sem_t* semaphore, unsigned int value) override;
    int waitSemaphore(sem_t* semaphore) override;
    int postSemaphore(sem_t* semaphore) override;

    int openUevents() override;
    int bindUevents(int socket, std::uint32_t groups) override;
    int pollUevents(int socket, int wake) override;
    int lookForUevent(int socket) override;
    ssize_t receiveUevent(int socket, void* buffer, std::size_t size) override;
    std::uint32_t droppedUevents(int socket) override;
    int openWake() override;
    void signalWake(int wake) override;

    int openInotify() override;
    int getDescriptorFlags(int descriptor) override;
    int setDescriptorFlags(int descriptor, int flags) override;
    int addInotifyWatch(int descriptor, const std::string& path, std::uint32_t mask) override;
    int removeInotifyWatch(int descriptor, int watch) override;
    ssize_t read(int descriptor, void* buffer, std::size_t size) override;
    int close(int descriptor) override;

    // The LEDs that have a flasher at this moment.
    const std::multiset<SlotLED*>& flashing() const { return _flashing; }

private:
    void pause(long long nanoseconds);

    World& _world;
    Shell _shell;
    Scheduler::ThreadId _loopThread = Scheduler::kNobody;
    bool _woken = false;
    std::multiset<SlotLED*> _flashing;
};

} // namespace simulation

#endif
