#include "infra/guid.h"

#include <cctype>

namespace kalvo {

bool IsGUID(std::string_view text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash_position = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash_position ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace kalvo
