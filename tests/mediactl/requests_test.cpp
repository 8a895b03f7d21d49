// acquire, release, slot next, remount and shutdown, with a stand-in that answers, refuses or keeps silent.

#include "recorder.h"

namespace {

constexpr char kMediaCommand[] = "0x7b01030a";
constexpr char kSlotChange[] = "0x7b03000a";

std::string rule(const std::string& when, int value, const std::string& then, int answer) {
    return when + "=" + std::to_string(value) + ":" + then + "=" + std::to_string(answer);
}

std::string start(const std::string& parameter, int value) {
    return "start:" + parameter + "=" + std::to_string(value);
}

struct Requests : Recorder {
    static void expectDone(const Result& result) {
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output + result.errors, "");
    }
};

TEST_F(Requests, acquireIsDoneWhenTheCommandIsAcknowledged) {
    // The counting parameter shows that it was 1 and nothing else that was posted.
    serve({rule(kMediaCommand, 1, "0x5c000001", 1), rule(kMediaCommand, 1, kMediaCommand, 0)});
    expectDone(mediactl({"acquire"}));
    EXPECT_EQ(value(kMediaCommand), "0");
    EXPECT_EQ(value("0x5c000001"), "1");
}

TEST_F(Requests, releaseIsDoneWhenTheCommandIsAcknowledged) {
    serve({rule(kMediaCommand, 2, "0x5c000001", 2), rule(kMediaCommand, 2, kMediaCommand, 0)});
    expectDone(mediactl({"release"}));
    EXPECT_EQ(value("0x5c000001"), "2");
}

TEST_F(Requests, anAcknowledgementThatNeverComesIsAFailure) {
    serve();
    expectFailure(mediactl({"acquire", "--timeout", "1"}), 1, "did not answer within 1 seconds");
    expectFailure(mediactl({"release", "--timeout", "0"}), 1, "did not answer within 0 seconds");
    EXPECT_EQ(value(kMediaCommand), "2");
}

TEST_F(Requests, aStandingCommandIsNotMistakenForTheAnswer) {
    serve({start(kMediaCommand, 1)});
    expectFailure(mediactl({"acquire", "--timeout", "1"}), 1, "did not answer");
}

TEST_F(Requests, anEraseThatNobodyHasTakenUpIsNotOverwritten) {
    serve({start(kMediaCommand, 4), rule(kMediaCommand, 1, kMediaCommand, 0)});
    expectFailure(mediactl({"acquire", "--timeout", "1"}), 1, "erase");
    EXPECT_EQ(value(kMediaCommand), "4");
}

TEST_F(Requests, acquireGoesAheadWhenTheEraseIsTakenUp) {
    serve({start(kMediaCommand, 4), rule(kMediaCommand, 1, kMediaCommand, 0)});
    Program acquire(commandLine(MEDIACTL, {"acquire"}));
    mediactl({"set", kMediaCommand, "0"});
    EXPECT_EQ(acquire.wait(), 0) << acquire.errors();
}

TEST_F(Requests, manyClientsAtOnceAllGetTheirAcknowledgement) {
    serve({rule(kMediaCommand, 1, kMediaCommand, 0), rule(kMediaCommand, 2, kMediaCommand, 0)});
    std::vector<std::unique_ptr<Program>> clients;
    for (int i = 0; i < 8; ++i)
        clients.push_back(std::make_unique<Program>(commandLine(MEDIACTL, {i % 2 == 0 ? "acquire" : "release"})));
    for (const auto& client : clients) EXPECT_EQ(client->wait(), 0) << client->errors();
}

TEST_F(Requests, aStoreThatGoesAwayBeforeTheAnswerIsNoSuccess) {
    serve({std::string(kMediaCommand) + "=1:end"});
    expectFailure(mediactl({"acquire"}), 3, "nobody serves the parameter store any more");
}

TEST_F(Requests, slotNextIsDoneWhenTheRequestIsCleared) {
    // What stands from an earlier request must not be taken for the answer.
    serve({start(kSlotChange, 15), rule(kSlotChange, 6, kSlotChange, 0)});
    expectDone(mediactl({"slot", "next"}));
    EXPECT_EQ(value(kSlotChange), "0");
}

TEST_F(Requests, slotNextWaitsForTheAnswerAndNotForTheOldOne) {
    serve({start(kSlotChange, 0)});
    expectFailure(mediactl({"slot", "next", "--timeout", "1"}), 1, "did not answer");
    EXPECT_EQ(value(kSlotChange), "6");
}

TEST_F(Requests, slotNextIsLostWithTheStore) {
    serve({std::string(kSlotChange) + "=6:end"});
    expectFailure(mediactl({"slot", "next"}), 3, "nobody serves the parameter store any more");
}

struct RefusalRow {
    int answer;
    const char* words;
};
std::ostream& operator<<(std::ostream& out, const RefusalRow& row) { return out << row.answer; }
struct Refusals : Requests, testing::WithParamInterface<RefusalRow> {};

TEST_P(Refusals, areToldInWords) {
    serve({rule(kSlotChange, 6, kSlotChange, GetParam().answer)});
    expectFailure(mediactl({"slot", "next"}), 1, GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(Rows, Refusals,
                         testing::Values(RefusalRow{10, "unformatted"}, RefusalRow{11, "damaged"},
                                         RefusalRow{14, "could not be unmounted"}, RefusalRow{15, "in use"},
                                         RefusalRow{99, "99"}));

TEST_F(Requests, remountPostsTwoAndDoesNotWait) {
    serve();
    expectDone(mediactl({"remount"}));
    EXPECT_EQ(value("kParamSlotRemountCommand"), "2");
}

constexpr char kSystemCommand[] = "0x7d02010a";
constexpr char kDaemonStatus[] = "0x7d07000a";

TEST_F(Requests, shutdownIsDoneWhenTheDaemonHasCleanedUp) {
    serve(
        {start(kDaemonStatus, 3), rule(kSystemCommand, 8, kDaemonStatus, 5), rule(kDaemonStatus, 5, kDaemonStatus, 6)});
    expectDone(mediactl({"shutdown"}));
    EXPECT_EQ(value(kSystemCommand), "8");
}

TEST_F(Requests, shutdownIsDoneWhenTheStoreGoes) {
    serve({start(kDaemonStatus, 3), rule(kSystemCommand, 8, kDaemonStatus, 5), std::string(kDaemonStatus) + "=5:end"});
    expectDone(mediactl({"shutdown"}));
}

TEST_F(Requests, shutdownIsNotDoneWhileTheDaemonStillCleansUp) {
    serve({start(kDaemonStatus, 3), rule(kSystemCommand, 8, kDaemonStatus, 5)});
    expectFailure(mediactl({"shutdown", "--timeout", "1"}), 1, "did not answer");
}

TEST_F(Requests, shutdownOfADaemonThatIsDownIsDoneAtOnce) {
    serve({start(kDaemonStatus, 6)});
    expectDone(mediactl({"shutdown"}));
    EXPECT_EQ(value(kSystemCommand), "8");
}

} // namespace
