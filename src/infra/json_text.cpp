#include "infra/json_text.h"

#include <cstdio>

#include "infra/text_encoding.h"

namespace kalvo {

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  out.reserve(text.size() + 2);
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04X", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out += ch;
        }
    }
  }
  // The escapes are ASCII, so converting afterwards touches only the bytes from 0x80.
  return Cp1252ToUtf8(out) + "\"";
}

}  // namespace kalvo
