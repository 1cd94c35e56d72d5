#include "db/connection.h"

#include <chrono>

#include "infra/arrays.h"
#include "infra/log.h"
#include "infra/runtime_error.h"
#include "infra/strings.h"

namespace kalvo {
namespace {

// Raised by the text conversions when asked for a set without rows; the handler logs it.
constexpr int32_t kErrNoCurrentRow = 3021;

// How long past the time limit the stall guard waits before it cuts the connections: where a
// driver's own limit works (a slow statement on a server that still answers), it answers
// first and the connections stay usable.
constexpr std::chrono::milliseconds kStallGrace{500};

// Runs `call` (ODBC calls that may wait for the server) under the environment's stall guard
// when `seconds` is positive. A call the guard had to cut off fails with HYT00 whatever the
// driver made of the cut connection; the connection is marked broken then.
template <typename Call>
auto GuardedCall(DbConnection* connection, OdbcEnvironment& env, int32_t seconds,
                 std::string_view what, Call&& call) {
  if (seconds <= 0) return call();
  StallGuard& guard = env.stall_guard();
  const uint64_t ticket = guard.Arm(std::chrono::seconds(seconds) + kStallGrace);
  auto timed_out = [&] {
    if (connection != nullptr) connection->MarkBroken();
    return OdbcError(0, "HYT00",
                     std::string(what) + ": the database did not answer within " +
                         std::to_string(seconds) + " s");
  };
  try {
    auto result = call();
    if (guard.Disarm(ticket)) {
      // Done just as the connections were cut: the result stands, the connection does not.
      if (connection != nullptr) connection->MarkBroken();
    }
    return result;
  } catch (const OdbcError&) {
    if (guard.Disarm(ticket)) throw timed_out();
    throw;
  } catch (...) {
    guard.Disarm(ticket);
    throw;
  }
}

// True for a statement that only reads: running it twice cannot change anything.
bool OnlyReads(std::string_view sql) {
  const size_t start = sql.find_first_not_of(" \t\r\n(");
  return start != std::string_view::npos && sql.size() - start > 6 &&
         EqualsNoCase(sql.substr(start, 6), "SELECT") &&
         std::string_view(" \t\r\n*").find(sql[start + 6]) != std::string_view::npos;
}

bool IsBinaryType(SQLSMALLINT type) {
  return type == SQL_BINARY || type == SQL_VARBINARY || type == SQL_LONGVARBINARY;
}

// Reads one column of the current row in chunks, as bytes (binary) or as text (without
// the driver's terminating NUL). NULL gives std::nullopt.
std::optional<std::string> ReadColumn(SQLHSTMT stmt, SQLUSMALLINT column, bool binary) {
  const SQLSMALLINT c_type = binary ? SQL_C_BINARY : SQL_C_CHAR;
  const size_t terminator = binary ? 0 : 1;
  char chunk[8192];
  std::string value;
  for (;;) {
    SQLLEN indicator = 0;
    const SQLRETURN rc = SQLGetData(stmt, column, c_type, chunk, sizeof chunk, &indicator);
    if (rc == SQL_NO_DATA) break;
    CheckOdbc(rc, SQL_HANDLE_STMT, stmt, "SQLGetData");
    if (indicator == SQL_NULL_DATA) return std::nullopt;
    const size_t room = sizeof chunk - terminator;
    if (indicator != SQL_NO_TOTAL && static_cast<size_t>(indicator) <= room) {
      value.append(chunk, static_cast<size_t>(indicator));
      break;
    }
    value.append(chunk, room);
    if (indicator != SQL_NO_TOTAL) {
      // The driver told the remaining length: fetch all of it in one call.
      const size_t rest = static_cast<size_t>(indicator) - room;
      const size_t before = value.size();
      value.resize(before + rest + terminator);
      SQLLEN rest_indicator = 0;
      const SQLRETURN rc2 = SQLGetData(stmt, column, c_type, value.data() + before,
                                       static_cast<SQLLEN>(rest + terminator), &rest_indicator);
      CheckOdbc(rc2, SQL_HANDLE_STMT, stmt, "SQLGetData");
      value.resize(before + rest);
      break;
    }
  }
  return value;
}

void FetchAll(SQLHSTMT stmt, RecordSet& result, size_t max_rows) {
  SQLSMALLINT columns = 0;
  CheckOdbc(SQLNumResultCols(stmt, &columns), SQL_HANDLE_STMT, stmt, "SQLNumResultCols");
  if (columns <= 0) return;
  result.open = true;
  for (SQLUSMALLINT c = 1; c <= static_cast<SQLUSMALLINT>(columns); ++c) {
    SQLCHAR name[256] = {};
    SQLSMALLINT name_length = 0, type = 0, digits = 0, nullable = 0;
    SQLULEN size = 0;
    CheckOdbc(
        SQLDescribeCol(stmt, c, name, sizeof name, &name_length, &type, &size, &digits, &nullable),
        SQL_HANDLE_STMT, stmt, "SQLDescribeCol");
    result.column_names.emplace_back(reinterpret_cast<const char*>(name));
    result.column_is_binary.push_back(IsBinaryType(type));
  }
  while (result.rows.size() < max_rows) {
    const SQLRETURN rc = SQLFetch(stmt);
    if (rc == SQL_NO_DATA) break;
    CheckOdbc(rc, SQL_HANDLE_STMT, stmt, "SQLFetch");
    auto& row = result.rows.emplace_back();
    row.reserve(static_cast<size_t>(columns));
    for (SQLUSMALLINT c = 1; c <= static_cast<SQLUSMALLINT>(columns); ++c) {
      row.push_back(ReadColumn(stmt, c, result.column_is_binary[c - 1]));
    }
  }
}

// Binds the statement's values to its "?" markers, in order. `lengths` must hold one entry per
// value and outlive the execution.
void BindValues(SQLHSTMT stmt, const Statement& statement, Dialect dialect,
                std::vector<SQLLEN>& lengths) {
  static const char kNoBytes = 0;
  const std::vector<BoundValue>& values = statement.bound();
  for (size_t i = 0; i < values.size(); ++i) {
    const BoundValue& v = values[i];
    const auto marker = static_cast<SQLUSMALLINT>(i + 1);
    SQLRETURN rc;
    if (v.kind == BoundValue::Kind::kNumber) {
      lengths[i] = 0;
      rc = SQLBindParameter(stmt, marker, SQL_PARAM_INPUT, SQL_C_SLONG, SQL_INTEGER, 0, 0,
                            const_cast<int32_t*>(&v.number), 0, nullptr);
    } else {
      // SQLite never finds an empty blob equal to '' (the way the tables' queries test for an
      // empty binary column), while an empty text is; other engines see no difference.
      const bool binary =
          v.kind == BoundValue::Kind::kBinary && !(v.bytes.empty() && dialect == Dialect::kSqlite);
      lengths[i] = static_cast<SQLLEN>(v.bytes.size());
      // PostgreSQL's driver takes LONGVARBINARY parameters as large objects; VARBINARY is its
      // bytea. The others take the long types for data of any length.
      const bool pg = dialect == Dialect::kPostgreSql;
      const SQLSMALLINT sql_type =
          binary ? (pg ? SQL_VARBINARY : SQL_LONGVARBINARY) : (pg ? SQL_VARCHAR : SQL_LONGVARCHAR);
      // Empty bytes are an empty value, not NULL: the driver still needs a buffer.
      const void* data = v.bytes.empty() ? &kNoBytes : v.bytes.data();
      rc = SQLBindParameter(stmt, marker, SQL_PARAM_INPUT, binary ? SQL_C_BINARY : SQL_C_CHAR,
                            sql_type, v.bytes.empty() ? 1 : v.bytes.size(), 0,
                            const_cast<void*>(data), lengths[i], &lengths[i]);
    }
    CheckOdbc(rc, SQL_HANDLE_STMT, stmt, "SQLBindParameter");
  }
}

// Executes `statement` and fetches the rows. Throws OdbcError.
RecordSet Execute(DbConnection& connection, const Statement& statement, size_t max_rows) {
  if (!connection.is_open()) throw OdbcError(0, "08003", "Connection not open");
  StmtHandle stmt = AllocateHandle<SQL_HANDLE_STMT>(SQL_HANDLE_DBC, connection.handle());
  std::string text = AdaptStatement(statement.text(), connection.dialect());
  std::vector<SQLLEN> lengths(statement.bound().size());
  BindValues(stmt.get(), statement, connection.dialect(), lengths);
  const int32_t seconds = connection.database().settings().timeout_seconds;
  if (seconds > 0) {
    // Where the driver has no query limit it says so with a warning or an error; the stall
    // guard still applies.
    SQLSetStmtAttr(stmt.get(), SQL_ATTR_QUERY_TIMEOUT,
                   reinterpret_cast<SQLPOINTER>(static_cast<SQLULEN>(seconds)), 0);
  }
  return GuardedCall(&connection, connection.database().env(), seconds, "SQLExecDirect", [&] {
    const SQLRETURN rc = SQLExecDirect(stmt.get(), reinterpret_cast<SQLCHAR*>(text.data()),
                                       static_cast<SQLINTEGER>(text.size()));
    RecordSet result;
    if (rc == SQL_NO_DATA) {  // a searched UPDATE or DELETE that hit no row
      result.rows_affected = 0;
      return result;
    }
    CheckOdbc(rc, SQL_HANDLE_STMT, stmt.get(), "SQLExecDirect");
    SQLLEN affected = -1;
    if (OdbcSucceeded(SQLRowCount(stmt.get(), &affected))) result.rows_affected = affected;
    FetchAll(stmt.get(), result, max_rows);
    return result;
  });
}

bool ExecuteLogged(DbConnection& connection, const Statement& statement, RecordSet& result,
                   size_t max_rows) {
  Database& db = connection.database();
  const std::string& sql = statement.text();
  const std::string braces = "{" + sql + "}";
  result = RecordSet{};
  bool retry_elsewhere = false;
  try {
    if (auto problem = statement.Problem(connection.dialect())) {
      throw OdbcError(kErrStatementRefused, "42000", *problem);
    }
    const bool first = connection.statements_tried() == 0;
    connection.CountStatement();
    try {
      result = Execute(connection, statement, max_rows);
    } catch (const OdbcError& e) {
      if (IsCommunicationFailure(e.sql_state())) {
        connection.MarkBroken();
        // A kept or pooled connection whose server went away shows only here: the driver
        // learns of the end only when it sends. The drivers cannot say whether the statement
        // reached the server before the connection ended, so the operation starts again only
        // when that would not matter: nothing ran before, and this statement only reads or
        // runs inside a transaction (nothing is permanent before its commit). A time limit is
        // no dead connection but a server that does not answer; another connection would only
        // wait as long again.
        const bool timed_out = e.sql_state() == "HYT00" || e.sql_state() == "HYT01";
        retry_elsewhere = first && !timed_out && connection.reconnect_when_dead() &&
                          (OnlyReads(sql) || connection.in_transaction());
      }
      throw;
    }
    db.log().WriteLog("DBExecuteSQLCommand (OK) " + braces);
    return true;
  } catch (const OdbcError& e) {
    db.SetLastError(e.native_code(), e.what());
  } catch (...) {
    const ErrorInfo error = CurrentErrorInfo();
    db.SetLastError(error.number, error.description);
  }
  result = RecordSet{};
  connection.NoteFailedStatement();
  db.log().LogError(db.last_error_number(), db.last_error_description(), "DBExecuteSQLCommand",
                    sql);
  db.log().WriteLog("DBExecuteSQLCommand (Error) " + braces);
  if (retry_elsewhere) {
    throw DeadConnection(db.last_error_number(), "08S01", db.last_error_description());
  }
  return false;
}

std::string RecordSetText(const RecordSet& result, std::string_view column_delimiter,
                          std::string_view row_delimiter, bool trim, bool strip_last) {
  if (!result.open || result.rows.empty()) {
    throw RuntimeError(kErrNoCurrentRow, "The result set holds no current row");
  }
  std::string text;
  for (const auto& row : result.rows) {
    for (size_t c = 0; c < row.size(); ++c) {
      if (c > 0) text += column_delimiter;
      if (row[c]) text += *row[c];
    }
    text += row_delimiter;
  }
  if (trim) {
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) {
      text.clear();
    } else {
      text.erase(text.find_last_not_of(' ') + 1);
      text.erase(0, first);
    }
  }
  if (strip_last && !row_delimiter.empty() && text.ends_with(row_delimiter)) {
    text.erase(text.size() - row_delimiter.size());
  }
  return text;
}

}  // namespace

