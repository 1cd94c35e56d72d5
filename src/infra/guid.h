// The GUID text form that identifies tokens, groups and actions.
#pragma once

#include <string_view>

namespace kalvo {

// True when `text` has exactly 36 characters: hexadecimal digits in groups 8-4-4-4-12
// separated by "-" (no braces).
bool IsGUID(std::string_view text);

}  // namespace kalvo
