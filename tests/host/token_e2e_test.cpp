// Tokens, backups and the audit log through the real server on an SQLite database: what a
// token client and a console see on the wire.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "../db/odbc_test_env.h"
#include "../net/packet_printer.h"
#include "db/schema.h"
#include "infra/log.h"
#include "net/packet.h"
#include "net/socket_send.h"
#include "packet_peer.h"
#include "server_process.h"

namespace kalvo::testing {
namespace {

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";

// A log that writes nothing (the registry it reads does not exist: level 0).
struct QuietLog {
  RegistryStore registry{"/nonexistent/kalvo/registry.reg"};
  Log log{registry, "/dev/null"};
};

class TokenE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    SqliteOdbcDir();
    {
      // A fresh schema for every test.
      QuietLog quiet;
      OdbcEnvironment env(true);
      DatabaseSettings s;
      s.dsn = kSqliteDsn;
      s.string_type = "VARCHAR";
      s.string_max_size = 255;
      s.number_type = "INTEGER";
      s.blob_type = "BLOB";
      Database database(env, quiet.log, s);
      DbConnection c(database);
      ASSERT_TRUE(DBConnect(c));
      ASSERT_EQ(DBDropAllTables(c), 0);
      ASSERT_EQ(DBCreateAllTables(c, s,
                                  [](std::string_view, std::string_view key) {
                                    return std::string(key == "GROUP_EVERYONE" ? "Jeder" : "Alle");
                                  }),
                0);
    }
    server_ = std::make_unique<ServerProcess>(
        "\"AuditIsActive\"=dword:ffffffff\r\n"
        "\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\DB]\r\n"
        "\"DSN\"=\"" +
        std::string(kSqliteDsn) +
        "\"\r\n"
        "\"StringType\"=\"VARCHAR\"\r\n\"StringMaxSize\"=dword:000000ff\r\n"
        "\"NumberType\"=\"INTEGER\"\r\n\"BLOBType\"=\"BLOB\"\r\n\"BLOBMaxSize\"=dword:"
        "00001000\r\n");
  }

  std::unique_ptr<ServerProcess> server_;
};

TEST_F(TokenE2E, ConsoleSeesANewTokenItsLogonsAndItsDeparture) {
  PacketPeer console(server_->port());
  console.Send(401, "", "UPDATE");
  SocketDataStruct reply = console.Receive();
  EXPECT_EQ(reply.PackageID, 401);
  EXPECT_EQ(reply.Misc1, "1") << "database up to date\n" << server_->Log();
  EXPECT_EQ(reply.Data, "");

  PacketPeer client(server_->port());
  client.Send(101, kAnna, "", "anna", "CN=Anna");
  reply = client.Receive();
  EXPECT_EQ(reply.PackageID, 101);
  EXPECT_EQ(reply.Misc1, "255");
  EXPECT_EQ(reply.Misc3, "0");
  SocketDataStruct news = console.Receive();
  EXPECT_EQ(news.PackageID, 401);
  EXPECT_EQ(news.Misc2, "NEWTOKEN");
  EXPECT_EQ(news.Misc1, "127.0.0.1");
  EXPECT_TRUE(news.Data.starts_with(std::string(kAnna) + "$unknown (anna)$")) << news.Data;
  EXPECT_TRUE(news.Data.ends_with("$CN=Anna$No$127.0.0.1")) << news.Data;

  client.Send(101, kAnna, "", "anna", "CN=Anna");
  EXPECT_EQ(client.Receive().PackageID, 101);
  news = console.Receive();
  EXPECT_EQ(news.PackageID, 101);
  EXPECT_TRUE(news.Misc2.ends_with(std::string(1, '\0') + "CN=Anna")) << news.Misc2;

  client.Close();
  news = console.Receive();
  EXPECT_EQ(news.PackageID, 102);
  EXPECT_EQ(news.Data, std::string(kAnna) + '\0' + "CN=Anna" + '\0' + "anna");
  EXPECT_EQ(news.Misc1, "127.0.0.1");

  // The audit log holds both logons and the departure, newest first.
  console.Send(329, "", "0", "*\r\n*\r\n*\r\n*", "*\r\n*");
  reply = console.Receive();
  EXPECT_EQ(reply.PackageID, 329);
  EXPECT_EQ(reply.Misc3, "3");
  EXPECT_NE(reply.Data.find("|DISCONNECT|"), std::string::npos) << reply.Data;
  EXPECT_EQ(ServerProcess::Count(server_->Log(), "ID: 329 Socket: 1 Daten gesendet"), 0);
}

