// Actions on each engine, with the database's clock set by the test: definitions and their
// payload parts, states, the scheduling rule, results and what a token is handed.
#include "db/actions.h"

#include <algorithm>

#include "domain_fixture.h"
#include "infra/arrays.h"

namespace kalvo::testing {
namespace {

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";
constexpr const char* kBert = "A1B2C3D4-0000-4000-8000-00000000000B";
constexpr const char* kTeam = "6A000000-0000-4000-8000-000000000001";
constexpr const char* kA1 = "AC000000-0000-4000-8000-000000000001";
constexpr const char* kA2 = "AC000000-0000-4000-8000-000000000002";
constexpr const char* kA3 = "AC000000-0000-4000-8000-000000000003";

class ActionsTest : public DomainDbTest {
 protected:
  void SetUp() override {
    DomainDbTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    // Anna and Bert form the group "Team".
    MustExecute(
        {"INSERT INTO tbl_kdx_token VALUES ('" + std::string(kAnna) + "','Anna','','','','','','')",
         "INSERT INTO tbl_kdx_token VALUES ('" + std::string(kBert) + "','Bert','','','','','','')",
         "INSERT INTO tbl_kdx_groups VALUES ('" + std::string(kTeam) + "','Team','',0)",
         "INSERT INTO tbl_kdx_token_groups VALUES ('" + std::string(kAnna) + "','" + kTeam + "')",
         "INSERT INTO tbl_kdx_token_groups VALUES ('" + std::string(kBert) + "','" + kTeam + "')"});
  }

  // An action of type 2 (with a payload) for Anna, period 1, running since 2027.
  static ActionDefinition Action(std::string_view guid, int32_t period = 1) {
    ActionDefinition a;
    a.guid = guid;
    a.name = "Zertifikat erneuern";
    a.type = 2;
    a.period = period;
    a.priority = 5;
    a.first_time = "2027-01-01-00-00-00";
    a.members = kAnna;
    a.data = "payload";
    return a;
  }

  bool Define(const ActionDefinition& a, bool replace = false) {
    return DBSetActionData(db(), a, replace);
  }

  int32_t State(std::string_view guid) { return DBGetActionStateConnect(db(), guid); }

  bool Due(std::string_view action, std::string_view token) {
    DbConnection c(db());
    return DBConnect(c) && DBActionShallExecute(c, action, token);
  }

  // The state row of the token, as last_time|action_counter|success_counter.
  std::string StateRow(std::string_view action, std::string_view token) {
    return Query(
        "SELECT last_time, action_counter, success_counter FROM tbl_kdx_job_state "
        "WHERE action_guid = '" +
        std::string(action) + "' AND token_guid = '" + std::string(token) + "'");
  }

  std::vector<std::string> TokenActions(std::string_view token,
                                        std::vector<std::string>* types = nullptr) {
    DbConnection c(db());
    std::vector<std::string> actions;
    EXPECT_TRUE(DBConnect(c) && DBGetTokenActionGUIDs(c, token, actions, types));
    return actions;
  }
};

TEST_P(ActionsTest, ADefinitionIsStoredWithItsPartsAndReadBackWhole) {
  ActionDefinition a = Action(kA1);
  a.data = std::string(1000, 'x') + std::string(1000, '\0') + "|end";
  a.members = std::string(kAnna) + "$" + kTeam;
  a.sources = "ldap$admin\r\nfile$";
  ASSERT_TRUE(Define(a));
  EXPECT_EQ(Query("SELECT action_data_order FROM tbl_kdx_job_data ORDER BY action_data_order"),
            "1$2$3");
  EXPECT_EQ(DBGetActionObjectData(db(), kA1), a.data + "|ldap$admin\r\nfile$");
  EXPECT_EQ(DBGetAllActions(db()), std::string(kA1) +
                                       "$Zertifikat erneuern$2$1$5$2027-01-01-00-00-00$$0$2$" +
                                       kAnna + "," + kTeam);
  EXPECT_FALSE(Define(a)) << "the GUID is taken";
  EXPECT_TRUE(Logged("DBSetActionData (OK)"));

  // Replacing loses the execution states; deleting leaves nothing.
  ASSERT_TRUE(DBSetActionResult(db(), kA1, kAnna, "2027-02-01-10-00-00", 0));
  a.name = "neu";
  ASSERT_TRUE(Define(a, true));
  EXPECT_EQ(StateRow(kA1, kAnna), "");
  EXPECT_EQ(Query("SELECT action_name FROM tbl_kdx_job_properties"), "neu");
  EXPECT_EQ(DBDeleteAction(db(), kA1), "OK");
  for (const char* table : {"tbl_kdx_job_properties", "tbl_kdx_job_members", "tbl_kdx_job_data",
                            "tbl_kdx_job_data_source", "tbl_kdx_job_state"}) {
    EXPECT_EQ(Query("SELECT COUNT(*) FROM " + std::string(table)), "0") << table;
  }
  EXPECT_EQ(DBGetAllActions(db()), "");
}

TEST_P(ActionsTest, ADefinitionThatFailsPartWayLeavesThePreviousOneWhole) {
  ActionDefinition a = Action(kA1);
  a.data = std::string(2500, 'a');
  ASSERT_TRUE(Define(a));
  const std::string before = DBGetActionObjectData(db(), kA1);
  // The replacement fails at its last data source, after the delete and the payload.
  ActionDefinition b = Action(kA1);
  b.data = std::string(2500, 'b');
  b.sources = "ldap$admin\r\nx' OR 'a'='a$owner";
  EXPECT_FALSE(Define(b, true));
  EXPECT_EQ(DBGetActionObjectData(db(), kA1), before);
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_job_members"), "1");
  // A new definition that fails leaves no trace of itself.
  b.guid = kA2;
  EXPECT_FALSE(Define(b));
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_job_properties"), "1");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_job_data"), "3");
}

