#include "db/audit.h"

#include <algorithm>

#include "db/operation.h"
#include "infra/arrays.h"
#include "infra/dates.h"

namespace kalvo {
namespace {

constexpr std::string_view kCrLf = "\r\n";

// The query's filter bits in the order the conditions are written, with their action texts.
struct FilterBit {
  int32_t bit;
  std::string_view text;
};
constexpr FilterBit kFilterBits[] = {
    {1, "CONNECT"},  {2, "REMOVE"},      {4, "BACKUP"}, {8, "RESTORE"},
    {16, "EXECUTE"}, {32, "DISCONNECT"}, {64, "ERROR"},
};

// Line `index` of a filter text; "*" (no filter) for an empty or missing line.
std::string FilterLine(const std::vector<std::string>& lines, size_t index) {
  return index < lines.size() && !lines[index].empty() ? lines[index] : "*";
}

// A wildcard pattern as LIKE takes it: "?" one character, "*" any number.
std::string LikePattern(std::string pattern) {
  for (char& ch : pattern) {
    if (ch == '?') ch = '_';
    if (ch == '*') ch = '%';
  }
  return pattern;
}

// The console's query for at most `max_rows` entries, newest first. The engine stops after
// them: with the time-stamp index it reads no more entries than it shows (TOP becomes the
// engine's LIMIT where needed).
Statement LoggingQuery(int32_t max_rows, const AuditQuery& query) {
  Statement sql("SELECT TOP ");
  sql.Number(int64_t{std::max(max_rows, 0)});
  sql.Sql(
      " tbl_kdx_logging_client.token_guid, tbl_kdx_token.token_person, "
      "tbl_kdx_logging_client.user_name, tbl_kdx_logging_client.token_action, "
      "tbl_kdx_logging_client.token_timestamp, tbl_kdx_logging_client.token_ip, "
      "tbl_kdx_logging_client.token_user_dn "
      "FROM tbl_kdx_token, tbl_kdx_logging_client "
      "WHERE tbl_kdx_token.token_guid = tbl_kdx_logging_client.token_guid ");
  if (query.mask >= 1 && query.mask <= 126) {
    sql.Sql("AND (");
    bool first = true;
    for (const FilterBit& f : kFilterBits) {
      if ((query.mask & f.bit) == 0) continue;
      if (!first) sql.Sql(" OR ");
      sql.Sql("tbl_kdx_logging_client.token_action = '").Sql(f.text).Sql("'");
      first = false;
    }
    sql.Sql(") ");
  }
  static constexpr std::string_view kTextColumns[] = {
      "tbl_kdx_token.token_person", "tbl_kdx_logging_client.user_name",
      "tbl_kdx_logging_client.token_guid", "tbl_kdx_logging_client.token_ip"};
  const std::vector<std::string> text = Split(query.text_filters, kCrLf);
  for (size_t i = 0; i < 4; ++i) {
    const std::string line = FilterLine(text, i);
    if (line == "*") continue;
    sql.Sql("AND ").Sql(kTextColumns[i]).Sql(" LIKE '").Value(LikePattern(line)).Sql("' ");
  }
  const std::vector<std::string> times = Split(query.time_filters, kCrLf);
  if (const std::string from = FilterLine(times, 0); from != "*") {
    sql.Sql("AND tbl_kdx_logging_client.token_timestamp > '").Value(from).Sql("' ");
  }
  if (const std::string to = FilterLine(times, 1); to != "*") {
    sql.Sql("AND tbl_kdx_logging_client.token_timestamp < '").Value(to).Sql("' ");
  }
  sql.Sql("ORDER BY tbl_kdx_logging_client.token_timestamp DESC");
  return sql;
}

}  // namespace

std::string_view AuditActionText(int32_t code) {
  static constexpr std::string_view kTexts[] = {"CONNECT", "EXECUTE",    "BACKUP", "RESTORE",
                                                "REMOVE",  "DISCONNECT", "ERROR"};
  return code >= 1 && code <= 7 ? kTexts[code - 1] : "UNKNOWN";
}

void DBLogClientAction(Database& database, const AuditSettings& settings, std::string_view identity,
                       AuditAction action, std::string_view ip, std::string_view action_guid) {
  if (!settings.is_active) return;
  Log& log = database.log();
  try {
    const std::vector<std::string> fields = Split(identity, std::string_view("\0", 1));
    const std::string guid = fields.size() > 0 ? fields[0] : "";
    const std::string user_dn = fields.size() > 1 ? fields[1] : "";
    const std::string user_name = fields.size() > 2 ? fields[2] : "";
    if (settings.is_limited) {
      const std::string trimmed = DBDeleteLoggingInformation(
          database, false, settings.is_save_max_count, settings.save_max_count,
          settings.is_save_max_days, settings.save_max_days);
      log.WriteLog("DBDeleteLoggingInformation returned " + trimmed);
    }
    RunOperation(database, "DBLogClientAction", ConnectFailure::kPlain, false,
                 [&](DbConnection& c, bool& result) {
                   Statement sql("INSERT INTO tbl_kdx_logging_client VALUES ('");
                   sql.Value(guid).Sql("', '").Value(user_name).Sql("', '");
                   sql.Sql(AuditActionText(static_cast<int32_t>(action))).Sql("', '");
                   sql.Value(FormatTimestamp(database.Now())).Sql("', '").Value(ip).Sql("', '");
                   sql.Value(action_guid).Sql("', '").Value(user_dn).Sql("')");
                   result = Execute(c, sql);
                 });
  } catch (...) {
    LogCurrentException(log, "DBLogClientAction");
  }
}

std::string DBDeleteLoggingInformation(Database& database, bool all, bool by_count, int32_t count,
                                       bool by_days, int32_t days) {
  (void)by_days;  // stored with the settings, but trimming by age does not depend on it
  return RunOperation(
      database, "DBDeleteLoggingInformation", ConnectFailure::kBang, std::string("ERROR"),
      [&](DbConnection& c, std::string& result) {
        Statement sql("DELETE FROM tbl_kdx_logging_client");
        const int64_t newest = int64_t{count} - 1;
        if (all || (by_count && newest == 0)) {
          // Keeping none of the entries there are: all of them go.
        } else if (by_count) {
          // Entries older than the newest `newest` entries' oldest time stamp go, so ties at
          // the boundary stay together. The boundary is only taken when those entries are that
          // many and none lacks a time stamp (then nothing goes). The time-stamp index gives
          // the newest entries and the older ones without reading the rest of the table.
          // A negative count is no valid TOP: the engine refuses the statement.
          sql.Sql(" WHERE token_timestamp < (SELECT CASE WHEN COUNT(token_timestamp) = ");
          sql.Number(newest).Sql(" THEN MIN(token_timestamp) END FROM (SELECT TOP ");
          sql.Number(newest).Sql(
              " token_timestamp FROM tbl_kdx_logging_client ORDER BY token_timestamp DESC) "
              "AS kalvo_newest)");
        } else {
          std::tm midnight = database.Now();
          midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;
          sql.Sql(" WHERE token_timestamp < '").Value(FormatTimestamp(AddDays(midnight, -days)));
          sql.Sql("'");
        }
        result = Execute(c, sql) ? "OK" : "ERROR";
      });
}

std::string DBGetLoggingInformation(Database& database, int32_t max_rows, const AuditQuery& query,
                                    std::string& total) {
  return RunOperation(
      database, "DBGetLoggingInformation", ConnectFailure::kPlain, std::string(),
      [&](DbConnection& c, std::string& result) {
        RecordSet rs;
        // Only the newest `max_rows` are kept, so no more are fetched.
        const size_t keep = max_rows > 0 ? static_cast<size_t>(max_rows) : 0;
        if (DBExecuteSQLCommand(c, LoggingQuery(max_rows, query), rs, keep) && !rs.Eof()) {
          result = Join(DBGetArrayFromRecordSet(database, rs, "|", kCrLf, false, true), kCrLf);
        }
        total = QueryText(c, Statement("SELECT Count (*) FROM tbl_kdx_logging_client"), "", " ",
                          true, false);
        if (total.empty()) total = "0";
      });
}

}  // namespace kalvo
