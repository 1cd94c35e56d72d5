// The frame every database operation of the server runs in, and the small queries several
// areas share. An operation connects with the stored settings, does its work on that one
// connection, disconnects and logs "<name> (OK)". A failed connect is logged with the
// operation's name and gives the operation's empty result; a run-time error inside the work is
// logged under the operation's name, followed by "<name> (Error)", and gives whatever result
// the work had assigned by then.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "db/connection.h"
#include "infra/log.h"
#include "infra/runtime_error.h"

namespace kalvo {

// Which connect-failure text an operation logs: most use the plain one, a few (the
// configuration, deletions and a few lookups) the one with "!".
enum class ConnectFailure { kPlain, kBang };

// The line an operation frame logs before it starts again on a fresh connection.
inline std::string ReconnectLogLine(std::string_view name) {
  return std::string(name) + ": the database connection was dead, connecting again";
}

// Runs `work(connection, result)` inside the frame described above and gives `result`, which
// starts as `empty`. `work` may throw; nothing escapes this function. When a kept or pooled
// connection turns out dead at the operation's first statement (see DeadConnection), the work
// starts once more from `empty` on a newly opened connection (never another kept or pooled one,
// which after a database restart would be just as dead); a second failure fails the operation.
template <typename T, typename Work>
T RunOperation(Database& database, std::string_view name, ConnectFailure failure, T empty,
               Work&& work) {
  Log& log = database.log();
  T result = empty;
  for (int attempt = 0; attempt < 2; ++attempt) {
    result = empty;
    try {
      DbConnection connection(database);
      connection.set_reconnect_when_dead(attempt == 0);
      connection.set_fresh(attempt > 0);
      if (!DBConnect(connection)) {
        log.LogError(0,
                     failure == ConnectFailure::kBang ? kConnectFailedTextBang : kConnectFailedText,
                     name);
        return empty;
      }
      work(connection, result);
      DBDisconnect(connection);
      log.WriteLog(std::string(name) + " (OK)");
    } catch (const DeadConnection&) {
      log.WriteLog(ReconnectLogLine(name));
      continue;
    } catch (...) {
      LogCurrentException(log, name);
      log.WriteLog(std::string(name) + " (Error)");
    }
    break;
  }
  return result;
}

// Runs `work(outer, result)` as the operation `name` on `outer`, the open connection of the
// operation that calls it, so that its statements join the caller's transaction. It logs as
// RunOperation does, its connect and disconnect lines included (the connection stays the
// caller's): the log reads as for an operation of its own. A run-time error inside `work` is
// logged under `name`, followed by "<name> (Error)", and gives what `work` had assigned.
template <typename T, typename Work>
T RunOperationOn(DbConnection& outer, std::string_view name, T empty, Work&& work) {
  Log& log = outer.database().log();
  T result = empty;
  try {
    log.WriteLog("DBConnect (OK)");
    work(outer, result);
    log.WriteLog("DBDisconnect (OK)");
    log.WriteLog(std::string(name) + " (OK)");
  } catch (const DeadConnection&) {
    throw;  // the caller's frame starts again
  } catch (...) {
    LogCurrentException(log, name);
    log.WriteLog(std::string(name) + " (Error)");
  }
  return result;
}

// Executes `statement` and gives its rows as text (DBGetStringFromRecordSet with the given
// delimiters and flags); "" when it fails or yields no row.
std::string QueryText(DbConnection& connection, const Statement& statement,
                      std::string_view column_delimiter, std::string_view row_delimiter, bool trim,
                      bool strip_last);

// Executes `statement`, which only has to succeed.
bool Execute(DbConnection& connection, const Statement& statement);

// Executes `statement`, which must succeed: a failure is thrown as a RuntimeError with the
// database's last error, which ends the operation through its frame.
void MustExecute(DbConnection& connection, const Statement& statement);

// Executes `update`, an UPDATE that stands for setting fields of the rows `select` finds, and
// fails like a field write into an empty result set when there is no such row. `select` runs
// only when the driver reports no changed row, since some drivers count changed rows rather
// than matched ones.
bool UpdateSelectedRows(DbConnection& connection, const Statement& update, const Statement& select);

// True when "SELECT COUNT(*) FROM <table> WHERE <column> = '<value>'" (followed by
// " AND <extra>" when `extra` is not empty) counts at least one row. Uses the caller's
// connection.
bool DBIsItemInTable(DbConnection& connection, std::string_view table, std::string_view column,
                     std::string_view value, const Statement& extra = Statement());

}  // namespace kalvo