int RecordSet::ColumnIndex(std::string_view name) const {
  for (size_t i = 0; i < column_names.size(); ++i) {
    if (EqualsNoCase(column_names[i], name)) return static_cast<int>(i);
  }
  return -1;
}

std::optional<std::string> RecordSet::Field(size_t row, std::string_view name) const {
  const int column = ColumnIndex(name);
  if (column < 0 || row >= rows.size()) return std::nullopt;
  return rows[row][static_cast<size_t>(column)];
}

std::optional<std::string> ConnectAttributeProblem(std::string_view dsn, std::string_view user,
                                                   std::string_view password) {
  const struct {
    std::string_view name, value;
    size_t limit;
  } fields[] = {{"data source name", dsn, kMaxDsnLength},
                {"user", user, kMaxLoginLength},
                {"password", password, kMaxLoginLength}};
  for (const auto& f : fields) {
    if (f.value.size() > f.limit) {
      return "The " + std::string(f.name) + " is " + std::to_string(f.value.size()) +
             " characters long; at most " + std::to_string(f.limit) + " are accepted";
    }
  }
  return std::nullopt;
}

namespace {

// Several workers share one SQLite file. In WAL mode readers neither wait for a writer nor
// make it wait, and the busy timeout makes a second writer wait for the first instead of
// failing with "database is locked": as long as the time limit of a statement, since waiting
// longer could not help it. The timeout belongs to the connection (WAL to the file as well),
// so both are set on every new physical connection, whatever the data source says. Where
// they cannot be set (a read-only file) the driver's defaults stay; nothing is logged, as
// the connection works without them.
void PrepareSqlite(DbConnection& connection) noexcept {
  const int32_t seconds = connection.database().settings().timeout_seconds;
  const int64_t milliseconds = seconds > 0 ? int64_t{seconds} * 1000 : 5000;
  for (const Statement& pragma : {Statement("PRAGMA journal_mode=WAL"),
                                  Statement("PRAGMA busy_timeout=").Number(milliseconds)}) {
    try {
      Execute(connection, pragma, SIZE_MAX);
    } catch (...) {
    }
  }
}

}  // namespace

