#ifndef MEDIAD_PLATFORM_PRINTABLE_H
#define MEDIAD_PLATFORM_PRINTABLE_H

#include <cstddef>
#include <string>

// How many bytes of the character that begins at `at` belong together in UTF-8; 1 for a byte that begins none.
inline std::size_t characterBytes(const std::string& text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    const std::size_t count = lead < 0xc2 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 1;
    if (count > text.size() - at) return 1;
    for (std::size_t i = 1; i < count; ++i)
        if ((byte(at + i) & 0xc0) != 0x80) return 1;
    // Written with more bytes than it needs, a control character would look like another one.
    if ((lead == 0xe0 && byte(at + 1) < 0xa0) || (lead == 0xf0 && byte(at + 1) < 0x90)) return 1;
    return count;
}

// `text` with every control character replaced by "?", those of eight bits too: for names that somebody else chose, on their
// way to a terminal. Line ends stay where a text is made of lines.
inline std::string printable(const std::string& text, bool keepLineEnds = false) {
    std::string shown;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t count = characterBytes(text, at);
        const auto last = static_cast<unsigned char>(text[at + count - 1]);
        const bool wide = count == 2 && static_cast<unsigned char>(text[at]) == 0xc2 && last < 0xa0;
        const bool narrow = count == 1 && (last < ' ' || (last >= 0x7f && last < 0xa0));
        if (wide || (narrow && !(keepLineEnds && last == '\n')))
            shown += '?';
        else
            shown.append(text, at, count);
        at += count;
    }
    return shown;
}

#endif
