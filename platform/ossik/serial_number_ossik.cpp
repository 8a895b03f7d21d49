#include "serial_number_ossik.h"

#include <fstream>

std::string SerialNumber_Ossik::GetBoardID() {
    std::ifstream file("/etc/board-id");
    std::string id;
    std::getline(file, id);
    // A file that was written on another system ends its lines with a carriage return as well.
    while (!id.empty() && id.back() == '\r') id.pop_back();
    return id;
}