TEST_F(TokenE2E, EditsAreAnsweredByBroadcastAndClearingTheLogAnswersAs329) {
  PacketPeer console(server_->port());
  console.Send(401, kAnna);  // the console's own token registers like a client's
  EXPECT_EQ(console.Receive().PackageID, 401);
  EXPECT_EQ(console.Receive().PackageID, 101);
  EXPECT_EQ(console.Receive().Misc2, "NEWTOKEN");

  console.Send(310, "Anna Berg|Laptop", kAnna);
  SocketDataStruct reply = console.Receive();
  EXPECT_EQ(reply.PackageID, 401);
  EXPECT_NE(reply.Data.find("$Anna Berg$Laptop$"), std::string::npos) << reply.Data;
  EXPECT_EQ(console.Receive(300).PackageID, 0) << "no direct reply to 310";

  console.Send(330);
  reply = console.Receive();
  EXPECT_EQ(reply.PackageID, 329);
  EXPECT_EQ(reply.Misc1, "Delete=OK");
  EXPECT_EQ(reply.Misc3, "0");

  console.Send(328, kAnna);
  reply = console.Receive();
  EXPECT_EQ(reply.PackageID, 328);
  EXPECT_EQ(reply.Data, "OK");
  reply = console.Receive();
  EXPECT_EQ(reply.PackageID, 401);
  EXPECT_EQ(reply.Data, "");
}

// Runs kalvoctl with `args` against the server; gives its standard output and sets `status`.
std::string Kalvoctl(const ServerProcess& server, const std::string& args, int& status) {
  const std::string cmd = std::string(KALVO_BUILD_DIR) + "/kalvoctl " + args + " --port " +
                          std::to_string(server.port()) + " --timeout 10 2>&1";
  FILE* pipe = ::popen(cmd.c_str(), "r");
  std::string out;
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
  const int raw = ::pclose(pipe);
  status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return out;
}

TEST_F(TokenE2E, TheConsoleCommandsWorkAgainstTheRealServer) {
  PacketPeer client(server_->port());
  client.Send(101, kAnna, "", "anna", "CN=Anna");
  ASSERT_EQ(client.Receive().PackageID, 101);
  int status = -1;
  std::string out = Kalvoctl(*server_, "tokens --json", status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find(kAnna), std::string::npos) << out;
  EXPECT_NE(out.find("127.0.0.1"), std::string::npos) << out;
  out = Kalvoctl(*server_, std::string("rights ") + kAnna, status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("Jeder"), std::string::npos) << out;
  out = Kalvoctl(*server_, "groups", status);
  EXPECT_NE(out.find("Jeder"), std::string::npos) << out;
  out = Kalvoctl(*server_, "audit --action CONNECT --person 'unknown*'", status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("CONNECT"), std::string::npos) << out;
  EXPECT_NE(out.find("1 of 1"), std::string::npos) << out;
  out = Kalvoctl(*server_, std::string("delete-token ") + kAnna, status);
  EXPECT_EQ(status, 0) << out;
  out = Kalvoctl(*server_, "tokens --json", status);
  EXPECT_EQ(out.find(kAnna), std::string::npos) << out;
}

