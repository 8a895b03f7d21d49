// mediactl: looks at the recorder's storage and asks mediad for things, as any other process of the recorder would.
// This file is the command line; each command stands in a file of its own.

#include <CLI/CLI.hpp>

#include <functional>
#include <iostream>
#include <optional>

#include "tools/card_commands.h"
#include "tools/clip_deletion.h"
#include "tools/clip_listing.h"
#include "tools/firewire_access.h"
#include "tools/formatting.h"
#include "tools/media_requests.h"
#include "tools/outcome.h"
#include "tools/parameter_commands.h"
#include "tools/status_report.h"

namespace mediactl {
namespace {

constexpr char kAbout[] =
    "Looks at the storage of the recorder, and asks mediad, the storage manager, for things.\n"
    "Everything that mediad knows and does passes through parameters: \"list\" explains them.\n";

constexpr char kMore[] =
    "Parameters are given by name (kParamVolumeName) or by identifier (0x7b03060a). Integers are signed and decimal\n"
    "in output, decimal or hexadecimal (0x...) in input. Text comes out with control characters escaped (\\n, \\x1b).\n"
    "A text that begins with a dash goes behind \"--\": mediactl set -- kParamVolumeName -A-\n"
    "\n"
    "First steps:\n"
    "  mediactl status --watch              what is going on, as it happens\n"
    "  mediactl clips                       the clips of the medium in use\n"
    "  mediactl slot next                   let go of the medium; again: take the next slot's\n"
    "  mediactl firewire on                 lend the medium to a computer\n"
    "  mediactl delete Clip_1.mov           delete a file from it, after asking\n"
    "  mediactl watch kParamAlarms          a line for every change of the alarms\n"
    "  mediactl COMMAND --help              more about one command\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 nobody serves the parameter store.\n";

// What the command line asks for. The texts are what the options write into.
struct CommandLine {
    std::function<Outcome()> command;

    std::vector<std::string> parameters;
    std::string parameter;
    std::string value;
    bool json = false;
    bool watch = false;
    std::vector<std::string> names;
    bool all = false;
    bool yes = false;
    std::optional<unsigned int> seconds;
    std::string reg;
    std::string mask;
    std::string shift;

