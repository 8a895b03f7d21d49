#ifndef MEDIAD_PLATFORM_VALUE_RULES_H
#define MEDIAD_PLATFORM_VALUE_RULES_H

// What a parameter may hold: the one place for rules about values. The store asks here for every set, whichever
// process it comes from, before anything is stored or anybody hears of it.

#include <cstddef>
#include <string_view>

#include "config.h"

// The longest string that a parameter holds, in bytes, so that one value always fits into one packet of the store's
// socket. A deletion request names every clip of a full index when its names, with extension and separator, have 16
// bytes on average ("Clip_0001.mov|" has 14); one with longer names has to come in parts.
inline constexpr std::size_t kLongestString = 65536;

// kConfigOk, or kConfigRefused for a value that this parameter must never have. Any thread; no state.
eConfigStatus_t checkValue(eParam_t id, int value);

// As above. A NUL byte is refused in every string: whoever reads it as C text would see another value than was written.
// kParamClipsToDelete holds names that may stand in a command line (deletion_request.h), or it is refused whole.
eConfigStatus_t checkValue(eParam_t id, std::string_view value);

#endif
