#ifndef MEDIAD_SIMULATION_INVARIANTS_H
#define MEDIAD_SIMULATION_INVARIANTS_H

// What must hold at every instant of every history. The world tells what happens; what must not happen ends the program
// with its seed (World::fail). What the daemon does on purpose although an invariant says otherwise is an exception: it
// has a name and a reason in the one list below, and nothing else is let pass.

#include <semaphore.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "config_events.h"
#include "simulation/scheduler.h"
#include "simulation/trace.h"
#include "slots/storage_slot.h"

namespace simulation {

struct World;
class Medium;
struct Disk;
struct Mount;
struct SlotHardware;

enum class Exception {
    DeletionOutlivesMedium,
    DirectoriesBelowMountPoint,
    FormatOfMountedMedium,
    UncheckedAfterFailedUnmount,
    NothingPublishedButMounted,
    UnmountOfAnotherSlot,
    BadMediumKeepsSelection,
    SecondMediumOffTheBus,
    ClipRenamedAway,
    SelectedWithoutDevice,
    EndpointThatStays,
    NameOfAnotherDisk,
    FilesOpenAcrossLives,
    DeletionLeavesDirectory,
    ConfigurationThatStays,
    BothLookWhilePaused,
    DeletionBelowMountPoint,
    Count,
};

struct ExceptionText {
    const char* name;
    const char* why;
};

// In the order of the enumeration.
inline constexpr ExceptionText kExceptions[] = {
    {"deletion outlives medium",
     "a request stays pending until it is carried out, whichever medium is in use by then"},
    {"directories below mount point",
     "a format goes on after a mount that failed, and makes the maker directory where nothing is mounted"},
    {"format of mounted medium",
     "a format unmounts only what the mounted flag says; what a failed mount left goes to tools that refuse it"},
    {"unchecked after failed unmount",
     "a mount goes on after an unmount that failed: the check then sees a medium that is mounted"},
    {"nothing published but mounted",
     "a read-only mount, a mount without its scheduler and one that could not be unmounted stay, unpublished"},
    {"unmount of another slot",
     "there is one mounted flag: unmounting what was left in another slot, or trying to, takes the medium in use out of use, "
     "and the next pass mounts it again"},
    {"bad medium keeps selection",
     "an unformatted or damaged medium stays selected, so that it can be formatted; another slot's has to wait"},
    {"second medium off the bus",
     "a medium that came while another was in use is off the bus, and a daemon that starts follows the board's order of "
     "slots: where that leads past it, it waits for a slot change or a new insertion"},
    {"clip renamed away",
     "a file that is moved away is no event that counts: its clip stays listed until something asks for a refresh"},
    {"selected without device",
     "where the announcement of a removal is lost or comes late, a slot is selected by the name of a device that is gone, "
     "and stays so until its medium or the selection changes: nothing probes for it"},
    {"endpoint that stays",
     "an endpoint that does not end when it is told to is left to itself: that it has its disk exclusively keeps the "
     "recorder off it"},
    {"name of another disk",
     "where the announcement of a removal is lost or comes late, a slot is used by a name that the kernel has given to "
     "another slot's disk, the endpoint's too; and its name may go to another in the instant before it is configured"},
    {"files open across lives",
     "a daemon that is killed forgets that its medium was acquired; the next one unmounts it lazily before it mounts it, "
     "and what is then written to a file that stayed open can go with the device when the medium is released"},
    {"deletion leaves the directory",
     "a recording setting is read as a deletion request too; its owner may put a path there, and the command line takes "
     "every name as it is"},
    {"configuration that stays",
     "where the endpoint's configuration cannot be copied the one before is left, and the endpoint takes that slot's disk: "
     "that it has it exclusively keeps the recorder off it"},
    {"both look while paused",
     "while access is paused the endpoint and the recorder both look for the medium: one that comes right behind the "
     "endpoint's own request is the endpoint's, and that it has it exclusively keeps the recorder off it"},
    {"deletion below mount point",
     "a deletion does not ask what is mounted, and finds the empty maker directory that a format has made below the mount "
     "point"},
};
static_assert(sizeof kExceptions / sizeof kExceptions[0] == static_cast<std::size_t>(Exception::Count));

class Invariants {
public:
    explicit Invariants(World& world) : _world(world) {}
    ~Invariants();
    Invariants(const Invariants&) = delete;
    Invariants& operator=(const Invariants&) = delete;

    // How often each exception was used, in all histories of this process.
    static std::uint64_t uses[static_cast<std::size_t>(Exception::Count)];

    // --- Command lines

    // The shell knows every line that the daemon may run.
    void unknownCommandLine(const std::string& line);
    // A text of a medium or a client stands in double quotes and holds nothing that a shell would act on there.
    void unquotedText(const std::string& text);
    // A name in a deletion stays in the directory.
    void leavesMakerDirectory(const std::string& name);

    // --- Media

