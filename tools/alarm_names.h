#ifndef MEDIAD_TOOLS_ALARM_NAMES_H
#define MEDIAD_TOOLS_ALARM_NAMES_H

#include <cstdint>
#include <string>
#include <vector>

namespace mediactl {

// The alarms that are raised in the two alarm words, lowest bit first. A bit without a name (other processes own bits
// of the same words) appears as its value: "0x00000400", "extended 0x00000010".
std::vector<std::string> alarmNames(std::uint32_t alarms, std::uint32_t extendedAlarms);

} // namespace mediactl

#endif
