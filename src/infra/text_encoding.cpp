#include "infra/text_encoding.h"

#include <array>
#include <cstdint>

namespace kalvo {
namespace {

// Unicode code points of Windows-1252 bytes 0x80..0x9F.
constexpr std::array<char32_t, 32> kHighControls = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

char32_t ToCodePoint(unsigned char c) {
  if (c >= 0x80 && c <= 0x9F) return kHighControls[c - 0x80];
  return c;
}

char FromCodePoint(char32_t cp) {
  if (cp < 0x80 || (cp >= 0xA0 && cp <= 0xFF)) return static_cast<char>(cp);
  for (size_t i = 0; i < kHighControls.size(); ++i) {
    if (kHighControls[i] == cp) return static_cast<char>(0x80 + i);
  }
  return '?';
}

// Decodes one UTF-8 sequence at `pos`; gives its length, or 0 when it is malformed.
size_t DecodeUtf8At(std::string_view s, size_t pos, char32_t& cp) {
  const auto b0 = static_cast<unsigned char>(s[pos]);
  size_t len;
  char32_t min;
  if (b0 < 0x80) {
    cp = b0;
    return 1;
  } else if ((b0 & 0xE0) == 0xC0) {
    len = 2, cp = b0 & 0x1F, min = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    len = 3, cp = b0 & 0x0F, min = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    len = 4, cp = b0 & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (pos + len > s.size()) return 0;
  for (size_t i = 1; i < len; ++i) {
    const auto b = static_cast<unsigned char>(s[pos + i]);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return len;
}

}  // namespace

std::string Cp1252ToUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (char c : text) AppendUtf8(out, ToCodePoint(static_cast<unsigned char>(c)));
  return out;
}

std::string Utf8ToCp1252(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t pos = 0; pos < text.size();) {
    char32_t cp;
    const size_t len = DecodeUtf8At(text, pos, cp);
    if (len == 0) {
      out += text[pos++];
      continue;
    }
    out += FromCodePoint(cp);
    pos += len;
  }
  return out;
}

bool IsValidUtf8(std::string_view bytes) {
  for (size_t pos = 0; pos < bytes.size();) {
    char32_t cp;
    const size_t len = DecodeUtf8At(bytes, pos, cp);
    if (len == 0) return false;
    pos += len;
  }
  return true;
}

std::string Utf16LeToCp1252(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() / 2);
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    char32_t unit = static_cast<unsigned char>(bytes[i]) |
                    (static_cast<char32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8);
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 3 < bytes.size()) {
      i += 2;  // a surrogate pair: outside Windows-1252 in any case
      out += '?';
      continue;
    }
    out += FromCodePoint(unit);
  }
  return out;
}

std::string Cp1252ToUtf16Le(std::string_view text) {
  std::string out;
  out.reserve(text.size() * 2);
  for (char c : text) {
    const char32_t cp = ToCodePoint(static_cast<unsigned char>(c));
    out += static_cast<char>(cp & 0xFF);
    out += static_cast<char>((cp >> 8) & 0xFF);
  }
  return out;
}

std::string DecodeTextFile(std::string_view bytes, FileEncoding* encoding) {
  FileEncoding found;
  std::string text;
  if (bytes.size() >= 2 && bytes[0] == '\xFF' && bytes[1] == '\xFE') {
    found = FileEncoding::kUtf16LeBom;
    text = Utf16LeToCp1252(bytes.substr(2));
  } else if (bytes.starts_with("\xEF\xBB\xBF") && IsValidUtf8(bytes.substr(3))) {
    found = FileEncoding::kUtf8Bom;
    text = Utf8ToCp1252(bytes.substr(3));
  } else if (IsValidUtf8(bytes)) {
    found = FileEncoding::kUtf8;
    text = Utf8ToCp1252(bytes);
  } else {
    found = FileEncoding::kCp1252;
    text = std::string(bytes);
  }
  if (encoding != nullptr) *encoding = found;
  return text;
}

std::string EncodeTextFile(std::string_view text, FileEncoding encoding) {
  switch (encoding) {
    case FileEncoding::kUtf16LeBom:
      return std::string("\xFF\xFE", 2) + Cp1252ToUtf16Le(text);
    case FileEncoding::kUtf8Bom:
      return "\xEF\xBB\xBF" + Cp1252ToUtf8(text);
    case FileEncoding::kUtf8:
      return Cp1252ToUtf8(text);
    case FileEncoding::kCp1252:
      break;
  }
  return std::string(text);
}

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

}  // namespace kalvo
