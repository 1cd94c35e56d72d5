// What the consoles can read of the database beyond the server's own records, and the tests
// a console runs on a database configuration before it is taken into use. `database` must
// outlive every call.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "db/connection.h"

namespace kalvo {

// The values of `column` in `table` (each once when `distinct`), one per row joined by
// `row_delimiter`; "" when the table is empty, the statement fails or the database cannot be
// reached. Table and column names come from the program, never from a peer.
std::string DBGetColumnData(Database& database, std::string_view table, std::string_view column,
                            std::string_view row_delimiter, bool distinct);

// The names of the databases the configured data source can see, joined by `row_delimiter`:
// the rows of "SELECT name FROM master..sysdatabases", or, only when that runs and gives no
// row, those of "SHOW DATABASES". "" when the first statement fails (the second one is then
// not tried), when neither gives a row, or when the database cannot be reached.
std::string DBGetDatabases(Database& database, std::string_view row_delimiter);

// Runs `sql`, a console's free SQL text, as it stands and gives:
// - "Data:" + the column names joined by `column_delimiter`, then (when there are rows)
//   `row_delimiter` and the rows (values joined by `column_delimiter`, rows by
//   `row_delimiter`), for a statement that yields a result set;
// - "OK:Der Befehl wurde korrekt abgearbeitet." for one that yields none (UPDATE, DDL...);
// - "Error:" + number + `column_delimiter` + description when it fails. When the connect
//   fails these are the last-error fields of the most recent failed statement, which may
//   belong to an earlier request.
// `unused` is accepted and not read.
std::string DBGetSQLResults(Database& database, std::string_view sql, std::string_view unused,
                            std::string_view row_delimiter, std::string_view column_delimiter);

// The credentials and types of a configuration under test; user and password in plain text.
using DecryptCredential = std::function<std::string(std::string_view cipher_text)>;

// The database test of a candidate configuration: `fields` are DSN, encrypted user, encrypted
// password, StringType, StringMaxSize, NumberType, BLOBType (at least seven). Connects with
// them and runs, in this order, "connect", "create tbl_kdx_tmp_test_1" (tmp_guid, a text of
// 36), "create tbl_kdx_tmp_test_2" (tmp_guid, tmp_blob), "insert tbl_kdx_tmp_test_1", "insert
// tbl_kdx_tmp_test_2", "select tbl_kdx_tmp_test_2" and "join", up to the first that fails.
// Gives one line per step run, "OK: <step>" or "ERROR: <step>: <driver message>", joined by
// CRLF. The tables it made are left for DBCleanupCheckDatabase.
std::string DBCheckDatabase(Database& database, const std::vector<std::string>& fields,
                            const DecryptCredential& decrypt);

// Drops tbl_kdx_tmp_test_2 and tbl_kdx_tmp_test_1 (both are always tried) over a connection
// with the given DSN, user and password; true when both drops succeeded.
bool DBCleanupCheckDatabase(Database& database, std::string_view dsn, std::string_view user,
                            std::string_view password);

// The type test of a candidate configuration: `parameters` are at least nine fields joined
// by NUL: DSN, encrypted user, encrypted password, StringType, StringMaxSize, NumberType,
// BLOBType, BLOBMaxSize and a flag. Connects, drops the three type-test tables, then creates
// tbl_kdx_tmp_string with the text type of StringMaxSize, stores a GUID of 36 characters in
// it, creates tbl_kdx_tmp_number and tbl_kdx_tmp_blob, and runs the BLOB round trip
// (INSERT ('x', ''), SELECT ... WHERE tmp_string = 'x' reading tmp_blob). Gives "ERROR|" and
// the step that failed ("1" connect or fewer than nine fields, "2" text type, also for a
// StringMaxSize that is no number, "3" text of width 36, "4" number type, "5" BLOB type, "6"
// BLOB round trip), or "OK|" and the state of the database `database` is configured with
// (DBIsDatabaseUpToDate, not of the candidate) as a decimal number. BLOBMaxSize is not read. The
// type-test tables are dropped again at the end, whatever happened.
std::string DBExecuteTest(Database& database, std::string_view parameters,
                          const DecryptCredential& decrypt);

}  // namespace kalvo
