#include "recorder/system/uevent_relay.h"

#include <algorithm>
#include <optional>

namespace {

// What follows "KEY=" in the first such line.
std::optional<std::string_view> value(std::string_view announcement, std::string_view key) {
    while (!announcement.empty()) {
        const std::string_view line = announcement.substr(0, announcement.find('\0'));
        if (line.size() > key.size() && line.starts_with(key) && line[key.size()] == '=') {
            return line.substr(key.size() + 1);
        }
        announcement.remove_prefix(std::min(announcement.size(), line.size() + 1));
    }
    return std::nullopt;
}

std::string_view parent(std::string_view path) {
    return path.substr(0, path.rfind('/'));
}

// The device that a disk's or partition's path stands below: ".../0:0:0:0/block/sda/sda2" gives ".../0:0:0:0". Some
// drivers do without the "block" folder.
std::string_view physicalParent(std::string_view path, bool isPartition) {
    if (isPartition) {
        path = parent(path);
    }
    path = parent(path);
    if (path.ends_with("/block")) {
        path = parent(path);
    }
    return path;
}

} // namespace

std::vector<std::string> relayedDatagrams(std::string_view announcement) {
    using namespace std::literals;
    const auto action = value(announcement, "ACTION");
    const auto device = value(announcement, "DEVNAME");
    const auto path = value(announcement, "DEVPATH");
    if (value(announcement, "SUBSYSTEM") != "block"sv || !action || !device || !path) {
        return {};
    }
    const std::string_view physical = physicalParent(*path, value(announcement, "DEVTYPE") == "partition"sv);
    if (physical.empty() || physical.starts_with("/devices/virtual")) {
        return {};
    }

    std::string head;
    head.append("ACTION=").append(*action).push_back('\0');
    head.append("DEVNAME=").append(*device).push_back('\0');
    head.append("PHYSDEVPATH=");
    if (head.size() + 1 + 2 * kPathOverlap > kRelayedBytes) {
        return {}; // no disk has such a name
    }
    const std::size_t room = kRelayedBytes - head.size() - 1;

    std::vector<std::string> datagrams;
    for (std::size_t start = 0;; start += room - kPathOverlap) {
        datagrams.push_back(head);
        datagrams.back().append(physical.substr(start, room)).push_back('\0');
        if (start + room >= physical.size()) {
            return datagrams;
        }
    }
}
