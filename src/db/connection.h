// Connecting, executing one SQL text and turning a result set into delimited text: the
// layer every other database operation goes through. Each operation writes its log line
// ("<name> (OK)" or "<name> (Error)") and reports failure by its result, never by throwing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "db/database.h"
#include "db/dialect.h"
#include "db/odbc_handles.h"
#include "db/statement.h"

namespace kalvo {

// Thrown by DBExecuteSQLCommand, on a connection that asked for it (set_reconnect_when_dead),
// when the connection's first statement failed because the connection was dead and the
// statement cannot have changed anything: the operation may start again on a fresh one.
class DeadConnection : public OdbcError {
 public:
  using OdbcError::OdbcError;
};

// The longest data source name, user and password that a connect passes on. The driver
// manager refuses longer data source names itself; a user or password of 128 characters or
// more would overrun the fixed buffers that its connection pool copies them into.
inline constexpr size_t kMaxDsnLength = SQL_MAX_DSN_LENGTH;
inline constexpr size_t kMaxLoginLength = 127;

// Nothing when `dsn`, `user` and `password` fit the limits above; otherwise a text that names
// the first one too long and its length (never its content).
std::optional<std::string> ConnectAttributeProblem(std::string_view dsn, std::string_view user,
                                                   std::string_view password);

// One open (or not yet opened) database connection. Created per operation; the Database
// must outlive it. Destroying a connected one closes it: a healthy connection stays open in
// the environment for the next operation with the same settings (see OdbcEnvironment). The
// Database settings' timeout_seconds limits the login and every statement (see StallGuard for a
// server that stops answering altogether).
class DbConnection {
 public:
  explicit DbConnection(Database& database) : database_(&database) {}
  ~DbConnection() { Close(); }
  DbConnection(const DbConnection&) = delete;
  DbConnection& operator=(const DbConnection&) = delete;

  Database& database() const { return *database_; }
  bool is_open() const { return static_cast<bool>(dbc_); }
  SQLHDBC handle() const { return dbc_.get(); }
  // The engine's dialect, from the DBMS name the driver reported at connect.
  Dialect dialect() const { return dialect_; }

  // Opens with SQLConnect, or takes a connection that an earlier one with the same data source,
  // user and password left open (unless set_fresh asked for a new one); throws OdbcError, also
  // when ConnectAttributeProblem finds a text too long. Closes a previous connection first. A
  // connection that the driver reports dead (SQL_ATTR_CONNECTION_DEAD) is discarded and
  // replaced by a new one.
  void Open(std::string_view dsn, std::string_view user, std::string_view password);
  // Closes it (a transaction still open is rolled back; the connection stays open in the
  // environment for the next operation, unless it failed: then it is discarded); a closed
  // connection stays closed. Never throws.
  void Close() noexcept;

  // Marks the connection as failed (a communication failure or time limit): Close discards it,
  // and with it the other connections the environment keeps for the same settings.
  void MarkBroken() { broken_ = true; }
  bool broken() const { return broken_; }
  // Statements executed (or tried) since Open.
  int statements_tried() const { return statements_tried_; }
  void CountStatement() { ++statements_tried_; }
  // See DeadConnection; off unless an operation frame that can start again turns it on.
  void set_reconnect_when_dead(bool on) { reconnect_when_dead_ = on; }
  bool reconnect_when_dead() const { return reconnect_when_dead_; }
  // With `on`, the next Open makes a new physical connection and takes none that was left
  // open: the frame that starts an operation again after a dead connection asks for it.
  void set_fresh(bool on) { fresh_ = on; }

  // Transactions (see Transaction): statements executed between Begin and End are one unit.
  // BeginTransaction throws OdbcError; EndTransaction returns false when the driver refused
  // (a failed commit leaves nothing written) and always returns to autocommit.
  void BeginTransaction();
  bool EndTransaction(bool commit, std::string* error = nullptr) noexcept;
  bool in_transaction() const { return in_transaction_; }
  // Called for every statement that failed; one that fails inside a transaction spoils it
  // (PostgreSQL refuses every later statement of it anyway), so its commit rolls back.
  void NoteFailedStatement() { transaction_failed_ = transaction_failed_ || in_transaction_; }
  bool transaction_failed() const { return transaction_failed_; }

 private:
  Database* database_;
  DbcHandle dbc_;
  std::string key_;  // ConnectionKey of the open connection
  Dialect dialect_ = Dialect::kOther;
  bool broken_ = false;
  bool reconnect_when_dead_ = false;
  bool fresh_ = false;
  bool in_transaction_ = false;
  bool transaction_failed_ = false;
  int statements_tried_ = 0;
};

// Makes the statements that an operation executes on `connection` from now on one unit: a crash
// or a failure before Commit leaves the database as it was before them. Destroying an
// uncommitted one (an early return or an exception) rolls back. The connection must outlive
// it and must not start another one meanwhile.
class Transaction {
 public:
  // Starts it; throws OdbcError when the connection cannot.
  explicit Transaction(DbConnection& connection);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  // Makes the statements permanent. False, with nothing of the unit left, when a statement of
  // it failed or the commit itself fails; the latter is logged with the driver's error under
  // `operation` (the name of the operation that commits) and "Commit (Error)".
  bool Commit(std::string_view operation);