void DbConnection::Close() noexcept {
  if (!dbc_) return;
  if (in_transaction_) EndTransaction(false);
  OdbcEnvironment& env = database_->env();
  if (broken_) {
    env.DiscardConnectionHandle(std::move(dbc_));
    env.DiscardOpen(key_);
  } else {
    env.KeepOpen(std::move(key_), std::move(dbc_));
  }
  key_.clear();
}

void DbConnection::Open(std::string_view dsn, std::string_view user, std::string_view password) {
  Close();
  broken_ = false;
  statements_tried_ = 0;
  if (auto problem = ConnectAttributeProblem(dsn, user, password)) {
    throw OdbcError(0, "HY090", *problem);
  }
  OdbcEnvironment& env = database_->env();
  std::string key = ConnectionKey(dsn, user, password);
  const bool fresh = fresh_;
  fresh_ = false;
  const int32_t seconds = database_->settings().timeout_seconds;
  std::string d(dsn), u(user), p(password);
  for (int attempt = 0;; ++attempt) {
    DbcHandle dbc;
    if (!fresh) dbc = env.TakeOpen(key);
    const bool kept = static_cast<bool>(dbc);
    if (!kept) {
      dbc = env.AcquireConnectionHandle();
      if (seconds > 0) {
        const auto limit = reinterpret_cast<SQLPOINTER>(static_cast<SQLULEN>(seconds));
        SQLSetConnectAttr(dbc.get(), SQL_ATTR_LOGIN_TIMEOUT, limit, 0);
        SQLSetConnectAttr(dbc.get(), SQL_ATTR_CONNECTION_TIMEOUT, limit, 0);
      }
      const StallGuard::FdWindow before = StallGuard::Snapshot();
      try {
        GuardedCall(nullptr, env, seconds, "SQLConnect", [&] {
          const SQLRETURN r = SQLConnect(dbc.get(), reinterpret_cast<SQLCHAR*>(d.data()), SQL_NTS,
                                         reinterpret_cast<SQLCHAR*>(u.data()), SQL_NTS,
                                         reinterpret_cast<SQLCHAR*>(p.data()), SQL_NTS);
          CheckOdbc(r, SQL_HANDLE_DBC, dbc.get(), "SQLConnect");
          return r;
        });
      } catch (...) {
        // A handle that never connected holds nothing to keep out of use.
        env.ReleaseConnectionHandle(std::move(dbc));
        throw;
      }
      env.stall_guard().NoteNewSockets(before);
    }
    // The driver manager hands out pooled connections without trying them, and a kept one
    // may have ended since; where the driver already knows one is dead, it is not worth a
    // statement.
    SQLUINTEGER dead = SQL_CD_FALSE;
    if (OdbcSucceeded(SQLGetConnectAttr(dbc.get(), SQL_ATTR_CONNECTION_DEAD, &dead, 0, nullptr)) &&
        dead == SQL_CD_TRUE) {
      env.DiscardConnectionHandle(std::move(dbc));
      if (kept || attempt == 0) continue;
      throw OdbcError(0, "08S01", "The database connection is dead");
    }
    char name[128] = {};
    SQLSMALLINT length = 0;
    if (OdbcSucceeded(SQLGetInfo(dbc.get(), SQL_DBMS_NAME, name, sizeof name, &length))) {
      dialect_ = DialectFromDbmsName(name);
    } else {
      dialect_ = Dialect::kOther;
    }
    dbc_ = std::move(dbc);
    key_ = std::move(key);
    if (!kept && dialect_ == Dialect::kSqlite) PrepareSqlite(*this);
    return;
  }
}

