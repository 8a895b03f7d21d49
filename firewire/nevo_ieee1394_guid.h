#ifndef MEDIAD_FIREWIRE_NEVO_IEEE1394_GUID_H
#define MEDIAD_FIREWIRE_NEVO_IEEE1394_GUID_H

#include <string>

// The 64-bit GUID of the appliance's IEEE 1394 node, made from its Ethernet address, in two 32-bit halves. For
// "00:0c:17:12:34:56": 0x000c1701 and 0x00123456.
//
// An address is six two-digit hexadecimal octets, of either case, with one character between them: whatever it is, it
// is skipped by its position. Nothing is validated: a digit that is none ends the number, a text that ends early makes
// shorter groups. No state; any thread.
class NEVOieee1394guid {
public:
    // Octets 0, 1 and 2, then 0x01. Throws std::out_of_range for a text of less than 6 characters.
    static unsigned int getGUIDUpperFromMACAddr(std::string mac);

    // 0x00, then octets 3, 4 and 5. Throws std::out_of_range for a text of less than 15 characters.
    static unsigned int getGUIDLowerFromMACAddr(std::string mac);
};

#endif
