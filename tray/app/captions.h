// The companion's texts: lookups in the language file, turned into QString.
#pragma once

#include <QString>
#include <string>
#include <string_view>

#include "core/status_view.h"
#include "infra/language.h"

namespace kalvo::tray {

// Windows-1252 text (what the language file, the version texts and every narrow literal of
// this code base hold at run time) as a QString.
QString FromCp1252(std::string_view text);

// The decimal separator of the system's number format (LC_NUMERIC and friends): '.' or ','.
char SystemDecimalSeparator();

// Answers the windows' text lookups. `language` must outlive this object.
class Captions {
 public:
  // `program_name` is the executable's name, shown in the window titles.
  Captions(Language& language, std::string program_name)
      : language_(language), program_name_(std::move(program_name)) {}

  // The text of `key` in `section`; empty when the file, section or key is missing.
  QString Text(std::string_view section, std::string_view key) const;

  // A window title: the text of "TITLE" in `section`, then " (", the program name, ")".
  QString WindowTitle(std::string_view section) const;

  // The texts the status values are made with.
  StatusCaptions ForStatus() const;

 private:
  std::string Raw(std::string_view section, std::string_view key) const {
    return language_.GetLanguageString(section, key);
  }

  Language& language_;
  std::string program_name_;
};

}  // namespace kalvo::tray
