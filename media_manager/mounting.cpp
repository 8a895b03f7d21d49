// Bringing a medium into use and taking it out of use. Every step is a command line of the system image's tools; a long
// check blocks the loop, and that is accepted.

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "classes/diagnostics/diagnostics.h"
#include "media_manager/command_line.h"
#include "media_manager/media_manager.h"
#include "parameters.h"
#include "printable.h"

namespace {

constexpr char kListMounts[] = "/bin/mount | grep %s";
constexpr char kQuickCheck[] = "/usr/local/bin/fsck.hfsplus -q %s 2>&1 | grep FILESYSTEM";
constexpr char kRepair[] = "/usr/local/bin/fsck.hfsplus %s";
constexpr char kProbeVolumeName[] = "/usr/local/bin/volname.hfsplus %s 2>&1";
constexpr char kReadVolumeName[] = "/usr/local/bin/volname.hfsplus %s | awk -F': ' '{printf $2}'";
constexpr char kMakeDirectories[] = "/bin/mkdir -p %s/NEVO/.uploads/";
constexpr char kWriteReadme[] =
    "echo 'This directory contains temporary upload files - DO NOT PUT YOUR FILES INTO THIS FOLDER!!! THEY WILL BE "
    "DELETED!!!' > %s/NEVO/.uploads/README.txt";
constexpr char kMount[] = "/bin/mount -onoatime %s %s 2>&1";
constexpr char kSetScheduler[] = "/bin/echo noop > /sys/block/%s/queue/scheduler";
constexpr char kUnmount[] = "/bin/umount %s %s"; // the option first; without one, two blanks
constexpr char kSync[] = "/bin/sync -f %s";
constexpr char kLink[] = "ln -s %s /var/www/media";
constexpr char kProbeBus[] = "echo 0 0 0 > %s";
constexpr char kDeleteDevice[] = "echo -n 1 > /sys/block/%s/device/delete";

constexpr char kWebLink[] = "/var/www/media";

constexpr std::size_t kOutputSize = 256; // bytes of a command's output that count

// The data partition of every medium is the second.
std::string partitionOf(const std::string& device) { return fillIn("/dev/%s2", {device}); }

} // namespace

std::string MediaManager::partitionNode(eStorageSlot_t slot) { return partitionOf(getDevice(slot)); }

int MediaManager::runCapturing(const std::string& line, std::string& output) {
    char buffer[kOutputSize] = {};
    const int status = _shell->executeCommand(line, buffer, sizeof buffer);
    output = buffer;
    return status;
}

bool MediaManager::isSlotMounted(eStorageSlot_t slot) {
    return _shell->executeCommand(fillIn(kListMounts, {partitionNode(slot)})) == 0;
}

int MediaManager::quickCheck(eStorageSlot_t slot) {
    std::string output;
    const int status = runCapturing(fillIn(kQuickCheck, {partitionNode(slot)}), output);
    return status == 0 && output.find("FILESYSTEM CLEAN") != std::string::npos ? 0 : -1;
}

int MediaManager::fsckSlot(eStorageSlot_t slot) {
    const std::string node = partitionNode(slot);
    const int status = _shell->executeCommand(fillIn(kRepair, {node}));
    if (status != 0) {
        char number[16];
        std::snprintf(number, sizeof number, "0x%X", static_cast<unsigned int>(status));
        reportPlain("MediaManager::fsckSlot: Could not repair " + node + ", result:" + number + "\n");
        raiseInvalidMediaAlert();
    }
    return status;
}

bool MediaManager::isSlotFormatted(eStorageSlot_t slot) {
    std::string output;
    runCapturing(fillIn(kProbeVolumeName, {partitionNode(slot)}), output);
    return output.find("No such device") == std::string::npos;
}

void MediaManager::replaceControlChars(char* text) {
    for (; *text != '\0'; ++text)
        if (std::iscntrl(static_cast<unsigned char>(*text)) != 0) *text = '_';
}

int MediaManager::getVolumeName(eStorageSlot_t slot, std::string& name) {
    std::string output;
    const int status = runCapturing(fillIn(kReadVolumeName, {partitionNode(slot)}), output);
    if (status != 0) return status;
    replaceControlChars(output.data());
    name = output;
    if (name == "untitled" || name.empty()) name = kNotAvailable;
    return 0;
}

int MediaManager::displayVolumeName(eStorageSlot_t slot) {
    std::string name;
    const int status = getVolumeName(slot, name);
    if (status == 0) _config->setString(kParamVolumeName, name);
    return status;
}

bool MediaManager::isForeignLink(const std::string& path) {
    if (!_os.isLink(path)) return false;
    report("refused a symbolic link on the medium: " + path);
    return true;
}

int MediaManager::configureDirectories(eStorageSlot_t slot) {
    const std::string makerDirectory = _mountPoints[slot] + "/NEVO";
    if (isForeignLink(makerDirectory) || isForeignLink(makerDirectory + "/.uploads")) return -1;
    const int status = _shell->executeCommand(fillIn(kMakeDirectories, {_mountPoints[slot]}));
    if (status != 0) return status;
    if (isForeignLink(makerDirectory + "/.uploads/README.txt")) return status;
    if (_shell->executeCommand(fillIn(kWriteReadme, {_mountPoints[slot]})) != 0)
        std::perror("Unable to create .uploads/README.txt");
    return status;
}

std::string MediaManager::getStoragePath(eStorageSlot_t slot) {
    return slot == eStorageSlotUnknown ? std::string() : _mountPoints[slot] + "/NEVO";
}

void MediaManager::setStoragePath(eStorageSlot_t slot) {
    _storagePath = getStoragePath(slot);
    _config->setString(kParamStoragePath, _storagePath);
}

