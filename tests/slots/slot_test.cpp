// Slots and their presence sensors.

#include "slots/slot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "slots/slot_led_param.h"
#include "tests/fakes/fakes.h"

namespace {

using fakes::Lines;

class SlotTest : public testing::Test {
protected:
    // A slot whose medium is bit 4 of register 61.
    Slot slotWithSensor() {
        Slot slot;
        slot.setSensor(SlotSensor(61, 0x10, 0, &world.card));
        return slot;
    }

    fakes::World world;
};

TEST(StorageSlot, NumbersOfTheIdentifiers) {
    EXPECT_EQ(0, eStorageSlotUnknown);
    EXPECT_EQ(1, eStorageSlotS1);
    EXPECT_EQ(2, eStorageSlotS2);
    EXPECT_EQ(3, eStorageSlotD1);
    EXPECT_EQ(4, eStorageSlotD2);
    static_assert(sizeof(eStorageSlot_t) == 4);
}

TEST_F(SlotTest, DefaultsOfANewSlot) {
    Slot slot;
    EXPECT_EQ(eStorageSlotUnknown, slot.getSlotID());
    EXPECT_FALSE(slot.isRecognizedByTheDriver());
    EXPECT_EQ("Unknown Slot", slot.getName());
    EXPECT_EQ("", slot.getDevname());
    EXPECT_EQ("", slot.getAddress());
    EXPECT_EQ("", slot.getScanPath());
    EXPECT_FALSE(slot.hasCapability("writeable"));
    EXPECT_FALSE(slot.hasCapability("proreshq"));
    EXPECT_TRUE(slot.getLEDs().empty());
    EXPECT_TRUE(slot.getLastPresentResult()) << "true before the first check";
    EXPECT_FALSE(slot.isNewlyInserted());
    EXPECT_FALSE(slot.isPresent()) << "no card in its sensor";
}

TEST_F(SlotTest, PlainAccess) {
    Slot slot;
    slot.setSlotID(eStorageSlotD2);
    slot.setName("D2");
    slot.setDevname("sdc");
    slot.setAddress("/ata2/");
    slot.setScanPath("/sys/class/scsi_host/host1/scan");
    slot.setRecognizedByTheDriver(true);
    slot.setNewlyInserted(true);
    EXPECT_EQ(eStorageSlotD2, slot.getSlotID());
    EXPECT_EQ("D2", slot.getName());
    EXPECT_EQ("sdc", slot.getDevname());
    EXPECT_EQ("/ata2/", slot.getAddress());
    EXPECT_EQ("/sys/class/scsi_host/host1/scan", slot.getScanPath());
    EXPECT_TRUE(slot.isRecognizedByTheDriver());
    EXPECT_TRUE(slot.isNewlyInserted());
    slot.setRecognizedByTheDriver(false);
    slot.setNewlyInserted(false);
    EXPECT_FALSE(slot.isRecognizedByTheDriver());
    EXPECT_FALSE(slot.isNewlyInserted());
}

TEST_F(SlotTest, KnownCapabilities) {
    EXPECT_TRUE(Slot::isKnownCapability("writeable"));
    EXPECT_TRUE(Slot::isKnownCapability("proreshq"));
    EXPECT_FALSE(Slot::isKnownCapability("cf_hack"));
    EXPECT_FALSE(Slot::isKnownCapability(""));
    EXPECT_EQ((std::set<std::string>{"proreshq", "writeable"}), Slot::knownCapabilities);
}

TEST_F(SlotTest, CapabilitiesAreASet) {
    Slot slot;
    slot.addCapability("writeable");
    slot.addCapability("writeable");
    EXPECT_TRUE(slot.hasCapability("writeable"));
    EXPECT_FALSE(slot.hasCapability("proreshq"));
}

TEST_F(SlotTest, AnLEDIsAddedOnce) {
    SlotLEDParam led(0x7e010000, &world.config);
    Slot slot;
    slot.addLED(&led);
    slot.addLED(&led);
    EXPECT_EQ((std::set<SlotLED*>{&led}), slot.getLEDs());
}

TEST_F(SlotTest, ACopySharesItsLEDsAndHasEveryField) {
    SlotLEDParam led(0x7e010000, &world.config);
    Slot slot = slotWithSensor();
    slot.setSlotID(eStorageSlotS2);
    slot.setName("S2");
    slot.setAddress("/ata2/");
    slot.setScanPath("/scan");
    slot.addCapability("proreshq");
    slot.addLED(&led);
    slot.setSystem(&world.shell);
    slot.setCFHackPresentString("power on");
    slot.setCFHackNotPresentString("power off");
    slot.announce("sdb");
    slot.isPresent();
    world.journal.clear();

    Slot assigned;
    assigned = slot;
    for (Slot copy : {slot, assigned}) {
        EXPECT_EQ(eStorageSlotS2, copy.getSlotID());
        EXPECT_EQ("S2", copy.getName());
        EXPECT_EQ("/ata2/", copy.getAddress());
        EXPECT_EQ("/scan", copy.getScanPath());
        EXPECT_TRUE(copy.hasCapability("proreshq"));
        EXPECT_EQ((std::set<SlotLED*>{&led}), copy.getLEDs());
        EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), copy.readAnnouncement());
        EXPECT_FALSE(copy.getLastPresentResult());
        world.card.put(61, 0x10);
        EXPECT_TRUE(copy.isPresent());
        world.card.put(61, 0);
        EXPECT_FALSE(copy.isPresent());
        EXPECT_EQ((Lines{"run power on", "run power off"}), world.journal.matching("run"));
        world.journal.clear();
    }
}

