#include "simulation/endpoint.h"

#include <unistd.h>

#include <vector>

#include "simulation/world.h"

namespace simulation {

namespace {

constexpr Nanoseconds kTick = 100 * kMillisecond;
constexpr Nanoseconds kAnswerOfTheBus = 2 * kSecond;
constexpr Nanoseconds kOthersFirst = 8 * kSecond;

} // namespace

bool Endpoint::has(const Disk& disk) const { return _running && _disk != 0 && _disk == disk.serial; }

bool Endpoint::has(const std::string& diskName) const {
    const Disk* const disk = _world.appliance.disk(diskName);
    return disk != nullptr && has(*disk);
}

SlotHardware* Endpoint::slot() const {
    const auto configured = _world.appliance.files().find(kConfiguration);
    if (configured == _world.appliance.files().end()) return nullptr;
    for (SlotHardware& each : _world.appliance.slots())
        if (each.name == configured->second) return &each;
    return nullptr;
}

Medium* Endpoint::medium() const {
    const Disk* const disk = _world.appliance.disk(_disk);
    return disk == nullptr ? nullptr : disk->medium;
}

// ---- The process

void Endpoint::start() {
    if (_running) end();
    _running = true;
    _begun = _ending = _defiant = _busy = false;
    _asked = _seen = -1;
    _world.scheduler.after(_world.random.between(0, 50 * kMillisecond), [this, life = ++_life] {
        if (life == _life && _running && !_ending) begin();
    });
}

void Endpoint::begin() {
    _begun = true;
    _world.appliance.files().erase(kStop);
    SlotHardware* const mine = slot();
    _world.note([&] { return "endpoint starts for " + (mine == nullptr ? std::string("no slot") : mine->name); });
    if (mine != nullptr && _world.appliance.diskIn(*mine) == nullptr) {
        _asked = _world.scheduler.now();
        _world.appliance.probe(*mine);
    }
    tick();
}

void Endpoint::tick() {
    if (!_ending) {
        if (_disk == 0)
            seek();
        else
            watch();
    }
    _world.scheduler.after(kTick, [this, life = _life] {
        if (life == _life && _running) tick();
    });
}

void Endpoint::seek() {
    Appliance& appliance = _world.appliance;
    const SlotHardware* const mine = slot();
    const Disk* const found = mine == nullptr ? nullptr : appliance.diskIn(*mine);
    const Nanoseconds now = _world.scheduler.now();
    if (found == nullptr || found->pulled) {
        _seen = -1;
        _busy = false;
        return;
    }
    if (_busy) return;
    if (_seen == -1) _seen = _quietSince = now;
    const bool own = (_asked != -1 && _seen - _asked < kAnswerOfTheBus) || _had == found->serial;
    const bool lookedAt = appliance.isMounted(found->name) || appliance.claimed() == found->name;
    if (!own && lookedAt) _quietSince = now;
    if (!own && now - _quietSince < kOthersFirst) return;
    if (lookedAt) {
        _busy = true;
        _world.note([&] { return "endpoint leaves " + found->name + " alone, which is in use"; });
        return;
    }
    _disk = _had = found->serial;
    _world.note([&] { return "endpoint has " + found->name; });
}

void Endpoint::watch() {
    const Disk* const disk = _world.appliance.disk(_disk);
    if (disk != nullptr && !disk->pulled && !disk->medium->isDead()) return;
    _world.note([] { return std::string("endpoint lost its disk"); });
    if (_host) {
        _world.appliance.files()[kUnavailable] = "";
        cut("lost");
    }
    letGo();
}

void Endpoint::letGo() {
    _disk = 0;
    _asked = _seen = -1;
}

void Endpoint::askToEnd() {
    if (!_running || _ending) return;
    Random& random = _world.random;
    if (_world.faults && random.chance(_world.temper.endpointStays)) {
        _defiant = true;
        _world.note([] { return std::string("endpoint does not want to end"); });
        return;
    }
    _ending = true;
    const bool slow = _world.faults && random.chance(_world.temper.endpointStays);
    // As one that waits for a disk that does not answer.
    if (slow) _defiant = true;
    const Nanoseconds time = random.between(0, slow ? 8 * kSecond : 400 * kMillisecond);
    _world.scheduler.after(time, [this, life = _life] {
        if (life == _life && _running) end();
    });
}

void Endpoint::end() {
    if (_host) cut("ends");
    letGo();
    _running = false;
    ++_life;
    _world.note([] { return std::string("endpoint ends"); });
}

// ---- The computer

void Endpoint::login() {
    if (!_running || _ending || _host || _disk == 0) return;
    Medium* const disk = medium();
    if (disk == nullptr || !disk->partitioned) return;
    _host = true;
    _world.appliance.files().erase(kNotInUse);
    _hostMounted = disk->formatted && disk->clean && !disk->damaged && !disk->writeProtected && !disk->isDead();
    if (_hostMounted) disk->clean = false;
    _world.note([&] { return "computer logs in to " + disk->name(); });
}

void Endpoint::logout() {
    if (!_host) return;
    if (Medium* const disk = medium(); disk != nullptr && _hostMounted && !disk->isDead()) disk->clean = true;
    _world.note([] { return std::string("computer logs out"); });
    ended();
}

// What the computer had not written is lost.
void Endpoint::cut(const char* why) {
    if (Medium* const disk = medium(); disk != nullptr && _hostMounted) disk->repairable = _world.random.chance(900);
    _world.note([&] { return std::string("computer is cut off: ") + why; });
    ended();
}

void Endpoint::ended() {
    _host = _hostMounted = false;
    _world.appliance.files()[kNotInUse] = "";
    _world.appliance.files().erase(kStop);
}

void Endpoint::calmDown() {
    logout();
    if (isDefiant()) end();
}

void Endpoint::act() {
    Random& random = _world.random;
    if (!_running || !_begun || _ending) return;
    if (!_host) {
        if (random.chance(600)) login();
        return;
    }
    Medium* const disk = medium();
    const bool reached = disk != nullptr && _hostMounted && !disk->isDead() && isDirectory(disk->makerDirectory());
    switch (random.below(10)) {
    case 0: case 1: case 2: {
        if (!reached || filesIn(disk->makerDirectory()).size() >= 14) break;
        const std::string name = "Host" + std::to_string(++_written % 20) + ".mov";
        writeFile(disk->makerDirectory() + "/" + name,
                  clipBytes(static_cast<std::uint32_t>(1'600'000'000 + random.below(1000)), 3), _world.scheduler.now());
        disk->made(name);
        _world.note([&] { return "computer writes " + name + " on " + disk->name(); });
        break;
    }
    case 3: {
        if (!reached) break;
        const std::vector<std::string> files = filesIn(disk->makerDirectory());
        if (files.empty()) break;
        const std::string name = random.oneOf(files);
        if (::unlink((disk->makerDirectory() + "/" + name).c_str()) == 0)
            _world.note([&] { return "computer deletes " + name + " on " + disk->name(); });
        break;
    }
    case 4:
        _world.appliance.files()[kStop] = "";
        _world.note([] { return std::string("computer asks for the release"); });
        break;
    case 5: case 6: logout(); break;
    case 7: cut("cable"); break;
    case 8:
        if (!_world.faults || !random.chance(300)) break;
        // It crashes, and no file tells of it.
        _world.note([] { return std::string("endpoint crashes"); });
        if (disk != nullptr && _hostMounted) disk->repairable = random.chance(900);
        _host = _hostMounted = _running = false;
        letGo();
        ++_life;
        break;
    default: break; // it goes on using the disk
    }
}

} // namespace simulation
