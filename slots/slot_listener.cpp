#include "slots/slot_listener.h"

// Never destroyed: other threads may still ask while the process ends.
const std::set<std::string>& SlotListener::knownCapabilities = *new std::set<std::string>{"firewire_data", "cf_hack"};
const std::set<std::string>& SlotListener::knownSlotStatusLEDTypes =
    *new std::set<std::string>{"register", "parameter"};

SlotListener::SlotListener(Config* config, Card* card, OperatingSystem& os) : _config(config), _card(card), _os(os) {}

SlotListener::~SlotListener() {
    if (_threadStarted) {
        _os.signalWake(_wake);
        _os.waitSemaphore(&_threadGone);
        sem_destroy(&_threadGone);
    }
    if (_wake != -1) _os.close(_wake);
    if (_socket != -1) _os.close(_socket);
}

std::vector<eStorageSlot_t> SlotListener::supportedSlots() const {
    std::vector<eStorageSlot_t> supported;
    for (const auto& [name, slot] : _slots) supported.push_back(slot.getSlotID());
    return supported;
}

Slot& SlotListener::getSlot(eStorageSlot_t slotID) {
    for (auto& [name, slot] : _slots)
        if (slot.getSlotID() == slotID) return slot;
    return Slot::getUnknownSlot();
}

std::string SlotListener::getUsefulString(std::string key) { return _usefulStrings[key]; }

bool SlotListener::isKnownCapability(const std::string& capability) { return knownCapabilities.contains(capability); }
