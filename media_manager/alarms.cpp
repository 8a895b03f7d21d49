// Alarm words, LEDs, capacity and the reel name.

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "media_manager/command_line.h"
#include "media_manager/media_manager.h"
#include "parameters.h"

namespace {

constexpr char kCapacityCommand[] = "df | grep %s | awk '{ print $5 }'";

constexpr std::time_t kCapacityPeriod = 5; // seconds
constexpr unsigned int kCapacityCriticalPercent = 10;
constexpr unsigned int kCapacityLowPercent = 15;

constexpr int kProResHQ = 1; // the encode type that not every medium is fast enough for

} // namespace

eAlarm_t MediaManager::getAlarms() { return static_cast<eAlarm_t>(_config->getInteger(kParamAlarms)); }

eExtendedAlarm_t MediaManager::getExtendedAlarms() {
    return static_cast<eExtendedAlarm_t>(_config->getInteger(kParamExtendedAlarms));
}

void MediaManager::setAlarms(eAlarm_t alarms) { _config->setInteger(kParamAlarms, static_cast<int>(alarms)); }

void MediaManager::setExtendedAlarms(eExtendedAlarm_t alarms) {
    _config->setInteger(kParamExtendedAlarms, static_cast<int>(alarms));
}

void MediaManager::setAlarmBit(eAlarm_t bits) {
    const eAlarm_t before = getAlarms();
    const auto after = static_cast<eAlarm_t>(before | bits);
    if (after != before) setAlarms(after);
}

void MediaManager::clearAlarmBit(eAlarm_t bits) {
    const eAlarm_t before = getAlarms();
    const auto after = static_cast<eAlarm_t>(before & ~static_cast<std::uint32_t>(bits));
    if (after != before) setAlarms(after);
}

void MediaManager::setExtendedAlarmBit(eExtendedAlarm_t bits) {
    const eExtendedAlarm_t before = getExtendedAlarms();
    const auto after = static_cast<eExtendedAlarm_t>(before | bits);
    if (after != before) setExtendedAlarms(after);
}

void MediaManager::clearExtendedAlarmBit(eExtendedAlarm_t bits) {
    const eExtendedAlarm_t before = getExtendedAlarms();
    const auto after = static_cast<eExtendedAlarm_t>(before & ~static_cast<std::uint32_t>(bits));
    if (after != before) setExtendedAlarms(after);
}

void MediaManager::raiseHardwareFailureAlarm() { setAlarmBit(eAlarmHardwareFailure); }

void MediaManager::raiseSoftwareFailureAlarm() { setAlarmBit(eAlarmSoftwareFailure); }

void MediaManager::setCurrentCapacityRemainingAlarm(eAlarm_t bits) { setAlarmBit(bits); }

void MediaManager::clearCurrentCapacityRemainingAlarm(eAlarm_t bits) { clearAlarmBit(bits); }

void MediaManager::raiseStorageRemovedAlarm() { setAlarmBit(eAlarmStorageRemoved); }

void MediaManager::clearStorageRemovedAlarm() { clearAlarmBit(eAlarmStorageRemoved); }

void MediaManager::raiseMediaUnformattedAlarm() { setAlarmBit(eAlarmMediaUnformatted); }

void MediaManager::clearMediaUnformattedAlarm() { clearAlarmBit(eAlarmMediaUnformatted); }

void MediaManager::raiseMediaDamagedAlarm() { setAlarmBit(eAlarmMediaDamaged); }

void MediaManager::clearMediaDamagedAlarm() { clearAlarmBit(eAlarmMediaDamaged); }

void MediaManager::raiseUnsupportedMediaAlert() { setExtendedAlarmBit(eExtendedAlarmUnsupportedMedia); }

void MediaManager::clearUnsupportedMediaAlert() { clearExtendedAlarmBit(eExtendedAlarmUnsupportedMedia); }

void MediaManager::raiseCodecUnsupportedForMediaAlarm() { setExtendedAlarmBit(eExtendedAlarmCodecUnsupportedForMedia); }

