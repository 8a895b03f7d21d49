#ifndef MEDIAD_PLATFORM_BYTE_ORDER_H
#define MEDIAD_PLATFORM_BYTE_ORDER_H

// Numbers in network byte order, by arithmetic: the same on every machine and at every alignment.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

template <typename Number>
void appendNumber(std::vector<std::uint8_t>& bytes, Number number) {
    static_assert(!std::numeric_limits<Number>::is_signed);
    for (std::size_t left = sizeof number; left-- > 0;)
        bytes.push_back(static_cast<std::uint8_t>(number >> (8 * left) & 0xff));
}

template <typename Number>
Number numberAt(const std::uint8_t* bytes) {
    static_assert(!std::numeric_limits<Number>::is_signed);
    Number number = 0;
    for (std::size_t each = 0; each < sizeof number; ++each)
        number = static_cast<Number>(static_cast<std::uint64_t>(number) << 8 | bytes[each]);
    return number;
}

#endif