TEST_P(ActionsTest, StatesFollowSpanStopAndValidity) {
  SetClock("2027-06-01-12-00-00");
  ASSERT_TRUE(Define(Action(kA1)));
  ClearLog();
  EXPECT_EQ(State(kA1), kActionActive);
  for (const char* line : {"DBGetActionState (OK)", "DBValidateAction (OK)", "ActionHasData (OK)",
                           "DBAllMembersDone (OK)", "DBGetActionStateConnect (OK)"}) {
    EXPECT_TRUE(Logged(line)) << line;
  }

  ActionDefinition waiting = Action(kA2);
  waiting.first_time = "2027-06-01-12-00-01";
  ASSERT_TRUE(Define(waiting));
  EXPECT_EQ(State(kA2), kActionWaiting);

  ActionDefinition expired = Action(kA3);
  expired.last_time = "2027-05-31-23-59-59";
  expired.first_time = "2027-05-01-00-00-00";
  ASSERT_TRUE(Define(expired));
  EXPECT_EQ(State(kA3), kActionExpired);
  EXPECT_EQ(DBStartAction(db(), kA3, true), "OK");
  EXPECT_EQ(State(kA3), kActionStopped) << "stopped beats expired";
  EXPECT_EQ(Query("SELECT action_stopped FROM tbl_kdx_job_properties WHERE action_guid = '" +
                  std::string(kA3) + "'"),
            "1");
  EXPECT_EQ(DBStartAction(db(), kA3, false), "OK");
  EXPECT_EQ(State(kA3), kActionExpired);
  EXPECT_EQ(State("AC000000-0000-4000-8000-0000000000FF"), kActionNotFound);
}

TEST_P(ActionsTest, InvalidDefinitionsReportZero) {
  SetClock("2027-06-01-12-00-00");
  ActionDefinition type1 = Action(kA1);
  type1.type = kActionTypeWithoutData;  // carries data
  ASSERT_TRUE(Define(type1));
  EXPECT_EQ(State(kA1), kActionInvalid);

  ActionDefinition bare = Action(kA2);
  bare.data.clear();  // type 2 without data
  ASSERT_TRUE(Define(bare));
  EXPECT_EQ(State(kA2), kActionInvalid);

  ActionDefinition nobody = Action(kA3);
  nobody.members.clear();
  ASSERT_TRUE(Define(nobody));
  EXPECT_EQ(State(kA3), kActionInvalid);
  ASSERT_EQ(DBDeleteAction(db(), kA3), "OK");
  nobody = Action(kA3);
  nobody.last_time = "2026-12-31-00-00-00";  // ends before it begins
  ASSERT_TRUE(Define(nobody));
  EXPECT_EQ(State(kA3), kActionInvalid);
  ASSERT_EQ(DBDeleteAction(db(), kA3), "OK");
  nobody.last_time = "";
  nobody.first_time = "bald";
  ASSERT_TRUE(Define(nobody));
  EXPECT_EQ(State(kA3), kActionInvalid);

  type1 = Action("AC000000-0000-4000-8000-000000000004");
  type1.type = kActionTypeWithoutData;
  type1.data.clear();
  ASSERT_TRUE(Define(type1));
  EXPECT_EQ(State(type1.guid), kActionActive);
}

