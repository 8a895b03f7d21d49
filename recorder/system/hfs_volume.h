#ifndef MEDIAD_RECORDER_HFS_VOLUME_H
#define MEDIAD_RECORDER_HFS_VOLUME_H

// Reads the name of an HFS+ volume from its device.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// Reads exactly `size` bytes at a byte offset of the device; false when that cannot be done.
using DeviceReader = std::function<bool(std::uint64_t offset, void* bytes, std::size_t size)>;

enum class VolumeState {
    Named,     // the name was read
    NotHfs,    // there is no header of an HFS+ volume; a device too small to hold one has none
    Unreadable // there is one, but its catalog does not tell a name
};

struct VolumeName {
    VolumeState state;
    std::string name; // UTF-8, without line ends and NUL bytes; empty unless Named
};

// Knows HFS+, its case-sensitive sibling, and an HFS+ volume embedded in an HFS wrapper. Trusts nothing on the device.
VolumeName readVolumeName(const DeviceReader& read);

// What volname.hfsplus prints for a name: one line "DEV: NAME", which those who read it split at ": ", taking the second
// field of every line as a printf format. So that they get every name whole:
// - "%" is doubled;
// - a name that itself holds ": " goes on in a further line, in front of the blank: "DEV: Day 1:" and "DEV:  Tuesday";
// - so does one that holds "No such device", which in one piece would be taken for the message of that text.
std::string printedVolumeName(std::string_view device, std::string_view name);

#endif
