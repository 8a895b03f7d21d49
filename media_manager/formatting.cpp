// Erasing a medium.

#include "classes/diagnostics/diagnostics.h"
#include "media_manager/media_manager.h"

bool MediaManager::eraseStorage(eStorageSlot_t /*slot*/) {
    // The request is consumed, so that it does not stand in the way of later commands; the medium is left as it is.
    clearEraseCommand();
    report("formatting is not available; the request is dropped");
    return true;
}
