#ifndef MEDIAD_SIMULATION_ENDPOINT_H
#define MEDIAD_SIMULATION_ENDPOINT_H

// The endpoint application and the computer on the other end of the cable, as recorder/system/endpoint_main.cpp plays them:
// a process that outlives the daemon, asks the bus for the disk of its slot, opens it exclusively, and speaks to the daemon
// through files.

#include <string>

#include "simulation/trace.h"

namespace simulation {

struct World;
class Medium;
struct Disk;
struct SlotHardware;

class Endpoint {
public:
    static constexpr char kUnavailable[] = "/var/run/endpointdiskunavailable";
    static constexpr char kNotInUse[] = "/var/run/endpointdisknotinuse";
    static constexpr char kStop[] = "/var/run/endpointdiskstop";
    static constexpr char kConfiguration[] = "/etc/endpoint.conf";

    explicit Endpoint(World& world) : _world(world) {}

    // --- The daemon's command lines

    // A second one ends the first and takes its place.
    void start();
    // It may take its time, and it may not do it at all.
    void askToEnd();

    // --- What is to be seen

    bool isRunning() const { return _running; }
    // Whether it has the disk open, exclusively.
    bool has(const Disk& disk) const;
    bool has(const std::string& diskName) const;
    // It was told to end, and did not: whatever it does from here on is not the daemon's doing.
    bool isDefiant() const { return _running && _defiant; }
    // Whose disk it serves, or would; null while it is not configured.
    SlotHardware* slot() const;
    bool isInUse() const { return _host; }

    // --- The computer

    void login();
    void logout();
    // One of the things that a computer and its user do.
    void act();
    // The computer has had enough, and an endpoint that was told to end ends.
    void calmDown();

    // pkill failed: nobody has told it anything.
    void misses() { _defiant = true; }

private:
    void begin();
    void tick();
    void seek();
    void watch();
    void letGo();
    void end();
    void cut(const char* why);
    void ended();
    Medium* medium() const;

    World& _world;
    bool _running = false;
    bool _begun = false;
    bool _ending = false;
    bool _defiant = false;
    int _life = 0; // of the process; what was planned for an earlier one is void
    int _disk = 0; // serial number, 0 for none
    int _had = 0;  // that it or one before it had
    bool _host = false;
    bool _hostMounted = false;
    bool _busy = false;
    Nanoseconds _asked = -1;
    Nanoseconds _seen = -1;
    Nanoseconds _quietSince = 0;
    int _written = 0;
};

} // namespace simulation

#endif