    // rm runs only in the maker directory of the selected, mounted medium.
    void removesIn(const std::string& mountPoint, const Mount* mount);
    // No file leaves a medium that no request named.
    void fileRemoved(const Medium& medium, const std::string& name);
    // A deletion has been carried out: the same requests name nothing any more.
    void deletionRan();
    // Partition tools and mkfs run for a requested format only, on the selected slot's device.
    void formats(const std::string& disk, const char* tool);
    // A medium is checked before each mount, and never mounted dirty after a check that said so.
    void checked(const std::string& node, const Medium& medium);
    void repaired(const std::string& node);
    void mounts(const std::string& node, const Medium& medium);
    void unmounts(const std::string& mountPoint);
    // A repair runs on what is not mounted.
    void repairStarts(const std::string& node);
    // Directories are made on media, not below them.
    void writesBelowMountPoint(const std::string& mountPoint);
    // A medium is guarded before anything is written to it or removed from it.
    void writesTo(const Mount& mount);
    // What was written to a medium is on it before the daemon takes its disk off the bus.
    void deletesDisk(const Disk& disk);
    // The web link is made, unless the tool fails.
    void links(bool worked) { _linkFailed = !worked; }
    // The daemon itself removes nothing but the web link and the flag of the last access.
    void unlinks(const std::string& path);

    // --- FireWire

    // A tool that would write meets a disk that is the endpoint's: never is one both the recorder's and the endpoint's.
    void touchesOffered(const std::string& disk);
    // The daemon's steps: configures the endpoint, starts it, tells it to end, looks whether it has, resets the bus.
    void configures(const std::string& disk, bool copied);
    void offers();
    void endsEndpoint();
    void looksForEndpoint();
    void resetsBus(int mode);
    // The daemon asks for one of the endpoint's files.
    void lookedFor(const std::string& path, bool there);
    // After everything has calmed down and somebody has asked for access, for a computer that came, and when it went.
    // Null while no medium is in use.
    const SlotHardware* slotInUse() const;
    void offered(const SlotHardware& slot);
    void computerIsServed(const SlotHardware& slot);

    // --- Parameters

    void deletionRequested(const std::string& names, bool asSetting = false);
    // On its way to the daemon.
    void eventArrives(eParam_t id, int value);
    // The daemon's own gets and sets, and those of texts.
    void parameterRead(eParam_t id, int value);
    void storeUsed();
    void parameterWritten(eParam_t id, int value);
    void pathWritten(const std::string& path);

    // --- Instants

    // The segments are well formed whenever their mutexes are free, and nobody has died in the middle of writing them.
    void checkSegments();
    // The daemon was killed in the middle of writing the one with that text at its front. What it has written so far
    // stands, and it does not give the lock back.
    void diedWriting(const std::string& magic);
    // Flag, path and mount table agree; progress that started has ended; the LEDs show what they were told.
    void passEnds();
    void daemonEnds(bool orderly);
    void diagnostics(const std::string& text);

    // After everything has calmed down.
    void converged();
    // Whether some good card waits although nothing is selected, and may do so until somebody asks for a slot: a client
    // has had the medium released, or no good card is on the bus.
    bool goodCardWaits() const;
    bool mayWait();

private:
    struct Request {
        std::set<std::string> names;
        int medium; // that was in use at that moment; 0 for none
        Nanoseconds when;
        bool asSetting; // which may name anything
    };
    struct SegmentView {
        const std::uint8_t* bytes = nullptr;
        std::size_t size = 0;
        std::uint64_t seen = 0; // of the last check
        sem_t* mutex = nullptr;
    };

    bool except(Exception exception);
    int serialOf(const std::string& node) const;
    void formatBegins(const std::string& what);
    const SlotHardware* selectedSlot() const;
    const Medium* mediumInUse() const;
    void checkClipSegment();
    void checkPlaylistSegment();
    void checkPublished();
    void checkProgress();
    void checkLEDs();
    void checkFirewire();
    bool announcementsAreUnreliable() const;
    // Whether the daemon uses the disk's name for another slot, or may without knowing that the kernel has given it away.
    bool isTakenForAnother(const Disk& disk) const;
    bool map(SegmentView& view, const char* path, const char* mutex, std::size_t size);
    bool isLocked(const SegmentView& view) const;
    std::uint64_t look(const SegmentView& view) const;
    void checkInUse(const SlotHardware& slot);

    World& _world;
    std::vector<Request> _requests;
    // The last command that the daemon has heard of is a format that it has not begun yet; or was, at some time in this pass.
    bool _formatStands = false;
    bool _formatStood = false;
    bool _formatRunning = false;
    std::map<std::string, int> _checkedNodes; // node and the serial number of its disk
    // By thread: the integer that it has read, where that was the last thing it did with the store.
    std::map<Scheduler::ThreadId, std::pair<eParam_t, int>> _lastRead;
    bool _otherSlotUnmounted = false;                 // since a path was published
    std::set<std::string> _madeBelow;                 // mount points below which a format has made directories
    bool _linkFailed = false;                         // the last attempt to make it
    Nanoseconds _passBegan = 0;
    enum class Access { None, Offered, Paused };
    Access _access = Access::None;
    eStorageSlot_t _accessSlot = eStorageSlotUnknown;
    bool _toldToEnd = false;       // the last word to the endpoint; nobody has looked yet whether it did
    bool _staleConfiguration = false; // it could not be copied
    bool _wrongDisk = false;       // it was started with another slot's configuration
    bool _firewireSteps = false;   // in this pass
    bool _looked = false;          // in this pass, and saw:
    bool _sawNotInUse = false;
    bool _sawStop = false;
    SegmentView _clips;
    SegmentView _playlists;
};

} // namespace simulation

#endif
