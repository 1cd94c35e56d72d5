// Connecting, executing and the result-set conversions against each engine.
#include "db/connection.h"

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "db_fixture.h"

namespace kalvo::testing {
namespace {

using ConnectionTest = DbTest;

TEST_P(ConnectionTest, MissingDsnFailsToConnectAndIsLogged) {
  DbConnection c(db());
  EXPECT_FALSE(DBConnect(c, "kalvo_no_such_dsn", "u", "p"));
  EXPECT_FALSE(c.is_open());
  const std::string log = LogText();
  EXPECT_NE(log.find("DBConnect (Error)"), std::string::npos) << log;
  EXPECT_EQ(log.find("DBConnect (OK)"), std::string::npos) << log;
}

// With the driver manager's pooling on, a user or password of 128 characters or more would
// overrun its pool's buffers and end the process: such texts never reach it.
TEST_P(ConnectionTest, OverlongConnectionTextsFailBeforeTheDriverManager) {
  const DatabaseSettings s = Settings();
  const struct {
    std::string dsn, user, password, logged;
  } cases[] = {
      {s.dsn, std::string(128, 'u'), s.password, "The user is 128 characters long"},
      {s.dsn, s.user, std::string(255, 'p'), "The password is 255 characters long"},
      {s.dsn, std::string(65536, 'u'), std::string(65536, 'p'), "The user is 65536"},
      {std::string(33, 'd'), s.user, s.password, "The data source name is 33 characters"},
  };
  for (const auto& c : cases) {
    ClearLog();
    DbConnection connection(db());
    EXPECT_FALSE(DBConnect(connection, c.dsn, c.user, c.password)) << c.logged;
    EXPECT_NE(LogText().find(c.logged), std::string::npos) << LogText();
    EXPECT_NE(LogText().find("DBConnect (Error)"), std::string::npos);
  }
  // At the limit the texts reach the driver, which accepts them (SQLite has no users) or
  // refuses the login.
  ClearLog();
  DbConnection at_limit(db());
  EXPECT_EQ(DBConnect(at_limit, s.dsn, std::string(127, 'u'), std::string(127, 'p')),
            GetParam() == Engine::kSqlite);
  EXPECT_EQ(LogText().find("characters long"), std::string::npos) << LogText();
}

TEST_P(ConnectionTest, ConnectionsAreKeptOpenForTheNextOperationWithTheSameSettings) {
  OdbcEnvironment& env = SharedDatabases::Get().env();
  MustExecute({"CREATE TABLE t_num (n INTEGER)"});
  const size_t kept = env.open_count();
  ASSERT_GE(kept, 1u);
  {
    DbConnection again(db());
    ASSERT_TRUE(DBConnect(again));
    EXPECT_EQ(env.open_count(), kept - 1) << "the kept one is taken";
    // A transaction left open is rolled back before the connection is kept.
    again.BeginTransaction();
    RecordSet ignored;
    ASSERT_TRUE(DBExecuteSQLCommand(again, Statement("INSERT INTO t_num VALUES (1)"), ignored));
  }
  EXPECT_EQ(env.open_count(), kept);
  EXPECT_EQ(Query("SELECT COUNT(*) FROM t_num"), "0") << "the row went with the rollback";
}

TEST_P(ConnectionTest, CheckConnectionReportsSuccessAndFailure) {
  const DatabaseSettings s = Settings();
  EXPECT_TRUE(DBCheckConnection(db(), s.dsn, s.user, s.password));
  EXPECT_NE(LogText().find("DBCheckConnection (OK)"), std::string::npos);
  ClearLog();

  // SQLite has no passwords, so there the failing case is a DSN that does not exist.
  const std::string dsn = GetParam() == Engine::kSqlite ? "kalvo_no_such_dsn" : s.dsn;
  EXPECT_FALSE(DBCheckConnection(db(), dsn, s.user, "wrong password"));
  const std::string log = LogText();
  EXPECT_EQ(log.find("DBCheckConnection (OK)"), std::string::npos) << log;
  EXPECT_NE(log.find("DBCheckConnection (Error)"), std::string::npos) << log;
  EXPECT_NE(log.find("Verbindung fehlgeschlagen"), std::string::npos) << log;
}

TEST_P(ConnectionTest, FailingStatementIsLoggedTwiceAndBecomesLastError) {
  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  RecordSet rs;
  rs.open = true;
  const std::string sql = "SELECT * FROM kalvo_missing_table";
  EXPECT_FALSE(DBExecuteSQLCommand(c, Statement(sql), rs));
  EXPECT_FALSE(rs.open);
  EXPECT_NE(db().last_error_description(), "");
  const std::string log = LogText();
  EXPECT_EQ(Occurrences(log, sql), 2) << log;
  EXPECT_NE(log.find("DBExecuteSQLCommand (Error) {" + sql + "}"), std::string::npos) << log;

  // A later success leaves the last error as it was.
  const std::string before = db().last_error_description();
  EXPECT_TRUE(DBExecuteSQLCommand(c, Statement("SELECT 1"), rs));
  EXPECT_EQ(db().last_error_description(), before);
  EXPECT_NE(LogText().find("DBExecuteSQLCommand (OK) {SELECT 1}"), std::string::npos);
}

TEST_P(ConnectionTest, StatementsWithoutRowsGiveAClosedResultSet) {
  MustExecute({"CREATE TABLE t_text (a VARCHAR(20), b VARCHAR(20))"});
  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  RecordSet rs;
  ASSERT_TRUE(DBExecuteSQLCommand(c, Statement("INSERT INTO t_text VALUES ('a', 'b')"), rs));
  EXPECT_FALSE(rs.open);
  // An UPDATE that matches nothing is still a success.
  ASSERT_TRUE(DBExecuteSQLCommand(c, Statement("UPDATE t_text SET a = 'x' WHERE a = 'none'"), rs));
  ASSERT_TRUE(DBExecuteSQLCommand(c, Statement("SELECT a FROM t_text WHERE a = 'none'"), rs));
  EXPECT_TRUE(rs.open);
  EXPECT_TRUE(rs.Eof());
  // Asking an empty set for its text is the error callers avoid by testing Eof first.
  EXPECT_EQ(DBGetStringFromRecordSet(db(), rs, "|", "$", true, true), "");
  EXPECT_NE(LogText().find("DBGetStringFromRecordSet (Error)"), std::string::npos);
  EXPECT_TRUE(DBDisconnect(c));
  EXPECT_NE(LogText().find("DBDisconnect (OK)"), std::string::npos);
}

TEST_P(ConnectionTest, ResultSetTextFollowsTheDelimitersAndFlags) {
  MustExecute({"CREATE TABLE t_text (a VARCHAR(20), b VARCHAR(20))",
               "INSERT INTO t_text VALUES ('a', 'b')", "INSERT INTO t_text VALUES ('c', 'd')"});
  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  RecordSet rs;
  ASSERT_TRUE(DBExecuteSQLCommand(c, Statement("SELECT a, b FROM t_text ORDER BY a"), rs));

  struct Case {
    std::string_view cd, rd;
    bool trim, strip;
    std::string want;
    const char* why;
  };
  const Case cases[] = {
      {"|", "$", false, true, "a|b$c|d", "strip removes the one trailing row delimiter"},
      {"|", "$", false, false, "a|b$c|d$", "every row, the last included, ends with RD"},
      {"\r\n", "|", true, true, "a\r\nb|c\r\nd", "token-data pairing of delimiters"},
      {"", " ", true, false, "ab cd", "trim takes the blank that ended the last row"},
      {"", " ", true, true, "ab cd", "after the trim there is no delimiter left to strip"},
      {",", "", false, true, "a,bc,d", "an empty row delimiter joins the rows"},
  };
  for (const Case& k : cases) {
    EXPECT_EQ(DBGetStringFromRecordSet(db(), rs, k.cd, k.rd, k.trim, k.strip), k.want) << k.why;
  }
  EXPECT_EQ(DBGetArrayFromRecordSet(db(), rs, "|", "$", false, true),
            (std::vector<std::string>{"a|b", "c|d"}));
  EXPECT_EQ(DBGetArrayFromRecordSet(db(), rs, "|", "$", false, false),
            (std::vector<std::string>{"a|b", "c|d", ""}));
  EXPECT_EQ(DBGetMatrixFromRecordSet(db(), rs, "|", "$", false, true),
            (std::vector<std::vector<std::string>>{{"a", "b"}, {"c", "d"}}));
  const std::string log = LogText();
  EXPECT_NE(log.find("DBGetStringFromRecordSet (OK)"), std::string::npos);
  EXPECT_NE(log.find("DBGetArrayFromRecordSet (OK)"), std::string::npos);
  EXPECT_NE(log.find("DBGetMatrixFromRecordSet (OK)"), std::string::npos);
}

TEST_P(ConnectionTest, NullIsAnEmptyFieldAndNumbersComeAsText) {
  MustExecute({"CREATE TABLE t_num (a VARCHAR(10), b VARCHAR(10), n INTEGER)",
               "INSERT INTO t_num VALUES ('x', NULL, 42)",
               "INSERT INTO t_num VALUES (NULL, 'y', -7)"});
  EXPECT_EQ(Query("SELECT a, b, n FROM t_num ORDER BY n DESC"), "x||42$|y|-7");
}

TEST_P(ConnectionTest, Windows1252TextRoundTripsUnchanged) {
  // Umlauts, sharp s, the euro sign and an en dash: all single bytes in Windows-1252.
  const std::string text = "Grüße Jörg – 5 € Ä";
  ASSERT_EQ(text.size(), 18u);
  MustExecute({"CREATE TABLE t_text (a VARCHAR(40), b VARCHAR(40))",
               "INSERT INTO t_text VALUES ('" + text + "', 'x')"});
  EXPECT_EQ(Query("SELECT a FROM t_text"), text);
  EXPECT_EQ(Query("SELECT b FROM t_text WHERE a = '" + text + "'"), "x");
  if (GetParam() == Engine::kPostgres) {
    // The server must see one character per byte, so the DSN's client encoding matters.
    EXPECT_EQ(Query("SHOW client_encoding"), "WIN1252");
    EXPECT_EQ(Query("SELECT LENGTH(a) FROM t_text"), "18");
  }
  if (GetParam() == Engine::kMariaDb) {
    // The template's character set and session settings are in force.
    EXPECT_EQ(Query("SELECT @@character_set_connection"), "latin1");
    EXPECT_EQ(Query("SELECT LENGTH(a) FROM t_text"), "18");
    EXPECT_NE(Query("SELECT @@sql_mode").find("IGNORE_SPACE"), std::string::npos);
  }
}

TEST_P(ConnectionTest, TextsAroundTheFetchBufferSizeRoundTrip) {
  // Text is fetched in parts of 8 KiB, one byte of which the driver spends on a terminating
  // NUL: the lengths around one and two parts must come back whole.
  MustExecute({"CREATE TABLE t_text (a VARCHAR(20000), b VARCHAR(10))"});
  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  for (size_t size : {8190u, 8191u, 8192u, 8193u, 16382u, 16383u, 16384u}) {
    std::string text(size, ' ');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 7 + i / 26) % 26);
    text.back() = 'Z';  // a lost or doubled last byte shows
    RecordSet ignored;
    ASSERT_TRUE(DBExecuteSQLCommand(c, Statement("DELETE FROM t_text"), ignored));
    ASSERT_TRUE(DBExecuteSQLCommand(
        c, Statement("INSERT INTO t_text VALUES ('").Sql(text).Sql("', 'x')"), ignored));
    RecordSet rs;
    ASSERT_TRUE(DBExecuteSQLCommand(c, Statement("SELECT a, b FROM t_text"), rs));
    const std::optional<std::string> back = rs.Field(0, "a");
    ASSERT_TRUE(back.has_value()) << size;
    EXPECT_EQ(back->size(), size);
    EXPECT_TRUE(*back == text) << size;
    EXPECT_EQ(rs.Field(0, "b"), "x") << size;
  }
}

