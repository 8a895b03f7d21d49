// format: followed by the events that mediad writes, in its order.

#include <signal.h>

#include <chrono>
#include <thread>

#include "recorder.h"

namespace {

constexpr char kCommand[] = "kParamMediaCommand";

// What mediad writes when it has been asked to erase, one rule for each write.
std::string then(const std::string& write) { return "0x7b01030a=4:" + write; }
const std::string kBegins = then("0x7a01000a=3");
const std::string kTaken = then("0x7b01030a=0");
const std::string kEnds = then("0x7a01000a=0");
std::string named(const std::string& volume) { return then("0x7b03060a='" + volume); }

struct Formatting : Recorder {
    void serveMedium(std::vector<std::string> rules = {}) {
        rules.insert(rules.begin(), {"start:0x7b03040a=1", "start:0x7b03060a='DAY 2"});
        serve(rules);
    }
    static void set(const std::string& parameter, const std::string& text) {
        EXPECT_EQ(mediactl({"set", "--", parameter, text}).status, 0);
    }
    static Result format(const std::string& seconds = "60") {
        return mediactl({"format", "--yes", "--timeout", seconds});
    }
    // From then on mediactl waits for mediad to take the erase up.
    void waitUntilPosted() {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (value(kCommand) != "4" && std::chrono::steady_clock::now() < end) std::this_thread::yield();
        ASSERT_EQ(value(kCommand), "4");
    }
    static Result ended(Program& format) {
        const int status = format.wait();
        return {status, format.output(), format.errors()};
    }
    // Failed after it had said what it erases.
    static void expectFailed(const Result& result, const std::string& words, int status = 1) {
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.output.find("formatted"), std::string::npos) << result.output;
        EXPECT_NE(result.errors.find(words), std::string::npos) << result.errors;
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
    }
};

TEST_F(Formatting, endsWithTheNewVolumeName) {
    serveMedium({kBegins, kTaken, named("007"), kEnds});
    const Result result = format();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.output,
              "erasing volume \"DAY 2\" in slot S1, with everything on it\n"
              "formatting the medium in slot S1\n"
              "formatted: the volume is now called \"007\"\n");
}

TEST_F(Formatting, ofAReelThatIsFormattedTwiceIsDoneToo) {
    serveMedium({"start:0x7b03060a='007", kBegins, kTaken, named("007"), kEnds});
    const Result result = format();
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_NE(result.output.find("now called \"007\"\n"), std::string::npos);
}

TEST_F(Formatting, withoutANewVolumeNameHasFailed) {
    serveMedium({"start:0x7b03060a='007", kBegins, kTaken, kEnds});
    expectFailed(format(), "formatting failed: mediad could not make a file system on the medium");
}

TEST_F(Formatting, doesNotTakeANameFromBeforeItsProgressForItsOwn) {
    serveMedium({named("DAY 2"), kBegins, kTaken, kEnds});
    expectFailed(format(), "formatting failed");
}

TEST_F(Formatting, behindAnothersFollowsItsOwn) {
    // The other one's is at its end when the request comes.
    serveMedium({"start:0x7a01000a=1", named("006"), kEnds, kBegins, kTaken, named("007"), kEnds});
    const Result result = format();
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_NE(result.output.find("now called \"007\"\n"), std::string::npos) << result.output;
}

TEST_F(Formatting, ofAnUnnamedMediumWhoseNewNameIsHostile) {
    serveMedium({"start:0x7b03060a='", kBegins, kTaken, named("\x1b[2J"), kEnds});
    const Result result = format();
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_NE(result.output.find("erasing the medium without a volume name in slot S1"), std::string::npos);
    EXPECT_NE(result.output.find("\"\\x1b[2J\"\n"), std::string::npos);
}

TEST_F(Formatting, thatIsNotTakenUpInTimeIsWithdrawn) {
    serveMedium();
    expectFailed(format("1"), "mediad did not take the request up within 1 seconds; it is withdrawn");
    EXPECT_EQ(value(kCommand), "0");
}

TEST_F(Formatting, thatIsNotDoneInTimeGoesOn) {
    // 9 shows that nobody writes to the command any more.
    serveMedium({kBegins, then("0x7b01030a=9")});
    expectFailed(format("1"), "not done within 1 seconds; mediad goes on formatting");
    EXPECT_EQ(value(kCommand), "9");
}