// The console verbs that change groups and tokens, each followed by the listing that must
// show (or no longer show) its effect; and the verbs on servers whose auditing is off or
// whose database cannot be reached.
TEST_F(TokenE2E, TheChangingConsoleVerbsWorkAgainstTheRealServer) {
  PacketPeer client(server_->port());
  client.Send(101, kAnna, "", "anna", "CN=Anna");
  ASSERT_EQ(client.Receive().PackageID, 101);
  const std::string anna = kAnna;
  const std::string unknown = "A1B2C3D4-0000-4000-8000-0000000000FF";
  struct Step {
    std::string verb;
    int status;          // kalvoctl's exit status for the verb
    std::string said;    // in the verb's output
    std::string check;   // a listing run afterwards ("" for none)
    std::string listed;  // what the listing must hold, or lack
    bool present;
  };
  // Arguments and output are UTF-8 (the bytes are spelled out: literals are Windows-1252).
  const std::string buyers = "Die Eink\xC3\xA4ufer";
  const Step steps[] = {
      {"group-add Einkauf --description '" + buyers + "' --rights 5", 0, "OK", "groups --json",
       buyers, true},
      {"group-members Einkauf --add " + anna, 0, "OK", "rights " + anna, "Einkauf", true},
      {"group-members Einkauf --remove " + anna, 0, "OK", "rights " + anna, "Einkauf", false},
      {"token-set " + anna + " --person 'Anna Berg' --description Laptop", 0, "OK", "tokens --json",
       "Anna Berg", true},
      // What is not given keeps its value.
      {"token-set " + anna + " --description Tablet", 0, "OK", "tokens --json", "Anna Berg", true},
      {"token-set " + unknown + " --person Niemand", 3, "knows no token", "tokens --json",
       "Niemand", false},
      {"group-members Verkauf --add " + anna, 2, "Verkauf", "groups", "Verkauf", false},
      {"group-delete Einkauf", 0, "OK", "groups", "Einkauf", false},
      {"group-delete Einkauf", 2, "Einkauf", "groups", "Jeder", true},
  };
  for (const Step& step : steps) {
    int status = -1;
    std::string out = Kalvoctl(*server_, step.verb, status);
    EXPECT_EQ(status, step.status) << step.verb << "\n" << out;
    EXPECT_NE(out.find(step.said), std::string::npos) << step.verb << "\n" << out;
    out = Kalvoctl(*server_, step.check, status);
    EXPECT_EQ(status, 0) << step.check << "\n" << out;
    EXPECT_EQ(out.find(step.listed) != std::string::npos, step.present)
        << step.verb << " then " << step.check << "\n"
        << out;
  }

  // Auditing off: the empty log is explained, and the listing itself still works.
  ServerProcess quiet(
      "\"AuditIsActive\"=dword:00000000\r\n\r\n"
      "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\DB]\r\n"
      "\"DSN\"=\"" +
      std::string(kSqliteDsn) + "\"\r\n");
  int status = -1;
  std::string out = Kalvoctl(quiet, "audit", status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("auditing is off"), std::string::npos) << out;

  // A database that cannot be reached fails every verb that needs it, before anything is sent.
  ServerProcess down(
      "\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\DB]\r\n"
      "\"DSN\"=\"kalvo_no_such_data_source\"\r\n");
  for (const std::string& verb :
       {std::string("tokens --json"), std::string("group-add Einkauf"),
        "group-members Jeder --add " + anna, std::string("group-delete Jeder"),
        "token-set " + anna + " --person X"}) {
    out = Kalvoctl(down, verb, status);
    EXPECT_EQ(status, 3) << verb << "\n" << out;
  }
}

TEST_F(TokenE2E, SqlAndSettingsFromTheShell) {
  int status = -1;
  std::string out =
      Kalvoctl(*server_, "sql \"SELECT group_name FROM tbl_kdx_groups\" --json", status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("\"columns\":[\"group_name\"]"), std::string::npos) << out;
  EXPECT_NE(out.find("[\"Jeder\"]"), std::string::npos) << out;
  out = Kalvoctl(*server_, "sql \"SELEKT 1\"", status);
  EXPECT_EQ(status, 3) << out;
  out = Kalvoctl(*server_, "settings --set BackupAdmin=5 --set AuditIsLimited=true --json", status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("\"BackupAdmin\":5"), std::string::npos) << out;
  EXPECT_NE(out.find("\"AuditIsLimited\":true"), std::string::npos) << out;
  EXPECT_NE(out.find("\"AuditIsActive\":true"), std::string::npos) << out;
}

// The packet's fields without its sizes, to compare with one a test writes down.
SocketDataStruct Bare(SocketDataStruct p) {
  p.PackageSize = p.DataSize = 0;
  return p;
}

// Every byte value, several times over: more than three parts of the server's 4096.
std::string EveryByte() {
  std::string bytes;
  for (int i = 0; i < 3 * 4096 + 17; ++i) bytes += static_cast<char>((i * 7 + i / 256) % 256);
  return bytes;
}

