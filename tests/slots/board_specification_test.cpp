// Board specification files: what is read out of them, in which order, and what is said of a bad one.

#include "slots/board_specification.h"

#include <gtest/gtest.h>

#include <lua.hpp>
#include <memory>
#include <set>

#include "daemonizer.h"
#include "slots/slot_led_register.h"
#include "slots/slot_listener.h"
#include "tests/fakes/fakes.h"

namespace {

using fakes::Lines;

// The board of the examples: two slots, presence on bits 4 and 5 of register 61.
const char kExample[] = R"lua(
board_id = 0x0a3c
mediaCapabilities = { "cf_hack", "firewire_data" }
specification = {
    slots = {
        {
            name = "S1",
            address = "1f000000.pcie/pci0000:00/0000:00:00.0/ata1/",
            scanPath = "/sys/class/scsi_host/host0/scan",
            capabilities = { "writeable", "proreshq" },
            present = { reg = 61, mask = 0x10, shift = 0 },
            status = {
                { type = "register", reg = 62, bit = 0 },
                { type = "parameter", param = 0x7e010000 },
            },
            cf_hack_present = "echo 1 > /proc/slot1_power",
            cf_hack_not_present = "echo 0 > /proc/slot1_power",
        },
        {
            name = "S2",
            address = "1f000000.pcie/pci0000:00/0000:00:00.0/ata2/",
            scanPath = "/sys/class/scsi_host/host1/scan",
            capabilities = { "writeable" },
            present = { reg = 61, mask = 0x20, shift = 0 },
            status = { { type = "register", reg = 62, bit = 1 } },
        },
    },
    nextSlot = { default = "S1", S1 = "S2", S2 = "S1" },
}
usefulStrings = {
    driver_scan = "echo - - - > /sys/class/scsi_host/host0/scan",
    driver_load = "modprobe sata_slot",
    cf_hack_enable = "echo 1 > /proc/cf_enable",
}
)lua";

// The least that parses; `more` comes behind it.
std::string board(const std::string& more = "") {
    return "board_id = 0x0a3c\nmediaCapabilities = {}\nspecification = {}\n" + more;
}

// A board with one slot table (`fields`), behind `capabilities`.
std::string boardWithSlot(const std::string& fields, const std::string& capabilities = "") {
    return "board_id = 0x0a3c\nmediaCapabilities = {" + capabilities + "}\nspecification = { slots = { { " + fields +
           " } } }\n";
}

class BoardSpecificationTest : public testing::Test {
protected:
    void SetUp() override {
        Daemonizer::name = "Media Manager";
        SlotLEDRegister::resetFlashers();
    }
    void TearDown() override { Daemonizer::name = ""; }

    int parse(const std::string& text, const std::string& expectedBoardId = "0x00000a3c") {
        const fakes::StandardError error;
        const int result = listener.parseSpecification(expectedBoardId, text, &world.shell);
        said = error.text();
        return result;
    }

    fakes::World world;
    SlotListener listener{&world.config, &world.card, world.os};
    std::string said;
};