TEST_P(ActionsTest, AOnceActionRunsOnceAndCompletesWhenTheWholeGroupSucceeded) {
  SetClock("2027-06-01-12-00-00");
  ActionDefinition once = Action(kA1, 0);
  once.members = kTeam;
  ASSERT_TRUE(Define(once));
  MustExecute(
      {"INSERT INTO tbl_kdx_job_state VALUES ('" + std::string(kA1) + "','" + kAnna + "','',0,0)"});
  EXPECT_TRUE(Due(kA1, kAnna)) << "a state row with counter 0";
  EXPECT_TRUE(Due(kA1, kBert)) << "no state row";
  MustExecute({"DELETE FROM tbl_kdx_job_state"});

  EXPECT_TRUE(DBSetActionResult(db(), kA1, kAnna, "2027-06-01-12-00-00", 3));
  EXPECT_EQ(StateRow(kA1, kAnna), "2027-06-01-12-00-00|1|0") << "the first result honours its code";
  EXPECT_FALSE(Due(kA1, kAnna));
  EXPECT_EQ(State(kA1), kActionActive);
  EXPECT_TRUE(DBSetActionResult(db(), kA1, kAnna, "2027-06-02-12-00-00", 3));
  EXPECT_EQ(StateRow(kA1, kAnna), "2027-06-02-12-00-00|2|1") << "later ones count as successes";
  EXPECT_EQ(State(kA1), kActionActive) << "Bert has not run it";
  EXPECT_TRUE(DBSetActionResult(db(), kA1, kBert, "2027-06-02-12-00-00", 0));
  EXPECT_EQ(State(kA1), kActionCompleted);
}

TEST_P(ActionsTest, PeriodsCompareDatesFieldByField) {
  struct Case {
    int32_t period;
    const char* last;
    const char* now;
    bool due;
  } cases[] = {
      {2, "2027-01-31-23-00-00", "2027-02-01-00-10-00", true},   // a new month
      {2, "2027-02-01-00-10-00", "2027-02-01-23-59-00", false},  // the same day
      {2, "2027-02-01-23-59-00", "2027-02-02-00-00-00", true},   // hours do not count
      {3, "2027-03-01-10-00-00", "2027-03-07-23-00-00", false},  // six days
      {3, "2027-03-01-10-00-00", "2027-03-08-00-00-00", true},
      {3, "2027-03-28-10-00-00", "2027-04-01-00-00-00", true},  // across a month end
      {4, "2027-03-01-10-00-00", "2027-03-14-00-00-00", false},
      {4, "2027-03-01-10-00-00", "2027-03-15-00-00-00", true},
      {5, "2027-03-01-10-00-00", "2027-03-30-00-00-00", false},
      {5, "2027-03-01-10-00-00", "2027-03-31-00-00-00", true},
      {5, "2027-12-31-10-00-00", "2028-01-01-00-00-00", true},  // across a year end
      {5, "2027-12-15-10-00-00", "2027-12-31-00-00-00", false},
      {9, "2027-03-01-10-00-00", "2027-03-01-10-00-00", true},  // above 5: zero days
      {-1, "", "2027-03-01-10-00-00", false},                   // negative: never
      // A last time whose date does not compare is never due, whatever the period.
      {2, "20x7-03-01-10-00-00", "2027-03-05-00-00-00", false},
      {5, "2027-03-01-10-00-0x", "2028-03-05-00-00-00", true},  // the time is not looked at
      {5, "2027-0x-01-10-00-00", "2028-03-05-00-00-00", false},
      {9, "2027-03-xx-10-00-00", "2027-03-05-00-00-00", false},
      {9, "yyyy-03-01-10-00-00", "2027-03-05-00-00-00", false},
  };
  for (const Case& c : cases) {
    MustExecute({"DELETE FROM tbl_kdx_job_properties", "DELETE FROM tbl_kdx_job_state"});
    ASSERT_TRUE(Define(Action(kA1, c.period)));
    if (*c.last != '\0') {
      MustExecute({"INSERT INTO tbl_kdx_job_state VALUES ('" + std::string(kA1) + "','" + kAnna +
                   "','" + c.last + "',1,1)"});
    }
    SetClock(c.now);
    EXPECT_EQ(Due(kA1, kAnna), c.due) << c.period << " " << c.last << " -> " << c.now;
    MustExecute({"DELETE FROM tbl_kdx_job_members", "DELETE FROM tbl_kdx_job_data"});
  }
  ASSERT_TRUE(Define(Action(kA2, 2)));
  EXPECT_TRUE(Due(kA2, kAnna)) << "never run";
  EXPECT_FALSE(Due("AC000000-0000-4000-8000-0000000000FF", kAnna)) << "no such action";
}

