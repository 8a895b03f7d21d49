#include "firewire/nevo_ieee1394_guid.h"

#include <sstream>

namespace {

// Two digits and a separator an octet.
std::string octet(const std::string& mac, std::size_t index) { return mac.substr(3 * index, 2); }

unsigned int readHexadecimal(const std::string& digits) {
    unsigned int value = 0;
    std::istringstream(digits) >> std::hex >> value;
    return value;
}

} // namespace

unsigned int NEVOieee1394guid::getGUIDUpperFromMACAddr(std::string mac) {
    return readHexadecimal(octet(mac, 0) + octet(mac, 1) + octet(mac, 2) + "01");
}

unsigned int NEVOieee1394guid::getGUIDLowerFromMACAddr(std::string mac) {
    // The leading "0" changes no value. It also keeps a sign from being read as one.
    return readHexadecimal("0" + octet(mac, 3) + octet(mac, 4) + octet(mac, 5));
}