TEST_F(BoardSpecificationTest, TheExampleParsesInEveryField) {
    ASSERT_EQ(0, parse(kExample)) << said;
    EXPECT_EQ("", said);
    EXPECT_EQ((std::set<std::string>{"cf_hack", "firewire_data"}), listener.getCapabilities());
    EXPECT_EQ((std::vector<eStorageSlot_t>{eStorageSlotS1, eStorageSlotS2}), listener.supportedSlots());
    EXPECT_EQ((std::map<eStorageSlot_t, eStorageSlot_t>{{eStorageSlotUnknown, eStorageSlotS1},
                                                        {eStorageSlotS1, eStorageSlotS2},
                                                        {eStorageSlotS2, eStorageSlotS1}}),
              listener.getNextSlotMap());
    EXPECT_EQ("echo - - - > /sys/class/scsi_host/host0/scan", listener.getUsefulString("driver_scan"));
    EXPECT_EQ("modprobe sata_slot", listener.getUsefulString("driver_load"));
    EXPECT_EQ("echo 1 > /proc/cf_enable", listener.getUsefulString("cf_hack_enable"));

    Slot& s1 = listener.getSlot(eStorageSlotS1);
    EXPECT_EQ(eStorageSlotS1, s1.getSlotID());
    EXPECT_EQ("S1", s1.getName());
    EXPECT_EQ("1f000000.pcie/pci0000:00/0000:00:00.0/ata1/", s1.getAddress());
    EXPECT_EQ("/sys/class/scsi_host/host0/scan", s1.getScanPath());
    EXPECT_TRUE(s1.hasCapability("writeable"));
    EXPECT_TRUE(s1.hasCapability("proreshq"));
    EXPECT_EQ(2U, s1.getLEDs().size());
    for (SlotLED* led : s1.getLEDs()) led->lightOn();
    EXPECT_EQ(1U, world.card.get(62));
    EXPECT_EQ(1, world.config.integer(0x7e010000));

    Slot& s2 = listener.getSlot(eStorageSlotS2);
    EXPECT_EQ("S2", s2.getName());
    EXPECT_FALSE(s2.hasCapability("proreshq"));
    for (SlotLED* led : s2.getLEDs()) led->lightOn();
    EXPECT_EQ(3U, world.card.get(62));

    world.card.put(61, 0x20);
    world.journal.clear();
    EXPECT_FALSE(s1.isPresent());
    EXPECT_TRUE(s2.isPresent());
    EXPECT_EQ((Lines{"read 61 mask=0x10 shift=0", "run echo 0 > /proc/slot1_power", "read 61 mask=0x20 shift=0"}),
              world.journal.take());
}

// --- the chunk itself ---

TEST_F(BoardSpecificationTest, ATextThatIsNotLuaFails) {
    EXPECT_EQ(-1, parse("board_id = = 3"));
    EXPECT_TRUE(said.starts_with("Media Manager unable to load specification file. [string \"board_id = = 3\"]:1: "))
        << said;
    EXPECT_TRUE(said.ends_with("\n"));
}

TEST_F(BoardSpecificationTest, AChunkThatFailsFails) {
    EXPECT_EQ(-1, parse("error('no such board', 0)"));
    EXPECT_EQ("Media Manager unable to load specification file. no such board\n", said);
}

TEST_F(BoardSpecificationTest, AnErrorValueThatIsNoTextStillGivesOneLine) {
    EXPECT_EQ(-1, parse("error({})"));
    EXPECT_EQ("Media Manager unable to load specification file. (error object is a table value)\n", said);
    EXPECT_EQ(-1, parse("error()"));
    EXPECT_EQ("Media Manager unable to load specification file. (error object is a nil value)\n", said);
    EXPECT_EQ(-1, parse("error(true)"));
    EXPECT_EQ("Media Manager unable to load specification file. (error object is a boolean value)\n", said);
    EXPECT_EQ(-1, parse("error(12, 0)"));
    EXPECT_EQ("Media Manager unable to load specification file. 12\n", said);
}

TEST_F(BoardSpecificationTest, TheStandardLibrariesAreThere) {
    EXPECT_EQ(0, parse("board_id = tonumber(string.rep('1', 3), 2) + math.floor(0.5) + #table.pack()\n"
                       "mediaCapabilities = {}\nspecification = { slots = nil }\nlocal t = os.time()\n",
                       "0x00000007"))
        << said;
}

TEST_F(BoardSpecificationTest, APrecompiledChunkIsRefused) {
    EXPECT_EQ(-1, parse(std::string("\x1bLua", 4)));
    EXPECT_TRUE(said.starts_with("Media Manager unable to load specification file. ")) << said;
}

TEST_F(BoardSpecificationTest, AnEmptyTextFailsAtTheBoardId) {
    EXPECT_EQ(-1, parse(""));
    EXPECT_EQ("Media Manager specification file does not contain a board id.\n", said);
}

TEST_F(BoardSpecificationTest, ATextOfOneByteFails) {
    EXPECT_EQ(-1, parse("\n"));
    EXPECT_EQ("Media Manager specification file does not contain a board id.\n", said);
    EXPECT_EQ(-1, parse("x"));
    EXPECT_TRUE(said.starts_with("Media Manager unable to load specification file. ")) << said;
}

