// Writing and reading one binary column of a selected row, byte for byte. Writing runs
// "UPDATE <table> SET <column> = ? WHERE <conditions>" with the bytes bound as a binary
// parameter; it is logged like any other statement.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "db/connection.h"

namespace kalvo {

// Sets `column` of the rows of `table` that match `conditions` (the text after WHERE) to
// `bytes` (may be empty, may be megabytes). Returns the result of the execution; a failure
// is logged and recorded as the Database's last error as by DBExecuteSQLCommand. Updating
// no row at all is a success.
bool DBWriteBinaryColumn(DbConnection& connection, std::string_view table, std::string_view column,
                         std::string_view bytes, std::string_view conditions);

// Executes the SELECT `select_sql` and gives the bytes of `column` in its first row.
// std::nullopt when the statement fails (logged as by DBExecuteSQLCommand), returns no
// row, has no such column, or the value is NULL.
std::optional<std::string> DBReadBinaryColumn(DbConnection& connection, std::string_view select_sql,
                                              std::string_view column);

}  // namespace kalvo
