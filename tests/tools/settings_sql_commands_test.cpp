// Runs the settings and sql commands of the built kalvoctl against a fake server: the
// requests they send, in which order, what they print, and their exit status.
#include <string>

#include "fake_server.h"

namespace kalvo {
namespace {

const std::string kReport = "3$5$2$1$2$0$True$500$False$True$1000$False$90";
const std::string kAsk305 = "14|305|0||||0|";

using SettingsSqlCommandsTest = KalvoctlTest;

TEST_F(SettingsSqlCommandsTest, SqlSendsTheStatementAndPrintsTheResultSet) {
  FakeServer server({Wire(701, "Data:id|name$1|M\xFCller$2|")});
  const RunResult run =
      Kalvoctl("sql \"SELECT id, name FROM t WHERE p = 'M\xC3\xBCller'\"" + Port(server));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(server.received(), "56|701|0||||41|SELECT id, name FROM t WHERE p = 'M\xFCller'");
  EXPECT_EQ(run.out, "id  name\n1   M\xC3\xBCller\n2\n");
}

TEST_F(SettingsSqlCommandsTest, SqlJsonShowsRowsAcknowledgementsAndErrors) {
  {
    FakeServer server({Wire(701, "Data:a|b$1|\"x\"")});
    const RunResult run = Kalvoctl("sql --json 'SELECT a, b FROM t'" + Port(server));
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, "{\"columns\":[\"a\",\"b\"],\"rows\":[[\"1\",\"\\\"x\\\"\"]]}\n");
  }
  {
    FakeServer server({Wire(701, "OK:Der Befehl wurde korrekt abgearbeitet.")});
    const RunResult run = Kalvoctl("sql 'DELETE FROM t'" + Port(server));
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, "OK: Der Befehl wurde korrekt abgearbeitet.\n");
  }
  {
    FakeServer server({Wire(701, "Error:-2147217865|no such table: t")});
    const RunResult run = Kalvoctl("sql --json 'SELECT * FROM t'" + Port(server));
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_EQ(run.out, "{\"error\":{\"number\":-2147217865,\"message\":\"no such table: t\"}}\n");
    EXPECT_EQ(run.err, "kalvoctl: error -2147217865: no such table: t\n");
  }
  {
    FakeServer server({Wire(701, "Error:1|near \"SELEC\": syntax error")});
    const RunResult run = Kalvoctl("sql 'SELEC 1'" + Port(server));
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_EQ(run.out, "") << "for people the error goes to standard error only";
    EXPECT_EQ(run.err, "kalvoctl: error 1: near \"SELEC\": syntax error\n");
  }
}

TEST_F(SettingsSqlCommandsTest, SqlWarnsWhenValuesHeldTheSeparators) {
  FakeServer server({Wire(701, "Data:a|b$1|x|y$2|z")});
  const RunResult run = Kalvoctl("sql 'SELECT a, b FROM t'" + Port(server));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.err,
            "kalvoctl: warning: 1 of 2 rows do not have 2 values: a value holds \"|\" or \"$\"\n");
}

TEST_F(SettingsSqlCommandsTest, SettingsShowsTheReport) {
  FakeServer server({Wire(305, kReport)});
  const RunResult run = Kalvoctl("settings" + Port(server));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(server.received(), kAsk305);
  EXPECT_EQ(run.out.substr(0, run.out.find("BackupAdmin")),
            "SETTING               VALUE\nBackupAutomatic       3\n");
}