TEST_P(ConnectionTest, NumberDirectlyBeforeAndIsAccepted) {
  MustExecute({"CREATE TABLE t_num (a VARCHAR(10), b VARCHAR(10), n INTEGER)",
               "INSERT INTO t_num VALUES ('2AND', 'k', 2)",
               "INSERT INTO t_num VALUES ('x', 'k', 3)"});
  // The statement text as the backup operations build it; the literal must stay as it is.
  EXPECT_EQ(Query("SELECT a FROM t_num WHERE n = 2AND b = 'k'"), "2AND");
  EXPECT_EQ(Query("SELECT n FROM t_num WHERE a = '2AND' AND n > 1AND b = 'k'"), "2");
}

TEST_P(ConnectionTest, SelectTopKeepsTheNewestRows) {
  MustExecute({"CREATE TABLE t_text (a VARCHAR(20), b VARCHAR(20))",
               "INSERT INTO t_text VALUES ('2027-01-01', '1')",
               "INSERT INTO t_text VALUES ('2027-01-03', '3')",
               "INSERT INTO t_text VALUES ('2027-01-02', '2')",
               "INSERT INTO t_text VALUES ('2027-01-04', '4')",
               "DELETE FROM t_text WHERE a NOT IN (SELECT TOP 2 a FROM t_text ORDER BY a DESC)"});
  EXPECT_EQ(Query("SELECT b FROM t_text ORDER BY a"), "3$4");
  EXPECT_EQ(Query("SELECT TOP 1 b FROM t_text ORDER BY a"), "3");
}

class BinaryColumnTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    if (IsSkipped() || HasFailure()) return;
    MustExecute({"CREATE TABLE t_blob (k VARCHAR(10), n INTEGER, b " + Settings().blob_type + ")",
                 "INSERT INTO t_blob VALUES ('x', 1, '')",
                 "INSERT INTO t_blob VALUES ('y', 2, '')"});
  }
};

std::string AllByteValues(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 256) & 0xFF);
  return bytes;
}

// Writes `bytes` into column b of the rows of t_blob that match `where`, as a bound value.
bool WriteBlob(DbConnection& c, std::string_view bytes, std::string_view where,
               int64_t* affected = nullptr) {
  RecordSet rs;
  const bool ok = DBExecuteSQLCommand(
      c, Statement("UPDATE t_blob SET b = ? WHERE ").Sql(where).BindBinary(bytes), rs);
  if (affected != nullptr) *affected = rs.rows_affected;
  return ok;
}

// Column b of the first row of `select`; nothing when it fails, has no row or b is NULL.
std::optional<std::string> ReadBlob(DbConnection& c, std::string_view select) {
  RecordSet rs;
  if (!DBExecuteSQLCommand(c, Statement(select), rs)) return std::nullopt;
  return rs.Field(0, "b");
}

TEST_P(BinaryColumnTest, RoundTripsByteExactly) {
  struct Case {
    std::string bytes;
    const char* why;
  };
  const Case cases[] = {
      {"", "empty value stays empty, not NULL"},
      {std::string(1, '\0'), "a single NUL byte"},
      {AllByteValues(256), "every byte value once"},
      {AllByteValues(5 * 1024 * 1024 + 3), "five megabytes, longer than any fetch chunk"},
  };
  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  for (const Case& k : cases) {
    ASSERT_TRUE(WriteBlob(c, k.bytes, "k = 'x' AND n = 1")) << k.why;
    const std::optional<std::string> back = ReadBlob(c, "SELECT k, b, n FROM t_blob WHERE k = 'x'");
    ASSERT_TRUE(back.has_value()) << k.why;
    EXPECT_EQ(back->size(), k.bytes.size()) << k.why;
    EXPECT_TRUE(*back == k.bytes) << k.why;
    // The other row is untouched.
    EXPECT_EQ(ReadBlob(c, "SELECT b FROM t_blob WHERE k = 'y'"), "") << k.why;
  }
  // The column after the binary one is still read correctly.
  RecordSet rs;
  ASSERT_TRUE(DBExecuteSQLCommand(c, Statement("SELECT k, b, n FROM t_blob WHERE k = 'x'"), rs));
  EXPECT_EQ(rs.Field(0, "n"), "1");
}

