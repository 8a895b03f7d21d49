#ifndef MEDIAD_RECORDER_UEVENT_RELAY_H
#define MEDIAD_RECORDER_UEVENT_RELAY_H

// The hot-plug listener finds a medium's slot by the PHYSDEVPATH line of the kernel's announcement, a line that kernels
// no longer send. The relay repeats every announcement of a real block device with that line put back, on a multicast
// group of its own:
//
//   ACTION=add\0DEVNAME=sdb\0PHYSDEVPATH=/devices/pci0000:00/0000:00:10.0/virtio0/host0/target0:0:0/0:0:0:0\0
//
// in this order and without any other line. The listener hears the kernel's own datagram as well, on the kernel's
// group; without the third line that one changes nothing.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// The listener reads 256 bytes of a datagram and overwrites the last one.
constexpr std::size_t kRelayedBytes = 255;

// The kernel announces on group 1, device managers on group 2.
constexpr unsigned int kKernelGroups = 1;
constexpr unsigned int kRelayGroups = 4;

// The longest slot address that is certain to be found in one piece: a path that does not fit is told in pieces that
// overlap by at least this much.
constexpr std::size_t kPathOverlap = 96;

// The datagrams, at most kRelayedBytes each, that repeat one announcement; none when it is not about a block device or
// the device has no physical parent (loop devices, RAM disks, mappings). Usually one; more where the path is so long
// that it takes several pieces, each a whole announcement: a listener acts on those that hold an address it knows.
std::vector<std::string> relayedDatagrams(std::string_view announcement);

#endif
