// Language strings: every text of the server's own user interface comes from a language
// file that lies next to the program, chosen by the system's language with English as the
// fallback.
#pragma once

#include <string>
#include <string_view>

#include "infra/ini_file.h"
#include "infra/program_info.h"

namespace kalvo {

// Primary language id (Windows numbering: German 0x07, English 0x09, French 0x0C, Spanish
// 0x0A, ...) of a locale name such as "de_DE.UTF-8", "fr", "pt_BR@euro". Unknown languages,
// "", "C" and "POSIX" give English, 0x09.
int LanguageIdFromLocaleName(std::string_view locale);

// The primary language id of the first non-empty of the environment variables LC_ALL,
// LC_MESSAGES and LANG (see LanguageIdFromLocaleName); 0x09 when none is set.
int LanguageIdFromLocale();

// Finds the language file of a program and answers lookups in it. The file of program
// directory D and executable N is D + "/" + the first five characters of N without its
// extension + ".4" + the primary language id as two or more upper-case hexadecimal digits:
// "kalvosrv" gives kalvo.407 for German. When that file is missing, kalvo.409 (English) is
// used; when that is missing too, no file is chosen and every lookup searches again, so a
// file put in place later is found without a restart. Directories never count as the file.
//
// Not thread-safe: use one object per thread.
class Language {
 public:
  // `language_id` is a primary language id or a full one (only its low 10 bits are used,
  // so 0x0407 and 0x07 are the same).
  Language(ProgramInfo program, int language_id);

  // The text of `key` in `section` ("\n" and "\r" in the file become line breaks), or `def`
  // when there is no file, section or key. Searches the file first while none is chosen.
  std::string GetLanguageString(std::string_view section, std::string_view key,
                                std::string_view def = "");

  // Searches the file again (always) and tells whether one was found.
  bool LanguageFileExists();

  // Applies the file name rule and the English fallback, remembers the result and gives it;
  // "" when neither file is there.
  std::string FindLanguageFile();

  // The chosen file, "" while none has been found.
  const std::string& LanguageFilePath() const { return path_; }

  // The file name rule's path for `language_id` (whether or not the file exists).
  std::string LanguageFileFor(int language_id) const;

 private:
  ProgramInfo program_;
  int language_id_;
  std::string path_;
  IniCache cache_;
};

}  // namespace kalvo
