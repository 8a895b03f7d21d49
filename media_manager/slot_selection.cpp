// Which slot is in use, and what happens to media that come and go.

#include <list>
#include <optional>
#include <utility>

#include "clip_finder.h"
#include "daemonizer.h"
#include "media/media_cache.h"
#include "media_manager/cache_failure.h"
#include "media_manager/media_manager.h"
#include "parameters.h"

using nevo::media::kCachePrefix;
using nevo::media::MediaCache;

namespace {

// Seconds that the kernel gets to announce a medium whose pin has come.
constexpr std::time_t kAnnouncementAllowed = 3;

// The recording settings that the take numbering toggles, put back in this order when the numbering is left, whether it
// came to its end or not: they are the recorder's, and a recording made with the wrong ones cannot be repaired.
class NumberingSettings {
public:
    explicit NumberingSettings(Config& config)
        : _config(config), _setting1301(config.getInteger(kParamRecordSetting1301)),
          _setting1303(config.getInteger(kParamRecordSetting1303)),
          _setting2304(config.getInteger(kParamRecordSetting2304)) {}
    ~NumberingSettings() {
        _config.setInteger(kParamRecordSetting1301, _setting1301);
        _config.setInteger(kParamRecordSetting1303, _setting1303);
        _config.setInteger(kParamRecordSetting2304, _setting2304);
    }
    NumberingSettings(const NumberingSettings&) = delete;
    NumberingSettings& operator=(const NumberingSettings&) = delete;

private:
    Config& _config;
    const int _setting1301;
    const int _setting1303;
    const int _setting2304;
};

// Takes shutdown into account at every step of an activation.
bool shuttingDown() { return Daemonizer::killed != 0; }

} // namespace

void MediaManager::setSelectedSlot(eStorageSlot_t slot) {
    if (_selectedSlot == eStorageSlotUnknown)
        setClip(eStorageSlotUnknown, kNotAvailable, 0);
    else
        _previousSlot = _selectedSlot;
    _selectedSlot = slot;
    _config->setInteger(kParamSelectedSlot, slot);
}

eStorageSlot_t MediaManager::getNextSlot(eStorageSlot_t mode, eStorageSlot_t slot) {
    // With a medium in use the next slot is none: a slot change releases first, and the next one goes on from there.
    if (mode != eStorageSlotUnknown) return eStorageSlotUnknown;
    const std::map<eStorageSlot_t, eStorageSlot_t> nextSlots = _listener->getNextSlotMap();
    const auto next = nextSlots.find(slot);
    return next == nextSlots.end() ? eStorageSlotUnknown : next->second;
}

eStorageSlot_t MediaManager::getNextAvailableSlot(eStorageSlot_t slot) {
    // A board may chain its slots in a ring that the first slot is not part of.
    std::set<eStorageSlot_t> seen;
    while (slot != eStorageSlotUnknown && seen.insert(slot).second) {
        if (slotRecord(slot).isPresent() && !offeredOverFirewire(slot)) return slot;
        slot = getNextSlot(eStorageSlotUnknown, slot);
    }
    return eStorageSlotUnknown;
}

unsigned int MediaManager::attemptSlotChange(eStorageSlot_t slot) {
    if (slot == _selectedSlot) {
        clearSlotChangeRequest();
        return eSlotChangeDone;
    }
    if (storageInUse()) {
        setSlotChangeError(static_cast<eStorageSlot_t>(eSlotChangeStorageInUse));
        setSelectedSlot(_selectedSlot);
        return eSlotChangeStorageInUse;
    }
    if (slot == eStorageSlotRecheck) {
        markSettingsChanged();
    } else if (slot != eStorageSlotUnknown) {
        Slot& record = slotRecord(slot);
        const SlotAnnouncement announcement = record.takeAnnouncement();
        const bool present = record.isPresent();
        if (!announcement.recognized && present) {
            setMediaLoading(true);
            _awaitedMedia.insert(slot);
            // The probe answers through a uevent, so the change completes on a later pass.
            probeBus(record);
            clearSlotChangeRequest();
            _selectedSlot = eStorageSlotUnknown;
            return eSlotChangeDone;
        }
        if (!present) return attemptSlotChange(getNextAvailableSlot(slot));
        // A medium that is refused here is selected all the same, and may be mounted for use later.
        _notScannedYet = true;
        displayVolumeName(slot);
        if (!isSlotFormatted(slot)) {
            raiseMediaUnformattedAlarm();
            setSlotChangeError(static_cast<eStorageSlot_t>(eSlotChangeUnformatted));
            // Selected on purpose: a format request acts on the selected slot.
            setSelectedSlot(slot);
            return eSlotChangeUnformatted;
        }
        if (mountSlot(slot, true) != 0 && mountSlot(slot, true) != 0) {
            raiseMediaDamagedAlarm();
            _config->setString(kParamVolumeName, kNotAvailable);
            setSlotChangeError(static_cast<eStorageSlot_t>(eSlotChangeDamaged));
            setSelectedSlot(slot);
            return eSlotChangeDamaged;
        }
        activateSlot(slot);
        clearSlotChangeRequest();
        setSelectedSlot(slot);
        return eSlotChangeDone;
    }

    const int result = deselectSlot();
    if (result != 0)
        setSlotChangeError(static_cast<eStorageSlot_t>(result));
    else
        clearSlotChangeRequest();
    setSelectedSlot(eStorageSlotUnknown);
    return static_cast<unsigned int>(result);
}