// --- the board id ---

TEST_F(BoardSpecificationTest, ABoardIdThatIsNoNumberFails) {
    for (const char* value : {"nil", "{}", "true", "'a3c'", "print"}) {
        EXPECT_EQ(-1, parse(std::string("board_id = ") + value + "\nmediaCapabilities = {}\nspecification = {}"));
        EXPECT_EQ("Media Manager specification file does not contain a board id.\n", said) << value;
    }
}

TEST_F(BoardSpecificationTest, ABoardIdThatIsATextOfDigitsCounts) {
    EXPECT_EQ(0, parse("board_id = '2620'\nmediaCapabilities = {}\nspecification = {}", "0x00000a3c")) << said;
}

TEST_F(BoardSpecificationTest, TheGreatestBoardId) {
    EXPECT_EQ(0, parse("board_id = 2^32 - 1\nmediaCapabilities = {}\nspecification = {}", "0xffffffff")) << said;
}

TEST_F(BoardSpecificationTest, TheBoardIdIsPaddedToEightDigits) {
    EXPECT_EQ(0, parse("board_id = 5\nmediaCapabilities = {}\nspecification = {}", "0x00000005")) << said;
}

TEST_F(BoardSpecificationTest, TheBoardIdIsComparedAsTextExactly) {
    for (const char* expected : {"0x00000A3C", "0xa3c", "0x00000a3d", "00000a3c", ""}) {
        EXPECT_EQ(-1, parse(board(), expected));
        EXPECT_EQ(std::string("Media Manager board id in spec file, 0x00000a3c, does not match expected board id, ") +
                      expected + "\n",
                  said);
    }
    EXPECT_EQ(0, parse(board(), "0x00000a3c"));
}

TEST_F(BoardSpecificationTest, NumbersAreTruncatedModulo32BitsAndWhatIsNotFiniteIsZero) {
    const std::pair<const char*, const char*> cases[] = {
        {"2.9", "0x00000002"},          {"-0.9", "0x00000000"},       {"-1", "0xffffffff"},
        {"-1.5", "0xffffffff"},         {"2^32", "0x00000000"},       {"2^32 + 7.5", "0x00000007"},
        {"-2^32 - 1", "0xffffffff"},    {"2^31", "0x80000000"},       {"0xdeadbeef", "0xdeadbeef"},
        {"2^53 - 1", "0xffffffff"},     {"1/0", "0x00000000"},        {"-1/0", "0x00000000"},
        {"0/0", "0x00000000"},          {"4294967295.5", "0xffffffff"}, {"1e300", "0x00000000"}};
    for (const auto& [number, text] : cases) {
        EXPECT_EQ(0, parse(std::string("board_id = ") + number + "\nmediaCapabilities = {}\nspecification = {}", text))
            << number << ": " << said;
    }
}

// --- media capabilities ---

TEST_F(BoardSpecificationTest, AnEmptyListOfMediaCapabilitiesIsValid) {
    EXPECT_EQ(0, parse(board())) << said;
    EXPECT_TRUE(listener.getCapabilities().empty());
}

TEST_F(BoardSpecificationTest, MediaCapabilitiesThatAreNoTableFail) {
    for (const char* value : {"nil", "'cf_hack'", "7"}) {
        EXPECT_EQ(-1, parse(std::string("board_id = 0xa3c\nspecification = {}\nmediaCapabilities = ") + value));
        EXPECT_EQ("Media Manager specification file does not contain a valid media capabilties table.\n", said);
    }
}

TEST_F(BoardSpecificationTest, AnUnknownMediaCapabilityFailsAndWhatCameBeforeStays) {
    EXPECT_EQ(-1, parse("board_id = 0xa3c\nspecification = {}\nmediaCapabilities = { 'cf_hack', 'teleport' }"));
    EXPECT_EQ("Media Manager unknown media capability: teleport\n", said);
    EXPECT_EQ((std::set<std::string>{"cf_hack"}), listener.getCapabilities());
}

