// FireWire disk access, as far as the manager is concerned: when it starts, when it ends, what else happens then.

#include <stdexcept>

#include "classes/diagnostics/diagnostics.h"
#include "media_manager/media_manager.h"
#include "parameters.h"

void MediaManager::setUpFirewireAccess() {
    _ownedFwData = std::make_unique<FwData>(this, _config, _shell, _os);
    // Before its init: what that writes comes back as a change event.
    _fwData = _ownedFwData.get();
    _ownedFwData->stopLeftover();
    _ownedFwData->init();
}

bool MediaManager::offeredOverFirewire(eStorageSlot_t slot) {
    const FwData* const fwData = _fwData;
    return fwData != nullptr && fwData->offers(slot);
}

bool MediaManager::isAwaitedOverFirewire(eStorageSlot_t slot) {
    const FwData* const fwData = _fwData;
    return fwData != nullptr && fwData->awaits(slot);
}

bool MediaManager::serviceFirewireAccess() {
    FwData* const fwData = _fwData;
    if (fwData == nullptr || !_firewireActive) return false;
    const bool stopRequested = _firewireStopRequested.exchange(false);
    try {
        if (!stopRequested) {
            fwData->checkMessages();
            return true;
        }
        if (fwData->stopFirewireAccess(false) != 0) {
            report("Data - FW stopped while media in use by remote host.");
            fwData->stopFirewireAccess(true);
        }
    } catch (const std::out_of_range&) {
        abandonFirewireAccess();
        // Access that ends unasked is over for whoever reads the mode, too.
        if (!stopRequested) _config->setInteger(kParamFirewireMode, 0);
    }
    // Somebody acquired the storage meanwhile, and the endpoint may have left the disk off the bus.
    if (_selectedSlot == eStorageSlotUnknown && storageInUse()) _probeWhenPresent.insert(fwData->slot());
    _firewireActive = false;
    if (!firewireStartRequested()) _config->setInteger(kParamFirewireAVCPause, 0);
    return true;
}

int MediaManager::startRequestedFirewireAccess(int result) {
    FwData* const fwData = _fwData;
    // On a board without FireWire the request stands, unanswered.
    if (fwData == nullptr || !_firewireStartRequested.exchange(false)) return result;
    try {
        result = fwData->startFirewireAccess(_selectedSlot);
    } catch (const std::out_of_range&) {
        abandonFirewireAccess();
        result = -1;
    }
    if (result == 0)
        _firewireActive = true;
    else
        _config->setInteger(kParamFirewireMode, 0);
    return result;
}

void MediaManager::abandonFirewireAccess() {
    report("FireWire access ended: the MAC address is too short for an identity.");
    _fwData.load()->giveSlotBack();
}
