#include "simulation/invariants.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>
#include <utility>

#include "clip.h"
#include "clip_examiner.h"
#include "parameters.h"
#include "playlist.h"
#include "shared_segment.h"
#include "simulation/daemon_life.h"
#include "simulation/world.h"

namespace simulation {

namespace {

constexpr char kClipSegment[] = "/dev/shm/NewCacheSharedClipCache_shm";
constexpr char kPlaylistSegment[] = "/dev/shm/NewCacheSharedPlaylistCache_shm";
constexpr char kClipMutex[] = "/NewCacheSharedClipCache_mutex";
constexpr char kPlaylistMutex[] = "/NewCacheSharedPlaylistCache_mutex";
constexpr char kWebLink[] = "/var/www/media";

// What the daemon may change in the alarm words.
constexpr unsigned int kAlarmsRaised = 0x1 | 0x2 | 0x2000 | 0x4000 | 0x10000 | 0x800000 | 0x1000000;
constexpr unsigned int kAlarmsCleared = 0x400 | 0x2000 | 0x4000 | 0x40000 | 0x800000 | 0x1000000;
constexpr unsigned int kExtendedAlarms = 0x8;

std::string text(const std::uint8_t* field, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(field), strnlen(reinterpret_cast<const char*>(field), size));
}

template <typename Number>
Number numberAt(const std::uint8_t* bytes) {
    Number number;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

// Enough of a segment to see that somebody has written to it.
std::uint64_t glance(const std::uint8_t* bytes, std::size_t records, std::size_t stride, std::uint32_t count) {
    std::uint64_t sum = 0xcbf29ce484222325;
    const auto mix = [&](std::uint64_t value) { sum = (sum ^ value) * 0x100000001b3; };
    for (std::size_t i = 0; i + 8 <= records; i += 8) mix(numberAt<std::uint64_t>(bytes + i));
    mix(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t* const record = bytes + records + stride * i;
        mix(numberAt<std::uint64_t>(record));
        mix(numberAt<std::uint64_t>(record + 8));
        mix(numberAt<std::uint64_t>(record + 4096));
    }
    return sum;
}

} // namespace

std::uint64_t Invariants::uses[static_cast<std::size_t>(Exception::Count)] = {};

Invariants::~Invariants() {
    for (const SegmentView* view : {&_clips, &_playlists})
        if (view->mutex != nullptr) ::sem_close(view->mutex);
    for (const SegmentView* view : {&_clips, &_playlists})
        if (view->bytes != nullptr) ::munmap(const_cast<std::uint8_t*>(view->bytes), view->size);
}

bool Invariants::except(Exception exception) {
    ++uses[static_cast<std::size_t>(exception)];
    const char* const name = kExceptions[static_cast<std::size_t>(exception)].name;
    _world.note([&] { return std::string("  (exception: ") + name + ")"; });
    return true;
}

const SlotHardware* Invariants::selectedSlot() const {
    return _world.appliance.slot(static_cast<eStorageSlot_t>(_world.store.integer(kParamSelectedSlot)));
}

const Medium* Invariants::mediumInUse() const {
    const std::string path = _world.store.text(kParamStoragePath);
    if (path.empty()) return nullptr;
    const Mount* const mount = _world.appliance.mountAt(path.substr(0, path.rfind('/')));
    return mount == nullptr ? nullptr : mount->medium;
}

// ---- Command lines

void Invariants::unknownCommandLine(const std::string& line) { _world.fail("every command line is known", line); }

void Invariants::unquotedText(const std::string& text) {
    _world.fail("no foreign text stands unquoted in a command line", text);
}

void Invariants::leavesMakerDirectory(const std::string& name) {
    // A deletion request with such a name is refused where it enters the store.
    const bool isSetting = std::any_of(_requests.begin(), _requests.end(), [&](const Request& each) {
        return each.asSetting && each.names.contains(name);
    });
    if (!isSetting) _world.fail("rm stays in the maker directory", name);
    except(Exception::DeletionLeavesDirectory);
}

// ---- Media

void Invariants::removesIn(const std::string& mountPoint, const Mount* mount) {
    if (mount == nullptr) {
        if (!_madeBelow.contains(mountPoint)) _world.fail("rm runs only on a mounted medium", mountPoint);
        except(Exception::DeletionBelowMountPoint);
    }
    const SlotHardware* const slot = selectedSlot();
    if (slot == nullptr || mountPoint != "/mnt/" + slot->name)
        _world.fail("rm runs only in the maker directory of the selected medium", mountPoint);
}

void Invariants::deletionRequested(const std::string& names, bool asSetting) {
    Request request;
    std::istringstream stream(names);
    for (std::string name; std::getline(stream, name, '|');) request.names.insert(name);
    const Medium* const medium = mediumInUse();
    request.medium = medium == nullptr ? 0 : medium->number();
    request.when = _world.scheduler.now();
    request.asSetting = asSetting;
    _requests.push_back(request);
}

void Invariants::fileRemoved(const Medium& medium, const std::string& name) {
    bool named = false;
    for (const Request& each : _requests) {
        if (!each.names.contains(name) && !each.names.contains("*")) continue;
        if (each.medium == medium.number()) return;
        named = true;
    }
    if (named) {
        except(Exception::DeletionOutlivesMedium);
        return;
    }
    _world.fail("no file leaves a medium that no request named", name + " of " + medium.name());
}

void Invariants::deletesDisk(const Disk& disk) {
    // A card that has died takes nothing any more.
    if (disk.medium->isDead() || !disk.medium->hasUnwritten(_world.scheduler.now())) return;
    if (disk.medium->openAcrossLives)
        except(Exception::FilesOpenAcrossLives);
    else if (announcementsAreUnreliable() && isTakenForAnother(disk))
        except(Exception::NameOfAnotherDisk);
    else
        _world.fail("what was written is on the medium before its disk is deleted", disk.medium->name());
}

void Invariants::deletionRan() {
    // A run carries out everything that the daemon has heard of; what was asked for just now may still be on its way.
    const Nanoseconds old = _world.scheduler.now() - 10 * kSecond;
    std::erase_if(_requests, [&](const Request& each) { return each.when < old; });
}

void Invariants::formatBegins(const std::string& what) {
    if (!_formatStood) _world.fail("a format runs only when it was requested", what);
    _formatRunning = true;
    _formatStands = _formatStood = false; // each is good for one
}

void Invariants::formats(const std::string& disk, const char* tool) {
    const std::string what = std::string(tool) + " on \"" + disk + "\"";
    if (!_formatRunning) formatBegins(what); // where no slot is selected it shows no progress
    const SlotHardware* const slot = selectedSlot();
    const Disk* const target = _world.appliance.disk(disk);
    if (target == nullptr) return; // gone in this very moment, or there never was one: the tool fails
    if (target->slot != slot) _world.fail("a format runs only on the selected slot's device", what);
    if (!_world.appliance.isMounted(disk)) return;
    if (mediumInUse() == target->medium) _world.fail("a medium in use is unmounted before it is formatted", what);
    except(Exception::FormatOfMountedMedium);
}

void Invariants::checked(const std::string& node, const Medium& medium) {
    if (medium.formatted && medium.clean && !medium.damaged) _checkedNodes[node] = serialOf(node);
}

void Invariants::repaired(const std::string& node) { _checkedNodes[node] = serialOf(node); }

int Invariants::serialOf(const std::string& node) const {
    const Disk* const disk = _world.appliance.partition(node);
    return disk == nullptr ? 0 : disk->serial;
}

void Invariants::mounts(const std::string& node, const Medium& medium) {
    if (!_checkedNodes.contains(node)) _world.fail("a medium is checked before it is mounted", node);
    // A medium that was swapped between the check and the mount, also for itself, is the operator's doing.
    const bool same = _checkedNodes[node] == serialOf(node);
    _checkedNodes.erase(node);
    if (same && !medium.clean && !_world.appliance.isMounted(medium))
        _world.fail("no dirty medium is mounted", node);
}

void Invariants::unmounts(const std::string& mountPoint) {
    const SlotHardware* const slot = selectedSlot();
    if (slot != nullptr && mountPoint != "/mnt/" + slot->name) _otherSlotUnmounted = true;
}

void Invariants::repairStarts(const std::string& node) {
    const std::string disk = node.size() > 6 ? node.substr(5, node.size() - 6) : "";
    if (!_world.appliance.isMounted(disk)) return;
    const auto& mounts = _world.appliance.mounts();
    if (std::all_of(mounts.begin(), mounts.end(),
                    [&](const Mount& each) { return each.disk != disk || each.unmountFailed; }))
        except(Exception::UncheckedAfterFailedUnmount);
    else
        _world.fail("a repair runs on what is not mounted", node);
}

void Invariants::writesBelowMountPoint(const std::string& mountPoint) {
    if (!_formatRunning) _world.fail("directories are made on media, not below them", mountPoint);
    _madeBelow.insert(mountPoint);
    except(Exception::DirectoriesBelowMountPoint);
}

void Invariants::writesTo(const Mount& mount) {
    // A daemon that was killed in between leaves one behind, and the next daemon may be unable to unmount it.
    if (!mount.guarded && !mount.inherited)
        _world.fail("a medium is guarded before it is written to", mount.line());
}

void Invariants::unlinks(const std::string& path) {
    if (path != kWebLink && path != Endpoint::kUnavailable)
        _world.fail("the daemon itself removes nothing but the web link and the endpoint's flag", path);
}

// ---- FireWire

bool Invariants::announcementsAreUnreliable() const {
    return _world.temper.announcementLoss > 0 || _world.temper.announcementDelay > 500 * kMillisecond;
}

bool Invariants::isTakenForAnother(const Disk& disk) const {
    if (_world.life == nullptr) return false;
    for (const SlotHardware& each : _world.appliance.slots())
        if (&each != disk.slot && _world.life->deviceOf(each.id) == disk.name) return true;
    const bool wasAnothers = disk.nameBefore != nullptr && disk.nameBefore != disk.slot;
    return wasAnothers && _world.life->deviceOf(disk.slot->id) != disk.name;
}

void Invariants::touchesOffered(const std::string& disk) {
    if (_world.endpoint.isDefiant())
        except(Exception::EndpointThatStays);
    else if (_access == Access::Paused)
        except(Exception::BothLookWhilePaused);
    else if (_staleConfiguration)
        except(Exception::ConfigurationThatStays);
    else if (announcementsAreUnreliable() && isTakenForAnother(*_world.appliance.disk(disk)))
        except(Exception::NameOfAnotherDisk);
    else
        _world.fail("no medium is the recorder's and the endpoint's", "the endpoint has " + disk);
}

void Invariants::configures(const std::string& disk, bool copied) {
    _firewireSteps = true;
    _access = Access::Offered;
    _toldToEnd = false;
    _wrongDisk = _staleConfiguration = !copied;
    const auto slot = _world.appliance.files().find("/etc/endpoint.conf." + disk);
    if (slot == _world.appliance.files().end()) _world.fail("what is offered was a disk once", disk);
    _accessSlot = eStorageSlotUnknown;
    for (const SlotHardware& each : _world.appliance.slots())
        if (each.name == slot->second) _accessSlot = each.id;
    // The light that the daemon has just switched on is that of the slot it means.
    if (_world.life != nullptr && _world.life->commandedLED(_accessSlot) != 1) {
        // Between the release, in this pass, and the copy, which may be slow.
        const Disk* const named = _world.appliance.disk(disk);
        const bool inPass = named != nullptr && named->since >= _passBegan;
        const bool justNow = inPass && named->nameBefore != nullptr &&
                             _world.life->commandedLED(named->nameBefore->id) == 1;
        if (!announcementsAreUnreliable() && !justNow)
            _world.fail("the computer gets the disk of the slot that is shown", slot->second);
        else
            except(Exception::NameOfAnotherDisk);
        _wrongDisk = true;
    }
    if (_world.appliance.files().contains(Endpoint::kUnavailable) && !_world.endpoint.isRunning())
        _world.fail("a start takes back what the last access has left", Endpoint::kUnavailable);
}

void Invariants::offers() {
    _firewireSteps = true;
    _toldToEnd = false;
    if (_access == Access::None) _world.fail("an endpoint is started for an access only", "there is none");
    if (!_world.endpoint.isRunning() && !_world.appliance.files().contains(Endpoint::kNotInUse))
        _world.fail("an endpoint starts with nobody using the disk", "there is no flag that says so");
    if (_access == Access::Paused) return; // the recorder may look at a medium that comes back
    const SlotHardware* const slot = _world.endpoint.slot();
    if (slot == nullptr || slot->medium == nullptr || !_world.appliance.isMounted(*slot->medium)) return;
    if (!_wrongDisk) _world.fail("what is offered is not mounted", slot->name);
}

void Invariants::endsEndpoint() {
    _firewireSteps = true;
    _toldToEnd = true;
}

void Invariants::looksForEndpoint() { _toldToEnd = false; }

void Invariants::resetsBus(int mode) {
    constexpr int kForRecorder = 1;
    _firewireSteps = true;
    if (mode == kForRecorder) {
        _access = Access::None;
        if (!_world.endpoint.isRunning() && !_world.appliance.files().contains(Endpoint::kNotInUse))
            _world.fail("an access that has ended leaves nobody using the disk", "there is no flag that says so");
    } else if (_toldToEnd) {
        _access = Access::Paused;
    }
    _toldToEnd = false;
}

void Invariants::lookedFor(const std::string& path, bool there) {
    _looked = true;
    if (path == Endpoint::kNotInUse) {
        _sawNotInUse = there;
        _sawStop = false; // not looked for where the first is not there
    } else if (path == Endpoint::kStop) {
        _sawStop = there;
    }
}

// The light of the slot tells whether the computer uses the disk, as the daemon's last look at the files has shown it.
void Invariants::checkFirewire() {
    const bool settled = _looked && !_firewireSteps && _access == Access::Offered && !_wrongDisk;
    _looked = _firewireSteps = false;
    if (!settled || _world.life == nullptr) return;
    const int wanted = !_sawNotInUse || _sawStop ? 1 : 0;
    const int told = _world.life->commandedLED(_accessSlot);
    if (told != wanted)
        _world.fail("the LED shows whether the computer uses the disk",
                    "it was told " + std::to_string(told) + ", and should be " + std::to_string(wanted));
}

const SlotHardware* Invariants::slotInUse() const {
    const SlotHardware* const slot = selectedSlot();
    if (slot == nullptr || slot->medium == nullptr || mediumInUse() != slot->medium) return nullptr;
    return _world.appliance.diskIn(*slot) != nullptr && slot->medium->isGood() ? slot : nullptr;
}

void Invariants::offered(const SlotHardware& slot) {
    const char* const name = "access that was asked for is given";
    const Disk* const disk = _world.appliance.diskIn(slot);
    if (_world.store.integer(kParamFirewireMode) != 2) _world.fail(name, "it was refused");
    if (disk == nullptr || !_world.endpoint.has(*disk))
        _world.fail(name, "the endpoint has not got the disk of " + slot.name);
    if (_world.appliance.isMounted(disk->name)) _world.fail(name, disk->name + " is still mounted");
    if (_world.store.integer(kParamSelectedSlot) != 0 || !_world.store.text(kParamStoragePath).empty())
        _world.fail(name, "the recorder still has a slot");
}

void Invariants::computerIsServed(const SlotHardware& slot) {
    const char* const name = "a computer that comes is served";
    if (!_world.endpoint.isInUse()) _world.fail(name, "it was cut off");
    if (_world.life == nullptr || _world.life->commandedLED(slot.id) != 1) _world.fail(name, "the LED is not lit");
}

// ---- Parameters

void Invariants::eventArrives(eParam_t id, int value) {
    constexpr int kErase = 4;
    if (id != kParamMediaCommand) return;
    _formatStands = value == kErase;
    _formatStood = _formatStood || _formatStands;
}

void Invariants::parameterRead(eParam_t id, int value) { _lastRead[_world.scheduler.current()] = {id, value}; }

void Invariants::storeUsed() { _lastRead.erase(_world.scheduler.current()); }

void Invariants::parameterWritten(eParam_t id, int value) {
    const auto read = std::exchange(_lastRead[_world.scheduler.current()], {0, 0});
    switch (id) {
    case kParamAlarms:
    case kParamExtendedAlarms: {
        if (read.first != id) _world.fail("an alarm word is read right before it is written", std::to_string(value));
        // Against what the daemon has read: between its reading and its writing others may change the word, and nobody
        // has promised anything for that moment.
        const auto before = static_cast<unsigned int>(read.second);
        const auto after = static_cast<unsigned int>(value);
        const unsigned int raised = after & ~before;
        const unsigned int cleared = before & ~after;
        const bool extended = id == kParamExtendedAlarms;
        if ((raised & ~(extended ? kExtendedAlarms : kAlarmsRaised)) != 0 ||
            (cleared & ~(extended ? kExtendedAlarms : kAlarmsCleared)) != 0)
            _world.fail("alarm bits that the daemon does not own stay",
                        std::to_string(before) + " became " + std::to_string(after));
        break;
    }
    case kParamProgressStatus:
        if (value == 0)
            _formatRunning = false;
        else
            formatBegins("progress " + std::to_string(value));
        break;
    default:
        break;
    }
}

void Invariants::pathWritten(const std::string& path) {
    if (!path.empty()) _otherSlotUnmounted = false;
}

// ---- Instants

void Invariants::diedWriting(const std::string& magic) {
    SegmentView& view = magic == nevo::media::kClipMagic ? _clips : _playlists;
    _world.note([&] { return "  and it was writing " + magic; });
    if (!map(_clips, kClipSegment, kClipMutex, nevo::media::kClipSegmentSize) ||
        !map(_playlists, kPlaylistSegment, kPlaylistMutex, nevo::media::kPlaylistSegmentSize))
        return;
    // Its way out has given the lock back, as a killed process does not.
    ::sem_trywait(view.mutex);
    // What is half written may stay as it stands; whatever somebody makes of it is looked at.
    view.seen = look(view);
}

std::uint64_t Invariants::look(const SegmentView& view) const {
    using namespace nevo::media;
    if (&view == &_clips) {
        const auto count = numberAt<std::uint32_t>(view.bytes + kClipCountOffset);
        return glance(view.bytes, kClipRecordsOffset, kClipStride, std::min<std::uint32_t>(count, kClipCapacity));
    }
    const auto count = numberAt<std::uint32_t>(view.bytes + kPlaylistCountOffset);
    return glance(view.bytes, kPlaylistRecordsOffset, kPlaylistStride, std::min<std::uint32_t>(count, kPlaylistCapacity));
}

bool Invariants::isLocked(const SegmentView& view) const {
    int count = 0;
    return ::sem_getvalue(view.mutex, &count) == 0 && count == 0;
}

bool Invariants::map(SegmentView& view, const char* path, const char* mutex, std::size_t size) {
    if (view.bytes != nullptr) return true;
    if (view.mutex == nullptr) {
        sem_t* const semaphore = ::sem_open(mutex, 0);
        if (semaphore == SEM_FAILED) return false;
        view.mutex = semaphore;
    }
    const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor == -1) return false;
    struct stat status;
    if (::fstat(descriptor, &status) == 0 && static_cast<std::size_t>(status.st_size) >= size) {
        void* const bytes = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
        if (bytes != MAP_FAILED) {
            view.bytes = static_cast<const std::uint8_t*>(bytes);
            view.size = size;
        }
    }
    ::close(descriptor);
    return view.bytes != nullptr;
}