TEST_F(BoardSpecificationTest, ANumberAmongTheMediaCapabilitiesIsTakenAsItsText) {
    EXPECT_EQ(-1, parse("board_id = 0xa3c\nspecification = {}\nmediaCapabilities = { 12 }"));
    EXPECT_EQ("Media Manager unknown media capability: 12\n", said);
}

TEST_F(BoardSpecificationTest, OtherValuesAmongTheMediaCapabilitiesAreSkippedAndKeysIgnored) {
    EXPECT_EQ(0, parse("board_id = 0xa3c\nspecification = {}\n"
                       "mediaCapabilities = { true, {}, print, anything = 'firewire_data', [7.5] = 'cf_hack' }"))
        << said;
    EXPECT_EQ((std::set<std::string>{"cf_hack", "firewire_data"}), listener.getCapabilities());
}

TEST_F(BoardSpecificationTest, KnownMediaCapabilitiesAndLEDTypes) {
    EXPECT_TRUE(SlotListener::isKnownCapability("firewire_data"));
    EXPECT_TRUE(SlotListener::isKnownCapability("cf_hack"));
    EXPECT_FALSE(SlotListener::isKnownCapability("writeable"));
    EXPECT_EQ((std::set<std::string>{"cf_hack", "firewire_data"}), SlotListener::knownCapabilities);
    EXPECT_EQ((std::set<std::string>{"parameter", "register"}), SlotListener::knownSlotStatusLEDTypes);
}

// --- the specification ---

TEST_F(BoardSpecificationTest, ASpecificationThatIsNoTableFails) {
    for (const char* value : {"nil", "'slots'", "7"}) {
        EXPECT_EQ(-1, parse(std::string("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = ") + value));
        EXPECT_EQ("Media Manager specification file does not contain a valid specification.\n", said);
    }
}

TEST_F(BoardSpecificationTest, ChecksComeInTheirOrder) {
    EXPECT_EQ(-1, parse("board_id = 1\nmediaCapabilities = 1\nspecification = 1"));
    EXPECT_NE(std::string::npos, said.find("does not match expected board id")) << said;
    EXPECT_EQ(-1, parse("board_id = 0xa3c\nmediaCapabilities = 1\nspecification = 1"));
    EXPECT_NE(std::string::npos, said.find("media capabilties")) << said;
    EXPECT_EQ(-1, parse("mediaCapabilities = 1\nspecification = 1"));
    EXPECT_NE(std::string::npos, said.find("does not contain a board id")) << said;
    EXPECT_EQ(-1, parse(boardWithSlot("name = 'S1', capabilities = { 'bad' }, status = { { type = 'bad' } }")));
    EXPECT_NE(std::string::npos, said.find("unknown slot capability")) << said;
}

TEST_F(BoardSpecificationTest, PartsOfTheWrongTypeAreSkipped) {
    EXPECT_EQ(0, parse("board_id = 0xa3c\nmediaCapabilities = {}\nusefulStrings = 7\n"
                       "specification = { slots = 'S1', nextSlot = 7 }"))
        << said;
    EXPECT_TRUE(listener.supportedSlots().empty());
    EXPECT_TRUE(listener.getNextSlotMap().empty());

    EXPECT_EQ(0, parse("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = { slots = { 'S2', 7, true,\n"
                       "{ name = 'S1', capabilities = 7, status = 'x', present = 61, address = {},\n"
                       "  scanPath = true } } }"))
        << said;
    EXPECT_EQ((std::vector<eStorageSlot_t>{eStorageSlotS1}), listener.supportedSlots());
    Slot& slot = listener.getSlot(eStorageSlotS1);
    EXPECT_TRUE(slot.getLEDs().empty());
    EXPECT_EQ("", slot.getAddress());
    EXPECT_EQ("", slot.getScanPath());
    EXPECT_FALSE(slot.isPresent());
    EXPECT_EQ(Lines{}, world.journal.take()) << "a present that is no table leaves the slot without a sensor";
}

