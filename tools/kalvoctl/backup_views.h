// The administrator's views of token backups: the lists of 308 and 315 as rows, and the rows
// as tables for people or JSON for programs. Pure: no sockets, no output. Packet texts are
// Windows-1252; every Format* function gives UTF-8 ending in "\n".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kalvo::ctl {

// The requests behind the views.
inline constexpr int32_t kTokenBackupsRequest = 308;  // Data token, Misc1 type (4: all)
inline constexpr int32_t kFetchBackupRequest = 309;   // Data token, Misc1 index, Misc2 type
inline constexpr int32_t kAllBackupsRequest = 315;
inline constexpr int32_t kClientLogonRequest = 101;  // a client's registration of its token
inline constexpr int32_t kStoreBackupRequest = 115;  // Data backup, Misc2 type, Misc3 name

// The backup type a command-line word names: 1 to 4 or automatic, admin, client, all (any
// case). Nothing for any other word.
std::optional<int32_t> BackupType(std::string_view word);

// "automatic", "admin", "client" for the types 1 to 3; the number's text otherwise.
std::string BackupTypeName(std::string_view type);

// "" when `name` can be a backup's name on the wire, else why not: it travels in a field that
// cannot hold "|" and the server refuses an apostrophe.
std::string BackupNameProblem(std::string_view name);

// One backup of a list. `guid` and `person` are set only in the list of every token (315).
struct BackupRow {
  std::string guid, person, name, type, index;
};

// A 308 list: rows joined by CRLF, each name$type$index; a name holding "$" keeps it.
std::vector<BackupRow> ParseTokenBackups(std::string_view data);
// A 315 list: rows joined by CRLF, each guid$name$type$index$person.
std::vector<BackupRow> ParseAllBackups(std::string_view data);

// The rows ordered by token, type and index (numbers as numbers), as people read them.
void SortBackups(std::vector<BackupRow>& rows);

// Tables list every row (with GUID and person when `all_tokens`); an empty list gives one line
// saying so. JSON: {"token":..,"certificate":true|false,"backups":[..]} for one token, or
// {"backups":[..]} for all.
std::string FormatBackupTable(const std::vector<BackupRow>& rows, bool all_tokens);
std::string FormatTokenBackupsJson(std::string_view guid, bool has_certificate,
                                   const std::vector<BackupRow>& rows);
std::string FormatAllBackupsJson(const std::vector<BackupRow>& rows);

}  // namespace kalvo::ctl
