// status: as text, as JSON, once and going on.

#include <cJSON.h>
#include <signal.h>

#include <filesystem>

#include "recorder.h"

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// Two slots as a board has them: S1 with a register LED and a parameter LED, S2 with a sensor whose shift works against
// it.
constexpr char kBoard[] = R"(
board_id = 0x0a3c
mediaCapabilities = {}
specification = {
    slots = {
        { name = "S2", present = { reg = 61, mask = 0x20, shift = 5 },
          status = { { type = "register", reg = 62, bit = 1 } } },
        { name = "S1", present = { reg = 61, mask = 0x10, shift = 0 },
          status = { { type = "register", reg = 62, bit = 0 }, { type = "parameter", param = 0x5c000001 } } },
        { name = "D1", status = {} },
    },
    nextSlot = { default = "S1", S1 = "S2", S2 = "S1" },
}
usefulStrings = {}
)";

struct Status : Recorder {
    static void set(const std::string& parameter, const std::string& value) {
        const Result result = mediactl({"set", "--", parameter, value});
        ASSERT_EQ(result.status, 0) << result.errors;
    }

    static Json json(const std::string& text) {
        return Json(cJSON_ParseWithOpts(text.c_str(), nullptr, 1), &cJSON_Delete);
    }

    // The status as one line of JSON, as far as `key` is concerned.
    static std::string member(const std::string& key) {
        const Result result = mediactl({"status", "--json"});
        EXPECT_EQ(result.status, 0) << result.errors;
        const Json document = json(result.output);
        const cJSON* item = cJSON_GetObjectItemCaseSensitive(document.get(), key.c_str());
        if (!item) return "missing";
        const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(item), &cJSON_free);
        return text.get();
    }
};

TEST_F(Status, asJsonHoldsEveryKey) {
    writeBoard(kBoard);
    writeRegister(61, 0x10);
    writeRegister(62, 0x2);
    serve();
    set("kParamSelectedSlot", "1");
    set("kParamVolumeName", "CARD A");
    set("kParamStoragePath", "/mnt/S1/NEVO");
    set("kParamCapacityRemaining", "87");
    set("kParamAlarms", "0x2000");
    set("kParamMediaLoadingStatus", "1");
    set("kParamProgressStatus", "3");
    set("kParamTransportState", "2");
    set("0x5c000001", "2");

    const Result result = mediactl({"status", "--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    const Json expected = json(R"({
        "selected_slot": "S1", "volume": "CARD A", "storage_path": "/mnt/S1/NEVO", "capacity": 87,
        "alarms": ["capacity low"], "loading": true, "progress": 3, "transport": 2,
        "slots": [{"name": "D1", "present": false, "leds": []},
                  {"name": "S1", "present": true, "leds": ["off", "flash"]},
                  {"name": "S2", "present": false, "leds": ["on"]}]})");
    ASSERT_TRUE(expected);
    EXPECT_TRUE(cJSON_Compare(json(result.output).get(), expected.get(), true)) << result.output;
}

TEST_F(Status, ofARecorderThatHasNothing) {
    serve();
    const Result result = mediactl({"status", "--json"});
    EXPECT_EQ(result.status, 0);
    const Json expected = json(R"({"selected_slot": null, "volume": "", "storage_path": "", "capacity": 0, "alarms": [],
                                   "loading": false, "progress": 0, "transport": 0, "slots": []})");
    EXPECT_TRUE(cJSON_Compare(json(result.output).get(), expected.get(), true)) << result.output;
    EXPECT_EQ(
        mediactl({"status"}).output,
        "Selected slot:  none\nVolume:         none\nStorage path:   none\nCapacity:       0 %\nAlarms:         none\n"
        "Media loading:  no\nProgress:       none\nTransport:      idle (0)\n");
}

TEST_F(Status, asText) {
    writeBoard(kBoard);
    writeRegister(61, 0x10);
    writeRegister(62, 0x2);
    serve();
    set("kParamSelectedSlot", "1");
    set("kParamVolumeName", "A\x1b[2J");
    set("kParamStoragePath", "/mnt/S1/NEVO");
    set("kParamCapacityRemaining", "8");
    set("kParamAlarms", "0x6000");
    set("kParamMediaLoadingStatus", "1");
    set("kParamProgressStatus", "3");
    set("kParamTransportState", "2");
    set("0x5c000001", "1");
    EXPECT_EQ(mediactl({"status"}).output,
              "Selected slot:  S1\n"
              "Volume:         A\\x1b[2J\n"
              "Storage path:   /mnt/S1/NEVO\n"
              "Capacity:       8 %\n"
              "Alarms:         capacity low, capacity critical\n"
              "Media loading:  yes\n"
              "Progress:       3\n"
              "Transport:      recording (2)\n"
              "Slot D1:        empty           LEDs: none\n"
              "Slot S1:        medium present  LEDs: off, on\n"
              "Slot S2:        empty           LEDs: on\n");
}

TEST_F(Status, textsThatAreNoUtf8GiveValidJson) {
    serve();
    set("kParamVolumeName", "a\xff\"\\\x01\n\xed\xa0\x80z");
    const Result result = mediactl({"status", "--json"});
    const Json document = json(result.output);
    ASSERT_TRUE(document) << result.output;
    EXPECT_STREQ(cJSON_GetObjectItem(document.get(), "volume")->valuestring,
                 "a\xef\xbf\xbd\"\\\x01\n\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbdz");
    EXPECT_TRUE(isUtf8(result.output));
}

struct Row {
    const char* parameter;
    const char* value;
    const char* key;
    const char* json;
};
std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.parameter << " = " << row.value; }
struct Rows : Status, testing::WithParamInterface<Row> {};

