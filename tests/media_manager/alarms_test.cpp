// Alarm words, LEDs, capacity.

#include <algorithm>

#include "tests/media_manager/manager_test.h"

namespace {

class AlarmsTest : public ManagerTest {
protected:
    // The slot in use, with nothing measured yet; `used` percent of it.
    void startMeasuring(int used) {
        startWithMedium();
        media.media["sdb"].used = used;
    }
    Lines measure(int used, int before) {
        config.put(kParamCapacityRemaining, before);
        media.media["sdb"].used = used;
        effects();
        manager->updateCurrentSlotCapacityRemaining(true);
        return effectsOf("set");
    }
};

// --- the words

TEST_F(AlarmsTest, wordsAreReadAndWrittenWhole) {
    start();
    config.put(kParamAlarms, 0x12345);
    config.put(kParamExtendedAlarms, 0x678);
    EXPECT_EQ(manager->getAlarms(), 0x12345U);
    EXPECT_EQ(manager->getExtendedAlarms(), 0x678U);
    manager->setAlarms(static_cast<eAlarm_t>(0x81));
    manager->setExtendedAlarms(static_cast<eExtendedAlarm_t>(0x9));
    expectEffects({sets(kParamAlarms, 0x81), sets(kParamExtendedAlarms, 9)});
}

TEST_F(AlarmsTest, bitOperationsKeepTheOtherBitsAndWriteOnChangeOnly) {
    start();
    config.put(kParamAlarms, 0x80);
    manager->setAlarmBit(static_cast<eAlarm_t>(0x6));
    expectEffects({sets(kParamAlarms, 0x86)});
    manager->setAlarmBit(static_cast<eAlarm_t>(0x2));
    expectNoEffects();
    manager->setAlarmBit(static_cast<eAlarm_t>(0xa)); // one of two is new
    expectEffects({sets(kParamAlarms, 0x8e)});
    manager->clearAlarmBit(static_cast<eAlarm_t>(0x11)); // neither is there
    expectNoEffects();
    manager->clearAlarmBit(static_cast<eAlarm_t>(0x3)); // one is
    expectEffects({sets(kParamAlarms, 0x8c)});

    config.put(kParamExtendedAlarms, 0x80);
    manager->setExtendedAlarmBit(static_cast<eExtendedAlarm_t>(0x6));
    expectEffects({sets(kParamExtendedAlarms, 0x86)});
    manager->setExtendedAlarmBit(static_cast<eExtendedAlarm_t>(0x2));
    expectNoEffects();
    manager->clearExtendedAlarmBit(static_cast<eExtendedAlarm_t>(0x11));
    expectNoEffects();
    manager->clearExtendedAlarmBit(static_cast<eExtendedAlarm_t>(0x3));
    expectEffects({sets(kParamExtendedAlarms, 0x84)});
}

TEST_F(AlarmsTest, highestBitOfAWord) {
    start();
    manager->setAlarmBit(static_cast<eAlarm_t>(0x80000000U));
    EXPECT_EQ(manager->getAlarms(), 0x80000000U);
    effects();
    manager->setAlarmBit(static_cast<eAlarm_t>(0x80000000U));
    expectNoEffects();
    manager->clearAlarmBit(static_cast<eAlarm_t>(0x80000000U));
    EXPECT_EQ(manager->getAlarms(), 0U);
}

struct NamedAlarm {
    const char* name;
    eParam_t word;
    unsigned int bit;
    void (MediaManager::*raise)();
    void (MediaManager::*clear)(); // null when there is none
};

std::ostream& operator<<(std::ostream& out, const NamedAlarm& alarm) { return out << alarm.name; }

class NamedAlarmTest : public AlarmsTest, public ::testing::WithParamInterface<NamedAlarm> {};

INSTANTIATE_TEST_SUITE_P(
    , NamedAlarmTest,
    ::testing::Values(
        NamedAlarm{"hardwareFailure", kParamAlarms, 0x00000001, &MediaManager::raiseHardwareFailureAlarm, nullptr},
        NamedAlarm{"softwareFailure", kParamAlarms, 0x00000002, &MediaManager::raiseSoftwareFailureAlarm, nullptr},
        NamedAlarm{"storageRemoved", kParamAlarms, 0x00010000, &MediaManager::raiseStorageRemovedAlarm,
                   &MediaManager::clearStorageRemovedAlarm},
        NamedAlarm{"mediaUnformatted", kParamAlarms, 0x00800000, &MediaManager::raiseMediaUnformattedAlarm,
                   &MediaManager::clearMediaUnformattedAlarm},
        NamedAlarm{"mediaDamaged", kParamAlarms, 0x01000000, &MediaManager::raiseMediaDamagedAlarm,
                   &MediaManager::clearMediaDamagedAlarm},
        NamedAlarm{"unsupportedMedia", kParamExtendedAlarms, 0x00000001, &MediaManager::raiseUnsupportedMediaAlert,
                   &MediaManager::clearUnsupportedMediaAlert},
        NamedAlarm{"codecUnsupported", kParamExtendedAlarms, 0x00000008,
                   &MediaManager::raiseCodecUnsupportedForMediaAlarm,
                   &MediaManager::clearCodecUnsupportedForMediaAlarm}),
    [](const auto& instance) { return instance.param.name; });

TEST_P(NamedAlarmTest, changesItsBitAndNoOther) {
    start();
    const NamedAlarm& alarm = GetParam();
    const unsigned int others = 0x40205a50; // none of the bits above
    config.put(alarm.word, static_cast<int>(others));
    ((*manager).*alarm.raise)();
    expectEffects({sets(alarm.word, static_cast<int>(others | alarm.bit))});
    ((*manager).*alarm.raise)();
    expectNoEffects();
    if (alarm.clear == nullptr) return;
    ((*manager).*alarm.clear)();
    expectEffects({sets(alarm.word, static_cast<int>(others))});
    ((*manager).*alarm.clear)();
    expectNoEffects();
}

TEST_P(NamedAlarmTest, leavesTheOtherWordAlone) {
    start();
    const NamedAlarm& alarm = GetParam();
    const eParam_t other = alarm.word == kParamAlarms ? kParamExtendedAlarms : kParamAlarms;
    config.recordGets = true;
    ((*manager).*alarm.raise)();
    for (const std::string& line : effects()) EXPECT_EQ(line.find(fakes::hex(other, 8)), std::string::npos) << line;
}

TEST_F(AlarmsTest, capacityAlarmsPassTheirBitsThrough) {
    start();
    config.put(kParamAlarms, 0x1);
    manager->setCurrentCapacityRemainingAlarm(eAlarmCapacityLow);
    manager->setCurrentCapacityRemainingAlarm(eAlarmCapacityLow);
    manager->setCurrentCapacityRemainingAlarm(eAlarmCapacityCritical);
    manager->clearCurrentCapacityRemainingAlarm(eAlarmCapacityLow);
    manager->clearCurrentCapacityRemainingAlarm(eAlarmCapacityLow);
    manager->clearCurrentCapacityRemainingAlarm(eAlarmCapacityCritical);
    expectEffects({sets(kParamAlarms, 0x2001), sets(kParamAlarms, 0x6001), sets(kParamAlarms, 0x4001),
                   sets(kParamAlarms, 0x1)});
}

TEST_F(AlarmsTest, invalidMediaAlertIsAParameterOfItsOwn) {
    start();
    manager->raiseInvalidMediaAlert();
    manager->raiseInvalidMediaAlert();
    expectEffects({sets(kParamInvalidMediaAlert, 1), sets(kParamInvalidMediaAlert, 1)});
}

// --- LEDs

TEST_F(AlarmsTest, everyLEDOfTheSlotIsCommanded) {
    start("table.insert(specification.slots[1].status, { type = 'parameter', param = 0x2f010001 })");
    for (const eStorageLEDStatus_t status : {eStorageLEDOn, eStorageLEDFlash, eStorageLEDOff}) {
        EXPECT_EQ(manager->setLED(eStorageSlotS1, status), 0);
        Lines lines = effects();
        std::sort(lines.begin(), lines.end());
        EXPECT_EQ(lines, (Lines{sets(0x2f010000, status), sets(0x2f010001, status)}));
    }
    EXPECT_EQ(manager->setLED(eStorageSlotS1, static_cast<eStorageLEDStatus_t>(3)), 0);
    EXPECT_EQ(manager->setLED(eStorageSlotUnknown, eStorageLEDOn), 0);
    EXPECT_EQ(manager->setLED(eStorageSlotD2, eStorageLEDOn), 0);
    expectNoEffects();
}

TEST_F(AlarmsTest, selectedMediumFlashesWhileTheTransportRecords) {
    startWithMedium();
    post(kParamTransportState, 2);
    manager->StalkTransporterAndFlashIfRecording();
    expectEffects({led(S1, eStorageLEDFlash)});
    for (unsigned int state : {0U, 1U, 3U, 5U, 15U}) {
        post(kParamTransportState, 2);
        manager->StalkTransporterAndFlashIfRecording();
        effects();
        post(kParamTransportState, state);
        manager->StalkTransporterAndFlashIfRecording();
        expectEffects({led(S1, eStorageLEDOn)});
    }
}

TEST_F(AlarmsTest, mediumThatIsNotMountedDoesNotFlash) {
    makeManager();
    insert(S1, "sdb");
    start(); // selected, but not mounted yet
    post(kParamTransportState, 2);
    manager->StalkTransporterAndFlashIfRecording();
    expectNoEffects();
}

// --- the medium in use is gone

TEST_F(AlarmsTest, removalOfTheSelectedMedium) {
    startWithMedium();
    config.put(kParamAlarms, 0x2);
    EXPECT_TRUE(manager->checkForStorageRemovedAlarm(eStorageSlotS1));
    expectEffects({sets(kParamAlarms, 0x10002), sets(kParamSlotChangeCommand, 14), led(S1, eStorageLEDOff)});
    EXPECT_FALSE(manager->pass()); // the loop ends
}

TEST_F(AlarmsTest, removalOfAnotherMediumIsNoAlarm) {
    startWithMedium();
    EXPECT_FALSE(manager->checkForStorageRemovedAlarm(eStorageSlotS2));
    expectNoEffects();
    EXPECT_TRUE(manager->pass());
}

// --- the codec

TEST_F(AlarmsTest, codecOneNeedsACapabilityOfTheSelectedSlot) {
    startWithMedium(S2, "sdc"); // S2 has it not
    config.put(kParamExtendedAlarms, 0x1);
    config.put(kParamEncodeType, 1);
    manager->checkIfCodecSupportedForMedia();
    expectEffects({sets(kParamExtendedAlarms, 0x9)});
    manager->checkIfCodecSupportedForMedia();
    expectNoEffects();
    for (int type : {0, 2, 3, 6}) {
        config.put(kParamExtendedAlarms, 0x9);
        config.put(kParamEncodeType, type);
        manager->checkIfCodecSupportedForMedia();
        expectEffects({sets(kParamExtendedAlarms, 0x1)});
    }
}

TEST_F(AlarmsTest, codecOneOnASlotThatCan) {
    startWithMedium();
    config.put(kParamEncodeType, 1);
    manager->checkIfCodecSupportedForMedia();
    expectNoEffects();
    config.put(kParamExtendedAlarms, 0x8);
    manager->checkIfCodecSupportedForMedia();
    expectEffects({sets(kParamExtendedAlarms, 0)});
}

TEST_F(AlarmsTest, codecOneWithNothingSelected) {
    start();
    config.put(kParamEncodeType, 1);
    config.put(kParamExtendedAlarms, 0x8);
    manager->checkIfCodecSupportedForMedia();
    expectEffects({sets(kParamExtendedAlarms, 0)});
}

// --- capacity

TEST_F(AlarmsTest, capacityOfNoSlot) {
    start();
    EXPECT_EQ(manager->remainingPercentageOfCapacity(eStorageSlotUnknown), 0);
    expectNoEffects();
}

TEST_F(AlarmsTest, capacityCommandAndItsOutput) {
    startWithMedium();
    const std::string line = "df | grep /mnt/S1 | awk '{ print $5 }'";
    struct Output {
        std::string text;
        int percent;
    };
    for (const Output& output : {Output{"40%\n", 60}, Output{"0%\n", 100}, Output{"100%\n", 0}, Output{"7", 93},
                                 Output{"", 100}, Output{"-\n", 100}, Output{"  30%\n", 70},
                                 // /mnt/S10 and its like: the first line counts.
                                 Output{"80%\n20%\n", 20}}) {
        shell.answer(line, 0, output.text, 1);
        EXPECT_EQ(manager->remainingPercentageOfCapacity(eStorageSlotS1), output.percent) << output.text;
        expectEffects({"run " + line});
    }
}

TEST_F(AlarmsTest, capacityThatCannotBeMeasured) {
    startWithMedium();
    shell.answer("df | grep /mnt/S1 | awk '{ print $5 }'", 1, "40%\n");
    EXPECT_EQ(manager->remainingPercentageOfCapacity(eStorageSlotS1), 0);
    effects();
    config.put(kParamCapacityRemaining, 50);
    manager->updateCurrentSlotCapacityRemaining(true);
    EXPECT_EQ(effectsOf("set"), (Lines{sets(kParamCapacityRemaining, 0), sets(kParamAlarms, 0x4000)}));
}

TEST_F(AlarmsTest, capacityOfASlotWithoutAMountPoint) {
    start();
    manager->remainingPercentageOfCapacity(eStorageSlotD1);
    expectEffects({"run df | grep  | awk '{ print $5 }'"});
}

struct Threshold {
    int remaining;
    unsigned int alarms;
};

class ThresholdTest : public AlarmsTest, public ::testing::WithParamInterface<Threshold> {};

INSTANTIATE_TEST_SUITE_P(, ThresholdTest,
                         ::testing::Values(Threshold{0, 0x4000}, Threshold{1, 0x4000}, Threshold{9, 0x4000},
                                           Threshold{10, 0x4000}, Threshold{11, 0x2000}, Threshold{12, 0x2000},
                                           Threshold{14, 0x2000}, Threshold{15, 0x2000}, Threshold{16, 0},
                                           Threshold{17, 0}, Threshold{50, 0}, Threshold{99, 0}, Threshold{100, 0}),
                         [](const auto& instance) { return "at" + std::to_string(instance.param.remaining); });

TEST_P(ThresholdTest, decidesTheCapacityAlarmsWhateverTheyWere) {
    startMeasuring(0);
    for (unsigned int before : {0x0U, 0x2000U, 0x4000U, 0x6000U}) {
        config.put(kParamAlarms, static_cast<int>(before | 0x10001U));
        measure(100 - GetParam().remaining, 50);
        EXPECT_EQ(config.integer(kParamAlarms), static_cast<int>(GetParam().alarms | 0x10001U)) << before;
    }
}

TEST_F(AlarmsTest, capacityAlarmsChangeInTheirOrder) {
    startMeasuring(0);
    config.put(kParamAlarms, 0x2000);
    EXPECT_EQ(measure(95, 5), (Lines{sets(kParamAlarms, 0), sets(kParamAlarms, 0x4000)}));
    EXPECT_EQ(measure(88, 12), (Lines{sets(kParamAlarms, 0), sets(kParamAlarms, 0x2000)}));
    config.put(kParamAlarms, 0x6000);
    EXPECT_EQ(measure(50, 50), (Lines{sets(kParamAlarms, 0x2000), sets(kParamAlarms, 0)}));
    EXPECT_EQ(measure(50, 50), Lines{});
}

TEST_F(AlarmsTest, moreThanFullCountsAsMuchRoom) {
    startMeasuring(0);
    config.put(kParamAlarms, 0x6000);
    // The comparison takes a negative rest for a huge one.
    measure(105, 50);
    EXPECT_EQ(config.integer(kParamCapacityRemaining), -5);
    EXPECT_EQ(config.integer(kParamAlarms), 0);
}

TEST_F(AlarmsTest, stepFromNinetyNineToHundredIsNotShown) {
    startMeasuring(0);
    EXPECT_EQ(measure(0, 99), Lines{});
    EXPECT_EQ(config.integer(kParamCapacityRemaining), 99);
    EXPECT_EQ(measure(1, 100), Lines{sets(kParamCapacityRemaining, 99)});
    EXPECT_EQ(measure(0, 98), Lines{sets(kParamCapacityRemaining, 100)});
    EXPECT_EQ(measure(0, 100), Lines{});
    EXPECT_EQ(measure(2, 99), Lines{sets(kParamCapacityRemaining, 98)});
}

TEST_F(AlarmsTest, capacityWithNothingSelectedIsZeroWithoutAlarms) {
    start();
    config.put(kParamCapacityRemaining, 40);
    config.put(kParamAlarms, 0x2001);
    manager->updateCurrentSlotCapacityRemaining(true);
    expectEffects({sets(kParamCapacityRemaining, 0)});
}

TEST_F(AlarmsTest, capacityIsMeasuredAtMostEveryFiveSeconds) {
    startMeasuring(40);
    manager->updateCurrentSlotCapacityRemaining(false);
    EXPECT_EQ(effectsOf("run").size(), 1U);
    manager->updateCurrentSlotCapacityRemaining(false);
    expectNoEffects();
    os.advance(5'000'000'000);
    manager->updateCurrentSlotCapacityRemaining(false); // not later than five seconds
    expectNoEffects();
    os.advance(1'000'000'000);
    manager->updateCurrentSlotCapacityRemaining(false);
    EXPECT_EQ(effectsOf("run").size(), 1U);
}

TEST_F(AlarmsTest, capacityIsMeasuredInTimeWhateverTheDate) {
    startMeasuring(40);
    manager->updateCurrentSlotCapacityRemaining(true);
    effects();
    os.startTime += 1'000'000;
    manager->updateCurrentSlotCapacityRemaining(false);
    expectNoEffects();
    os.startTime -= 2'000'000;
    os.advance(6'000'000'000);
    manager->updateCurrentSlotCapacityRemaining(false);
    EXPECT_EQ(effectsOf("run").size(), 1U);
}

TEST_F(AlarmsTest, forcedMeasurementIsMadeAndCounts) {
    startMeasuring(40);
    manager->updateCurrentSlotCapacityRemaining(true);
    manager->updateCurrentSlotCapacityRemaining(true);
    EXPECT_EQ(effectsOf("run").size(), 2U);
    os.advance(3'000'000'000);
    manager->updateCurrentSlotCapacityRemaining(true);
    effects();
    os.advance(3'000'000'000);
    manager->updateCurrentSlotCapacityRemaining(false);
    expectNoEffects();
}

// --- the reel

TEST_F(AlarmsTest, reelName) {
    start();
    EXPECT_EQ(manager->getReelName(), "000");
    const std::vector<std::pair<int, std::string>> reels = {{0, "000"},    {7, "007"},    {42, "042"},
                                                            {999, "999"}, {1234, "1234"}};
    for (const auto& [number, name] : reels) {
        config.put(kParamReelNumber, number);
        EXPECT_EQ(manager->getReelName(), name);
    }
    expectNoEffects();
}

} // namespace
