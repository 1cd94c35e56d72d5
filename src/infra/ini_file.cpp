#include "infra/ini_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "infra/reg_document.h"
#include "infra/text_encoding.h"
#include "infra/unique_fd.h"

namespace kalvo {
namespace {

constexpr std::string_view kBlanks = " \t\r\n\v\f";

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Names compare without regard to case as registry names do; the folded form is only ever
// compared, never shown.
std::string FoldName(std::string_view name) { return RegFoldName(Trim(name)); }

// Removes one pair of matching surrounding quotes.
std::string_view Unquote(std::string_view value) {
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
      value.back() == value.front()) {
    return value.substr(1, value.size() - 2);
  }
  return value;
}

void ReplaceAll(std::string& text, std::string_view from, std::string_view to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string bytes;
  if (fd.get() < 0 || !ReadAll(fd.get(), bytes)) return std::nullopt;
  return bytes;
}

std::string DefaultValue(std::string_view def) {
  // The profile read removes trailing blanks from the default.
  while (!def.empty() && def.back() == ' ') def.remove_suffix(1);
  return FinishIniValue(std::string(def));
}

}  // namespace

IniFile IniFile::Parse(std::string_view text) {
  IniFile ini;
  std::map<std::string, std::string>* current = nullptr;  // null: keys here are dropped
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = Trim(text.substr(start, end - start));
    start = end + 1;

    if (line.empty() || line.front() == ';') continue;
    if (line.front() == '[') {
      const size_t close = line.rfind(']');
      if (close == std::string_view::npos || close == 0) continue;
      // A repeated section is not searched: its keys are dropped.
      const auto [it, added] = ini.sections_.try_emplace(FoldName(line.substr(1, close - 1)));
      current = added ? &it->second : nullptr;
      continue;
    }
    const size_t equals = line.find('=');
    if (current == nullptr || equals == std::string_view::npos) continue;
    // try_emplace keeps the first definition of a key.
    current->try_emplace(FoldName(line.substr(0, equals)), Unquote(Trim(line.substr(equals + 1))));
  }
  return ini;
}

std::optional<std::string> IniFile::Find(std::string_view section, std::string_view key) const {
  const auto s = sections_.find(FoldName(section));
  if (s == sections_.end()) return std::nullopt;
  const auto k = s->second.find(FoldName(key));
  if (k == s->second.end()) return std::nullopt;
  return k->second;
}

std::string FinishIniValue(std::string value) {
  if (value.size() > kIniValueMax) value.resize(kIniValueMax);
  if (const size_t nul = value.find('\0'); nul != std::string::npos) value.resize(nul);
  ReplaceAll(value, "\\r", "\r");
  ReplaceAll(value, "\\n", "\n");
  return value;
}

std::string IniCache::Read(const std::string& file, std::string_view section, std::string_view key,
                           std::string_view def) {
  struct stat info {};
  if (file.empty() || ::stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    entries_.erase(file);
    return DefaultValue(def);
  }
  // Identity, size and modification time tell versions apart here; the change time is left
  // out, so that a file whose modification time was set back keeps its cached text.
  FileStamp stamp = FileStampOf(info);
  stamp.ctime = {};
  auto it = entries_.find(file);
  if (it == entries_.end() || !(it->second.stamp == stamp)) {
    const auto bytes = ReadWholeFile(file);
    if (!bytes) {
      entries_.erase(file);
      return DefaultValue(def);
    }
    it =
        entries_.insert_or_assign(file, Entry{stamp, IniFile::Parse(DecodeTextFile(*bytes))}).first;
  }
  const auto value = it->second.ini.Find(section, key);
  return value ? FinishIniValue(*value) : DefaultValue(def);
}

std::string ReadIniText(const std::string& file, std::string_view section, std::string_view key,
                        std::string_view def) {
  IniCache once;
  return once.Read(file, section, key, def);
}

}  // namespace kalvo