TEST_P(BinaryColumnTest, WriteIsLoggedAndConditionsUseTheDialect) {
  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  int64_t affected = -1;
  EXPECT_TRUE(WriteBlob(c, "abc", "n = 2AND k = 'y'", &affected));
  EXPECT_EQ(affected, 1);
  EXPECT_EQ(ReadBlob(c, "SELECT b FROM t_blob WHERE k = 'y'"), "abc");
  EXPECT_NE(
      LogText().find("DBExecuteSQLCommand (OK) {UPDATE t_blob SET b = ? WHERE n = 2AND k = 'y'}"),
      std::string::npos);
  // No matching row: nothing written, still a success.
  EXPECT_TRUE(WriteBlob(c, "zzz", "k = 'none'", &affected));
  EXPECT_EQ(affected, 0);
  RecordSet rs;
  EXPECT_FALSE(DBExecuteSQLCommand(
      c, Statement("UPDATE t_missing SET b = ? WHERE k = 'x'").BindBinary("zzz"), rs));
  EXPECT_EQ(ReadBlob(c, "SELECT b FROM t_blob WHERE k = 'none'"), std::nullopt);
}

TEST(OdbcPooling, TestConfigurationTurnsPoolingOn) {
  SharedDatabases::Get();
  EXPECT_TRUE(OdbcPoolingEnabled());
}

