#include "simulation/actors.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "parameters.h"
#include "simulation/world.h"

namespace simulation {

namespace {

constexpr int kTransportStopped = 1;
constexpr int kTransportRecording = 2;

constexpr char kMacAddress[] = "00:0c:17:12:34:56";

const std::vector<std::string>& volumeNames() {
    static const auto& names = *new std::vector<std::string>{
        "007", "untitled", "", "Reel; reboot", "$(halt)", "a\tb\nc", "Ein: Name", "\"quoted\" 'name'", "\x1b[2J",
        "No such device"};
    return names;
}

// What somebody may have called a file, for a shell or a terminal to trip over.
const std::vector<std::string>& hostileFileNames() {
    static const auto& names = *new std::vector<std::string>{
        "a\"; halt; \".mov", "$(halt).mov", "`halt`.mov", "\x1b[2J\x07.mov", "-rf.mov", "a\nb.mov", "%s%n.mov",
        "$(halt).playlist", "\x1b]0;x\x07.playlist", "\xff\xfe.mov"};
    return names;
}

} // namespace

Actors::Actors(World& world) : _world(world) {}

Actors::~Actors() {
    if (_recording.descriptor != -1) ::close(_recording.descriptor);
    _world.life = nullptr;
}

void Actors::again(Nanoseconds pause, void (Actors::*act)()) {
    const auto next = [this, act] {
        if (_acting) (this->*act)();
    };
    // Half of what happens, happens while the daemon is busy, between two of its effects.
    if (_world.random.chance(500))
        _world.scheduler.after(_world.random.between(0, pause), next);
    else
        _world.scheduler.afterEffects(1 + _world.random.below(600), next);
}

void Actors::start() {
    _acting = true;
    makeCards();
    for (SlotHardware& slot : _world.appliance.slots())
        if (_world.random.chance(500)) {
            for (Medium& medium : _world.appliance.media()) {
                const auto& slots = _world.appliance.slots();
                const bool taken = std::any_of(slots.begin(), slots.end(),
                                               [&](const SlotHardware& each) { return each.medium == &medium; });
                if (taken) continue;
                _world.appliance.insert(slot, medium);
                break;
            }
        }
    _world.store.set("appliance", kParamReelNumber, static_cast<int>(_world.random.below(1200)));
    _world.store.set("appliance", kParamFirewireString3206, std::string(kMacAddress));
    startDaemon();
    const Temper& temper = _world.temper;
    if (temper.operatorPause > 0) again(temper.operatorPause, &Actors::operatorActs);
    if (temper.clientPause > 0) again(temper.clientPause, &Actors::clientActs);
    if (temper.enginePause > 0) again(temper.enginePause, &Actors::engineActs);
    if (temper.killPause > 0) again(temper.killPause, &Actors::killerActs);
    if (_world.appliance.hasFirewire() && temper.firewirePause > 0) {
        again(temper.firewirePause, &Actors::firewireActs);
        again(temper.firewirePause / 4, &Actors::computerActs);
    }
}

void Actors::makeCards() {
    Random& random = _world.random;
    const std::uint64_t count = 1 + random.below(4);
    const bool allGood = random.chance(300);
    for (std::uint64_t i = 0; i < count; ++i) {
        const int number = static_cast<int>(i + 1);
        Medium& medium = _world.appliance.media().emplace_back(number, "/tmp/cards/" + std::to_string(number));
        medium.usedPercent = random.chance(100) ? 100 : static_cast<int>(random.below(101));
        medium.volumeName = random.oneOf(volumeNames());
        switch (allGood ? 0 : random.below(12)) {
        case 0: case 1: case 2: case 3: case 4: break;
        case 5: case 6: medium.clean = false; break;
        case 7: medium.clean = false; medium.repairable = false; break;
        case 8: medium.damaged = true; break;
        case 9: medium.writeProtected = true; break;
        case 10: medium.formatted = false; medium.partitioned = random.chance(500); break;
        default: medium.toolsUntilDeath = static_cast<int>(1 + random.below(60)); break;
        }
        if (!medium.formatted) continue;
        // Beside the maker directory.
        writeFile(medium.root() + "/x", "somebody else's", 0);
        if (random.chance(800)) medium.makeMakerDirectory();
        if (!isDirectory(medium.makerDirectory())) continue;
        for (std::uint64_t clips = random.below(7); clips > 0; --clips)
            writeFile(medium.makerDirectory() + "/" + someNewClip() + ".mov",
                      clipBytes(static_cast<std::uint32_t>(1'600'000'000 + random.below(100)), 4), 0);
        if (random.chance(300)) writeFile(medium.makerDirectory() + "/broken.mov", "not a clip", 0);
        if (random.chance(200)) {
            const std::string& name = random.oneOf(hostileFileNames());
            writeFile(medium.makerDirectory() + "/" + name,
                      name.ends_with(".mov") ? clipBytes(1'600'000'200, 4) : playlistBytes("x", {"A01"}), 0);
        }
        if (random.chance(300))
            writeFile(medium.makerDirectory() + "/day.playlist", playlistBytes("day", filesIn(medium.makerDirectory())), 0);
    }
}

// ---- The supervisor

void Actors::startDaemon() {
    _startIsComing = false;
    _world.store.set("supervisor", kParamSystemCommand, 0);
    _world.appliance.daemonBegins();
    _life = std::make_unique<DaemonLife>(_world);
    _world.life = _life.get();
}

void Actors::supervise() {
    if (_startIsComing || (_life != nullptr && !_life->hasEnded())) return;
    _world.life = nullptr;
    _life.reset();
    if (_world.temper.storeDiesWithDaemon) _world.store.restart();
    _startIsComing = true;
    _world.scheduler.after(_world.random.between(100 * kMillisecond, 2 * kSecond), [this] { startDaemon(); });
}

void Actors::killerActs() {
    if (_life != nullptr && !_life->hasEnded()) {
        if (_world.random.chance(250)) {
            _life->terminate();
        } else if (_world.random.chance(400)) {
            _life->killAtRecord(1 + _world.random.below(12));
        } else {
            _world.note([] { return std::string("--- kill -9"); });
            _life->kill();
            if (_world.random.chance(150)) {
                // It was writing a segment, and holds the mutex for ever.
                const char* const name = _world.random.chance(500) ? "/NewCacheSharedClipCache_mutex"
                                                                   : "/NewCacheSharedPlaylistCache_mutex";
                sem_t* const mutex = ::sem_open(name, 0);
                if (mutex != SEM_FAILED) {
                    ::sem_trywait(mutex);
                    ::sem_close(mutex);
                    _world.note([&] { return std::string("  and it held ") + name; });
                }
            }
        }
    }
    again(_world.temper.killPause, &Actors::killerActs);
}

// ---- The operator

void Actors::operatorActs() {
    Random& random = _world.random;
    Appliance& appliance = _world.appliance;
    std::vector<Medium*> pocket;
    for (Medium& medium : appliance.media()) {
        const auto& slots = appliance.slots();
        if (std::none_of(slots.begin(), slots.end(), [&](const SlotHardware& each) { return each.medium == &medium; }))
            pocket.push_back(&medium);
    }
    SlotHardware& slot = appliance.slots()[static_cast<std::size_t>(random.below(appliance.slots().size()))];
    if (slot.medium == nullptr) {
        if (!pocket.empty()) appliance.insert(slot, *random.oneOf(pocket));
    } else {
        Medium& old = *slot.medium;
        appliance.pull(slot);
        // Sometimes another card, or the same, is in before anybody has noticed.
        if (random.chance(300)) {
            Medium& next = pocket.empty() || random.chance(400) ? old : *random.oneOf(pocket);
            _world.scheduler.after(random.between(0, 100 * kMillisecond), [this, &slot, &next] {
                const auto& slots = _world.appliance.slots();
                if (slot.medium == nullptr &&
                    std::none_of(slots.begin(), slots.end(), [&](const SlotHardware& each) { return each.medium == &next; }))
                    _world.appliance.insert(slot, next);
            });
        }
    }
    again(_world.temper.operatorPause, &Actors::operatorActs);
}

// ---- Clients

void Actors::acquire() {
    _world.store.set("client", kParamMediaCommand, 1);
    ++_acquired;
}

void Actors::release() {
    _world.store.set("client", kParamMediaCommand, 2);
    _acquired = std::max(0, _acquired - 1);
}

void Actors::askForNextSlot() {
    for (SlotHardware& slot : _world.appliance.slots()) slot.released = true;
    _world.store.set("client", kParamSlotChangeCommand, 6);
}

void Actors::postDeletion() {
    Random& random = _world.random;
    std::string mountPoint;
    const Medium* const medium = mediumInReach(mountPoint);
    std::string names;
    for (std::uint64_t i = 1 + random.below(3); i > 0; --i) {
        std::string name;
        switch (random.below(12)) {
        case 0: name = "*"; break;
        case 1: name = ""; break;
        case 2: name = "no such clip.mov"; break;
        case 3: {
            static const auto& hostile = *new std::vector<std::string>{
                "a\"; reboot; \".mov", "$(reboot).mov", "`halt`", "../../etc/passwd", "-rf", "\\", "..", "a\nb.mov"};
            name = random.oneOf(hostile);
            break;
        }
        default: name = medium == nullptr ? "A001.mov" : someFile(*medium); break;
        }
        names += (names.empty() ? "" : "|") + name;
    }
    if (_world.store.set("client", kParamClipsToDelete, names) == kConfigOk) _world.invariants.deletionRequested(names);
}

void Actors::clientActs() {
    Random& random = _world.random;
    SimulatedStore& store = _world.store;
    switch (random.below(22)) {
    case 0: acquire(); break;
    case 1: case 2: if (_acquired > 0) release(); break;
    case 3: store.set("client", kParamMediaCommand, 3); break;
    case 4: if (random.chance(300)) store.set("client", kParamMediaCommand, 4); break;
    case 5: if (_world.temper.clientsRelease) askForNextSlot(); break;
    case 6:
        if (_world.temper.clientsRelease) {
            for (SlotHardware& slot : _world.appliance.slots()) slot.released = true;
            store.set("client", kParamSlotRemountCommand, 2);
        }
        break;
    case 7: case 8: postDeletion(); break;
    case 9: {
        // Its owner may say what he likes, and the store refuses only what would leave the quotes of a command line.
        static const auto& settings = *new std::vector<std::string>{
            "a setting", "A001.mov|b.mov", "../x", "..", "-rf", "-rf|..|A0", "/", "/etc/passwd", "../../x|b.mov",
            ".uploads/README.txt", "$(reboot)", "a\"; reboot; \"", "`halt`", "\\"};
        const std::string text = random.oneOf(settings);
        if (store.set("client", kParamRecordSetting1302, text) == kConfigOk)
            _world.invariants.deletionRequested(text, true);
        break;
    }
    case 10: store.set("client", kParamClipListMode, static_cast<int>(random.below(3))); break;
    case 11: store.set("client", kParamPlaylistName, random.chance(500) ? std::string("day") : std::string()); break;
    case 12: store.set("client", kParamEncodeType, static_cast<int>(random.below(7))); break;
    case 13: store.set("client", kParamRecordSetting1102, static_cast<int>(random.below(5))); break;
    case 14:
        if (_recording.medium == nullptr) {
            static const auto& states = *new std::vector<int>{0, 1, 15, 19, 20, 5};
            store.set("engine", kParamTransportState, random.oneOf(states));
        }
        break;
    case 15: {
        // Somebody else's alarm comes or goes.
        const eParam_t word = random.chance(500) ? kParamAlarms : kParamExtendedAlarms;
        static const auto& bits = *new std::vector<int>{0x10, 0x400, 0x40000, 0x80000, 0x20};
        store.set("another process", word, store.integer(word) ^ random.oneOf(bits));
        break;
    }
    case 16: store.set("client", kParamReelNumber, static_cast<int>(random.between(-3, 1100))); break;
    case 17: store.set("client", kParamClipName, std::string(random.chance(500) ? "A001" : "A012")); break;
    case 18: store.set("client", kParamFirewireMode, static_cast<int>(random.below(4))); break;
    case 19: if (random.chance(100)) store.set("client", kParamSystemCommand, 8); break;
    case 20:
        // What a stranger with a netlink socket may send.
        _world.appliance.forgeAnnouncement(
            std::string("ACTION=add\0PHYSDEVPATH=/x/0000:00:10.0/y\0DEVNAME=sd;reboot\0", 58));
        break;
    default: store.set("client", kParamMediaChangedTime, static_cast<int>(random.below(1000))); break;
    }
    again(_world.temper.clientPause, &Actors::clientActs);
}

// ---- Whoever wants the medium on a computer, and the computer

void Actors::setFirewireMode(int mode) { _world.store.set("client", kParamFirewireMode, mode); }

void Actors::firewireActs() {
    Random& random = _world.random;
    switch (random.below(5)) {
    case 0: case 1: setFirewireMode(2); break;
    case 2: setFirewireMode(random.chance(500) ? 0 : 1); break;
    case 3: _world.store.set("AV/C", kParamFirewireAVCPause, static_cast<int>(random.below(3))); break;
    default:
        // A recorder that does not know its address, for a while.
        _world.store.set("appliance", kParamFirewireString3206,
                         std::string(random.chance(200) ? "00:0c:17" : kMacAddress));
        break;
    }
    again(_world.temper.firewirePause, &Actors::firewireActs);
}

void Actors::computerActs() {
    _world.endpoint.act();
    again(_world.temper.firewirePause / 4, &Actors::computerActs);
}

// ---- The recording engine and the web interface

Medium* Actors::mediumInReach(std::string& mountPoint) {
    const std::string path = _world.store.text(kParamStoragePath);
    if (path.empty()) return nullptr;
    mountPoint = path.substr(0, path.rfind('/'));
    const Mount* const mount = _world.appliance.mountAt(mountPoint);
    if (mount == nullptr || mount->dead || mount->readOnly || mount->medium->isDead()) return nullptr;
    return isDirectory(mount->medium->makerDirectory()) ? mount->medium : nullptr;
}

std::string Actors::someFile(const Medium& medium) {
    const std::vector<std::string> files = filesIn(medium.makerDirectory());
    return files.empty() ? "A001.mov" : _world.random.oneOf(files);
}

std::string Actors::someNewClip() {
    // Names that begin like others, and names that end in numbers.
    static const auto& stems = *new std::vector<std::string>{"A0", "Clip_", "Clip_1", "Scene 1.5 T", "Z"};
    return _world.random.oneOf(stems) + std::to_string(++_clipNumber % 40);
}

void Actors::record(Medium& medium, const std::string& mountPoint) {
    _recording = {&medium, mountPoint, someNewClip() + ".mov", -1};
    const std::string path = medium.makerDirectory() + "/" + _recording.file;
    _recording.descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    setFileTime(path, _world.scheduler.now());
    ++medium.busy;
    _world.note([&] { return "engine records " + _recording.file + " on " + medium.name(); });
    acquire();
    _world.store.set("engine", kParamTransportState, kTransportRecording);
}

void Actors::endRecording() {
    Medium& medium = *_recording.medium;
    const Mount* const mount = _world.appliance.mountAt(_recording.mountPoint);
    const bool reached = mount != nullptr && mount->medium == &medium && !mount->dead && !medium.isDead() &&
                         isDirectory(medium.makerDirectory());
    const std::string path = medium.makerDirectory() + "/" + _recording.file;
    if (reached) {
        const std::string bytes = clipBytes(static_cast<std::uint32_t>(_world.time()), 8);
        [[maybe_unused]] const ssize_t written = ::write(_recording.descriptor, bytes.data(), bytes.size());
    }
    ::close(_recording.descriptor);
    if (reached) medium.changes(_world.scheduler.now());
    medium.closed();
    _world.note([&] { return "engine ends " + _recording.file + (reached ? "" : ", which is lost"); });
    if (reached) {
        setFileTime(path, _world.scheduler.now());
        medium.made(_recording.file);
        _world.appliance.fileEvent(medium, _recording.file, IN_CLOSE_WRITE);
    }
    _recording = {};
    _world.store.set("engine", kParamTransportState, kTransportStopped);
    release();
}

void Actors::changeFiles(Medium& medium) {
    Random& random = _world.random;
    const std::string folder = medium.makerDirectory() + "/";
    const Nanoseconds now = _world.scheduler.now();
    const auto wrote = [&](const std::string& name, const std::string& bytes) {
        writeFile(folder + name, bytes, now);
        medium.made(name);
        _world.note([&] { return "web interface writes " + name + " on " + medium.name(); });
        _world.appliance.fileEvent(medium, name, IN_CLOSE_WRITE);
    };
    medium.changes(now);
    const std::string file = someFile(medium);
    const auto seconds = static_cast<std::uint32_t>(1'600'000'000 + random.below(1000));
    switch (random.below(7)) {
    case 0: if (filesIn(medium.makerDirectory()).size() < 14) wrote(someNewClip() + ".mov", clipBytes(seconds, 5)); break;
    case 1: wrote("day.playlist", playlistBytes("day", filesIn(medium.makerDirectory()))); break;
    case 2:
        wrote("up" + std::to_string(random.below(3)) + ".mov",
              random.chance(500) ? "half of a clip" : clipBytes(seconds, 6));
        break;
    case 3:
        wrote("list" + std::to_string(random.below(3)) + ".playlist",
              random.chance(300) ? "{" : playlistBytes("l", {"A01"}));
        break;
    case 4: {
        const std::string& name = random.oneOf(hostileFileNames());
        wrote(name, name.ends_with(".mov") ? clipBytes(seconds, 3) : playlistBytes("y", {"A01"}));
        break;
    }
    case 5: {
        if (isDirectory(folder + file) || (_recording.medium == &medium && _recording.file == file)) break;
        const std::string next = someNewClip() + (random.chance(800) ? ".mov" : ".txt");
        if (::rename((folder + file).c_str(), (folder + next).c_str()) != 0) break;
        medium.renamedAway.insert(file.substr(0, file.rfind('.')));
        medium.made(next);
        _world.note([&] { return "web interface renames " + file + " to " + next; });
        _world.appliance.fileEvent(medium, file, IN_MOVED_FROM);
        _world.appliance.fileEvent(medium, next, IN_MOVED_TO);
        break;
    }
    default:
        if (isDirectory(folder + file) || (_recording.medium == &medium && _recording.file == file)) break;
        if (::unlink((folder + file).c_str()) != 0) break;
        _world.note([&] { return "web interface deletes " + file; });
        _world.appliance.fileEvent(medium, file, IN_DELETE);
        break;
    }
}

void Actors::download(Medium& medium) {
    _download = &medium;
    ++medium.busy;
    _world.note([&] { return "somebody downloads from " + medium.name(); });
    _world.scheduler.after(_world.random.between(0, 20 * kSecond), [this, number = ++_downloads] {
        if (_downloads == number) endDownload();
    });
}

void Actors::endDownload() {
    if (_download == nullptr) return;
    _world.note([&] { return "the download from " + _download->name() + " ends"; });
    std::exchange(_download, nullptr)->closed();
}

void Actors::engineActs() {
    std::string mountPoint;
    Medium* const medium = mediumInReach(mountPoint);
    if (_recording.medium != nullptr) {
        if (_world.random.chance(500)) endRecording();
    } else if (medium != nullptr) {
        if (_world.random.chance(400) && filesIn(medium->makerDirectory()).size() < 14)
            record(*medium, mountPoint);
        else if (_download == nullptr && _world.random.chance(100))
            download(*medium);
        else
            changeFiles(*medium);
    }
    again(_world.temper.enginePause, &Actors::engineActs);
}

// ---- The end of all trouble

void Actors::calmDown() {
    _acting = false;
    _world.faults = false;
    _world.note([] { return std::string("--- everything calms down"); });
    for (Medium& medium : _world.appliance.media())
        if (medium.toolsUntilDeath > 0) medium.toolsUntilDeath = -1;
    if (_recording.medium != nullptr) endRecording();
    while (_acquired > 0) release();
    endDownload();
    _world.store.set("engine", kParamTransportState, kTransportStopped);
    _world.store.set("appliance", kParamFirewireString3206, std::string(kMacAddress));
    _world.endpoint.calmDown();
    setFirewireMode(0);
}

} // namespace simulation
