// Reading values from INI files (sections in square brackets, key=value lines) the way the
// Windows profile functions do, for the language files.
//
// Rules: section and key names are compared without regard to case (Windows-1252 letters)
// and with the blanks around them ignored; blanks around a value are removed, then one pair
// of matching surrounding quotes (" or '); only the first section of a name is searched and
// only the first definition of a key in it counts; lines whose first non-blank character is
// ";" are comments, lines before the first section are ignored, and a line without "=" or a
// "[" line without "]" defines nothing. Files are decoded as UTF-16LE with byte-order mark,
// UTF-8 when valid (byte-order mark allowed), else Windows-1252; values are Windows-1252.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "infra/file_stamp.h"

namespace kalvo {

// Largest value ReadIniText gives: the 10240-character buffer of the profile read, less
// its terminating NUL.
inline constexpr size_t kIniValueMax = 10240 - 1;

// One parsed INI text.
class IniFile {
 public:
  // Parses Windows-1252 text; never fails (what cannot be read defines nothing).
  static IniFile Parse(std::string_view text);

  // The value of `key` in `section`, quotes already removed, or nothing.
  std::optional<std::string> Find(std::string_view section, std::string_view key) const;

 private:
  // Folded section name -> folded key name -> value.
  std::map<std::string, std::map<std::string, std::string>> sections_;
};

// What ReadIniText makes of a value found or of the default: cut to kIniValueMax
// characters, cut at its first NUL, then the two-character sequences "\r" and "\n" replaced
// by a carriage return and a line feed (carriage returns first).
std::string FinishIniValue(std::string value);

// Parsed INI files by path, each kept until the file on disk changes (its times, size or
// identity), so that repeated lookups do not read the file again. Not thread-safe:
// one cache per thread.
class IniCache {
 public:
  // As ReadIniText below, through the cache.
  std::string Read(const std::string& file, std::string_view section, std::string_view key,
                   std::string_view def = "");

 private:
  struct Entry {
    FileStamp stamp;
    IniFile ini;
  };
  std::map<std::string, Entry> entries_;
};

// The value of `key` in `section` of the INI file `file`, finished by FinishIniValue. When
// the file, the section or the key is missing, `def` with its trailing blanks removed,
// finished the same way. Reads the file on every call (IniCache avoids that).
std::string ReadIniText(const std::string& file, std::string_view section, std::string_view key,
                        std::string_view def = "");

}  // namespace kalvo
