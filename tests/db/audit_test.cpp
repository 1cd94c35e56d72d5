// The client audit log on each engine: writing, trimming and the console's query.
#include "db/audit.h"

#include "db/tokens.h"
#include "domain_fixture.h"
#include "infra/arrays.h"

namespace kalvo::testing {
namespace {

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";
constexpr const char* kBert = "A1B2C3D4-0000-4000-8000-00000000000B";

class AuditTest : public DomainDbTest {
 protected:
  AuditSettings Active() const {
    AuditSettings s;
    s.is_active = true;
    return s;
  }

  // Writes an entry for `guid` at `timestamp`.
  void Write(const AuditSettings& s, std::string_view timestamp, AuditAction action,
             std::string_view guid = kAnna) {
    SetClock(timestamp);
    DBLogClientAction(db(), s, std::string(guid) + '\0' + "CN=U" + '\0' + "user", action,
                      "10.0.0.7", "");
  }

  int Count() { return std::stoi(Query("SELECT COUNT(*) FROM tbl_kdx_logging_client")); }

  std::string Get(const AuditQuery& q, int32_t max_rows = 100) {
    total_.clear();
    return DBGetLoggingInformation(db(), max_rows, q, total_);
  }

  std::string total_;
};

TEST_P(AuditTest, InactiveWritesNothingAndActiveWritesTheIdentityFields) {
  AuditSettings off = Active();
  off.is_active = false;
  off.is_limited = true;
  Write(off, "2027-01-01-00-00-00", AuditAction::kConnect);
  EXPECT_EQ(Count(), 0);
  EXPECT_FALSE(Logged("DBDeleteLoggingInformation")) << "no trimming either";

  Write(Active(), "2027-01-01-00-00-01", AuditAction::kRemove);
  DBLogClientAction(db(), Active(), kBert, static_cast<AuditAction>(9), "10.0.0.9", "act");
  EXPECT_EQ(Query("SELECT token_guid, user_name, token_action, token_timestamp, token_ip, "
                  "action_guid, token_user_dn FROM tbl_kdx_logging_client ORDER BY token_guid"),
            std::string(kAnna) + "|user|REMOVE|2027-01-01-00-00-01|10.0.0.7||CN=U$" + kBert +
                "||UNKNOWN|2027-01-01-00-00-01|10.0.0.9|act|");
  EXPECT_TRUE(Logged("{INSERT INTO tbl_kdx_logging_client VALUES ('" + std::string(kAnna) +
                     "', 'user', 'REMOVE', '2027-01-01-00-00-01', '10.0.0.7', '', 'CN=U')}"));
}

TEST_P(AuditTest, TrimmingByCountKeepsTheNewestAndTiesStayTogether) {
  AuditSettings s = Active();
  s.is_limited = true;
  s.save_max_count = 3;
  for (int i = 0; i < 6; ++i) {
    Write(s, "2027-01-01-00-00-0" + std::to_string(i), AuditAction::kConnect);
    EXPECT_LE(Count(), 3);
  }
  EXPECT_TRUE(Logged("DBDeleteLoggingInformation returned OK"));
  EXPECT_EQ(Query("SELECT MIN(token_timestamp) FROM tbl_kdx_logging_client"),
            "2027-01-01-00-00-03");
  // Two entries share the second-newest time stamp: both stay with the next write, so the
  // table briefly holds more than the limit rather than losing one of them arbitrarily.
  MustExecute({"DELETE FROM tbl_kdx_logging_client",
               "INSERT INTO tbl_kdx_logging_client VALUES "
               "('a','','CONNECT','2027-01-02-00-00-01','','','')",
               "INSERT INTO tbl_kdx_logging_client VALUES "
               "('b','','CONNECT','2027-01-02-00-00-02','','','')",
               "INSERT INTO tbl_kdx_logging_client VALUES "
               "('c','','CONNECT','2027-01-02-00-00-02','','','')"});
  s.save_max_count = 2;  // keeps the newest time stamp: the two tied entries
  Write(s, "2027-01-02-00-00-03", AuditAction::kConnect);
  EXPECT_EQ(Query("SELECT token_guid FROM tbl_kdx_logging_client WHERE token_timestamp < "
                  "'2027-01-02-00-00-03' ORDER BY token_guid"),
            "b$c");
}

TEST_P(AuditTest, TrimmingByAgeHappensEvenWhenTheDaysFlagIsOff) {
  MustExecute(
      {"INSERT INTO tbl_kdx_logging_client VALUES "
       "('old','','CONNECT','2027-02-26-23-59-59','','','')",
       "INSERT INTO tbl_kdx_logging_client VALUES "
       "('kept','','CONNECT','2027-02-27-00-00-00','','','')"});
  AuditSettings s = Active();
  s.is_limited = true;
  s.is_save_max_count = false;
  s.is_save_max_days = false;
  s.save_max_days = 2;
  Write(s, "2027-03-01-15-30-00", AuditAction::kConnect);
  EXPECT_TRUE(
      Logged("{DELETE FROM tbl_kdx_logging_client WHERE token_timestamp < "
             "'2027-02-27-00-00-00'}"));
  EXPECT_EQ(Query("SELECT token_guid FROM tbl_kdx_logging_client ORDER BY token_guid"),
            std::string(kAnna) + "$kept");
}

TEST_P(AuditTest, DeletingAllEmptiesTheTable) {
  Write(Active(), "2027-01-01-00-00-00", AuditAction::kConnect);
  EXPECT_EQ(DBDeleteLoggingInformation(db(), true, true, 5, true, 5), "OK");
  EXPECT_EQ(Count(), 0);
}

// Trimming by count keeps every entry whose time stamp is among the newest n - 1 entries'
// time stamps: ties at the boundary stay or go together, and the new entry makes n.
struct TrimCase {
  const char* name;
  std::vector<const char*> stamps;  // entry i is named "r<i>"; nullptr writes NULL
  int32_t count;
  const char* result;
  const char* kept;  // names of the entries left, in name order
};

class AuditTrimTest : public AuditTest {
 protected:
  // Replaces the table's entries by `stamps`.
  void Fill(const std::vector<const char*>& stamps) {
    MustExecute({"DELETE FROM tbl_kdx_logging_client"});
    for (size_t i = 0; i < stamps.size(); ++i) {
      const std::string stamp =
          stamps[i] == nullptr ? std::string("NULL") : "'" + std::string(stamps[i]) + "'";
      const std::string sql = "INSERT INTO tbl_kdx_logging_client VALUES ('r" + std::to_string(i) +
                              "','','CONNECT'," + stamp + ",'','','')";
      MustExecute({sql});
    }
  }
  std::string Kept() {
    return Query("SELECT token_guid FROM tbl_kdx_logging_client ORDER BY token_guid");
  }
};

TEST_P(AuditTrimTest, ByCountKeepsTheNewestTimeStampsWithTheirTies) {
  const char* a = "2027-01-01-00-00-01";
  const char* b = "2027-01-01-00-00-02";
  const char* c = "2027-01-01-00-00-03";
  const char* d = "2027-01-01-00-00-04";
  const TrimCase cases[] = {
      {"the newest n-1 stay", {a, b, c, d}, 3, "OK", "r2$r3"},
      {"one deletes everything", {a, b, c}, 1, "OK", ""},
      {"n-1 equal to the entries deletes nothing", {a, b, c}, 4, "OK", "r0$r1$r2"},
      {"n-1 above the entries deletes nothing", {a, b}, 100, "OK", "r0$r1"},
      {"an empty table", {}, 3, "OK", ""},
      {"ties at the boundary stay together", {a, b, b, c}, 3, "OK", "r1$r2$r3"},
      {"ties below the boundary go together", {a, a, b}, 2, "OK", "r2"},
      {"all tied: nothing goes", {b, b, b}, 2, "OK", "r0$r1$r2"},
      {"order of insertion does not matter", {d, a, c, b}, 3, "OK", "r0$r2"},
      {"an empty time stamp is the oldest", {"", a, b}, 3, "OK", "r1$r2"},
      {"one with a NULL time stamp deletes everything", {nullptr, a, b}, 1, "OK", ""},
      {"zero is refused by the engine", {a, b}, 0, "ERROR", "r0$r1"},
      {"a negative count is refused by the engine", {a, b}, -5, "ERROR", "r0$r1"},
  };
  for (const TrimCase& t : cases) {
    SCOPED_TRACE(t.name);
    Fill(t.stamps);
    EXPECT_EQ(DBDeleteLoggingInformation(db(), false, true, t.count, false, 7), t.result);
    EXPECT_EQ(Kept(), t.kept);
  }
}

TEST_P(AuditTrimTest, ByCountWithNullTimeStampsFollowsTheEnginesNullOrder) {
  // NULL sorts last in a descending order on SQLite and MariaDB, first on PostgreSQL; a NULL
  // among the newest n - 1 keeps every entry, and a NULL entry itself is never older than one.
  Fill({nullptr, "2027-01-01-00-00-01", "2027-01-01-00-00-02", "2027-01-01-00-00-03"});
  EXPECT_EQ(DBDeleteLoggingInformation(db(), false, true, 3, false, 7), "OK");
  EXPECT_EQ(Kept(), GetParam() == Engine::kPostgres ? "r0$r1$r2$r3" : "r0$r2$r3");
  Fill({nullptr, nullptr, "2027-01-01-00-00-01"});
  EXPECT_EQ(DBDeleteLoggingInformation(db(), false, true, 3, false, 7), "OK");
  EXPECT_EQ(Kept(), "r0$r1$r2");
}

class AuditQueryTest : public AuditTest {
 protected:
  void SetUp() override {
    AuditTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(DBSetLastTokenConnect(db(), kAnna, "", "10.0.0.7", ""), "NEWTOKEN");
    ASSERT_EQ(DBSetLastTokenConnect(db(), kBert, "", "10.0.0.9", ""), "NEWTOKEN");
    ASSERT_TRUE(DBSetTokenData(db(), kAnna, "Moller|"));
    ASSERT_TRUE(DBSetTokenData(db(), kBert, "Muller Hans|"));
    const AuditSettings s = Active();
    Write(s, "2027-01-01-00-00-01", AuditAction::kConnect);
    Write(s, "2027-01-01-00-00-02", AuditAction::kExecute);
    Write(s, "2027-01-01-00-00-03", AuditAction::kRemove, kBert);
    Write(s, "2027-01-01-00-00-04", AuditAction::kDisconnect, kBert);
    // An entry of a token that no longer exists is counted but never shown.
    Write(s, "2027-01-01-00-00-05", AuditAction::kConnect, "DELETED0-0000-0000-0000-000000000000");
  }

