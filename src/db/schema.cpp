#include "db/schema.h"

#include <array>
#include <vector>

#include "db/operation.h"
#include "infra/arrays.h"
#include "infra/log.h"
#include "infra/numbers.h"
#include "infra/runtime_error.h"

namespace kalvo {
namespace {

// A column of the schema: S text (size > 0 a fixed width, kMax the StringMaxSize setting),
// N integer, B binary.
constexpr int kMax = -1;
struct Column {
  std::string_view name;
  char kind;
  int size;
};
struct Table {
  std::string_view name;
  std::vector<Column> columns;
  // BLOB columns are not counted; they are probed by this statement instead.
  std::string_view blob_probe;
};

const std::array<Table, 13>& Tables() {
  static const std::array<Table, 13> tables = {{
      {"tbl_kdx_tmp_string", {{"tmp_string", 'S', kMax}}, ""},
      {"tbl_kdx_tmp_number", {{"tmp_number", 'N', 0}}, ""},
      {"tbl_kdx_tmp_blob", {{"tmp_string", 'S', 1}, {"tmp_blob", 'B', 0}}, ""},
      {"tbl_kdx_token",
       {{"token_guid", 'S', 36},
        {"token_person", 'S', kMax},
        {"token_description", 'S', kMax},
        {"token_creation", 'S', 19},
        {"token_last_use", 'S', 19},
        {"token_last_ip", 'S', 15},
        {"token_certificate", 'B', 0},
        {"token_user_dn", 'S', kMax}},
       "SELECT token_last_ip, token_certificate FROM tbl_kdx_token"},
      {"tbl_kdx_groups",
       {{"group_guid", 'S', 36},
        {"group_name", 'S', kMax},
        {"group_description", 'S', kMax},
        {"group_abilities", 'N', 0}},
       ""},
      {"tbl_kdx_token_groups", {{"token_guid", 'S', 36}, {"group_guid", 'S', 36}}, ""},
      {"tbl_kdx_backup",
       {{"token_guid", 'S', 36},
        {"backup_name", 'S', kMax},
        {"backup_index", 'N', 0},
        {"backup_order", 'N', 0},
        {"backup_type", 'N', 0},
        {"backup_size", 'N', 0},
        {"backup_data", 'B', 0},
        {"backup_time", 'S', 19}},
       "SELECT backup_size,backup_data FROM tbl_kdx_backup"},
      {"tbl_kdx_job_properties",
       {{"action_guid", 'S', 36},
        {"action_name", 'S', kMax},
        {"action_type", 'N', 0},
        {"action_period", 'N', 0},
        {"action_priority", 'N', 0},
        {"action_first_time", 'S', 19},
        {"action_last_time", 'S', 19},
        {"action_stopped", 'N', 0}},
       ""},
      {"tbl_kdx_job_members", {{"action_guid", 'S', 36}, {"member_guid", 'S', 36}}, ""},
      {"tbl_kdx_job_data",
       {{"action_guid", 'S', 36}, {"action_data", 'B', 0}, {"action_data_order", 'N', 0}},
       "SELECT action_guid,action_data FROM tbl_kdx_job_data"},
      {"tbl_kdx_job_data_source",
       {{"action_guid", 'S', 36}, {"data_source", 'S', kMax}, {"data_source_owner", 'S', kMax}},
       ""},
      {"tbl_kdx_job_state",
       {{"action_guid", 'S', 36},
        {"token_guid", 'S', 36},
        {"last_time", 'S', 19},
        {"action_counter", 'N', 0},
        {"success_counter", 'N', 0}},
       ""},
      {"tbl_kdx_logging_client",
       {{"token_guid", 'S', 36},
        {"user_name", 'S', kMax},
        {"token_action", 'S', kMax},
        {"token_timestamp", 'S', 19},
        {"token_ip", 'S', 15},
        {"action_guid", 'S', 36},
        {"token_user_dn", 'S', kMax}},
       ""},
  }};
  return tables;
}

const Table* TableAt(int index) {
  if (index < 1 || index > 13) return nullptr;
  return &Tables()[static_cast<size_t>(index - 1)];
}

std::string_view TypeWord(char kind, const DatabaseSettings& s) {
  return kind == 'S' ? s.string_type : kind == 'N' ? s.number_type : s.blob_type;
}

int32_t ColumnSize(const Column& c, const DatabaseSettings& s) {
  if (c.kind != 'S') return 0;
  return c.size == kMax ? s.string_max_size : c.size;
}

// Runs one statement on `connection` that only has to succeed; its rows are not fetched.
bool Runs(DbConnection& connection, std::string_view sql) {
  RecordSet ignored;
  return DBExecuteSQLCommand(connection, Statement(sql), ignored, 0);
}

bool InsertDefaultData(DbConnection& connection, int index, const LanguageLookup& language) {
  if (index != 5) return true;
  const std::string name = language ? language("DLG_GROUP_PROPERTIES", "GROUP_EVERYONE") : "";
  const std::string description =
      language ? language("DLG_GROUP_PROPERTIES", "GROUP_EVERYONE_DESCRIPTION") : "";
  Statement sql("INSERT INTO tbl_kdx_groups VALUES ('");
  sql.Sql(kEveryoneGroupGuid).Sql("', '").Value(name).Sql("', '").Value(description).Sql("', 0)");
  RecordSet ignored;
  return DBExecuteSQLCommand(connection, sql, ignored);
}

// Lookup indexes that the original tables lack: without them a logon, a backup or a trim of
// the audit log reads whole tables, which grows with every token and every entry.
struct Index {
  std::string_view name, table, columns;
};
constexpr Index kIndexes[] = {
    {"ix_kdx_token_guid", "tbl_kdx_token", "token_guid"},
    {"ix_kdx_token_groups_token", "tbl_kdx_token_groups", "token_guid"},
    {"ix_kdx_token_groups_group", "tbl_kdx_token_groups", "group_guid"},
    // A backup part is looked up by all four: with one column every part of a long backup
    // would read all parts of the token.
    {"ix_kdx_backup_part", "tbl_kdx_backup", "token_guid, backup_type, backup_index, backup_order"},
    {"ix_kdx_job_members_member", "tbl_kdx_job_members", "member_guid"},
    // Handing out tasks reads an action's properties, members, payload parts and the token's
    // state row many times per connection.
    {"ix_kdx_job_properties_action", "tbl_kdx_job_properties", "action_guid"},
    {"ix_kdx_job_members_action", "tbl_kdx_job_members", "action_guid"},
    {"ix_kdx_job_data_action", "tbl_kdx_job_data", "action_guid, action_data_order"},
    {"ix_kdx_job_data_source_action", "tbl_kdx_job_data_source", "action_guid"},
    {"ix_kdx_job_state_action", "tbl_kdx_job_state", "action_guid, token_guid"},
    {"ix_kdx_job_state_token", "tbl_kdx_job_state", "token_guid"},
    {"ix_kdx_logging_time", "tbl_kdx_logging_client", "token_timestamp"},
    {"ix_kdx_logging_token", "tbl_kdx_logging_client", "token_guid"},
};

}  // namespace

void DBCreateIndexes(DbConnection& connection) {
  // SQL Server and Access know no "IF NOT EXISTS" here; there an existing index makes the
  // statement fail, which is logged and harmless.
  const bool if_not_exists =
      connection.dialect() != Dialect::kSqlServer && connection.dialect() != Dialect::kAccess;
  for (const Index& index : kIndexes) {
    std::string sql = if_not_exists ? "CREATE INDEX IF NOT EXISTS " : "CREATE INDEX ";
    sql += index.name;
    sql += " ON ";
    sql += index.table;
    sql += " (";
    sql += index.columns;
    sql += ")";
    Runs(connection, sql);
  }
}

std::string_view TableStateName(TableState state) {
  switch (state) {
    case TableState::kUpToDate:
      return "UpToDate";
    case TableState::kConnectFailed:
      return "ConnectFailed";
    case TableState::kNoTables:
      return "NoTables";
    case TableState::kTableMissing:
      return "TableMissing";
    case TableState::kColumnMissing:
      return "ColumnMissing";
    case TableState::kDataMissing:
      return "DataMissing";
  }
  return "Unknown";
}

std::string TableName(int index) {
  const Table* t = TableAt(index);
  return t ? std::string(t->name) : std::string();
}

std::string CreateTableStatement(int index, const DatabaseSettings& settings) {
  const Table* t = TableAt(index);
  if (t == nullptr) return "";
  std::string sql = "CREATE TABLE " + std::string(t->name) + " (";
  for (size_t i = 0; i < t->columns.size(); ++i) {
    const Column& c = t->columns[i];
    if (i > 0) sql += ", ";
    sql += c.name;
    sql += ' ';
    sql += TypeWord(c.kind, settings);
    if (c.kind == 'S') sql += "(" + std::to_string(ColumnSize(c, settings)) + ")";
  }
  return sql + ")";
}

bool DBCreateTable(DbConnection& connection, int index, const DatabaseSettings& settings) {
  RecordSet ignored;
  return DBExecuteSQLCommand(connection, Statement(CreateTableStatement(index, settings)), ignored);
}

bool DBProbeTable(DbConnection& connection, int index) {
  return Runs(connection, "SELECT * FROM " + TableName(index));
}

bool DBDropTable(DbConnection& connection, int index) {
  if (!DBProbeTable(connection, index)) return true;
  Runs(connection, "DROP TABLE " + TableName(index));
  return !DBProbeTable(connection, index);
}

int32_t DBCreateAllTables(DbConnection& connection, const DatabaseSettings& settings,
                          const LanguageLookup& language) {
  int32_t failures = 0;
  for (int index = 4; index <= 13; ++index) {
    if (!DBCreateTable(connection, index, settings)) ++failures;
  }
  for (int index = 4; index <= 13; ++index) {
    if (!InsertDefaultData(connection, index, language)) ++failures;
  }
  DBCreateIndexes(connection);  // never counted: the tables work without them
  return failures;
}

int32_t DBDropAllTables(DbConnection& connection) {
  int32_t failures = 0;
  for (int index = 4; index <= 13; ++index) {
    if (!DBDropTable(connection, index)) ++failures;
  }
  return failures;
}

int32_t DBUpgradeTables(DbConnection& connection, const DatabaseSettings& settings) {
  // Deliberately the result of the last step only; earlier failures show in the log.
  int32_t result = 0;
  for (int number = 1; number <= 10; ++number) {
    const int index = number + 3;
    const TableState state = DBGetTableState(connection, number);
    if (state == TableState::kTableMissing) {
      result = DBCreateTable(connection, index, settings) ? 0 : 1;
    } else if (state == TableState::kColumnMissing) {
      for (const Column& c : TableAt(index)->columns) {
        result = DBAddColumnIfNotExisting(connection, index, c.name, TypeWord(c.kind, settings),
                                          ColumnSize(c, settings), "")
                     ? 0
                     : 1;
      }
    }
  }
  DBCreateIndexes(connection);  // never counted: the tables work without them
  return result;
}

int32_t DBConfigDatabase(Database& database, std::string_view parameters, int32_t mode,
                         const ConfigDatabaseHooks& hooks) {
  Log& log = database.log();
  int32_t result = 0;
  try {
    const std::vector<std::string> fields = Split(parameters, std::string_view("\0", 1));
    if (ArrayUpper(fields) < 8) {
      log.WriteLog("DBConfigDatabase (Error) - Array not big enough");
      return -2;
    }
    DatabaseSettings s;
    s.dsn = fields[0];
    s.user = hooks.decrypt ? hooks.decrypt(fields[1]) : fields[1];
    s.password = hooks.decrypt ? hooks.decrypt(fields[2]) : fields[2];
    s.string_type = fields[3];
    s.string_max_size = NumericTextToInt32(fields[4]);
    s.number_type = fields[5];
    s.blob_type = fields[6];
    s.blob_max_size = NumericTextToInt32(fields[7]);
    s.timeout_seconds = database.settings().timeout_seconds;  // not part of the configuration

    DbConnection connection(database);
    if (!DBConnect(connection, s.dsn, s.user, s.password)) {
      log.LogError(0, kConnectFailedTextBang, "DBConfigDatabase");
      return -1;
    }
    switch (mode) {
      case 1:
        result = DBCreateAllTables(connection, s, hooks.language);
        break;
      case 2:
        result = DBUpgradeTables(connection, s);
        break;
      case 3:
        result = DBDropAllTables(connection);
        break;
      case 4:
        result = DBDropAllTables(connection);
        // A failed drop never goes on to create; +100 tells it from a failed create.
        result = result != 0 ? result + 100 : DBCreateAllTables(connection, s, hooks.language);
        break;
      default:
        break;
    }
    DBDisconnect(connection);
    if (result == 0) {
      database.set_settings(s);
      if (hooks.store) hooks.store(s);
      log.WriteLog("DBConfigDatabase (OK)");
    }
    return result;
  } catch (...) {
    LogCurrentException(log, "DBConfigDatabase");
  }
  log.WriteLog("DBConfigDatabase (Error)");
  return result != 0 ? result : -3;
}

bool DBAddColumnIfNotExisting(DbConnection& connection, int index, std::string_view column,
                              std::string_view type, int32_t size, std::string_view other) {
  const std::string table = index >= 4 && index <= 13 ? TableName(index) : "";
  std::string probe = "SELECT " + std::string(column);
  if (!other.empty()) probe += ", ";
  probe += std::string(other) + " FROM " + table;
  if (Runs(connection, probe)) return true;

  std::string sql =
      "ALTER TABLE " + table + " ADD " + std::string(column) + " " + std::string(type);
  if (size > 0) sql += "(" + std::to_string(size) + ")";
  Database& db = connection.database();
  RecordSet ignored;
  if (DBExecuteSQLCommand(connection, Statement(sql), ignored)) return true;
  // The execute has recorded the driver's error as the last error; it is reported once
  // more under this operation's name.
  db.log().LogError(db.last_error_number(), db.last_error_description(), "DBAddColumnIfNotExisting",
                    sql);
  return false;
}

TableState DBGetTableState(DbConnection& connection, int number) {
  Log& log = connection.database().log();
  const Table* t = TableAt(number + 3);
  TableState state = TableState::kUpToDate;
  if (t == nullptr || !Runs(connection, "SELECT COUNT(*) FROM " + std::string(t->name))) {
    state = TableState::kTableMissing;
  } else {
    for (const Column& c : t->columns) {
      const std::string sql =
          c.kind == 'B' ? std::string(t->blob_probe)
                        : "SELECT COUNT(" + std::string(c.name) + ") FROM " + std::string(t->name);
      if (!Runs(connection, sql)) {
        state = TableState::kColumnMissing;
        break;
      }
    }
    if (state == TableState::kUpToDate && number + 3 == 5) {
      RecordSet count;
      const std::string sql = "SELECT COUNT(group_guid) FROM tbl_kdx_groups WHERE group_guid='" +
                              std::string(kEveryoneGroupGuid) + "'";
      if (DBExecuteSQLCommand(connection, Statement(sql), count) && !count.Eof() &&
          count.rows[0][0].value_or("0") == "0") {
        state = TableState::kDataMissing;
      }
    }
  }
  log.WriteLog("DBGetTableState -> " + std::string(TableStateName(state)));
  return state;
}

namespace {

// One check of DBIsDatabaseUpToDate on its own connection; throws DeadConnection when
// `reconnect_when_dead` and the pooled connection it got was dead.
TableState CheckTables(Database& database, bool reconnect_when_dead) {
  DbConnection connection(database);
  connection.set_reconnect_when_dead(reconnect_when_dead);
  if (!DBConnect(connection)) return TableState::kConnectFailed;
  int missing = 0;
  bool column_missing = false, data_missing = false;
  for (int number = 1; number <= 10; ++number) {
    switch (DBGetTableState(connection, number)) {
      case TableState::kTableMissing:
        ++missing;
        break;
      case TableState::kColumnMissing:
        column_missing = true;
        break;
      case TableState::kDataMissing:
        data_missing = true;
        break;
      default:
        break;
    }
  }
  // Probes that failed because the connection ended say nothing about the tables: a server
  // that went away during the check is one that cannot be reached.
  const bool lost = connection.broken();
  DBDisconnect(connection);
  if (lost) return TableState::kConnectFailed;
  if (missing == 10) return TableState::kNoTables;
  if (missing > 0) return TableState::kTableMissing;
  if (column_missing) return TableState::kColumnMissing;
  if (data_missing) return TableState::kDataMissing;
  return TableState::kUpToDate;
}

}  // namespace

TableState DBIsDatabaseUpToDate(Database& database) {
  Log& log = database.log();
  TableState state = TableState::kConnectFailed;
  for (int attempt = 0; attempt < 2; ++attempt) {
    try {
      state = CheckTables(database, attempt == 0);
      break;
    } catch (const DeadConnection&) {
      log.WriteLog(ReconnectLogLine("DBIsDatabaseUpToDate"));
    } catch (...) {
      LogCurrentException(log, "DBIsDatabaseUpToDate");
      break;
    }
  }
  log.WriteLog("DBIsDatabaseUpToDate -> " + std::string(TableStateName(state)));
  return state;
}

TableState CheckDatabaseState(OdbcEnvironment& env, Log& log, const DatabaseSettings& settings) {
  Database database(env, log, settings);
  return DBIsDatabaseUpToDate(database);
}

}  // namespace kalvo