void Invariants::checkSegments() {
    checkClipSegment();
    checkPlaylistSegment();
}

void Invariants::checkClipSegment() {
    using namespace nevo::media;
    if (!map(_clips, kClipSegment, kClipMutex, kClipSegmentSize) || isLocked(_clips) ||
        std::memcmp(_clips.bytes, kClipMagic, kClipMagicSize) != 0)
        return;
    const auto count = numberAt<std::uint32_t>(_clips.bytes + kClipCountOffset);
    const char* const name = "the clip segment is well formed";
    if (count > kClipCapacity) _world.fail(name, "it claims to hold " + std::to_string(count) + " clips");
    const std::uint64_t seen = look(_clips);
    if (seen == _clips.seen) return;
    _clips.seen = seen;
    std::set<std::string> names;
    std::int32_t latest = INT32_MIN;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t* const record = _clips.bytes + kClipRecordsOffset + kClipStride * i;
        const std::string clip = text(record, 4096);
        const auto time = numberAt<std::int32_t>(record + 4096);
        const std::string which = "record " + std::to_string(i) + " of " + std::to_string(count) + ", \"" + clip + "\"";
        if (clip.empty() || clip.size() == 4096) _world.fail(name, which + " has no proper name");
        if (!names.insert(clip).second) _world.fail(name, which + " is there twice");
        if (time < latest) _world.fail(name, which + " stands behind a later one");
        latest = time;
        if (text(record + 4104, 28).size() == 28 || text(record + 4133, 2400).size() == 2400 || record[4132] > 1)
            _world.fail(name, which + " has a broken field");
    }
}