void DbConnection::BeginTransaction() {
  if (!is_open()) throw OdbcError(0, "08003", "Connection not open");
  CheckOdbc(SQLSetConnectAttr(dbc_.get(), SQL_ATTR_AUTOCOMMIT,
                              reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_OFF), SQL_IS_UINTEGER),
            SQL_HANDLE_DBC, dbc_.get(), "SQLSetConnectAttr");
  in_transaction_ = true;
  transaction_failed_ = false;
}

bool DbConnection::EndTransaction(bool commit, std::string* error) noexcept {
  if (!in_transaction_ || !dbc_) return false;
  in_transaction_ = false;
  bool ok = false;
  try {
    const int32_t seconds = database_->settings().timeout_seconds;
    GuardedCall(this, database_->env(), seconds, "SQLEndTran", [&] {
      const SQLRETURN rc =
          SQLEndTran(SQL_HANDLE_DBC, dbc_.get(), commit ? SQL_COMMIT : SQL_ROLLBACK);
      CheckOdbc(rc, SQL_HANDLE_DBC, dbc_.get(), "SQLEndTran");
      return rc;
    });
    ok = true;
  } catch (const std::exception& e) {
    if (error != nullptr) *error = e.what();
    // A commit that failed leaves the transaction to be rolled back.
    if (commit) SQLEndTran(SQL_HANDLE_DBC, dbc_.get(), SQL_ROLLBACK);
  } catch (...) {
  }
  // A connection that cannot return to autocommit would carry the unit into the next
  // operation: it is not used again.
  if (!OdbcSucceeded(SQLSetConnectAttr(dbc_.get(), SQL_ATTR_AUTOCOMMIT,
                                       reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_ON),
                                       SQL_IS_UINTEGER))) {
    broken_ = true;
  }
  return ok;
}