TEST_F(BoardSpecificationTest, ListEntriesOfTheWrongTypeAreSkipped) {
    EXPECT_EQ(0, parse(boardWithSlot("name = 'S1', capabilities = { true, {}, 'writeable' }, "
                                     "status = { 'register', 7, { type = 'register', reg = 1 } }")))
        << said;
    EXPECT_TRUE(listener.getSlot(eStorageSlotS1).hasCapability("writeable"));
    EXPECT_EQ(1U, listener.getSlot(eStorageSlotS1).getLEDs().size());
}

TEST_F(BoardSpecificationTest, TheNameDecidesTheIdentifierAndTheOrder) {
    EXPECT_EQ(0, parse("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = { slots = {\n"
                       "{ name = 'S2' }, { name = 'D2' }, { name = 'S1' }, { name = 'D1' } } }"))
        << said;
    EXPECT_EQ((std::vector<eStorageSlot_t>{eStorageSlotD1, eStorageSlotD2, eStorageSlotS1, eStorageSlotS2}),
              listener.supportedSlots());
    EXPECT_EQ("D1", listener.getSlot(eStorageSlotD1).getName());
    EXPECT_EQ("D2", listener.getSlot(eStorageSlotD2).getName());
    EXPECT_EQ("S1", listener.getSlot(eStorageSlotS1).getName());
    EXPECT_EQ("S2", listener.getSlot(eStorageSlotS2).getName());
}

TEST_F(BoardSpecificationTest, ASlotThatIsNotThereIsTheUnknownSlot) {
    EXPECT_EQ(0, parse(board()));
    EXPECT_EQ(&Slot::getUnknownSlot(), &listener.getSlot(eStorageSlotS1));
    EXPECT_EQ(&Slot::getUnknownSlot(), &listener.getSlot(eStorageSlotUnknown));
}

TEST_F(BoardSpecificationTest, ASlotOfAnUnknownNameHasIdentifierZeroAndIsFoundInsteadOfTheUnknownSlot) {
    EXPECT_EQ(0, parse(boardWithSlot("name = 'X9', address = '/ata9/'"))) << said;
    EXPECT_EQ((std::vector<eStorageSlot_t>{eStorageSlotUnknown}), listener.supportedSlots());
    EXPECT_EQ("X9", listener.getSlot(eStorageSlotUnknown).getName());
    EXPECT_EQ("/ata9/", listener.getSlot(eStorageSlotUnknown).getAddress());
}

TEST_F(BoardSpecificationTest, ASlotWithoutANameIsStoredUnderTheEmptyOne) {
    EXPECT_EQ(0, parse(boardWithSlot("address = '/ata9/'"))) << said;
    EXPECT_EQ("", listener.getSlot(eStorageSlotUnknown).getName());
    EXPECT_EQ("/ata9/", listener.getSlot(eStorageSlotUnknown).getAddress());
}

TEST_F(BoardSpecificationTest, GetSlotGivesTheOneThatIsChangedInPlace) {
    EXPECT_EQ(0, parse(boardWithSlot("name = 'S1'"))) << said;
    listener.getSlot(eStorageSlotS1).setNewlyInserted(true);
    EXPECT_TRUE(listener.getSlot(eStorageSlotS1).isNewlyInserted());
}

TEST_F(BoardSpecificationTest, ASecondSlotOfTheSameNameReplacesTheFirstAltogether) {
    EXPECT_EQ(0, parse("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = { slots = {\n"
                       "{ name = 'S1', address = '/ata1/', capabilities = { 'writeable' },\n"
                       "  present = { reg = 61, mask = 1 }, status = { { type = 'register', reg = 62 } } },\n"
                       "{ name = 'S1', scanPath = '/scan' } } }"))
        << said;
    EXPECT_EQ((std::vector<eStorageSlot_t>{eStorageSlotS1}), listener.supportedSlots());
    Slot& slot = listener.getSlot(eStorageSlotS1);
    EXPECT_EQ("", slot.getAddress());
    EXPECT_EQ("/scan", slot.getScanPath());
    EXPECT_FALSE(slot.hasCapability("writeable"));
    EXPECT_TRUE(slot.getLEDs().empty());
    world.card.put(61, 1);
    EXPECT_FALSE(slot.isPresent());
}

