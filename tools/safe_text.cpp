#include "tools/safe_text.h"

#include <cstdint>
#include <cstdio>

namespace mediactl {

namespace {

struct CodePoint {
    std::uint32_t value;
    std::size_t bytes; // 0: the first byte begins no valid sequence
};

// The code point at the beginning of `text`, which is not empty. Overlong forms, surrogates and values past U+10FFFF
// are invalid, as every JSON reader takes them to be.
CodePoint firstCodePoint(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const std::uint32_t lead = byte(0);
    if (lead < 0x80) return {lead, 1};

    std::size_t bytes = 0;
    std::uint32_t value = 0;
    std::uint32_t smallest = 0;
    if ((lead & 0xe0) == 0xc0) {
        bytes = 2, value = lead & 0x1f, smallest = 0x80;
    } else if ((lead & 0xf0) == 0xe0) {
        bytes = 3, value = lead & 0x0f, smallest = 0x800;
    } else if ((lead & 0xf8) == 0xf0) {
        bytes = 4, value = lead & 0x07, smallest = 0x10000;
    } else {
        return {0, 0};
    }
    if (text.size() < bytes) return {0, 0};
    for (std::size_t i = 1; i < bytes; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return {0, 0};
        value = value << 6 | (byte(i) & 0x3f);
    }
    const bool surrogate = value >= 0xd800 && value <= 0xdfff;
    if (value < smallest || value > 0x10ffff || surrogate) return {0, 0};
    return {value, bytes};
}

bool isControl(std::uint32_t value) { return value < 0x20 || (value >= 0x7f && value < 0xa0); }

// Marks that turn the writing direction or break the line: a name with one of them shows as another name.
bool isDirectionOrLineMark(std::uint32_t value) {
    return value == 0x61c || value == 0x200e || value == 0x200f || (value >= 0x2028 && value <= 0x202e) ||
           (value >= 0x2066 && value <= 0x2069);
}

std::string escape(std::uint32_t value) {
    if (value == '\n') return "\\n";
    if (value == '\t') return "\\t";
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, value < 0x80 ? "\\x%02x" : "\\u{%x}", static_cast<unsigned int>(value));
    return buffer;
}

} // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const CodePoint first = firstCodePoint(text);
        if (first.bytes == 0) {
            char buffer[8];
            std::snprintf(buffer, sizeof buffer, "\\x%02x",
                          static_cast<unsigned int>(static_cast<unsigned char>(text[0])));
            result += buffer;
            text.remove_prefix(1);
            continue;
        }
        if (isControl(first.value) || isDirectionOrLineMark(first.value))
            result += escape(first.value);
        else
            result += text.substr(0, first.bytes);
        text.remove_prefix(first.bytes);
    }
    return result;
}

std::string validUtf8(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const CodePoint first = firstCodePoint(text);
        const std::size_t bytes = first.bytes == 0 ? 1 : first.bytes;
        if (first.bytes == 0 || first.value == 0)
            result += "\xef\xbf\xbd";
        else
            result += text.substr(0, bytes);
        text.remove_prefix(bytes);
    }
    return result;
}

std::string withoutControlCharacters(std::string_view json) {
    std::string result;
    while (!json.empty()) {
        const CodePoint first = firstCodePoint(json);
        const std::size_t bytes = first.bytes == 0 ? 1 : first.bytes;
        if (first.bytes != 0 && first.value >= 0x7f && first.value < 0xa0) {
            char buffer[8];
            std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned int>(first.value) & 0xffff);
            result += buffer;
        } else {
            result += json.substr(0, bytes);
        }
        json.remove_prefix(bytes);
    }
    return result;
}

std::size_t columns(std::string_view text) {
    std::size_t count = 0;
    for (const char c : text)
        if ((static_cast<unsigned char>(c) & 0xc0) != 0x80) ++count;
    return count;
}

std::string padded(std::string text, std::size_t width) {
    const std::size_t used = columns(text);
    if (used < width) text.append(width - used, ' ');
    return text;
}

} // namespace mediactl