TEST_F(Formatting, thatAnotherCommandsAcknowledgementWipedOutIsToldSo) {
    serveMedium({kTaken});
    expectFailed(format(), "another process's media command came in between; nothing was erased");
}

TEST_F(Formatting, thatBeginsBehindAnAcknowledgementIsFollowed) {
    serveMedium({kTaken, kBegins, named("007"), kEnds});
    EXPECT_EQ(format().status, 0);
}

TEST_F(Formatting, doesNotOverwriteAnotherErase) {
    serveMedium({"start:0x7b01030a=4"});
    expectFailed(format(), "another erase of the medium is waiting");
    EXPECT_EQ(value(kCommand), "4");
}

TEST_F(Formatting, waitsForAnotherCommandsAcknowledgement) {
    serveMedium({"start:0x7b01030a=1"});
    Program format(commandLine(MEDIACTL, {"format", "--yes"}));
    ASSERT_TRUE(format.waitForOutput("erasing"));
    set(kCommand, "0"); // would wipe out an erase that had been posted already
    waitUntilPosted();
    set("kParamProgressStatus", "3");
    set("kParamVolumeName", "007");
    set("kParamProgressStatus", "0");
    EXPECT_EQ(format.wait(), 0) << format.errors();
}

TEST_F(Formatting, doesNotWaitForEverForACommandThatNobodyAcknowledged) {
    serveMedium({"start:0x7b01030a=1", kBegins, kTaken, named("007"), kEnds});
    EXPECT_EQ(format().status, 0);
}

TEST_F(Formatting, isLostWithTheStore) {
    serveMedium({"0x7b01030a=4:end"});
    expectFailed(format(), "it could not be withdrawn, for nobody serves the parameter store any more", 3);
}

TEST_F(Formatting, thatBeganIsLostWithTheStore) {
    serveMedium({kBegins});
    Program format(commandLine(MEDIACTL, {"format", "--yes"}));
    ASSERT_TRUE(format.waitForOutput("formatting the medium"));
    killHost();
    expectFailed(ended(format), "nobody serves the parameter store any more; the answer did not come", 3);
}

struct Interruptions : Formatting, testing::WithParamInterface<int> {};

TEST_P(Interruptions, withdrawWhatMediadHasNotTakenUp) {
    serveMedium();
    Program format(commandLine(MEDIACTL, {"format", "--yes"}));
    waitUntilPosted();
    format.kill(GetParam());
    expectFailed(ended(format), "interrupted before mediad took the request up; it is withdrawn\n");
    EXPECT_EQ(value(kCommand), "0");
}

TEST_P(Interruptions, leaveAFormatThatBeganToMediad) {
    // 9 shows that nobody writes to the command any more.
    serveMedium({kBegins, then("0x7b01030a=9")});
    Program format(commandLine(MEDIACTL, {"format", "--yes"}));
    ASSERT_TRUE(format.waitForOutput("formatting the medium"));
    format.kill(GetParam());
    expectFailed(ended(format), "interrupted; mediad goes on formatting");
    EXPECT_EQ(value(kCommand), "9");
}

TEST_P(Interruptions, atTheQuestionEndMediactlAtOnce) {
    serveMedium();
    Program format(commandLine(MEDIACTL, {"format"}), Program::Output::Console);
    ASSERT_TRUE(format.waitForOutput("[y/N] "));
    format.kill(GetParam());
    EXPECT_EQ(format.wait(), 128 + GetParam());
    EXPECT_EQ(value(kCommand), "0");
}

