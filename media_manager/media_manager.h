#ifndef MEDIAD_MEDIA_MANAGER_MEDIA_MANAGER_H
#define MEDIAD_MEDIA_MANAGER_MEDIA_MANAGER_H

// The heart of the daemon: one object that owns the state of all storage slots, acts on what the kernel announces and
// on what other processes ask for, and reports slots, alarms, capacity and progress.
//
// Threads: clearLeftovers and init run on the main thread, before there is a loop, cleanup when it has ended; loop and all it
// calls run on the loop thread. The parameter store's thread calls the two ParamChanged operations and, through them, only
// what their group says. What it shares with the loop is an atomic, or is guarded by _semaphore, as the members tell.
//
// The operations stand in groups, each in a source file of its own.

#include <semaphore.h>

#include <atomic>
#include <ctime>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "classes/config/config_event_listener.h"
#include "classes/os/operating_system.h"
#include "clip.h"
#include "config.h"
#include "file_utils.h"
#include "firewire/fw_data.h"
#include "firewire/fw_data_owner.h"
#include "slots/card.h"
#include "slots/slot.h"
#include "slots/slot_led.h"
#include "slots/slot_listener.h"
#include "thread_sleep.h"

class ClipFinder;
struct inotify_event;
namespace nevo::media {
class MediaCache;
}

// Bits of kParamAlarms. Other processes own the other bits of the word.
enum eAlarm_t : std::uint32_t {
    eAlarmHardwareFailure = 0x00000001,
    eAlarmSoftwareFailure = 0x00000002,
    eAlarmClearedByErase = 0x00000400, // other processes set it and know what it means
    eAlarmCapacityLow = 0x00002000,
    eAlarmCapacityCritical = 0x00004000,
    eAlarmStorageRemoved = 0x00010000,
    eAlarmClearedByNewSettings = 0x00040000, // other processes set it and know what it means
    eAlarmMediaUnformatted = 0x00800000,
    eAlarmMediaDamaged = 0x01000000,
};

// Bits of kParamExtendedAlarms.
enum eExtendedAlarm_t : std::uint32_t {
    eExtendedAlarmUnsupportedMedia = 0x00000001,
    eExtendedAlarmCodecUnsupportedForMedia = 0x00000008,
};

// What kParamProgressStatus shows while something long is running.
enum eProgressStatus : std::int32_t {
    eProgressNone = 0,
    eProgressFormattingD1 = 1,
    eProgressFormattingD2 = 2,
    eProgressFormattingS1 = 3,
    eProgressFormattingS2 = 4,
};

// The recorder's transport, kParamTransportState. Only what the manager tells apart has a name.
enum eTransportState_t : std::int32_t {
    eTransportRecording = 2,
};

// Answers of a slot change, in kParamSlotChangeCommand.
enum eSlotChangeResult_t : std::int32_t {
    eSlotChangeDone = 0,
    eSlotChangeUnformatted = 10,
    eSlotChangeDamaged = 11,
    eSlotChangeNotUnmounted = 14, // the medium that was in use could not be unmounted, or was pulled
    eSlotChangeStorageInUse = 15,
};

// The slot that asks for no medium while the manager looks at its state anew.
inline constexpr auto eStorageSlotRecheck = static_cast<eStorageSlot_t>(5);

class MediaManager : public ConfigEventListener, public FwDataOwner {
public:
    // Borrows everything for the life of the process. No other work is done here.
    MediaManager(SlotListener* listener, Card* card, Config* config, ConfigEventChannel* eventChannel, FileUtils* shell,
                 OperatingSystem& os = OperatingSystem::host());
    // Frees the members; touches neither the parameter store nor the media.
    ~MediaManager() override;
    MediaManager(const MediaManager&) = delete;
    MediaManager& operator=(const MediaManager&) = delete;

    // ---- Life and loop: media_manager.cpp ----

    // Before init: takes back what the daemon before has left standing in the store. Of one that was killed, the path of the
    // medium in use, the progress of a format, the loading of a medium; of a medium that was pulled, its name and the alarms
    // that it is damaged or not formatted. Nobody else would. Writes only what does stand. Empties the shared index where
    // there is one; waits for each of its locks that a dead daemon still holds, ten seconds at most.
    void clearLeftovers();
    // Start-up, until the first medium has been tried. Returns 0. Does not return while the board's driver scan fails.
    int init();
    // Runs the loop on a thread of its own (`threaded`) or on the caller's, until it ends.
    void run(bool threaded);
    static void* RunCommandThread(void* manager);
    void loop();
    // One turn of the loop, its sleep first; false when the loop is to end.
    bool pass();
    // One pass of command handling; returns the result of the last operation it called.
    int checkMessages();
    // Orderly shutdown; only the first call does anything.
    void cleanup();