void Invariants::checkPlaylistSegment() {
    using namespace nevo::media;
    if (!map(_playlists, kPlaylistSegment, kPlaylistMutex, kPlaylistSegmentSize) || isLocked(_playlists) ||
        std::memcmp(_playlists.bytes, kPlaylistMagic, kPlaylistMagicSize) != 0)
        return;
    const auto count = numberAt<std::uint32_t>(_playlists.bytes + kPlaylistCountOffset);
    const char* const name = "the playlist segment is well formed";
    if (count > kPlaylistCapacity) _world.fail(name, "it claims to hold " + std::to_string(count) + " playlists");
    const std::uint64_t seen = look(_playlists);
    if (seen == _playlists.seen) return;
    _playlists.seen = seen;
    std::string last;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t* const record = _playlists.bytes + kPlaylistRecordsOffset + kPlaylistStride * i;
        const std::string path = text(record, 4096);
        const std::string key = playlistName(path);
        const std::string which = "record " + std::to_string(i) + ", \"" + path + "\"";
        if (path.empty()) _world.fail(name, which + " has no path");
        if (i > 0 && key <= last) _world.fail(name, which + " stands behind \"" + last + "\"");
        last = key;
    }
}

void Invariants::passEnds() {
    _formatStood = _formatStands;
    _passBegan = _world.scheduler.now();
    checkPublished();
    checkProgress();
    checkLEDs();
    checkFirewire();
}

