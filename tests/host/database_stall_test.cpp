// A database that hangs or goes away must not take the server with it: every operation gives
// up after DatabaseTimeout, a kept connection whose server has gone is replaced by a new one,
// and a server that is down reads as such. Each test runs its own PostgreSQL cluster, which it
// stops or freezes.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "../db/odbc_test_env.h"
#include "db/connection.h"
#include "db/database.h"
#include "db/odbc_handles.h"
#include "db/operation.h"
#include "db/schema.h"
#include "infra/log.h"
#include "infra/registry_store.h"
#include "packet_peer.h"
#include "security/encryption.h"
#include "server_process.h"

namespace kalvo::testing {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kTimeoutSeconds = 2;

// The postmaster of the cluster in `data_dir` and every process it started.
std::vector<pid_t> ClusterProcesses(const fs::path& data_dir) {
  std::ifstream pid_file(data_dir / "postmaster.pid");
  pid_t postmaster = 0;
  if (!(pid_file >> postmaster) || postmaster <= 0) return {};
  std::vector<pid_t> out{postmaster};
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    std::getline(stat, line);
    // "pid (comm) state ppid ...": the name may hold blanks, so read after its ")".
    const size_t close = line.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(line.substr(close + 1));
    char state = 0;
    pid_t parent = 0;
    if (rest >> state >> parent && parent == postmaster) out.push_back(std::stoi(name));
  }
  return out;
}

// Stops the processes with SIGSTOP for its lifetime: they keep their sockets, and the kernel
// still accepts what is sent to them, but nothing answers.
class Frozen {
 public:
  explicit Frozen(std::vector<pid_t> pids) : pids_(std::move(pids)) {
    for (pid_t pid : pids_) ::kill(pid, SIGSTOP);
  }
  ~Frozen() {
    for (pid_t pid : pids_) ::kill(pid, SIGCONT);
  }
  Frozen(const Frozen&) = delete;
  Frozen& operator=(const Frozen&) = delete;
  size_t size() const { return pids_.size(); }

 private:
  std::vector<pid_t> pids_;
};

// The ODBC configuration of the program: written once, since the driver manager reads it
// once per process. Every test's cluster listens on its port.
const TempDir& OdbcConfigDir() {
  static const TempDir dir;
  return dir;
}
int ClusterPort() {
  static const int port = [] {
    const int p = FreeLoopbackPort();
    WriteOdbcConfig(OdbcConfigDir().path(), true, OdbcConfigDir().path() / "kalvo.db", p);
    return p;
  }();
  return port;
}

// A fresh PostgreSQL cluster behind the data source (pooling on, as installed).
class ClusterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!cluster_.Start(ClusterPort())) {
      if (RunningInCi()) FAIL() << "PostgreSQL test cluster did not start: " << cluster_.error();
      GTEST_SKIP() << "PostgreSQL test cluster did not start: " << cluster_.error();
    }
    settings_.dsn = kPostgresDsn;
    settings_.user = kPgUser;
    settings_.password = kPgPassword;
    settings_.string_type = "VARCHAR";
    settings_.string_max_size = 255;
    settings_.number_type = "INTEGER";
    settings_.blob_type = "BYTEA";
    settings_.blob_max_size = 1000;
    settings_.timeout_seconds = kTimeoutSeconds;
  }

  fs::path data_dir() const { return dir_.path() / "pg"; }

  TempDir dir_;
  PgCluster cluster_{dir_.path()};
  DatabaseSettings settings_;
};

