#include "db/inventory.h"

#include "db/operation.h"

namespace kalvo {

std::string DBGetColumnData(Database& database, std::string_view table, std::string_view column,
                            std::string_view row_delimiter, bool distinct) {
  return RunOperation(database, "DBGetColumnData", ConnectFailure::kPlain, std::string(),
                      [&](DbConnection& c, std::string& result) {
                        Statement sql("SELECT ");
                        if (distinct) sql.Sql("DISTINCT ");
                        sql.Sql(column).Sql(" FROM ").Sql(table);
                        result = QueryText(c, sql, "", row_delimiter, false, true);
                      });
}

}  // namespace kalvo