void Invariants::checkPublished() {
    const std::string path = _world.store.text(kParamStoragePath);
    const char* const name = "published path and mount table agree";
    if (_world.life != nullptr && _world.life->isMediumMounted() == path.empty())
        _world.fail("the mounted flag and the published path agree", path.empty() ? "nothing is published" : path);
    if (!path.empty()) {
        const std::string mountPoint = path.substr(0, path.rfind('/'));
        const Mount* const mount = _world.appliance.mountAt(mountPoint);
        if (mount == nullptr || mount->readOnly || mount->inherited)
            _world.fail(name, path + " is published, and nothing is mounted there for writing");
        const auto slot = selectedSlot();
        if (slot == nullptr || mountPoint != "/mnt/" + slot->name)
            _world.fail(name, path + " is published, and another slot is selected");
        // Mounted for use, and not only for a look.
        const auto link = _world.appliance.files().find(kWebLink);
        if (!_linkFailed && (link == _world.appliance.files().end() || link->second != path))
            _world.fail("the web link points at the medium in use", path);
        if (!mount->dead && isDirectory(mount->medium->makerDirectory()) && _world.appliance.watch() == -1)
            _world.fail("the medium in use is watched", path);
        return;
    }
    for (const Mount& each : _world.appliance.mounts()) {
        const bool explained =
            each.readOnly || each.inherited || each.dead || each.stays || each.medium->isDead();
        if (!explained && _otherSlotUnmounted) {
            except(Exception::UnmountOfAnotherSlot);
            continue;
        }
        if (!explained) _world.fail(name, "nothing is published, and there is " + each.line());
        except(Exception::NothingPublishedButMounted);
    }
}

