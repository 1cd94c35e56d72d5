// Creating, dropping, upgrading and checking the server's tables on each engine, and the
// check and repair of data the operations cannot work with (a doubled default group and the
// membership rows a registration stores while it is doubled).
#include "db/schema.h"

#include <string>

#include "db/consistency.h"
#include "db/tokens.h"
#include "domain_fixture.h"

namespace kalvo::testing {
namespace {

TEST(CreateTableStatement, UsesTheTypeSettingsWithNoOtherBlanks) {
  DatabaseSettings s;
  s.string_type = "S";
  s.string_max_size = 77;
  s.number_type = "N";
  s.blob_type = "B";
  EXPECT_EQ(CreateTableStatement(4, s),
            "CREATE TABLE tbl_kdx_token (token_guid S(36), token_person S(77), "
            "token_description S(77), token_creation S(19), token_last_use S(19), "
            "token_last_ip S(15), token_certificate B, token_user_dn S(77))");
  EXPECT_EQ(CreateTableStatement(3, s),
            "CREATE TABLE tbl_kdx_tmp_blob (tmp_string S(1), tmp_blob B)");
  EXPECT_EQ(
      CreateTableStatement(10, s),
      "CREATE TABLE tbl_kdx_job_data (action_guid S(36), action_data B, action_data_order N)");
  EXPECT_EQ(CreateTableStatement(0, s), "");
  EXPECT_EQ(CreateTableStatement(14, s), "");
  EXPECT_EQ(TableName(13), "tbl_kdx_logging_client");
}

TEST(CreateTableStatement, EveryTableIsCreatedWhole) {
  DatabaseSettings s;
  s.string_type = "S";
  s.string_max_size = 77;
  s.number_type = "N";
  s.blob_type = "B";
  // Every column, in order, with its width: a width of the schema is part of its contract
  // with existing databases.
  const char* const expected[] = {
      "",
      "CREATE TABLE tbl_kdx_tmp_string (tmp_string S(77))",
      "CREATE TABLE tbl_kdx_tmp_number (tmp_number N)",
      "CREATE TABLE tbl_kdx_tmp_blob (tmp_string S(1), tmp_blob B)",
      "CREATE TABLE tbl_kdx_token (token_guid S(36), token_person S(77), token_description "
      "S(77), token_creation S(19), token_last_use S(19), token_last_ip S(15), token_certificate "
      "B, token_user_dn S(77))",
      "CREATE TABLE tbl_kdx_groups (group_guid S(36), group_name S(77), group_description S(77), "
      "group_abilities N)",
      "CREATE TABLE tbl_kdx_token_groups (token_guid S(36), group_guid S(36))",
      "CREATE TABLE tbl_kdx_backup (token_guid S(36), backup_name S(77), backup_index N, "
      "backup_order N, backup_type N, backup_size N, backup_data B, backup_time S(19))",
      "CREATE TABLE tbl_kdx_job_properties (action_guid S(36), action_name S(77), action_type N, "
      "action_period N, action_priority N, action_first_time S(19), action_last_time S(19), "
      "action_stopped N)",
      "CREATE TABLE tbl_kdx_job_members (action_guid S(36), member_guid S(36))",
      "CREATE TABLE tbl_kdx_job_data (action_guid S(36), action_data B, action_data_order N)",
      "CREATE TABLE tbl_kdx_job_data_source (action_guid S(36), data_source S(77), "
      "data_source_owner S(77))",
      "CREATE TABLE tbl_kdx_job_state (action_guid S(36), token_guid S(36), last_time S(19), "
      "action_counter N, success_counter N)",
      "CREATE TABLE tbl_kdx_logging_client (token_guid S(36), user_name S(77), token_action "
      "S(77), token_timestamp S(19), token_ip S(15), action_guid S(36), token_user_dn S(77))",
  };
  for (int index = 1; index <= 13; ++index) {
    EXPECT_EQ(CreateTableStatement(index, s), expected[index]) << "table " << index;
  }
}

TEST(TableStateName, NamesEveryState) {
  EXPECT_EQ(TableStateName(TableState::kUpToDate), "UpToDate");
  EXPECT_EQ(TableStateName(TableState::kConnectFailed), "ConnectFailed");
  EXPECT_EQ(TableStateName(TableState::kNoTables), "NoTables");
  EXPECT_EQ(TableStateName(TableState::kTableMissing), "TableMissing");
  EXPECT_EQ(TableStateName(TableState::kColumnMissing), "ColumnMissing");
  EXPECT_EQ(TableStateName(TableState::kDataMissing), "DataMissing");
  EXPECT_EQ(TableStateName(static_cast<TableState>(9)), "Unknown");
}

class SchemaTest : public DbTest {
 protected:
  // The configuration request's parameter text for the engine under test; user and
  // password pass through the (here identity) decryption.
  std::string Parameters(std::string_view dsn = "") const {
    const DatabaseSettings s = Settings();
    std::string p;
    for (const std::string& f : {dsn.empty() ? s.dsn : std::string(dsn), s.user, s.password,
                                 s.string_type, std::to_string(s.string_max_size), s.number_type,
                                 s.blob_type, std::to_string(s.blob_max_size), std::string("1")}) {
      p += f;
      p += '\0';
    }
    p.pop_back();
    return p;
  }