Transaction::Transaction(DbConnection& connection) : connection_(connection) {
  connection_.BeginTransaction();
}

Transaction::~Transaction() {
  if (!done_) connection_.EndTransaction(false);
}

bool Transaction::Commit(std::string_view operation) {
  done_ = true;
  if (connection_.transaction_failed()) {
    // The failed statement is logged already; what it spoilt goes with it.
    connection_.EndTransaction(false);
    return false;
  }
  std::string error;
  if (connection_.EndTransaction(true, &error)) return true;
  Log& log = connection_.database().log();
  log.LogError(0, error.empty() ? "The transaction could not be committed" : error, operation);
  log.WriteLog("Commit (Error)");
  return false;
}

bool DBConnect(DbConnection& connection, std::string_view dsn, std::string_view user,
               std::string_view password) {
  Log& log = connection.database().log();
  try {
    connection.Open(dsn, user, password);
    log.WriteLog("DBConnect (OK)");
    return true;
  } catch (const OdbcError& e) {
    log.LogError(e.native_code(), e.what(), "DBConnect");
  } catch (...) {
    LogCurrentException(log, "DBConnect");
  }
  log.WriteLog("DBConnect (Error)");
  return false;
}

bool DBConnect(DbConnection& connection) {
  const DatabaseSettings& s = connection.database().settings();
  return DBConnect(connection, s.dsn, s.user, s.password);
}

