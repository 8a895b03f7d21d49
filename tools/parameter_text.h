#ifndef MEDIAD_TOOLS_PARAMETER_TEXT_H
#define MEDIAD_TOOLS_PARAMETER_TEXT_H

// Parameters and numbers as people write and read them. Any thread.

#include <cstdint>
#include <optional>
#include <string>

#include "parameters.h"

namespace mediactl {

// A 32-bit signed value: decimal from -2147483648 to 2147483647, or hexadecimal with 0x, where 0xffffffff is -1.
// Nothing else, no blanks, no plus sign: nullopt.
std::optional<std::int32_t> parseInteger(const std::string& text);

// 32 bits without a sign of their own, for registers and masks: decimal up to 4294967295, or what parseInteger takes.
std::optional<std::uint32_t> parseBits(const std::string& text);

// A parameter given by its name in the table or by any identifier.
std::optional<eParam_t> parseParameter(const std::string& text);

// "0x7d07000a"
std::string identifierText(eParam_t id);

// The name in the table, or "-" for an identifier that is not in it.
std::string nameOf(eParam_t id);

} // namespace mediactl

#endif