void Invariants::checkProgress() {
    const int progress = _world.store.integer(kParamProgressStatus);
    if (progress != 0) _world.fail("progress that starts ends", "it still shows " + std::to_string(progress));
}

void Invariants::checkLEDs() {
    if (_world.life == nullptr) return;
    for (const SlotHardware& slot : _world.appliance.slots()) {
        const int wanted = _world.life->commandedLED(slot.id);
        const bool lit = (_world.appliance.registers()[Appliance::kLEDRegister] >> slot.ledBit & 1U) != 0;
        const std::string what = slot.name + " was told " + std::to_string(wanted);
        if (slot.ledIsParameter) {
            if (_world.store.integer(slot.ledParameter) != wanted) _world.fail("an LED shows what it was told", what);
        } else if (!_world.life->isFlashing(slot.id)) {
            if (wanted == 2 || lit != (wanted == 1)) _world.fail("an LED shows what it was told", what);
        }
    }
}

void Invariants::daemonEnds(bool orderly) {
    if (orderly && _world.store.integer(kParamProgressStatus) != 0)
        _world.fail("progress that starts ends", "the daemon has ended and left it");
    if (orderly && _world.endpoint.isRunning() && !_world.endpoint.isDefiant())
        _world.fail("no endpoint is left behind", "the daemon has ended, and it runs");
    _access = Access::None;
    _wrongDisk = _staleConfiguration = _toldToEnd = _looked = _firewireSteps = false;
    _formatStands = _formatStood = _formatRunning = false;
    _lastRead.clear();
    _requests.clear();
    _checkedNodes.clear();
}

