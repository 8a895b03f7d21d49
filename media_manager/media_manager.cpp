#include "media_manager/media_manager.h"

#include <cstring>

#include "classes/diagnostics/diagnostics.h"
#include "classes/semaphore/semaphore_helper.h"
#include "clip_finder.h"
#include "daemonizer.h"
#include "media/media_cache.h"
#include "media_manager/cache_failure.h"
#include "parameters.h"
#include "shared_segment.h"

namespace {

constexpr int kStatusInitialising = 1;
constexpr int kStatusRunning = 3;
constexpr int kStatusCleaningUp = 5;
constexpr int kStatusCleanedUp = 6;

constexpr long kLoopPeriod = 250'000'000;                        // nanoseconds, when threaded
constexpr unsigned int kUnthreadedLoopPeriod = 1;                // seconds
constexpr int kCapacityPeriodWhileTransportActive = 2'000'000'000; // nanoseconds, reached on every ninth pass
constexpr unsigned int kDriverRetryPeriod = 250'000;             // microseconds

// 777 in decimal, octal 1411, on purpose: it is what the recorder's other programs have always found there.
constexpr mode_t kMountPointMode = 777;

constexpr unsigned int kCfHackRegister = 8005;
constexpr unsigned int kCfHackMask = 0x900;

constexpr int kRemountRequested = 2;

} // namespace

std::atomic<MediaManager*> MediaManager::_pMediaManager{nullptr};

MediaManager::MediaManager(SlotListener* listener, Card* card, Config* config, ConfigEventChannel* eventChannel,
                           FileUtils* shell, OperatingSystem& os)
    : _listener(listener), _card(card), _config(config), _eventChannel(eventChannel), _shell(shell), _os(os),
      _semaphore{} {
    _pMediaManager = this;
}

MediaManager::~MediaManager() = default;

int MediaManager::runUsefulString(const char* key) {
    return _shell->executeCommand(_listener->getUsefulString(key));
}

void MediaManager::clearLeftovers() {
    std::string path;
    _config->getString(kParamStoragePath, path);
    if (!path.empty()) setStoragePath(eStorageSlotUnknown);
    if (_config->getInteger(kParamProgressStatus) != eProgressNone) endProgress();
    if (_config->getInteger(kParamMediaLoadingStatus) != 0) setMediaLoading(false);
    // Of a medium that was pulled: what is in a slot now is looked at anew.
    clearMediaDamagedAlarm();
    clearMediaUnformattedAlarm();
    std::string name;
    _config->getString(kParamVolumeName, name);
    if (!name.empty() && name != kNotAvailable) _config->setString(kParamVolumeName, kNotAvailable);
    // Nothing is in use, and a daemon that was killed may have left an index half written. What was never made is not made
    // here.
    if (nevo::media::readClips(nevo::media::kCachePrefix, 0).state == nevo::media::SegmentState::Absent) return;
    try {
        const nevo::media::MediaCache cache(nevo::media::kCachePrefix);
        ClipFinder(_config).flushAll();
        stampMediaChange();
    } catch (const std::exception& failure) {
        reportCacheFailure("clearLeftovers", failure);
    }
}

int MediaManager::init() {
    _config->setInteger(kParamMediaDaemonStatus, kStatusInitialising);
    setup_inotify();
    SemaphoreHelper::Init(&_semaphore, _os);
    // From here on change events may arrive.
    _eventChannel->addListener(this);

    _transportState = _config->getInteger(kParamTransportState);
    // Not needed, and read all the same: a start asks the store's host for these, in this order.
    _config->getInteger(kParamSystemState);
    _config->getInteger(kParamSystemCommand);
    _config->getInteger(kParamMediaCommand);
    const auto preferredSlot = static_cast<eStorageSlot_t>(_config->getInteger(kParamSelectedSlot));

    _selectedSlot = eStorageSlotUnknown;
    _loopDone = false;
    // Whatever the state just read, and whatever an event has said since: the next one tells, and until then a medium can be
    // taken into use.
    _transportActive = false;
    setSelectedSlot(eStorageSlotUnknown);

    const std::set<std::string> capabilities = _listener->getCapabilities();
    if (capabilities.contains("cf_hack")) _card->WriteRegister(kCfHackRegister, 0, kCfHackMask, 0);

    // Without its driver the recorder is of no use, so there is no limit on the number of tries.
    if (runUsefulString("driver_scan") != 0) {
        runUsefulString("driver_load");
        _os.sleepMicroseconds(kDriverRetryPeriod);
        while (runUsefulString("driver_scan") != 0) _os.sleepMicroseconds(kDriverRetryPeriod);
    }
    if (capabilities.contains("cf_hack")) runUsefulString("cf_hack_enable");
    if (capabilities.contains("firewire_data")) setUpFirewireAccess();

    for (const eStorageSlot_t slot : _listener->supportedSlots()) {
        const std::string mountPoint = "/mnt/" + slotRecord(slot).getName();
        _os.makeDirectory(mountPoint, kMountPointMode);
        _mountPoints[slot] = mountPoint;
        // Both: a new LED has no state yet, and the pair brings every kind into a known one.
        setLED(slot, eStorageLEDOn);
        setLED(slot, eStorageLEDOff);
        _takenOffTheBus[slot] = 0; // by the daemon before this one, which may have ended because of a pin that bounced
    }

    if (preferredSlot == eStorageSlotUnknown) {
        std::map<eStorageSlot_t, eStorageSlot_t> nextSlots = _listener->getNextSlotMap();
        attemptSlotChange(nextSlots[eStorageSlotUnknown]);
    } else {
        attemptSlotChange(preferredSlot);
    }
    return 0;
}