TEST_F(TokenE2E, ABackupComesBackByteForByteToTheClientAndToConsoles) {
  PacketPeer client(server_->port());
  client.Send(101, kAnna, "", "anna", "");
  ASSERT_EQ(client.Receive().PackageID, 101);
  const std::string backup = EveryByte();
  client.Send(115, backup, "", "3", "Karte 1");
  EXPECT_EQ(Bare(client.Receive()), Packet(115, "OK", "", "3"));
  client.Send(116, "", "1", "3");
  SocketDataStruct reply = client.Receive();
  EXPECT_EQ(reply.PackageID, 116);
  EXPECT_TRUE(reply.Data == backup) << "restored " << reply.Data.size() << " of " << backup.size();
  client.Send(117, "", "4");
  EXPECT_EQ(Bare(client.Receive()), Packet(308, "Karte 1$3$1", "4", "0"));

  PacketPeer console(server_->port());
  console.Send(308, kAnna, "3");
  EXPECT_EQ(Bare(console.Receive()), Packet(308, "Karte 1$3$1", "3", "0"));
  console.Send(309, kAnna, "1", "3");
  reply = console.Receive();
  EXPECT_EQ(reply.PackageID, 309);
  EXPECT_EQ(reply.Reserved, 1);
  EXPECT_EQ(reply.Misc1.size(), 19u) << reply.Misc1;
  EXPECT_EQ(reply.Misc2, kAnna);
  EXPECT_TRUE(reply.Data == backup);
  console.Send(315);
  EXPECT_EQ(console.Receive().Data, std::string(kAnna) + "$Karte 1$3$1$unknown (anna)");
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

TEST_F(TokenE2E, TheBackupCommandsStoreListAndFetchAFileUnchanged) {
  TempDir dir;
  const std::filesystem::path in = dir.path() / "in.bin", out = dir.path() / "out.bin";
  std::ofstream(in, std::ios::binary) << EveryByte();
  int status = -1;
  std::string text = Kalvoctl(
      *server_,
      "backup-put " + std::string(kAnna) + " --type admin --name 'Vor Ort' --in " + in.string(),
      status);
  EXPECT_EQ(status, 0) << text;
  text = Kalvoctl(*server_, "backups " + std::string(kAnna), status);
  EXPECT_EQ(status, 0) << text;
  EXPECT_NE(text.find("admin  1      Vor Ort"), std::string::npos) << text;
  text = Kalvoctl(*server_, "backup-get " + std::string(kAnna) + " --type 2 --out " + out.string(),
                  status);
  EXPECT_EQ(status, 0) << text;
  EXPECT_TRUE(ReadFile(out) == EveryByte()) << ReadFile(out).size();
  text = Kalvoctl(*server_, "backup-get " + std::string(kAnna) + " --type 2 --index 2", status);
  EXPECT_EQ(status, 3) << text;
  text = Kalvoctl(*server_, "backups --json", status);
  EXPECT_NE(text.find("\"name\":\"Vor Ort\",\"type\":2,\"index\":1"), std::string::npos) << text;
  text = Kalvoctl(
      *server_,
      "backup-put " + std::string(kAnna) + " --type 2 --name \"it's\" --in " + in.string(), status);
  EXPECT_EQ(status, 2) << text;
}

TEST_F(TokenE2E, AClientRunsItsTasksAndABackupTaskBecomesAnAutomaticBackup) {
  constexpr const char* kBackupTask = "AC000000-0000-4000-8000-000000000001";
  constexpr const char* kScript = "AC000000-0000-4000-8000-000000000002";
  int status = -1;
  std::string out = Kalvoctl(*server_,
                             std::string("action-add --guid ") + kBackupTask +
                                 " --name Sicherung --type 1 --priority 9 --first 2020-01-01 "
                                 "--member " +
                                 kAnna,
                             status);
  EXPECT_EQ(status, 0) << out;
  out = Kalvoctl(*server_,
                 std::string("action-add --guid ") + kScript +
                     " --name Skript --type 2 --period connect --first 2020-01-01 --data "
                     "'echo|1' --member " +
                     kAnna,
                 status);
  EXPECT_EQ(status, 0) << out;
  // A definition file, with an option given beside it winning over the file.
  TempDir dir;
  std::ofstream(dir.path() / "a.json")
      << R"({"guid": "AC000000-0000-4000-8000-000000000003", "name": "aus Datei", "type": 2,
             "period": "weekly", "first": "2020-01-01", "stopped": true, "data": "x",
             "members": [")"
      << kAnna << R"("]})";
  out = Kalvoctl(
      *server_,
      "action-add --json-file " + (dir.path() / "a.json").string() + " --name 'mit Option' --json",
      status);
  EXPECT_EQ(out, "{\"result\":\"OK\",\"guid\":\"AC000000-0000-4000-8000-000000000003\"}\n");
  out = Kalvoctl(*server_, "actions", status);
  EXPECT_NE(out.find("mit Option"), std::string::npos) << out;
  EXPECT_NE(out.find("stopped"), std::string::npos) << out;
  EXPECT_NE(out.find("Sicherung"), std::string::npos) << out;
  EXPECT_NE(out.find("active"), std::string::npos) << out;

  PacketPeer client(server_->port());
  client.Send(101, kAnna, "", "anna", "");
  ASSERT_EQ(client.Receive().PackageID, 101);
  client.Send(327, kAnna);
  EXPECT_EQ(client.Receive().Data, std::string(kBackupTask) + "|1||");
  const std::string backup = EveryByte();
  client.Send(326, backup, "", "",
              std::string(kBackupTask) + "$" + kAnna + "$1$2027-03-01-10-00-00");
  EXPECT_EQ(client.Receive().Data, std::string(kScript) + "|2|echo|1|");
  client.Send(326, "ok", "", "", std::string(kScript) + "$" + kAnna + "$2$2027-03-01-10-00-01");
  EXPECT_EQ(client.Receive(500).PackageID, 0) << "nothing after the last task";
  // The backup task ran once; the script runs at every connection.
  client.Send(327, kAnna);
  EXPECT_EQ(client.Receive().Data, std::string(kScript) + "|2|echo|1|");

  client.Send(116, "", "1", "1");
  EXPECT_TRUE(client.Receive().Data == backup) << "the task's result is the automatic backup";
  out = Kalvoctl(*server_, std::string("action-details ") + kScript, status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find(kAnna), std::string::npos) << out;
  out = Kalvoctl(*server_, std::string("action-stop ") + kScript, status);
  EXPECT_NE(out.find("OK (stopped)"), std::string::npos) << out;
  client.Send(327, kAnna);
  EXPECT_EQ(client.Receive().Data, "NONE");
  out = Kalvoctl(*server_, std::string("action-delete ") + kScript, status);
  EXPECT_EQ(status, 0) << out;
}