    static std::atomic<MediaManager*> _pMediaManager;

    // ---- Change events, requests and their acknowledgement: commands.cpp ----

    // The store's thread. They record what was asked for; the loop does it.
    using ConfigEventListener::ParamChanged;
    void ParamChanged(eParam_t id, unsigned int value, timeval when) override;
    void ParamChanged(eParam_t id, std::string value, timeval when) override;

    bool shutdownRequested() override;
    bool slotChangeRequested();
    void clearSlotChangeRequest();
    // `code` is an eSlotChangeResult_t, in the type that the parameter shares with the slots.
    void setSlotChangeError(eStorageSlot_t code);
    void startProgress(eProgressStatus status);
    void endProgress();
    void setStorageError(); // nothing, on purpose: there is no such indication
    bool eraseRequested();
    void clearEraseCommand();
    bool isMediaLoading();
    void setMediaLoading(bool loading) override;
    bool firewireStartRequested();
    bool firewireStopRequested();
    // The store's thread calls the next four.
    void requestStartFirewireAccess();
    void requestStopFirewireAccess();
    void acquireStorage();
    void releaseStorage();
    bool storageInUse();
    bool isNewMountRequest();
    void clearNewMountRequest();
    // kParamClipName; `clip` when it cannot be had.
    std::string getClip(eStorageSlot_t slot, std::string clip);
    void setClip(eStorageSlot_t slot, std::string clip, unsigned int index);
    // Kernel name of the slot's disk ("sdb"), empty while there is none.
    std::string getDevice(eStorageSlot_t slot) override;
    // Whether the slot is ready, whatever the name says: announced by the kernel and present.
    bool slotPresent(eStorageSlot_t slot) override;
    void LogEvent(inotify_event* event);

    // ---- Alarms, LEDs, capacity: alarms.cpp ----

    eAlarm_t getAlarms();
    eExtendedAlarm_t getExtendedAlarms();
    void setAlarms(eAlarm_t alarms);
    void setExtendedAlarms(eExtendedAlarm_t alarms);
    // These write the word only when it changes.
    void setAlarmBit(eAlarm_t bits);
    void clearAlarmBit(eAlarm_t bits);
    void setExtendedAlarmBit(eExtendedAlarm_t bits);
    void clearExtendedAlarmBit(eExtendedAlarm_t bits);

    void raiseHardwareFailureAlarm();
    void raiseSoftwareFailureAlarm();
    void setCurrentCapacityRemainingAlarm(eAlarm_t bits);
    void clearCurrentCapacityRemainingAlarm(eAlarm_t bits);
    void raiseStorageRemovedAlarm();
    void clearStorageRemovedAlarm();
    void raiseMediaUnformattedAlarm();
    void clearMediaUnformattedAlarm();
    void raiseMediaDamagedAlarm();
    void clearMediaDamagedAlarm();
    void raiseUnsupportedMediaAlert();
    void clearUnsupportedMediaAlert();
    void raiseCodecUnsupportedForMediaAlarm();
    void clearCodecUnsupportedForMediaAlarm();
    void raiseInvalidMediaAlert();

    // Commands every LED of the slot. Returns 0.
    int setLED(eStorageSlot_t slot, eStorageLEDStatus_t status) override;
    void StalkTransporterAndFlashIfRecording();
    // True, and the loop ends after this pass, when `slot` is the one in use.
    bool checkForStorageRemovedAlarm(eStorageSlot_t slot);
    void checkIfCodecSupportedForMedia();
    // 0 to 100 for a medium; 0 also when it cannot be measured.
    int remainingPercentageOfCapacity(eStorageSlot_t slot);
    // Measures at most every five seconds unless `force` is set.
    void updateCurrentSlotCapacityRemaining(bool force);
    // Three digits or more; kept as the name in use.
    std::string getReelName();

    // ---- Which slot is in use: slot_selection.cpp ----

    void setSelectedSlot(eStorageSlot_t slot);
    // The slot behind `slot` on the board; none when `mode`, the slot in use, is one.
    eStorageSlot_t getNextSlot(eStorageSlot_t mode, eStorageSlot_t slot);
    eStorageSlot_t getNextAvailableSlot(eStorageSlot_t slot);
    // Returns an eSlotChangeResult_t. 0 also when the change will complete on a later pass.
    unsigned int attemptSlotChange(eStorageSlot_t slot) override;
    void activateSlot(eStorageSlot_t slot);
    // Returns 0 or eSlotChangeNotUnmounted.
    int deselectSlot();
    // Looks at every slot once. True when some slot holds a medium that the driver recognises; the argument is not
    // used.
    bool findStorage(bool) override;
    void ServiceMountRequests();

