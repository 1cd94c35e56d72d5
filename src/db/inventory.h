// What the consoles can read of the database beyond the server's own records. `database`
// must outlive every call.
#pragma once

#include <string>
#include <string_view>

#include "db/connection.h"

namespace kalvo {

// The values of `column` in `table` (each once when `distinct`), one per row joined by
// `row_delimiter`; "" when the table is empty, the statement fails or the database cannot be
// reached. Table and column names come from the program, never from a peer.
std::string DBGetColumnData(Database& database, std::string_view table, std::string_view column,
                            std::string_view row_delimiter, bool distinct);

}  // namespace kalvo
