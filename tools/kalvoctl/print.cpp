#include "kalvoctl/print.h"

#include "infra/json_text.h"
#include "infra/strings.h"
#include "infra/text_encoding.h"

namespace kalvo::ctl {
namespace {

// Escapes the ASCII controls and the backslash; bytes from 0x80 are left for the UTF-8
// conversion.
std::string EscapeForText(const std::string& text) {
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
  return Cp1252ToUtf8(out);
}

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

}  // namespace kalvo::ctl