int MediaManager::mountSlot(eStorageSlot_t slot, bool quiet) {
    unmountSlot(slot, true, quiet);
    const std::string& mountPoint = _mountPoints[slot];
    const std::string device = getDevice(slot);
    if (quickCheck(slot) != 0 && fsckSlot(slot) != 0) {
        report("failure repairing slot for " + mountPoint);
        return -1;
    }
    if (getDevice(slot) != device) {
        // Announced anew while it was checked: what would be mounted now is not what was checked.
        report("another device came during the check of " + mountPoint);
        return -1;
    }
    if (!quiet) setLED(slot, eStorageLEDOn);

    const std::string node = partitionOf(device); // what was checked, whatever is announced meanwhile
    std::string output;
    int status = runCapturing(fillIn(kMount, {node, mountPoint}), output);
    if (status != 0) {
        report("mount failed for: " + node + " on " + mountPoint);
        return status;
    }
    // Before anybody looks at what a stranger may have put on it.
    if (_os.guardMount(mountPoint) != 0)
        report("failed to guard the mount on " + mountPoint + ": " + std::strerror(errno));
    status = runCapturing(fillIn(kSetScheduler, {device}), output);
    if (status != 0) {
        // The medium stays mounted without being in use; the next attempt unmounts it first.
        _leftMounted = true;
        report("failed to set IO Scheduler to noop for /dev/" + device);
        return status;
    }
    status = runCapturing(fillIn(kListMounts, {node}), output);
    if (status != 0 || output.find(node) == std::string::npos || output.find("(ro,") != std::string::npos) {
        report("mount failed or read-only mount for: " + node + " on " + mountPoint +
               " output was: " + printable(output, true));
        raiseInvalidMediaAlert();
        // 0 for a medium that the kernel mounted read-only, on purpose: it is left mounted for whoever wants to save
        // its clips, and the alert and the mounted flag say that it is not in use.
        return status;
    }
    const std::string storagePath = getStoragePath(slot);
    if (isForeignLink(storagePath)) {
        // Others record to the path that is published. A format helps, and needs it unmounted.
        raiseInvalidMediaAlert();
        unmountSlot(slot, true, quiet);
        return -1;
    }
    if (!quiet) {
        watchPath(storagePath);
        _os.unlink(kWebLink);
        _os.system(fillIn(kLink, {storagePath}));
        // What happened to its files while it was mounted and nobody watched is in no event.
        if (std::exchange(_leftMounted, false)) _cacheRefreshRequested = true;
    }
    setStoragePath(slot);
    _mounted = true;
    _mountedDevice = device;
    return 0;
}

int MediaManager::unmountSlot(eStorageSlot_t slot, bool lazy, bool quiet) {
    bool ignored = false;
    return unmountSlot(slot, lazy, quiet, ignored);
}

int MediaManager::unmountSlot(eStorageSlot_t slot, bool lazy, bool quiet, bool& staysMounted) {
    staysMounted = false;
    if (slot == eStorageSlotUnknown) return 0;
    if (!quiet) _os.unlink(kWebLink);
    const std::string& mountPoint = _mountPoints[slot];
    std::string output;
    int status = runCapturing(fillIn(kListMounts, {mountPoint}), output);
    if (status != 0) return status;

    status = _shell->executeCommand(fillIn(kUnmount, {lazy ? "-l" : "", mountPoint}));
    // Whatever the outcome: nobody may go on using a medium that somebody wanted to unmount.
    _mounted = false;
    setStoragePath(eStorageSlotUnknown);
    const std::string node = partitionNode(slot);
    if (status != 0) {
        _leftMounted = true;
        staysMounted = true;
        report("unmount failed for: " + node + " on " + mountPoint);
        return status;
    }
    status = runCapturing(fillIn(kListMounts, {node}), output);
    if (status == 0 || output.find(node) != std::string::npos) {
        staysMounted = true;
        report("umount failed or double mount for: " + node + " on " + mountPoint +
               " output was: " + printable(output, true));
        // 0 when the partition is still mounted somewhere, on purpose: for this slot it is unmounted.
        return status;
    }
    if (!quiet) setLED(slot, eStorageLEDOff);
    return 0;
}

void MediaManager::unmountAll() {
    for (const eStorageSlot_t slot : _listener->supportedSlots()) {
        Slot& record = slotRecord(slot);
        if (!record.isReady()) continue;
        // Files that somebody has open, also without having acquired the medium, live on behind a lazy unmount: nothing is
        // written by it then, and the device is deleted next.
        if ((_mounted && slot == _selectedSlot) || _leftMounted) syncMedium(slot);
        unmountSlot(slot, true, false);
        deleteDeviceFromBus(record);
    }
}

void MediaManager::probeBus(Slot slot) {
    if (slot.getName() == "Unknown Slot") return;
    _os.system(fillIn(kProbeBus, {slot.getScanPath()}));
}

void MediaManager::syncMedium(eStorageSlot_t slot) {
    // A dying card may never answer: a line of its own is given up after a minute, a system call is not.
    if (_shell->executeCommand(fillIn(kSync, {_mountPoints[slot]})) != 0)
        report("failed to sync what is mounted on " + _mountPoints[slot]);
}

void MediaManager::deleteDeviceFromBus(Slot slot) {
    bool staysMounted = false;
    unmountSlot(slot.getSlotID(), false, true, staysMounted);
    // With the device goes what has not been written to it yet. A card that was pulled takes nothing any more, and who pulled it
    // is to be told at once.
    if (staysMounted && slot.getLastPresentResult()) syncMedium(slot.getSlotID());
    _os.system(fillIn(kDeleteDevice, {slot.getDevname()}));
}
