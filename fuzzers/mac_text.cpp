// The network address that the FireWire identity is made from. Any process may write the parameter that holds it.

#include <stdexcept>
#include <vector>

#include "firewire/nevo_ieee1394_guid.h"
#include "fuzzers/fuzzer.h"

namespace {

int digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The octets of an address that is well formed up to its sixth octet; nothing for any other.
std::vector<unsigned int> octetsOf(const std::string& mac) {
    std::vector<unsigned int> octets;
    for (std::size_t at = 0; octets.size() < 6; at += 3) {
        if (at + 2 > mac.size() || digit(mac[at]) == -1 || digit(mac[at + 1]) == -1) return {};
        octets.push_back(static_cast<unsigned int>(digit(mac[at]) * 16 + digit(mac[at + 1])));
    }
    return octets;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string mac(reinterpret_cast<const char*>(data), size);
    unsigned int upper = 0;
    unsigned int lower = 0;
    bool hasUpper = true;
    bool hasLower = true;
    try {
        upper = NEVOieee1394guid::getGUIDUpperFromMACAddr(mac);
    } catch (const std::out_of_range&) {
        hasUpper = false;
    }
    try {
        lower = NEVOieee1394guid::getGUIDLowerFromMACAddr(mac);
    } catch (const std::out_of_range&) {
        hasLower = false;
    }
    fuzzers::require(hasUpper == (mac.size() >= 6), "the first three octets are read where there is text for them");
    fuzzers::require(hasLower == (mac.size() >= 15), "the last three octets are read where there is text for them");
    fuzzers::require(lower <= 0xffffff, "the lower half has 24 bits");
    if (const auto octets = octetsOf(mac); !octets.empty()) {
        fuzzers::require(upper == (octets[0] << 24 | octets[1] << 16 | octets[2] << 8 | 1), "the upper half");
        fuzzers::require(lower == (octets[3] << 16 | octets[4] << 8 | octets[5]), "the lower half");
    }
    return 0;
}
