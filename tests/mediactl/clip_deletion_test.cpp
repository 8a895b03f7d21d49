// delete: what it asks for, what it refuses, and when it takes the deletion to be done. The test is the daemon.

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "segment.h"

namespace {

constexpr char kDirectory[] = "/mnt/S1/NEVO";
constexpr char kRequest[] = "kParamClipsToDelete";

using Arguments = std::vector<std::string>;

struct Deletion : Recorder {
    ClipSegment clips;

    void SetUp() override {
        std::filesystem::remove_all("/mnt/S1");
        std::filesystem::create_directories(kDirectory);
    }

    // A recorder with a medium in use and these rules on top.
    void serveMedium(std::vector<std::string> rules = {}) {
        rules.insert(rules.begin(), {"start:0x7b03040a=1", "start:0x7b03060a='DAY 2",
                                     std::string("start:0x7b01010a='") + kDirectory});
        serve(rules);
    }

    static std::string pathOf(const std::string& name) { return std::string(kDirectory) + "/" + name; }
    static void put(const Arguments& files) {
        for (const std::string& file : files) writeFile(pathOf(file), "");
    }
    static void remove(const std::string& file) { std::filesystem::remove(pathOf(file)); }

    static void set(const std::string& parameter, const std::string& text) {
        EXPECT_EQ(mediactl({"set", "--", parameter, text}).status, 0);
    }

    // The request has come, or does not come within the deadline.
    void waitForRequest(const std::string& request) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (value(kRequest) != request && std::chrono::steady_clock::now() < end) std::this_thread::yield();
        EXPECT_EQ(value(kRequest), request);
    }

    void expectNoRequest() { EXPECT_EQ(value(kRequest), ""); }
};

TEST_F(Deletion, isDoneWhenFilesAndClipsAreGone) {
    put({"a.mov", "b.mov", "c.mov", "b.playlist"});
    clips.hold({"a", "b", "c"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "c.mov", "a.mov", "b.playlist", "a.mov"}));
    waitForRequest("a.mov|b.playlist|c.mov");
    clips.hold({"b"}); // the index first, as mediad does it
    remove("a.mov");
    remove("b.playlist");
    ASSERT_TRUE(deletion.waitForOutput("deleted: a.mov\n"));
    remove("c.mov");
    EXPECT_EQ(deletion.wait(), 0) << deletion.errors();
    EXPECT_NE(deletion.output().find("deleted: b.playlist\n"), std::string::npos);
    EXPECT_TRUE(deletion.output().ends_with("deleted: c.mov\n")) << deletion.output();
    EXPECT_EQ(deletion.errors(), "");
}

TEST_F(Deletion, isNotDoneWhileTheFileIsThere) {
    put({"a.mov"});
    clips.hold({"a"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "--timeout", "2", "a.mov"}));
    waitForRequest("a.mov");
    clips.hold({});
    EXPECT_EQ(deletion.wait(), 1);
    EXPECT_EQ(deletion.errors(), "mediactl: mediad did not delete this within 2 seconds: a.mov\n");
    EXPECT_EQ(deletion.output(), "");
}

TEST_F(Deletion, isNotDoneWhileTheClipIsInTheIndex) {
    put({"a.mov", "b.mov"});
    clips.hold({"a", "b"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "--timeout", "2", "a.mov", "b.mov"}));
    waitForRequest("a.mov|b.mov");
    clips.hold({"a"});
    remove("a.mov");
    remove("b.mov");
    EXPECT_EQ(deletion.wait(), 1);
    EXPECT_EQ(deletion.output(), "deleted: b.mov\n") << "what is done is told all the same";
    EXPECT_EQ(deletion.errors(), "mediactl: mediad did not delete this within 2 seconds: a.mov\n");
}

TEST_F(Deletion, ofAClipThatHasAnotherFileLeavesItsRecord) {
    put({"a.mov", "a.MOV"});
    clips.hold({"a"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "a.mov"}));
    waitForRequest("a.mov");
    remove("a.mov");
    EXPECT_EQ(deletion.wait(), 0) << deletion.errors();
}

TEST_F(Deletion, ofAClipThatOnlyTheIndexKnowsIsAskedForToo) {
    clips.hold({"a"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "a.mov"}));
    waitForRequest("a.mov");
    clips.hold({});
    EXPECT_EQ(deletion.wait(), 0) << deletion.errors();
    EXPECT_EQ(deletion.output(), "deleted: a.mov\n");
}

