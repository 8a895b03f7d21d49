// The store's engine on its own: values, types, events, listeners, bounds.

#include "platform/parameter_store/store_engine.h"

#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <memory>
#include <thread>

#include "platform/parameter_store/store_objects.h"
#include "platform/parameter_store/value_rules.h"
#include "allocation_count.h"
#include "recording_listener.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Heard = RecordingListener::Heard;

constexpr eParam_t kLed = 0x41424344; // of a board: no descriptor names it

const auto integer = RecordingListener::integer;
const auto text = RecordingListener::text;

} // namespace

TEST(StoreEngine, descriptorsHaveDefaults) {
    StoreEngine engine;
    for (const ParameterDescriptor& descriptor : parameterDescriptors()) {
        SCOPED_TRACE(descriptor.name);
        int value = 7;
        std::string string = "before";
        if (descriptor.type == ParameterType::Integer) {
            EXPECT_EQ(engine.getInteger(descriptor.id, value), kConfigOk);
            EXPECT_EQ(value, 0);
            EXPECT_EQ(engine.getString(descriptor.id, string), kConfigWrongType);
            EXPECT_EQ(string, "before");
        } else {
            EXPECT_EQ(engine.getString(descriptor.id, string), kConfigOk);
            EXPECT_EQ(string, "");
            EXPECT_EQ(engine.getInteger(descriptor.id, value), kConfigWrongType);
            EXPECT_EQ(value, 7);
        }
    }
}

TEST(StoreEngine, keepsIntegersOfEverySign) {
    StoreEngine engine;
    for (const int each : {0, 1, -1, 2147483647, -2147483647 - 1}) {
        EXPECT_EQ(engine.setInteger(kParamAlarms, each), kConfigOk);
        int value = 5;
        EXPECT_EQ(engine.getInteger(kParamAlarms, value), kConfigOk);
        EXPECT_EQ(value, each);
    }
}

TEST(StoreEngine, unknownIdentifierTakesTheTypeOfItsFirstWrite) {
    StoreEngine engine;
    int value = 7;
    std::string string = "before";
    EXPECT_EQ(engine.getInteger(kLed, value), kConfigUnknown);
    EXPECT_EQ(engine.getString(kLed, string), kConfigUnknown);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(string, "before");

    EXPECT_EQ(engine.setInteger(kLed, 2), kConfigOk);
    EXPECT_EQ(engine.setString(kLed, "two"), kConfigWrongType);
    EXPECT_EQ(engine.getInteger(kLed, value), kConfigOk);
    EXPECT_EQ(value, 2);

    EXPECT_EQ(engine.setString(kLed + 1, "two"), kConfigOk);
    EXPECT_EQ(engine.setInteger(kLed + 1, 2), kConfigWrongType);
}

TEST(StoreEngine, wrongTypeIsRefusedWithoutAnEvent) {
    StoreEngine engine;
    RecordingListener listener;
    engine.addListener(&listener, &listener);
    EXPECT_EQ(engine.setString(kParamAlarms, "1"), kConfigWrongType);
    EXPECT_EQ(engine.setInteger(kParamClipName, 1), kConfigWrongType);
    EXPECT_EQ(engine.pump(), 0U);
    EXPECT_THAT(listener.heard, IsEmpty());
}

TEST(StoreEngine, stringsHaveALimitAndNoNul) {
    StoreEngine engine;
    RecordingListener listener;
    engine.addListener(&listener, &listener);
    EXPECT_EQ(engine.setString(kParamClipName, std::string(kLongestString, 'x')), kConfigOk);
    EXPECT_EQ(engine.setString(kParamClipName, std::string(kLongestString + 1, 'y')), kConfigRefused);
    EXPECT_EQ(engine.setString(kParamClipName, std::string("a\0b", 3)), kConfigRefused);
    std::string value;
    engine.getString(kParamClipName, value);
    EXPECT_EQ(value, std::string(kLongestString, 'x'));
    engine.pump();
    EXPECT_THAT(listener.heard, SizeIs(1));
}