TEST_F(BoardSpecificationTest, AnUnknownSlotCapabilityFailsAndEarlierSlotsStay) {
    EXPECT_EQ(-1, parse("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = { slots = {\n"
                        "{ name = 'S1' }, { name = 'S2', capabilities = { 'writeable', 'fast' } } } }"));
    EXPECT_EQ("Media Manager unknown slot capability: fast\n", said);
    EXPECT_EQ((std::vector<eStorageSlot_t>{eStorageSlotS1}), listener.supportedSlots());
}

TEST_F(BoardSpecificationTest, AnLEDOfAnUnknownTypeFails) {
    EXPECT_EQ(-1, parse(boardWithSlot("name = 'S1', status = { { type = 'lamp' } }")));
    EXPECT_EQ("Media Manager unknownrecognized status LED type: lamp\n", said);
    EXPECT_TRUE(listener.supportedSlots().empty());
}

TEST_F(BoardSpecificationTest, AnLEDWithoutATypeFailsWithNothingBehindTheColon) {
    EXPECT_EQ(-1, parse(boardWithSlot("name = 'S1', status = { { reg = 62 } }")));
    EXPECT_EQ("Media Manager unknownrecognized status LED type: \n", said);
}

TEST_F(BoardSpecificationTest, RegisterLEDsTakeTheirRegisterAndBitWhichIsZeroWhenMissing) {
    EXPECT_EQ(0, parse(boardWithSlot("name = 'S1', status = { { type = 'register', reg = '62' } }"))) << said;
    for (SlotLED* led : listener.getSlot(eStorageSlotS1).getLEDs()) led->lightOn();
    EXPECT_EQ((Lines{"write 62 value=1 mask=0x1 shift=0"}), world.journal.take());
}

TEST_F(BoardSpecificationTest, RegisterLEDsFlashThroughTheListenersOwnDoor) {
    EXPECT_EQ(0, parse(boardWithSlot("name = 'S1', status = { { type = 'register', reg = 62, bit = 35 } }"))) << said;
    for (SlotLED* led : listener.getSlot(eStorageSlotS1).getLEDs()) led->lightFlash();
    EXPECT_EQ((Lines{"thread detached"}), world.journal.take());
    for (SlotLED* led : listener.getSlot(eStorageSlotS1).getLEDs()) led->lightOff();
    EXPECT_EQ((Lines{"write 62 value=0 mask=0x0 shift=35"}), world.journal.take());
}

TEST_F(BoardSpecificationTest, ParameterLEDsWriteTheirParameter) {
    EXPECT_EQ(0, parse(boardWithSlot("name = 'S1', status = { { type = 'parameter', param = 0x9e010000 } }"))) << said;
    for (SlotLED* led : listener.getSlot(eStorageSlotS1).getLEDs()) led->lightFlash();
    EXPECT_EQ((Lines{"set 0x9e010000 2"}), world.journal.take());
}

TEST_F(BoardSpecificationTest, TheSensorTakesItsThreeNumbersAndMissingOnesAreZero) {
    EXPECT_EQ(0, parse(boardWithSlot("name = 'S1', present = { reg = 61, mask = '0x30', shift = 4.9 }"))) << said;
    listener.getSlot(eStorageSlotS1).isPresent();
    EXPECT_EQ((Lines{"read 61 mask=0x30 shift=4"}), world.journal.take());
    EXPECT_EQ(0, parse(boardWithSlot("name = 'S1', present = {}"))) << said;
    listener.getSlot(eStorageSlotS1).isPresent();
    EXPECT_EQ((Lines{"read 0 mask=0x0 shift=0"}), world.journal.take());
}