void MediaManager::clearCodecUnsupportedForMediaAlarm() {
    clearExtendedAlarmBit(eExtendedAlarmCodecUnsupportedForMedia);
}

void MediaManager::raiseInvalidMediaAlert() { _config->setInteger(kParamInvalidMediaAlert, 1); }

int MediaManager::setLED(eStorageSlot_t slot, eStorageLEDStatus_t status) {
    _lastLEDStatus = status;
    for (SlotLED* led : slotRecord(slot).leds()) {
        switch (status) {
        case eStorageLEDOn:
            led->lightOn();
            break;
        case eStorageLEDFlash:
            led->lightFlash();
            break;
        case eStorageLEDOff:
            led->lightOff();
            break;
        default:
            break;
        }
    }
    return 0;
}

void MediaManager::StalkTransporterAndFlashIfRecording() {
    if (!_mounted) return;
    setLED(_selectedSlot, _transportState == eTransportRecording ? eStorageLEDFlash : eStorageLEDOn);
}

bool MediaManager::checkForStorageRemovedAlarm(eStorageSlot_t slot) {
    if (slot != _selectedSlot) return false;
    raiseStorageRemovedAlarm();
    setSlotChangeError(static_cast<eStorageSlot_t>(eSlotChangeNotUnmounted));
    setLED(slot, eStorageLEDOff);
    // The medium in use is gone and with it the ground under every state: end in an orderly way and be started anew.
    _loopDone = true;
    return true;
}

void MediaManager::checkIfCodecSupportedForMedia() {
    const int encodeType = _config->getInteger(kParamEncodeType);
    if (encodeType == kProResHQ && _selectedSlot != eStorageSlotUnknown &&
        !slotRecord(_selectedSlot).hasCapability("proreshq"))
        raiseCodecUnsupportedForMediaAlarm();
    else
        clearCodecUnsupportedForMediaAlarm();
}

int MediaManager::remainingPercentageOfCapacity(eStorageSlot_t slot) {
    if (slot == eStorageSlotUnknown) return 0;
    std::string output;
    if (runCapturing(fillIn(kCapacityCommand, {_mountPoints[slot]}), output) != 0) return 0;
    const long used = std::strtol(output.c_str(), nullptr, 10);
    // Whatever df printed, the difference is one.
    if (used < -INT_MAX / 2 || used > INT_MAX / 2) return 0;
    return 100 - static_cast<int>(used);
}

void MediaManager::updateCurrentSlotCapacityRemaining(bool force) {
    const std::time_t now = _os.steadyTime();
    if (!force && now <= _lastCapacityTime + kCapacityPeriod) return;
    _lastCapacityTime = now;

    const int before = _config->getInteger(kParamCapacityRemaining);
    const int remaining = remainingPercentageOfCapacity(_selectedSlot);
    // A freshly emptied medium keeps showing 99: the step to 100 would come and go with the first directory entry.
    const bool onlyTheLastStepUp = remaining == 100 && before == 99;
    if (remaining != before && !onlyTheLastStepUp) _config->setInteger(kParamCapacityRemaining, remaining);
    if (_selectedSlot == eStorageSlotUnknown) return;

    // Unsigned: a reading above 100 % used is no reason for an alarm.
    const auto percent = static_cast<unsigned int>(remaining);
    if (percent <= kCapacityCriticalPercent) {
        clearCurrentCapacityRemainingAlarm(eAlarmCapacityLow);
        setCurrentCapacityRemainingAlarm(eAlarmCapacityCritical);
        return;
    }
    clearCurrentCapacityRemainingAlarm(eAlarmCapacityCritical);
    if (percent > kCapacityLowPercent)
        clearCurrentCapacityRemainingAlarm(eAlarmCapacityLow);
    else
        setCurrentCapacityRemainingAlarm(eAlarmCapacityLow);
}

std::string MediaManager::getReelName() {
    int reel = 0;
    _config->getInteger(kParamReelNumber, &reel);
    char text[16];
    std::snprintf(text, sizeof text, "%03d", reel);
    _reelName = text;
    return _reelName;
}
