#include "kalvoctl/backup_views.h"

#include <algorithm>
#include <tuple>

#include "infra/arrays.h"
#include "infra/json_text.h"
#include "infra/numbers.h"
#include "infra/strings.h"
#include "kalvoctl/print.h"
#include "kalvoctl/view_support.h"

namespace kalvo::ctl {
namespace {

constexpr std::string_view kTypeNames[] = {"automatic", "admin", "client", "all"};

std::string JsonBackup(const BackupRow& r, bool all_tokens) {
  std::vector<std::pair<std::string_view, std::string>> fields;
  if (all_tokens) {
    fields.emplace_back("token", JsonString(r.guid));
    fields.emplace_back("person", JsonString(r.person));
  }
  fields.emplace_back("name", JsonString(r.name));
  fields.emplace_back("type", JsonNumberOrNull(r.type));
  fields.emplace_back("index", JsonNumberOrNull(r.index));
  return JsonObject(fields);
}

}  // namespace

std::optional<int32_t> BackupType(std::string_view word) {
  for (int32_t type = 1; type <= 4; ++type) {
    if (word == std::to_string(type) || EqualsNoCase(word, kTypeNames[type - 1])) return type;
  }
  return std::nullopt;
}

std::string BackupTypeName(std::string_view type) {
  const auto number = WholeNumberText(type);
  if (number && *number >= 1 && *number <= 3) return std::string(kTypeNames[*number - 1]);
  return std::string(type);
}

std::string BackupNameProblem(std::string_view name) {
  if (name.find('|') != std::string_view::npos) return "a backup name cannot hold \"|\"";
  if (name.find('\'') != std::string_view::npos) return "a backup name cannot hold \"'\"";
  return "";
}

std::vector<BackupRow> ParseTokenBackups(std::string_view data) {
  std::vector<BackupRow> rows;
  for (const std::string& line : Split(data, kCrlf)) {
    if (line.empty()) continue;
    // The name is free text: type and index are the last two fields.
    std::vector<std::string> f = Split(line, "$");
    BackupRow row;
    if (f.size() >= 3) {
      row.index = f.back();
      row.type = f[f.size() - 2];
      f.resize(f.size() - 2);
    }
    row.name = Join(f, "$");
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<BackupRow> ParseAllBackups(std::string_view data) {
  std::vector<BackupRow> rows;
  for (const std::string& record : SplitRecords(data, kCrlf, "$")) {
    // guid$name$type$index$person: a person holding "$" keeps it (the last field takes the
    // rest); a name holding "$" cannot be told apart and shifts the fields after it.
    const std::vector<std::string> f = SplitFields(record, "$", 5, 4);
    rows.push_back({f[0], f[4], f[1], f[2], f[3]});
  }
  return rows;
}

void SortBackups(std::vector<BackupRow>& rows) {
  const auto key = [](const BackupRow& r) {
    return std::make_tuple(r.guid, WholeNumberText(r.type).value_or(0),
                           WholeNumberText(r.index).value_or(0), r.name);
  };
  std::stable_sort(rows.begin(), rows.end(),
                   [&](const BackupRow& a, const BackupRow& b) { return key(a) < key(b); });
}

std::string FormatBackupTable(const std::vector<BackupRow>& rows, bool all_tokens) {
  if (rows.empty()) return "No backups.\n";
  std::vector<std::vector<std::string>> cells;
  for (const BackupRow& r : rows) {
    std::vector<std::string> row;
    if (all_tokens) row = {r.guid, r.person};
    row.insert(row.end(), {BackupTypeName(r.type), NumberForPeople(r.index), r.name});
    cells.push_back(std::move(row));
  }
  std::vector<std::string> header;
  if (all_tokens) header = {"TOKEN", "PERSON"};
  header.insert(header.end(), {"TYPE", "INDEX", "NAME"});
  return FormatTable(header, cells);
}

std::string FormatTokenBackupsJson(std::string_view guid, bool has_certificate,
                                   const std::vector<BackupRow>& rows) {
  return JsonObject({{"token", JsonString(guid)},
                     {"certificate", has_certificate ? "true" : "false"},
                     {"backups",
                      JsonArray(rows, [](const BackupRow& r) { return JsonBackup(r, false); })}}) +
         "\n";
}

std::string FormatAllBackupsJson(const std::vector<BackupRow>& rows) {
  return JsonObject({{"backups",
                      JsonArray(rows, [](const BackupRow& r) { return JsonBackup(r, true); })}}) +
         "\n";
}

}  // namespace kalvo::ctl
