#include "db/inventory.h"

#include "db/operation.h"
#include "db/schema.h"
#include "infra/arrays.h"
#include "infra/numbers.h"

namespace kalvo {
namespace {

constexpr std::string_view kCrlf = "\r\n";
// The GUID the database test stores and joins on.
constexpr std::string_view kTestGuid = "5E1F7E57-0000-4000-8000-000000000313";

// A configuration under test: a Database of its own with the candidate settings, whose
// failures still become the last error of the server's Database (there is one last error
// for every statement the server runs).
class CandidateDatabase {
 public:
  CandidateDatabase(Database& server, DatabaseSettings settings)
      : server_(server), candidate_(server.env(), server.log(), std::move(settings)) {
    candidate_.SetLastError(server.last_error_number(), server.last_error_description());
  }
  ~CandidateDatabase() {
    server_.SetLastError(candidate_.last_error_number(), candidate_.last_error_description());
  }
  CandidateDatabase(const CandidateDatabase&) = delete;
  CandidateDatabase& operator=(const CandidateDatabase&) = delete;

  Database& get() { return candidate_; }

 private:
  Database& server_;
  Database candidate_;
};

}  // namespace

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

std::string DBGetDatabases(Database& database, std::string_view row_delimiter) {
  return RunOperation(
      database, "DBGetDatabases", ConnectFailure::kBang, std::string(),
      [&](DbConnection& c, std::string& result) {
        RecordSet listed;
        // When the first form fails the second is not tried: a server that refuses it is
        // not asked in another dialect.
        if (!DBExecuteSQLCommand(c, Statement("SELECT name FROM master..sysdatabases"), listed)) {
          return;
        }
        if (listed.Eof()) {
          RecordSet shown;
          if (!DBExecuteSQLCommand(c, Statement("SHOW DATABASES"), shown) || shown.Eof()) return;
          listed = std::move(shown);
        }
        result = DBGetStringFromRecordSet(database, listed, "", row_delimiter, false, true);
      });
}

std::string DBGetSQLResults(Database& database, std::string_view sql, std::string_view,
                            std::string_view row_delimiter, std::string_view column_delimiter) {
  auto error_text = [&] {
    return "Error:" + std::to_string(database.last_error_number()) + std::string(column_delimiter) +
           database.last_error_description();
  };
  bool connected = false;
  std::string result = RunOperation(database, "DBGetSQLResults", ConnectFailure::kPlain,
                                    std::string(), [&](DbConnection& c, std::string& out) {
                                      connected = true;
                                      RecordSet rs;
                                      // The console's text is the statement: it is run as it
                                      // stands, values and all.
                                      if (!DBExecuteSQLCommand(c, Statement(sql), rs)) {
                                        out = error_text();
                                        return;
                                      }
                                      if (!rs.open) {
                                        out = "OK:Der Befehl wurde korrekt abgearbeitet.";
                                        return;
                                      }
                                      std::string header = Join(rs.column_names, column_delimiter);
                                      out = "Data:" + header;
                                      if (!rs.Eof()) {
                                        out +=
                                            std::string(row_delimiter) +
                                            DBGetStringFromRecordSet(database, rs, column_delimiter,
                                                                     row_delimiter, false, true);
                                      }
                                    });
  return connected ? result : error_text();
}

std::string DBCheckDatabase(Database& database, const std::vector<std::string>& fields,
                            const DecryptCredential& decrypt) {
  std::string report;
  auto line = [&](std::string_view step, const std::optional<std::string>& error) {
    if (!report.empty()) report += kCrlf;
    report += error ? "ERROR: " + std::string(step) + ": " + *error : "OK: " + std::string(step);
    return !error;
  };
  try {
    DatabaseSettings s;
    s.dsn = ElementAt(fields, 0);
    s.user = decrypt(ElementAt(fields, 1));
    s.password = decrypt(ElementAt(fields, 2));
    s.string_type = ElementAt(fields, 3);
    // Field 4, StringMaxSize, is not used: every column of the test has a fixed width.
    s.number_type = ElementAt(fields, 5);
    s.blob_type = ElementAt(fields, 6);
    s.timeout_seconds = database.settings().timeout_seconds;
    CandidateDatabase candidate(database, s);
    Database& db = candidate.get();
    DbConnection c(db);
    if (!line("connect", DBConnectProblem(c))) return report;
    // One step: its statement, and the driver's message when it fails.
    auto step = [&](std::string_view name, const Statement& statement) {
      RecordSet rs;
      std::optional<std::string> error;
      if (!DBExecuteSQLCommand(c, statement, rs)) error = db.last_error_description();
      return line(name, error);
    };
    const std::string text36 = s.string_type + "(36)";
    Statement guid_value;
    guid_value.Sql("'").Value(kTestGuid).Sql("'");
    const bool passed =
        step("create tbl_kdx_tmp_test_1",
             Statement("CREATE TABLE tbl_kdx_tmp_test_1 (tmp_guid ").Sql(text36).Sql(")")) &&
        step("create tbl_kdx_tmp_test_2", Statement("CREATE TABLE tbl_kdx_tmp_test_2 (tmp_guid ")
                                              .Sql(text36)
                                              .Sql(", tmp_blob ")
                                              .Sql(s.blob_type)
                                              .Sql(")")) &&
        step("insert tbl_kdx_tmp_test_1",
             Statement("INSERT INTO tbl_kdx_tmp_test_1 (tmp_guid) VALUES (")
                 .Append(guid_value)
                 .Sql(")")) &&
        step("insert tbl_kdx_tmp_test_2",
             Statement("INSERT INTO tbl_kdx_tmp_test_2 (tmp_guid, tmp_blob) VALUES (")
                 .Append(guid_value)
                 .Sql(", ?)")
                 .BindBinary(std::string_view("\x00\x01\xfe\xff", 4))) &&
        step("select tbl_kdx_tmp_test_2",
             Statement("SELECT * FROM tbl_kdx_tmp_test_2 ORDER BY tmp_guid")) &&
        step("join", Statement("SELECT tbl_kdx_tmp_test_1.tmp_guid FROM tbl_kdx_tmp_test_1, "
                               "tbl_kdx_tmp_test_2 WHERE tbl_kdx_tmp_test_1.tmp_guid = "
                               "tbl_kdx_tmp_test_2.tmp_guid"));
    (void)passed;  // the report says which step ended it
    DBDisconnect(c);
    database.log().WriteLog("DBCheckDatabase (OK)");
  } catch (...) {
    // The report keeps the steps that ran.
    LogCurrentException(database.log(), "DBCheckDatabase");
    database.log().WriteLog("DBCheckDatabase (Error)");
  }
  return report;
}

bool DBCleanupCheckDatabase(Database& database, std::string_view dsn, std::string_view user,
                            std::string_view password) {
  DatabaseSettings s = database.settings();
  s.dsn = dsn;
  s.user = user;
  s.password = password;
  CandidateDatabase candidate(database, std::move(s));
  return RunOperation(candidate.get(), "DBCleanupCheckDatabase", ConnectFailure::kPlain, false,
                      [&](DbConnection& c, bool& result) {
                        const bool second = Execute(c, Statement("DROP TABLE tbl_kdx_tmp_test_2"));
                        const bool first = Execute(c, Statement("DROP TABLE tbl_kdx_tmp_test_1"));
                        result = second && first;
                      });
}

std::string DBExecuteTest(Database& database, std::string_view parameters,
                          const DecryptCredential& decrypt) {
  std::string result = "ERROR|1";
  try {
    const std::vector<std::string> fields = Split(parameters, std::string_view("\0", 1));
    if (fields.size() < 9) {
      database.log().WriteLog("DBExecuteTest (Error) - Array not big enough");
      return result;
    }
    DatabaseSettings s;
    s.dsn = fields[0];
    s.user = decrypt(fields[1]);
    s.password = decrypt(fields[2]);
    s.string_type = fields[3];
    s.number_type = fields[5];
    s.blob_type = fields[6];
    s.timeout_seconds = database.settings().timeout_seconds;
    CandidateDatabase candidate(database, s);
    Database& db = candidate.get();
    DbConnection c(db);
    if (!DBConnect(c)) return result;
    for (int index = 1; index <= 3; ++index) DBDropTable(c, index);
    // The width is read where the string type's table needs it, so a width that is no number
    // fails that step. No step uses the part size.
    const auto string_table = [&] {
      try {
        s.string_max_size = NumericTextToInt32(fields[4]);
      } catch (const RuntimeError&) {
        return false;
      }
      return DBCreateTable(c, 1, s);
    };
    RecordSet blob;
    Statement text36("INSERT INTO tbl_kdx_tmp_string (tmp_string) VALUES ('");
    text36.Value(kTestGuid).Sql("')");
    if (!string_table()) {
      result = "ERROR|2";
    } else if (!Execute(c, text36)) {
      result = "ERROR|3";
    } else if (!DBCreateTable(c, 2, s)) {
      result = "ERROR|4";
    } else if (!DBCreateTable(c, 3, s)) {
      result = "ERROR|5";
    } else if (!Execute(c, Statement("INSERT INTO tbl_kdx_tmp_blob VALUES ('x', '')")) ||
               !DBExecuteSQLCommand(
                   c, Statement("SELECT * FROM tbl_kdx_tmp_blob where tmp_string = 'x'"), blob) ||
               blob.ColumnIndex("tmp_blob") < 0 || blob.Eof()) {
      result = "ERROR|6";
    } else {
      // The state of the database the server works with, not of the candidate.
      result = "OK|" + std::to_string(static_cast<int32_t>(DBIsDatabaseUpToDate(database)));
    }
    // The scratch tables are not left behind.
    for (int index = 1; index <= 3; ++index) DBDropTable(c, index);
    DBDisconnect(c);
    database.log().WriteLog("DBExecuteTest (OK)");
  } catch (...) {
    LogCurrentException(database.log(), "DBExecuteTest");
    database.log().WriteLog("DBExecuteTest (Error)");
  }
  return result;
}

}  // namespace kalvo