void Invariants::diagnostics(const std::string& lines) {
    for (const char each : lines) {
        const auto byte = static_cast<unsigned char>(each);
        if (each != '\n' && (byte < ' ' || byte == 0x7f))
            _world.fail("no control character reaches standard error", shown(lines));
    }
}

// ---- When everything has calmed down

bool Invariants::goodCardWaits() const {
    if (_world.store.integer(kParamSelectedSlot) != 0) return false;
    const auto& slots = _world.appliance.slots();
    return std::any_of(slots.begin(), slots.end(),
                       [](const SlotHardware& each) { return each.medium != nullptr && each.medium->isGood(); });
}

bool Invariants::mayWait() {
    bool released = false;
    for (const SlotHardware& each : _world.appliance.slots()) {
        released = released || each.released;
        if (each.medium != nullptr && each.medium->isGood() && _world.appliance.diskIn(each) != nullptr && !each.released)
            return false;
    }
    if (!released) except(Exception::SecondMediumOffTheBus);
    return true;
}

void Invariants::converged() {
    const char* const name = "a good card ends in use";
    const SlotHardware* const slot = selectedSlot();
    if (slot == nullptr) {
        if (goodCardWaits()) _world.fail(name, "nothing is selected");
        return;
    }
    if (slot->medium == nullptr) _world.fail(name, slot->name + " is selected and empty");
    if (_world.store.integer(kParamMediaLoadingStatus) != 0) _world.fail("loading that starts ends", "it is still shown");
    if (_world.appliance.diskIn(*slot) == nullptr && announcementsAreUnreliable()) {
        except(Exception::SelectedWithoutDevice);
        return;
    }
    const bool mounted = _world.appliance.isMounted(*slot->medium);
    if (slot->medium->isGood() || (mounted && mediumInUse() == slot->medium)) {
        checkInUse(*slot);
        return;
    }
    except(Exception::BadMediumKeepsSelection);
    if (!_world.store.text(kParamStoragePath).empty())
        _world.fail("a medium that cannot be used is not published", slot->medium->name());
}