INSTANTIATE_TEST_SUITE_P(Signals, Interruptions, testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_F(Formatting, underNohupOutlivesTheTerminal) {
    serveMedium();
    std::vector<std::string> line = commandLine(MEDIACTL, {"format", "--yes"});
    line.insert(line.begin(), "/usr/bin/nohup");
    Program format(line);
    waitUntilPosted();
    format.kill(SIGHUP);
    set("kParamProgressStatus", "3");
    set(kCommand, "0");
    set("kParamVolumeName", "007");
    set("kParamProgressStatus", "0");
    EXPECT_EQ(format.wait(), 0) << format.errors();
}

TEST_F(Formatting, thatCannotBeWithdrawnSaysSo) {
    serveMedium();
    Program format(commandLine(MEDIACTL, {"format", "--yes"}));
    waitUntilPosted();
    _host->stop();
    format.kill(SIGINT);
    expectFailed(ended(format),
                 "interrupted before mediad took the request up; it could not be withdrawn, for nobody serves the parameter "
                 "store any more: mediad may still erase this medium, or one that comes later\n",
                 3);
    _host->kill(SIGCONT);
}

TEST_F(Formatting, thatIsWithdrawnDuringAnotherOneTellsOfIt) {
    serveMedium({"start:0x7a01000a=1"});
    Program format(commandLine(MEDIACTL, {"format", "--yes"}));
    waitUntilPosted();
    format.kill(SIGINT);
    expectFailed(ended(format), "it is withdrawn, but mediad is formatting");
    EXPECT_EQ(value(kCommand), "0");
}

TEST_F(Formatting, whoseEventsAreLostBeforeItBeginsIsWithdrawn) {
    // More than the store keeps for somebody who does not read.
    std::vector<std::string> rules(5000, "0x5c000001=1:0x7b03060a='DAY 2");
    rules.push_back("0x5c000001=1:0x5c000002=1");
    serveMedium(rules);
    Program format(commandLine(MEDIACTL, {"format", "--yes"}));
    waitUntilPosted();
    format.stop();
    set("0x5c000001", "1");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (mediactl({"get", "0x5c000002"}).output != "1\n" && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    format.kill(SIGCONT);
    expectFailed(ended(format), "changes came too fast to see whether mediad took the request up; it is withdrawn");
    EXPECT_EQ(value(kCommand), "0");
}

TEST_F(Formatting, withoutATerminalNeedsYes) {
    serveMedium({kBegins, kTaken, named("007"), kEnds});
    expectFailure(mediactl({"format"}), 1, "there is no terminal to ask at; --yes does it without asking");
    EXPECT_EQ(value("kParamVolumeName"), "DAY 2");
}

TEST_F(Formatting, asksAndShowsItsProgressOnATerminal) {
    serveMedium({kBegins, kTaken});
    Program format(commandLine(MEDIACTL, {"format"}), Program::Output::Console);
    ASSERT_TRUE(format.waitForOutput("Erase volume \"DAY 2\" in slot S1, with everything on it? [y/N] "));
    EXPECT_EQ(value(kCommand), "0");
    format.type("y\n");
    ASSERT_TRUE(format.waitForOutput("\rformatting the medium in slot S1: 0 s\x1b[K"));
    ASSERT_TRUE(format.waitForOutput("\rformatting the medium in slot S1: 1 s\x1b[K"));
    set("kParamVolumeName", "007");
    set("kParamProgressStatus", "0");
    EXPECT_EQ(format.wait(), 0) << format.output();
    EXPECT_TRUE(format.output().ends_with("\r\x1b[Kformatted: the volume is now called \"007\"\r\n")) << format.output();
}

TEST_F(Formatting, thatIsNotConfirmedErasesNothing) {
    serveMedium({kBegins, kTaken, named("007"), kEnds});
    for (const char* answer : {"n\n", "\n", "\x04"}) {
        Program format(commandLine(MEDIACTL, {"format"}), Program::Output::Console);
        ASSERT_TRUE(format.waitForOutput("[y/N] "));
        format.type(answer);
        EXPECT_EQ(format.wait(), 1);
        EXPECT_NE(format.output().find("not confirmed; nothing was erased"), std::string::npos) << format.output();
    }
    EXPECT_EQ(value("kParamVolumeName"), "DAY 2");
}

TEST_F(Formatting, ofAnotherMediumThatCameWhileBeingAskedIsNotDone) {
    serveMedium({kBegins, kTaken, named("007"), kEnds});
    Program format(commandLine(MEDIACTL, {"format"}), Program::Output::Console);
    ASSERT_TRUE(format.waitForOutput("[y/N] "));
    set("kParamVolumeName", "DAY 2"); // another card of that name
    format.type("y\n");
    EXPECT_EQ(format.wait(), 1);
    EXPECT_NE(format.output().find("another medium may be in use by now; nothing was erased"), std::string::npos)
        << format.output();
    EXPECT_EQ(value("kParamVolumeName"), "DAY 2");
}

TEST_F(Formatting, byWhoMayNotWriteIsRefusedByTheStore) {
    serveMedium();
    const Result result = mediactlAsNobody({"format", "--yes"});
    if (result.errors.starts_with("setpriv")) GTEST_SKIP() << result.errors;
    expectFailed(result, "not permitted");
}

} // namespace
