// Reading and writing the .reg text format that regedit exports and imports, without any
// file access: bytes in, document out, and back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "infra/reg_document.h"

namespace kalvo {

// Receives the 1-based line number and an English description of each line skipped.
using RegParseWarning = std::function<void(size_t line, const std::string& message)>;

// Parses the raw bytes of a .reg file. Accepts "REGEDIT4" files in Windows-1252 (or UTF-8
// when the bytes are valid UTF-8) and "Windows Registry Editor Version 5.00" files in
// UTF-16LE with byte-order mark; CRLF or LF line ends; ";" comments; hex data continued over
// lines with a trailing backslash; "\\" and "\"" escapes in quoted names and strings.
// Comment and blank lines are kept with the key or value below them (RegKey::comment,
// RegValue::comment) or, at the end of the file, as RegDocument::trailer.
// Key deletions ("[-KEY]", and the values listed under them) and value deletions
// ("name"=-) are ignored. Text data in hex(1), hex(2) and hex(7) are decoded from the file's
// dialect (single bytes in REGEDIT4, UTF-16LE in 5.00) to Windows-1252; other hex(N) data are
// kept as raw bytes; quoted strings are stored without a terminating NUL. A repeated key is
// merged into its first section, a repeated value replaces the earlier one in place.
// A malformed line is skipped and reported to `warn` (may be empty); parsing goes on with
// the next line. Never throws on bad input. The document remembers the dialect, encoding
// and line end so that FormatRegFile writes it back the same way; an empty input gives an
// empty REGEDIT4 document.
// Key paths beyond kRegMaxKeyDepth levels or kRegMaxKeyLength characters are skipped with
// their values (one warning for the key). Time and memory are linear in the size of `bytes`.
// `work`, when given, receives an upper bound of the steps taken (characters of the lines
// read, plus one per key or value looked up while merging), for tests and benchmarks.
RegDocument ParseRegFile(std::string_view bytes, const RegParseWarning& warn,
                         uint64_t* work = nullptr);

// The bytes of a .reg file holding `doc`, in the dialect, encoding and line end it records.
// Strings without NUL, CR or LF are written quoted, four-byte REG_DWORDs as "dword:", all
// else as hex data wrapped over lines of at most 80 characters. The comment lines the parser
// kept go back above the key, value or end of file they stood at, so a rewrite changes only
// what was changed (and the blank lines between sections, one before each).
std::string FormatRegFile(const RegDocument& doc);

}  // namespace kalvo