TEST_F(SlotTest, TheUnknownSlotIsOneAndKeepsItsChanges) {
    Slot& unknown = Slot::getUnknownSlot();
    EXPECT_EQ(&unknown, &Slot::getUnknownSlot());
    EXPECT_EQ(eStorageSlotUnknown, unknown.getSlotID());
    EXPECT_EQ("Unknown Slot", unknown.getName());
    unknown.setNewlyInserted(true);
    EXPECT_TRUE(Slot::getUnknownSlot().isNewlyInserted());
    unknown.setNewlyInserted(false);
}

// --- the sensor ---

TEST_F(SlotTest, SensorWithoutACardIsNeverPresent) {
    EXPECT_FALSE(SlotSensor().isPresent());
    EXPECT_FALSE(SlotSensor(61, 0, 0, nullptr).isPresent());
    EXPECT_EQ(Lines{}, world.journal.take());
}

TEST_F(SlotTest, SensorReadsItsRegisterWithMaskAndShift) {
    SlotSensor(61, 0x10, 3, &world.card).isPresent();
    EXPECT_EQ((Lines{"read 61 mask=0x10 shift=3"}), world.journal.take());
}

TEST_F(SlotTest, SensorThatCannotBeReadMeansAbsent) {
    world.card.put(61, 0x10);
    world.card.readResult = false;
    EXPECT_FALSE(SlotSensor(61, 0x10, 0, &world.card).isPresent());
}

TEST_F(SlotTest, SensorThatCannotBeReadMeansAbsentWithAnEmptyMaskToo) {
    world.card.readResult = false;
    EXPECT_FALSE(SlotSensor(61, 0, 0, &world.card).isPresent());
}

TEST_F(SlotTest, SensorWantsAllBitsOfItsMask) {
    const SlotSensor sensor(61, 0x30, 0, &world.card);
    world.card.put(61, 0x10);
    EXPECT_FALSE(sensor.isPresent());
    world.card.put(61, 0xf0);
    EXPECT_TRUE(sensor.isPresent());
}

TEST_F(SlotTest, SensorComparesWithTheUnshiftedMask) {
    // Bit 4 set, shifted down by 4, is bit 0: it no longer covers the mask 0x10.
    world.card.put(61, 0x10);
    EXPECT_FALSE(SlotSensor(61, 0x10, 4, &world.card).isPresent());
    // A field of all ones still covers the low part of itself only: 0xff >> 4 is 0x0f.
    world.card.put(61, 0xff);
    EXPECT_FALSE(SlotSensor(61, 0xff, 4, &world.card).isPresent());
    // An empty mask is always covered.
    EXPECT_TRUE(SlotSensor(61, 0, 4, &world.card).isPresent());
}

// --- presence ---

TEST_F(SlotTest, ASlotWithoutASensorIsNeverPresentAndNeverReady) {
    Slot slot;
    slot.setRecognizedByTheDriver(true);
    EXPECT_FALSE(slot.isPresent());
    EXPECT_FALSE(slot.isReady());
}

TEST_F(SlotTest, FirstCheckOfAnEmptySlotRunsTheNotPresentCommand) {
    Slot slot = slotWithSensor();
    slot.setSystem(&world.shell);
    slot.setCFHackPresentString("power on");
    slot.setCFHackNotPresentString("power off");
    EXPECT_FALSE(slot.isPresent());
    EXPECT_EQ((Lines{"read 61 mask=0x10 shift=0", "run power off"}), world.journal.take());
}

TEST_F(SlotTest, FirstCheckOfAFullSlotRunsThePresentCommand) {
    Slot slot = slotWithSensor();
    slot.setSystem(&world.shell);
    slot.setCFHackPresentString("power on");
    slot.setCFHackNotPresentString("power off");
    world.card.put(61, 0x10);
    EXPECT_TRUE(slot.isPresent());
    EXPECT_EQ((Lines{"read 61 mask=0x10 shift=0", "run power on"}), world.journal.take());
}

