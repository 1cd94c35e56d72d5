// The administrator's view of the server's settings (requests 305 and 306): thirteen values
// in a fixed order, their names, the checks of a new value, and the settings as a table for
// people or JSON for programs. Pure: no sockets, no output. Packet texts are Windows-1252;
// every Format* function gives UTF-8 ending in "\n".
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kalvo::ctl {

inline constexpr int32_t kReportSettingsRequest = 305;  // answered as 305: the values
inline constexpr int32_t kUpdateSettingsRequest = 306;  // Data: the values; answered as 306

inline constexpr size_t kSettingCount = 13;

// One setting: its name for people and --set, and whether it is a Boolean (the others are
// whole 32-bit numbers).
struct SettingInfo {
  std::string_view name;
  bool is_boolean;
};

// The settings in the order of the values on the wire.
extern const std::array<SettingInfo, kSettingCount> kSettings;

// The index in kSettings of `name` (any case), or nothing.
std::optional<size_t> SettingIndex(std::string_view name);

// The names of kSettings joined by ", ", for messages.
std::string SettingNames();

// `text` as setting `index` travels: a whole 32-bit number as its digits; a Boolean (true,
// false, 1, 0, -1, yes, no, any case) as "True" or "False". Nothing when `text` is neither.
std::optional<std::string> SettingWireValue(size_t index, std::string_view text);

// One NAME=VALUE of --set: the setting's index and its value as it travels. Nothing, with
// why in `error` (naming the valid names or values), for a missing "=", an unknown name or a
// value the setting does not take.
struct SettingChange {
  size_t index = 0;
  std::string value;
};
std::optional<SettingChange> ParseSettingChange(std::string_view text, std::string& error);

// The values of a 305 answer: thirteen joined by "$". Nothing, with why in `error`, when
// there are not thirteen or one is not what its setting takes; the values come back as they
// travel (SettingWireValue), ready to be sent again in a 306.
std::optional<std::vector<std::string>> ParseSettings(std::string_view data, std::string& error);

// What an administrator should know after changing setting `index` with 306: every value
// takes effect at once, but the server stores LogAdmin, LogServer and LogClient under
// "KDX\Log" as Admin, Server and Client, while it reads them at start-up as LogAdmin,
// LogServer and LogClient, so a change of those lasts only until the next start (LogServer
// also sets the log level, which lasts). "" for the settings whose change simply lasts.
std::string SettingChangeNote(size_t index);

// The 306 Data of `values`.
std::string JoinSettings(const std::vector<std::string>& values);

// Two columns, name and value; Booleans as true and false. A value the answer lacks or that
// is not what its setting takes is shown as "?" (JSON: null).
std::string FormatSettingsTable(std::string_view data);
// {"BackupAutomatic":3,...,"AuditIsActive":true,...}: numbers as numbers, Booleans as
// true/false.
std::string FormatSettingsJson(std::string_view data);

}  // namespace kalvo::ctl