TEST_F(TokenE2E, TheTasksHandedToAConnectionAreForgottenWhenItCloses) {
  int status = -1;
  for (const char* guid :
       {"AC000000-0000-4000-8000-000000000001", "AC000000-0000-4000-8000-000000000002"}) {
    const std::string out = Kalvoctl(*server_,
                                     std::string("action-add --guid ") + guid +
                                         " --name A --period connect --first 2020-01-01 "
                                         "--data x --member " +
                                         kAnna,
                                     status);
    ASSERT_EQ(status, 0) << out;
  }
  const std::string result =
      std::string("AC000000-0000-4000-8000-000000000001$") + kAnna + "$2$2027-03-01-10-00-00";
  {
    PacketPeer first(server_->port());
    first.Send(327, kAnna);
    ASSERT_EQ(first.Receive().PackageID, 327);
    first.Close();
  }
  // The next connection takes the freed place; a result without a hand-out gets no task.
  PacketPeer second(server_->port());
  second.Send(311);
  ASSERT_EQ(second.Receive().PackageID, 311);
  second.Send(326, "", "", "", result);
  second.Send(311);
  EXPECT_EQ(second.Receive().PackageID, 311) << "no 327 before the echo";
  // With a hand-out of its own the same result is answered with the next task.
  second.Send(327, kAnna);
  ASSERT_EQ(second.Receive().PackageID, 327);
  second.Send(326, "", "", "", result);
  EXPECT_EQ(second.Receive().PackageID, 327);
}

}  // namespace
}  // namespace kalvo::testing
