#include "db/backups.h"

#include <algorithm>

#include "db/operation.h"
#include "infra/dates.h"
#include "infra/log.h"
#include "infra/numbers.h"
#include "infra/runtime_error.h"

namespace kalvo {
namespace {

constexpr std::string_view kCrLf = "\r\n";

// "FROM tbl_kdx_backup WHERE token_guid = '<guid>' ", the start of most statements here.
Statement FromTokenBackups(std::string_view fixed_start, std::string_view guid) {
  Statement sql(fixed_start);
  sql.Sql("FROM tbl_kdx_backup WHERE token_guid = '").Value(guid).Sql("' ");
  return sql;
}

// The rows of one backup: "... AND backup_index = <index>AND backup_type = <type>".
Statement OneBackup(std::string_view fixed_start, std::string_view guid, std::string_view index,
                    int32_t type) {
  Statement sql = FromTokenBackups(fixed_start, guid);
  sql.Sql("AND backup_index = ").Number(index).Sql("AND backup_type = ").Number(type);
  return sql;
}

// The count a "SELECT COUNT(*)" statement gives; a failed statement is a type mismatch.
int32_t Count(DbConnection& c, const Statement& sql) {
  return NumericTextToInt32(QueryText(c, sql, "", " ", true, true));
}

// Writes part `part` of a new index 1: its row, then its bytes into the row's backup_data.
bool WritePart(DbConnection& c, std::string_view guid, std::string_view name, int32_t type,
               int32_t part, std::string_view text, const std::string& now) {
  Statement insert("INSERT INTO tbl_kdx_backup VALUES ('");
  insert.Value(guid).Sql("','").Value(name).Sql("',1,").Number(part).Sql(",").Number(type);
  insert.Sql(",").Number(static_cast<int64_t>(text.size())).Sql(",'','").Value(now).Sql("')");
  if (!Execute(c, insert)) return false;
  if (text.empty()) return true;
  // The conditions of the row just inserted, as the update and its check share them.
  Statement where("WHERE token_guid = '");
  where.Value(guid).Sql("' AND backup_index = 1 AND backup_order = ").Number(part);
  where.Sql("AND backup_type = ").Number(type);
  Statement update("UPDATE tbl_kdx_backup SET backup_data = ? ");
  update.Append(where).BindBinary(text);
  Statement select("SELECT * FROM tbl_kdx_backup ");
  select.Append(where);
  return UpdateSelectedRows(c, update, select);
}

}  // namespace

int32_t BackupMaxima::For(int32_t type) const {
  switch (type) {
    case kAutomaticBackup:
      return automatic;
    case kAdminBackup:
      return admin;
    case kClientBackup:
      return client;
    default:
      return 0;
  }
}

int32_t GetDataSplitCount(Log& log, int64_t length, int32_t part_size) {
  int32_t count = 1;
  if (part_size < length) {
    // A negative part size divides like any other; its quotient rounded up is no part.
    if (part_size == 0) throw RuntimeError(kErrDivisionByZero, "Division by zero");
    count = static_cast<int32_t>(RoundDirected(static_cast<double>(length) / part_size, 0, "UP"));
  }
  log.WriteLog("GetDataSplitCount (OK)");
  return count;
}

int32_t GetDataSplitSize(Log& log, int64_t length, int32_t part_size, int32_t part) {
  const int64_t size = int64_t{part_size} * part > length ? length - int64_t{part - 1} * part_size
                                                          : int64_t{part_size};
  log.WriteLog("GetDataSplitSize (OK)");
  return static_cast<int32_t>(size);
}

bool ForEachDataPart(Log& log, std::string_view data, int32_t part_size,
                     const std::function<bool(int32_t part, std::string_view text)>& write) {
  const int64_t length = static_cast<int64_t>(data.size());
  const int32_t count = GetDataSplitCount(log, length, part_size);
  for (int32_t part = 1; part <= count; ++part) {
    const int32_t size = GetDataSplitSize(log, length, part_size, part);
    const std::string_view text =
        data.substr(static_cast<size_t>(int64_t{part - 1} * part_size), static_cast<size_t>(size));
    if (!write(part, text)) return false;
  }
  return true;
}

bool DBSetTokenBackupData(Database& database, const BackupMaxima& maxima, std::string_view guid,
                          int32_t type, std::string_view name, std::string_view data,
                          std::string& result) {
  return RunOperation(
      database, "DBSetTokenBackupData", ConnectFailure::kPlain, false,
      [&](DbConnection& c, bool& written) {
        // The rotation, the shift and every part are one unit: a crash or a failed statement
        // leaves the series as it was, never shifted without its new backup or with one cut.
        Transaction transaction(c);
        const int32_t maximum = maxima.For(type);
        if (type != kAutomaticBackup) {
          Statement count = FromTokenBackups("SELECT COUNT(*) ", guid);
          count.Sql("AND backup_type = ").Number(type);
          if (Count(c, count) >= maximum) {
            result = "TOOMUCH";
            return;
          }
        }
        Statement drop = FromTokenBackups("DELETE ", guid);
        drop.Sql("AND backup_type = ").Number(type);
        drop.Sql("AND backup_index > ").Number(int64_t{maximum} - 1);
        if (!Execute(c, drop)) return;
        Statement shift("UPDATE tbl_kdx_backup SET backup_index = backup_index + 1 ");
        shift.Sql("WHERE token_guid = '").Value(guid).Sql("' AND backup_type = ").Number(type);
        if (!Execute(c, shift)) return;

        const std::string now = FormatTimestamp(database.Now());
        const bool whole = ForEachDataPart(database.log(), data, database.settings().blob_max_size,
                                           [&](int32_t part, std::string_view text) {
                                             return WritePart(c, guid, name, type, part, text, now);
                                           });
        if (!whole) return;
        written = transaction.Commit("DBSetTokenBackupData");
      });
}

std::string DBGetTokenBackupData(Database& database, std::string_view guid, std::string_view index,
                                 int32_t type, std::string& backup_time) {
  return RunOperation(database, "DBGetTokenBackupData", ConnectFailure::kPlain, std::string(),
                      [&](DbConnection& c, std::string& result) {
                        const int32_t parts =
                            Count(c, OneBackup("SELECT COUNT(*) ", guid, index, type));
                        const int32_t part_size = database.settings().blob_max_size;
                        if (parts > 0 && part_size > 0) {
                          // Room for the whole text at once when every part is as long as parts are
                          // now.
                          result.reserve(static_cast<size_t>(
                              std::min<int64_t>(int64_t{parts} * part_size, int64_t{INT32_MAX})));
                        }
                        for (int32_t part = 1; part <= parts; ++part) {
                          Statement sql = OneBackup("SELECT * ", guid, index, type);
                          sql.Sql("AND backup_order = ").Number(part);
                          RecordSet rs;
                          if (!DBExecuteSQLCommand(c, sql, rs, 1)) return;
                          if (rs.Eof()) {
                            result = "NOTFOUND";
                            continue;
                          }
                          if (backup_time.empty())
                            backup_time = rs.Field(0, "backup_time").value_or("");
                          if (auto bytes = rs.Field(0, "backup_data"); bytes && !bytes->empty())
                            result += *bytes;
                        }
                      });
}

std::string DBDeleteTokenBackupData(Database& database, std::string_view guid,
                                    std::string_view index, int32_t type) {
  return RunOperation(database, "DBDeleteTokenBackupData", ConnectFailure::kPlain,
                      std::string("ERROR"), [&](DbConnection& c, std::string& result) {
                        if (!Execute(c, OneBackup("DELETE ", guid, index, type))) return;
                        Statement renumber(
                            "UPDATE tbl_kdx_backup SET backup_index = backup_index - 1 "
                            "WHERE backup_index > ");
                        renumber.Number(index).Sql("AND backup_type = ").Number(type);
                        if (Execute(c, renumber)) result = "OK";
                      });
}

std::string DBGetTokenBackupNames(Database& database, std::string_view guid, int32_t type) {
  return RunOperation(
      database, "DBGetTokenBackupNames", ConnectFailure::kPlain, std::string(),
      [&](DbConnection& c, std::string& result) {
        Statement sql;
        if (guid.empty()) {
          sql.Sql(
              "SELECT DISTINCT tbl_kdx_backup.token_guid, tbl_kdx_backup.backup_name, "
              "tbl_kdx_backup.backup_type, tbl_kdx_backup.backup_index, "
              "tbl_kdx_token.token_person FROM tbl_kdx_backup, tbl_kdx_token "
              "WHERE tbl_kdx_backup.token_guid = tbl_kdx_token.token_guid");
          if (type != kAllBackupTypes) sql.Sql(" AND backup_type = ").Number(type);
        } else {
          sql.Sql("SELECT DISTINCT backup_name, backup_type, backup_index FROM tbl_kdx_backup ");
          if (type == kAllBackupTypes) {
            sql.Sql("WHERE token_guid = '").Value(guid).Sql("'");
          } else {
            sql.Sql("WHERE backup_type = ").Number(type).Sql("AND token_guid = '").Value(guid);
            sql.Sql("'");
          }
        }
        result = QueryText(c, sql, "$", kCrLf, false, true);
      });
}

}  // namespace kalvo
