#include "simulation/trace.h"

#include <cstdio>

namespace simulation {

std::string shown(const std::string& text) {
    std::string line;
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        if (byte >= ' ' && byte < 0x7f) {
            line += each;
        } else {
            char code[8];
            std::snprintf(code, sizeof code, "\\x%02x", byte);
            line += code;
        }
    }
    return line;
}

void Trace::put(Nanoseconds now, const std::string& text) {
    char time[32];
    std::snprintf(time, sizeof time, "%10.4f ", static_cast<double>(now) / 1e9);
    const std::string line = time + shown(text);
    if (_mode == Mode::Print) {
        std::puts(line.c_str());
        return;
    }
    _lines.push_back(line);
    if (_lines.size() > _kept) _lines.pop_front();
}

} // namespace simulation