TEST_F(Deletion, ofWhatIsNotThereAsksForNothing) {
    put({"a.mov"});
    clips.hold({"a", ""});
    serveMedium();
    const Result result = mediactl({"delete", "--yes", "b.mov", "notes.txt", "a"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "not there: a\nnot there: b.mov\nnot there: notes.txt\n");
    EXPECT_EQ(result.errors, "");
    expectNoRequest();
}

TEST_F(Deletion, ofSomeThatAreThereAsksForThose) {
    put({"a.mov"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "b.mov", "a.mov"}));
    waitForRequest("a.mov");
    remove("a.mov");
    EXPECT_EQ(deletion.wait(), 0) << deletion.errors();
    EXPECT_EQ(deletion.output(), "not there: b.mov\ndeleted: a.mov\n");
}

TEST_F(Deletion, ofEverythingLeavesHiddenFilesAndDirectories) {
    put({"a.mov", "-r", "b.playlist", "notes.txt", ".hidden.mov"});
    std::filesystem::create_directory(pathOf(".uploads"));
    std::filesystem::create_directory(pathOf("folder"));
    clips.hold({".hidden", "a", "stale"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--all", "--yes"}));
    waitForRequest("*");
    for (const char* file : {"a.mov", "-r", "b.playlist", "notes.txt"}) remove(file);
    clips.hold({".hidden"});
    EXPECT_EQ(deletion.wait(), 0) << deletion.errors();
    for (const char* line : {"deleted: -r\n", "deleted: a.mov\n", "deleted: b.playlist\n", "deleted: notes.txt\n",
                             "deleted: stale\n"})
        EXPECT_NE(deletion.output().find(line), std::string::npos) << line;
    EXPECT_EQ(std::count(deletion.output().begin(), deletion.output().end(), '\n'), 5);
}

TEST_F(Deletion, ofEverythingWhereThereIsNothing) {
    std::filesystem::create_directory(pathOf(".uploads"));
    serveMedium();
    const Result result = mediactl({"delete", "--all", "--yes"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "there is nothing to delete\n");
    expectNoRequest();
}

TEST_F(Deletion, ofWhatIsOnAMediumThatLeavesIsNotSaidToBeDone) {
    put({"a.mov"});
    clips.hold({"a"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "a.mov"}));
    waitForRequest("a.mov");
    std::filesystem::rename(kDirectory, "/mnt/S1/elsewhere"); // unmounted: the files are out of sight
    set("kParamVolumeName", "N/A");
    clips.hold({});
    EXPECT_EQ(deletion.wait(), 1);
    EXPECT_EQ(deletion.output(), "");
    EXPECT_NE(deletion.errors().find("the medium went out of use meanwhile"), std::string::npos) << deletion.errors();
}

TEST_F(Deletion, ofFilesThatAreOutOfSightIsNotDone) {
    put({"a.mov"});
    clips.hold({"a"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "--timeout", "2", "a.mov"}));
    waitForRequest("a.mov");
    std::filesystem::rename(kDirectory, "/mnt/S1/elsewhere");
    clips.hold({});
    EXPECT_EQ(deletion.wait(), 1);
    EXPECT_EQ(deletion.output(), "");
}

TEST_F(Deletion, isLostWithTheStore) {
    put({"a.mov"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "a.mov"}));
    waitForRequest("a.mov");
    killHost();
    EXPECT_EQ(deletion.wait(), 3);
    EXPECT_NE(deletion.errors().find("nobody serves the parameter store any more"), std::string::npos);
}

TEST_F(Deletion, isRefusedWhileTheIndexIsLocked) {
    put({"a.mov"});
    clips.hold({"a"});
    serveMedium();
    clips.lock();
    expectFailure(mediactl({"delete", "--yes", "a.mov"}), 1, "locked");
    EXPECT_EQ(clips.count(), 0) << "nothing was taken over";
    clips.unlock();
    expectNoRequest();
}

TEST_F(Deletion, byWhoMayNotWriteIsRefusedByTheStore) {
    put({"a.mov"});
    serveMedium();
    const Result result = mediactlAsNobody({"delete", "--yes", "a.mov"});
    if (result.errors.starts_with("setpriv")) GTEST_SKIP() << result.errors;
    expectFailure(result, 1, "not permitted");
}

TEST_F(Deletion, ofMoreNamesThanARequestHoldsIsRefusedByTheStore) {
    Arguments line{"delete", "--yes"};
    for (int i = 1000; i < 1300; ++i) {
        line.push_back(std::string(240, 'x') + std::to_string(i));
        put({line.back()});
    }
    serveMedium();
    expectFailure(mediactl(line), 1, "does not accept this value");
    expectNoRequest();
}

// --- Names that cannot be asked for.