    // ---- Check, repair, mount, unmount, bus: mounting.cpp ----
    // `quiet` leaves the LED, the web link and the media watch alone: for mounts that only the manager itself sees.

    bool isSlotMounted(eStorageSlot_t slot);
    // 0 when the file system says that it is clean, -1 otherwise.
    int quickCheck(eStorageSlot_t slot);
    // 0 when the file system is clean or repaired; else the tool's status, with the invalid-media alert raised.
    int fsckSlot(eStorageSlot_t slot);
    // Whether the tool that reads the volume name finds the data partition: false on its "No such device" alone.
    bool isSlotFormatted(eStorageSlot_t slot);
    // 0, or the tool's status with `name` untouched.
    int getVolumeName(eStorageSlot_t slot, std::string& name);
    int displayVolumeName(eStorageSlot_t slot);
    static void replaceControlChars(char* text);
    // Makes the maker directory and what belongs into it: mkdir's status, whatever becomes of the file in it; -1, with nothing
    // made, when the maker directory or .uploads is a link.
    int configureDirectories(eStorageSlot_t slot);
    // The maker directory, or empty for the unknown slot.
    std::string getStoragePath(eStorageSlot_t slot);
    void setStoragePath(eStorageSlot_t slot);
    // 0 on success, and also for a medium that the kernel mounted read-only: the mounted flag tells them apart. -1
    // when the repair failed, another device came during the check, or the maker directory is a link; else a tool's status.
    int mountSlot(eStorageSlot_t slot, bool quiet);
    // 0 on success and in a double mount; the grep's status when nothing was mounted there; else umount's.
    int unmountSlot(eStorageSlot_t slot, bool lazy, bool quiet);
    void unmountAll();
    // Have the bus look for the slot's disk, and forget it. By value: a copy of the record, as it was when the caller decided.
    void probeBus(Slot slot);
    void deleteDeviceFromBus(Slot slot);

    // ---- What changes on the medium in use: media_watch.cpp ----

    void setup_inotify();
    void teardown_inotify();
    // Watches `path` instead of what was watched before; false when that cannot be had.
    bool watchPath(std::string path);
    // Appends every pending event as (file name, event mask), in the kernel's order; false when there is none.
    bool ReadEvents(std::list<std::pair<std::string, unsigned int>>& events, int fd, int wd);
    // Brings the shared cache in step with what happened on the medium since the last pass.
    void checkMediaEvents();
    // Makes the current clip the first one again after the media, the playlist or the clip list mode changed.
    void checkMediaUpdated();

    // ---- Clips to delete: clip_deletion.cpp ----

    // Appends the pieces; none for an empty text, and none behind a separator at the very end.
    static void split(const std::string& text, char separator, std::vector<std::string>& pieces);
    // The store's thread. Adds the names in `text` to `pending`; false when the text is empty.
    bool parseClipsToDelete(std::set<std::string>& pending, std::string text);
    std::set<std::string> getClipsToDelete();
    // Deletes the files named in `clips`, "*" for all of them. 0 when there is none to delete, else 1.
    int deleteClips(std::set<std::string>& clips);
    // Takes what has been handled out of the pending requests; what arrived meanwhile stays.
    void removeDeletedClips(std::set<std::string>& deleted);

    // ---- Erasing a medium: formatting.cpp ----

    // Erases the medium in `slot` and brings it back into use with the reel's number as its name. Inverted: false on
    // success, true when the file system could not be made.
    bool eraseStorage(eStorageSlot_t slot);

    // ---- FireWire disk access: firewire_access.cpp ----