// The names that may stand in the storage manager's command lines, and those that must not.
struct DeletionRow {
    const char* request;
    bool taken;
};
std::ostream& operator<<(std::ostream& out, const DeletionRow& row) {
    return out << testing::PrintToString(std::string(row.request)); // a name of the test, so nothing may be raw
}
struct DeletionRequests : testing::TestWithParam<DeletionRow> {};

TEST_P(DeletionRequests, areTakenOrRefusedWhole) {
    StoreEngine engine;
    RecordingListener listener;
    ASSERT_EQ(engine.setString(kParamClipsToDelete, "before.mov"), kConfigOk);
    engine.addListener(&listener, &listener);
    const std::string request = GetParam().request;
    EXPECT_EQ(engine.setString(kParamClipsToDelete, request), GetParam().taken ? kConfigOk : kConfigRefused);
    std::string value;
    engine.getString(kParamClipsToDelete, value);
    EXPECT_EQ(value, GetParam().taken ? request : "before.mov");
    engine.pump();
    EXPECT_THAT(listener.heard, SizeIs(GetParam().taken ? 1 : 0)) << "nobody hears of a refused request";

    // What an older store wrote down does not come back either.
    StoreEntry entry;
    entry.type = ParameterType::String;
    entry.text = request;
    EXPECT_EQ(StoreEngine().restore(kParamClipsToDelete, entry), GetParam().taken);
    // Nor does what another process's store claims to have taken.
    StoreEngine mirror;
    RecordingListener listenerOfMirror;
    mirror.addListener(&listenerOfMirror, &listenerOfMirror);
    EXPECT_TRUE(mirror.apply(kParamClipsToDelete, entry, timeval{}));
    mirror.pump();
    EXPECT_THAT(listenerOfMirror.heard, SizeIs(GetParam().taken ? 1 : 0));
    mirror.getString(kParamClipsToDelete, value);
    EXPECT_EQ(value, GetParam().taken ? request : "");
    // It is about this parameter only.
    EXPECT_EQ(engine.setString(kParamClipName, request), kConfigOk);
}

INSTANTIATE_TEST_SUITE_P(
    Taken, DeletionRequests,
    testing::Values(DeletionRow{"", true}, DeletionRow{"|", true}, DeletionRow{"*", true}, DeletionRow{"a.mov", true},
                    DeletionRow{"a.mov|b.mov", true}, DeletionRow{"a.mov||b.mov|", true}, DeletionRow{"a.mov|*", true},
                    DeletionRow{"Take 1 (2).mov", true}, DeletionRow{"*.mov|?|[a]|~|{a,b}|!x|#|&|;|<|>|'", true},
                    DeletionRow{"...|.hidden|..a|a..", true}, DeletionRow{"a-b|a-", true},
                    DeletionRow{"Stra\xc3\x9f" "e.mov", true}, DeletionRow{"\xff\x80", true}));

INSTANTIATE_TEST_SUITE_P(
    Refused, DeletionRequests,
    testing::Values(DeletionRow{"a\".mov", false}, DeletionRow{"a\\", false}, DeletionRow{"$HOME", false},
                    DeletionRow{"a$", false}, DeletionRow{"`id`", false}, DeletionRow{"a\nb", false},
                    DeletionRow{"a\tb", false}, DeletionRow{"a\x01", false}, DeletionRow{"a\x1f", false},
                    DeletionRow{"a\x7f", false}, DeletionRow{"-", false}, DeletionRow{"-rf", false},
                    DeletionRow{"--", false}, DeletionRow{".", false}, DeletionRow{"..", false},
                    DeletionRow{"/", false}, DeletionRow{"a/b", false}, DeletionRow{"../a.mov", false},
                    DeletionRow{"/etc/passwd", false}, DeletionRow{"a.mov|-rf|b.mov", false},
                    DeletionRow{"a.mov|..", false}, DeletionRow{"..|a.mov", false}, DeletionRow{"*|a\"", false},
                    DeletionRow{"a.mov|b.mov|c\\", false}));

