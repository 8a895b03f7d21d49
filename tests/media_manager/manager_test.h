#ifndef MEDIAD_TESTS_MEDIA_MANAGER_MANAGER_TEST_H
#define MEDIAD_TESTS_MEDIA_MANAGER_MANAGER_TEST_H

// The media manager on a board of two slots, with every door replaced. What the manager does to the outside is one list
// of lines in the order in which it happened, and a test compares that list whole.
//
// The manager, the slots and their LEDs, and the shared segments are the real ones. The LEDs are parameters, so that
// each change of one is a line of its own (a command that repeats the status makes none).

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "daemonizer.h"
#include "media_manager/media_manager.h"
#include "parameters.h"
#include "slots/slot_listener.h"
#include "tests/fakes/fakes.h"
#include "tests/media_manager/fake_clip_finder.h"
#include "tests/media_manager/fake_media.h"

using fakes::Lines;

inline constexpr char kTwoSlots[] = R"(
board_id = 0x0a3c
mediaCapabilities = {}
specification = {
    slots = {
        { name = "S1", address = "/bus1/", scanPath = "/sys/class/scsi_host/host1/scan",
          capabilities = { "writeable", "proreshq" }, present = { reg = 61, mask = 0x10, shift = 0 },
          status = { { type = "parameter", param = 0x2f010000 } } },
        { name = "S2", address = "/bus2/", scanPath = "/sys/class/scsi_host/host2/scan",
          capabilities = { "writeable" }, present = { reg = 61, mask = 0x20, shift = 0 },
          status = { { type = "parameter", param = 0x2f020000 } } },
    },
    nextSlot = { default = "S1", S1 = "S2", S2 = "S1" },
}
usefulStrings = { driver_scan = "scan drivers", driver_load = "load drivers", cf_hack_enable = "enable hack" }
)";

// To be appended to the board's text.
inline constexpr char kWithHack[] = R"(
mediaCapabilities = { "cf_hack" }
specification.slots[1].cf_hack_present = "S1 on"
specification.slots[1].cf_hack_not_present = "S1 off"
specification.slots[2].cf_hack_present = "S2 on"
specification.slots[2].cf_hack_not_present = "S2 off"
)";

// Two more slots; their devices come at /bus3/ and /bus4/.
inline constexpr char kWithFourSlots[] = R"(
table.insert(specification.slots, { name = "D1", address = "/bus3/", present = { reg = 61, mask = 0x40, shift = 0 } })
table.insert(specification.slots, { name = "D2", address = "/bus4/", present = { reg = 61, mask = 0x80, shift = 0 } })
)";

// A slot, as the tests speak of it.
struct Place {
    eStorageSlot_t id;
    std::string name;
    std::string bus;
    unsigned int pin;
    eParam_t led;

    std::string point() const { return "/mnt/" + name; }
    std::string path() const { return "/mnt/" + name + "/NEVO"; }
};

inline const Place S1{eStorageSlotS1, "S1", "/bus1/", 0x10, 0x2f010000};
inline const Place S2{eStorageSlotS2, "S2", "/bus2/", 0x20, 0x2f020000};
inline const Place D1{eStorageSlotD1, "D1", "/bus3/", 0x40, 0};
inline const Place D2{eStorageSlotD2, "D2", "/bus4/", 0x80, 0};

// --- Lines of the journal.

inline std::string sets(eParam_t id, int value) { return "set " + fakes::hex(id, 8) + " " + std::to_string(value); }
inline std::string sets(eParam_t id, const std::string& text) {
    return "set " + fakes::hex(id, 8) + " \"" + text + "\"";
}
inline std::string gets(eParam_t id) { return "get " + fakes::hex(id, 8); }
inline std::string led(const Place& place, eStorageLEDStatus_t status) { return sets(place.led, status); }

