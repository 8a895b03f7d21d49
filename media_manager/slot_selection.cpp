// Which slot is in use, and what happens to media that come and go.

#include <list>
#include <optional>

#include "clip_finder.h"
#include "daemonizer.h"
#include "media/media_cache.h"
#include "media_manager/cache_failure.h"
#include "media_manager/media_manager.h"
#include "parameters.h"

using boost::interprocess::interprocess_exception;
using nevo::media::kCachePrefix;
using nevo::media::MediaCache;

namespace {

constexpr char kNotAvailable[] = "N/A";

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
        if (slotRecord(slot).isPresent()) return slot;
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
            // The probe answers through a uevent, so the change completes on a later pass.
            probeBus(record);
            clearSlotChangeRequest();
            _selectedSlot = eStorageSlotUnknown;
            return eSlotChangeDone;
        }
        if (!present) return attemptSlotChange(getNextAvailableSlot(slot));
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
    if (mountSlot(slot, true) != 0 || shuttingDown()) return;
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
            // The next take's number must be above every take on the medium under both values of these settings, and the
            // numbering looks at the settings while it runs: hence two rounds, in exactly this order.
            const NumberingSettings before(*_config);
            _config->setInteger(kParamRecordSetting2304, 0);
            _config->setInteger(kParamRecordSetting1301, 0);
            _config->setInteger(kParamRecordSetting1303, 0);
            finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
            _config->setInteger(kParamRecordSetting1301, 1);
            _config->setInteger(kParamRecordSetting1303, 1);
            finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
            if (shuttingDown()) return;
        }
    } catch (const interprocess_exception& failure) {
        reportCacheFailure("activateSlot", failure);
    }
    unmountSlot(slot, false, false);
    _config->setInteger(kParamMediaChangedTime, static_cast<int>(_os.time()));
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
    } catch (const interprocess_exception& failure) {
        reportCacheFailure("deselectSlot", failure);
    }
    _config->setString(kParamPlaylistName, "");
    _config->setInteger(kParamMediaChangedTime, static_cast<int>(_os.time()));

    if (current != eStorageSlotUnknown && !record.isPresent()) setSelectedSlot(eStorageSlotUnknown);

    int result = 0;
    if (isSlotMounted(current)) {
        if (unmountSlot(current, false, false) != 0 && record.isPresent()) result = eSlotChangeNotUnmounted;
        clearCurrentCapacityRemainingAlarm(eAlarmCapacityCritical);
        clearCurrentCapacityRemainingAlarm(eAlarmCapacityLow);
    }
    clearMediaDamagedAlarm();
    clearMediaUnformattedAlarm();
    if (current != eStorageSlotUnknown && record.isPresent()) deleteDeviceFromBus(record);
    setLED(current, eStorageLEDOff);
    return result;
}

bool MediaManager::findStorage(bool) {
    // The kernel dropped announcements: have all of them repeated.
    if (_listener->takeDriverScanRequest()) runUsefulString("driver_scan");

    const bool cfHack = _listener->getCapabilities().contains("cf_hack");
    bool found = false;
    bool anyPresent = false;
    for (const eStorageSlot_t slot : _listener->supportedSlots()) {
        Slot& record = slotRecord(slot);
        const bool wasPresent = record.getLastPresentResult();
        const bool present = record.isPresent();
        const SlotAnnouncement announcement = record.readAnnouncement();
        anyPresent = anyPresent || present;
        if (present && !wasPresent) {
            if (_selectedSlot == eStorageSlotUnknown) setMediaLoading(true);
            if (cfHack) probeBus(record);
        }
        if (!present) {
            // The kernel may tell of a removal before the presence pin does; a selected slot that is neither recognised nor
            // present has lost its medium all the same.
            const bool selected = slot != eStorageSlotUnknown && slot == _selectedSlot;
            if (announcement.recognized || selected) {
                deleteDeviceFromBus(record);
                checkForStorageRemovedAlarm(slot);
            }
            continue;
        }
        if (!announcement.recognized) continue;
        found = true;
        if (!announcement.newlyInserted) continue;
        if (_selectedSlot == eStorageSlotUnknown) {
            attemptSlotChange(slot);
        } else if (_selectedSlot != slot) {
            // A second medium is not kept on the bus while one is in use.
            deleteDeviceFromBus(record);
        } else if (_mounted) {
            // Announced anew while it is in use: either the kernel repeats itself, or the medium was swapped so fast
            // that nobody saw the slot empty, and what is mounted is no longer there.
            record.takeAnnouncement();
            if (!isSlotMounted(slot)) remount(slot);
        }
    }
    const bool nothingToWaitFor = _selectedSlot == eStorageSlotUnknown && !anyPresent;
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