TEST_P(Rows, areNamed) {
    serve();
    set(GetParam().parameter, GetParam().value);
    EXPECT_EQ(member(GetParam().key), GetParam().json);
}

INSTANTIATE_TEST_SUITE_P(
    Alarms, Rows,
    testing::Values(Row{"kParamAlarms", "0x1", "alarms", R"(["hardware failure"])"},
                    Row{"kParamAlarms", "0x2", "alarms", R"(["software failure"])"},
                    Row{"kParamAlarms", "0x400", "alarms", R"(["0x00000400"])"},
                    Row{"kParamAlarms", "0x2000", "alarms", R"(["capacity low"])"},
                    Row{"kParamAlarms", "0x4000", "alarms", R"(["capacity critical"])"},
                    Row{"kParamAlarms", "0x10000", "alarms", R"(["storage removed"])"},
                    Row{"kParamAlarms", "0x40000", "alarms", R"(["0x00040000"])"},
                    Row{"kParamAlarms", "0x800000", "alarms", R"(["media unformatted"])"},
                    Row{"kParamAlarms", "0x1000000", "alarms", R"(["media damaged"])"},
                    Row{"kParamAlarms", "0x80016001", "alarms",
                        R"(["hardware failure","capacity low","capacity critical","storage removed","0x80000000"])"},
                    Row{"kParamExtendedAlarms", "0x1", "alarms", R"(["unsupported media"])"},
                    Row{"kParamExtendedAlarms", "0x8", "alarms", R"(["codec unsupported for media"])"},
                    Row{"kParamExtendedAlarms", "0x10", "alarms", R"(["extended 0x00000010"])"}));

INSTANTIATE_TEST_SUITE_P(Slots, Rows,
                         testing::Values(Row{"kParamSelectedSlot", "0", "selected_slot", "null"},
                                         Row{"kParamSelectedSlot", "1", "selected_slot", "\"S1\""},
                                         Row{"kParamSelectedSlot", "2", "selected_slot", "\"S2\""},
                                         Row{"kParamSelectedSlot", "3", "selected_slot", "\"D1\""},
                                         Row{"kParamSelectedSlot", "4", "selected_slot", "\"D2\""},
                                         Row{"kParamSelectedSlot", "5", "selected_slot", "\"5\""},
                                         Row{"kParamCapacityRemaining", "-1", "capacity", "-1"}));

struct TransportRow {
    const char* state;
    const char* shown;
};
std::ostream& operator<<(std::ostream& out, const TransportRow& row) { return out << row.state; }
struct Transports : Status, testing::WithParamInterface<TransportRow> {};

