#ifndef MEDIAD_PLATFORM_VALUE_RULES_H
#define MEDIAD_PLATFORM_VALUE_RULES_H

// What a parameter may hold: the one place for rules about values. The store asks here for every set, whichever
// process it comes from, before anything is stored or anybody hears of it.

#include <cstddef>
#include <string_view>

#include "config.h"

// The longest string that a parameter holds, in bytes. A deletion request for a full medium fits several times over,
// and one value always fits into one packet of the store's socket.
inline constexpr std::size_t kLongestString = 65536;

// kConfigOk, or kConfigRefused for a value that this parameter must never have. Any thread; no state.
eConfigStatus_t checkValue(eParam_t id, int value);

// As above. A NUL byte is refused in every string: whoever reads it as C text would see another value than was written.
eConfigStatus_t checkValue(eParam_t id, std::string_view value);

#endif
