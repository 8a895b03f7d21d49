#ifndef MEDIAD_PLATFORM_SERIAL_NUMBER_OSSIK_H
#define MEDIAD_PLATFORM_SERIAL_NUMBER_OSSIK_H

#include <string>

class SerialNumber_Ossik {
public:
    // The board id as hexadecimal digits without a prefix, "00000a3c"; empty when the board does not tell. Any thread.
    static std::string GetBoardID();
};

#endif