  ConfigDatabaseHooks Hooks() {
    ConfigDatabaseHooks h;
    h.decrypt = [](std::string_view cipher) { return std::string(cipher); };
    h.language = [](std::string_view section, std::string_view key) -> std::string {
      if (section != "DLG_GROUP_PROPERTIES") return "";
      if (key == "GROUP_EVERYONE") return "Jeder";
      if (key == "GROUP_EVERYONE_DESCRIPTION") return "Alle Token gehören dazu";
      return "";
    };
    h.store = [this](const DatabaseSettings& s) {
      ++stores_;
      stored_ = s;
    };
    return h;
  }

  int32_t Configure(int32_t mode) { return DBConfigDatabase(db(), Parameters(), mode, Hooks()); }

  TableState State() { return DBIsDatabaseUpToDate(db()); }

  int stores_ = 0;
  DatabaseSettings stored_;
};

TEST_P(SchemaTest, CreateOnAnEmptyDatabaseBuildsEverythingAndStoresTheSettings) {
  db().set_settings({});
  EXPECT_EQ(Configure(1), 0);
  EXPECT_EQ(stores_, 1);
  EXPECT_EQ(stored_.dsn, Settings().dsn);
  EXPECT_EQ(stored_.blob_max_size, 1000);
  EXPECT_EQ(db().settings().number_type, Settings().number_type);
  EXPECT_NE(LogText().find("DBConfigDatabase (OK)"), std::string::npos);
  EXPECT_EQ(State(), TableState::kUpToDate);
  EXPECT_EQ(Query("SELECT group_guid, group_name, group_description, group_abilities FROM "
                  "tbl_kdx_groups"),
            "2C39BFC3-7130-4937-B329-6C0863EC8375|Jeder|Alle Token gehören dazu|0");
}

TEST_P(SchemaTest, CreateOnAnExistingSchemaFailsTenTimesAndKeepsTheSettings) {
  ASSERT_EQ(Configure(1), 0);
  stores_ = 0;
  // Ten creates fail; the default row has no key to stop it, so it goes in again.
  EXPECT_EQ(Configure(1), 10);
  EXPECT_EQ(stores_, 0);
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_groups"), "2");
}

TEST_P(SchemaTest, DropCountsAbsentTablesAsDropped) {
  EXPECT_EQ(Configure(3), 0);
  EXPECT_EQ(State(), TableState::kNoTables);
  ASSERT_EQ(Configure(1), 0);
  MustExecute({"CREATE TABLE tbl_kdx_tmp_string (tmp_string VARCHAR(10))"});
  EXPECT_EQ(Configure(3), 0);
  EXPECT_EQ(State(), TableState::kNoTables);
  // The self-test's scratch tables are not the configuration's to drop.
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_tmp_string"), "0");
}

TEST_P(SchemaTest, RecreateDropsFirstAndReportsAFailedDropAboveHundred) {
  ASSERT_EQ(Configure(1), 0);
  MustExecute({"INSERT INTO tbl_kdx_token_groups VALUES ('a', 'b')"});
  EXPECT_EQ(Configure(4), 0);
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_token_groups"), "0");
  EXPECT_EQ(State(), TableState::kUpToDate);

  // A view answers the probe but refuses DROP TABLE: that one drop fails, and nothing is
  // created afterwards.
  MustExecute({"DROP TABLE tbl_kdx_token", "CREATE VIEW tbl_kdx_token AS SELECT 1 AS x"});
  stores_ = 0;
  EXPECT_EQ(Configure(4), 101);
  EXPECT_EQ(stores_, 0);
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_groups WHERE group_guid IS NOT NULL"), "");
}

TEST_P(SchemaTest, BadParametersAndConnectFailuresGiveNegativeCodes) {
  std::string eight = Parameters();
  eight.erase(eight.rfind('\0'));
  EXPECT_EQ(DBConfigDatabase(db(), eight, 1, Hooks()), -2);
  EXPECT_NE(LogText().find("DBConfigDatabase (Error) - Array not big enough"), std::string::npos);
  EXPECT_EQ(DBConfigDatabase(db(), Parameters("kalvo_no_such_dsn"), 1, Hooks()), -1);
  EXPECT_NE(LogText().find("Verbindungsherstellung zur Datenbank nicht erfolgreich!"),
            std::string::npos);
  std::string not_a_number = Parameters();
  not_a_number.replace(not_a_number.find("255"), 3, "zwei");
  EXPECT_EQ(DBConfigDatabase(db(), not_a_number, 1, Hooks()), -3);
  EXPECT_EQ(stores_, 0);
  EXPECT_EQ(State(), TableState::kNoTables);
}

TEST_P(SchemaTest, StatesTellWhatIsMissing) {
  EXPECT_EQ(State(), TableState::kNoTables);
  MustExecute({CreateTableStatement(4, Settings())});
  EXPECT_EQ(State(), TableState::kTableMissing);
  ASSERT_EQ(Configure(4), 0);
  MustExecute({"DELETE FROM tbl_kdx_groups"});
  EXPECT_EQ(State(), TableState::kDataMissing);

  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  EXPECT_EQ(DBGetTableState(c, 2), TableState::kDataMissing);
  EXPECT_EQ(DBGetTableState(c, 1), TableState::kUpToDate);
  EXPECT_NE(LogText().find("DBGetTableState -> DataMissing"), std::string::npos);
  EXPECT_NE(LogText().find("DBIsDatabaseUpToDate -> DataMissing"), std::string::npos);

  DatabaseSettings nowhere;
  nowhere.dsn = "kalvo_no_such_dsn";
  Database elsewhere(SharedDatabases::Get().env(), SharedDatabases::Get().log(), nowhere);
  EXPECT_EQ(DBIsDatabaseUpToDate(elsewhere), TableState::kConnectFailed);
  EXPECT_EQ(
      CheckDatabaseState(SharedDatabases::Get().env(), SharedDatabases::Get().log(), Settings()),
      TableState::kDataMissing);
}

TEST_P(SchemaTest, UpgradeAddsMissingColumnsAndTables) {
  ASSERT_EQ(Configure(1), 0);
  // An older token table without the user's DN and the certificate, with a row in it.
  MustExecute({"DROP TABLE tbl_kdx_token",
               "CREATE TABLE tbl_kdx_token (token_guid VARCHAR(36), token_person VARCHAR(255), "
               "token_description VARCHAR(255), token_creation VARCHAR(19), token_last_use "
               "VARCHAR(19), token_last_ip VARCHAR(15))",
               "INSERT INTO tbl_kdx_token VALUES ('g', 'anna', '', '', '', '1.2.3.4')",
               "DROP TABLE tbl_kdx_job_state"});
  EXPECT_EQ(State(), TableState::kTableMissing);
  EXPECT_EQ(Configure(2), 0);
  EXPECT_EQ(State(), TableState::kUpToDate);
  EXPECT_EQ(Query("SELECT token_person, token_user_dn FROM tbl_kdx_token"), "anna|");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_job_state"), "0");

  // A second upgrade finds nothing to do.
  EXPECT_EQ(Configure(2), 0);
}

TEST_P(SchemaTest, AddColumnProbesBeforeAltering) {
  ASSERT_EQ(Configure(1), 0);
  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  ClearLog();
  EXPECT_TRUE(DBAddColumnIfNotExisting(c, 6, "token_guid", "VARCHAR", 36, "group_guid"));
  EXPECT_EQ(LogText().find("ALTER TABLE"), std::string::npos);
  EXPECT_NE(LogText().find("{SELECT token_guid, group_guid FROM tbl_kdx_token_groups}"),
            std::string::npos);
  EXPECT_TRUE(DBAddColumnIfNotExisting(c, 6, "extra_note", "VARCHAR", 20, ""));
  EXPECT_EQ(Query("SELECT COUNT(extra_note) FROM tbl_kdx_token_groups"), "0");
  EXPECT_FALSE(DBAddColumnIfNotExisting(c, 6, "bad_col", "NO_SUCH_TYPE(", 0, ""));
  EXPECT_NE(LogText().find("(DBAddColumnIfNotExisting)"), std::string::npos);
  // Outside the server's tables there is no table name, so the statement fails.
  EXPECT_FALSE(DBAddColumnIfNotExisting(c, 2, "tmp_number", "INTEGER", 0, ""));
}

TEST_P(SchemaTest, LookupIndexesComeWithTheTablesAndTheUpgradeWithoutCountingOrChangingState) {
  std::string names;
  // MariaDB names an index together with its table when dropping it.
  std::string on_token, on_logging;
  switch (GetParam()) {
    case Engine::kSqlite:
      names =
          "SELECT name FROM sqlite_master WHERE type = 'index' AND name LIKE 'ix_kdx_%' "
          "ORDER BY name";
      break;
    case Engine::kPostgres:
      names = "SELECT indexname FROM pg_indexes WHERE indexname LIKE 'ix_kdx_%' ORDER BY indexname";
      break;
    case Engine::kMariaDb:
      names =
          "SELECT DISTINCT index_name FROM information_schema.statistics WHERE table_schema = "
          "DATABASE() AND index_name LIKE 'ix_kdx_%' ORDER BY index_name";
      on_token = " ON tbl_kdx_token";
      on_logging = " ON tbl_kdx_logging_client";
      break;
  }
  const std::string all =
      "ix_kdx_backup_part$ix_kdx_job_data_action$ix_kdx_job_data_source_action$"
      "ix_kdx_job_members_action$ix_kdx_job_members_member$ix_kdx_job_properties_action$"
      "ix_kdx_job_state_action$ix_kdx_job_state_token$"
      "ix_kdx_logging_time$ix_kdx_logging_token$ix_kdx_token_groups_group$"
      "ix_kdx_token_groups_token$ix_kdx_token_guid";
  ASSERT_EQ(Configure(1), 0);
  EXPECT_EQ(Query(names), all);
  // A database made before the indexes existed stays up to date and gets them on upgrade.
  MustExecute(
      {"DROP INDEX ix_kdx_token_guid" + on_token, "DROP INDEX ix_kdx_logging_time" + on_logging});
  EXPECT_EQ(State(), TableState::kUpToDate);
  ClearLog();
  EXPECT_EQ(Configure(2), 0);
  EXPECT_EQ(Query(names), all);
  EXPECT_EQ(LogText().find("(Error) {CREATE INDEX"), std::string::npos)
      << "indexes that exist are left alone without an error";
  // An index that cannot be made is logged, never counted: here its table is a view.
  ASSERT_EQ(Configure(3), 0);
  ASSERT_EQ(Configure(1), 0);
  MustExecute({"DROP INDEX ix_kdx_token_guid" + on_token, "DROP TABLE tbl_kdx_token",
               "CREATE TABLE t_text (token_guid VARCHAR(36), token_person VARCHAR(255), "
               "token_description VARCHAR(255), token_creation VARCHAR(19), token_last_use "
               "VARCHAR(19), token_last_ip VARCHAR(15), token_certificate " +
                   Settings().blob_type + ", token_user_dn VARCHAR(255))",
               "CREATE VIEW tbl_kdx_token AS SELECT * FROM t_text"});
  ClearLog();
  EXPECT_EQ(Configure(2), 0);
  EXPECT_NE(LogText().find("ix_kdx_token_guid ON tbl_kdx_token (token_guid)}"), std::string::npos);
  EXPECT_NE(LogText().find("DBExecuteSQLCommand (Error) {CREATE INDEX"), std::string::npos);
  MustExecute({"DROP VIEW tbl_kdx_token", "DROP TABLE t_text"});
}

KALVO_INSTANTIATE_ENGINES(SchemaTest);

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";
constexpr const char* kAdmins = "B0000000-0000-4000-8000-000000000001";

class ConsistencyTest : public DomainDbTest {
 protected:
  // What a second creation of the default data on a filled database leaves.
  void DoubleTheDefaultGroup() {
    MustExecute(
        {"INSERT INTO tbl_kdx_groups VALUES ('2C39BFC3-7130-4937-B329-6C0863EC8375', "
         "'Jeder', 'Alle', 0)"});
  }
  std::string Memberships() {
    return Query(
        "SELECT token_guid, group_guid FROM tbl_kdx_token_groups "
        "ORDER BY token_guid, group_guid");
  }
};

TEST_P(ConsistencyTest, ACompleteDatabaseHasNoProblems) {
  EXPECT_EQ(DBSetLastTokenConnect(db(), kAnna, "anna", "10.0.0.1", ""), "NEWTOKEN");
  EXPECT_TRUE(DBFindDataProblems(db()).empty());
  EXPECT_EQ(DBRepairData(db()), 0);
  EXPECT_EQ(Memberships(), std::string(kAnna) + "|" + kJeder);
}

TEST_P(ConsistencyTest, DoubledDefaultGroupAndItsJoinedMembershipAreFoundAndRepaired) {
  DoubleTheDefaultGroup();
  // The registration looks the group up by name and stores both GUIDs in one row; an engine
  // that enforces the column's length refuses that row, and the token stays in no group.
  const bool joined = GetParam() == Engine::kSqlite;
  EXPECT_EQ(DBSetLastTokenConnect(db(), kAnna, "anna", "10.0.0.1", ""), joined ? "NEWTOKEN" : "");
  ASSERT_EQ(Memberships(), joined ? std::string(kAnna) + "|" + kJeder + " " + kJeder : "");
  // A console had also put the token into another group, which the repair must keep.
  MustExecute(
      {std::string("INSERT INTO tbl_kdx_groups VALUES ('") + kAdmins + "', 'Admins', '', 31)",
       std::string("INSERT INTO tbl_kdx_token_groups VALUES ('") + kAnna + "', '" + kAdmins +
           "')"});

  const std::vector<std::string> problems = DBFindDataProblems(db());
  ASSERT_EQ(problems.size(), joined ? 2u : 1u);
  EXPECT_NE(problems[0].find("is stored 2 times"), std::string::npos) << problems[0];
  if (joined) {
    EXPECT_NE(problems[1].find("1 membership row(s)"), std::string::npos);
  }

  EXPECT_EQ(DBRepairData(db()), joined ? 2 : 1);  // the group row, and the joined row
  EXPECT_TRUE(DBFindDataProblems(db()).empty());
  EXPECT_EQ(Query("SELECT group_name, group_description, group_abilities FROM tbl_kdx_groups "
                  "WHERE group_guid = '2C39BFC3-7130-4937-B329-6C0863EC8375'"),
            "Jeder|Alle|0");
  const std::string expected = joined
                                   ? std::string(kAnna) + "|" + kJeder + "$" + kAnna + "|" + kAdmins
                                   : std::string(kAnna) + "|" + kAdmins;
  EXPECT_EQ(Memberships(), expected);
  // Repairing a sound database changes nothing.
  EXPECT_EQ(DBRepairData(db()), 0);
  EXPECT_EQ(Memberships(), expected);
}

TEST_P(ConsistencyTest, JoinedRowWhosePairExistsIsOnlyDeleted) {
  if (GetParam() != Engine::kSqlite) GTEST_SKIP() << "only SQLite stores a 73-character GUID";
  MustExecute(
      {std::string("INSERT INTO tbl_kdx_token_groups VALUES ('") + kAnna + "', '" + kJeder + "')",
       std::string("INSERT INTO tbl_kdx_token_groups VALUES ('") + kAnna + "', '" + kJeder + " " +
           kJeder + "')"});
  EXPECT_EQ(DBRepairData(db()), 1);
  EXPECT_EQ(Memberships(), std::string(kAnna) + "|" + kJeder);
}

TEST_P(ConsistencyTest, MissingTablesAreReportedAsUncheckable) {
  MustExecute({"DROP TABLE tbl_kdx_token_groups"});
  const std::vector<std::string> problems = DBFindDataProblems(db());
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0].find("could not be checked"), std::string::npos);
  EXPECT_EQ(DBRepairData(db()), -1);
}

KALVO_INSTANTIATE_ENGINES(ConsistencyTest);

}  // namespace
}  // namespace kalvo::testing