void MediaManager::activateSlot(eStorageSlot_t slot) {
    // A medium that cannot be mounted now may well be mounted for use on the next pass.
    _notScannedYet = true;
    if (mountSlot(slot, true) != 0 || shuttingDown()) return;
    _notScannedYet = false;
    configureDirectories(slot);
    std::optional<MediaCache> cache; // lives to the end: other processes see the segments throughout
    try {
        cache.emplace(kCachePrefix);
        ClipFinder finder(_config);
        finder.scanMedia(getStoragePath(slot));
        if (shuttingDown()) return;
        std::list<Clip> clips = finder.findClips(true, false, true);
        if (shuttingDown()) return;
        if (!clips.empty()) {
            // The next take's number must be above every take on the medium under both values of these settings, and
            // the numbering looks at the settings while it runs: hence two rounds, in exactly this order.
            const NumberingSettings before(*_config);
            _config->setInteger(kParamRecordSetting2304, 0);
            _config->setInteger(kParamRecordSetting1301, 0);
            _config->setInteger(kParamRecordSetting1303, 0);
            finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
            if (shuttingDown()) return;
            _config->setInteger(kParamRecordSetting1301, 1);
            _config->setInteger(kParamRecordSetting1303, 1);
            finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
            if (shuttingDown()) return;
        }
    } catch (const std::exception& failure) {
        reportCacheFailure("activateSlot", failure);
    }
    unmountSlot(slot, false, false);
    stampMediaChange();
}

int MediaManager::deselectSlot() {
    const eStorageSlot_t current = _selectedSlot;
    Slot& record = slotRecord(current);
    _config->setString(kParamVolumeName, kNotAvailable);
    setClip(current, kNotAvailable, 0);

    std::optional<MediaCache> cache; // lives to the end: other processes see the segments throughout
    try {
        cache.emplace(kCachePrefix);
        ClipFinder(_config).flushAll();
    } catch (const std::exception& failure) {
        reportCacheFailure("deselectSlot", failure);
    }
    _config->setString(kParamPlaylistName, "");
    stampMediaChange();

    if (current != eStorageSlotUnknown && !record.isPresent()) setSelectedSlot(eStorageSlotUnknown);

    int result = 0;
    const bool mounted = isSlotMounted(current);
    // Of a medium that was pulled the kernel has taken the device, and may have put another one in its place; its mount is
    // still there.
    const bool orphaned = !mounted && _mounted && getDevice(current) != _mountedDevice;
    if (mounted || orphaned) {
        if (unmountSlot(current, orphaned, false) != 0 && record.isPresent()) result = eSlotChangeNotUnmounted;
        clearCurrentCapacityRemainingAlarm(eAlarmCapacityCritical);
        clearCurrentCapacityRemainingAlarm(eAlarmCapacityLow);
    }
    clearMediaDamagedAlarm();
    clearMediaUnformattedAlarm();
    if (current != eStorageSlotUnknown && record.isPresent()) {
        const unsigned int announced = record.announcements();
        deleteDeviceFromBus(record);
        // Announced anew while it was in use, it would be taken again before the kernel says that it has gone.
        record.clearNewlyInsertedSince(announced);
        _takenOffTheBus[current] = 0;
    }
    setLED(current, eStorageLEDOff);
    return result;
}

bool MediaManager::isDeviceOfAnotherSlot(eStorageSlot_t slot, const std::string& devname) {
    if (devname.empty()) return false;
    for (const eStorageSlot_t other : _listener->supportedSlots()) {
        if (other == slot) continue;
        const SlotAnnouncement announcement = slotRecord(other).readAnnouncement();
        if (announcement.recognized && announcement.devname == devname) return true;
    }
    return false;
}

bool MediaManager::isAnnouncementOverdue(eStorageSlot_t slot, const SlotAnnouncement& announcement) {
    const auto off = _takenOffTheBus.find(slot);
    if (off == _takenOffTheBus.end() || off->second == 0) return false;
    if (announcement.recognized) {
        _takenOffTheBus.erase(off);
        return false;
    }
    if (_selectedSlot != eStorageSlotUnknown) {
        off->second = 0; // nobody waits for it any more
        return false;
    }
    if (_os.steadyTime() - off->second < kAnnouncementAllowed) return false;
    _takenOffTheBus.erase(off);
    return true;
}

