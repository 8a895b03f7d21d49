#ifndef MEDIAD_SLOTS_STORAGE_SLOT_H
#define MEDIAD_SLOTS_STORAGE_SLOT_H

#include <cstdint>

// A slot's identifier. The numbers are written to the parameter store as they stand.
enum eStorageSlot_t : std::int32_t {
    eStorageSlotUnknown = 0, // no slot; "default" among the successors in a board specification file
    eStorageSlotS1 = 1,
    eStorageSlotS2 = 2,
    eStorageSlotD1 = 3,
    eStorageSlotD2 = 4,
};

#endif
