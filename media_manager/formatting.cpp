// Erasing a medium: a fresh partition table and file system, and back into use.

#include "classes/diagnostics/diagnostics.h"
#include "media_manager/command_line.h"
#include "media_manager/media_manager.h"

namespace {

constexpr char kRemoveFirstPartition[] = "/usr/sbin/parted /dev/%s rm 1 >/dev/null 2>&1";
constexpr char kRemoveSecondPartition[] = "/usr/sbin/parted /dev/%s rm 2 >/dev/null 2>&1";
constexpr char kWritePartitionTable[] = "/usr/local/bin/fdisk.gpt /dev/%s  >/dev/null 2>&1"; // two blanks
constexpr char kMakeFileSystem[] = "/usr/local/bin/mkfs.hfsplus /dev/%s2 -v %s >/dev/null 2>&1";

// Irregular on purpose: the D slots were numbered first, and the user interface shows texts by these numbers.
eProgressStatus formattingProgress(eStorageSlot_t slot) {
    switch (slot) {
    case eStorageSlotS1:
        return eProgressFormattingS1;
    case eStorageSlotS2:
        return eProgressFormattingS2;
    case eStorageSlotD1:
        return eProgressFormattingD1;
    case eStorageSlotD2:
        return eProgressFormattingD2;
    default:
        return eProgressNone;
    }
}

} // namespace

bool MediaManager::eraseStorage(eStorageSlot_t slot) {
    clearAlarmBit(eAlarmClearedByErase);
    clearMediaUnformattedAlarm();
    clearMediaDamagedAlarm();
    startProgress(formattingProgress(slot));
    // Consumed before the work starts, so that a failure does not repeat it.
    clearEraseCommand();
    setClip(slot, "N/A", 0);
    if (_mounted) unmountSlot(slot, false, false);

    const std::string device = getDevice(slot);
    // None of these decides: a medium may have one partition or none, and a table that was not written shows up as a
    // file system that cannot be made.
    _shell->executeCommand(fillIn(kRemoveFirstPartition, {device}));
    _shell->executeCommand(fillIn(kRemoveSecondPartition, {device}));
    _shell->executeCommand(fillIn(kWritePartitionTable, {device}));
    if (_shell->executeCommand(fillIn(kMakeFileSystem, {device, getReelName()})) != 0) {
        reportPlain("mkfs.hfsplus failed when formatting " + device + "2\n");
        endProgress();
        return true;
    }
    displayVolumeName(slot);
    mountSlot(slot, true);
    configureDirectories(slot);
    activateSlot(slot);
    endProgress();
    return false;
}