TEST_F(SettingsSqlCommandsTest, SetReadsChangesWritesAllThirteenAndReadsAgain) {
  // Someone else changed BackupAdmin meanwhile: what is printed is the second report.
  const std::string after = "3$6$2$1$3$0$False$500$False$True$1000$False$90";
  FakeServer server(std::vector<std::vector<std::string>>{
      {Wire(305, kReport)},
      {Wire(102, "0A1B2C3D-0000-4000-8000-000000000001", "10.0.0.9"), Wire(306, "")},
      {Wire(305, after)}});
  const RunResult run =
      Kalvoctl("settings --json --set logserver=3 --set AuditIsActive=no" + Port(server));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  // Only the log value needs a word: the server keeps it at its start-up name elsewhere.
  EXPECT_TRUE(
      run.err.starts_with("kalvoctl: note: LogServer takes effect at once and sets the "
                          "log level"))
      << run.err;
  EXPECT_NE(run.err.find("reads KDX\\Log LogServer at start-up"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("AuditIsActive"), std::string::npos) << run.err;
  EXPECT_EQ(server.received(),
            kAsk305 + "61|306|0||||46|3$5$2$1$3$0$False$500$False$True$1000$False$90" + kAsk305);
  EXPECT_EQ(run.out.substr(0, 81),
            "{\"BackupAutomatic\":3,\"BackupAdmin\":6,\"BackupClient\":2,\"LogAdmin\":1,"
            "\"LogServer\":3,");
}

TEST_F(SettingsSqlCommandsTest, SetWritesNothingBackWhenTheReportDoesNotRead) {
  FakeServer server(
      std::vector<std::vector<std::string>>{{Wire(305, "3$5$2")}, {Wire(306, "")}, {}});
  const RunResult run = Kalvoctl("settings --set LogServer=3" + Port(server));
  EXPECT_EQ(run.exit_code, 3);
  EXPECT_EQ(server.received(), kAsk305) << "no 306 went out";
  EXPECT_EQ(run.err, "kalvoctl: the server sent 3 values instead of 13; nothing changed\n");
  EXPECT_EQ(run.out, "");
}

TEST_F(SettingsSqlCommandsTest, UnansweredConsoleRequestsAskAboutTheAllowedAddresses) {
  const std::string hint = ": is this address in AdminAllowedAddresses?\n";
  {
    FakeServer server(std::vector<std::string>{});
    const RunResult run = Kalvoctl("settings --timeout 0.5" + Port(server));
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_EQ(run.err, "kalvoctl: no answer to request 305 from 127.0.0.1:" +
                           std::to_string(server.port()) + " within 0.5 seconds" + hint);
  }
  {
    // The change went out but was not answered.
    FakeServer server(std::vector<std::vector<std::string>>{{Wire(305, kReport)}, {}});
    const RunResult run = Kalvoctl("settings --timeout 0.5 --set BackupClient=4" + Port(server));
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_NE(run.err.find("no answer to request 306"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
  }
  {
    FakeServer server(std::vector<std::string>{});
    const RunResult run = Kalvoctl("sql --timeout 0.5 'SELECT 1'" + Port(server));
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_NE(run.err.find("within 0.5 seconds" + hint), std::string::npos) << run.err;
  }
  {
    // A token client's request is served whatever the address: no such question.
    FakeServer server(std::vector<std::string>{});
    const RunResult run = Kalvoctl(
        "backup-put 0A1B2C3D-0000-4000-8000-000000000001 --type 1 --name x --in "
        "/dev/null --timeout 0.5" +
        Port(server));
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_EQ(run.err, "kalvoctl: no answer to request 115 from 127.0.0.1:" +
                           std::to_string(server.port()) + " within 0.5 seconds\n");
  }
}

TEST_F(SettingsSqlCommandsTest, BadArgumentsExitWithTwoBeforeConnecting) {
  // Port 1 has no listener: reaching it would exit with 1, not 2.
  const struct {
    std::string args;
    std::string message;  // part of standard error
  } cases[] = {
      {"sql", "TEXT is required"},
      {"settings --set Backup=1", "the settings are BackupAutomatic, BackupAdmin"},  // unknown
      {"settings --set LogServer", "NAME=VALUE"},                                    // no value
      {"settings --set LogServer=4.5", "LogServer takes a whole number"},
      {"settings --set LogServer=4294967296", "LogServer takes a whole number"},  // 33 bits
      {"settings --set AuditIsActive=an", "AuditIsActive takes true or false"},
      {"settings --set LogAdmin=1 --set AuditIsLimited=2", "AuditIsLimited takes"},  // 2nd one
  };
  for (const auto& c : cases) {
    const RunResult run = Kalvoctl(c.args + " --port 1");
    EXPECT_EQ(run.exit_code, 2) << c.args;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << c.args << ": " << run.err;
  }
}

}  // namespace
}  // namespace kalvo