// This process's own database access on the cluster, with a log to read.
class InProcessTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    if (IsSkipped() || HasFailure()) return;
    std::ofstream(dir_.path() / "log.reg")
        << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n"
           "\"LogLevel\"=dword:00000001\r\n";
    registry_ = std::make_unique<RegistryStore>((dir_.path() / "log.reg").string());
    log_ = std::make_unique<Log>(*registry_, (dir_.path() / "test.log").string());
    database_ = std::make_unique<Database>(Env(), *log_, settings_);
    // The driver manager's pool outlives the environment and may hold connections to the
    // previous test's cluster (on the same port): each operation replaces one.
    std::string answer;
    for (int i = 0; i < 4 && answer != "1"; ++i) {
      answer = RunOperation(*database_, "Warm", ConnectFailure::kPlain, std::string(),
                            [](DbConnection& c, std::string& result) {
                              result = QueryText(c, Statement("SELECT 1"), "", "", true, false);
                            });
    }
    ASSERT_EQ(answer, "1") << LogText();
    ClearLog();
  }
  std::string LogText() const { return ReadFile(dir_.path() / "test.log"); }
  void ClearLog() { std::ofstream(dir_.path() / "test.log", std::ios::trunc); }

  // Leaves one idle kept connection whose backend has been terminated, as after a restart of
  // the server: `keep` stays open (and not kept for others) on a live backend.
  void PoolOnlyADeadConnection(DbConnection& keep) {
    {
      DbConnection doomed(*database_);
      ASSERT_TRUE(DBConnect(doomed));
      ASSERT_TRUE(DBConnect(keep));
    }  // `doomed` is kept open for the next operation
    RecordSet rs;
    ASSERT_TRUE(DBExecuteSQLCommand(
        keep,
        Statement("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE pid <> "
                  "pg_backend_pid() AND backend_type = 'client backend'"),
        rs));
    ASSERT_EQ(rs.rows.size(), 1u) << "one other backend: the pooled connection's";
    // Its end reaches the client's socket a moment later.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }

  std::unique_ptr<RegistryStore> registry_;
  std::unique_ptr<Log> log_;
  // One environment for the program, as the server has one for its life: the driver
  // manager's pool keeps what an environment's connections left in it beyond the environment.
  static OdbcEnvironment& Env() {
    static OdbcEnvironment env(true);
    return env;
  }
  std::unique_ptr<Database> database_;
};

TEST_F(InProcessTest, StateCheckRightAfterTheServerStopsReadsConnectFailed) {
  // The check leaves a connection in the pool, which the stop then kills.
  ASSERT_EQ(DBIsDatabaseUpToDate(*database_), TableState::kNoTables);
  cluster_.Stop();
  EXPECT_EQ(DBIsDatabaseUpToDate(*database_), TableState::kConnectFailed) << LogText();
  EXPECT_NE(LogText().find(ReconnectLogLine("DBIsDatabaseUpToDate")), std::string::npos);
}

TEST_F(InProcessTest, OperationOnADeadPooledConnectionStartsAgainOnAFreshOne) {
  DbConnection keep(*database_);
  PoolOnlyADeadConnection(keep);
  const std::string answer =
      RunOperation(*database_, "ReadOne", ConnectFailure::kPlain, std::string("none"),
                   [](DbConnection& c, std::string& result) {
                     result = QueryText(c, Statement("SELECT 40 + 2"), "", "", true, false);
                   });
  EXPECT_EQ(answer, "42") << LogText();
  EXPECT_EQ(ServerProcess::Count(LogText(), ReconnectLogLine("ReadOne")), 1);
}

TEST_F(InProcessTest, OperationWhoseFirstStatementWritesIsNotRepeated) {
  DbConnection keep(*database_);
  ASSERT_TRUE(DBConnect(keep));
  RecordSet ignored;
  ASSERT_TRUE(DBExecuteSQLCommand(keep, Statement("CREATE TABLE t_once (n INTEGER)"), ignored));
  keep.Close();
  PoolOnlyADeadConnection(keep);
  const bool ok = RunOperation(*database_, "WriteOne", ConnectFailure::kPlain, false,
                               [](DbConnection& c, bool& result) {
                                 result = Execute(c, Statement("INSERT INTO t_once VALUES (1)"));
                               });
  // The connection ended while the insert was under way: whether it ran is unknown, so the
  // operation fails rather than risk running it twice.
  EXPECT_FALSE(ok);
  EXPECT_EQ(LogText().find(ReconnectLogLine("WriteOne")), std::string::npos);
  // The failed connection is not handed out again: the next operation works at once.
  ClearLog();
  EXPECT_TRUE(RunOperation(*database_, "WriteTwo", ConnectFailure::kPlain, false,
                           [](DbConnection& c, bool& result) {
                             result = Execute(c, Statement("INSERT INTO t_once VALUES (2)"));
                           }));
  EXPECT_EQ(LogText().find("(Error)"), std::string::npos) << LogText();
}

