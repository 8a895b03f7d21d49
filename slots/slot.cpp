#include "slots/slot.h"

#include <utility>

#include "file_utils.h"

// Neither of the two is ever destroyed: other threads may still ask while the process ends.
const std::set<std::string>& Slot::knownCapabilities = *new std::set<std::string>{"writeable", "proreshq"};
Slot* Slot::_unknownSlot = nullptr;

Slot::Slot() = default;

Slot::Slot(const Slot& other)
    : _slotID(other._slotID),
      _name(other._name),
      _address(other._address),
      _scanPath(other._scanPath),
      _capabilities(other._capabilities),
      _leds(other._leds),
      _sensor(other._sensor),
      _cfHackPresentString(other._cfHackPresentString),
      _cfHackNotPresentString(other._cfHackNotPresentString),
      _system(other._system),
      _lastPresentResult(other._lastPresentResult) {
    const SlotAnnouncement announcement = other.readAnnouncement();
    _recognizedByTheDriver = announcement.recognized;
    _devname = announcement.devname;
    _newlyInserted = announcement.newlyInserted;
}

Slot& Slot::operator=(const Slot& other) {
    if (this == &other) return *this;
    _slotID = other._slotID;
    _name = other._name;
    _address = other._address;
    _scanPath = other._scanPath;
    _capabilities = other._capabilities;
    _leds = other._leds;
    _sensor = other._sensor;
    _cfHackPresentString = other._cfHackPresentString;
    _cfHackNotPresentString = other._cfHackNotPresentString;
    _system = other._system;
    _lastPresentResult = other._lastPresentResult;
    // One lock at a time: two slots assigned to each other on two threads must not wait for each other.
    const SlotAnnouncement announcement = other.readAnnouncement();
    const std::lock_guard lock(_lock);
    _recognizedByTheDriver = announcement.recognized;
    _devname = announcement.devname;
    _newlyInserted = announcement.newlyInserted;
    return *this;
}

Slot::~Slot() = default;

Slot& Slot::getUnknownSlot() {
    static std::once_flag created;
    std::call_once(created, [] { _unknownSlot = new Slot; });
    return *_unknownSlot;
}

void Slot::setName(std::string name) { _name = std::move(name); }

void Slot::setAddress(std::string address) { _address = std::move(address); }

void Slot::setScanPath(std::string scanPath) { _scanPath = std::move(scanPath); }

void Slot::setDevname(std::string devname) {
    const std::lock_guard lock(_lock);
    _devname = std::move(devname);
}

std::string Slot::getDevname() const {
    const std::lock_guard lock(_lock);
    return _devname;
}

void Slot::setRecognizedByTheDriver(bool recognized) {
    const std::lock_guard lock(_lock);
    _recognizedByTheDriver = recognized;
}

bool Slot::isRecognizedByTheDriver() const {
    const std::lock_guard lock(_lock);
    return _recognizedByTheDriver;
}

void Slot::setNewlyInserted(bool newlyInserted) {
    const std::lock_guard lock(_lock);
    _newlyInserted = newlyInserted;
}

bool Slot::isNewlyInserted() const {
    const std::lock_guard lock(_lock);
    return _newlyInserted;
}

void Slot::announce(const std::string& devname) {
    const std::lock_guard lock(_lock);
    // Another name: the word that the disk before had gone got lost.
    _gone = _gone || (_recognizedByTheDriver && _devname != devname);
    _newlyInserted = true;
    _devname = devname;
    _recognizedByTheDriver = true;
    ++_announcements;
}

void Slot::retract() {
    const std::lock_guard lock(_lock);
    forgetDevice();
}

void Slot::forgetDevice() {
    _recognizedByTheDriver = false;
    _gone = true;
    _devname.clear();
}

unsigned int Slot::announcements() const {
    const std::lock_guard lock(_lock);
    return _announcements;
}

void Slot::retractSince(unsigned int announcements) {
    const std::lock_guard lock(_lock);
    if (_announcements == announcements) forgetDevice();
}

void Slot::clearNewlyInsertedSince(unsigned int announcements) {
    const std::lock_guard lock(_lock);
    if (_announcements == announcements) _newlyInserted = false;
}

SlotAnnouncement Slot::readAnnouncement() const {
    const std::lock_guard lock(_lock);
    return {_recognizedByTheDriver, _newlyInserted, _devname};
}

SlotAnnouncement Slot::takeAnnouncement() {
    const std::lock_guard lock(_lock);
    _gone = false;
    return {_recognizedByTheDriver, std::exchange(_newlyInserted, false), _devname};
}

bool Slot::hasGone() const {
    const std::lock_guard lock(_lock);
    return _gone;
}

void Slot::setCFHackPresentString(std::string line) { _cfHackPresentString = std::move(line); }

void Slot::setCFHackNotPresentString(std::string line) { _cfHackNotPresentString = std::move(line); }

bool Slot::isKnownCapability(const std::string& capability) { return knownCapabilities.contains(capability); }

void Slot::addCapability(const std::string& capability) { _capabilities.insert(capability); }

bool Slot::hasCapability(const std::string& capability) const { return _capabilities.contains(capability); }

void Slot::addLED(SlotLED* led) { _leds.insert(led); }

bool Slot::isPresent() {
    const int present = _sensor.isPresent() ? 1 : 0;
    if (present != _lastPresentResult) {
        const std::string& line = present != 0 ? _cfHackPresentString : _cfHackNotPresentString;
        if (!line.empty()) _system->executeCommand(line);
    }
    _lastPresentResult = present;
    return present != 0;
}

bool Slot::isReady() { return isRecognizedByTheDriver() && isPresent(); }