TEST_P(Transports, areShownInWords) {
    serve();
    set("kParamTransportState", GetParam().state);
    EXPECT_NE(mediactl({"status"}).output.find(std::string("Transport:      ") + GetParam().shown + "\n"),
              std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Rows, Transports,
                         testing::Values(TransportRow{"0", "idle (0)"}, TransportRow{"1", "idle (1)"},
                                         TransportRow{"2", "recording (2)"}, TransportRow{"3", "active (3)"},
                                         TransportRow{"15", "idle (15)"}, TransportRow{"19", "idle (19)"},
                                         TransportRow{"20", "idle (20)"}, TransportRow{"21", "active (21)"}));

// --- The slots, from the board's file and the card's registers.

struct BoardRow {
    const char* what;
    const char* text;
    const char* slots;
};
std::ostream& operator<<(std::ostream& out, const BoardRow& row) { return out << row.what; }
struct Boards : Status, testing::WithParamInterface<BoardRow> {};

TEST_P(Boards, giveTheirSlots) {
    writeBoard(GetParam().text);
    writeRegister(61, 0x30);
    writeRegister(62, 0x80000001);
    serve({"start:0x5c000001=1"});
    set("0x5c000002", "text");
    set("0x5c000003", "7");
    EXPECT_EQ(member("slots"), GetParam().slots);
    EXPECT_EQ(mediactl({"status"}).errors, "");
    EXPECT_FALSE(std::filesystem::exists("/tmp/touched"));
    EXPECT_EQ(std::filesystem::file_size("/etc/board-id"), 9U);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Boards,
    testing::Values(
        BoardRow{"all bits of the mask",
                 R"(specification = { slots = { { name = "S1", present = { reg = 61, mask = 0x31 } } } })",
                 R"([{"name":"S1","present":false,"leds":[]}])"},
        BoardRow{"a shifted value that still covers the mask",
                 R"(specification = { slots = { { name = "S1", present = { reg = 61, mask = 0x10, shift = 4 } },
                     { name = "S2", present = { reg = 62, mask = 0x80000001, shift = 0 } } } })",
                 R"([{"name":"S1","present":false,"leds":[]},{"name":"S2","present":true,"leds":[]}])"},
        BoardRow{"an empty mask is always covered", R"(specification = { slots = { { name = "S1", present = {} } } })",
                 R"([{"name":"S1","present":true,"leds":[]}])"},
        BoardRow{"a register that does not exist",
                 R"(specification = { slots = { { name = "S1", present = { reg = 65536, mask = 0 },
                                                 status = { { type = "register", reg = 65536 } } } } })",
                 R"([{"name":"S1","present":false,"leds":["unknown"]}])"},
        BoardRow{"register LEDs",
                 R"(specification = { slots = { { name = "S1", status = { { type = "register", reg = 62, bit = 31 },
                    { type = "register", reg = 62 }, { type = "register", reg = 62, bit = 1 },
                    { type = "register", reg = 62, bit = 32 } } } } })",
                 R"([{"name":"S1","present":false,"leds":["on","on","off","off"]}])"},
        BoardRow{"parameter LEDs",
                 R"(specification = { slots = { { name = "S1", status = { { type = "parameter", param = 0x5c000001 },
                    { type = "parameter", param = 0x5c000002 }, { type = "parameter", param = 0x5c000003 },
                    { type = "parameter", param = 0x5c000004 } } } } })",
                 R"([{"name":"S1","present":false,"leds":["on","unknown","7","off"]}])"},
        BoardRow{"LEDs of no known type",
                 R"(specification = { slots = { { name = "S1", status = { { type = "lamp" }, {}, 5, "x" } } } })",
                 R"([{"name":"S1","present":false,"leds":[]}])"},
        BoardRow{"the later of two slots of one name",
                 R"(specification = { slots = { { name = "S1", present = { reg = 61, mask = 1 } },
                                               { name = "S1", present = { reg = 61, mask = 0x10 } } } })",
                 R"([{"name":"S1","present":true,"leds":[]}])"},
        BoardRow{
            "numbers as text, and numbers that are none",
            R"(specification = { slots = { { name = "S1", present = { reg = "61", mask = "0x30", shift = "nothing" } },
                { name = "S2", present = { reg = 61.9, mask = 0x30 + 2^32, shift = 0/0 } } } })",
            R"([{"name":"S1","present":true,"leds":[]},{"name":"S2","present":true,"leds":[]}])"},
        BoardRow{"entries that are no tables",
                 R"(specification = { slots = { 1, "S1", { name = 7, present = 5, status = 6 } } })",
                 R"([{"name":"7","present":false,"leds":[]}])"},
        BoardRow{"no slots", R"(specification = {})", "[]"},
        BoardRow{"a chunk that prints",
                 R"(print("x") io.write("x"):write("y") io.output():write("x") io.stdout:write("x") io.stderr:write("x")
                    specification = { slots = {} })",
                 "[]"},
        BoardRow{
            "a chunk that would change things",
            R"(os.execute("touch /tmp/touched") os.remove("/etc/board-id") os.exit(5) io.popen("touch /tmp/touched")
                    specification = { slots = { { name = "S1" } } })",
            R"([{"name":"S1","present":false,"leds":[]}])"},
        BoardRow{"a chunk that looks at a file",
                 R"(local file = io.open("/etc/board-id", "w") or io.open("/etc/board-id")
                    specification = { slots = { { name = file:read("*l") } } })",
                 R"([{"name":"00000a3c","present":false,"leds":[]}])"}));

