// Change events of parameters, and the requests that they leave for the loop.

#include "classes/diagnostics/diagnostics.h"
#include "classes/semaphore/semaphore_helper.h"
#include "daemonizer.h"
#include "media_manager/media_manager.h"
#include "parameters.h"

namespace {

constexpr unsigned int kFirewireStart = 2;
constexpr unsigned int kAVCPaused = 1;
constexpr int kSystemShutdown = 8;
constexpr unsigned int kMediaAcquire = 1;
constexpr unsigned int kMediaRelease = 2;
constexpr int kMediaErase = 4;
constexpr int kSlotChangeNext = 6;

bool isIdleTransportState(int state) {
    // A constant, not filled in by init: change events may come before init has ended.
    switch (state) {
    case 0:
    case 1:
    case 15:
    case 19:
    case 20:
        return true;
    default:
        return false;
    }
}

} // namespace

void MediaManager::ParamChanged(eParam_t id, unsigned int value, timeval /*when*/) {
    switch (id) {
    case kParamFirewireMode:
        if (value < kFirewireStart)
            requestStopFirewireAccess();
        else if (value == kFirewireStart)
            requestStartFirewireAccess();
        break;
    case kParamClipListMode:
        _cacheRefreshRequested = true;
        break;
    case kParamSystemCommand:
        if (value == kSystemShutdown) Daemonizer::killed = 1;
        _cacheRefreshRequested = true;
        break;
    case kParamMediaCommand:
        _mediaCommand = static_cast<int>(value);
        if (value == kMediaAcquire)
            acquireStorage();
        else if (value == kMediaRelease)
            releaseStorage();
        // Answered at once, so that the client can post its next command; an erase is answered when it is taken up.
        if (value == kMediaAcquire || value == kMediaRelease) _config->setInteger(kParamMediaCommand, 0);
        break;
    case kParamSlotChangeCommand:
        _slotChangeCommand = static_cast<int>(value);
        break;
    case kParamTransportState:
        _transportState = static_cast<int>(value);
        _transportActive = !isIdleTransportState(static_cast<int>(value));
        break;
    case kParamFirewireAVCPause:
        if (FwData* const fwData = _fwData; fwData != nullptr && value <= kAVCPaused)
            fwData->SetFirewireAVCPaused(value == kAVCPaused);
        break;
    case kParamMediaChangedTime:
        _mediaChangedTime = static_cast<int>(value);
        break;
    case kParamSlotRemountCommand:
        _remountCommand = static_cast<int>(value);
        break;
    case kParamRecordSetting1102:
    case kParamRecordSetting1103:
    case kParamRecordSetting1104:
    case kParamRecordSetting1105:
    case kParamRecordSetting1107:
    case kParamRecordSetting1108:
    case kParamRecordSetting1301:
    case kParamRecordSetting1303:
    case kParamRecordSetting1304:
    case kParamRecordSetting1601:
    case kParamRecordSetting2304:
    case kParamRecordSetting2305:
        markSettingsChanged();
        break;
    default:
        break;
    }
}

void MediaManager::ParamChanged(eParam_t id, std::string value, timeval /*when*/) {
    switch (id) {
    case kParamRecordSetting1302:
        markSettingsChanged();
        // This setting is read as a clip-deletion list as well: the recorder's user interface deletes clips through it.
        [[fallthrough]];
    case kParamClipsToDelete:
        parseClipsToDelete(_clipsToDelete, value);
        _cacheRefreshRequested = true;
        break;
    case kParamPlaylistName:
        _cacheRefreshRequested = true;
        break;
    default:
        break;
    }
}

void MediaManager::markSettingsChanged() {
    const SemaphoreHelper lock(&_semaphore, _os);
    _settingsChanged = true;
}

bool MediaManager::shutdownRequested() {
    return Daemonizer::killed != 0 || _config->getInteger(kParamSystemCommand) == kSystemShutdown;
}

bool MediaManager::slotChangeRequested() { return _slotChangeCommand == kSlotChangeNext; }

// The next two and clearEraseCommand set the member themselves, before the write: its own change event comes later, and
// a loop pass in between must not run the same request again.

void MediaManager::clearSlotChangeRequest() {
    _slotChangeCommand = 0;
    _config->setInteger(kParamSlotChangeCommand, 0);
}

void MediaManager::setSlotChangeError(eStorageSlot_t code) {
    _slotChangeCommand = code;
    _config->setInteger(kParamSlotChangeCommand, code);
}

void MediaManager::startProgress(eProgressStatus status) { _config->setInteger(kParamProgressStatus, status); }

void MediaManager::endProgress() { _config->setInteger(kParamProgressStatus, eProgressNone); }

void MediaManager::setStorageError() {}

bool MediaManager::eraseRequested() { return _mediaCommand == kMediaErase; }

void MediaManager::clearEraseCommand() {
    _mediaCommand = 0;
    _config->setInteger(kParamMediaCommand, 0);
}

bool MediaManager::isMediaLoading() { return _mediaLoading; }

void MediaManager::setMediaLoading(bool loading) {
    if (!loading) _awaitedMedia.clear();
    const int status = loading ? 1 : 0;
    if (status == _lastMediaLoadingStatus) return;
    _config->setInteger(kParamMediaLoadingStatus, status);
    _lastMediaLoadingStatus = status;
    _mediaLoading = loading;
}

void MediaManager::requestStartFirewireAccess() {
    _firewireStartRequested = true;
    _firewireStopRequested = false;
}

void MediaManager::requestStopFirewireAccess() {
    _firewireStopRequested = true;
    _firewireStartRequested = false;
}

bool MediaManager::firewireStartRequested() { return _firewireStartRequested; }

bool MediaManager::firewireStopRequested() { return _firewireStopRequested; }

void MediaManager::acquireStorage() {
    const SemaphoreHelper lock(&_semaphore, _os);
    _newMountRequest = true;
    ++_storageUseCount;
}

void MediaManager::releaseStorage() {
    bool spurious = false;
    {
        const SemaphoreHelper lock(&_semaphore, _os);
        --_storageUseCount;
        if (_storageUseCount < 0) {
            _storageUseCount = 0;
            spurious = true;
        }
    }
    if (spurious) report("spurious release storage message!");
}

bool MediaManager::storageInUse() {
    const SemaphoreHelper lock(&_semaphore, _os);
    return _storageUseCount > 0;
}

bool MediaManager::isNewMountRequest() {
    const SemaphoreHelper lock(&_semaphore, _os);
    return _newMountRequest;
}

void MediaManager::clearNewMountRequest() {
    const SemaphoreHelper lock(&_semaphore, _os);
    _newMountRequest = false;
}

std::string MediaManager::getClip(eStorageSlot_t /*slot*/, std::string clip) {
    _config->getString(kParamClipName, clip);
    return clip;
}

void MediaManager::setClip(eStorageSlot_t /*slot*/, std::string clip, unsigned int index) {
    _config->setString(kParamClipName, std::move(clip));
    _config->setInteger(kParamClipIndex, static_cast<int>(index));
}

std::string MediaManager::getDevice(eStorageSlot_t slot) { return slotRecord(slot).getDevname(); }

bool MediaManager::slotPresent(eStorageSlot_t slot) { return slotRecord(slot).isReady(); }

void MediaManager::LogEvent(inotify_event* /*event*/) {}
