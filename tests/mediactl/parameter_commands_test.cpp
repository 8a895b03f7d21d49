// get, set, watch and list.

#include <signal.h>

#include <sstream>

#include "recorder.h"

namespace {

struct Parameters : Recorder {
    void SetUp() override { serve(); }

    static void set(const std::string& parameter, const std::string& value) {
        const Result result = mediactl({"set", "--", parameter, value});
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(result.output + result.errors, "");
    }
};

TEST_F(Parameters, comeBareOneALineInTheOrderAskedFor) {
    set("kParamVolumeName", "CARD A");
    set("kParamCapacityRemaining", "87");
    const Result result =
        mediactl({"get", "kParamCapacityRemaining", "kParamVolumeName", "kParamAlarms", "kParamStoragePath"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "87\nCARD A\n0\n\n");
    EXPECT_EQ(result.errors, "");
}

TEST_F(Parameters, areNamedOrNumbered) {
    set("0x7b03060a", "by identifier");
    EXPECT_EQ(value("kParamVolumeName"), "by identifier");
    set("2063795722", "by decimal identifier"); // 0x7b03060a
    EXPECT_EQ(value("0x7B03060A"), "by decimal identifier");
}

struct IntegerRow {
    const char* input;
    const char* output;
};
std::ostream& operator<<(std::ostream& out, const IntegerRow& row) { return out << row.input; }
struct Integers : Parameters, testing::WithParamInterface<IntegerRow> {};

TEST_P(Integers, areSignedDecimalInOutput) {
    set("kParamAlarms", GetParam().input);
    EXPECT_EQ(value("kParamAlarms"), GetParam().output);
}

INSTANTIATE_TEST_SUITE_P(Rows, Integers,
                         testing::Values(IntegerRow{"0", "0"}, IntegerRow{"-1", "-1"}, IntegerRow{"0xffffffff", "-1"},
                                         IntegerRow{"0XFF", "255"}, IntegerRow{"0x80000000", "-2147483648"},
                                         IntegerRow{"2147483647", "2147483647"},
                                         IntegerRow{"-2147483648", "-2147483648"}, IntegerRow{"0x0", "0"},
                                         IntegerRow{"007", "7"}));

TEST_F(Parameters, anyIdentifierTakesTheTypeOfItsFirstWrite) {
    expectFailure(mediactl({"get", "0x5c000001"}), 1, "0x5c000001");
    set("0x5c000001", "2");
    set("0x5c000002", "two");
    EXPECT_EQ(value("0x5c000001"), "2");
    EXPECT_EQ(value("0x5c000002"), "two");

    expectFailure(mediactl({"set", "0x5c000001", "three"}), 2, "no 32-bit integer");
    EXPECT_EQ(value("0x5c000001"), "2");
    set("0x5c000002", "3");
    EXPECT_EQ(value("0x5c000002"), "3");
}

TEST_F(Parameters, nothingIsPrintedUnlessEverythingIsThere) {
    expectFailure(mediactl({"get", "kParamAlarms", "0x5c000003"}), 1, "0x5c000003");
}

TEST_F(Parameters, aValueThatTheStoreDoesNotAcceptIsRefused) {
    set("kParamVolumeName", "before");
    expectFailure(mediactl({"set", "kParamVolumeName", std::string(65537, 'a')}), 1, "does not accept");
    EXPECT_EQ(value("kParamVolumeName"), "before");
}

TEST_F(Parameters, onlyTheGroupOfWritersMayWrite) {
    const Result reading = mediactlAsNobody({"get", "kParamAlarms"});
    if (reading.errors.starts_with("setpriv")) GTEST_SKIP() << reading.errors;
    EXPECT_EQ(reading.status, 0) << reading.errors;
    EXPECT_EQ(reading.output, "0\n");
    expectFailure(mediactlAsNobody({"set", "kParamAlarms", "1"}), 1, "not permitted");
    expectFailure(mediactlAsNobody({"acquire"}), 1, "not permitted");
    EXPECT_EQ(value("kParamAlarms"), "0");
}

struct Texts : Parameters, testing::WithParamInterface<std::string> {};

TEST_P(Texts, passTheCommandLineUnchanged) {
    set("kParamVolumeName", GetParam());
    const Result result = mediactl({"get", "kParamVolumeName"});
    EXPECT_EQ(result.output, GetParam() + "\n");
}

INSTANTIATE_TEST_SUITE_P(Rows, Texts,
                         testing::Values("", " ", "[a,b]", "\"quoted\"", "'", "{}", "a=b", "--", "-x", "--help", "++",
                                         "watch", "list", "back\\slash", "%s%n",
                                         "Stra\xc3\x9f"
                                         "e",
                                         "\xf0\x9f\x8e\xa5", "a|b|c"));

struct EscapeRow {
    const char* text;
    const char* shown;
};
std::ostream& operator<<(std::ostream& out, const EscapeRow& row) { return out << row.shown; }
struct Escapes : Parameters, testing::WithParamInterface<EscapeRow> {};

TEST_P(Escapes, keepATerminalFromObeyingAText) {
    set("kParamVolumeName", GetParam().text);
    EXPECT_EQ(mediactl({"get", "kParamVolumeName"}).output, std::string(GetParam().shown) + "\n");
}

INSTANTIATE_TEST_SUITE_P(Rows, Escapes,
                         testing::Values(EscapeRow{"a\nb", "a\\nb"}, EscapeRow{"a\tb", "a\\tb"},
                                         EscapeRow{"\x1b[2J", "\\x1b[2J"},
                                         EscapeRow{"\r\b\x7f\x01", "\\x0d\\x08\\x7f\\x01"},
                                         EscapeRow{"\xc2\x9b"
                                                   "2J",
                                                   "\\u{9b}2J"},
                                         EscapeRow{"\x9b"
                                                   "2J",
                                                   "\\x9b2J"},
                                         EscapeRow{"\xff\xfe", "\\xff\\xfe"}, EscapeRow{"\xc0\x80", "\\xc0\\x80"},
                                         EscapeRow{"\xed\xa0\x80", "\\xed\\xa0\\x80"},
                                         EscapeRow{"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
                                         EscapeRow{"\xe2\x80", "\\xe2\\x80"}, EscapeRow{"\xe2\x80\xae", "\\u{202e}"},
                                         EscapeRow{"\xe2\x81\xa6", "\\u{2066}"}));

// The watch as a running program. What happens before it is connected does not reach it, so every test first knocks.
struct Watch : Parameters {
    // Writes a parameter of its own until the watch tells of it.
    static void knock(Program& watch) {
        for (int i = 0; watch.output().find("0x5c0000ff - ") == std::string::npos; ++i) {
            ASSERT_LT(i, 1000) << watch.errors();
            set("0x5c0000ff", std::to_string(i));
            watch.readWhatIsThere();
        }
    }
};

TEST_F(Watch, printsALineForEveryChange) {
    Program watch(commandLine(MEDIACTL, {"watch"}));
    knock(watch);
    set("kParamMediaDaemonStatus", "3");
    EXPECT_TRUE(watch.waitForOutput("\n0x7d07000a kParamMediaDaemonStatus 3\n")) << watch.output();
    set("kParamMediaDaemonStatus", "3");
    EXPECT_TRUE(watch.waitForOutput("0x7d07000a kParamMediaDaemonStatus 3\n")) << "the same value is a change as well";
    set("kParamAlarms", "0x80000000");
    EXPECT_TRUE(watch.waitForOutput("0x7e000000 kParamAlarms -2147483648\n"));
    set("kParamClipName", "Take\x1b[2J 7\n");
    EXPECT_TRUE(watch.waitForOutput("0x7b04000a kParamClipName Take\\x1b[2J 7\\n\n"));
    set("0x5c000001", "1");
    EXPECT_TRUE(watch.waitForOutput("0x5c000001 - 1\n"));
    EXPECT_EQ(watch.errors(), "");
}

TEST_F(Watch, tellsOnlyOfWhatItWasAskedFor) {
    Program watch(commandLine(MEDIACTL, {"watch", "kParamVolumeName", "0x7e000000", "0x5c0000ff"}));
    knock(watch);
    set("kParamCapacityRemaining", "1");
    set("kParamAlarms", "2");
    set("kParamVolumeName", "last");
    ASSERT_TRUE(watch.waitForOutput("0x7b03060a kParamVolumeName last\n"));
    EXPECT_EQ(watch.output().find("kParamCapacityRemaining"), std::string::npos);
    EXPECT_NE(watch.output().find("0x7e000000 kParamAlarms 2\n"), std::string::npos);
}

TEST_F(Watch, connectsAgainWhenTheStoreComesBack) {
    Program watch(commandLine(MEDIACTL, {"watch"}));
    knock(watch);
    killHost();
    EXPECT_TRUE(
        watch.waitForErrors("mediactl: nobody serves the parameter store any more; trying again every second\n"));
    serve();
    EXPECT_TRUE(watch.waitForErrors("mediactl: the parameter store is served again\n"));
    set("kParamAlarms", "7");
    EXPECT_TRUE(watch.waitForOutput("0x7e000000 kParamAlarms 7\n"));

    killHost();
    EXPECT_TRUE(
        watch.waitForErrors("mediactl: nobody serves the parameter store any more; trying again every second\n"));
    serve();
    EXPECT_TRUE(watch.waitForErrors("mediactl: the parameter store is served again\n"));
    set("kParamAlarms", "8");
    EXPECT_TRUE(watch.waitForOutput("0x7e000000 kParamAlarms 8\n"));
}

TEST_F(Watch, endsWithTheSignalThatStopsIt) {
    Program watch(commandLine(MEDIACTL, {"watch"}));
    knock(watch);
    watch.kill(SIGINT);
    EXPECT_EQ(watch.wait(), 128 + SIGINT);
}

TEST(List, explainsEveryParameterWithoutAStore) {
    struct Row {
        const char* identifier;
        const char* name;
        const char* type;
        const char* access;
    };
    constexpr Row kRows[] = {
        {"0x7d07000a", "kParamMediaDaemonStatus", "integer", "W"},
        {"0x7d01010a", "kParamTransportState", "integer", "RC"},
        {"0x7d02000a", "kParamSystemState", "integer", "R"},
        {"0x7d02010a", "kParamSystemCommand", "integer", "RC"},
        {"0x7b01030a", "kParamMediaCommand", "integer", "RWC"},
        {"0x7b03040a", "kParamSelectedSlot", "integer", "RW"},
        {"0x7b03000a", "kParamSlotChangeCommand", "integer", "WC"},
        {"0x7a01000a", "kParamProgressStatus", "integer", "W"},
        {"0x7e000000", "kParamAlarms", "integer", "RW"},
        {"0x7e050000", "kParamExtendedAlarms", "integer", "RW"},
        {"0x7b01040a", "kParamInvalidMediaAlert", "integer", "W"},
        {"0x7b03070a", "kParamMediaLoadingStatus", "integer", "W"},
        {"0x7b04000a", "kParamClipName", "string", "RW"},
        {"0x7b04010a", "kParamClipIndex", "integer", "W"},
        {"0x7b04020a", "kParamNewClipIndex", "integer", "W"},
        {"0x1100000a", "kParamReelNumber", "integer", "R"},
        {"0x7b03060a", "kParamVolumeName", "string", "W"},
        {"0x7b03050a", "kParamCapacityRemaining", "integer", "RW"},
        {"0x7b01010a", "kParamStoragePath", "string", "W"},
        {"0x0e01000a", "kParamEncodeType", "integer", "R"},
        {"0x0f01000a", "kParamClipListMode", "integer", "RC"},
        {"0x0f03000a", "kParamPlaylistName", "string", "RWC"},
        {"0x7b01000a", "kParamClipsToDelete", "string", "C"},
        {"0x7d01120a", "kParamDeleteClipsStatus", "string", "W"},
        {"0x7d05000a", "kParamFirewireAVCPause", "integer", "WC"},
        {"0x7d06000a", "kParamMediaChangedTime", "integer", "WC"},
        {"0x0c010100", "kParamFirewireMode", "integer", "WC"},
        {"0x5d020000", "kParamSlotRemountCommand", "integer", "C"},
        {"0x32060000", "kParamFirewireString3206", "string", "R"},
        {"0x1102000a", "kParamRecordSetting1102", "integer", "C"},
        {"0x1103000a", "kParamRecordSetting1103", "integer", "C"},
        {"0x1104000a", "kParamRecordSetting1104", "integer", "C"},
        {"0x1105000a", "kParamRecordSetting1105", "integer", "C"},
        {"0x1107000a", "kParamRecordSetting1107", "integer", "C"},
        {"0x1108000a", "kParamRecordSetting1108", "integer", "C"},
        {"0x1301000a", "kParamRecordSetting1301", "integer", "RWC"},
        {"0x1302000a", "kParamRecordSetting1302", "string", "C"},
        {"0x1303000a", "kParamRecordSetting1303", "integer", "RWC"},
        {"0x1304000a", "kParamRecordSetting1304", "integer", "C"},
        {"0x1601000a", "kParamRecordSetting1601", "integer", "C"},
        {"0x23040000", "kParamRecordSetting2304", "integer", "RWC"},
        {"0x23050000", "kParamRecordSetting2305", "integer", "C"},
    };
    const Result result = mediactl({"list"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    for (const Row& row : kRows) {
        std::istringstream lines(result.output);
        bool found = false;
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            std::string identifier, name, type, access, meaning;
            words >> identifier >> name >> type >> access >> meaning;
            found = found || (identifier == row.identifier && name == row.name && type == row.type &&
                              access == row.access && !meaning.empty());
        }
        EXPECT_TRUE(found) << row.name;
    }
}

} // namespace
