#include "kalvoctl/print.h"

#include <algorithm>

#include "infra/json_text.h"
#include "infra/strings.h"
#include "infra/text_encoding.h"

namespace kalvo::ctl {
namespace {

// Escapes the ASCII controls and the backslash; the result is still Windows-1252, one byte
// per shown character, and bytes from 0x80 are left for the UTF-8 conversion.
std::string EscapeControls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
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
      case '\0':
        out += "\\0";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          out += "\\x" + TextToHex(std::string_view(&ch, 1));
        } else {
          out += ch;
        }
    }
  }
  return out;
}

std::string EscapeForText(const std::string& text) { return Cp1252ToUtf8(EscapeControls(text)); }

}  // namespace

std::string FormatPacketText(const SocketDataStruct& p) {
  std::string out;
  out += "PackageSize: " + std::to_string(p.PackageSize) + "\n";
  out += "PackageID: " + std::to_string(p.PackageID) + "\n";
  out += "Reserved: " + std::to_string(p.Reserved) + "\n";
  out += "Misc1: " + EscapeForText(p.Misc1) + "\n";
  out += "Misc2: " + EscapeForText(p.Misc2) + "\n";
  out += "Misc3: " + EscapeForText(p.Misc3) + "\n";
  out += "DataSize: " + std::to_string(p.DataSize) + "\n";
  out += "Data: " + EscapeForText(p.Data) + "\n";
  return out;
}

std::string FormatPacketJson(const SocketDataStruct& p) {
  std::string out = "{";
  out += "\"PackageSize\":" + std::to_string(p.PackageSize);
  out += ",\"PackageID\":" + std::to_string(p.PackageID);
  out += ",\"Reserved\":" + std::to_string(p.Reserved);
  out += ",\"Misc1\":" + JsonString(p.Misc1);
  out += ",\"Misc2\":" + JsonString(p.Misc2);
  out += ",\"Misc3\":" + JsonString(p.Misc3);
  out += ",\"DataSize\":" + std::to_string(p.DataSize);
  out += ",\"Data\":" + JsonString(p.Data);
  out += "}";
  return out;
}

std::string FormatTable(const std::vector<std::string>& header,
                        const std::vector<std::vector<std::string>>& rows) {
  const size_t columns = header.size();
  std::vector<std::vector<std::string>> cells;
  cells.reserve(rows.size() + 1);
  cells.push_back(header);
  for (const auto& row : rows) {
    std::vector<std::string> shown(columns);
    for (size_t c = 0; c < columns && c < row.size(); ++c) shown[c] = EscapeControls(row[c]);
    cells.push_back(std::move(shown));
  }
  // Widths are taken before the UTF-8 conversion, while every character is one byte.
  std::vector<size_t> width(columns, 0);
  for (const auto& line : cells) {
    for (size_t c = 0; c < columns; ++c) width[c] = std::max(width[c], line[c].size());
  }
  std::string out;
  for (const auto& line : cells) {
    std::string text;
    for (size_t c = 0; c < columns; ++c) {
      if (c > 0) text += "  ";
      text += line[c];
      if (c + 1 < columns) text.append(width[c] - line[c].size(), ' ');
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    out += Cp1252ToUtf8(text) + "\n";
  }
  return out;
}

}  // namespace kalvo::ctl
