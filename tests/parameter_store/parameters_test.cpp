// The parameter table, against the recorder's list of parameters written down a second time.

#include "parameters.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

struct Expected {
    const char* name;
    eParam_t id;
    char type; // I or S
    const char* access;
    bool isCommand;
};

const Expected kExpected[] = {
    {"kParamMediaDaemonStatus", 0x7d07000a, 'I', "W", false},
    {"kParamTransportState", 0x7d01010a, 'I', "RC", false},
    {"kParamSystemState", 0x7d02000a, 'I', "R", false},
    {"kParamSystemCommand", 0x7d02010a, 'I', "RC", true},
    {"kParamMediaCommand", 0x7b01030a, 'I', "RWC", true},
    {"kParamSelectedSlot", 0x7b03040a, 'I', "RW", false},
    {"kParamSlotChangeCommand", 0x7b03000a, 'I', "WC", true},
    {"kParamProgressStatus", 0x7a01000a, 'I', "W", false},
    {"kParamAlarms", 0x7e000000, 'I', "RW", false},
    {"kParamExtendedAlarms", 0x7e050000, 'I', "RW", false},
    {"kParamInvalidMediaAlert", 0x7b01040a, 'I', "W", false},
    {"kParamMediaLoadingStatus", 0x7b03070a, 'I', "W", false},
    {"kParamClipName", 0x7b04000a, 'S', "RW", false},
    {"kParamClipIndex", 0x7b04010a, 'I', "W", false},
    {"kParamNewClipIndex", 0x7b04020a, 'I', "W", false},
    {"kParamReelNumber", 0x1100000a, 'I', "R", false},
    {"kParamVolumeName", 0x7b03060a, 'S', "W", false},
    {"kParamCapacityRemaining", 0x7b03050a, 'I', "RW", false},
    {"kParamStoragePath", 0x7b01010a, 'S', "W", false},
    {"kParamEncodeType", 0x0e01000a, 'I', "R", false},
    {"kParamClipListMode", 0x0f01000a, 'I', "RC", false},
    {"kParamPlaylistName", 0x0f03000a, 'S', "RWC", false},
    {"kParamClipsToDelete", 0x7b01000a, 'S', "C", false},
    {"kParamDeleteClipsStatus", 0x7d01120a, 'S', "W", false},
    {"kParamFirewireAVCPause", 0x7d05000a, 'I', "WC", false},
    {"kParamMediaChangedTime", 0x7d06000a, 'I', "WC", false},
    {"kParamFirewireMode", 0x0c010100, 'I', "WC", true},
    {"kParamSlotRemountCommand", 0x5d020000, 'I', "C", true},
    {"kParamFirewireString3206", 0x32060000, 'S', "R", false},
    {"kParamRecordSetting1102", 0x1102000a, 'I', "C", false},
    {"kParamRecordSetting1103", 0x1103000a, 'I', "C", false},
    {"kParamRecordSetting1104", 0x1104000a, 'I', "C", false},
    {"kParamRecordSetting1105", 0x1105000a, 'I', "C", false},
    {"kParamRecordSetting1107", 0x1107000a, 'I', "C", false},
    {"kParamRecordSetting1108", 0x1108000a, 'I', "C", false},
    {"kParamRecordSetting1301", 0x1301000a, 'I', "RWC", false},
    {"kParamRecordSetting1302", 0x1302000a, 'S', "C", false},
    {"kParamRecordSetting1303", 0x1303000a, 'I', "RWC", false},
    {"kParamRecordSetting1304", 0x1304000a, 'I', "C", false},
    {"kParamRecordSetting1601", 0x1601000a, 'I', "C", false},
    {"kParamRecordSetting2304", 0x23040000, 'I', "RWC", false},
    {"kParamRecordSetting2305", 0x23050000, 'I', "C", false},
    // The take numbering's own; no other part of the recorder knows it.
    {"kParamNextTakeNumber", 0x7b04030a, 'I', "RW", false},
};

} // namespace

TEST(Parameters, tableHoldsEveryParameterAndNoOther) {
    EXPECT_EQ(parameterDescriptors().size(), std::size(kExpected));
    for (const Expected& expected : kExpected) {
        SCOPED_TRACE(expected.name);
        const ParameterDescriptor* byId = findParameter(expected.id);
        ASSERT_NE(byId, nullptr);
        EXPECT_EQ(findParameter(std::string(expected.name)), byId);
        EXPECT_STREQ(byId->name, expected.name);
        EXPECT_EQ(byId->type, expected.type == 'I' ? ParameterType::Integer : ParameterType::String);
        EXPECT_STREQ(byId->access, expected.access);
        EXPECT_EQ(byId->kind == ParameterKind::Command, expected.isCommand);
        EXPECT_STRNE(byId->meaning, "");
    }
}

TEST(Parameters, unknownOnesAreNotFound) {
    EXPECT_EQ(findParameter(eParam_t{0}), nullptr);
    EXPECT_EQ(findParameter(std::string("kParamAlarm")), nullptr);
    EXPECT_EQ(findParameter(std::string()), nullptr);
}
