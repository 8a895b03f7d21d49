#include "simulation/appliance.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "simulation/world.h"

namespace simulation {

namespace {

constexpr char kFolder[] = "/tmp/cards";
constexpr char kDead[] = "/tmp/cards/dead"; // never there: what a file system without its disk looks like
constexpr std::size_t kSocketRoom = 24;     // announcements that wait; a small socket, so that it overflows

std::string unmountedFolder(const std::string& mountPoint) {
    return kFolder + std::string("/under-") + mountPoint.substr(mountPoint.rfind('/') + 1);
}

} // namespace

std::string Mount::line() const {
    return "/dev/" + disk + "2 on " + mountPoint + " type hfsplus (" + (readOnly ? "ro" : "rw") +
           ",noatime,umask=22,uid=0,gid=0,nls=utf8)\n";
}

Appliance::Appliance(World& world) : _world(world) {
    Random& random = world.random;
    ::mkdir(kFolder, 0755);
    _cfHack = random.chance(250);
    _firewire = random.chance(350);
    _driverMisses = random.chance(200) ? static_cast<int>(random.below(4)) : 0;
    _watchCapacity = random.chance(200) ? 3 : 1000;
    const std::vector<std::string> names = {"S1", "S2", "D1", "D2"};
    const std::size_t count = random.chance(700) ? 2 : 1 + static_cast<std::size_t>(random.below(4));
    for (std::size_t i = 0; i < count; ++i) {
        SlotHardware slot{};
        slot.id = static_cast<eStorageSlot_t>(i + 1);
        slot.name = names[i];
        slot.address = "/0000:00:1" + std::to_string(i) + ".0/";
        slot.scanPath = "/sys/class/scsi_host/host" + std::to_string(i) + "/scan";
        slot.pinMask = 0x10U << i;
        slot.ledIsParameter = random.chance(500);
        slot.ledBit = static_cast<unsigned int>(i);
        slot.ledParameter = 0x7b05010a + 0x100 * static_cast<eParam_t>(i);
        _slots.push_back(slot);
        removeTree(unmountedFolder("/mnt/" + slot.name));
    }
}

std::string Appliance::specification() const {
    std::string text = "board_id = 0x" + boardId() + "\nmediaCapabilities = {" + (_cfHack ? "\"cf_hack\"," : "") +
                       (_firewire ? "\"firewire_data\"" : "") + "}\nspecification = { slots = {\n";
    for (const SlotHardware& slot : _slots) {
        text += "{ name = \"" + slot.name + "\", address = \"" + slot.address + "\", scanPath = \"" + slot.scanPath +
                "\", capabilities = { \"writeable\"" + (slot.id == eStorageSlotS1 ? ", \"proreshq\"" : "") +
                " }, present = { reg = " + std::to_string(kPinRegister) + ", mask = " + std::to_string(slot.pinMask) +
                ", shift = 0 }, status = { { " +
                (slot.ledIsParameter ? "type = \"parameter\", param = " + std::to_string(slot.ledParameter)
                                     : "type = \"register\", reg = " + std::to_string(kLEDRegister) +
                                           ", bit = " + std::to_string(slot.ledBit)) +
                " } }, cf_hack_present = \"echo 1 > /proc/" + slot.name +
                "_power\", cf_hack_not_present = \"echo 0 > /proc/" + slot.name + "_power\" },\n";
    }
    text += "}, nextSlot = { default = \"S1\"";
    for (std::size_t i = 0; i + 1 < _slots.size(); ++i)
        text += ", " + _slots[i].name + " = \"" + _slots[i + 1].name + "\"";
    text += ", " + _slots.back().name + " = \"S1\"";
    return text + " } }\nusefulStrings = { driver_scan = \"scan-driver\", driver_load = \"load-driver\", "
                  "cf_hack_enable = \"echo 1 > /proc/cf_enable\" }\n";
}

SlotHardware* Appliance::slot(eStorageSlot_t id) {
    for (SlotHardware& each : _slots)
        if (each.id == id) return &each;
    return nullptr;
}

// ---- The operator's hands

void Appliance::setPinLater(SlotHardware& slot) {
    const auto settle = [this, &slot] {
        const bool in = slot.medium != nullptr;
        slot.pin = in;
        _registers[kPinRegister] = (_registers[kPinRegister] & ~slot.pinMask) | (in ? slot.pinMask : 0);
        _world.note([&] { return "pin of " + slot.name + (in ? " on" : " off"); });
    };
    // Contacts bounce.
    if (_world.random.chance(200)) {
        _world.scheduler.after(_world.random.between(0, _world.temper.pinDelay), [this, &slot] {
            _registers[kPinRegister] ^= slot.pinMask;
            _world.note([&] { return "pin of " + slot.name + " bounces"; });
        });
    }
    _world.scheduler.after(_world.random.between(0, _world.temper.pinDelay), settle);
    _world.scheduler.after(_world.temper.pinDelay + kMillisecond, settle);
}

void Appliance::insert(SlotHardware& slot, Medium& medium) {
    _world.note([&] {
        return "operator inserts " + medium.name() + " into " + slot.name + (medium.formatted ? "" : " unformatted") +
               (medium.clean ? "" : " dirty") + (medium.repairable ? "" : " not repairable") +
               (medium.damaged ? " damaged" : "") + (medium.writeProtected ? " write-protected" : "") +
               (medium.toolsUntilDeath >= 0 ? " dying" : "");
    });
    slot.medium = &medium;
    slot.released = false;
    setPinLater(slot);
    _world.scheduler.after(_world.random.between(0, 800 * kMillisecond), [this, &slot, &medium] {
        if (slot.medium == &medium && diskIn(slot) == nullptr) diskAppears(slot);
    });
}

void Appliance::pull(SlotHardware& slot) {
    Medium& medium = *slot.medium;
    _world.note([&] { return "operator pulls " + medium.name() + " out of " + slot.name; });
    for (Mount& mount : _mounts)
        if (mount.medium == &medium) {
            mount.dead = true;
            if (!mount.readOnly) {
                medium.clean = false;
                medium.repairable = _world.random.chance(900);
            }
            showMounts(mount.mountPoint);
        }
    slot.medium = nullptr;
    setPinLater(slot);
    if (Disk* const pulled = diskIn(slot)) pulled->pulled = true;
    const Disk* const gone = diskIn(slot);
    if (gone == nullptr) return;
    // The kernel notices, also when the same card is back by then.
    _world.scheduler.after(_world.random.between(0, 300 * kMillisecond), [this, &slot, serial = gone->serial] {
        const Disk* const still = diskIn(slot);
        if (still == nullptr || still->serial != serial) return;
        diskVanishes(still->name);
        _world.scheduler.after(_world.random.between(0, 300 * kMillisecond), [this, &slot] {
            if (slot.medium != nullptr && diskIn(slot) == nullptr) diskAppears(slot);
        });
    });
}

// ---- Disks

Disk* Appliance::disk(const std::string& name) {
    for (Disk& each : _disks)
        if (each.name == name) return &each;
    return nullptr;
}

Disk* Appliance::disk(int serial) {
    for (Disk& each : _disks)
        if (each.serial == serial) return &each;
    return nullptr;
}

Disk* Appliance::diskIn(const SlotHardware& slot) {
    for (Disk& each : _disks)
        if (each.slot == &slot) return &each;
    return nullptr;
}

Disk* Appliance::partition(const std::string& node) {
    if (!node.starts_with("/dev/") || !node.ends_with('2')) return nullptr;
    Disk* const found = disk(node.substr(5, node.size() - 6));
    if (found == nullptr || found->slot->medium != found->medium) return nullptr;
    return found->medium->partitioned && !found->medium->isDead() && !found->pulled ? found : nullptr;
}

void Appliance::diskAppears(SlotHardware& slot) {
    // A name is free again when neither a disk nor what is left of its mounts has it.
    for (char letter = 'a';; ++letter) {
        const std::string name = std::string("sd") + letter;
        if (disk(name) != nullptr || isMounted(name)) continue;
        const auto before = std::find_if(_vanished.rbegin(), _vanished.rend(),
                                         [&](const auto& each) { return each.first == name; });
        _disks.push_back({name, &slot, slot.medium, ++_lastSerial, _world.scheduler.now(),
                          before == _vanished.rend() ? nullptr : before->second});
        std::erase_if(_vanished, [&](const auto& each) { return each.first == name; });
        _files["/etc/endpoint.conf." + name] = slot.name;
        _world.note([&] { return "kernel: " + name + " appears in " + slot.name; });
        announce(name, slot, true);
        return;
    }
}

void Appliance::diskVanishes(std::string name) {
    const auto found = std::find_if(_disks.begin(), _disks.end(), [&](const Disk& each) { return each.name == name; });
    if (found == _disks.end()) return;
    SlotHardware& slot = *found->slot;
    found->medium->lingers = false;
    found->medium->synced();
    for (Mount& mount : _mounts)
        if (mount.disk == name && !mount.dead) {
            mount.dead = true;
            if (!mount.readOnly) mount.medium->clean = false;
            showMounts(mount.mountPoint);
        }
    _disks.erase(found);
    _vanished.emplace_back(name, &slot);
    _world.note([&] { return "kernel: " + name + " is gone from " + slot.name; });
    announce(name, slot, false);
}

void Appliance::probe(SlotHardware& slot) {
    const Disk* const known = diskIn(slot);
    if (known != nullptr || slot.medium == nullptr) return;
    diskAppears(slot);
}

void Appliance::deleteDisk(const std::string& name) {
    if (const Disk* const deleted = disk(name); !deleted->pulled) _world.invariants.deletesDisk(*deleted);
    diskVanishes(name);
}

void Appliance::syncAll() {
    for (const Mount& each : _mounts)
        if (!each.dead) each.medium->synced();
}

void Appliance::sync(const std::string& mountPoint) {
    Mount* const found = mountAt(mountPoint);
    if (found == nullptr) return;
    found->medium->synced();
    found->medium->leaves = true;
}

// ---- Announcements

void Appliance::announce(const std::string& name, const SlotHardware& slot, bool comes) {
    const std::string path = "/devices/pci0000:00" + slot.address + "host0/block/" + name;
    const std::string verb = comes ? "add" : "remove";
    const auto datagram = [&](const std::string& device) {
        std::string text = verb + "@" + path + '\0';
        text += "ACTION=" + verb + '\0';
        text += "SUBSYSTEM=block" + std::string(1, '\0');
        text += "PHYSDEVPATH=" + path + '\0';
        return text + "DEVNAME=" + device + '\0';
    };
    send(datagram(name));
    send(datagram(name + "1"));
    send(datagram(name + "2"));
}

void Appliance::send(const std::string& datagram) {
    const Temper& temper = _world.temper;
    if (_world.faults && _world.random.chance(temper.announcementLoss)) return;
    const int copies = _world.faults && _world.random.chance(temper.announcementDoubles) ? 2 : 1;
    for (int i = 0; i < copies; ++i) {
        Nanoseconds delay = _world.random.between(0, temper.announcementDelay);
        // That one overtakes another is a fault like the others.
        if (!_world.faults) delay = std::max(delay, _lastDelivery - _world.scheduler.now());
        _lastDelivery = std::max(_lastDelivery, _world.scheduler.now() + delay);
        _world.scheduler.after(delay, [this, datagram] { deliver(datagram); });
    }
}

void Appliance::deliver(const std::string& datagram) {
    if (!_listening) return;
    if (_announcements.size() >= kSocketRoom) {
        ++_dropped;
        return;
    }
    _announcements.push_back(datagram);
    _world.scheduler.wake(&_announcements);
}

void Appliance::repeatAnnouncements() {
    for (const auto& [name, slot] : _vanished)
        if (diskIn(*slot) == nullptr) announce(name, *slot, false);
    for (const Disk& each : _disks) announce(each.name, *each.slot, true);
}

void Appliance::forgeAnnouncement(const std::string& datagram) { send(datagram); }

void Appliance::openListener() {
    _listening = true;
    _announcements.clear();
    _dropped = 0;
}

void Appliance::closeListener() {
    _listening = false;
    _announcements.clear();
}

// ---- Mounts

Mount* Appliance::mountAt(const std::string& mountPoint) {
    for (auto each = _mounts.rbegin(); each != _mounts.rend(); ++each)
        if (each->mountPoint == mountPoint) return &*each;
    return nullptr;
}

bool Appliance::isMounted(const std::string& name) const {
    return std::any_of(_mounts.begin(), _mounts.end(), [&](const Mount& each) { return each.disk == name; });
}

bool Appliance::isMounted(const Medium& medium) const {
    return std::any_of(_mounts.begin(), _mounts.end(),
                       [&](const Mount& each) { return each.medium == &medium && !each.dead; });
}

int Appliance::mount(const std::string& node, const std::string& mountPoint) {
    constexpr int kFailed = 32;
    const Disk* const found = partition(node);
    if (found == nullptr || !found->medium->formatted || _world.endpoint.has(*found)) return kFailed;
    for (const Mount& each : _mounts)
        if (each.disk == found->name && each.mountPoint == mountPoint) return kFailed; // already mounted there
    const bool readOnly = found->medium->writeProtected || !found->medium->clean;
    _mounts.push_back({found->name, mountPoint, found->medium, readOnly});
    // From now on and until it is unmounted the file system says that it is in use.
    if (!readOnly) found->medium->clean = false;
    found->medium->lingers = found->medium->leaves = false;
    showMounts(mountPoint);
    return 0;
}

int Appliance::unmount(const std::string& mountPoint, bool lazy) {
    constexpr int kFailed = 32;
    Mount* const found = mountAt(mountPoint);
    if (found == nullptr) return kFailed;
    if (!lazy && found->medium->busy > 0) {
        found->stays = true;
        return kFailed;
    }
    const Mount gone = *found;
    _mounts.erase(_mounts.begin() + (found - _mounts.data()));
    showMounts(mountPoint);
    unmounted(gone);
    return 0;
}

void Appliance::unmounted(const Mount& mount) {
    if (isMounted(*mount.medium)) return;
    mount.medium->lingers = mount.medium->busy > 0 && !mount.dead;
    if (!mount.medium->lingers) mount.medium->synced();
    if (!mount.readOnly && !mount.dead) {
        mount.medium->clean = true;
        mount.medium->repairable = true;
    }
    if (_watched != mount.medium) return;
    fileEvent(*mount.medium, "", IN_UNMOUNT);
    fileEvent(*mount.medium, "", IN_IGNORED);
    _watched = nullptr;
    _watch = -1;
}

std::string Appliance::folderAt(const std::string& mountPoint) const {
    for (auto each = _mounts.rbegin(); each != _mounts.rend(); ++each)
        if (each->mountPoint == mountPoint)
            return each->dead || each->medium->isDead() ? std::string(kDead) : each->medium->root();
    return unmountedFolder(mountPoint);
}

void Appliance::daemonBegins() {
    for (const Mount& each : _mounts) each.medium->openAcrossLives = each.medium->busy > 0;
}

void Appliance::daemonEnds() {
    closeListener();
    closeWatcher();
    for (Mount& each : _mounts) each.inherited = true;
}

void Appliance::showMounts(const std::string& mountPoint) {
    ::unlink(mountPoint.c_str());
    [[maybe_unused]] const int result = ::symlink(folderAt(mountPoint).c_str(), mountPoint.c_str());
}

void Appliance::makeMountPoint(const std::string& mountPoint) {
    ::mkdir(unmountedFolder(mountPoint).c_str(), 0755);
    showMounts(mountPoint);
}

// ---- File events

int Appliance::openWatcher() {
    _fileEvents.clear();
    _watched = nullptr;
    _watch = -1;
    return 0;
}

void Appliance::closeWatcher() { openWatcher(); }

int Appliance::addWatch(const std::string& path, std::uint32_t mask) {
    const std::string mountPoint = path.substr(0, path.rfind('/'));
    Mount* const found = mountAt(mountPoint);
    if (found == nullptr || found->dead || !isDirectory(found->medium->makerDirectory())) return -1;
    _watched = found->medium;
    _watchMask = mask;
    _watch = ++_lastWatch;
    return _watch;
}

int Appliance::removeWatch(int watch) {
    if (watch != _watch || _watch == -1) return -1;
    _watch = -1;
    _watched = nullptr;
    return 0;
}

void Appliance::fileEvent(const Medium& medium, const std::string& name, std::uint32_t mask) {
    constexpr std::uint32_t kAlways = IN_UNMOUNT | IN_IGNORED;
    if (_watched != &medium || (mask & (_watchMask | kAlways)) == 0) return;
    if (_fileEvents.size() == _watchCapacity) _fileEvents.push_back({IN_Q_OVERFLOW, ""});
    if (_fileEvents.size() < _watchCapacity) _fileEvents.push_back({mask, name});
}

} // namespace simulation
