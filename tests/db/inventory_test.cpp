// The console's look into the database on each engine: free queries, the database list, the
// distinct values of a column, and the two tests of a configuration under test.
#include "db/inventory.h"

#include "domain_fixture.h"
#include "infra/arrays.h"

namespace kalvo::testing {
namespace {

// Credentials travel enciphered; here the "cipher" is the text with a marker in front, so a
// field handed on without deciphering fails the login.
std::string Decrypt(std::string_view cipher) {
  return cipher.starts_with("enc:") ? std::string(cipher.substr(4)) : "not deciphered";
}

class InventoryTest : public DomainDbTest {
 protected:
  std::string Sql(std::string_view sql) { return DBGetSQLResults(db(), sql, "", "$", "|"); }

  // The seven fields of the database test for this engine's settings.
  std::vector<std::string> CheckFields(std::string_view blob_type = "") {
    const DatabaseSettings s = Settings();
    return {s.dsn,
            "enc:" + s.user,
            "enc:" + s.password,
            s.string_type,
            std::to_string(s.string_max_size),
            s.number_type,
            blob_type.empty() ? s.blob_type : std::string(blob_type)};
  }

  // The nine NUL-joined fields of the type test, with one field replaced.
  std::string TypeTestFields(size_t field = 99, std::string_view value = "") {
    const DatabaseSettings s = Settings();
    std::vector<std::string> f = {s.dsn,
                                  "enc:" + s.user,
                                  "enc:" + s.password,
                                  s.string_type,
                                  std::to_string(s.string_max_size),
                                  s.number_type,
                                  s.blob_type,
                                  std::to_string(s.blob_max_size),
                                  "1"};
    if (field < f.size()) f[field] = value;
    return Join(f, std::string_view("\0", 1));
  }