void MediaManager::run(bool threaded) {
    _threaded = threaded;
    if (!threaded) {
        loop();
        return;
    }
    report("starting MediaManager");
    pthread_t thread;
    int code = _os.startThread(OperatingSystem::ThreadKind::Joinable, RunCommandThread, this, thread);
    if (code != 0) {
        report(std::string("pthread_create failed with: ") + std::strerror(code));
        return;
    }
    code = _os.joinThread(thread);
    if (code != 0) report(std::string("pthread_join failed with: ") + std::strerror(code));
}

void* MediaManager::RunCommandThread(void* manager) {
    static_cast<MediaManager*>(manager)->loop();
    return nullptr;
}

void MediaManager::loop() {
    _config->setInteger(kParamMediaDaemonStatus, kStatusRunning);
    _capacityCounter = 0;
    while (pass()) {
    }
}

bool MediaManager::pass() {
    if (Daemonizer::killed != 0) return false;
    if (_threaded)
        _os.sleep(_sleeper, kLoopPeriod);
    else
        _os.sleepSeconds(kUnthreadedLoopPeriod);
    checkMediaEvents();
    if (_transportActive) {
        // A recorder that plays or records is left in peace: no command is handled.
        StalkTransporterAndFlashIfRecording();
        if (_capacityCounter < kCapacityPeriodWhileTransportActive) {
            _capacityCounter += static_cast<int>(kLoopPeriod);
        } else {
            updateCurrentSlotCapacityRemaining(false);
            _capacityCounter = 0;
        }
        return true;
    }
    // While access is paused the recorder uses another medium, which can be pulled as well.
    if (serviceFirewireAccess()) return !_loopDone;
    checkMessages();
    return !_loopDone;
}

int MediaManager::checkMessages() {
    if (shutdownRequested()) {
        Daemonizer::killed = 1;
        return 0;
    }
    if (_remountCommand == kRemountRequested) {
        const auto slot = static_cast<eStorageSlot_t>(_config->getInteger(kParamSelectedSlot));
        if (slot != eStorageSlotUnknown) remount(slot);
        _remountCommand = 0;
        return 0;
    }
    if (!isMediaLoading()) {
        bool settingsChanged;
        {
            const SemaphoreHelper lock(&_semaphore, _os);
            settingsChanged = _settingsChanged;
        }
        if (settingsChanged) {
            clearAlarmBit(eAlarmClearedByNewSettings);
            const SemaphoreHelper lock(&_semaphore, _os);
            _settingsChanged = false;
        }
        if (_selectedSlot != eStorageSlotUnknown) {
            ServiceMountRequests();
            StalkTransporterAndFlashIfRecording();
        }
        clearNewMountRequest();
        if (eraseRequested()) return eraseStorage(_selectedSlot);
        std::set<std::string> clips = getClipsToDelete();
        if (!clips.empty()) return deleteClips(clips);
        if (slotChangeRequested())
            return static_cast<int>(attemptSlotChange(getNextSlot(_selectedSlot, _previousSlot)));
        checkIfCodecSupportedForMedia();
        updateCurrentSlotCapacityRemaining(false);
        checkMediaUpdated();
    }
    return startRequestedFirewireAccess(findStorage(true) ? 1 : 0);
}

unsigned int MediaManager::remount(eStorageSlot_t slot) {
    attemptSlotChange(eStorageSlotUnknown);
    _os.sleepSeconds(1);
    const unsigned int result = attemptSlotChange(slot);
    // A pin that bounced in this very moment, or somebody who acquired the storage in it: the medium is there, and its
    // device was taken off the bus above.
    if (_selectedSlot != slot && (result == eSlotChangeStorageInUse || !slotRecord(slot).getLastPresentResult()))
        _probeWhenPresent.insert(slot);
    return result;
}

void MediaManager::cleanup() {
    if (_cleanedUp) return;
    _cleanedUp = true;
    _config->setInteger(kParamMediaDaemonStatus, kStatusCleaningUp);
    if (FwData* const fwData = _fwData) fwData->cleanup();
    _pMediaManager = nullptr;
    unmountAll();
    teardown_inotify();
    _config->setInteger(kParamMediaDaemonStatus, kStatusCleanedUp);
}