TEST_F(SlotTest, OnlyAChangeRunsACommand) {
    Slot slot = slotWithSensor();
    slot.setSystem(&world.shell);
    slot.setCFHackPresentString("power on");
    slot.setCFHackNotPresentString("power off");
    slot.isPresent();
    slot.isPresent();
    EXPECT_EQ((Lines{"run power off"}), world.journal.matching("run"));
    world.card.put(61, 0x10);
    slot.isPresent();
    slot.isPresent();
    EXPECT_EQ((Lines{"run power off", "run power on"}), world.journal.matching("run"));
    world.card.put(61, 0);
    slot.isPresent();
    EXPECT_EQ((Lines{"run power off", "run power on", "run power off"}), world.journal.matching("run"));
}

TEST_F(SlotTest, AnEmptyCommandIsNotRun) {
    Slot slot = slotWithSensor();
    slot.setSystem(&world.shell);
    slot.setCFHackPresentString("power on");
    EXPECT_FALSE(slot.isPresent());
    EXPECT_EQ(Lines{}, world.journal.matching("run"));
    Slot withoutShell = slotWithSensor();
    withoutShell.isPresent();
    world.card.put(61, 0x10);
    EXPECT_TRUE(withoutShell.isPresent());
}

TEST_F(SlotTest, TheCommandRunsBeforeTheResultIsKeptAndWithoutTheLock) {
    Slot slot = slotWithSensor();
    slot.setSystem(&world.shell);
    slot.setCFHackNotPresentString("power off");
    bool before = false;
    world.shell.handle("power off", [&](const std::string&) {
        before = slot.getLastPresentResult();
        slot.announce("sdb"); // a lock that were held would stop us here for ever
        return fakes::FakeFileUtils::Answer{1, ""};
    });
    EXPECT_FALSE(slot.isPresent()) << "the command's result means nothing";
    EXPECT_TRUE(before);
    EXPECT_FALSE(slot.getLastPresentResult());
}

TEST_F(SlotTest, LastPresentResultFollowsTheChecks) {
    Slot slot = slotWithSensor();
    EXPECT_TRUE(slot.getLastPresentResult());
    slot.isPresent();
    EXPECT_FALSE(slot.getLastPresentResult());
    world.card.put(61, 0x10);
    EXPECT_FALSE(slot.getLastPresentResult());
    slot.isPresent();
    EXPECT_TRUE(slot.getLastPresentResult());
}

TEST_F(SlotTest, AnUnrecognizedSlotIsNotReadyAndItsRegisterIsNotRead) {
    Slot slot = slotWithSensor();
    world.card.put(61, 0x10);
    EXPECT_FALSE(slot.isReady());
    EXPECT_EQ(Lines{}, world.journal.take());
}

TEST_F(SlotTest, ReadyIsRecognizedAndPresent) {
    Slot slot = slotWithSensor();
    slot.setRecognizedByTheDriver(true);
    EXPECT_FALSE(slot.isReady());
    world.card.put(61, 0x10);
    EXPECT_TRUE(slot.isReady());
}

// --- announcements ---

TEST_F(SlotTest, AnnounceAndRetract) {
    Slot slot;
    slot.announce("sdb");
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot.readAnnouncement());
    EXPECT_TRUE(slot.isRecognizedByTheDriver());
    EXPECT_TRUE(slot.isNewlyInserted());
    EXPECT_EQ("sdb", slot.getDevname());
    slot.retract();
    EXPECT_EQ((SlotAnnouncement{false, true, ""}), slot.readAnnouncement()) << "newly inserted stays";
}

TEST_F(SlotTest, TakingAnAnnouncementClearsNewlyInsertedOnly) {
    Slot slot;
    slot.announce("sdb");
    EXPECT_EQ((SlotAnnouncement{true, true, "sdb"}), slot.takeAnnouncement());
    EXPECT_EQ((SlotAnnouncement{true, false, "sdb"}), slot.takeAnnouncement());
    EXPECT_EQ((SlotAnnouncement{true, false, "sdb"}), slot.readAnnouncement());
}

TEST_F(SlotTest, AnAnnouncementIsNeverSeenHalf) {
    Slot slot;
    std::atomic<bool> done{false};
    std::thread kernel([&] {
        for (int i = 0; i < 20000; ++i) {
            slot.announce("sdb");
            slot.retract();
        }
        done = true;
    });
    while (!done) {
        const SlotAnnouncement seen = slot.takeAnnouncement();
        EXPECT_EQ(seen.recognized, seen.devname == "sdb");
        const Slot copy(slot);
        EXPECT_EQ(copy.isRecognizedByTheDriver(), copy.getDevname() == "sdb");
    }
    kernel.join();
}

} // namespace