bool MediaManager::findStorage(bool) {
    // The kernel dropped announcements: have all of them repeated.
    if (_listener->takeDriverScanRequest()) runUsefulString("driver_scan");

    const bool cfHack = _listener->hasCapability("cf_hack");
    bool found = false;
    bool anyPresent = false;
    bool awaitedInVain = false;
    for (const auto& [name, each] : _listener->slots()) {
        const eStorageSlot_t slot = each.getSlotID();
        Slot& record = slotRecord(slot);
        const bool wasPresent = record.getLastPresentResult();
        const bool present = record.isPresent();
        // What is announced while a device is being deleted is another one's.
        const unsigned int announced = record.announcements();
        SlotAnnouncement announcement = record.readAnnouncement();
        if (!present && announcement.recognized && isDeviceOfAnotherSlot(slot, announcement.devname)) {
            // Its removal was never announced, and the kernel has given the name to another disk.
            record.retractSince(announced);
            announcement = record.readAnnouncement();
        }
        if (present && offeredOverFirewire(slot)) {
            // The endpoint's, which has the bus announce it when it likes. Taking it would give its file system two
            // owners.
            found = found || announcement.recognized;
            continue;
        }
        anyPresent = anyPresent || present;
        // Whoever else sits in a slot is not what is waited for.
        if (!present && _awaitedMedia.erase(slot) != 0 && _awaitedMedia.empty()) awaitedInVain = true;
        if (present && !wasPresent) {
            if (_selectedSlot == eStorageSlotUnknown) {
                setMediaLoading(true);
                _awaitedMedia.insert(slot);
                if (const auto off = _takenOffTheBus.find(slot); off != _takenOffTheBus.end()) off->second = _os.steadyTime();
            }
            if (cfHack) probeBus(record);
        }
        if (present && isAnnouncementOverdue(slot, announcement) && !cfHack) probeBus(record);
        // Its pin was late; what the kernel had found by then is off the bus again.
        if (present && _probeWhenPresent.erase(slot) != 0 && !cfHack && !announcement.recognized) probeBus(record);
        if (!present) {
            // The kernel may tell of a removal before the presence pin does; a selected slot that is neither recognised
            // nor present has lost its medium all the same.
            const bool selected = slot != eStorageSlotUnknown && slot == _selectedSlot;
            if (announcement.recognized || selected) {
                if (announcement.newlyInserted && !selected) _probeWhenPresent.insert(slot);
                deleteDeviceFromBus(record);
                // The kernel may never tell, and may give the name to another slot's disk: once is enough.
                record.retractSince(announced);
                checkForStorageRemovedAlarm(slot);
            }
            continue;
        }
        if (!announcement.recognized) continue;
        found = true;
        if (slot == _selectedSlot && _mounted && _notScannedYet && !storageInUse()) {
            // It may have been refused, and that shows.
            displayVolumeName(slot);
            clearMediaDamagedAlarm();
            clearMediaUnformattedAlarm();
            activateSlot(slot);
        }
        if (!announcement.newlyInserted) continue;
        if (_selectedSlot == eStorageSlotUnknown) {
            attemptSlotChange(slot);
        } else if (_selectedSlot != slot && isAwaitedOverFirewire(slot)) {
            // It goes back to the endpoint, which the one in use is let go of for.
            continue;
        } else if (_selectedSlot != slot) {
            // A second medium is not kept on the bus while one is in use.
            deleteDeviceFromBus(record);
            record.retractSince(announced); // once is enough, as above
            _takenOffTheBus[slot] = 0;
        } else if (_mounted && !storageInUse()) {
            // Announced anew while it is in use: either the kernel repeats itself, or the medium was swapped so fast
            // that nobody saw the slot empty, and what is mounted is no longer there. Somebody who has acquired the
            // storage has to release it first; the mark stands until then.
            // Swapped between its scan and its mount for use, it is mounted all the same, and was never scanned.
            const bool swapped = record.hasGone();
            record.takeAnnouncement();
            if (swapped || !isSlotMounted(slot)) remount(slot);
        }
    }
    const bool nothingToWaitFor = _selectedSlot == eStorageSlotUnknown && (!anyPresent || awaitedInVain);
    if (isMediaLoading() && (_selectedSlot != eStorageSlotUnknown || nothingToWaitFor)) setMediaLoading(false);
    return found;
}

void MediaManager::ServiceMountRequests() {
    if (!slotRecord(_selectedSlot).isPresent()) return;
    if (!_mounted) {
        mountSlot(_selectedSlot, false);
        return;
    }
    if (isNewMountRequest()) setStoragePath(_selectedSlot);
}