  bool TableExists(std::string_view table) {
    return Sql("SELECT COUNT(*) FROM " + std::string(table)).starts_with("Data:");
  }
};

TEST_P(InventoryTest, FreeQueriesAnswerDataOkOrError) {
  // A result set: the header, then the rows; the console's text runs as it stands, quotes and
  // all.
  EXPECT_EQ(Sql("SELECT group_guid, group_name FROM tbl_kdx_groups WHERE group_name = 'Jeder'"),
            std::string("Data:group_guid|group_name$") + kJeder + "|Jeder");
  MustExecute({"INSERT INTO tbl_kdx_token (token_guid, token_person) VALUES ('T1', 'Anna')",
               "INSERT INTO tbl_kdx_token (token_guid, token_person) VALUES ('T2', 'Bert')"});
  EXPECT_EQ(Sql("SELECT token_guid, token_person FROM tbl_kdx_token ORDER BY token_guid"),
            "Data:token_guid|token_person$T1|Anna$T2|Bert");
  // No rows: the header alone, without a row delimiter.
  EXPECT_EQ(Sql("SELECT token_person FROM tbl_kdx_token WHERE token_guid = 'none'"),
            "Data:token_person");
  // No result set at all.
  EXPECT_EQ(Sql("DELETE FROM tbl_kdx_token WHERE token_guid = 'T1'"),
            "OK:Der Befehl wurde korrekt abgearbeitet.");
  EXPECT_EQ(Query("SELECT token_guid FROM tbl_kdx_token"), "T2");
  // A failure: the driver's number and message.
  const std::string error = Sql("SELEKT nothing");
  ASSERT_TRUE(error.starts_with("Error:")) << error;
  EXPECT_EQ(error, "Error:" + std::to_string(db().last_error_number()) + "|" +
                       db().last_error_description());
  EXPECT_FALSE(db().last_error_description().empty());
}

TEST_P(InventoryTest, FreeQueryWithoutAConnectionReportsTheLastErrorOfAnEarlierStatement) {
  db().SetLastError(42, "an earlier failure");
  DatabaseSettings s = Settings();
  s.dsn = "no_such_dsn";
  db().set_settings(s);
  EXPECT_EQ(Sql("SELECT 1"), "Error:42|an earlier failure");
}

TEST_P(InventoryTest, DatabaseListIsEmptyWhenTheFirstFormFailsAndNoSecondFormIsTried) {
  EXPECT_EQ(DBGetDatabases(db(), "|"), "");
  EXPECT_TRUE(Logged("master..sysdatabases"));
  EXPECT_FALSE(Logged("SHOW DATABASES"));
  EXPECT_TRUE(Logged("DBGetDatabases (OK)"));
}

TEST_P(InventoryTest, ColumnValuesOfAnEmptyTableAreEmpty) {
  EXPECT_EQ(DBGetColumnData(db(), "tbl_kdx_token", "token_person", "|", true), "");
  MustExecute({"INSERT INTO tbl_kdx_token (token_guid, token_person) VALUES ('T1', 'Anna')",
               "INSERT INTO tbl_kdx_token (token_guid, token_person) VALUES ('T2', 'Anna')"});
  EXPECT_EQ(DBGetColumnData(db(), "tbl_kdx_token", "token_person", "|", true), "Anna");
  EXPECT_EQ(DBGetColumnData(db(), "tbl_kdx_token", "token_person", "|", false), "Anna|Anna");
}

TEST_P(InventoryTest, DatabaseTestReportsEveryStepAndItsCleanUpDropsBothTables) {
  const std::string report = DBCheckDatabase(db(), CheckFields(), Decrypt);
  EXPECT_EQ(report,
            "OK: connect\r\nOK: create tbl_kdx_tmp_test_1\r\nOK: create tbl_kdx_tmp_test_2\r\n"
            "OK: insert tbl_kdx_tmp_test_1\r\nOK: insert tbl_kdx_tmp_test_2\r\n"
            "OK: select tbl_kdx_tmp_test_2\r\nOK: join");
  EXPECT_TRUE(TableExists("tbl_kdx_tmp_test_1"));
  const DatabaseSettings s = Settings();
  EXPECT_TRUE(DBCleanupCheckDatabase(db(), s.dsn, s.user, s.password));
  EXPECT_FALSE(TableExists("tbl_kdx_tmp_test_1"));
  EXPECT_FALSE(TableExists("tbl_kdx_tmp_test_2"));
  // Nothing left to drop: both drops are still tried, and the result says they failed.
  ClearLog();
  EXPECT_FALSE(DBCleanupCheckDatabase(db(), s.dsn, s.user, s.password));
  EXPECT_EQ(Occurrences(LogText(), "DBExecuteSQLCommand (Error)"), 2);
}

TEST_P(InventoryTest, DatabaseTestEndsAtTheFirstFailedStepWithTheDriversMessage) {
  std::string report = DBCheckDatabase(db(), CheckFields(")"), Decrypt);
  EXPECT_TRUE(
      report.starts_with("OK: connect\r\nOK: create tbl_kdx_tmp_test_1\r\nERROR: create "
                         "tbl_kdx_tmp_test_2: "))
      << report;
  EXPECT_EQ(report.find("insert"), std::string::npos);
  EXPECT_NE(report.find(db().last_error_description()), std::string::npos);
  // The clean-up drops what was made and reports that not everything was there.
  const DatabaseSettings s = Settings();
  EXPECT_FALSE(DBCleanupCheckDatabase(db(), s.dsn, s.user, s.password));
  EXPECT_FALSE(TableExists("tbl_kdx_tmp_test_1"));

  std::vector<std::string> unreachable = CheckFields();
  unreachable[0] = "no_such_dsn";
  report = DBCheckDatabase(db(), unreachable, Decrypt);
  EXPECT_TRUE(report.starts_with("ERROR: connect: ")) << report;
  EXPECT_EQ(report.find("\r\n"), std::string::npos);

  // No step uses StringMaxSize: a size that is no number changes nothing, and the report
  // holds the seven steps only.
  std::vector<std::string> bad_size = CheckFields();
  bad_size[4] = "many";
  EXPECT_EQ(DBCheckDatabase(db(), bad_size, Decrypt),
            "OK: connect\r\nOK: create tbl_kdx_tmp_test_1\r\nOK: create tbl_kdx_tmp_test_2\r\n"
            "OK: insert tbl_kdx_tmp_test_1\r\nOK: insert tbl_kdx_tmp_test_2\r\n"
            "OK: select tbl_kdx_tmp_test_2\r\nOK: join");
  EXPECT_TRUE(DBCleanupCheckDatabase(db(), s.dsn, s.user, s.password));
}

TEST_P(InventoryTest, TypeTestAnswersTheStateOfTheConfiguredDatabaseNotOfTheCandidate) {
  // A leftover of an earlier run is dropped before the tables are made.
  MustExecute({"CREATE TABLE tbl_kdx_tmp_string (tmp_string VARCHAR(5))"});
  DatabaseSettings configured = Settings();
  configured.dsn = "no_such_dsn";
  db().set_settings(configured);
  EXPECT_EQ(DBExecuteTest(db(), TypeTestFields(), Decrypt), "OK|2")
      << "the configured database cannot be reached (ConnectFailed), the candidate is complete";
  db().set_settings(Settings());

  const struct {
    size_t field;
    const char* value;
    const char* answer;
    const char* why;
  } cases[] = {
      {4, "many", "ERROR|2", "the width is first used by the string type's table"},
      {4, "", "ERROR|2", "an empty width is no number either"},
      {7, "many", "OK|1", "no step uses the part size"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DBExecuteTest(db(), TypeTestFields(c.field, c.value), Decrypt), c.answer) << c.why;
  }
}

TEST_P(InventoryTest, TypeTestNamesTheFailedStepAndLeavesNoScratchTable) {
  // The candidate is the database under test, complete: its state is UpToDate (1).
  EXPECT_EQ(DBExecuteTest(db(), TypeTestFields(), Decrypt), "OK|1");
  for (const char* t : {"tbl_kdx_tmp_string", "tbl_kdx_tmp_number", "tbl_kdx_tmp_blob"}) {
    EXPECT_FALSE(TableExists(t)) << t;
  }
  EXPECT_EQ(DBExecuteTest(db(), TypeTestFields(3, ")"), Decrypt), "ERROR|2");
  EXPECT_EQ(DBExecuteTest(db(), TypeTestFields(5, ")"), Decrypt), "ERROR|4");
  EXPECT_EQ(DBExecuteTest(db(), TypeTestFields(6, ")"), Decrypt), "ERROR|5");
  EXPECT_EQ(DBExecuteTest(db(), TypeTestFields(0, "no_such_dsn"), Decrypt), "ERROR|1");
  // Eight fields: no connection is tried.
  std::string eight = TypeTestFields();
  eight.erase(eight.rfind('\0'));
  ClearLog();
  EXPECT_EQ(DBExecuteTest(db(), eight, Decrypt), "ERROR|1");
  EXPECT_FALSE(Logged("DBConnect"));
  if (GetParam() != Engine::kSqlite) {
    // A text type too narrow for a GUID (SQLite does not enforce widths).
    EXPECT_EQ(DBExecuteTest(db(), TypeTestFields(4, "10"), Decrypt), "ERROR|3");
  }
  for (const char* t : {"tbl_kdx_tmp_string", "tbl_kdx_tmp_number", "tbl_kdx_tmp_blob"}) {
    EXPECT_FALSE(TableExists(t)) << t;
  }
}

KALVO_INSTANTIATE_ENGINES(InventoryTest);

}  // namespace
}  // namespace kalvo::testing
