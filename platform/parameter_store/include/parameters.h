#ifndef MEDIAD_PLATFORM_PARAMETERS_H
#define MEDIAD_PLATFORM_PARAMETERS_H

// Every parameter that the storage manager touches: the one table from which the identifiers, the store's
// descriptors and mediactl's names are made. Identifiers that are not here (the LED parameters of a board) are
// accepted by the store as well and take the type of their first write.
//
// Columns: name, identifier, type (Integer or String), kind, access, meaning of the values.
// Access is the storage manager's own: R it reads the value, W it writes it, C it acts on a change. (What it takes back at a
// start, of a daemon that was killed, is not counted.)
// Kind: State survives a restart of the process that hosts the store; Command is 0 again after one, so that an old
// request does not fire twice.

#include <span>

#include "config_events.h"

// clang-format off
#define MEDIAD_PARAMETERS(X) \
    X(kParamMediaDaemonStatus,   0x7d07000a, Integer, State,   "W",   "1 initialising, 3 running, 5 cleaning up, 6 cleaned up") \
    X(kParamTransportState,      0x7d01010a, Integer, State,   "RC",  "recorder transport; 0, 1, 15, 19 and 20 are idle, 2 records") \
    X(kParamSystemState,         0x7d02000a, Integer, State,   "R",   "system state") \
    X(kParamSystemCommand,       0x7d02010a, Integer, Command, "RC",  "8 shuts the media daemon down") \
    X(kParamMediaCommand,        0x7b01030a, Integer, Command, "RWC", "1 acquire the storage, 2 release it, 4 erase the selected medium") \
    X(kParamSelectedSlot,        0x7b03040a, Integer, State,   "RW",  "0 none, 1 S1, 2 S2, 3 D1, 4 D2") \
    X(kParamSlotChangeCommand,   0x7b03000a, Integer, Command, "WC",  "6 asks for the next slot; answers: 0 done, 10 unformatted, 11 damaged, 14 could not unmount or removed, 15 in use") \
    X(kParamProgressStatus,      0x7a01000a, Integer, State,   "W",   "0 nothing long is running, else what is") \
    X(kParamAlarms,              0x7e000000, Integer, State,   "RW",  "alarm bits") \
    X(kParamExtendedAlarms,      0x7e050000, Integer, State,   "RW",  "extended alarm bits") \
    X(kParamInvalidMediaAlert,   0x7b01040a, Integer, State,   "W",   "1 when a check found the medium invalid") \
    X(kParamMediaLoadingStatus,  0x7b03070a, Integer, State,   "W",   "1 while a medium is being loaded") \
    X(kParamClipName,            0x7b04000a, String,  State,   "RW",  "current clip") \
    X(kParamClipIndex,           0x7b04010a, Integer, State,   "W",   "number written with the current clip") \
    X(kParamNewClipIndex,        0x7b04020a, Integer, State,   "W",   "index of the clip that was added last") \
    X(kParamReelNumber,          0x1100000a, Integer, State,   "R",   "reel number; three digits of it name a formatted medium") \
    X(kParamVolumeName,          0x7b03060a, String,  State,   "W",   "volume name of the selected medium") \
    X(kParamCapacityRemaining,   0x7b03050a, Integer, State,   "RW",  "remaining capacity of the selected medium in percent") \
    X(kParamStoragePath,         0x7b01010a, String,  State,   "W",   "directory of the medium in use, empty when none is") \
    X(kParamEncodeType,          0x0e01000a, Integer, State,   "R",   "1 apch, 2 apcn, 3 apcs, 4 apco, 5 ap4h, 6 AVdn") \
    X(kParamClipListMode,        0x0f01000a, Integer, State,   "RC",  "2 takes clips from the selected playlist") \
    X(kParamPlaylistName,        0x0f03000a, String,  State,   "RWC", "selected playlist") \
    X(kParamClipsToDelete,       0x7b01000a, String,  State,   "C",   "clip file names to delete, separated by |; the name * is all of them") \
    X(kParamDeleteClipsStatus,   0x7d01120a, String,  State,   "W",   "clip that is current after a deletion") \
    X(kParamFirewireAVCPause,    0x7d05000a, Integer, State,   "WC",  "1 pauses FireWire AV/C, 0 resumes it") \
    X(kParamMediaChangedTime,    0x7d06000a, Integer, State,   "WC",  "time of the last media change, seconds since the epoch") \
    X(kParamFirewireMode,        0x0c010100, Integer, Command, "WC",  "2 starts FireWire disk access, 0 and 1 stop it") \
    X(kParamSlotRemountCommand,  0x5d020000, Integer, Command, "C",   "2 activates the selected slot again") \
    X(kParamFirewireString3206,  0x32060000, String,  State,   "R",   "network MAC address, the root of the FireWire identity") \
    X(kParamRecordSetting1102,   0x1102000a, Integer, State,   "C",   "recording setting") \
    X(kParamRecordSetting1103,   0x1103000a, Integer, State,   "C",   "recording setting") \
    X(kParamRecordSetting1104,   0x1104000a, Integer, State,   "C",   "recording setting") \
    X(kParamRecordSetting1105,   0x1105000a, Integer, State,   "C",   "recording setting") \
    X(kParamRecordSetting1107,   0x1107000a, Integer, State,   "C",   "recording setting") \
    X(kParamRecordSetting1108,   0x1108000a, Integer, State,   "C",   "recording setting") \
    X(kParamRecordSetting1301,   0x1301000a, Integer, State,   "RWC", "recording setting; the take numbering toggles it") \
    X(kParamRecordSetting1302,   0x1302000a, String,  State,   "C",   "recording setting; read as a clip-deletion list as well") \
    X(kParamRecordSetting1303,   0x1303000a, Integer, State,   "RWC", "recording setting; the take numbering toggles it") \
    X(kParamRecordSetting1304,   0x1304000a, Integer, State,   "C",   "recording setting") \
    X(kParamRecordSetting1601,   0x1601000a, Integer, State,   "C",   "recording setting") \
    X(kParamRecordSetting2304,   0x23040000, Integer, State,   "RWC", "recording setting; the take numbering toggles it") \
    X(kParamRecordSetting2305,   0x23050000, Integer, State,   "C",   "recording setting") \
    X(kParamNextTakeNumber,      0x7b04030a, Integer, State,   "RW",  "number of the next take that will be recorded")
// clang-format on

#define MEDIAD_PARAMETER_CONSTANT(name, id, type, kind, access, meaning) inline constexpr eParam_t name = id;
MEDIAD_PARAMETERS(MEDIAD_PARAMETER_CONSTANT)
#undef MEDIAD_PARAMETER_CONSTANT

enum class ParameterType : std::uint32_t { Integer = 0, String = 1 };
enum class ParameterKind : std::uint32_t { State = 0, Command = 1 };

struct ParameterDescriptor {
    const char* name;
    eParam_t id;
    ParameterType type;
    ParameterKind kind;
    const char* access; // any of R, W and C, in that order
    const char* meaning;
};

// The whole table, in the order above. Any thread; constant data.
std::span<const ParameterDescriptor> parameterDescriptors();

// The descriptor of one identifier or name, or null. Any thread.
const ParameterDescriptor* findParameter(eParam_t id);
const ParameterDescriptor* findParameter(const std::string& name);

#endif