 private:
  DbConnection& connection_;
  bool done_ = false;
};

// The rows of one executed statement, fetched completely at execution. A statement that
// yields no rows to fetch (INSERT, UPDATE, DDL) gives a result set that is not open. Every
// value is fetched as text (Windows-1252 bytes), except columns of a binary SQL type, whose
// bytes come unchanged; NULL is std::nullopt.
struct RecordSet {
  bool open = false;
  std::vector<std::string> column_names;
  std::vector<bool> column_is_binary;
  std::vector<std::vector<std::optional<std::string>>> rows;
  // Rows an UPDATE, INSERT or DELETE changed, as the driver counts them; -1 when unknown.
  int64_t rows_affected = -1;

  // True when there is no row (the end of the set at once).
  bool Eof() const { return rows.empty(); }
  // Index of the column named `name` (case-insensitive), -1 when there is none.
  int ColumnIndex(std::string_view name) const;
  // The value of column `name` in row `row`; std::nullopt for NULL, a missing column or
  // a missing row.
  std::optional<std::string> Field(size_t row, std::string_view name) const;
};

// Opens `connection` with `dsn`, `user` and `password`. Logs "DBConnect (OK)" and returns
// true, or logs the driver's error and "DBConnect (Error)" and returns false.
bool DBConnect(DbConnection& connection, std::string_view dsn, std::string_view user,
               std::string_view password);
// The same with the DSN, user and password of the connection's Database settings.
bool DBConnect(DbConnection& connection);

// The same as DBConnect(connection), for callers that report the failure themselves: nothing
// when it connected, else the driver's message.
std::optional<std::string> DBConnectProblem(DbConnection& connection);

// Closes the connection; logs "DBDisconnect (OK)" and returns true.
bool DBDisconnect(DbConnection& connection);

// Executes `statement` (adapted to the engine's dialect, see AdaptStatement; the log shows the
// text as built) with its bound values and fetches its rows into `result`. Logs
// "DBExecuteSQLCommand (OK) {<sql>}" and returns true. On failure stores the native error code
// and message as the Database's last error, writes an error entry with them, the source
// "DBExecuteSQLCommand" and the SQL, logs "DBExecuteSQLCommand (Error) {<sql>}", leaves `result`
// unset (not open) and returns false. A statement that Statement::Problem refuses fails the
// same way (error kErrStatementRefused, the problem as its message) without reaching the
// database. After the logging, throws DeadConnection instead of returning false where the
// connection asked for it (see DbConnection::set_reconnect_when_dead). At most `max_rows` rows are
// fetched (0 for a probe that only asks whether the statement runs: `result` then has its columns
// but no rows).
bool DBExecuteSQLCommand(DbConnection& connection, const Statement& statement, RecordSet& result,
                         size_t max_rows = SIZE_MAX);

// Connects to `dsn` with `user` and `password` and disconnects again. Logs
// "DBCheckConnection (OK)" and returns true, or logs the error -1 "Verbindung
// fehlgeschlagen" and "DBCheckConnection (Error)" and returns false.
bool DBCheckConnection(Database& database, std::string_view dsn, std::string_view user,
                       std::string_view password);

// The result set as text: each row's values joined by `column_delimiter`, each row followed
// by `row_delimiter`, NULL as "". With `trim`, leading and trailing blanks of the whole
// text are removed; with `strip_last`, one trailing row delimiter is removed. Logs
// "DBGetStringFromRecordSet (OK)". A set without rows (or not open) is an error: logged with
// "DBGetStringFromRecordSet (Error)", result "". Callers test Eof() first.
std::string DBGetStringFromRecordSet(Database& database, const RecordSet& result,
                                     std::string_view column_delimiter,
                                     std::string_view row_delimiter, bool trim, bool strip_last);

// The text of DBGetStringFromRecordSet split at the row delimiter: one element per row
// (columns still joined), plus an empty last element when the delimiter was not stripped.
// Logs "DBGetArrayFromRecordSet (OK)" / "(Error)"; empty on error.
std::vector<std::string> DBGetArrayFromRecordSet(Database& database, const RecordSet& result,
                                                 std::string_view column_delimiter,
                                                 std::string_view row_delimiter, bool trim,
                                                 bool strip_last);

// The text of DBGetStringFromRecordSet as a matrix indexed [row][column]: rows split at the
// row delimiter, each row split at the column delimiter; every row ends up with the column
// count of the last row. Logs "DBGetMatrixFromRecordSet (OK)" / "(Error)"; empty on error.
std::vector<std::vector<std::string>> DBGetMatrixFromRecordSet(Database& database,
                                                               const RecordSet& result,
                                                               std::string_view column_delimiter,
                                                               std::string_view row_delimiter,
                                                               bool trim, bool strip_last);

// The text that every operation logs when its own connect failed.
inline constexpr std::string_view kConnectFailedText =
    "Verbindungsherstellung zur Datenbank nicht erfolgreich";
// The variant with "!" used by the configuration and a few other operations.
inline constexpr std::string_view kConnectFailedTextBang =
    "Verbindungsherstellung zur Datenbank nicht erfolgreich!";

}  // namespace kalvo
