// The server's tables and the operations that create, drop, upgrade and check them. Column
// types come from the Database settings (StringType, StringMaxSize, NumberType, BLOBType),
// so the same statements serve every engine behind ODBC.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "db/connection.h"

namespace kalvo {

// Completeness of one table or of the whole database.
enum class TableState : int32_t {
  kUpToDate = 1,
  kConnectFailed = 2,
  kNoTables = 3,
  kTableMissing = 4,
  kColumnMissing = 5,
  kDataMissing = 6,
};

// "UpToDate", "ConnectFailed", "NoTables", "TableMissing", "ColumnMissing", "DataMissing";
// "Unknown" for any other value.
std::string_view TableStateName(TableState state);

// The GUID of the default group that every new token joins.
inline constexpr std::string_view kEveryoneGroupGuid = "2C39BFC3-7130-4937-B329-6C0863EC8375";

// Name of the table with index 1-13 ("tbl_kdx_token" for 4), "" for any other index.
std::string TableName(int index);

// The CREATE TABLE statement of table `index` with the type words of `settings`, or ""
// for an index outside 1-13.
std::string CreateTableStatement(int index, const DatabaseSettings& settings);

// Creates table `index` (1-13); the result of the execution (an index outside 1-13
// executes an empty statement, which fails).
bool DBCreateTable(DbConnection& connection, int index, const DatabaseSettings& settings);

// True when "SELECT * FROM <table>" executes.
bool DBProbeTable(DbConnection& connection, int index);

// Drops table `index`; true when it is absent afterwards, also when it was absent before.
bool DBDropTable(DbConnection& connection, int index);

// Looks up a text of the language file by section and key ("" when missing).
using LanguageLookup = std::function<std::string(std::string_view section, std::string_view key)>;

// What DBConfigDatabase needs from outside the database layer.
struct ConfigDatabaseHooks {
  // Decrypts a stored credential (user, password); given the cipher text.
  std::function<std::string(std::string_view)> decrypt;
  // Name and description of the default group (DLG_GROUP_PROPERTIES, GROUP_EVERYONE and
  // GROUP_EVERYONE_DESCRIPTION).
  LanguageLookup language;
  // Persists the new settings after a fully successful configuration; may be empty.
  std::function<void(const DatabaseSettings&)> store;
};

// Creates all tables, the default group row and the lookup indexes on an open connection;
// the number of failed steps (0-20; the indexes are not counted).
int32_t DBCreateAllTables(DbConnection& connection, const DatabaseSettings& settings,
                          const LanguageLookup& language);

// Creates the lookup indexes on token GUIDs (token, membership, backup, job member and job
// state tables) and on the audit log's time stamp and token GUID, where they are missing.
// Failures are logged and otherwise ignored: no result counts them and the table-state check
// does not look at indexes.
void DBCreateIndexes(DbConnection& connection);

// Drops tables 4-13; the number of drops that failed (0-10).
int32_t DBDropAllTables(DbConnection& connection);

// Adds what is missing to an existing schema: missing tables are created, missing
// columns and lookup indexes added. Gives the result of the last step performed (0 success, 1
// failure).
int32_t DBUpgradeTables(DbConnection& connection, const DatabaseSettings& settings);

// Configures the database from `parameters`: nine or more fields separated by the NUL
// character: DSN, encrypted user, encrypted password, StringType, StringMaxSize,
// NumberType, BLOBType, BLOBMaxSize (and more, ignored). `mode` 1 creates all tables and
// the default group, 2 upgrades, 3 drops all tables, 4 drops and then creates. Gives 0 on
// success (then the settings are put into `database` and handed to hooks.store), a count of
// failed steps, the drop count + 100 when mode 4's drop failed, -1 when the connect failed,
// -2 for fewer than nine fields, -3 when a field could not be read (for example a size that
// is not a number). Other modes do nothing and give 0. Never throws.
int32_t DBConfigDatabase(Database& database, std::string_view parameters, int32_t mode,
                         const ConfigDatabaseHooks& hooks);

// Makes sure `column` exists in table `index` (4-13): true when "SELECT column[, other]
// FROM table" executes or "ALTER TABLE table ADD column type[(size)]" succeeds; a failing
// ALTER is recorded as the last error and logged with the source DBAddColumnIfNotExisting.
bool DBAddColumnIfNotExisting(DbConnection& connection, int index, std::string_view column,
                              std::string_view type, int32_t size, std::string_view other);

// The state of table number `number` (1-10 for the tables 4-13): kTableMissing,
// kColumnMissing, kDataMissing (default group row absent) or kUpToDate. Logs the finding.
TableState DBGetTableState(DbConnection& connection, int number);

// Connects with the Database settings and checks all ten tables: kConnectFailed, kNoTables,
// kTableMissing, kColumnMissing, kDataMissing or kUpToDate, decided in that order. Logs the
// finding as "DBIsDatabaseUpToDate -> <name>".
TableState DBIsDatabaseUpToDate(Database& database);

// For a configuration check outside the server: the state of the database that `settings`
// name, checked through `env` and logged to `log`.
TableState CheckDatabaseState(OdbcEnvironment& env, Log& log, const DatabaseSettings& settings);

}  // namespace kalvo
