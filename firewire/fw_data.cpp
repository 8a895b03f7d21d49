#include "firewire/fw_data.h"

#include <cstdio>
#include <stdexcept>

#include "classes/diagnostics/diagnostics.h"
#include "config.h"
#include "daemonizer.h"
#include "file_utils.h"
#include "firewire/fw_data_owner.h"
#include "firewire/nevo_ieee1394_guid.h"
#include "parameters.h"

namespace {

constexpr char kDiskUnavailable[] = "/var/run/endpointdiskunavailable";
constexpr char kDiskNotInUse[] = "/var/run/endpointdisknotinuse";
constexpr char kDiskStop[] = "/var/run/endpointdiskstop";
constexpr mode_t kFlagFileMode = 0644;

constexpr char kEndpoint[] = "endpoint"; // the name of its process
constexpr char kStartEndpoint[] = "/usr/bin/endpoint &";
constexpr char kStopEndpoint[] = "/usr/bin/pkill endpoint";
constexpr char kFindEndpoint[] = "/usr/bin/pgrep endpoint";
constexpr char kResetBus[] = "/usr/local/bin/fwreset.sh 0x%x 0x%x 0x%x";

// The last argument of a bus reset.
constexpr int kResetForRecorder = 1;
constexpr int kResetForEndpoint = 2;

constexpr int kModeStart = 2; // of kParamFirewireMode

// Milliseconds.
constexpr int kAvcPoll = 15;
constexpr int kAvcPolls = 400;
constexpr int kBetweenResets = 1200;
constexpr int kBeforeEndpoint = 1000;
constexpr int kBeforeRestart = 1000;
constexpr int kStopPoll = 200;
constexpr int kStopPolls = 20;
constexpr int kPause = 500;

// Seconds.
constexpr std::time_t kAbsenceAllowed = 12;
constexpr std::time_t kRestartPeriod = 10;

void reportStart(const char* text) { report(std::string("startFirewireAccess") + text); }

} // namespace

FwData::FwData(FwDataOwner* manager, Config* config, FileUtils* shell, OperatingSystem& os)
    : _manager(manager), _config(config), _shell(shell), _os(os) {}

FwData::~FwData() = default;

int FwData::init() {
    _config->setInteger(kParamFirewireAVCPause, _config->getInteger(kParamFirewireMode) == kModeStart ? 1 : 0);
    return 0;
}

void FwData::stopLeftover() {
    // Looked for without a command line: nearly always there is none. Its files do not tell, for while the host uses the
    // disk there are none of them.
    if (!_os.isRunning(kEndpoint)) return;
    report("an endpoint that an earlier daemon has left behind is stopped");
    stopEndpointApp();
    try {
        _shell->executeCommand(busReset(kResetForRecorder));
    } catch (const std::out_of_range&) {
        // Without an identity there is no reset; the disk is the recorder's all the same.
    }
}

void FwData::SetFirewireAVCPaused(bool paused) { _avcPaused = paused; }

void FwData::wait(int milliseconds) { _os.sleepMicroseconds(static_cast<unsigned int>(milliseconds) * 1000U); }

// The address is read anew for every reset: the recorder may learn its own while it runs.
std::string FwData::busReset(int mode) {
    std::string mac;
    _config->getString(kParamFirewireString3206, mac);
    const unsigned int upper = NEVOieee1394guid::getGUIDUpperFromMACAddr(mac);
    const unsigned int lower = NEVOieee1394guid::getGUIDLowerFromMACAddr(mac);
    char line[sizeof kResetBus + 24]; // three numbers of at most eight digits
    std::snprintf(line, sizeof line, kResetBus, upper, lower, static_cast<unsigned int>(mode));
    return line;
}

void FwData::startEndpointApp(bool restart) {
    const std::string reset = busReset(kResetForEndpoint);
    _shell->executeCommand(reset);
    if (!restart) {
        wait(kBetweenResets);
        _shell->executeCommand(reset);
    }
    wait(kBeforeEndpoint);
    _shell->executeCommand(kStartEndpoint);
    _endpointState = EndpointState::Started;
    _endpointStartTime = _os.steadyTime();
}

void FwData::stopEndpointApp() {
    _shell->executeCommand(kStopEndpoint);
    // One look more than there are waits. An endpoint that is still there after them is left to itself.
    for (int waits = 0; _shell->executeCommand(kFindEndpoint) == 0 && waits < kStopPolls; ++waits) wait(kStopPoll);
    _os.createFile(kDiskNotInUse, kFlagFileMode);
}