    // How long an answer may take: what --timeout says, or what is usual for the command.
    std::chrono::seconds patience(unsigned int usual) const { return std::chrono::seconds(seconds.value_or(usual)); }
};

CLI::App* add(CLI::App& to, CommandLine& line, const char* name, const char* about, std::function<Outcome()> command) {
    CLI::App* sub = to.add_subcommand(name, about);
    sub->callback([&line, command = std::move(command)] { line.command = command; });
    return sub;
}

void addJson(CLI::App* to, CommandLine& line) { to->add_flag("--json", line.json, "As JSON"); }

void addTimeout(CLI::App* to, CommandLine& line, unsigned int usual) {
    to->add_option("--timeout", line.seconds,
                   "How long the answer may take; " + std::to_string(usual) + " where not given")
        ->type_name("SECONDS")
        ->check(CLI::Range(0U, 86400U));
}

void defineParameterCommands(CLI::App& app, CommandLine& line) {
    CLI::App* get = add(app, line, "get", "Print the values of parameters, one a line",
                        [&line] { return getParameters(line.parameters); });
    get->add_option("PARAM", line.parameters, "Names or identifiers")->required()->type_name("");

    CLI::App* set =
        add(app, line, "set", "Write a parameter", [&line] { return setParameter(line.parameter, line.value); });
    set->add_option("PARAM", line.parameter, "Name or identifier")->required()->type_name("");
    set->add_option("VALUE", line.value, "An integer or a text, as the parameter's type is")->required()->type_name("");

    CLI::App* watch = add(app, line, "watch", "Print a line for every change: identifier, name, new value",
                          [&line] { return watchParameters(line.parameters); });
    watch->add_option("PARAM", line.parameters, "Names or identifiers; all parameters where none is given")
        ->type_name("");
    watch->footer(
        "A posted value is a change, also when it is the value that the parameter had. When the store goes away,\n"
        "mediactl says so on standard error and connects again as soon as it is back.");

    add(app, line, "list", "Explain the parameters: identifier, name, type, access, meaning of the values",
        listParameters)
        ->footer("Access is mediad's own: R it reads the value, W it writes it, C it acts on a change.");
}

void defineViews(CLI::App& app, CommandLine& line) {
    CLI::App* status = add(app, line, "status", "Show the medium in use, its alarms, and the slots",
                           [&line] { return line.watch ? watchStatus(line.json) : showStatus(line.json); });
    status->add_flag("--watch", line.watch,
                     "Go on showing it, redrawn in place; where the output is no terminal, once for each change");
    addJson(status, line);
    status->footer(
        "JSON keys: selected_slot (a name or null), volume, storage_path, capacity (percent), alarms[], loading,\n"
        "progress, transport, slots[{name, present, leds[]}]. With --watch one line for each change.");

    CLI::App* clips = add(app, line, "clips", "List the clips of the medium in use, in time order",
                          [&line] { return line.watch ? watchClips(line.json) : listClips(line.json); });
    clips->add_flag("--watch", line.watch,
                    "Go on listing them, redrawn in place; where the output is no terminal, once for each change");
    addJson(clips, line);
    clips->footer(
        "MATCH tells whether the clip's codec is the one that the recorder was set to when the clip was found.\n"
        "JSON keys: index, name, time (seconds since the epoch), encode_match, attributes{}. With --watch one line for\n"
        "each change.");

    CLI::App* playlists = add(app, line, "playlists", "List the playlists of the medium in use, each with its clips",
                              [&line] { return listPlaylists(line.json); });
    addJson(playlists, line);
    playlists->footer(
        "NAME is what kParamPlaylistName selects it by, TITLE what the playlist calls itself. The index holds the first\n"
        "4096 bytes of each; a longer one is read from the medium.\n"
        "JSON keys: index, name, title (null where it cannot be read), path, modified (seconds since the epoch), text,\n"
        "clips[], complete (whether clips[] is all of them).");
}

void defineRequests(CLI::App& app, CommandLine& line) {
    // Acquire and release are answered at once; the others wait for media: checks, repairs, unmounting.
    constexpr unsigned int kUsualForCounting = 10;
    constexpr unsigned int kUsualForSlotChange = 600;
    constexpr unsigned int kUsualForShutdown = 120;

    addTimeout(add(app, line, "acquire", "Tell mediad that one more process uses the medium, so that it stays in use",
                   [&line] { return acquireStorage(line.patience(kUsualForCounting)); }),
               line, kUsualForCounting);
    addTimeout(add(app, line, "release", "Tell mediad that one process less uses the medium",
                   [&line] { return releaseStorage(line.patience(kUsualForCounting)); }),
               line, kUsualForCounting);

    CLI::App* slot = app.add_subcommand("slot", "Change the slot in use");
    slot->require_subcommand(1);
    addTimeout(add(*slot, line, "next", "Release the medium in use; asked again, take the next slot's",
                   [&line] { return changeToNextSlot(line.patience(kUsualForSlotChange)); }),
               line, kUsualForSlotChange);

    add(app, line, "remount", "Have the medium in use activated again; does not wait for it", remountSelectedSlot);
    CLI::App* shutdown = add(app, line, "shutdown", "End mediad: it unmounts the media and leaves",
                             [&line] { return shutDown(line.patience(kUsualForShutdown)); });
    addTimeout(shutdown, line, kUsualForShutdown);
    shutdown->footer(
        "The request is taken back once mediad has ended, so that it does not end the next one. One that is not answered\n"
        "in time stands until \"mediactl shutdown\" is said again, with mediad down.");
}

void defineFirewire(CLI::App& app, CommandLine& line) {
    constexpr unsigned int kUsualForStart = 60;
    constexpr unsigned int kUsualForStop = 600;
    // The endpoint is started again after at most ten seconds, and a medium that is gone is missed after twelve.
    constexpr unsigned int kUsualForLook = 13;

    CLI::App* firewire = app.add_subcommand("firewire", "Lend the medium in use to a computer on the FireWire bus");
    firewire->require_subcommand(1);

    CLI::App* on = add(*firewire, line, "on", "Hand the medium in use over to FireWire; ends when it is offered",
                       [&line] { return startFirewireAccess(line.patience(kUsualForStart)); });
    addTimeout(on, line, kUsualForStart);
    on->footer(
        "Refused when no slot is selected, when the storage is acquired or cannot be unmounted, when the network address\n"
        "is too short, and on a board without FireWire. A request that is not answered in time stands until\n"
        "\"mediactl firewire off\".");

    CLI::App* off = add(*firewire, line, "off", "Take the medium back; ends when the recorder has it again",
                        [&line] { return stopFirewireAccess(line.patience(kUsualForStop)); });
    addTimeout(off, line, kUsualForStop);
    off->footer("A computer that still uses the disk loses it, with what it has not written yet.");

    CLI::App* status = add(*firewire, line, "status", "Print idle, offered, \"in use by host\" or paused",
                           [&line] { return showFirewireState(line.patience(kUsualForLook)); });
    status->add_option("--timeout", line.seconds, "How long to look before \"paused\" is said; 13 where not given")
        ->type_name("SECONDS")
        ->check(CLI::Range(0U, 86400U));
    status->footer(
        "mediad tells nobody the state; it is put together from the mode, the files of the endpoint application in\n"
        "/var/run and the disk that this application has open. What cannot be known:\n"
        "- Access that is on while nobody has the medium is paused, or its endpoint is just being started. So \"paused\"\n"
        "  is said after a while, unless the endpoint has reported its medium as lost.\n"
        "- A mode of 2 may stand from before mediad was started, or wait for its turn: while a slot is selected and no\n"
        "  endpoint waits for a disk it is \"idle\".\n"
        "- Which slot was handed over, and whether a computer is connected that has not taken the disk.\n"
        "- Who may not look at root's processes cannot see the disk: a running endpoint is taken for one that has it.");
}

void defineLosses(CLI::App& app, CommandLine& line) {
    constexpr unsigned int kUsualForDeletion = 60;
    constexpr unsigned int kUsualForFormatting = 600;
    const auto addYes = [&line](CLI::App* to) { to->add_flag("--yes", line.yes, "Do it without asking, for scripts"); };

    CLI::App* deletion = add(app, line, "delete", "Delete clips and other files from the medium in use", [&line] {
        const std::chrono::seconds patience = line.patience(kUsualForDeletion);
        if (line.all) return deleteEverything(line.yes, patience);
        if (line.names.empty()) return fail(Outcome::WrongUsage, "which files? Name them, or say --all");
        return deleteClips(line.names, line.yes, patience);
    });
    CLI::Option* names =
        deletion->add_option("NAME", line.names, "File names as they stand in the maker directory, such as Clip_1.mov");
    CLI::Option* all = deletion->add_flag("--all", line.all, "Every file that is not hidden");
    names->type_name("");
    names->excludes(all);
    addYes(deletion);
    addTimeout(deletion, line, kUsualForDeletion);
    deletion->footer(
        "Asks first, on a terminal. Tells what was deleted when it is gone from the medium and from the index; a name\n"
        "that is not there is no failure. Names with a slash, |, \", \\, $, ` or a control character, and those that begin\n"
        "with a dash, cannot be asked for. Refused while no slot is selected, the transport is not idle, or FireWire disk\n"
        "access is on.");

    CLI::App* format = add(app, line, "format", "Erase the medium in use: a fresh file system, named by the reel number",
                           [&line] { return formatMedium(line.yes, line.patience(kUsualForFormatting)); });
    addYes(format);
    addTimeout(format, line, kUsualForFormatting);
    format->footer(
        "Shows the volume that will be lost and asks, on a terminal. Ends with the name of the new volume. A request that\n"
        "mediad does not take up in time is withdrawn, and so is one that is interrupted (SIGINT, SIGTERM, SIGHUP) before\n"
        "mediad has begun. Refused as \"delete\" is.");
}

void defineCard(CLI::App& app, CommandLine& line) {
    CLI::App* card = app.add_subcommand("card", "The registers that take the card's place on a machine without one");
    card->require_subcommand(1);
    add(*card, line, "create", "Make the register file; one that exists stays as it is", createCard);

    const auto addField = [&line](CLI::App* to) {
        to->add_option("--mask", line.mask, "The bits that take part; all of them where not given")->type_name("BITS");
        to->add_option("--shift", line.shift, "The position of the field's lowest bit; 0 where not given")
            ->type_name("N");
    };
    CLI::App* read = add(*card, line, "read", "Print a register: its masked bits, shifted right",
                         [&line] { return readCard(line.reg, line.mask, line.shift); });
    read->add_option("REG", line.reg, "Register number, 0 to 65535")->required()->type_name("");
    addField(read);

    CLI::App* write = add(*card, line, "write", "Write a register: replaces its masked bits by the value, shifted left",
                          [&line] { return writeCard(line.reg, line.value, line.mask, line.shift); });
    write->add_option("REG", line.reg, "Register number, 0 to 65535")->required()->type_name("");
    write->add_option("VALUE", line.value, "32-bit number")->required()->type_name("");
    addField(write);
}

Outcome run(int argc, char** argv) {
    CommandLine line;
    CLI::App app(kAbout, "mediactl");
    app.require_subcommand(1);
    defineViews(app, line);
    defineParameterCommands(app, line);
    defineRequests(app, line);
    defineFirewire(app, line);
    defineLosses(app, line);
    defineCard(app, line);
    app.footer(kMore); // now, or every command inherits it

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        app.exit(help);
        return Outcome::Done;
    } catch (const CLI::ParseError& error) {
        return fail(Outcome::WrongUsage, std::string(error.what()) + " (\"mediactl --help\" tells how)");
    }
    return line.command();
}

} // namespace
} // namespace mediactl

int main(int argc, char** argv) {
    using namespace mediactl;
    Outcome outcome = run(argc, argv);
    std::cout.flush();
    if (!std::cout && outcome == Outcome::Done) outcome = fail(Outcome::Failed, "the output cannot be written");
    return static_cast<int>(outcome);
}
