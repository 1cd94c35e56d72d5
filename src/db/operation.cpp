#include "db/operation.h"

namespace kalvo {

std::string QueryText(DbConnection& connection, const Statement& statement,
                      std::string_view column_delimiter, std::string_view row_delimiter, bool trim,
                      bool strip_last) {
  RecordSet rs;
  if (!DBExecuteSQLCommand(connection, statement, rs) || rs.Eof()) return "";
  return DBGetStringFromRecordSet(connection.database(), rs, column_delimiter, row_delimiter, trim,
                                  strip_last);
}

bool Execute(DbConnection& connection, const Statement& statement) {
  RecordSet ignored;
  return DBExecuteSQLCommand(connection, statement, ignored);
}

void MustExecute(DbConnection& connection, const Statement& statement) {
  if (!Execute(connection, statement)) {
    const Database& db = connection.database();
    throw RuntimeError(db.last_error_number(), db.last_error_description());
  }
}

bool UpdateSelectedRows(DbConnection& connection, const Statement& update,
                        const Statement& select) {
  RecordSet rs;
  if (!DBExecuteSQLCommand(connection, update, rs)) return false;
  if (rs.rows_affected != 0) return true;
  RecordSet found;
  return DBExecuteSQLCommand(connection, select, found, 1) && !found.Eof();
}

bool DBIsItemInTable(DbConnection& connection, std::string_view table, std::string_view column,
                     std::string_view value, const Statement& extra) {
  Statement sql("SELECT COUNT(*) FROM ");
  sql.Sql(table).Sql(" WHERE ").Sql(column).Sql(" = '").Value(value).Sql("'");
  if (!extra.text().empty()) sql.Sql(" AND ").Append(extra);
  const std::string count = QueryText(connection, sql, "", " ", true, false);
  connection.database().log().WriteLog("DBIsItemInTable (OK)");
  return !count.empty() && count != "0";
}

}  // namespace kalvo
