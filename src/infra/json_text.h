// JSON text for programs that print or serve figures and packets.
#pragma once

#include <string>
#include <string_view>

namespace kalvo {

// `text` (Windows-1252) as a quoted JSON string in UTF-8: quote, backslash, CR, LF and tab as
// their short escapes, the other control characters as \u00XX.
std::string JsonString(std::string_view text);

}  // namespace kalvo
