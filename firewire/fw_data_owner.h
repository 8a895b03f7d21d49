#ifndef MEDIAD_FIREWIRE_FW_DATA_OWNER_H
#define MEDIAD_FIREWIRE_FW_DATA_OWNER_H

#include <string>

#include "slots/slot_led.h"
#include "slots/storage_slot.h"

// What FwData needs of whoever owns the slots. Called on the thread that calls FwData, and only from inside such a call.
class FwDataOwner {
public:
    // Kernel name of the slot's disk ("sdb"), empty while there is none.
    virtual std::string getDevice(eStorageSlot_t slot) = 0;
    // Announced by the kernel and present.
    virtual bool slotPresent(eStorageSlot_t slot) = 0;
    // Looks at every slot once and may take what it finds into use. True when some slot holds a recognised medium.
    virtual bool findStorage(bool) = 0;
    // Takes the slot into use; eStorageSlotUnknown releases the one that is. Not 0: the selection could not be changed
    // as asked. For a release that means that the recorder may still hold the medium.
    virtual unsigned int attemptSlotChange(eStorageSlot_t slot) = 0;
    virtual int setLED(eStorageSlot_t slot, eStorageLEDStatus_t status) = 0;
    virtual void setMediaLoading(bool loading) = 0;
    virtual bool shutdownRequested() = 0;

protected:
    ~FwDataOwner() = default;
};

#endif