void Invariants::checkInUse(const SlotHardware& slot) {
    const char* const name = "a good card ends in use";
    const Medium& medium = *slot.medium;
    const std::string path = "/mnt/" + slot.name + "/NEVO";
    const Mount* const mount = _world.appliance.mountAt("/mnt/" + slot.name);
    if (mount == nullptr || mount->medium != &medium || mount->readOnly || mount->dead)
        _world.fail(name, medium.name() + " in " + slot.name + " is not mounted for writing");
    if (_world.store.text(kParamStoragePath) != path) _world.fail(name, path + " is not published");
    if (_world.life == nullptr || _world.life->commandedLED(slot.id) != 1)
        _world.fail(name, "the LED of " + slot.name + " is not lit");

    // The clips of the medium, by what their files are called: when they were made, and how long they are.
    using Clips = std::map<std::string, std::pair<std::int32_t, std::uint32_t>>;
    Clips files;
    for (const std::string& file : filesIn(medium.makerDirectory())) {
        const std::string full = path + "/" + file;
        Clip clip{};
        const bool isClip = full.find(".mov") != std::string::npos || full.find(".MOV") != std::string::npos;
        if (isClip && nevo::media::ClipExaminer::GrokClip(clip, medium.makerDirectory() + "/" + file, false))
            files[nevo::media::fieldText(clip.name)] = {clip.time, clip.frames};
    }
    Clips clips;
    if (map(_clips, kClipSegment, kClipMutex, nevo::media::kClipSegmentSize) &&
        std::memcmp(_clips.bytes, nevo::media::kClipMagic, nevo::media::kClipMagicSize) == 0) {
        const auto count = numberAt<std::uint32_t>(_clips.bytes + nevo::media::kClipCountOffset);
        for (std::uint32_t i = 0; i < count && i < nevo::media::kClipCapacity; ++i) {
            const std::uint8_t* const record = _clips.bytes + nevo::media::kClipRecordsOffset + nevo::media::kClipStride * i;
            clips[text(record, sizeof Clip::name)] = {numberAt<std::int32_t>(record + offsetof(Clip, time)),
                                                      numberAt<std::uint32_t>(record + offsetof(Clip, frames))};
        }
    }
    std::string difference;
    for (const auto& [each, facts] : files) {
        const auto listed = clips.find(each);
        if (listed == clips.end())
            difference += " missing \"" + each + "\"";
        else if (listed->second != facts)
            difference += " as it was before \"" + each + "\"";
    }
    for (const auto& [each, facts] : clips) {
        if (files.contains(each)) continue;
        if (medium.renamedAway.contains(each))
            except(Exception::ClipRenamedAway);
        else
            difference += " gone \"" + each + "\"";
    }
    if (!difference.empty()) _world.fail("the clip segment lists the clips on the medium", medium.name() + difference);
}

} // namespace simulation
