// Conversions between the program's internal text (Windows-1252, one byte per character)
// and the UTF-8/UTF-16 of the files and terminals at its edges.
#pragma once

#include <string>
#include <string_view>

namespace kalvo {

// Windows-1252 bytes to UTF-8. The five code points that Windows-1252 leaves undefined
// (0x81, 0x8D, 0x8F, 0x90, 0x9D) map to the C1 controls of the same number, as Windows does.
std::string Cp1252ToUtf8(std::string_view text);

// UTF-8 to Windows-1252. A character that Windows-1252 cannot hold becomes "?"; an invalid
// UTF-8 sequence is taken byte by byte as Windows-1252.
std::string Utf8ToCp1252(std::string_view text);

// Appends code point `cp` to `out` as UTF-8.
void AppendUtf8(std::string& out, char32_t cp);

// True when `bytes` is well-formed UTF-8 (no overlongs, no surrogates).
bool IsValidUtf8(std::string_view bytes);

// UTF-16LE code units (without byte-order mark) to Windows-1252, "?" where unmappable.
std::string Utf16LeToCp1252(std::string_view bytes);

// Windows-1252 to UTF-16LE code units (no byte-order mark).
std::string Cp1252ToUtf16Le(std::string_view text);

// The encoding a text file arrived in, so that it can be written back the same way.
enum class FileEncoding { kCp1252, kUtf8, kUtf8Bom, kUtf16LeBom };

// Decodes the raw bytes of a text file to Windows-1252: UTF-16LE when it starts with its
// byte-order mark, UTF-8 when it is valid UTF-8 (a UTF-8 byte-order mark is dropped),
// Windows-1252 otherwise. `encoding`, when given, receives what was detected.
std::string DecodeTextFile(std::string_view bytes, FileEncoding* encoding = nullptr);

// Encodes Windows-1252 text for a file in `encoding` (with its byte-order mark, if any).
std::string EncodeTextFile(std::string_view text, FileEncoding encoding);

}  // namespace kalvo