// The [ODBC] switch as the driver manager reads it: yes, 1, on and true in any case; anything
// else (No, 0, nothing) leaves pooling off.
TEST(OdbcPooling, OnlyTheDriverManagersWordsForOnTurnItOn) {
  SharedDatabases::Get();
  const std::string saved = std::getenv("ODBCSYSINI");
  TempDir dir;
  ::setenv("ODBCSYSINI", dir.path().c_str(), 1);
  for (const auto& [value, on] : std::vector<std::pair<std::string, bool>>{{"Yes", true},
                                                                           {"1", true},
                                                                           {"ON", true},
                                                                           {"true", true},
                                                                           {"No", false},
                                                                           {"0", false},
                                                                           {"", false},
                                                                           {"2", false}}) {
    std::ofstream(dir.path() / "odbcinst.ini") << "[ODBC]\nPooling = " << value << "\n";
    EXPECT_EQ(OdbcPoolingEnabled(), on) << value;
  }
  ::setenv("ODBCSYSINI", saved.c_str(), 1);
}

// Several workers on one SQLite file: a reader inside a transaction does not hold up a
// writer, and a second writer waits for the first instead of failing as locked.
using SqliteConcurrencyTest = DbTest;

TEST_P(SqliteConcurrencyTest, ReadersNeverBlockAndASecondWriterWaits) {
  MustExecute({"CREATE TABLE t_num (n INTEGER)", "INSERT INTO t_num VALUES (1)"});
  EXPECT_EQ(Query("PRAGMA journal_mode"), "wal");
  const auto run = [](DbConnection& c, std::string_view sql, std::string* text = nullptr) {
    RecordSet rs;
    const bool ok = DBExecuteSQLCommand(c, Statement(sql), rs);
    if (ok && text != nullptr && !rs.Eof()) *text = rs.rows[0][0].value_or("");
    return ok;
  };
  DbConnection reader(db()), writer(db());
  ASSERT_TRUE(DBConnect(reader));
  ASSERT_TRUE(DBConnect(writer));

  // The reader's open transaction keeps its view of the table while the writer commits.
  reader.BeginTransaction();
  std::string count;
  ASSERT_TRUE(run(reader, "SELECT COUNT(*) FROM t_num", &count));
  EXPECT_EQ(count, "1");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(run(writer, "INSERT INTO t_num VALUES (2)")) << LogText();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1))
      << "the writer did not wait for the reader";
  ASSERT_TRUE(run(reader, "SELECT COUNT(*) FROM t_num", &count)) << LogText();
  EXPECT_EQ(count, "1");
  reader.EndTransaction(true);

  // While the writer's transaction is open, a reader sees the committed rows at once and a
  // second writer waits until the first commits.
  writer.BeginTransaction();
  ASSERT_TRUE(run(writer, "INSERT INTO t_num VALUES (3)"));
  ASSERT_TRUE(run(reader, "SELECT COUNT(*) FROM t_num", &count)) << LogText();
  EXPECT_EQ(count, "2");
  auto second = std::async(std::launch::async, [&] {
    DbConnection other(db());
    const auto begin = std::chrono::steady_clock::now();
    const bool ok = DBConnect(other) && run(other, "INSERT INTO t_num VALUES (4)");
    return std::make_pair(ok, std::chrono::steady_clock::now() - begin);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_TRUE(writer.EndTransaction(true));
  const auto [ok, waited] = second.get();
  EXPECT_TRUE(ok) << LogText();
  EXPECT_GE(waited, std::chrono::milliseconds(300)) << "the second writer did not wait";
  EXPECT_EQ(Query("SELECT COUNT(*) FROM t_num"), "4");
}

INSTANTIATE_TEST_SUITE_P(Engines, SqliteConcurrencyTest, ::testing::Values(Engine::kSqlite),
                         EngineName);

KALVO_INSTANTIATE_ENGINES(ConnectionTest);
KALVO_INSTANTIATE_ENGINES(BinaryColumnTest);

}  // namespace
}  // namespace kalvo::testing
