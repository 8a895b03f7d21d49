#include "media_manager/command_line.h"

#include <cstring>

std::string fillIn(const char* line, std::initializer_list<std::string> texts) {
    std::string filled;
    for (const std::string& text : texts) {
        const char* place = std::strstr(line, "%s");
        if (place == nullptr) break;
        filled.append(line, place);
        filled += text;
        line = place + 2;
    }
    return filled + line;
}