TEST(StoreEngine, aSettingThatIsReadAsADeletionRequestCannotLeaveItsQuotes) {
    StoreEngine engine;
    for (const char* setting : {"", "A|B", "-12", "a/b", "..", "a\nb", "*", "'x'"})
        EXPECT_EQ(engine.setString(kParamRecordSetting1302, setting), kConfigOk) << setting;
    for (const char* setting : {"a\"; reboot", "a\\", "$(reboot)", "`reboot`"})
        EXPECT_EQ(engine.setString(kParamRecordSetting1302, setting), kConfigRefused) << setting;
    std::string value;
    engine.getString(kParamRecordSetting1302, value);
    EXPECT_EQ(value, "'x'");
}

TEST(StoreEngine, everySetRaisesOneEventAlsoForTheSameValue) {
    StoreEngine engine;
    RecordingListener one;
    RecordingListener other;
    engine.addListener(&one, &one);
    engine.addListener(&other, &other);
    engine.setInteger(kParamMediaCommand, 1);
    engine.setInteger(kParamMediaCommand, 1);
    engine.setString(kParamClipName, "Clip 1");
    engine.setString(kParamClipName, "Clip 1");
    engine.setInteger(kLed, -3);
    EXPECT_EQ(engine.pump(), 5U);
    const auto expected =
        ElementsAre(integer(kParamMediaCommand, 1), integer(kParamMediaCommand, 1), text(kParamClipName, "Clip 1"),
                    text(kParamClipName, "Clip 1"), integer(kLed, -3));
    EXPECT_THAT(one.heard, expected);
    EXPECT_THAT(other.heard, expected);
    EXPECT_EQ(one.generic, 0);
}

TEST(StoreEngine, eventsCarryTheTimeOfTheSet) {
    time_t seconds = 1000;
    StoreEngine engine([&seconds] { return timeval{++seconds, 5}; });
    RecordingListener listener;
    engine.addListener(&listener, &listener);
    engine.setInteger(kLed, 1);
    engine.setInteger(kLed, 2);
    engine.pump();
    ASSERT_THAT(listener.times, SizeIs(2));
    EXPECT_EQ(listener.times[0].tv_sec, 1001);
    EXPECT_EQ(listener.times[1].tv_sec, 1002);
    EXPECT_EQ(listener.times[1].tv_usec, 5);
}

TEST(StoreEngine, nothingIsReplayedToANewListener) {
    StoreEngine engine;
    RecordingListener first;
    RecordingListener late;
    engine.addListener(&first, &first);
    engine.setInteger(kLed, 1);
    // Not delivered yet, and older than the listener all the same.
    engine.addListener(&late, &late);
    engine.setInteger(kLed, 2);
    engine.pump();
    EXPECT_THAT(first.heard, ElementsAre(integer(kLed, 1), integer(kLed, 2)));
    EXPECT_THAT(late.heard, ElementsAre(integer(kLed, 2)));
}

TEST(StoreEngine, aSetOfAnotherStoreKeepsTypesAndBounds) {
    StoreEngine engine;
    RecordingListener listener;
    engine.addListener(&listener, &listener);
    StoreEntry entry;
    EXPECT_TRUE(engine.apply(kParamClipName, entry, timeval{})) << "an integer for a string parameter";
    entry.type = ParameterType::String;
    EXPECT_TRUE(engine.apply(kParamAlarms, entry, timeval{}));
    entry.text = std::string(1, '\0');
    EXPECT_TRUE(engine.apply(kParamClipName, entry, timeval{}));
    engine.pump();
    EXPECT_THAT(listener.heard, SizeIs(0));
    std::string clipName;
    EXPECT_EQ(engine.getString(kParamClipName, clipName), kConfigOk);
    int alarms = 0;
    EXPECT_EQ(engine.getInteger(kParamAlarms, alarms), kConfigOk);

    entry = {};
    for (eParam_t id = 1; id <= StoreEngine::kMostIdentifiers; ++id) engine.apply(id, entry, timeval{});
    std::size_t identifiers = 0;
    engine.inspect([&](const StoreTable& table) { identifiers = table.size(); });
    EXPECT_EQ(identifiers, StoreEngine::kMostIdentifiers);
}

