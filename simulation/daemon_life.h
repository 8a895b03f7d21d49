#ifndef MEDIAD_SIMULATION_DAEMON_LIFE_H
#define MEDIAD_SIMULATION_DAEMON_LIFE_H

// One life of the daemon: the production code, started and ended in the order of daemon/main.cpp, behind the
// simulation's doors.

#include <cstdint>
#include <memory>
#include <string>

#include "simulation/doors.h"
#include "slots/storage_slot.h"

class MediaManager;
class SlotListener;

namespace simulation {

struct World;

class DaemonLife {
public:
    // Starts it; it runs as far as the scheduler lets it.
    explicit DaemonLife(World& world);
    // A daemon that has not ended is killed.
    ~DaemonLife();
    DaemonLife(const DaemonLife&) = delete;
    DaemonLife& operator=(const DaemonLife&) = delete;

    bool hasEnded() const { return _ended; }
    // The exit status of a daemon that has ended by itself.
    int status() const { return _status; }
    // What the kernel does on kill -9.
    void kill();
    // Does it in the middle of writing a segment, before the record of that number from now on.
    void killAtRecord(std::uint64_t number) { _killAtRecord = number; }
    // A termination signal.
    void terminate();

    // What the slot's LED was told last; 0 when it was told nothing.
    int commandedLED(eStorageSlot_t slot) const;
    // The disk that it takes for the slot's; empty where it knows of none.
    std::string deviceOf(eStorageSlot_t slot) const;
    // Whether a thread flashes it, which may be on its way out.
    bool isFlashing(eStorageSlot_t slot) const;
    // What it remembers: the medium in use is mounted for writing.
    bool isMediumMounted() const;

    // Threads may end the process: die.
    [[noreturn]] void exitNow(int status);
    static DaemonLife* current;

private:
    void main();
    static void writesRecord(const char* magic);

    World& _world;
    DoorConfig _config;
    DoorCard _card;
    DoorShell _shell;
    DoorSystem _system;
    std::unique_ptr<DoorChannel> _channel;
    std::unique_ptr<SlotListener> _listener;
    std::unique_ptr<MediaManager> _manager;
    bool _ended = false;
    bool _reaped = false;
    int _status = 0;
    std::uint64_t _killAtRecord = 0; // 0: at none
    std::string _diedWriting; // which segment
};

} // namespace simulation

#endif
