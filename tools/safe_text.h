#ifndef MEDIAD_TOOLS_SAFE_TEXT_H
#define MEDIAD_TOOLS_SAFE_TEXT_H

// Text that others wrote (labels, clip names, parameter values), made fit to be shown. Any thread.

#include <cstddef>
#include <string>
#include <string_view>

namespace mediactl {

// For a terminal and for one line: control characters, direction marks and bytes that are no UTF-8 come out as
// \n, \t, \xHH or \u{HHHH}; everything else, the backslash too, stays as it is.
std::string printable(std::string_view text);

// For JSON: what is no UTF-8, and NUL, becomes U+FFFD.
std::string validUtf8(std::string_view text);

// For JSON as it is written out: the control characters that JSON lets through become \u00HH, which says the same and steers
// no terminal.
std::string withoutControlCharacters(std::string_view json);

// Code points in UTF-8 text: near enough the columns that it takes on a terminal.
std::size_t columns(std::string_view text);

// `text` with blanks behind it up to `width` columns.
std::string padded(std::string text, std::size_t width);

} // namespace mediactl

#endif
