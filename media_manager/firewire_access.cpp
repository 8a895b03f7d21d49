// FireWire disk access: no board has a controller for it yet.

#include "media_manager/media_manager.h"
#include "parameters.h"

bool MediaManager::serviceFirewireAccess() { return false; }

int MediaManager::startRequestedFirewireAccess(int result) {
    // On a board without FireWire the request stands, unanswered. Elsewhere a start that fails turns the mode off.
    if (!_listener->getCapabilities().contains("firewire_data")) return result;
    if (_firewireStartRequested.exchange(false)) _config->setInteger(kParamFirewireMode, 0);
    return result;
}