TEST_P(ActionsTest, ATokenGetsItsDueActionsHighestPriorityFirst) {
  SetClock("2027-06-01-12-00-00");
  EXPECT_EQ(TokenActions(kAnna), std::vector<std::string>{kAnna}) << "no action: its own GUID";
  EXPECT_EQ(DBGetTaskCollection(db(), kAnna), std::vector<std::string>{});
  // Without an action the token's own GUID stands in the list and gives its line.
  EXPECT_EQ(DBGetTokenAction(db(), kAnna), std::string(kAnna) + "$$$0$0");

  ActionDefinition low = Action(kA1);
  low.priority = 1;
  low.members = kTeam;  // through the group
  ActionDefinition high = Action(kA2);
  high.priority = 9;
  high.data = "hoch";
  ActionDefinition stopped = Action(kA3);
  stopped.priority = 5;
  stopped.stopped = 1;
  ASSERT_TRUE(Define(low) && Define(high) && Define(stopped));
  std::vector<std::string> types;
  EXPECT_EQ(TokenActions(kAnna, &types), (std::vector<std::string>{kA2, kA3, kA1}));
  EXPECT_EQ(types, (std::vector<std::string>{"2", "2", "2"}));
  EXPECT_EQ(TokenActions(kBert), std::vector<std::string>{kA1});
  EXPECT_EQ(
      DBGetTaskCollection(db(), kAnna),
      (std::vector<std::string>{std::string(kA2) + "|2|hoch|", std::string(kA1) + "|2|payload|"}));

  ASSERT_TRUE(DBSetActionResult(db(), kA2, kAnna, "2027-06-01-12-00-00", 0));
  EXPECT_EQ(DBGetTokenAction(db(), kAnna), std::string(kA2) + "$Zertifikat erneuern$1$1$1\r\n" +
                                               kA3 + "$Zertifikat erneuern$1$0$0\r\n" + kA1 +
                                               "$Zertifikat erneuern$1$0$0");
  EXPECT_EQ(DBGetActionDetails(db(), kA1), std::string(kAnna) + "$Anna$0\r\n" + kBert + "$Bert$0");
  EXPECT_EQ(DBGetActionDetails(db(), kA2), std::string(kAnna) + "$Anna$2027-06-01-12-00-00$1$1");

  // A token that is a member directly and through a group has a line for each.
  ActionDefinition both = Action("AC000000-0000-4000-8000-000000000004");
  both.members = std::string(kAnna) + "$" + kTeam;
  ASSERT_TRUE(Define(both));
  EXPECT_EQ(DBGetActionDetails(db(), both.guid),
            std::string(kAnna) + "$Anna$0\r\n" + kAnna + "$Anna$0\r\n" + kBert + "$Bert$0");
}