  // The time stamps (seconds only) of the entries a query returns, newest first.
  std::string Seconds(const AuditQuery& q, int32_t max_rows = 100) {
    std::string out;
    for (const std::string& row : Split(Get(q, max_rows), "\r\n")) {
      if (!out.empty()) out += ",";
      out += Split(row, "|").at(4).substr(17);
    }
    return out;
  }
};

TEST_P(AuditQueryTest, RowsAreNewestFirstWithTheTotalOfTheTable) {
  const std::string rows = Get(AuditQuery{});
  EXPECT_EQ(total_, "5");
  EXPECT_EQ(Split(rows, "\r\n").at(0), std::string(kBert) +
                                           "|Muller Hans|user|DISCONNECT|2027-01-01-00-00-04|"
                                           "10.0.0.7|CN=U");
  EXPECT_EQ(Seconds(AuditQuery{}), "04,03,02,01");
  EXPECT_EQ(Seconds(AuditQuery{}, 2), "04,03") << "at most the display count, the newest";
  EXPECT_EQ(Seconds(AuditQuery{}, 0), "");
}

TEST_P(AuditQueryTest, TheDisplayCountCutsAfterTheFiltersAndTheJoin) {
  AuditQuery connects;
  connects.mask = 1;
  AuditQuery bert;
  bert.text_filters = "*\r\n*\r\n" + std::string(kBert) + "\r\n*";
  const struct {
    const char* name;
    AuditQuery query;
    int32_t max_rows;
    const char* seconds;
  } cases[] = {
      {"the entry of a deleted token takes no place", AuditQuery{}, 1, "04"},
      {"more than there are", AuditQuery{}, 1000, "04,03,02,01"},
      {"exactly as many as there are", AuditQuery{}, 4, "04,03,02,01"},
      {"a negative count shows nothing", AuditQuery{}, -3, ""},
      {"the mask before the count", connects, 1, "01"},
      {"a text filter before the count", bert, 1, "04"},
  };
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    EXPECT_EQ(Seconds(t.query, t.max_rows), t.seconds);
    EXPECT_EQ(total_, "5") << "the total counts the whole table";
  }
}

TEST_P(AuditQueryTest, TiesAtTheDisplayCountGiveThatManyOfTheTiedEntries) {
  // Entries of equal time stamps come in no defined order, so which of them fill the last
  // places is open; how many, and their time stamps, are not.
  Write(Active(), "2027-01-01-00-00-04", AuditAction::kBackup, kAnna);
  Write(Active(), "2027-01-01-00-00-04", AuditAction::kRestore, kAnna);
  EXPECT_EQ(Seconds(AuditQuery{}, 2), "04,04");
  EXPECT_EQ(Seconds(AuditQuery{}, 4), "04,04,04,03");
  EXPECT_EQ(total_, "7");
}

TEST_P(AuditQueryTest, TheMaskUsesTheFilterBitsNotTheCodes) {
  AuditQuery q;
  q.mask = 3;  // CONNECT and REMOVE
  EXPECT_EQ(Seconds(q), "03,01");
  EXPECT_TRUE(
      Logged("AND (tbl_kdx_logging_client.token_action = 'CONNECT' OR "
             "tbl_kdx_logging_client.token_action = 'REMOVE') "));
  q.mask = 16 + 32;
  EXPECT_EQ(Seconds(q), "04,02");
  q.mask = 127;
  EXPECT_EQ(Seconds(q), "04,03,02,01");
}

TEST_P(AuditQueryTest, TextAndTimeFilters) {
  AuditQuery q;
  q.text_filters = "M?ller*\r\n*\r\n*\r\n*";
  EXPECT_EQ(Seconds(q), "04,03,02,01") << "Moller and Muller Hans alike";
  EXPECT_TRUE(Logged("AND tbl_kdx_token.token_person LIKE 'M_ller%' "));
  q.text_filters = "Muller*";
  EXPECT_EQ(Seconds(q), "04,03") << "missing lines are no filter";
  q.text_filters = "\r\n\r\n" + std::string(kAnna) + "\r\n10.0.0.*";
  EXPECT_EQ(Seconds(q), "02,01");
  q.text_filters = "*\r\n*\r\n*\r\n*\r\nZ*";
  EXPECT_EQ(Seconds(q), "04,03,02,01") << "only four text filters are read";
  q.text_filters = "";
  q.time_filters = "2027-01-01-00-00-01\r\n2027-01-01-00-00-04";
  EXPECT_EQ(Seconds(q), "03,02") << "both bounds are exclusive";
  q.time_filters = "*\r\n2027-01-01-00-00-03";
  EXPECT_EQ(Seconds(q), "02,01");
  q.time_filters = "O'Brien";
  EXPECT_EQ(Get(q), "") << "a quote in a filter fails the query";
  EXPECT_TRUE(Logged("value holds a quote character"));
}

KALVO_INSTANTIATE_ENGINES(AuditTest);
KALVO_INSTANTIATE_ENGINES(AuditQueryTest);
KALVO_INSTANTIATE_ENGINES(AuditTrimTest);

}  // namespace
}  // namespace kalvo::testing