std::optional<std::string> DBConnectProblem(DbConnection& connection) {
  const DatabaseSettings& s = connection.database().settings();
  Log& log = connection.database().log();
  try {
    connection.Open(s.dsn, s.user, s.password);
    log.WriteLog("DBConnect (OK)");
    return std::nullopt;
  } catch (const std::exception& e) {
    log.LogError(0, e.what(), "DBConnect");
    return std::string(e.what());
  }
}

bool DBDisconnect(DbConnection& connection) {
  connection.Close();
  connection.database().log().WriteLog("DBDisconnect (OK)");
  return true;
}

bool DBExecuteSQLCommand(DbConnection& connection, const Statement& statement, RecordSet& result,
                         size_t max_rows) {
  return ExecuteLogged(connection, statement, result, max_rows);
}

bool DBCheckConnection(Database& database, std::string_view dsn, std::string_view user,
                       std::string_view password) {
  try {
    DbConnection connection(database);
    if (DBConnect(connection, dsn, user, password)) {
      DBDisconnect(connection);
      database.log().WriteLog("DBCheckConnection (OK)");
      return true;
    }
    database.log().LogError(-1, "Verbindung fehlgeschlagen", "DBCheckConnection");
  } catch (...) {
    LogCurrentException(database.log(), "DBCheckConnection");
  }
  database.log().WriteLog("DBCheckConnection (Error)");
  return false;
}

std::string DBGetStringFromRecordSet(Database& database, const RecordSet& result,
                                     std::string_view column_delimiter,
                                     std::string_view row_delimiter, bool trim, bool strip_last) {
  try {
    std::string text = RecordSetText(result, column_delimiter, row_delimiter, trim, strip_last);
    database.log().WriteLog("DBGetStringFromRecordSet (OK)");
    return text;
  } catch (...) {
    LogCurrentException(database.log(), "DBGetStringFromRecordSet");
  }
  database.log().WriteLog("DBGetStringFromRecordSet (Error)");
  return "";
}

std::vector<std::string> DBGetArrayFromRecordSet(Database& database, const RecordSet& result,
                                                 std::string_view column_delimiter,
                                                 std::string_view row_delimiter, bool trim,
                                                 bool strip_last) {
  try {
    std::vector<std::string> rows = Split(
        RecordSetText(result, column_delimiter, row_delimiter, trim, strip_last), row_delimiter);
    database.log().WriteLog("DBGetArrayFromRecordSet (OK)");
    return rows;
  } catch (...) {
    LogCurrentException(database.log(), "DBGetArrayFromRecordSet");
  }
  database.log().WriteLog("DBGetArrayFromRecordSet (Error)");
  return {};
}

std::vector<std::vector<std::string>> DBGetMatrixFromRecordSet(Database& database,
                                                               const RecordSet& result,
                                                               std::string_view column_delimiter,
                                                               std::string_view row_delimiter,
                                                               bool trim, bool strip_last) {
  try {
    std::vector<std::vector<std::string>> matrix;
    for (const std::string& row :
         Split(RecordSetText(result, column_delimiter, row_delimiter, trim, strip_last),
               row_delimiter)) {
      // Each row sets the column count anew, keeping what is there, as a resize that
      // preserves content would. An empty row (the one after an unstripped last row
      // delimiter) has no columns and keeps the width of the rows before it.
      std::vector<std::string> columns = Split(row, column_delimiter);
      const size_t width =
          columns.empty() && !matrix.empty() ? matrix.back().size() : columns.size();
      matrix.push_back(std::move(columns));
      for (auto& r : matrix) r.resize(width);
    }
    database.log().WriteLog("DBGetMatrixFromRecordSet (OK)");
    return matrix;
  } catch (...) {
    LogCurrentException(database.log(), "DBGetMatrixFromRecordSet");
  }
  database.log().WriteLog("DBGetMatrixFromRecordSet (Error)");
  return {};
}

}  // namespace kalvo