TEST_F(InProcessTest, AfterARestartTheFirstOperationsSucceedOnNewConnections) {
  {
    // Three connections open at once leave three kept ones behind, all dead after the restart.
    DbConnection a(*database_), b(*database_), c(*database_);
    ASSERT_TRUE(DBConnect(a) && DBConnect(b) && DBConnect(c));
    RecordSet ignored;
    ASSERT_TRUE(DBExecuteSQLCommand(a, Statement("CREATE TABLE t_once (n INTEGER)"), ignored));
  }
  ASSERT_GE(Env().open_count(), 3u);
  ASSERT_TRUE(cluster_.Restart()) << cluster_.error();
  ClearLog();
  EXPECT_EQ(RunOperation(*database_, "ReadOne", ConnectFailure::kPlain, std::string("none"),
                         [](DbConnection& c, std::string& result) {
                           result = QueryText(c, Statement("SELECT 40 + 2"), "", "", true, false);
                         }),
            "42")
      << LogText();
  EXPECT_EQ(ServerProcess::Count(LogText(), ReconnectLogLine("ReadOne")), 1);

  ASSERT_TRUE(cluster_.Restart()) << cluster_.error();
  // Inside a transaction even a first statement that writes may start again: nothing of it
  // can have been committed.
  EXPECT_TRUE(RunOperation(*database_, "WriteInUnit", ConnectFailure::kPlain, false,
                           [](DbConnection& c, bool& result) {
                             Transaction unit(c);
                             result = Execute(c, Statement("INSERT INTO t_once VALUES (1)")) &&
                                      unit.Commit("WriteInUnit");
                           }))
      << LogText();
  EXPECT_EQ(ServerProcess::Count(LogText(), ReconnectLogLine("WriteInUnit")), 1);
  EXPECT_EQ(RunOperation(*database_, "Count", ConnectFailure::kPlain, std::string(),
                         [](DbConnection& c, std::string& result) {
                           result = QueryText(c, Statement("SELECT COUNT(*) FROM t_once"), "", "",
                                              true, false);
                         }),
            "1");
}

// The real server on the cluster, with DatabaseTimeout 2.
class ServerOnClusterTest : public ClusterTest {
 protected:
  std::string DatabaseKey() const {
    const std::string key = VersionInfoKeyText();
    return "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\DB]\r\n\"DSN\"=\"" +
           settings_.dsn + "\"\r\n\"LoginUser\"=\"" + EncryptText(settings_.user, key) +
           "\"\r\n\"LoginPass\"=\"" + EncryptText(settings_.password, key) +
           "\"\r\n\"StringType\"=\"VARCHAR\"\r\n\"StringMaxSize\"=dword:000000ff\r\n"
           "\"NumberType\"=\"INTEGER\"\r\n\"BLOBType\"=\"BYTEA\"\r\n"
           "\"BLOBMaxSize\"=dword:000003e8\r\n\"DatabaseTimeout\"=dword:0000000" +
           std::to_string(kTimeoutSeconds) + "\r\n\r\n";
  }
};