TEST_F(BoardSpecificationTest, PresenceCommandsAreIgnoredWithoutTheBoardCapability) {
    const char slot[] = "name = 'S1', cf_hack_present = 'power on', cf_hack_not_present = 'power off'";
    EXPECT_EQ(0, parse(boardWithSlot(slot, "'firewire_data'"))) << said;
    listener.getSlot(eStorageSlotS1).isPresent();
    EXPECT_EQ(Lines{}, world.journal.take());
    EXPECT_EQ(0, parse(boardWithSlot(slot, "'cf_hack'"))) << said;
    listener.getSlot(eStorageSlotS1).isPresent();
    EXPECT_EQ((Lines{"run power off"}), world.journal.take());
}

// --- successors and useful strings ---

TEST_F(BoardSpecificationTest, SuccessorsOfUnknownNamesMapToAndFromZero) {
    EXPECT_EQ(0, parse("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = { nextSlot = { S1 = 'X9' } }"))
        << said;
    EXPECT_EQ((std::map<eStorageSlot_t, eStorageSlot_t>{{eStorageSlotS1, eStorageSlotUnknown}}),
              listener.getNextSlotMap());
}

TEST_F(BoardSpecificationTest, ASuccessorFromAnUnknownNameIsTheOneOfSlotZero) {
    EXPECT_EQ(0, parse("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = { nextSlot = { X9 = 'D1' } }"))
        << said;
    EXPECT_EQ((std::map<eStorageSlot_t, eStorageSlot_t>{{eStorageSlotUnknown, eStorageSlotD1}}),
              listener.getNextSlotMap());
}

TEST_F(BoardSpecificationTest, DefaultAsAValueIsNoSlot) {
    EXPECT_EQ(0, parse("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = { nextSlot = { S1 = 'default' } }"));
    EXPECT_EQ((std::map<eStorageSlot_t, eStorageSlot_t>{{eStorageSlotS1, eStorageSlotUnknown}}),
              listener.getNextSlotMap());
}

TEST_F(BoardSpecificationTest, NumberKeysDoNotDisturbTheWalk) {
    // A list has number keys: each becomes the text of a number, which is no slot's name. Entries that are no text are
    // left out.
    EXPECT_EQ(0, parse("board_id = 0xa3c\nmediaCapabilities = {}\n"
                       "specification = { nextSlot = { 'S1', 'S1', 'S2', S2 = 'D1', D1 = true, [true] = 'D2' } }\n"
                       "usefulStrings = { 'one', 'two', [2.5] = 'half', three = 3, four = {}, [true] = 'five' }"))
        << said;
    EXPECT_EQ((std::map<eStorageSlot_t, eStorageSlot_t>{{eStorageSlotUnknown, eStorageSlotS2},
                                                        {eStorageSlotS2, eStorageSlotD1}}),
              listener.getNextSlotMap());
    EXPECT_EQ("one", listener.getUsefulString("1"));
    EXPECT_EQ("two", listener.getUsefulString("2"));
    EXPECT_EQ("half", listener.getUsefulString("2.5"));
    EXPECT_EQ("3", listener.getUsefulString("three"));
    EXPECT_EQ("", listener.getUsefulString("four"));
    EXPECT_EQ("", listener.getUsefulString("true"));
}

TEST_F(BoardSpecificationTest, AnAbsentUsefulStringIsEmptyAgainAndAgain) {
    EXPECT_EQ(0, parse(board("usefulStrings = { driver_load = 'x' }")));
    EXPECT_EQ("", listener.getUsefulString("driver_scan"));
    EXPECT_EQ("", listener.getUsefulString("driver_scan"));
    EXPECT_EQ("x", listener.getUsefulString("driver_load"));
}

// --- metatables ---

TEST_F(BoardSpecificationTest, AMetatableThatRaisesIsOneLineAndAFailure) {
    const char* const bad = "setmetatable({}, { __index = function(_, key) error('trap ' .. key, 0) end })";
    EXPECT_EQ(-1, parse(std::string("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = ") + bad));
    EXPECT_EQ("Media Manager unable to load specification file. trap slots\n", said);
    EXPECT_EQ(-1, parse(std::string("board_id = 0xa3c\nmediaCapabilities = {}\nspecification = { slots = { ") + bad +
                        "} }"));
    EXPECT_EQ("Media Manager unable to load specification file. trap name\n", said);
    EXPECT_EQ(-1, parse(boardWithSlot(std::string("name = 'S1', status = { ") + bad + " }")));
    EXPECT_EQ("Media Manager unable to load specification file. trap type\n", said);
    EXPECT_EQ(-1, parse("setmetatable(_G, { __index = function(_, key) error({}) end })"));
    EXPECT_EQ("Media Manager unable to load specification file. (error object is a table value)\n", said);
}

