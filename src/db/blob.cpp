#include "db/blob.h"

namespace kalvo {

bool DBWriteBinaryColumn(DbConnection& connection, std::string_view table, std::string_view column,
                         std::string_view bytes, std::string_view conditions) {
  std::string sql = "UPDATE ";
  sql += table;
  sql += " SET ";
  sql += column;
  sql += " = ? WHERE ";
  sql += conditions;
  RecordSet ignored;
  return DBExecuteSQLCommandWithBinary(connection, sql, bytes, ignored);
}

std::optional<std::string> DBReadBinaryColumn(DbConnection& connection, std::string_view select_sql,
                                              std::string_view column) {
  RecordSet result;
  if (!DBExecuteSQLCommand(connection, select_sql, result)) return std::nullopt;
  return result.Field(0, column);
}

}  // namespace kalvo
