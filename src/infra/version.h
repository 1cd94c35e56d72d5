// The program's own version texts.
#pragma once

#include <string>
#include <string_view>

namespace kalvo {

// Gives the compiled-in version text for `key`: "FileVersion" or "LegalCopyright" (also
// "ProductName"). Any other key gives "".
std::string GetVersionText(std::string_view key);

}  // namespace kalvo
