#include "infra/language.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "infra/files.h"

namespace kalvo {
namespace {

constexpr int kEnglish = 0x09;

struct LanguageCode {
  std::string_view code;  // ISO 639 code as locale names use it
  int id;                 // Windows primary language id
};

constexpr LanguageCode kLanguageCodes[] = {
    {"ar", 0x01}, {"bg", 0x02}, {"ca", 0x03},  {"zh", 0x04}, {"cs", 0x05}, {"da", 0x06},
    {"de", 0x07}, {"el", 0x08}, {"en", 0x09},  {"es", 0x0A}, {"fi", 0x0B}, {"fr", 0x0C},
    {"he", 0x0D}, {"iw", 0x0D}, {"hu", 0x0E},  {"is", 0x0F}, {"it", 0x10}, {"ja", 0x11},
    {"ko", 0x12}, {"nl", 0x13}, {"nb", 0x14},  {"nn", 0x14}, {"no", 0x14}, {"pl", 0x15},
    {"pt", 0x16}, {"rm", 0x17}, {"ro", 0x18},  {"ru", 0x19}, {"hr", 0x1A}, {"sr", 0x1A},
    {"bs", 0x1A}, {"sk", 0x1B}, {"sq", 0x1C},  {"sv", 0x1D}, {"th", 0x1E}, {"tr", 0x1F},
    {"ur", 0x20}, {"id", 0x21}, {"uk", 0x22},  {"be", 0x23}, {"sl", 0x24}, {"et", 0x25},
    {"lv", 0x26}, {"lt", 0x27}, {"tg", 0x28},  {"fa", 0x29}, {"vi", 0x2A}, {"hy", 0x2B},
    {"az", 0x2C}, {"eu", 0x2D}, {"hsb", 0x2E}, {"mk", 0x2F}, {"af", 0x36}, {"ka", 0x37},
    {"fo", 0x38}, {"hi", 0x39}, {"mt", 0x3A},  {"ga", 0x3C}, {"ms", 0x3E}, {"kk", 0x3F},
    {"sw", 0x41}, {"uz", 0x43}, {"bn", 0x45},  {"pa", 0x46}, {"gu", 0x47}, {"ta", 0x49},
    {"te", 0x4A}, {"kn", 0x4B}, {"ml", 0x4C},  {"mr", 0x4E}, {"mn", 0x50}, {"cy", 0x52},
    {"km", 0x53}, {"lo", 0x54}, {"gl", 0x56},  {"ne", 0x61}, {"fy", 0x62}, {"lb", 0x6E},
};

}  // namespace

int LanguageIdFromLocaleName(std::string_view locale) {
  // "ll_CC.charset@modifier": the language is what comes before the first of "_.@-".
  const std::string_view language = locale.substr(0, locale.find_first_of("_.@-"));
  std::string lower(language);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  for (const LanguageCode& entry : kLanguageCodes) {
    if (entry.code == lower) return entry.id;
  }
  return kEnglish;  // also "C", "POSIX" and ""
}

int LanguageIdFromLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return LanguageIdFromLocaleName(value);
  }
  return kEnglish;
}

Language::Language(ProgramInfo program, int language_id)
    : program_(std::move(program)), language_id_(language_id & 0x3FF) {}

std::string Language::LanguageFileFor(int language_id) const {
  std::string base = program_.name;
  if (const size_t dot = base.rfind('.'); dot != std::string::npos && dot > 0) base.resize(dot);
  base.resize(std::min<size_t>(base.size(), 5));
  char ending[16];
  std::snprintf(ending, sizeof ending, ".4%02X", static_cast<unsigned>(language_id & 0x3FF));
  return WithTrailingSlash(program_.dir) + base + ending;
}

std::string Language::FindLanguageFile() {
  path_.clear();
  for (const int id : {language_id_, kEnglish}) {
    if (std::string candidate = LanguageFileFor(id); IsPlainFile(candidate)) {
      path_ = std::move(candidate);
      break;
    }
  }
  return path_;
}

bool Language::LanguageFileExists() { return !FindLanguageFile().empty(); }

std::string Language::GetLanguageString(std::string_view section, std::string_view key,
                                        std::string_view def) {
  if (path_.empty()) FindLanguageFile();
  return cache_.Read(path_, section, key, def);
}

}  // namespace kalvo