TEST_F(ServerOnClusterTest, AnEchoDoesNotWaitForARequestThatTheDatabaseHolds) {
  ServerProcess server("", DatabaseKey());
  const std::string kGroupNames = "14|303|0||||0|";
  const std::string kEcho = "14|311|0||||0|";
  Client console(server.port());
  // Once with the database answering: this leaves a connection open.
  console.Send(kGroupNames);
  ASSERT_NE(ReceivePacket(console).find("|303|"), std::string::npos);
  ASSERT_TRUE(server.WaitForLog("DBGetColumnData (OK)"));

  Frozen frozen(ClusterProcesses(data_dir()));
  ASSERT_GE(frozen.size(), 2u) << "the postmaster and its backends";
  const auto start = Clock::now();
  console.Send(kGroupNames);
  ASSERT_TRUE(server.WaitForLog("DoSocketAction: ID: 303 Socket: 1", 2));
  Client other(server.port());
  const auto echo_start = Clock::now();
  other.Send(kEcho);
  const std::string echo = ReceivePacket(other, 15000);
  const double echo_wait = std::chrono::duration<double>(Clock::now() - echo_start).count();
  EXPECT_EQ(echo, kEcho);
  // The echo is answered while the stalled request waits on a database worker (well within
  // 50 ms on an idle machine; the bound, half the time limit, leaves room for sanitizer builds
  // on a busy one).
  EXPECT_LT(echo_wait, kTimeoutSeconds / 2.0) << server.Log();
  // The stalled request ends within the time limit (a frozen server answers nothing: only the
  // stall guard can end it, however the driver then words the failure).
  EXPECT_NE(ReceivePacket(console, 5000).find("|303|"), std::string::npos);
  const double waited = std::chrono::duration<double>(Clock::now() - start).count();
  EXPECT_LE(waited, kTimeoutSeconds + 1.0) << server.Log();
}

TEST_F(ServerOnClusterTest, TheFirstLogonAfterADatabaseRestartGetsTheTokensRights) {
  {
    RegistryStore registry("/nonexistent/kalvo/registry.reg");
    Log quiet(registry, "/dev/null");
    OdbcEnvironment env(true);
    Database database(env, quiet, settings_);
    DbConnection c(database);
    ASSERT_TRUE(DBConnect(c));
    ASSERT_EQ(DBCreateAllTables(c, settings_,
                                [](std::string_view, std::string_view key) {
                                  return std::string(key == "GROUP_EVERYONE" ? "Jeder" : "Alle");
                                }),
              0);
  }
  ServerProcess server("", DatabaseKey());
  auto rights = [&] {
    PacketPeer client(server.port());
    const SocketDataStruct reply =
        client.Exchange(101, "A1B2C3D4-0000-4000-8000-00000000000A", "", "anna");
    return reply.PackageID == 101 ? reply.Misc1 : "no reply";
  };
  const std::string before = rights();
  ASSERT_NE(before, "0") << server.Log();
  ASSERT_TRUE(cluster_.Restart()) << cluster_.error();
  EXPECT_EQ(rights(), before) << server.Log();
}

TEST_F(ServerOnClusterTest, OverlongCredentialsFailLikeAFailedConnectAndTheServerLives) {
  ServerProcess server("", DatabaseKey());
  const std::string key = VersionInfoKeyText();
  const std::string nul(1, '\0');
  PacketPeer console(server.port());
  for (const char* dsn : {kSqliteDsn, kPostgresDsn}) {
    for (const size_t length : {size_t{255}, size_t{1024}, size_t{65536}}) {
      const std::string lengthy = EncryptText(std::string(length, 'u'), key);
      const std::string fine = EncryptText("kalvo", key);
      // The database test with an overlong user, the connection check with an overlong
      // password: each answered as when the connect fails.
      const SocketDataStruct test = console.Exchange(
          313, std::string(dsn) + "|" + lengthy + "|" + fine + "|VARCHAR|255|INTEGER|BYTEA", "");
      EXPECT_EQ(test.PackageID, 313) << dsn << " " << length << "\n" << server.Log();
      EXPECT_TRUE(test.Data.starts_with("ERROR: connect: The user is")) << test.Data;
      const SocketDataStruct check =
          console.Exchange(351, std::string(dsn) + nul + fine + nul + lengthy, "1");
      EXPECT_EQ(check.Data, "ERROR") << dsn << " " << length;
      EXPECT_TRUE(server.WaitForLog("The user is " + std::to_string(length) +
                                    " characters long; at most 127 are accepted"));
      EXPECT_TRUE(server.WaitForLog("The password is " + std::to_string(length) +
                                    " characters long; at most 127 are accepted"));
    }
  }
  EXPECT_EQ(console.Exchange(311).PackageID, 311) << "still serving";
}

}  // namespace
}  // namespace kalvo::testing
