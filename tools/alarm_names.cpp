#include "tools/alarm_names.h"

#include <cstdio>
#include <span>

namespace mediactl {

namespace {

struct AlarmName {
    std::uint32_t bit;
    const char* name;
};

constexpr AlarmName kAlarms[] = {
    {0x00000001, "hardware failure"},  {0x00000002, "software failure"}, {0x00002000, "capacity low"},
    {0x00004000, "capacity critical"}, {0x00010000, "storage removed"},  {0x00800000, "media unformatted"},
    {0x01000000, "media damaged"},
};

constexpr AlarmName kExtendedAlarms[] = {
    {0x00000001, "unsupported media"},
    {0x00000008, "codec unsupported for media"},
};

void addNames(std::vector<std::string>& result, std::uint32_t word, std::span<const AlarmName> names,
              const char* prefix) {
    for (unsigned int i = 0; i < 32; ++i) {
        const std::uint32_t bit = std::uint32_t{1} << i;
        if (!(word & bit)) continue;
        const char* known = nullptr;
        for (const AlarmName& name : names)
            if (name.bit == bit) known = name.name;
        if (known) {
            result.emplace_back(known);
            continue;
        }
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%s0x%08x", prefix, static_cast<unsigned int>(bit));
        result.emplace_back(buffer);
    }
}

} // namespace

std::vector<std::string> alarmNames(std::uint32_t alarms, std::uint32_t extendedAlarms) {
    std::vector<std::string> result;
    addNames(result, alarms, kAlarms, "");
    addNames(result, extendedAlarms, kExtendedAlarms, "extended ");
    return result;
}

} // namespace mediactl
