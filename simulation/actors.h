#ifndef MEDIAD_SIMULATION_ACTORS_H
#define MEDIAD_SIMULATION_ACTORS_H

// Everybody else on the recorder: the operator with a pocket full of cards, the clients that post commands, the recording
// engine and the web interface that make, rename and delete files, and the supervisor that starts the daemon again.

#include <memory>
#include <string>
#include <vector>

#include "simulation/daemon_life.h"
#include "simulation/scheduler.h"

namespace simulation {

struct World;
class Medium;

class Actors {
public:
    explicit Actors(World& world);
    ~Actors();
    Actors(const Actors&) = delete;
    Actors& operator=(const Actors&) = delete;

    // From here on everybody does something now and then.
    void start();
    // Nobody begins anything new; what was begun is brought to its end, and the daemon is up.
    void calmDown();
    void askForNextSlot();
    void setFirewireMode(int mode);

    // What the supervisor does between two actions.
    void supervise();

private:
    struct Recording {
        Medium* medium = nullptr; // null while nothing is recorded
        std::string mountPoint;
        std::string file;
        int descriptor = -1;
    };

    void makeCards();
    void again(Nanoseconds pause, void (Actors::*act)());
    void operatorActs();
    void clientActs();
    void engineActs();
    void killerActs();
    void firewireActs();
    void computerActs();
    void startDaemon();

    // The medium that the storage path leads to, while it answers; null otherwise.
    Medium* mediumInReach(std::string& mountPoint);
    std::string someFile(const Medium& medium);
    std::string someNewClip();
    void record(Medium& medium, const std::string& mountPoint);
    void endRecording();
    void changeFiles(Medium& medium);
    void download(Medium& medium);
    void endDownload();
    void postDeletion();
    void acquire();
    void release();

    World& _world;
    std::unique_ptr<DaemonLife> _life;
    bool _startIsComing = false;
    bool _acting = false;
    Recording _recording;
    int _acquired = 0;
    Medium* _download = nullptr; // of which the web interface has a file open
    int _downloads = 0;
    int _clipNumber = 0;
};

} // namespace simulation

#endif