TEST_F(BoardSpecificationTest, AMetatableThatAnswersIsAsGoodAsATable) {
    EXPECT_EQ(0, parse("board_id = 0xa3c\nmediaCapabilities = {}\n"
                       "local common = { __index = { scanPath = '/scan' } }\n"
                       "specification = { slots = { setmetatable({ name = 'S1' }, common) } }"))
        << said;
    EXPECT_EQ("/scan", listener.getSlot(eStorageSlotS1).getScanPath());
}

TEST_F(BoardSpecificationTest, AFinalizerThatRaisesHarmsNobody) {
    EXPECT_EQ(0, parse(board("setmetatable({}, { __gc = function() error('late') end })"))) << said;
}

TEST_F(BoardSpecificationTest, NestingWithoutEndIsAnErrorAndNoCrash) {
    EXPECT_EQ(-1, parse("board_id = " + std::string(100000, '(')));
    EXPECT_TRUE(said.starts_with("Media Manager unable to load specification file. ")) << said.substr(0, 200);
    EXPECT_EQ(-1, parse("local function f() return 1 + f() end f()"));
    EXPECT_TRUE(said.starts_with("Media Manager unable to load specification file. ")) << said.substr(0, 200);
}

// --- reading values out of tables ---

class ConfigTableTest : public testing::Test {
protected:
    ConfigTableTest() { luaL_openlibs(lua.get()); }
    ~ConfigTableTest() override { EXPECT_EQ(1, lua_gettop(lua.get())) << "the stack is left as it was"; }
    void table(const std::string& text) { ASSERT_EQ(0, luaL_dostring(lua.get(), ("return " + text).c_str())); }

    std::unique_ptr<lua_State, decltype(&lua_close)> lua{luaL_newstate(), &lua_close};
};

TEST_F(ConfigTableTest, Numbers) {
    table("{ a = 61, b = '0x10', c = -1, d = 3.99, e = 0/0, f = 'text', g = {}, h = '12' }");
    const std::tuple<const char*, int, unsigned int> cases[] = {
        {"a", 0, 61U}, {"b", 0, 16U},  {"c", 0, 0xffffffffU}, {"d", 0, 3U},  {"e", 0, 0U},
        {"f", -1, 0U}, {"g", -1, 0U}, {"h", 0, 12U},        {"missing", -1, 0U}};
    for (const auto& [key, result, value] : cases) {
        unsigned int out = 77;
        EXPECT_EQ(result, getNumberFromConfigTable(lua.get(), key, out)) << key;
        EXPECT_EQ(value, out) << key;
    }
}

TEST_F(ConfigTableTest, Strings) {
    table("{ a = 'text', b = 12, c = true, d = {}, e = '', f = 1.5, g = 'a\\0b' }");
    const std::tuple<const char*, int, std::string> cases[] = {
        {"a", 0, "text"}, {"b", 0, "12"},  {"c", -1, ""},       {"d", -1, ""},
        {"e", 0, ""},     {"f", 0, "1.5"}, {"g", 0, {"a\0b", 3}}, {"missing", -1, ""}};
    for (const auto& [key, result, value] : cases) {
        std::string out = "before";
        EXPECT_EQ(result, getStringFromConfigTable(lua.get(), key, out)) << key;
        EXPECT_EQ(value, out) << key;
    }
}

TEST_F(ConfigTableTest, AConvertedNumberStaysANumberInTheTable) {
    table("{ a = 12 }");
    std::string out;
    getStringFromConfigTable(lua.get(), "a", out);
    lua_getfield(lua.get(), -1, "a");
    EXPECT_EQ(LUA_TNUMBER, lua_type(lua.get(), -1));
    lua_pop(lua.get(), 1);
}

} // namespace
