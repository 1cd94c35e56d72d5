// Text helpers shared by the registry, the cipher and the protocol code.
#pragma once

#include <string>
#include <string_view>

namespace kalvo {

// Clean-up of a text read from the registry: when its last two characters are both NUL,
// every pair of NULs is removed; otherwise, when its last character is NUL, every NUL is
// removed; then trailing blanks are removed.
std::string TrimNulls(std::string text);

}  // namespace kalvo
