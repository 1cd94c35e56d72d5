#include "kalvoctl/settings_views.h"

#include <cstdint>

#include "infra/arrays.h"
#include "infra/numbers.h"
#include "infra/strings.h"
#include "kalvoctl/print.h"
#include "kalvoctl/view_support.h"

namespace kalvo::ctl {

const std::array<SettingInfo, kSettingCount> kSettings = {{
    {"BackupAutomatic", false},
    {"BackupAdmin", false},
    {"BackupClient", false},
    {"LogAdmin", false},
    {"LogServer", false},
    {"LogClient", false},
    {"AuditIsActive", true},
    {"AuditDisplayMaxCount", false},
    {"AuditIsLimited", true},
    {"AuditIsSaveMaxCount", true},
    {"AuditSaveMaxCount", false},
    {"AuditIsSaveMaxDays", true},
    {"AuditSaveMaxDays", false},
}};

namespace {

constexpr std::string_view kTrueWords[] = {"true", "1", "-1", "yes"};
constexpr std::string_view kFalseWords[] = {"false", "0", "no"};

std::optional<bool> BooleanWord(std::string_view text) {
  for (const std::string_view word : kTrueWords) {
    if (EqualsNoCase(text, word)) return true;
  }
  for (const std::string_view word : kFalseWords) {
    if (EqualsNoCase(text, word)) return false;
  }
  return std::nullopt;
}

std::string ValueRule(size_t index) {
  return kSettings[index].is_boolean ? "true or false (also 1, 0, -1, yes, no)"
                                     : "a whole number from -2147483648 to 2147483647";
}

// The answer's values, thirteen, those it lacks empty; each as it travels or nothing.
std::vector<std::optional<std::string>> ReadValues(std::string_view data) {
  std::vector<std::string> parts = Split(data, "$");
  parts.resize(kSettingCount);
  std::vector<std::optional<std::string>> values;
  for (size_t i = 0; i < kSettingCount; ++i) values.push_back(SettingWireValue(i, parts[i]));
  return values;
}

// A value as both people and JSON read it: a number's digits, a Boolean as true or false;
// `missing` for a value the answer did not hold.
std::string Shown(size_t index, const std::optional<std::string>& value, std::string_view missing) {
  if (!value) return std::string(missing);
  if (!kSettings[index].is_boolean) return *value;
  return *value == "True" ? "true" : "false";
}

}  // namespace

std::optional<size_t> SettingIndex(std::string_view name) {
  for (size_t i = 0; i < kSettingCount; ++i) {
    if (EqualsNoCase(name, kSettings[i].name)) return i;
  }
  return std::nullopt;
}

std::string SettingNames() {
  std::string names;
  for (const SettingInfo& s : kSettings) {
    if (!names.empty()) names += ", ";
    names += s.name;
  }
  return names;
}

std::optional<std::string> SettingWireValue(size_t index, std::string_view text) {
  if (kSettings[index].is_boolean) {
    const auto b = BooleanWord(text);
    if (!b) return std::nullopt;
    return *b ? "True" : "False";
  }
  const auto n = WholeNumberText(text);
  if (!n || *n < INT32_MIN || *n > INT32_MAX) return std::nullopt;
  return std::to_string(*n);
}

std::optional<SettingChange> ParseSettingChange(std::string_view text, std::string& error) {
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos) {
    error = "not NAME=VALUE: " + std::string(text) + " (the names are " + SettingNames() + ")";
    return std::nullopt;
  }
  const std::string_view name = text.substr(0, equals);
  const auto index = SettingIndex(name);
  if (!index) {
    error = "no setting \"" + std::string(name) + "\"; the settings are " + SettingNames();
    return std::nullopt;
  }
  auto value = SettingWireValue(*index, text.substr(equals + 1));
  if (!value) {
    error = std::string(kSettings[*index].name) + " takes " + ValueRule(*index) + ", not \"" +
            std::string(text.substr(equals + 1)) + "\"";
    return std::nullopt;
  }
  return SettingChange{*index, std::move(*value)};
}

std::optional<std::vector<std::string>> ParseSettings(std::string_view data, std::string& error) {
  const size_t count = Split(data, "$").size();
  if (count != kSettingCount) {
    error = "the server sent " + std::to_string(count) + " values instead of " +
            std::to_string(kSettingCount);
    return std::nullopt;
  }
  std::vector<std::string> values;
  const auto read = ReadValues(data);
  for (size_t i = 0; i < kSettingCount; ++i) {
    if (!read[i]) {
      error = "the server's " + std::string(kSettings[i].name) + " is not " + ValueRule(i);
      return std::nullopt;
    }
    values.push_back(*read[i]);
  }
  return values;
}

std::string JoinSettings(const std::vector<std::string>& values) { return Join(values, "$"); }

std::string FormatSettingsTable(std::string_view data) {
  const auto values = ReadValues(data);
  std::vector<std::vector<std::string>> rows;
  for (size_t i = 0; i < kSettingCount; ++i) {
    rows.push_back({std::string(kSettings[i].name), Shown(i, values[i], "?")});
  }
  return FormatTable({"SETTING", "VALUE"}, rows);
}

std::string FormatSettingsJson(std::string_view data) {
  const auto values = ReadValues(data);
  std::vector<std::pair<std::string_view, std::string>> fields;
  for (size_t i = 0; i < kSettingCount; ++i) {
    fields.emplace_back(kSettings[i].name, Shown(i, values[i], "null"));
  }
  return JsonObject(fields) + "\n";
}

std::string SettingChangeNote(size_t index) {
  const std::string_view name = kSettings.at(index).name;
  if (!name.starts_with("Log")) return "";
  const std::string short_name(name.substr(3));
  std::string note = std::string(name) + " takes effect at once";
  if (name == "LogServer") note += " and sets the log level (LogLevel), which is kept";
  return note + "; the server stores it as KDX\\Log " + short_name + ", but reads KDX\\Log " +
         std::string(name) + " at start-up, so after a restart it is " + std::string(name) +
         " of the registry file again: set that value there to keep it";
}

}  // namespace kalvo::ctl