int FwData::startFirewireAccess(eStorageSlot_t slot) {
    if (_active && !_paused) return 0;
    if (slot == eStorageSlotUnknown) {
        reportStart(": No slot selected.");
        return -1;
    }
    // Taken once: when the recorder lets go of the slot, the disk leaves the bus and with it the name.
    const std::string device = _manager->getDevice(slot);
    if (device.empty()) {
        reportStart(":  WARN: getDevice(_fwdataSlot) = <null>");
        return -1;
    }
    try {
        busReset(kResetForEndpoint); // tried before the slot is taken away
    } catch (const std::out_of_range&) {
        if (_active) throw; // a resume: the slot has been taken long ago
        reportStart(": The MAC address is too short for a FireWire identity.");
        return -1;
    }
    if (_manager->attemptSlotChange(eStorageSlotUnknown) != 0) {
        // A resume is tried on every pass, and says so once.
        if (!_active || !_resumeRefused) reportStart(": The recorder could not let go of the medium.");
        // The medium is back, and an endpoint that waits for its disk would take it now: from there a computer would be cut
        // off by the start that is still to come.
        if (_active && _endpointState == EndpointState::Started) {
            stopEndpointApp();
            _endpointState = EndpointState::Idle;
        }
        _resumeRefused = _active;
        return -1;
    }
    _resumeRefused = false;
    _fwdataSlot = slot;
    _manager->setLED(_fwdataSlot, eStorageLEDOn);
    _paused = false;
    _active = true;
    _awaitingAbsence = false;
    _endpointState = EndpointState::Idle;
    _os.unlink(kDiskUnavailable);
    _shell->executeCommand("cp /etc/endpoint.conf." + device + " /etc/endpoint.conf");
    // An AV/C side that never pauses does not keep the host from its disk.
    for (int polls = 0; polls < kAvcPolls && !_avcPaused; ++polls) wait(kAvcPoll);
    _os.createFile(kDiskNotInUse, kFlagFileMode);
    startEndpointApp(false);
    _manager->setLED(_fwdataSlot, eStorageLEDOff);
    return 0;
}

int FwData::pauseFirewireAccess(int milliseconds) {
    if (_active) {
        _shell->executeCommand(kStopEndpoint);
        wait(milliseconds);
        _shell->executeCommand(busReset(kResetForEndpoint));
        _paused = true;
    }
    _manager->setLED(_fwdataSlot, eStorageLEDOff);
    return 0;
}

int FwData::stopFirewireAccess(bool force) {
    if (!_active) {
        _endpointState = EndpointState::Idle;
        return 0;
    }
    if (!force && (!_os.exists(kDiskNotInUse) || _os.exists(kDiskStop))) return -1;
    stopEndpointApp();
    _active = false;
    _shell->executeCommand(busReset(kResetForRecorder));
    giveSlotBack();
    return 0;
}

void FwData::giveSlotBack() {
    if (_active) stopEndpointApp();
    _active = false;
    _manager->setLED(_fwdataSlot, eStorageLEDOff);
    _manager->attemptSlotChange(_fwdataSlot);
    _endpointState = EndpointState::Idle;
}

void FwData::cleanup() {
    if (_active) stopEndpointApp();
}

unsigned int FwData::checkMessages() {
    if (_manager->shutdownRequested()) {
        Daemonizer::killed = 1;
        return 0;
    }
    if (!_active) return 0;
    unsigned int result = 0;
    if (_paused)
        resume(result);
    else
        watchMedium(result);
    return watchHost() ? 2 : result;
}

void FwData::resume(unsigned int& result) {
    result = _manager->findStorage(false) ? 1 : 0;
    if (!_manager->slotPresent(_fwdataSlot) || _manager->getDevice(_fwdataSlot).empty()) return;
    _manager->setMediaLoading(false);
    _os.unlink(kDiskUnavailable);
    result = static_cast<unsigned int>(startFirewireAccess(_fwdataSlot));
}

void FwData::watchMedium(unsigned int& result) {
    bool gone = _os.exists(kDiskUnavailable);
    if (!gone && _awaitingAbsence) {
        // The slot has to be empty the whole time: the disk leaves the bus and comes back when the endpoint takes it.
        if (_manager->slotPresent(_fwdataSlot) && !_manager->getDevice(_fwdataSlot).empty())
            _awaitingAbsence = false;
        else
            gone = _os.steadyTime() - _absenceStartTime > kAbsenceAllowed;
    } else if (!gone && !_manager->slotPresent(_fwdataSlot)) {
        result = _manager->findStorage(false) ? 1 : 0;
        if (_manager->getDevice(_fwdataSlot).empty()) {
            _absenceStartTime = _os.steadyTime();
            _awaitingAbsence = true;
        }
    }
    if (!gone) return;
    pauseFirewireAccess(kPause);
    _awaitingAbsence = false;
}

// True when the host has just let the disk go.
bool FwData::watchHost() {
    if (!_os.exists(kDiskNotInUse) || _os.exists(kDiskStop)) {
        if (_endpointState != EndpointState::InUse) {
            _manager->setLED(_fwdataSlot, eStorageLEDOn);
            _endpointState = EndpointState::InUse;
        }
        return false;
    }
    if (_endpointState == EndpointState::InUse) {
        _endpointState = EndpointState::Idle;
        _manager->setLED(_fwdataSlot, eStorageLEDOff);
        return true;
    }
    if (_endpointState == EndpointState::Idle) return false;
    // While nobody takes the disk, a fresh endpoint announces it again and again. It looks odd that this goes on while
    // access is paused, with an endpoint that has no disk; what keeps that one from a medium that the recorder may be
    // looking at is that it opens its disk exclusively. Once a resume has been refused, none is started until one is not.
    if (_os.steadyTime() - _endpointStartTime < kRestartPeriod) return false;
    _manager->setLED(_fwdataSlot, eStorageLEDOn);
    stopEndpointApp();
    wait(kBeforeRestart);
    startEndpointApp(true);
    _manager->setLED(_fwdataSlot, eStorageLEDOff);
    return false;
}
