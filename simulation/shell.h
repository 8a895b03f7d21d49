#ifndef MEDIAD_SIMULATION_SHELL_H
#define MEDIAD_SIMULATION_SHELL_H

#include <string>

#include "simulation/appliance.h"

namespace simulation {

struct World;

// The shell and the image's tools. It understands exactly the command lines that the daemon runs; any other ends the
// history as a failure. A tool may fail, take its time (the world goes on meanwhile) or die with the daemon half way.
class Shell {
public:
    struct Answer {
        int status = 0;
        std::string output;
    };

    explicit Shell(World& world) : _world(world) {}

    // On a fibre.
    Answer run(const std::string& line);

private:
    // What every tool begins with: its time passes, and chance decides whether it fails. False when it fails.
    bool tool(const char* name, Nanoseconds duration);

    Answer listMounts(const std::string& what);
    Answer quickCheck(const std::string& node);
    Answer repair(const std::string& node);
    Answer volumeName(const std::string& node, bool withErrors);
    Answer makeDirectories(const std::string& mountPoint);
    Answer writeReadme(const std::string& mountPoint);
    Answer mount(const std::string& node, const std::string& mountPoint);
    Answer unmount(const std::string& mountPoint, bool lazy);
    Answer freeSpace(const std::string& mountPoint);
    Answer remove(const std::string& directory, const std::string& arguments);
    Answer partitionTool(const char* name, const std::string& disk);
    Answer makeFileSystem(const std::string& disk, const std::string& volumeName);
    Answer scanDriver();
    Answer copyConfiguration(const std::string& disk);
    Answer resetBus(const std::string& numbers);
    Answer tellEndpointToEnd();
    // The endpoint has the disk open, and no tool that wants to write to it gets it.
    bool endpointHas(const std::string& node);
    // A card that is dying has used up one more life; false when it was the last.
    bool cardAnswers(const std::string& node);

    World& _world;
};

} // namespace simulation

#endif