TEST_P(ActionsTest, MembersAndDataSourcesAreSplitAtEveryDollar) {
  const struct {
    const char* members;
    const char* sources;
    bool stored;
    const char* member_rows;  // sorted
    const char* source_rows;  // sorted
    const char* why;
  } cases[] = {
      {"M1$M2", "ldap$admin", true, "M1$M2", "ldap|admin", "one member and one source each"},
      {"M1$$M2", "", true, "$M1$M2", "", "an empty element is a member too"},
      {"M1$", "", true, "$M1", "", "so is the one after a last dollar"},
      {"", "", true, "", "", "an empty members text writes no member"},
      {"M1", "ldap$admin$extra", true, "M1", "ldap|admin", "a third field is not the owner's"},
      {"M1", "ldap$\r\nfile$x", true, "M1", "file|x$ldap|", "an empty owner"},
      {"M1", "ldap", false, "", "", "a source line without an owner field fails it all"},
  };
  for (const auto& c : cases) {
    MustExecute({"DELETE FROM tbl_kdx_job_properties", "DELETE FROM tbl_kdx_job_members",
                 "DELETE FROM tbl_kdx_job_data", "DELETE FROM tbl_kdx_job_data_source"});
    ActionDefinition a = Action(kA1);
    a.members = c.members;
    a.sources = c.sources;
    EXPECT_EQ(Define(a), c.stored) << c.why;
    EXPECT_EQ(Query("SELECT member_guid FROM tbl_kdx_job_members ORDER BY member_guid"),
              c.member_rows)
        << c.why;
    EXPECT_EQ(Query("SELECT data_source, data_source_owner FROM tbl_kdx_job_data_source "
                    "ORDER BY data_source"),
              c.source_rows)
        << c.why;
  }
}

TEST_P(ActionsTest, NestedOperationsAndRowReadersLogUnderTheirOwnNames) {
  SetClock("2027-06-01-12-00-00");
  ActionDefinition a = Action(kA1);
  a.data = "0123456789";
  DatabaseSettings s = db().settings();
  s.blob_max_size = 4;
  db().set_settings(s);
  ASSERT_TRUE(Define(a));
  // Each part's size is logged just before the part's row is inserted.
  std::string log = LogText();
  size_t from = 0;
  for (int part = 1; part <= 3; ++part) {
    const size_t size_line = log.find("GetDataSplitSize (OK)", from);
    const size_t insert = log.find("INSERT INTO tbl_kdx_job_data ", from);
    ASSERT_NE(insert, std::string::npos) << part;
    EXPECT_LT(size_line, insert) << part;
    EXPECT_GT(log.find("GetDataSplitSize (OK)", size_line + 1), insert) << part;
    from = insert + 1;
  }

  // An update removes the old definition through the delete operation, on its own connection.
  ClearLog();
  ASSERT_TRUE(Define(a, true));
  log = LogText();
  EXPECT_EQ(Occurrences(log, "DBDeleteAction (OK)"), 1);
  EXPECT_EQ(Occurrences(log, "DBConnect (OK)"), 2);
  EXPECT_EQ(Occurrences(log, "DBDisconnect (OK)"), 2);
  EXPECT_LT(log.find("DBDeleteAction (OK)"), log.find("DBSetActionData (OK)"));

  // A hand-out reads each task's payload through the payload operation.
  ActionDefinition second = Action(kA2);
  ASSERT_TRUE(Define(second));
  ClearLog();
  ASSERT_EQ(DBGetTaskCollection(db(), kAnna).size(), 2u);
  log = LogText();
  EXPECT_EQ(Occurrences(log, "DBGetActionObjectData (OK)"), 2);
  // The token's actions are read as a matrix, and so is the definition that is validated.
  EXPECT_GE(Occurrences(log, "DBGetMatrixFromRecordSet (OK)"), 3);
}

TEST_P(ActionsTest, ChangingMembersForgetsTheStatesOfTokensThatLeave) {
  ActionDefinition a = Action(kA1);
  a.members = kTeam;
  ASSERT_TRUE(Define(a));
  ASSERT_TRUE(DBSetActionResult(db(), kA1, kAnna, "2027-06-01-12-00-00", 0));
  ASSERT_TRUE(DBSetActionResult(db(), kA1, kBert, "2027-06-01-12-00-00", 0));
  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  EXPECT_TRUE(DBUpdateActionState(c, kA1, std::string(kTeam) + "$" + kAnna));
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_job_state"), "2") << "nobody leaves";
  ClearLog();
  EXPECT_TRUE(DBUpdateActionState(c, kA1, kAnna));
  EXPECT_TRUE(Logged(std::string("{DELETE FROM tbl_kdx_job_state WHERE action_guid = '") + kA1 +
                     "' AND (token_guid = '" + kBert + "' )}"));
  EXPECT_EQ(Query("SELECT token_guid FROM tbl_kdx_job_state"), kAnna);
}

KALVO_INSTANTIATE_ENGINES(ActionsTest);

}  // namespace
}  // namespace kalvo::testing