TEST(StoreEngine, restoreSetsTheValueAndRaisesNothing) {
    StoreEngine engine;
    RecordingListener listener;
    engine.addListener(&listener, &listener);
    StoreEntry entry;
    entry.integer = 9;
    EXPECT_TRUE(engine.restore(kLed, entry));
    EXPECT_TRUE(engine.restore(kParamAlarms, entry));
    EXPECT_FALSE(engine.restore(kParamClipName, entry)) << "an integer for a string parameter";
    EXPECT_EQ(engine.pump(), 0U);
    int value = 0;
    EXPECT_EQ(engine.getInteger(kLed, value), kConfigOk);
    EXPECT_EQ(value, 9);
}

TEST(StoreEngine, pumpDeliversAsManyAsAsked) {
    StoreEngine engine;
    RecordingListener listener;
    engine.addListener(&listener, &listener);
    for (int each = 0; each < 3; ++each) engine.setInteger(kLed, each);
    EXPECT_EQ(engine.pump(2), 2U);
    EXPECT_THAT(listener.heard, SizeIs(2));
    EXPECT_EQ(engine.pump(2), 1U);
    EXPECT_EQ(listener.thread, std::this_thread::get_id());
}

TEST(StoreEngine, callbackMayGetSetAndPump) {
    StoreEngine engine;
    RecordingListener listener;
    std::size_t pumpedInside = 1;
    listener.act = [&](const Heard& what) {
        if (what.integer != 1) return;
        int value = 0;
        engine.getInteger(kParamMediaCommand, value);
        EXPECT_EQ(value, 1);
        engine.setInteger(kParamMediaCommand, 0);
        EXPECT_TRUE(engine.onDeliveryThread());
        pumpedInside = engine.pump();
    };
    engine.addListener(&listener, &listener);
    engine.setInteger(kParamMediaCommand, 1);
    EXPECT_EQ(engine.pump(), 2U);
    EXPECT_EQ(pumpedInside, 0U) << "callbacks do not nest";
    EXPECT_THAT(listener.heard, ElementsAre(integer(kParamMediaCommand, 1), integer(kParamMediaCommand, 0)));
    EXPECT_FALSE(engine.onDeliveryThread());
}

TEST(StoreEngine, noLockIsHeldWhileAListenerIsCalled) {
    StoreEngine engine;
    RecordingListener listener;
    ASSERT_TRUE(engine.start());
    engine.addListener(&listener, &listener);
    listener.hold();
    engine.setInteger(kLed, 1);
    ASSERT_TRUE(listener.waitUntilInside());
    // Each of these would hang here.
    int value = 0;
    EXPECT_EQ(engine.getInteger(kLed, value), kConfigOk);
    EXPECT_EQ(engine.setInteger(kLed, 2), kConfigOk);
    RecordingListener other;
    engine.addListener(&other, &other);
    engine.removeListeners(&other);
    listener.letGo();
    EXPECT_THAT(listener.waitFor(2), SizeIs(2));
    EXPECT_THAT(other.heard, IsEmpty());
    engine.stop();
}

TEST(StoreEngine, callbacksComeOnAThreadOfTheEnginesOwn) {
    StoreEngine engine;
    RecordingListener listener;
    ASSERT_TRUE(engine.start());
    EXPECT_FALSE(engine.start()) << "one thread is enough";
    engine.addListener(&listener, &listener);
    engine.setInteger(kLed, 1);
    EXPECT_THAT(listener.waitFor(1), SizeIs(1));
    EXPECT_NE(listener.thread, std::this_thread::get_id());
    EXPECT_EQ(engine.pump(), 0U) << "the engine's thread delivers";
    engine.stop();
}

