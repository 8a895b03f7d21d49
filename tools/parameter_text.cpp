#include "tools/parameter_text.h"

#include <charconv>
#include <cstdio>
#include <limits>

namespace mediactl {

namespace {

// The whole of `text` as a number in `base`, or nullopt.
std::optional<std::int64_t> parseWhole(std::string_view text, int base) {
    std::int64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || stopped != end || text.empty()) return std::nullopt;
    return value;
}

bool isHexadecimal(std::string_view text) { return text.starts_with("0x") || text.starts_with("0X"); }

// Hexadecimal digits without a sign, up to 32 bits. (The number parser would take "0x-1".)
std::optional<std::uint32_t> parseHexadecimal(std::string_view text) {
    if (!isHexadecimal(text) || text.find('-') != text.npos) return std::nullopt;
    const std::optional<std::int64_t> value = parseWhole(text.substr(2), 16);
    if (!value || *value > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    return static_cast<std::uint32_t>(*value);
}

} // namespace

std::optional<std::int32_t> parseInteger(const std::string& text) {
    if (isHexadecimal(text)) {
        const std::optional<std::uint32_t> bits = parseHexadecimal(text);
        if (!bits) return std::nullopt;
        return static_cast<std::int32_t>(*bits);
    }
    const std::optional<std::int64_t> value = parseWhole(text, 10);
    if (!value || *value < std::numeric_limits<std::int32_t>::min() ||
        *value > std::numeric_limits<std::int32_t>::max())
        return std::nullopt;
    return static_cast<std::int32_t>(*value);
}

std::optional<std::uint32_t> parseBits(const std::string& text) {
    if (const std::optional<std::int32_t> value = parseInteger(text)) return static_cast<std::uint32_t>(*value);
    const std::optional<std::int64_t> value = parseWhole(text, 10);
    if (!value || *value < 0 || *value > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    return static_cast<std::uint32_t>(*value);
}

std::optional<eParam_t> parseParameter(const std::string& text) {
    if (const ParameterDescriptor* descriptor = findParameter(text)) return descriptor->id;
    if (text.starts_with('-')) return std::nullopt;
    return parseBits(text);
}

std::string identifierText(eParam_t id) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08x", static_cast<unsigned int>(id));
    return buffer;
}

std::string nameOf(eParam_t id) {
    const ParameterDescriptor* descriptor = findParameter(id);
    return descriptor ? descriptor->name : "-";
}

} // namespace mediactl
