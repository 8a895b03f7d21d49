#ifndef MEDIAD_FIREWIRE_FW_DATA_H
#define MEDIAD_FIREWIRE_FW_DATA_H

// Hands the medium of one slot to a computer on the FireWire bus, and takes it back. A program of its own, the endpoint
// application, serves the slot's block device as a disk; FwData starts and stops it, resets the bus under the appliance's
// own identity, and speaks with it through files:
//
//   /var/run/endpointdisknotinuse     the host does not use the disk. Made here before the endpoint starts and after it
//                                     stops; the endpoint removes it when the host takes the disk
//   /var/run/endpointdiskstop         the host's side wants the disk to be released: an ordinary stop waits for it
//   /var/run/endpointdiskunavailable  the endpoint has lost the medium; removed here when access starts
//
// Two owners of one file system is what must never be: the recorder lets go of the slot before the endpoint hears of it,
// and gets it back after the endpoint has been stopped.
//
//   inactive --start--> offered --host takes the disk--> in use --host lets it go--> released --host takes it--> in use
//   any of the three --medium gone--> paused --medium back--> offered; any of the four --stop--> inactive
//
// Threads: one at a time. The owner's loop thread calls everything; before it is started and when it has ended, the main
// thread calls init, stopLeftover and cleanup. SetFirewireAVCPaused may come from any thread. The waits block the caller:
// up to 6 s until AV/C pauses, 2.2 s while the endpoint starts, up to 4 s while it stops.
//
// What resets the bus throws std::out_of_range instead when the address that the identity is made of has become too short;
// what comes before the reset has been done by then. Whoever catches that calls giveSlotBack.

#include <atomic>
#include <ctime>
#include <string>

#include "classes/os/operating_system.h"
#include "slots/storage_slot.h"

class Config;
class FileUtils;
class FwDataOwner;

class FwData {
public:
    // Borrows everything.
    FwData(FwDataOwner* manager, Config* config, FileUtils* shell, OperatingSystem& os = OperatingSystem::host());
    virtual ~FwData();
    FwData(const FwData&) = delete;
    FwData& operator=(const FwData&) = delete;

    // Asks AV/C to pause when FireWire access is what the store's mode says, else to go on. Returns 0.
    int init();

    // Before the owner touches any medium: a daemon that was killed during access has left its endpoint running, and that
    // one still has a disk. Stops it, and has the bus forget it; does nothing where none runs.
    void stopLeftover();

    // What AV/C answers. Any thread.
    void SetFirewireAVCPaused(bool paused);

    // 0 when the slot has been handed over, or access is running already; -1 after one line on standard error (the first
    // only, of a resume that is refused again and again) when it has not, and then nothing has been offered.
    int startFirewireAccess(eStorageSlot_t slot);

    // Stops the endpoint and keeps the slot: until startFirewireAccess, which checkMessages calls when the medium is
    // back. `milliseconds`, 0 to 4,000,000, is what the endpoint gets before the bus is reset. Returns 0.
    int pauseFirewireAccess(int milliseconds);

    // 0 when access has ended and the slot is the recorder's; -1 when the host uses the disk or its side has asked for a
    // release that is still to come, unless `force` is set.
    int stopFirewireAccess(bool force);

    // One look at the slot and at the files. 2 when the host has just let the disk go, else the result of the search for
    // storage or of the start that was made, if any, or 0.
    unsigned int checkMessages();

    // A `restart` resets the bus once, a first start twice.
    void startEndpointApp(bool restart);
    // Waits up to 4 s for the endpoint's end, and leaves one behind that does not end. Makes the file that says that the host
    // does not use the disk.
    void stopEndpointApp();

    // Ends access as a forced stop does, without resetting the bus.
    void giveSlotBack();

    // At shutdown: stops the endpoint if access is active.
    void cleanup();

    // Whether the medium in `slot` is the endpoint's at the moment.
    bool offers(eStorageSlot_t slot) const { return _active && !_paused && slot == _fwdataSlot; }
    // Whether access is paused until there is a medium in `slot` again.
    bool awaits(eStorageSlot_t slot) const { return _active && _paused && slot == _fwdataSlot; }
    // The slot of the access that runs, or of the last one.
    eStorageSlot_t slot() const { return _fwdataSlot; }

private:
    enum class EndpointState {
        Idle,    // not started, or the host has let the disk go
        Started, // nobody uses the disk yet
        InUse,   // by the host
    };

    std::string busReset(int mode);
    void wait(int milliseconds);
    void resume(unsigned int& result);
    void watchMedium(unsigned int& result);
    bool watchHost();

    FwDataOwner* const _manager;
    Config* const _config;
    FileUtils* const _shell;
    OperatingSystem& _os;

    eStorageSlot_t _fwdataSlot = eStorageSlotUnknown;
    bool _active = false;          // the slot has been taken from the recorder
    bool _paused = false;          // while active: the endpoint is stopped, because the medium went away
    bool _awaitingAbsence = false; // the slot was seen empty
    EndpointState _endpointState = EndpointState::Idle;
    std::time_t _endpointStartTime = 0;
    std::time_t _absenceStartTime = 0;   // when it was first seen empty
    std::atomic<bool> _avcPaused{false}; // written by any thread
    bool _resumeRefused = false;         // the recorder did not let go of the medium that came back; has been reported
};

#endif