struct NameRow {
    const char* name;
    const char* why;
};
std::ostream& operator<<(std::ostream& out, const NameRow& row) {
    return out << testing::PrintToString(std::string(row.name)); // a name of the test, so nothing may be raw
}
struct RefusedNames : Deletion, testing::WithParamInterface<NameRow> {};

TEST_P(RefusedNames, areToldAndNothingIsAskedFor) {
    put({"a.mov"});
    serveMedium();
    const Result result = mediactl({"delete", "--yes", "--", "a.mov", GetParam().name});
    expectFailure(result, 1, GetParam().why);
    for (const char c : result.errors) EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7f)) << static_cast<int>(c);
    expectNoRequest();
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RefusedNames,
    testing::Values(NameRow{"a\".mov", "\"a\".mov\" cannot be asked for: it holds a character that a shell would act on"},
                    NameRow{"a\\", "it holds a character that a shell would act on"},
                    NameRow{"$a", "it holds a character that a shell would act on"},
                    NameRow{"`a`", "it holds a character that a shell would act on"},
                    NameRow{"a\nb", "\"a\\nb\" cannot be asked for: it holds a control character"},
                    NameRow{"\x1b[2J", "it holds a control character"}, NameRow{"-rf", "it begins with a dash"},
                    NameRow{"a/b", "it leaves the maker directory"}, NameRow{".", "it leaves the maker directory"},
                    NameRow{"..", "it leaves the maker directory"}, NameRow{"a|b.mov", "separates the names"},
                    NameRow{"*", "ask for that with --all"}, NameRow{"", "is no file's name"}));

TEST_F(Deletion, ofADirectoryIsRefused) {
    std::filesystem::create_directory(pathOf("folder"));
    put({"a.mov"});
    serveMedium();
    expectFailure(mediactl({"delete", "--yes", "a.mov", "folder"}), 1, "\"folder\" is a directory");
    expectNoRequest();
}