inline Lines join(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

inline constexpr char kUnlink[] = "unlink /var/www/media";

// --- What the operations do, for a clean medium. The LED's lines are not in them: they appear on a change only.

// Nothing is mounted at the slot's mount point.
inline Lines unmountOfNothing(const Place& place, bool quiet) {
    Lines lines{"run /bin/mount | grep " + place.point()};
    if (!quiet) lines.insert(lines.begin(), kUnlink);
    return lines;
}

inline Lines unmounts(const Place& place, const std::string& device, bool lazy, bool quiet) {
    return join({unmountOfNothing(place, quiet),
                 {"run /bin/umount " + std::string(lazy ? "-l" : "") + " " + place.point(),
                  sets(kParamStoragePath, ""),
                  "run /bin/mount | grep /dev/" + device + "2"}});
}

// From the check on.
inline Lines checksAndMounts(const Place& place, const std::string& device, bool quiet, bool lightsUp = false) {
    const std::string node = "/dev/" + device + "2";
    Lines lines{"run /usr/local/bin/fsck.hfsplus -q " + node + " 2>&1 | grep FILESYSTEM"};
    if (lightsUp) lines.push_back(led(place, eStorageLEDOn));
    lines.push_back("run /bin/mount -onoatime " + node + " " + place.point() + " 2>&1");
    lines.push_back("guard " + place.point());
    lines.push_back("run /bin/echo noop > /sys/block/" + device + "/queue/scheduler");
    lines.push_back("run /bin/mount | grep " + node);
    if (!quiet) {
        lines.push_back(kUnlink);
        lines.push_back("system ln -s " + place.path() + " /var/www/media");
    }
    lines.push_back(sets(kParamStoragePath, place.path()));
    return lines;
}

// Of a medium that is not mounted.
inline Lines mounts(const Place& place, const std::string& device, bool quiet, bool lightsUp = false) {
    return join({unmountOfNothing(place, quiet), checksAndMounts(place, device, quiet, lightsUp)});
}

inline Lines makesDirectories(const Place& place) {
    return {"run /bin/mkdir -p " + place.path() + "/.uploads/",
            "run echo 'This directory contains temporary upload files - DO NOT PUT YOUR FILES INTO THIS FOLDER!!! THEY "
            "WILL BE DELETED!!!' > " +
                place.path() + "/.uploads/README.txt"};
}

inline Lines deletesFromBus(const std::string& device) {
    return {"system echo -n 1 > /sys/block/" + device + "/device/delete"};
}

class ManagerTest : public ::testing::Test {
protected:
    ManagerTest() {
        Daemonizer::killed = 0;
        Daemonizer::name = "Media Manager";
        world.card.recordReads = false;
        world.os.recordReads = false;
        scanner.config = &config;
    }

    // A line on standard error that no test asked for is a failure. (What a sanitizer says goes there too.)
    ~ManagerTest() override {
        manager.reset();
        listener.reset();
        EXPECT_EQ(takeErrors(), "") << "unexpected on standard error";
        Daemonizer::killed = 0;
    }

    // The board, the two-slot one with `more` appended, and a manager that has not been started.
    void makeManager(const std::string& more = "") {
        listener = std::make_unique<SlotListener>(&config, &world.card, world.os);
        ASSERT_EQ(listener->parseSpecification("0x00000a3c", kTwoSlots + more, &shell), 0) << takeErrors();
        manager = std::make_unique<MediaManager>(listener.get(), &world.card, &config, &world.events, &shell, world.os);
    }

    // The same, started with whatever has been put into the slots so far, and the effects of that taken.
    void start(const std::string& more = "") {
        if (!manager) makeManager(more);
        ASSERT_EQ(manager->init(), 0);
        effects();
    }

    // Started with a clean medium in `place`, which is in use when this returns.
    void startWithMedium(const Place& place = S1, const std::string& device = "sdb", const std::string& more = "") {
        makeManager(more);
        config.put(kParamSelectedSlot, place.id);
        insert(place, device);
        start();
        manager->ServiceMountRequests();
        ASSERT_TRUE(media.isMounted(place.point()));
        ASSERT_EQ(config.text(kParamStoragePath), place.path());
        effects();
    }

    // --- The hardware and the kernel.

    void pinGoesIn(const Place& place) { world.card.setBits(61, place.pin); }
    void pinGoesOut(const Place& place) { world.card.clearBits(61, place.pin); }

    void kernelAdds(const Place& place, const std::string& device) { announce(place, device, "add"); }
    void kernelRemoves(const Place& place, const std::string& device) { announce(place, device, "remove"); }

    // A good medium: pin, then announcement.
    void insert(const Place& place, const std::string& device) {
        media.media.try_emplace(device);
        pinGoesIn(place);
        kernelAdds(place, device);
    }

    // Uevents got lost.
    void kernelOverruns() {
        os.dropUevents(1);
        os.sendUevent(fakes::uevent({"change@/devices/other", "ACTION=change"}));
        EXPECT_TRUE(listener->listenStep());
        EXPECT_FALSE(listener->listenStep()); // with nothing waiting any more the loss shows
    }

    // --- Other processes.

    void post(eParam_t id, unsigned int value) {
        config.put(id, static_cast<int>(value));
        world.events.raise(id, value);
    }
    void post(eParam_t id, const std::string& text) {
        config.put(id, text);
        world.events.raise(id, text);
    }

    // --- What came out.

    // The journal since the last call.
    Lines allEffects() { return world.journal.take(); }

    // The same, without what belongs to the watching of the medium.
    Lines effects() {
        Lines kept;
        for (const std::string& line : allEffects()) {
            bool watching = false;
            for (const char* begin : {"inotify", "getFlags ", "setFlags ", "watch ", "unwatch ", "readDescriptor "})
                watching = watching || line.starts_with(begin);
            if (!watching) kept.push_back(line);
        }
        return kept;
    }
    void expectEffects(const Lines& expected) { EXPECT_EQ(effects(), expected); }
    void expectAllEffects(const Lines& expected) { EXPECT_EQ(allEffects(), expected); }
    void expectNoEffects() { EXPECT_EQ(effects(), Lines{}); }

    // The same, the lines of one kind only.
    Lines effectsOf(const std::string& begin) {
        Lines kept;
        for (const std::string& line : effects())
            if (line.starts_with(begin)) kept.push_back(line);
        return kept;
    }

    std::string takeErrors() { return errors.take(); }
    void expectError(const std::string& text) { EXPECT_EQ(takeErrors(), text); }

    int now() { return static_cast<int>(os.time()); }

    // The way of a medium into use, from the request on: name, check, quiet mount, clips, unmount, selection. Nothing
    // was selected before; `numbering` is what happens when there are clips on the medium.
    Lines goesIntoUse(const Place& place, const std::string& device, const std::string& label = "CARD",
                      const Lines& numbering = {}) {
        return join({{"run /usr/local/bin/volname.hfsplus /dev/" + device + "2 | awk -F': ' '{printf $2}'",
                      sets(kParamVolumeName, label),
                      "run /usr/local/bin/volname.hfsplus /dev/" + device + "2 2>&1"},
                     mounts(place, device, true),
                     activates(place, device, numbering),
                     {sets(kParamSlotChangeCommand, 0), sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0),
                      sets(kParamSelectedSlot, place.id)}});
    }

    // Of a medium that is mounted.
    Lines activates(const Place& place, const std::string& device, const Lines& numbering = {}) {
        return join({unmounts(place, device, true, true), checksAndMounts(place, device, true),
                     makesDirectories(place),
                     {"clips scan " + place.path(), "clips find true false true"},
                     numbering,
                     unmounts(place, device, false, false),
                     {sets(kParamMediaChangedTime, now())}});
    }

    // Of the medium in use, which is present; all of its alarms are clear. `since` is the time of the release.
    Lines releases(const Place& place, const std::string& device, int since) {
        return join({{sets(kParamVolumeName, "N/A"), sets(kParamClipName, "N/A"), sets(kParamClipIndex, 0),
                      "clips flushAll", sets(kParamPlaylistName, ""), sets(kParamMediaChangedTime, since),
                      "run /bin/mount | grep /dev/" + device + "2"},
                     unmounts(place, device, false, false),
                     {led(place, eStorageLEDOff)},
                     unmountOfNothing(place, true),
                     deletesFromBus(device)});
    }

    fakes::World world;
    fakes::FakeConfig& config = world.config;
    fakes::FakeFileUtils& shell = world.shell;
    fakes::FakeOperatingSystem& os = world.os;
    fakes::FakeMedia media{shell};
    fakes::ClipScanner scanner{world.journal};
    fakes::StandardError errors;
    std::unique_ptr<SlotListener> listener;
    std::unique_ptr<MediaManager> manager;

private:
    void announce(const Place& place, const std::string& device, const std::string& action) {
        os.sendUevent(fakes::uevent({action + "@/devices/x", "ACTION=" + action, "DEVNAME=" + device,
                                     "PHYSDEVPATH=/devices" + place.bus + "target0"}));
        ASSERT_TRUE(listener->listenStep());
    }
};

#endif
