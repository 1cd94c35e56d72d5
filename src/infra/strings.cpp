#include "infra/strings.h"

#include <cctype>

namespace kalvo {
int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

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

std::string& PadWith(std::string& text, std::string_view fill, size_t length) {
  if (fill.empty()) return text;  // would never reach the length
  while (text.size() < length) text += fill;
  return text;
}

std::string& TrimLeading(std::string& text, std::string_view character) {
  if (text.empty()) return text;
  // Copy: `character` may view `text` itself.
  const std::string unit = character.empty() ? text.substr(0, 1) : std::string(character);
  size_t start = 0;
  while (text.compare(start, unit.size(), unit) == 0) start += unit.size();
  text.erase(0, start);
  return text;
}

std::string TextToHex(std::string_view text) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string hex;
  hex.reserve(text.size() * 2);
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    hex += kDigits[code >> 4];
    hex += kDigits[code & 0x0F];
  }
  return hex;
}

std::string HexToText(std::string_view hex) {
  if (!IsHexText(hex)) return "";
  std::string text;
  text.reserve(hex.size() / 2);
  for (size_t i = 0; i < hex.size(); i += 2) {
    text += static_cast<char>(HexDigitValue(hex[i]) * 16 + HexDigitValue(hex[i + 1]));
  }
  return text;
}

bool IsHexText(std::string_view text) {
  if (text.empty() || text.size() % 2 != 0) return false;
  for (const char c : text) {
    if (HexDigitValue(c) < 0) return false;
  }
  return true;
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(a[i])) !=
        std::toupper(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace kalvo
