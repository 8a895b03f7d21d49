#include "tools/recorder_status.h"

#include <cerrno>
#include <memory>

#include "card_register_file.h"
#include "parameters.h"
#include "tools/alarm_names.h"
#include "tools/json_text.h"
#include "tools/safe_text.h"

namespace mediactl {

namespace {

constexpr std::size_t kLabelWidth = 16;

// Taken anew for every picture: the register file may be made while we watch.
class Card {
public:
    Card() : _registers(CardRegisterFile::open()), _hidden(!_registers && errno != ENOENT) {}

    // Nothing when there are registers that this process may not look at.
    std::optional<bool> isPresent(const std::optional<BoardSensor>& sensor) const {
        if (_hidden && sensor) return std::nullopt;
        std::uint32_t value = 0;
        if (!_registers || !sensor || !_registers->read(sensor->reg, value, sensor->mask, sensor->shift)) return false;
        // Against the unshifted mask although the value is shifted, as the daemon compares them: board files are
        // written to suit it.
        return (value & sensor->mask) == sensor->mask;
    }

    std::string led(std::uint32_t reg, std::uint32_t bit) const {
        const std::uint32_t mask = bit < 32 ? std::uint32_t{1} << bit : 0;
        std::uint32_t value = 0;
        if (!_registers || !_registers->read(reg, value, mask, bit)) return "unknown";
        return value != 0 ? "on" : "off";
    }

private:
    std::unique_ptr<CardRegisterFile> _registers;
    bool _hidden;
};

// Reads parameters one after the other and remembers whether the store was there for all of them.
class Reader {
public:
    explicit Reader(StoreConnection& store) : _store(store) {}

    std::int32_t integer(eParam_t id) { return read(id).integer; }
    std::string text(eParam_t id) { return read(id).text; }

    std::string led(eParam_t id) {
        const ParameterValue value = read(id);
        if (!value.isInteger) return "unknown";
        switch (value.integer) {
        case 0: return "off"; // also what nobody has written yet
        case 1: return "on";
        case 2: return "flash";
        default: return std::to_string(value.integer);
        }
    }

    bool reached() const { return _reached; }

private:
    ParameterValue read(eParam_t id) {
        ParameterValue value;
        if (_store.read(id, value) == kConfigUnreachable) _reached = false;
        return value;
    }

    StoreConnection& _store;
    bool _reached = true;
};

std::string transportText(std::int32_t state) {
    const char* word = isIdle(state) ? "idle" : state == 2 ? "recording" : "active";
    return std::string(word) + " (" + std::to_string(state) + ")";
}

// All of one length, so that the LEDs stand below one another.
const char* presenceText(std::optional<bool> present) {
    if (!present) return "unknown       ";
    return *present ? "medium present" : "empty         ";
}

std::string joined(const std::vector<std::string>& texts, const char* otherwise) {
    std::string result;
    for (const std::string& text : texts) result += (result.empty() ? "" : ", ") + text;
    return result.empty() ? otherwise : result;
}

std::string line(const char* label, const std::string& value) {
    return padded(std::string(label) + ":", kLabelWidth) + value + "\n";
}

std::string orNone(const std::string& text) { return text.empty() ? "none" : printable(text); }

Json jsonTexts(const std::vector<std::string>& texts) {
    Json array = jsonArray();
    for (const std::string& text : texts) addElement(array, jsonText(text));
    return array;
}

} // namespace

std::string slotName(std::int32_t slot) {
    switch (slot) {
    case 0: return "";
    case 1: return "S1";
    case 2: return "S2";
    case 3: return "D1";
    case 4: return "D2";
    default: return std::to_string(slot);
    }
}

bool isIdle(std::int32_t transport) {
    for (const std::int32_t idle : {0, 1, 15, 19, 20})
        if (transport == idle) return true;
    return false;
}

bool readStatus(StoreConnection& store, const Board& board, RecorderStatus& status) {
    Reader reader(store);
    status.selectedSlot = reader.integer(kParamSelectedSlot);
    status.volume = reader.text(kParamVolumeName);
    status.storagePath = reader.text(kParamStoragePath);
    status.capacity = reader.integer(kParamCapacityRemaining);
    status.alarms = alarmNames(static_cast<std::uint32_t>(reader.integer(kParamAlarms)),
                               static_cast<std::uint32_t>(reader.integer(kParamExtendedAlarms)));
    status.loading = reader.integer(kParamMediaLoadingStatus) != 0;
    status.progress = reader.integer(kParamProgressStatus);
    status.transport = reader.integer(kParamTransportState);

    const Card card;
    status.slots.clear();
    for (const BoardSlot& slot : board.slots) {
        SlotStatus& shown = status.slots.emplace_back();
        shown.name = slot.name;
        shown.present = card.isPresent(slot.sensor);
        for (const BoardLed& led : slot.leds)
            shown.leds.push_back(led.isRegister ? card.led(led.reg, led.bit) : reader.led(led.param));
    }
    return reader.reached();
}

std::vector<eParam_t> statusParameters(const Board& board) {
    std::vector<eParam_t> result{kParamSelectedSlot,       kParamVolumeName,     kParamStoragePath,
                                 kParamCapacityRemaining,  kParamAlarms,         kParamExtendedAlarms,
                                 kParamMediaLoadingStatus, kParamProgressStatus, kParamTransportState};
    for (const BoardSlot& slot : board.slots)
        for (const BoardLed& led : slot.leds)
            if (!led.isRegister) result.push_back(led.param);
    return result;
}

std::string statusText(const RecorderStatus& status) {
    std::string result =
        line("Selected slot", orNone(slotName(status.selectedSlot))) + line("Volume", orNone(status.volume)) +
        line("Storage path", orNone(status.storagePath)) + line("Capacity", std::to_string(status.capacity) + " %") +
        line("Alarms", joined(status.alarms, "none")) + line("Media loading", status.loading ? "yes" : "no") +
        line("Progress", status.progress == 0 ? "none" : std::to_string(status.progress)) +
        line("Transport", transportText(status.transport));
    for (const SlotStatus& slot : status.slots)
        result += line(
            ("Slot " + printable(slot.name)).c_str(),
            std::string(presenceText(slot.present)) + "  LEDs: " + joined(slot.leds, "none"));
    return result;
}

std::string statusJson(const RecorderStatus& status, bool indented) {
    const Json object = jsonObject();
    const std::string selected = slotName(status.selectedSlot);
    addMember(object, "selected_slot", selected.empty() ? Json(cJSON_CreateNull()) : jsonText(selected));
    addMember(object, "volume", status.volume);
    addMember(object, "storage_path", status.storagePath);
    addMember(object, "capacity", status.capacity);
    addMember(object, "alarms", jsonTexts(status.alarms));
    addFlag(object, "loading", status.loading);
    addMember(object, "progress", status.progress);
    addMember(object, "transport", status.transport);
    Json slots = jsonArray();
    for (const SlotStatus& slot : status.slots) {
        Json shown = jsonObject();
        addMember(shown, "name", slot.name);
        if (slot.present)
            addFlag(shown, "present", *slot.present);
        else
            addMember(shown, "present", Json(cJSON_CreateNull()));
        addMember(shown, "leds", jsonTexts(slot.leds));
        addElement(slots, std::move(shown));
    }
    addMember(object, "slots", std::move(slots));
    return writtenOut(object, indented);
}

} // namespace mediactl