TEST(StoreEngine, stopDeliversWhatWasSetBefore) {
    StoreEngine engine;
    RecordingListener listener;
    // Every event makes another: stopping must not wait for the last of them.
    listener.act = [&](const Heard& what) { engine.setInteger(kLed, what.integer + 1000); };
    ASSERT_TRUE(engine.start());
    engine.addListener(&listener, &listener);
    for (int each = 0; each < 100; ++each) engine.setInteger(kLed, each);
    engine.stop();
    int delivered = 0;
    for (const Heard& what : listener.heard)
        if (what.integer < 1000) ++delivered;
    EXPECT_EQ(delivered, 100);
}

TEST(StoreEngine, eventsComeInTheOrderOfConcurrentSets) {
    constexpr int kThreads = 4;
    constexpr int kSets = 2000;
    StoreEngine engine;
    RecordingListener one;
    RecordingListener other;
    ASSERT_TRUE(engine.start());
    engine.addListener(&one, &one);
    engine.addListener(&other, &other);
    std::vector<std::thread> writers;
    for (int thread = 0; thread < kThreads; ++thread) {
        writers.emplace_back([&engine, thread] {
            for (int each = 1; each <= kSets; ++each) engine.setInteger(kLed, thread * kSets + each);
        });
    }
    for (std::thread& writer : writers) writer.join();
    const std::vector<Heard> first = one.waitFor(kThreads * kSets);
    const std::vector<Heard> second = other.waitFor(kThreads * kSets);
    engine.stop();
    ASSERT_THAT(first, SizeIs(kThreads * kSets));
    EXPECT_EQ(first, second);
    std::map<int, int> last;
    for (const Heard& what : first) {
        const int writer = (what.integer - 1) / kSets;
        EXPECT_EQ(what.integer, writer * kSets + ++last[writer]) << "out of its writer's order";
    }
    int value = 0;
    engine.getInteger(kLed, value);
    EXPECT_EQ(value, first.back().integer) << "the last event is the value";
}

TEST(StoreEngine, releasingAChannelWaitsForARunningCallback) {
    StoreEngine engine;
    RecordingListener listener;
    ASSERT_TRUE(engine.start());
    auto channel = std::make_unique<StoreChannel<StoreEngine>>(engine);
    channel->addListener(&listener);
    listener.hold();
    engine.setInteger(kLed, 1);
    engine.setInteger(kLed, 2);
    ASSERT_TRUE(listener.waitUntilInside());
    std::atomic<bool> released{false};
    bool insideAfter = true;
    std::size_t heardAtRelease = 0;
    std::thread releaser([&] {
        channel.reset();
        insideAfter = listener.isInside();
        heardAtRelease = listener.heard.size();
        released = true;
    });
    // The releaser cannot get past the callback, however long it has been trying.
    for (int each = 0; each < 1000; ++each) std::this_thread::yield();
    EXPECT_FALSE(released);
    listener.letGo();
    releaser.join();
    EXPECT_FALSE(insideAfter);
    // The second event may still have come before the releaser did, but nothing comes after it.
    engine.setInteger(kLed, 3);
    engine.stop();
    EXPECT_THAT(listener.heard, SizeIs(heardAtRelease));
    EXPECT_LE(heardAtRelease, 2U);
}

TEST(StoreEngine, aChannelMayBeReleasedInsideItsCallback) {
    StoreEngine engine;
    RecordingListener listener;
    RecordingListener other;
    ASSERT_TRUE(engine.start());
    auto channel = std::make_unique<StoreChannel<StoreEngine>>(engine);
    channel->addListener(&listener);
    channel->addListener(&other);
    listener.act = [&](const Heard&) { channel.reset(); };
    engine.setInteger(kLed, 1);
    engine.setInteger(kLed, 2);
    engine.stop();
    EXPECT_THAT(listener.heard, ElementsAre(integer(kLed, 1)));
    EXPECT_THAT(other.heard, IsEmpty());
}

