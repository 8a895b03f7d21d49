// The text of kParamClipsToDelete, and of the recording setting that is read as one: where a client writes it, as the
// daemon takes it apart, and in the line of shell that comes of it. The first byte of an input chooses the parameter.

#include <fcntl.h>
#include <sys/stat.h>

#include <memory>
#include <set>

#include "daemonizer.h"
#include "deletion_request.h"
#include "fuzzers/fuzzer.h"
#include "media_manager/media_manager.h"
#include "parameters.h"
#include "platform/parameter_store/value_rules.h"
#include "slots/slot_listener.h"
#include "tests/fakes/fakes.h"

namespace {

using fuzzers::require;

constexpr char kBoard[] = R"(
board_id = 0x0a3c
mediaCapabilities = {}
specification = { slots = { { name = "S1", address = "/ata1/" } } }
usefulStrings = { driver_scan = "scan" }
)";

std::set<std::string> namesOf(const std::string& value) {
    std::set<std::string> names;
    if (value.empty()) return names;
    std::size_t at = 0;
    for (std::size_t end; (end = value.find('|', at)) != value.npos; at = end + 1) names.insert(value.substr(at, end - at));
    if (at < value.size()) names.insert(value.substr(at));
    return names;
}

// The words of one command as a shell has them, were every expansion refused.
std::vector<std::string> wordsOf(const std::string& command) {
    std::vector<std::string> words;
    bool isQuoted = false;
    bool isWord = false;
    for (const char c : command) {
        if (c == '"') {
            isQuoted = !isQuoted;
            if (!isWord) words.emplace_back();
            isWord = true;
        } else if (!isQuoted && c == ' ') {
            isWord = false;
        } else {
            require(std::string_view(isQuoted ? "\"\\$`" : "\"\\$`;&|<>(){}[]?~#!'\n\t").find(c) == std::string_view::npos,
                    "no character has a meaning to the shell");
            if (!isWord) words.emplace_back();
            isWord = true;
            words.back() += c;
        }
    }
    require(!isQuoted, "quotes are closed");
    return words;
}

// The manager as it stands after its start, without a medium. Made once: a request leaves nothing behind in it.
struct Recorder {
    Recorder() {
        Daemonizer::name = "Media Manager";
        world.card.recordReads = false;
        require(listener.parseSpecification("0x00000a3c", kBoard, &world.shell) == 0, "the board is good");
        require(manager.init() == 0, "the manager starts");
    }

    fakes::World world;
    SlotListener listener{&world.config, &world.card, world.os};
    MediaManager manager{&listener, &world.card, &world.config, &world.events, &world.shell, world.os};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzzers::StandardError errors;
    ::umask(0);
    static Recorder recorder;
    fuzzers::Input input(data, size);
    const bool isSetting = (input.byte() & 1) != 0;
    const std::string value = input.rest();

    const bool isTaken = checkValue(isSetting ? kParamRecordSetting1302 : kParamClipsToDelete, value) == kConfigOk;
    if (isTaken && !isSetting) require(isDeletionRequest(value), "the store takes deletion requests only");
    recorder.world.journal.clear();
    recorder.world.events.raise(isSetting ? kParamRecordSetting1302 : kParamClipsToDelete, value);
    std::set<std::string> names = recorder.manager.getClipsToDelete();
    require(names == namesOf(value), "the names are those between the separators");
    if (!isTaken) {
        recorder.manager.removeDeletedClips(names);
        return 0;
    }

    const std::set<std::string> asked = names;
    require(recorder.manager.deleteClips(names) == (asked.empty() ? 0 : 1), "something is deleted where names are given");
    require(recorder.manager.getClipsToDelete().empty(), "a request is carried out once");
    const auto lines = recorder.world.journal.matching("run pushd ");
    require(lines.size() == (asked.empty() ? 0 : 1), "one line deletes");
    if (lines.empty()) return 0;
    const std::string begin = "run pushd /NEVO/; ";
    const std::string end = "; popd";
    require(lines[0].starts_with(begin) && lines[0].ends_with(end), "it works in the maker directory");
    const std::string command = lines[0].substr(begin.size(), lines[0].size() - begin.size() - end.size());
    std::vector<std::string> words = wordsOf(command);
    require(words.size() >= 2 && words[0] == "rm" && words[1] == "-f", "it removes");
    words.erase(words.begin(), words.begin() + 2);
    if (asked.contains("*"))
        require(words == std::vector<std::string>{"*"}, "everything goes");
    else
        require(words == std::vector<std::string>(asked.begin(), asked.end()), "the names are the words of the line");
    // The setting's owner decides about the rest.
    for (const std::string& word : words) {
        if (isSetting) break;
        require(word.find('/') == word.npos && word != "." && word != ".." && !word.starts_with('-'),
                "nothing but a file of the maker directory goes");
        require(fuzzers::isHarmless(word) && word.find('\n') == word.npos, "no control characters");
    }
    require(fuzzers::isHarmless(errors.take()), "what is said is fit for a terminal");
    return 0;
}
