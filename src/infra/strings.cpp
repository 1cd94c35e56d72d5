#include "infra/strings.h"

namespace kalvo {

std::string TrimNulls(std::string text) {
  const std::string_view nul2("\0\0", 2);
  if (text.size() >= 2 && std::string_view(text).substr(text.size() - 2) == nul2) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
      if (i + 1 < text.size() && text[i] == '\0' && text[i + 1] == '\0') {
        ++i;
        continue;
      }
      out += text[i];
    }
    text = std::move(out);
  } else if (!text.empty() && text.back() == '\0') {
    std::erase(text, '\0');
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

}  // namespace kalvo