    // On a board that has it: makes the controller.
    void setUpFirewireAccess();
    // While FireWire owns the medium: does what it needs in this pass and returns true.
    bool serviceFirewireAccess();
    // Starts FireWire access when that was asked for. Returns `result` when it was not.
    int startRequestedFirewireAccess(int result);

private:
    Slot& slotRecord(eStorageSlot_t slot) { return _listener->getSlot(slot); }
    std::string partitionNode(eStorageSlot_t slot);
    // Runs the board's useful string of that name.
    int runUsefulString(const char* key);
    // As the public one. `staysMounted` tells whether something is still mounted that should not be.
    int unmountSlot(eStorageSlot_t slot, bool lazy, bool quiet, bool& staysMounted);
    // Has what has been written to the medium in `slot` reach it. Takes a minute at most, as every line; one line when it
    // fails.
    void syncMedium(eStorageSlot_t slot);
    // Whether a symbolic link stands at `path` on a medium, through which a hostile card would have the recorder write
    // wherever it likes. One line says so.
    bool isForeignLink(const std::string& path);
    // Runs `line` with the usual buffer of 256 bytes for its output.
    int runCapturing(const std::string& line, std::string& output);
    // The medium in `slot` was exchanged while it was in use: let go of the old one, take the new one.
    unsigned int remount(eStorageSlot_t slot);
    void markSettingsChanged(); // any thread
    // Whether the kernel has announced a disk of that name in another slot.
    bool isDeviceOfAnotherSlot(eStorageSlot_t slot, const std::string& devname);
    // Whether the pin of a slot whose device was taken off the bus has come back, and nothing was announced for so long that
    // it must have been a bounce: only a medium that is newly inserted is announced. True once.
    bool isAnnouncementOverdue(eStorageSlot_t slot, const SlotAnnouncement& announcement);
    // Whether the medium in `slot` is in the hands of the FireWire endpoint.
    bool offeredOverFirewire(eStorageSlot_t slot);
    // Whether it will be as soon as it is back.
    bool isAwaitedOverFirewire(eStorageSlot_t slot);
    // After a controller that could not reset the bus has thrown: one line, and the slot back to the recorder.
    void abandonFirewireAccess();
    // Writes the time to kParamMediaChangedTime.
    void stampMediaChange();
    // A file was closed or moved in, a file was deleted; whether the media changed by that.
    bool fileArrived(nevo::media::MediaCache& cache, const std::string& path);
    bool fileDeleted(nevo::media::MediaCache& cache, ClipFinder& finder, const std::string& path);
    // The clips of the selected playlist in playlist mode, else all of them.
    std::list<Clip> findSelectedClips(ClipFinder& finder);
    // Before `clips` go: tells the recorder which clip becomes the current one, and gives it time to let go of its own.
    void moveCurrentClipOff(ClipFinder& finder, const std::set<std::string>& clips);

    static constexpr char kNotAvailable[] = "N/A"; // shown for the name of a volume or clip that is not there

    SlotListener* const _listener;
    Card* const _card;
    Config* const _config;
    ConfigEventChannel* const _eventChannel;
    FileUtils* const _shell;
    OperatingSystem& _os;

    // Loop thread only, up to the next heading.
    std::map<eStorageSlot_t, std::string> _mountPoints; // "/mnt/S1"
    std::string _storagePath;                           // published; empty while no medium is in use
    std::string _reelName;
    eStorageSlot_t _selectedSlot = eStorageSlotUnknown;
    eStorageSlot_t _previousSlot = eStorageSlotUnknown; // selected before the current one
    std::string _mountedDevice;                         // that it was mounted from, "sdb"
    bool _mounted = false;                              // the selected medium is mounted read-write
    bool _leftMounted = false;                          // mounted out of use: its files may change unseen
    std::set<eStorageSlot_t> _awaitedMedia;             // loading is shown for them
    // Taken off the bus, or so it may be, with their medium in them, and when their pin came back; 0 while it has not.
    std::map<eStorageSlot_t, std::time_t> _takenOffTheBus;
    std::set<eStorageSlot_t> _probeWhenPresent;         // off the bus for no reason of the operator's
    bool _notScannedYet = false;                        // the shared index does not tell of the selected medium
    bool _loopDone = false;                             // the loop ends after this pass
    bool _threaded = false;
    bool _cleanedUp = false;
    bool _mediaLoading = false;
    int _lastMediaLoadingStatus = 3; // neither false nor true: the first call always writes
    eStorageLEDStatus_t _lastLEDStatus = eStorageLEDOff;
    std::time_t _lastCapacityTime = 0;
    int _capacityCounter = 0; // nanoseconds slept since the last measurement while the transport is active
    int _inotify = -1;
    int _watch = -1;
    std::unique_ptr<char[]> _eventBuffer; // made by the first read
    int _lastMediaTimeSeen = 0;           // value of kParamMediaChangedTime
    ThreadSleep _sleeper;
    bool _firewireActive = false;
    std::unique_ptr<FwData> _ownedFwData; // used through _fwData

    // Guarded by _semaphore.
    sem_t _semaphore; // ready from init on
    std::set<std::string> _clipsToDelete;
    int _storageUseCount = 0;
    bool _newMountRequest = false;
    bool _settingsChanged = false;

    // Written by the store's thread and by the loop.
    std::atomic<int> _transportState{0};
    std::atomic<bool> _transportActive{false};
    std::atomic<int> _slotChangeCommand{0};
    std::atomic<int> _mediaCommand{0};
    std::atomic<int> _remountCommand{0};
    std::atomic<int> _mediaChangedTime{0};
    std::atomic<bool> _cacheRefreshRequested{false};
    std::atomic<bool> _firewireStartRequested{false};
    std::atomic<bool> _firewireStopRequested{false};

    // Set once by init, when events may be coming already; null on a board without FireWire.
    std::atomic<FwData*> _fwData{nullptr};
};

#endif