struct ProblemRow {
    const char* text;
    const char* problem;
};
std::ostream& operator<<(std::ostream& out, const ProblemRow& row) {
    return out << (row.text[0] == '\x1b' ? "precompiled" : row.text);
}
struct BoardProblems : Status, testing::WithParamInterface<ProblemRow> {};

// Whatever is wrong with the file, the rest of the status is shown.
TEST_P(BoardProblems, listNoSlotsAndSayWhy) {
    writeBoard(GetParam().text);
    serve();
    set("kParamVolumeName", "CARD A");
    const Result result = mediactl({"status", "--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.errors.find("no slots are listed"), std::string::npos) << result.errors;
    EXPECT_NE(result.errors.find(GetParam().problem), std::string::npos) << result.errors;
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1);
    const Json document = json(result.output);
    ASSERT_TRUE(document);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(document.get(), "slots")), 0);
    EXPECT_STREQ(cJSON_GetObjectItem(document.get(), "volume")->valuestring, "CARD A");
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BoardProblems,
    testing::Values(
        ProblemRow{"this is no chunk", "line:1:"}, ProblemRow{"error('said so')", "said so"},
        ProblemRow{"error({})", "fails"}, ProblemRow{"error('two\\nlines')", "two\\nlines"},
        ProblemRow{"x = 1", "no table"}, ProblemRow{"specification = 5", "no table"},
        ProblemRow{"while true do end", "does not end"},
        ProblemRow{"while true do pcall(function() while true do end end) end", "does not end"},
        ProblemRow{"specification = setmetatable({}, { __index = function() error('from below') end })", "from below"},
        ProblemRow{"specification = { slots = { setmetatable({}, { __index = function() while true do end end }) } }",
                   "does not end"},
        ProblemRow{"\x1bLuaR", "binary chunk"}, ProblemRow{"", ""}));

TEST_F(Status, withoutABoardIdListsNoSlots) {
    serve();
    const Result result = mediactl({"status"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "mediactl: this machine does not say which board it is; no slots are listed\n");
}

TEST_F(Status, withoutABoardFileListsNoSlots) {
    writeFile("/etc/board-id", "00000a3c\n");
    serve();
    const Result result = mediactl({"status"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors,
              "mediactl: /usr/local/share/specs/00000a3c.specification cannot be read; no slots are listed\n");
}

TEST_F(Status, withoutACardShowsEverySlotEmpty) {
    writeBoard(kBoard);
    serve();
    EXPECT_EQ(member("slots"),
              R"([{"name":"D1","present":false,"leds":[]},{"name":"S1","present":false,"leds":["unknown","off"]},)"
              R"({"name":"S2","present":false,"leds":["unknown"]}])");
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/mediad-card"));
}

TEST_F(Status, whoMayNotReadTheRegistersIsNotToldThatSlotsAreEmpty) {
    writeBoard(kBoard);
    writeRegister(61, 0x10);
    serve();
    const Result looking = mediactlAsNobody({"status"});
    if (looking.errors.starts_with("setpriv")) GTEST_SKIP() << looking.errors;
    EXPECT_EQ(looking.status, 0) << looking.errors;
    EXPECT_NE(looking.output.find("Slot S1:        unknown         LEDs: unknown, off\n"), std::string::npos)
        << looking.output;
    // Without a sensor there is nothing to be read.
    EXPECT_NE(looking.output.find("Slot D1:        empty           LEDs: none\n"), std::string::npos) << looking.output;
    const Json document = json(mediactlAsNobody({"status", "--json"}).output);
    const cJSON* slot = cJSON_GetArrayItem(cJSON_GetObjectItem(document.get(), "slots"), 1);
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItem(slot, "present")));
}