TEST(StoreEngine, getOfAnIntegerAllocatesNothing) {
    StoreEngine engine;
    StoreConfig<StoreEngine> config(engine, false);
    config.setInteger(kParamAlarms, 3);
    const std::size_t before = allocationsOfThisThread();
    int value = config.getInteger(kParamAlarms);
    config.getInteger(kLed, &value);
    config.getInteger(kParamSystemCommand, &value);
    EXPECT_EQ(allocationsOfThisThread(), before);
}

TEST(StoreEngine, identifiersAreBounded) {
    StoreEngine engine;
    const std::size_t room = StoreEngine::kMostIdentifiers - parameterDescriptors().size();
    for (eParam_t each = 0; each < room; ++each) ASSERT_EQ(engine.setInteger(0x01000000 + each, 1), kConfigOk);
    EXPECT_EQ(engine.setInteger(0x02000000, 1), kConfigRefused);
    EXPECT_EQ(engine.setInteger(0x01000000, 2), kConfigOk) << "those that are there can still be set";
    EXPECT_EQ(engine.setInteger(kParamAlarms, 2), kConfigOk);
}

TEST(StoreEngine, textsAreBounded) {
    StoreEngine engine;
    const std::string longest(kLongestString, 'x');
    const std::size_t room = StoreEngine::kMostTextBytes / kLongestString;
    for (eParam_t each = 0; each < room; ++each) ASSERT_EQ(engine.setString(0x01000000 + each, longest), kConfigOk);
    EXPECT_EQ(engine.setString(0x02000000, "x"), kConfigRefused);
    EXPECT_EQ(engine.setString(0x01000000, longest), kConfigOk) << "a text takes the old one's place";
    EXPECT_EQ(engine.setString(0x01000000, ""), kConfigOk);
    EXPECT_EQ(engine.setString(0x02000000, longest), kConfigOk);
}

TEST(StoreEngine, aListenerThatDoesNotReturnCannotExhaustTheStore) {
    StoreEngine engine;
    RecordingListener listener;
    engine.addListener(&listener, &listener);
    const std::string longest(kLongestString, 'x');
    std::size_t accepted = 0;
    while (engine.setString(kParamClipName, longest) == kConfigOk) ++accepted;
    EXPECT_GE(accepted, StoreEngine::kMostPendingBytes / (kLongestString + 1024));
    EXPECT_LE(accepted, StoreEngine::kMostPendingBytes / kLongestString + 1);
    EXPECT_EQ(engine.pump(), accepted) << "a refused set raises nothing";
    EXPECT_EQ(engine.setInteger(kLed, 1), kConfigOk);
}

TEST(StoreEngine, aReadOnlyConfigRefusesSets) {
    StoreEngine engine;
    StoreConfig<StoreEngine> config(engine, true);
    EXPECT_EQ(config.setInteger(kParamAlarms, 1), kConfigNotPermitted);
    EXPECT_EQ(config.setString(kParamClipName, "x"), kConfigNotPermitted);
    EXPECT_EQ(config.getInteger(kParamAlarms), 0);
}

TEST(StoreEngine, configGivesZeroForWhatNobodyWrote) {
    StoreEngine engine;
    StoreConfig<StoreEngine> config(engine, false);
    EXPECT_EQ(config.getInteger(kLed), 0);
    EXPECT_EQ(config.getInteger(kParamClipName), 0);
    int value = 5;
    EXPECT_EQ(config.getInteger(kLed, &value), kConfigUnknown);
    EXPECT_EQ(value, 5);
}

TEST(StoreEngineDeathTest, aBinaryDataEventAborts) {
    EXPECT_DEATH(
        {
            StoreEngine engine;
            RecordingListener listener;
            engine.addListener(&listener, &listener);
            engine.raiseData(kLed, "data");
            engine.pump();
        },
        "config_event_listener.h:30: .*Assertion `false' failed");
}
