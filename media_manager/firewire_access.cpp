// FireWire disk access: no board has a controller for it yet.

#include "media_manager/media_manager.h"
#include "parameters.h"

bool MediaManager::serviceFirewireAccess() { return false; }

int MediaManager::startRequestedFirewireAccess(int result) {
    // A start that fails is answered by turning the mode off.
    if (_firewireStartRequested.exchange(false)) _config->setInteger(kParamFirewireMode, 0);
    return result;
}
