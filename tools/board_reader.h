#ifndef MEDIAD_TOOLS_BOARD_READER_H
#define MEDIAD_TOOLS_BOARD_READER_H

// The slots of this machine's board, for showing: a tolerant reader of the board specification file, with none of the
// daemon's checks. (The daemon's own reader belongs to a floor above the tools' reach, and refuses whole files.)

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config_events.h"

namespace mediactl {

struct BoardSensor {
    std::uint32_t reg = 0;
    std::uint32_t mask = 0;
    std::uint32_t shift = 0;
};

struct BoardLed {
    bool isRegister = true;
    std::uint32_t reg = 0; // a register LED's
    std::uint32_t bit = 0;
    eParam_t param = 0; // a parameter LED's
};

struct BoardSlot {
    std::string name;
    std::optional<BoardSensor> sensor; // without one the slot is never present
    std::vector<BoardLed> leds;        // in the file's order; those of a type that nobody knows are left out
};

struct Board {
    std::vector<BoardSlot> slots; // by name; of two of the same name the later one
    bool mayHaveFirewire = true;  // false when the board's description is there and does not list FireWire disk access
    std::string problem;          // why there are no slots, in one line; empty when the file could be read
};

// Runs the board specification file of the board that this machine says it is. The chunk can neither print nor change
// anything, and is stopped when it does not end.
Board readBoard();

} // namespace mediactl

#endif