TEST_F(Deletion, takesNamesThatAShellWouldExpandAsTheyStand) {
    put({"*.mov", "a.mov"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--yes", "*.mov"}));
    waitForRequest("*.mov");
    remove("*.mov");
    EXPECT_EQ(deletion.wait(), 0) << deletion.errors();
}

// --- States in which nothing is deleted or erased.

struct StateRow {
    const char* rule;
    const char* why;
};
std::ostream& operator<<(std::ostream& out, const StateRow& row) { return out << row.rule; }
struct RefusingStates : Deletion, testing::WithParamInterface<StateRow> {};

TEST_P(RefusingStates, areToldAndNothingIsAskedFor) {
    put({"a.mov"});
    serveMedium({GetParam().rule});
    expectFailure(mediactl({"delete", "--yes", "a.mov"}), 1, std::string(GetParam().why) + "; nothing was deleted");
    expectFailure(mediactl({"delete", "--yes", "--all"}), 1, std::string(GetParam().why) + "; nothing was deleted");
    expectNoRequest();
    const Result format = mediactl({"format", "--yes", "--timeout", "0"});
    expectFailure(format, 1, std::string(GetParam().why) + "; nothing was erased");
    EXPECT_EQ(value("kParamMediaCommand"), "0");
}

INSTANTIATE_TEST_SUITE_P(Rows, RefusingStates,
                         testing::Values(StateRow{"start:0x7b03040a=0", "no slot is selected"},
                                         StateRow{"start:0x7d01010a=2", "the transport is not idle (state 2)"},
                                         StateRow{"start:0x7d01010a=3", "the transport is not idle (state 3)"},
                                         StateRow{"start:0x7d01010a=14", "the transport is not idle (state 14)"},
                                         StateRow{"start:0x7d01010a=21", "the transport is not idle (state 21)"},
                                         StateRow{"start:0x7d01010a=-1", "the transport is not idle (state -1)"},
                                         StateRow{"start:0x0c010100=2", "FireWire disk access is on"}));

struct ServingStates : Deletion, testing::WithParamInterface<const char*> {};

TEST_P(ServingStates, letADeletionThrough) {
    serveMedium({GetParam()});
    const Result result = mediactl({"delete", "--yes", "a.mov"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "not there: a.mov\n");
}

INSTANTIATE_TEST_SUITE_P(Rows, ServingStates,
                         testing::Values("start:0x7d01010a=0", "start:0x7d01010a=1", "start:0x7d01010a=15",
                                         "start:0x7d01010a=19", "start:0x7d01010a=20", "start:0x0c010100=0",
                                         "start:0x0c010100=1", "start:0x0c010100=3", "start:0x7b03040a=4"));

TEST_F(Deletion, fromAMediumThatIsNotMountedIsRefused) {
    serveMedium({"start:0x7b01010a='"});
    expectFailure(mediactl({"delete", "--yes", "a.mov"}), 1, "volume \"DAY 2\" in slot S1 is not in use");
    expectNoRequest();
}

// --- Asking.

TEST_F(Deletion, withoutATerminalNeedsYes) {
    put({"a.mov"});
    serveMedium();
    for (const Arguments& line : {Arguments{"delete", "a.mov"}, Arguments{"delete", "--all"}})
        expectFailure(mediactl(line), 1, "there is no terminal to ask at; --yes does it without asking");
    // One for the answer alone does not help, nor one for the question alone.
    for (const char* redirection : {"</dev/null", "2>/tmp/errors"}) {
        Arguments line{"/bin/sh", "-c", std::string("exec \"$@\" ") + redirection, "sh"};
        for (const std::string& word : commandLine(MEDIACTL, {"delete", "a.mov"})) line.push_back(word);
        Program deletion(line, Program::Output::Console);
        deletion.type("y\n");
        EXPECT_EQ(deletion.wait(), 1);
        EXPECT_EQ(deletion.output().find("[y/N]"), std::string::npos) << deletion.output();
    }
    expectNoRequest();
}

TEST_F(Deletion, asksOnATerminal) {
    put({"a.mov", "b.mov"});
    serveMedium({"start:0x7b03060a='DAY\x1b[2J 2"});
    Program deletion(commandLine(MEDIACTL, {"delete", "a.mov", "b.mov"}), Program::Output::Console);
    ASSERT_TRUE(deletion.waitForOutput("On volume \"DAY\\x1b[2J 2\" in slot S1:\r\n  a.mov\r\n  b.mov\r\n"
                                       "Delete these 2 files? [y/N] "));
    expectNoRequest();
    deletion.type("Y\n");
    waitForRequest("a.mov|b.mov");
    remove("a.mov");
    remove("b.mov");
    EXPECT_EQ(deletion.wait(), 0) << deletion.output();
    EXPECT_NE(deletion.output().find("deleted: a.mov\r\n"), std::string::npos);
}

TEST_F(Deletion, ofEverythingAsksOnATerminal) {
    put({"a.mov", "b.mov"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "--all"}), Program::Output::Console);
    ASSERT_TRUE(deletion.waitForOutput(
        "Delete all 2 files in the maker directory, clips and playlists, of volume \"DAY 2\" in slot S1? [y/N] "));
    deletion.type("yes\n");
    waitForRequest("*");
    remove("a.mov");
    remove("b.mov");
    EXPECT_EQ(deletion.wait(), 0) << deletion.output();
}

struct Answers : Deletion, testing::WithParamInterface<const char*> {};

TEST_P(Answers, thatAreNoYesDeleteNothing) {
    put({"a.mov"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "a.mov"}), Program::Output::Console);
    ASSERT_TRUE(deletion.waitForOutput("Delete this file? [y/N] "));
    deletion.type(GetParam());
    EXPECT_EQ(deletion.wait(), 1);
    EXPECT_NE(deletion.output().find("mediactl: not confirmed; nothing was deleted\r\n"), std::string::npos)
        << deletion.output();
    expectNoRequest();
}

INSTANTIATE_TEST_SUITE_P(Rows, Answers, testing::Values("n\n", "\n", "no\n", "yesterday\n", "y y\n", "\x04", "y\x04\x04"));

TEST_F(Deletion, anotherMediumThatCameWhileBeingAskedIsNotTouched) {
    put({"a.mov"});
    serveMedium();
    for (const auto& [parameter, text] :
         {std::pair<std::string, std::string>{"kParamVolumeName", "DAY 2"}, {"kParamSelectedSlot", "1"}}) {
        Program deletion(commandLine(MEDIACTL, {"delete", "a.mov"}), Program::Output::Console);
        ASSERT_TRUE(deletion.waitForOutput("[y/N] "));
        set(parameter, text); // the same as before, but written anew
        deletion.type("y\n");
        EXPECT_EQ(deletion.wait(), 1);
        EXPECT_NE(deletion.output().find("another medium may be in use by now; nothing was deleted"), std::string::npos)
            << deletion.output();
    }
    expectNoRequest();
}

TEST_F(Deletion, aTransportThatStartedWhileBeingAskedIsNotDisturbed) {
    put({"a.mov"});
    serveMedium();
    Program deletion(commandLine(MEDIACTL, {"delete", "a.mov"}), Program::Output::Console);
    ASSERT_TRUE(deletion.waitForOutput("[y/N] "));
    set("kParamTransportState", "2");
    deletion.type("y\n");
    EXPECT_EQ(deletion.wait(), 1);
    expectNoRequest();
}

} // namespace