// --- Going on.

TEST_F(Status, watchPrintsABlockForEachChange) {
    writeBoard(kBoard);
    writeRegister(61, 0);
    serve();
    Program watch(commandLine(MEDIACTL, {"status", "--watch"}));
    ASSERT_TRUE(watch.waitForOutput("Slot S2:        empty           LEDs: off\n"));
    EXPECT_EQ(watch.output().find("Selected slot:  none\n"), 0U);
    set("kParamVolumeName", "CARD A");
    ASSERT_TRUE(watch.waitForOutput("\nSelected slot:  none\nVolume:         CARD A\n"));
    writeRegister(61, 0x10); // no event tells of this one
    ASSERT_TRUE(watch.waitForOutput("Volume:         CARD A\n"));
    ASSERT_TRUE(watch.waitForOutput("Slot S1:        medium present  LEDs: off, off\n"));
    set("0x5c000001", "2");
    ASSERT_TRUE(watch.waitForOutput("Slot S1:        medium present  LEDs: off, flash\n"));
    EXPECT_EQ(watch.output().find('\x1b'), std::string::npos);
    EXPECT_EQ(watch.errors(), "");
}

TEST_F(Status, watchAsJsonPrintsALineForEachChange) {
    serve();
    Program watch(commandLine(MEDIACTL, {"status", "--watch", "--json"}));
    ASSERT_TRUE(watch.waitForOutput("\n"));
    set("kParamVolumeName", "CARD A");
    ASSERT_TRUE(watch.waitForOutput("\n"));
    watch.kill(SIGINT);
    EXPECT_EQ(watch.wait(), 128 + SIGINT);
    const std::size_t end = watch.output().find('\n');
    EXPECT_STREQ(cJSON_GetObjectItem(json(watch.output().substr(0, end)).get(), "volume")->valuestring, "");
    EXPECT_STREQ(cJSON_GetObjectItem(json(watch.output().substr(end + 1)).get(), "volume")->valuestring, "CARD A");
}

TEST_F(Status, watchRedrawsInPlaceOnATerminal) {
    serve();
    Program watch(commandLine(MEDIACTL, {"status", "--watch"}), Program::Output::Terminal);
    ASSERT_TRUE(watch.waitForOutput("\x1b[2J\x1b[HSelected slot:  none\x1b[K\r\n"));
    ASSERT_TRUE(watch.waitForOutput("\x1b[J"));
    set("kParamSelectedSlot", "2");
    ASSERT_TRUE(watch.waitForOutput("\x1b[HSelected slot:  S2\x1b[K\r\n"));
    ASSERT_TRUE(watch.waitForOutput("\x1b[J"));
    EXPECT_EQ(watch.output().find("\x1b[2J"), watch.output().rfind("\x1b[2J")) << "the screen is cleared once only";
}

TEST_F(Status, watchGoesOnWhenTheStoreComesBack) {
    serve();
    Program watch(commandLine(MEDIACTL, {"status", "--watch"}));
    ASSERT_TRUE(watch.waitForOutput("Transport:"));
    killHost();
    ASSERT_TRUE(watch.waitForErrors("nobody serves the parameter store any more"));
    serve();
    ASSERT_TRUE(watch.waitForErrors("the parameter store is served again"));
    set("kParamVolumeName", "CARD B");
    ASSERT_TRUE(watch.waitForOutput("Volume:         CARD B\n"));
}

} // namespace
