// Runs the administrator commands of the built kalvoctl against a fake server: the request each
// one sends, what it prints, and its exit status.
#include <chrono>
#include <string>

#include "fake_server.h"

namespace kalvo {
namespace {

const std::string kG1 = "0A1B2C3D-0000-4000-8000-000000000001";
const std::string kG2 = "0A1B2C3D-0000-4000-8000-000000000002";

using TokenCommandsTest = KalvoctlTest;

// A settings report (305) with auditing on, and the request that asks for it.
const std::string kAuditOn = "3$5$2$1$2$0$True$500$False$True$1000$False$90";
const std::string kAsk305 = "14|305|0||||0|";

TEST_F(TokenCommandsTest, TokensAsksWithoutOwnTokenAndSkipsBroadcasts) {
  // A broadcast that reached the console before the answer must not be taken for it.
  FakeServer server({Wire(102, kG2, "10.0.0.9"),
                     Wire(401, kG1 + "$M\xFCller$Laptop$2024-05-01-09-05-33$$10.0.0.7$$Ja$10.0.0.7",
                          "1", "", "255")});
  const RunResult run = Kalvoctl("tokens --timeout 5" + Port(server));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(server.received(), "20|401|0|UPDATE|||0|");
  EXPECT_EQ(run.out,
            "GUID                                  PERSON  DESCRIPTION  CREATED              "
            "LAST USE  LAST IP   USER DN  CERTIFICATE  ADDRESSES\n" +
                kG1 + "  M\xC3\xBCller  Laptop       2024-05-01 09:05:33" + std::string(12, ' ') +
                "10.0.0.7" + std::string(11, ' ') + "Ja" + std::string(11, ' ') + "10.0.0.7\n");
}

TEST_F(TokenCommandsTest, TokensWarnsWhenTheDatabaseIsNotReadyAndFailsWhenItIsDown) {
  const struct {
    const char* state;
    int exit_code;  // an unreachable database gives no list at all: a failure
    const char* err;
  } cases[] = {
      {"3", 0, "kalvoctl: warning: the server's database is not ready: state 3 (NoTables)\n"},
      {"2", 3, "kalvoctl: warning: the server's database is not ready: state 2 (ConnectFailed)\n"},
  };
  for (const auto& c : cases) {
    FakeServer server({Wire(401, "", c.state)});
    const RunResult run = Kalvoctl("tokens --json" + Port(server));
    EXPECT_EQ(run.exit_code, c.exit_code) << c.state << ": " << run.err;
    EXPECT_EQ(run.out, "[]\n");
    EXPECT_EQ(run.err, c.err);
  }
}

TEST_F(TokenCommandsTest, AuditSendsItsFiltersAndReportsTheTotal) {
  FakeServer server(std::vector<std::vector<std::string>>{
      {Wire(305, kAuditOn)},
      {Wire(329, kG1 + "|M\xFCller|mm|REMOVE|2024-05-01-09-05-33|10.0.0.7|CN=M\xFCller", "", "",
            "17")}});
  const RunResult run = Kalvoctl(
      "audit --json --action remove,Connect --action ERROR --person 'M\xC3\xBCller*' --ip "
      "'10.0.?.*' --from 2024-05-01 --to '02.05.2024 12:30'" +
      Port(server));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.err, "");
  // The settings are read first: the audit request follows them.
  ASSERT_TRUE(server.received().starts_with(kAsk305));
  const SocketDataStruct request = Decode(server.received().substr(kAsk305.size()));
  EXPECT_EQ(request.PackageID, 329);
  EXPECT_EQ(request.Misc1, "67");
  EXPECT_EQ(request.Misc2, "M\xFCller*\r\n*\r\n*\r\n10.0.?.*");
  EXPECT_EQ(request.Misc3, "2024-05-01-00-00-00\r\n2024-05-02-12-30-00");
  EXPECT_EQ(request.Data, "");
  EXPECT_EQ(run.out,
            "{\"total\":17,\"entries\":[{\"tokenGuid\":\"" + kG1 +
                "\",\"person\":\"M\xC3\xBCller\",\"userName\":\"mm\",\"action\":\"REMOVE\","
                "\"timestamp\":\"2024-05-01T09:05:33\",\"ip\":\"10.0.0.7\","
                "\"userDn\":\"CN=M\xC3\xBCller\"}]}\n");
}

TEST_F(TokenCommandsTest, AuditWithoutFiltersAsksForEverything) {
  // Auditing is off: said on standard error, since the empty log would otherwise puzzle.
  FakeServer server(std::vector<std::vector<std::string>>{
      {Wire(305, "3$5$2$1$2$0$False$500$False$True$1000$False$90")}, {Wire(329, "", "", "", "5")}});
  const RunResult run = Kalvoctl("audit" + Port(server));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_NE(run.err.find("note: auditing is off (AuditIsActive is false)"), std::string::npos)
      << run.err;
  const SocketDataStruct request = Decode(server.received().substr(kAsk305.size()));
  EXPECT_EQ(request.Misc1, "0");
  EXPECT_EQ(request.Misc2, "*\r\n*\r\n*\r\n*");
  EXPECT_EQ(request.Misc3, "*\r\n*");
  EXPECT_EQ(run.out, "0 of 5 entries shown\n");
}

TEST_F(TokenCommandsTest, GroupsAndRightsPrintTheirAnswers) {
  {
    FakeServer server({Wire(301, kG1 + "|Jeder|Alle|5|" + kG2 + ",Meier, Hans")});
    const RunResult run = Kalvoctl("groups --json" + Port(server));
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(server.received(), "14|301|0||||0|");
    EXPECT_EQ(run.out, "[{\"guid\":\"" + kG1 +
                           "\",\"name\":\"Jeder\",\"description\":\"Alle\",\"abilities\":5,"
                           "\"members\":[{\"guid\":\"" +
                           kG2 + "\",\"person\":\"Meier, Hans\"}]}]\n");
  }
  {
    FakeServer server({Wire(307, "Jeder\r\n" + kG1, "21")});
    const RunResult run = Kalvoctl("rights " + kG2 + Port(server));
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(server.received(), "51|307|0||||36|" + kG2);
    EXPECT_EQ(run.out, "Rights: 21\nGROUP  GUID\nJeder  " + kG1 + "\n");
  }
}

TEST_F(TokenCommandsTest, DeleteTokenExitsWithThreeWhenTheServerFails) {
  {
    FakeServer server({Wire(328, "OK")});
    const RunResult run = Kalvoctl("delete-token " + kG1 + " " + kG2 + Port(server));
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(Decode(server.received()).Data, kG1 + "\r\n" + kG2);
    EXPECT_EQ(run.out, "OK\n");
  }
  {
    FakeServer server({Wire(328, "ERROR")});
    const RunResult run = Kalvoctl("delete-token --json " + kG1 + Port(server));
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_EQ(run.out, "{\"result\":\"ERROR\"}\n");
    EXPECT_NE(run.err.find("did not delete"), std::string::npos) << run.err;
  }
}

TEST_F(TokenCommandsTest, NoAnswerWithinTimeoutExitsWithOne) {
  // Only a packet of another kind arrives; the server keeps the connection open.
  FakeServer server({Wire(102, kG1)});
  const auto start = std::chrono::steady_clock::now();
  const RunResult run = Kalvoctl("groups --timeout 0.5" + Port(server));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err,
            "kalvoctl: no answer to request 301 from 127.0.0.1:" + std::to_string(server.port()) +
                " within 0.5 seconds: is this address in AdminAllowedAddresses?\n");
  EXPECT_LT(waited, std::chrono::seconds(4));
}

TEST_F(TokenCommandsTest, BadArgumentsExitWithTwoBeforeConnecting) {
  // Port 1 has no listener: reaching it would exit with 1, not 2.
  const struct {
    std::string args;
    std::string message;  // part of standard error
  } cases[] = {
      {"rights", "GUID is required"},
      {"rights 0A1B2C3D-0000-4000-8000-00000000000", "not a GUID"},  // 35 characters
      {"delete-token " + kG1 + " {" + kG2 + "}", "not a GUID"},      // braces
      {"delete-token", "GUID is required"},
      {"audit --action CONNECT,LOGIN", "the actions are CONNECT, REMOVE, BACKUP, RESTORE"},
      {"audit --from 2024-02-30", "not a date and time"},
      {"audit --to tomorrow", "not a date and time"},
      {"audit --person 'a|b'", "cannot hold"},
      {"groups --timeout 0", "--timeout"},
  };
  for (const auto& c : cases) {
    const RunResult run = Kalvoctl(c.args + " --port 1");
    EXPECT_EQ(run.exit_code, 2) << c.args;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << c.args << ": " << run.err;
  }
}

}  // namespace
}  // namespace kalvo
