// The command line: help, wrong usage, and the one answer that every command gives where nobody serves the store.

#include "recorder.h"

namespace {

using Arguments = std::vector<std::string>;

struct Usage : Recorder, testing::WithParamInterface<Arguments> {};

std::string joined(const testing::TestParamInfo<Arguments>& information) {
    std::string result = "row" + std::to_string(information.index);
    for (const std::string& argument : information.param) {
        result += "_";
        for (const char c : argument)
            if (isalnum(static_cast<unsigned char>(c))) result += c;
    }
    return result;
}

struct WrongUsage : Usage {};

// Told before anybody is asked: no store is served here.
TEST_P(WrongUsage, endsWithTwoAndOneLine) { expectFailure(mediactl(GetParam()), 2, ""); }

INSTANTIATE_TEST_SUITE_P(
    Rows, WrongUsage,
    testing::Values(Arguments{}, Arguments{"unheard-of"}, Arguments{"--unheard-of"}, Arguments{"get"},
                    Arguments{"get", "kParamUnheardOf"}, Arguments{"get", "kParamAlarms", "unheardOf"},
                    Arguments{"get", "0x100000000"}, Arguments{"get", "4294967296"}, Arguments{"get", "-1"},
                    Arguments{"get", ""}, Arguments{"get", "0x"}, Arguments{"get", "--json", "kParamAlarms"},
                    Arguments{"set"}, Arguments{"set", "kParamAlarms"}, Arguments{"set", "kParamAlarms", "1", "2"},
                    Arguments{"set", "unheardOf", "1"}, Arguments{"set", "kParamAlarms", "2147483648"},
                    Arguments{"set", "kParamAlarms", "-2147483649"}, Arguments{"set", "kParamAlarms", "4294967295"},
                    Arguments{"set", "kParamAlarms", "0x100000000"}, Arguments{"set", "kParamAlarms", "-0x1"},
                    Arguments{"set", "kParamAlarms", "0x-1"}, Arguments{"set", "kParamAlarms", "1x"},
                    Arguments{"set", "kParamAlarms", " 1"}, Arguments{"set", "kParamAlarms", "+1"},
                    Arguments{"set", "kParamAlarms", ""}, Arguments{"set", "kParamAlarms", "99999999999999999999"},
                    Arguments{"set", "kParamAlarms", "text"}, Arguments{"watch", "unheardOf"},
                    Arguments{"list", "more"}, Arguments{"status", "more"}, Arguments{"status", "--unheard-of"},
                    Arguments{"clips", "more"}, Arguments{"clips", "--watch", "more"},
                    Arguments{"delete"}, Arguments{"delete", "--yes"}, Arguments{"delete", "a.mov", "--all"},
                    Arguments{"delete", "-r"}, Arguments{"delete", "--timeout", "soon", "a.mov"},
                    Arguments{"format", "more"}, Arguments{"format", "--timeout"},
                    Arguments{"playlists", "--watch"}, Arguments{"acquire", "more"},
                    Arguments{"acquire", "--timeout"}, Arguments{"acquire", "--timeout", "-1"},
                    Arguments{"release", "--timeout", "soon"}, Arguments{"slot"}, Arguments{"slot", "previous"},
                    Arguments{"slot", "next", "more"}, Arguments{"remount", "--timeout", "1"},
                    Arguments{"shutdown", "--timeout", "86401"},
                    Arguments{"firewire"}, Arguments{"firewire", "maybe"}, Arguments{"firewire", "on", "off"},
                    Arguments{"firewire", "off", "--timeout", "soon"}, Arguments{"firewire", "status", "--json"}, Arguments{"card"}, Arguments{"card", "unheard-of"},
                    Arguments{"card", "create", "more"}, Arguments{"card", "read"}, Arguments{"card", "read", "65536"},
                    Arguments{"card", "read", "-1"}, Arguments{"card", "read", "1", "2"}, Arguments{"card", "read", ""},
                    Arguments{"card", "read", "1", "--mask", "0x100000000"},
                    Arguments{"card", "read", "1", "--shift", "x"}, Arguments{"card", "write"},
                    Arguments{"card", "write", "1"}, Arguments{"card", "write", "1", ""},
                    Arguments{"card", "write", "1", "4294967296"}, Arguments{"card", "write", "65536", "1"},
                    Arguments{"status", "get"}, Arguments{"get", "a\nb\x1b[2J"}),
    joined);

TEST_F(Usage, aComplaintHoldsNothingThatATerminalWouldObey) {
    const Result result = mediactl({"get", "a\nb\x1b[2J"});
    expectFailure(result, 2, "\"a\\nb\\x1b[2J\"");
}

struct NobodyServes : Usage {};

TEST_P(NobodyServes, endsWithThreeAndOneLine) {
    expectFailure(mediactl(GetParam()), 3, "nobody serves the parameter store");
}

INSTANTIATE_TEST_SUITE_P(Rows, NobodyServes,
                         testing::Values(Arguments{"get", "kParamAlarms"}, Arguments{"set", "kParamAlarms", "1"},
                                         Arguments{"watch"}, Arguments{"watch", "kParamAlarms"}, Arguments{"status"},
                                         Arguments{"status", "--json"}, Arguments{"status", "--watch"},
                                         Arguments{"status", "--watch", "--json"}, Arguments{"acquire"},
                                         Arguments{"release"}, Arguments{"slot", "next"}, Arguments{"firewire", "on"},
                                         Arguments{"firewire", "off"}, Arguments{"firewire", "status"}, Arguments{"remount"},
                                         Arguments{"shutdown"}, Arguments{"delete", "--yes", "a.mov"},
                                         Arguments{"delete", "--yes", "--all"}, Arguments{"format", "--yes"},
                                         Arguments{"clips", "--watch"}, Arguments{"clips", "--watch", "--json"}),
                         joined);

TEST_F(NobodyServes, alsoWhenAHostLeftItsSocketBehind) {
    serve();
    killHost();
    expectFailure(mediactl({"get", "kParamAlarms"}), 3, "nobody serves the parameter store");
    expectFailure(mediactl({"acquire"}), 3, "nobody serves the parameter store");
}

struct Help : Usage {};

TEST_P(Help, isPrintedAndNothingIsDone) {
    const Result result = mediactl(GetParam());
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_NE(result.output.find("Usage: "), std::string::npos) << result.output;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Help,
    testing::Values(Arguments{"--help"}, Arguments{"-h"}, Arguments{"get", "--help"}, Arguments{"set", "--help"},
                    Arguments{"watch", "--help"}, Arguments{"list", "--help"}, Arguments{"status", "--help"},
                    Arguments{"clips", "--help"}, Arguments{"playlists", "--help"}, Arguments{"acquire", "--help"},
                    Arguments{"delete", "--help"}, Arguments{"format", "--help"},
                    Arguments{"release", "--help"}, Arguments{"slot", "--help"}, Arguments{"slot", "next", "--help"},
                    Arguments{"firewire", "on", "--help"}, Arguments{"firewire", "off", "--help"},
                    Arguments{"firewire", "status", "--help"},
                    Arguments{"remount", "--help"}, Arguments{"shutdown", "--help"}, Arguments{"card", "--help"},
                    Arguments{"card", "create", "--help"}, Arguments{"card", "read", "--help"},
                    Arguments{"card", "write", "--help"}, Arguments{"set", "kParamVolumeName", "--help"}),
    joined);

TEST_F(Help, namesEveryCommandAndExitStatus) {
    const std::string text = mediactl({"--help"}).output;
    for (const char* word :
         {"get", "set", "watch", "list", "status", "clips", "playlists", "acquire", "release", "slot", "remount",
          "shutdown", "delete", "format", "card", "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3"})
        EXPECT_NE(text.find(word), std::string::npos) << word;
}

TEST_F(Usage, anOutputThatCannotBeWrittenIsAFailure) {
    Program shell({"/bin/sh", "-c", "exec \"$@\" >/dev/full", "sh", MEDIACTL, "list"});
    if (std::string(LAUNCHER).empty()) {
        EXPECT_EQ(shell.wait(), 1);
        EXPECT_EQ(shell.errors(), "mediactl: the output cannot be written\n");
    }
}

} // namespace
