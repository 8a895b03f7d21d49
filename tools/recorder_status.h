#ifndef MEDIAD_TOOLS_RECORDER_STATUS_H
#define MEDIAD_TOOLS_RECORDER_STATUS_H

// One picture of the recorder's storage: from the parameter store, the card's registers and the board's description.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config_events.h"
#include "tools/board_reader.h"
#include "tools/store_connection.h"

namespace mediactl {

struct SlotStatus {
    std::string name;
    std::optional<bool> present; // nothing when this process may not look
    std::vector<std::string> leds; // "off", "on", "flash", "unknown", or the number that a parameter LED holds

    bool operator==(const SlotStatus&) const = default;
};

struct RecorderStatus {
    std::int32_t selectedSlot = 0;
    std::string volume;
    std::string storagePath;
    std::int32_t capacity = 0; // percent
    std::vector<std::string> alarms;
    bool loading = false;
    std::int32_t progress = 0;
    std::int32_t transport = 0;
    std::vector<SlotStatus> slots;

    bool operator==(const RecorderStatus&) const = default;
};

// False when nobody serves the store at the moment; `status` is then incomplete.
bool readStatus(StoreConnection& store, const Board& board, RecorderStatus& status);

// The parameters that a picture is made of.
std::vector<eParam_t> statusParameters(const Board& board);

// "S1" and so on; the number itself for a slot that nobody knows, empty for none.
std::string slotName(std::int32_t slot);

// Whether mediad takes requests in this state of the transport.
bool isIdle(std::int32_t transport);

// Several lines, for people.
std::string statusText(const RecorderStatus& status);

// An object with the keys selected_slot (a name, or null), volume, storage_path, capacity, alarms, loading, progress,
// transport and slots.
std::string statusJson(const RecorderStatus& status, bool indented);

} // namespace mediactl

#endif
