#include "simulation/doors.h"

#include <fcntl.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "media_manager/media_manager.h"
#include "parameters.h"
#include "simulation/world.h"
#include "slots/slot_led_register.h"
#include "slots/slot_listener.h"

namespace simulation {

namespace {

constexpr int kUeventSocket = 100;
constexpr int kWake = 200;
constexpr int kInotify = 300;
constexpr long kLoopPeriod = 250'000'000; // nanoseconds

int fail(int error) {
    errno = error;
    return -1;
}

// Put back by a destructor, through which no exception may pass.
bool isSetByDestructor(eParam_t id) {
    return id == kParamRecordSetting1301 || id == kParamRecordSetting1303 || id == kParamRecordSetting2304;
}

} // namespace

// ---- Parameters

int DoorConfig::setInteger(eParam_t id, int value) {
    if (!_world.scheduler.point(!isSetByDestructor(id))) return kConfigOk;
    _world.invariants.parameterWritten(id, value);
    const int status = _world.store.engine().setInteger(id, value);
    _world.note([&] { return std::string("set ") + parameterName(id) + " " + std::to_string(value); });
    _world.invariants.checkSegments();
    _world.store.wakeDelivery();
    return status;
}

int DoorConfig::getInteger(eParam_t id) {
    int value = 0;
    getInteger(id, &value);
    return value;
}

int DoorConfig::getInteger(eParam_t id, int* value) {
    if (!_world.scheduler.point(!isSetByDestructor(id))) return kConfigOk;
    const int status = _world.store.engine().getInteger(id, *value);
    _world.invariants.parameterRead(id, *value);
    _world.invariants.checkSegments();
    return status;
}

int DoorConfig::setString(eParam_t id, std::string value) {
    if (!_world.scheduler.point()) return kConfigOk;
    _world.invariants.storeUsed();
    if (id == kParamStoragePath) _world.invariants.pathWritten(value);
    const int status = _world.store.engine().setString(id, value);
    _world.note([&] { return std::string("set ") + parameterName(id) + " \"" + value + "\""; });
    _world.invariants.checkSegments();
    _world.store.wakeDelivery();
    return status;
}

int DoorConfig::getString(eParam_t id, std::string& value) {
    if (!_world.scheduler.point()) return kConfigOk;
    _world.invariants.storeUsed();
    return _world.store.engine().getString(id, value);
}

DoorChannel::DoorChannel(World& world) : _world(world), _channel(world.store.engine()) {}

void DoorChannel::addListener(ConfigEvents* listener) {
    if (!_world.scheduler.point()) return;
    _world.note([] { return std::string("listens"); });
    _overhearing = std::make_unique<Overhearing>(_world, listener);
    _channel.addListener(_overhearing.get());
}

void DoorChannel::Overhearing::ParamChanged(eParam_t id, unsigned int value, timeval when) {
    _world.invariants.eventArrives(id, static_cast<int>(value));
    _listener->ParamChanged(id, value, when);
}

void DoorChannel::Overhearing::ParamChanged(eParam_t id, std::string value, timeval when) {
    _listener->ParamChanged(id, std::move(value), when);
}

bool DoorChannel::Overhearing::DataChanged(eParam_t id, std::string& data, timeval when) {
    return _listener->DataChanged(id, data, when);
}

void DoorChannel::Overhearing::ParamChanged(ConfigEvent event) { _listener->ParamChanged(std::move(event)); }

// ---- Registers

bool DoorCard::WriteRegister(unsigned int reg, unsigned int value, unsigned int mask, unsigned int shift) {
    if (!_world.scheduler.point()) return false;
    const unsigned int moved = shift < 32 ? value << shift : 0;
    unsigned int& content = _world.appliance.registers()[reg];
    content = (content & ~mask) | (moved & mask);
    _world.note([&] { return "register " + std::to_string(reg) + " = " + std::to_string(content); });
    return true;
}

bool DoorCard::ReadRegister(unsigned int reg, unsigned int* value, unsigned int mask, unsigned int shift) {
    if (!_world.scheduler.point()) return false;
    *value = shift < 32 ? (_world.appliance.registers()[reg] & mask) >> shift : 0;
    return true;
}

// ---- Command lines

int DoorShell::executeCommand(const std::string& line, char* output, std::size_t outputSize) {
    if (!_world.scheduler.point()) return -1;
    _world.note([&] { return "run " + line; });
    const Shell::Answer answer = _shell.run(line);
    if (_world.scheduler.isDying()) return -1;
    _world.note([&] { return "  = " + std::to_string(answer.status) + (answer.output.empty() ? "" : " " + answer.output); });
    _world.invariants.checkSegments();
    if (output != nullptr && outputSize > 0) {
        const std::size_t length = std::min(answer.output.size(), outputSize - 1);
        std::memcpy(output, answer.output.data(), length);
        output[length] = '\0';
    }
    return answer.status;
}

// ---- The operating system

std::time_t DoorSystem::time() {
    _world.scheduler.point();
    return _world.time();
}

std::time_t DoorSystem::steadyTime() { return time(); }

void DoorSystem::pause(long long nanoseconds) {
    if (!_world.scheduler.point()) return;
    _world.scheduler.sleep(nanoseconds);
}

void DoorSystem::sleep(ThreadSleep& /*sleeper*/, long nanoseconds) {
    if (nanoseconds == kLoopPeriod && _world.scheduler.current() == _loopThread && !_world.scheduler.isDying())
        _world.passEnds();
    pause(nanoseconds);
}

void DoorSystem::sleepSeconds(unsigned int seconds) { pause(kSecond * seconds); }

void DoorSystem::sleepMicroseconds(unsigned int microseconds) { pause(kMicrosecond * microseconds); }

int DoorSystem::system(const std::string& line) {
    if (!_world.scheduler.point()) return -1;
    _world.note([&] { return "system " + line; });
    const int status = _shell.run(line).status;
    return status << 8;
}

int DoorSystem::makeDirectory(const std::string& path, mode_t /*mode*/) {
    if (!_world.scheduler.point()) return -1;
    _world.note([&] { return "mkdir " + path; });
    _world.appliance.makeMountPoint(path);
    return 0;
}

int DoorSystem::unlink(const std::string& path) {
    if (!_world.scheduler.point()) return -1;
    _world.note([&] { return "unlink " + path; });
    _world.invariants.unlinks(path);
    return _world.appliance.files().erase(path) != 0 ? 0 : fail(ENOENT);
}

bool DoorSystem::exists(const std::string& path) {
    if (!_world.scheduler.point()) return false;
    const bool there = _world.appliance.files().contains(path);
    _world.invariants.lookedFor(path, there);
    return there;
}

int DoorSystem::createFile(const std::string& path, mode_t /*mode*/) {
    if (!_world.scheduler.point()) return -1;
    _world.note([&] { return "create " + path; });
    _world.appliance.files()[path] = "";
    return 0;
}

bool DoorSystem::isRunning(const std::string& name) {
    return _world.scheduler.point() && name == "endpoint" && _world.endpoint.isRunning();
}

// No card brings any here: tests on the virtual recorder do.
bool DoorSystem::isLink(const std::string& /*path*/) { return false; }

int DoorSystem::guardMount(const std::string& path) {
    if (!_world.scheduler.point()) return -1;
    Mount* const mount = _world.appliance.mountAt(path);
    if (mount == nullptr) return fail(EINVAL);
    mount->guarded = true;
    _world.note([&] { return "guards " + path; });
    return 0;
}

int DoorSystem::startThread(ThreadKind /*kind*/, void* (*body)(void*), void* argument, pthread_t& thread) {
    // Flashers are counted before they start: their count has to be taken back.
    if (!_world.scheduler.point(false)) return EAGAIN;
    const bool flasher = body == &SlotLEDRegister::runFlasherThread;
    const bool loop = body == &MediaManager::RunCommandThread;
    const char* const name = flasher ? "flasher" : loop ? "loop" : "hot-plug";
    SlotLED* const led = flasher ? static_cast<SlotLEDRegister*>(argument) : nullptr;
    if (flasher) _flashing.insert(led);
    const Scheduler::ThreadId id = _world.scheduler.start(
        name, flasher ? Scheduler::Unwinding::Returns : Scheduler::Unwinding::Throws, [this, body, argument, led] {
            body(argument);
            if (led != nullptr) _flashing.erase(_flashing.find(led));
        });
    if (loop) _loopThread = id;
    std::memset(&thread, 0, sizeof thread);
    std::memcpy(&thread, &id, sizeof id);
    return 0;
}

int DoorSystem::joinThread(pthread_t thread) {
    if (!_world.scheduler.point()) return 0;
    Scheduler::ThreadId id = Scheduler::kNobody;
    std::memcpy(&id, &thread, sizeof id);
    _world.scheduler.join(id);
    return 0;
}

int DoorSystem::initSemaphore(sem_t* semaphore, unsigned int value) {
    return OperatingSystem::initSemaphore(semaphore, value);
}

int DoorSystem::waitSemaphore(sem_t* semaphore) {
    _world.scheduler.point();
    return _world.scheduler.wait(semaphore);
}

int DoorSystem::postSemaphore(sem_t* semaphore) {
    const int result = OperatingSystem::postSemaphore(semaphore);
    _world.scheduler.wake(semaphore);
    if (_world.scheduler.point(false)) _world.invariants.checkSegments(); // destructors post
    return result;
}

int DoorSystem::openUevents() {
    _world.scheduler.point();
    return kUeventSocket;
}

int DoorSystem::bindUevents(int /*socket*/, std::uint32_t /*groups*/) {
    _world.scheduler.point();
    _world.appliance.openListener();
    return 0;
}

int DoorSystem::pollUevents(int /*socket*/, int /*wake*/) {
    auto& announcements = _world.appliance.announcements();
    _world.scheduler.point();
    while (announcements.empty() && !_woken && !_world.scheduler.isDying()) _world.scheduler.waitFor(&announcements);
    return _woken || _world.scheduler.isDying() ? 0 : 1;
}

int DoorSystem::lookForUevent(int /*socket*/) {
    return _world.scheduler.point() && !_world.appliance.announcements().empty() ? 1 : 0;
}

ssize_t DoorSystem::receiveUevent(int /*socket*/, void* buffer, std::size_t size) {
    auto& announcements = _world.appliance.announcements();
    if (!_world.scheduler.point() || announcements.empty()) return fail(EAGAIN);
    const std::string datagram = announcements.front();
    announcements.pop_front();
    _world.note([&] { return "hears " + datagram; });
    const std::size_t length = std::min(size, datagram.size());
    std::memcpy(buffer, datagram.data(), length);
    return static_cast<ssize_t>(length);
}

std::uint32_t DoorSystem::droppedUevents(int /*socket*/) { return _world.appliance.dropped(); }

int DoorSystem::openWake() { return kWake; }

void DoorSystem::signalWake(int /*wake*/) {
    _woken = true;
    _world.scheduler.wake(&_world.appliance.announcements());
}

int DoorSystem::openInotify() {
    if (!_world.scheduler.point()) return -1;
    _world.appliance.openWatcher();
    return kInotify;
}

int DoorSystem::getDescriptorFlags(int /*descriptor*/) { return O_RDONLY; }

int DoorSystem::setDescriptorFlags(int /*descriptor*/, int /*flags*/) { return 0; }

int DoorSystem::addInotifyWatch(int /*descriptor*/, const std::string& path, std::uint32_t mask) {
    if (!_world.scheduler.point()) return -1;
    const int watch = _world.appliance.addWatch(path, mask);
    _world.note([&] { return "watch " + path + " = " + std::to_string(watch); });
    return watch == -1 ? fail(ENOENT) : watch;
}

int DoorSystem::removeInotifyWatch(int /*descriptor*/, int watch) {
    if (!_world.scheduler.point()) return -1;
    _world.note([&] { return "unwatch " + std::to_string(watch); });
    return _world.appliance.removeWatch(watch) == 0 ? 0 : fail(EINVAL);
}

ssize_t DoorSystem::read(int descriptor, void* buffer, std::size_t size) {
    if (!_world.scheduler.point()) return fail(EBADF);
    if (descriptor != kInotify) return fail(EBADF);
    auto& events = _world.appliance.fileEvents();
    if (events.empty()) return fail(EAGAIN);
    char* at = static_cast<char*>(buffer);
    while (!events.empty()) {
        const Appliance::FileEvent& next = events.front();
        inotify_event event{};
        event.wd = 1;
        event.mask = next.mask;
        // As the kernel pads: a terminated name, up to a multiple of the record's own size.
        const std::size_t length =
            next.name.empty() ? 0 : (next.name.size() / sizeof event + 1) * sizeof event;
        if (static_cast<std::size_t>(at - static_cast<char*>(buffer)) + sizeof event + length > size) break;
        event.len = static_cast<std::uint32_t>(length);
        std::memcpy(at, &event, sizeof event);
        std::memset(at + sizeof event, 0, length);
        std::memcpy(at + sizeof event, next.name.data(), next.name.size());
        at += sizeof event + length;
        _world.note([&] {
            char mask[16];
            std::snprintf(mask, sizeof mask, "0x%x", next.mask);
            return "sees " + std::string(mask) + " " + next.name;
        });
        events.pop_front();
    }
    return at - static_cast<char*>(buffer);
}

int DoorSystem::close(int descriptor) {
    _world.scheduler.point(false); // destructors close
    if (descriptor == kInotify && !_world.scheduler.isDying()) _world.appliance.closeWatcher();
    return 0;
}

} // namespace simulation
