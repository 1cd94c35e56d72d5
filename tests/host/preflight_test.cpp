// The administrator's commands run as a shell would: --check-config for each problem it must
// report, and --init-database/--upgrade-database on an SQLite database. Every case has an ODBC
// configuration of its own (the driver manager reads it once per process).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>

#include "../db/odbc_test_env.h"
#include "infra/unique_fd.h"
#include "infra/version.h"
#include "security/encryption.h"

namespace kalvo::testing {
namespace {

namespace fs = std::filesystem;

struct Outcome {
  int status = -1;
  std::string out;
};

// A directory with the ODBC files, the registry file and the SQLite database of one run.
class Installation {
  TempDir dir_;  // first: the paths below are made from it

 public:
  Installation() : port_(FreeLoopbackPort()) {}

  std::string db_file = (dir_.path() / "kalvo.db").string();
  std::string dsn_db_file;  // "" = db_file
  bool pooling = true;
  std::string cp_timeout = "120";
  std::string kdx = "\"AdminAllowedAddresses\"=\"127.0.0.1\"\r\n";
  std::string db =
      "\"DSN\"=\"kalvo_pf\"\r\n\"StringType\"=\"VARCHAR\"\r\n"
      "\"StringMaxSize\"=dword:000000ff\r\n\"NumberType\"=\"INTEGER\"\r\n"
      "\"BLOBType\"=\"BLOB\"\r\n\"BLOBMaxSize\"=dword:00001000\r\n";
  std::string registry_path = (dir_.path() / "registry.reg").string();
  std::string program = std::string(KALVO_BUILD_DIR) + "/kalvosrv";

  int port() const { return port_; }
  const fs::path& dir() const { return dir_.path(); }

  Outcome Run(const std::string& args) {
    Write();
    const std::string cmd = "ODBCSYSINI=" + dir().string() +
                            " ODBCINI=" + (dir() / "odbc.ini").string() + " " + program + " " +
                            args + " --registry " + registry_path + " --log-file " +
                            (dir() / "k.log").string() + " --listen-address 127.0.0.1 2>&1";
    Outcome o;
    FILE* pipe = ::popen(cmd.c_str(), "r");
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, pipe)) > 0;) o.out.append(buf, n);
    const int raw = ::pclose(pipe);
    o.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return o;
  }

 private:
  void Write() {
    std::ofstream(dir() / "odbcinst.ini")
        << "[ODBC]\nPooling = " << (pooling ? "Yes" : "No")
        << "\n\n[SQLite3]\nDriver = " << DriverLibrary("SQLite3") << "\n"
        << (cp_timeout.empty() ? "" : "CPTimeout = " + cp_timeout + "\n");
    std::ofstream(dir() / "odbc.ini")
        << "[kalvo_pf]\nDriver = SQLite3\nDatabase = "
        << (dsn_db_file.empty() ? db_file : dsn_db_file) << "\nTimeout = 5000\n";
    if (registry_path != (dir() / "registry.reg").string()) return;
    std::ofstream(registry_path, std::ios::binary)
        << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n\r\n"
        << "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]\r\n"
        << "\"ServerLocalPort\"=\"" << port_ << "\"\r\n"
        << kdx << "\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\DB]\r\n"
        << db << "\r\n";
  }

  int port_;
};

TEST(DatabaseCommands, InitialiseThenUpgradeAnEmptyDatabase) {
  Installation s;
  // An upgrade makes the missing tables but not the default group: the database is not
  // complete, and the command says what to use instead.
  Outcome o = s.Run("--upgrade-database");
  EXPECT_EQ(o.status, 1) << o.out;
  EXPECT_NE(o.out.find("database state: DataMissing (6)"), std::string::npos) << o.out;
  EXPECT_NE(o.out.find("use --init-database"), std::string::npos) << o.out;
  fs::remove(s.db_file);
  o = s.Run("--init-database");
  EXPECT_EQ(o.status, 0) << o.out;
  EXPECT_NE(o.out.find("initialisation of \"kalvo_pf\": 0 (the tables are created)"),
            std::string::npos)
      << o.out;
  EXPECT_NE(o.out.find("database state: UpToDate (1)"), std::string::npos) << o.out;
  // A second initialisation is refused before it writes anything (it would add the default
  // group again) and says what to use; the database stays sound.
  o = s.Run("--init-database");
  EXPECT_EQ(o.status, 1) << o.out;
  EXPECT_NE(o.out.find("has tables already (state UpToDate)"), std::string::npos) << o.out;
  EXPECT_NE(o.out.find("\"kalvosrv --upgrade-database\""), std::string::npos) << o.out;
  EXPECT_EQ(o.out.find("initialisation of"), std::string::npos) << o.out;
  o = s.Run("--check-config");
  EXPECT_EQ(o.status, 0) << o.out;
  EXPECT_EQ(s.Run("--repair-database").out, "repair of \"kalvo_pf\": 0 row(s) replaced\n");
  o = s.Run("--upgrade-database");
  EXPECT_EQ(o.status, 0) << o.out;
  EXPECT_NE(o.out.find("0 (the tables are upgraded)"), std::string::npos) << o.out;

  s.dsn_db_file = "/nonexistent/dir/kalvo.db";
  o = s.Run("--init-database");
  EXPECT_EQ(o.status, 1) << o.out;
  EXPECT_NE(o.out.find("-1 (the database cannot be reached"), std::string::npos) << o.out;
  // The preflight names the directory that is missing, not only the driver's failure.
  o = s.Run("--check-config");
  EXPECT_NE(o.out.find("ERROR: the directory /nonexistent/dir of the data source's SQLite"),
            std::string::npos)
      << o.out;
  EXPECT_EQ(s.Run("--init-database --upgrade-database").status, 2);
}

TEST(Preflight, ReportsEachProblemWithWhatToDo) {
  const struct Case {
    const char* name;
    std::function<void(Installation&)> prepare;  // after the database was initialised
    int status;
    const char* expected;
  } cases[] = {
      {"everything in order", [](Installation&) {}, 0, "configuration OK"},
      {"no registry file",
       [](Installation& s) { s.registry_path = (s.dir() / "missing.reg").string(); }, 1,
       "missing.reg does not exist"},
      {"registry path is a directory", [](Installation& s) { s.registry_path = s.dir().string(); },
       1, "cannot be read"},
      {"no language file",
       [](Installation& s) {
         fs::copy_file(s.program, s.dir() / "kalvosrv");
         s.program = (s.dir() / "kalvosrv").string();
       },
       1, "kalvo.4"},
      {"plain text as a credential", [](Installation& s) { s.db += "\"LoginUser\"=\"admin\"\r\n"; },
       1, "KDX\\DB LoginUser is not cipher text"},
      {"enciphered credential",
       [](Installation& s) {
         s.db += "\"LoginUser\"=\"" + EncryptText("", VersionInfoKeyText()) + "\"\r\n";
       },
       0, "configuration OK"},
      {"database unreachable", [](Installation& s) { s.dsn_db_file = "/nonexistent/dir/kalvo.db"; },
       1, "the database cannot be reached: "},
      {"tables missing", [](Installation& s) { s.dsn_db_file = (s.dir() / "empty.db").string(); },
       1, "not complete (NoTables)"},
      // The workers keep their connections: the driver manager's pooling is no condition.
      {"pooling off", [](Installation& s) { s.pooling = false; }, 0, "configuration OK"},
      {"driver without CPTimeout", [](Installation& s) { s.cp_timeout = ""; }, 0,
       "configuration OK"},
      {"console addresses open", [](Installation& s) { s.kdx = ""; }, 0,
       "WARNING: KDX AdminAllowedAddresses is empty"},
      {"console addresses mistyped",
       [](Installation& s) { s.kdx = "\"AdminAllowedAddresses\"=\"10.0.0.0/40\"\r\n"; }, 1,
       "\"10.0.0.0/40\" is neither"},
      {"database settings missing", [](Installation& s) { s.db = "\"DSN\"=\"kalvo_pf\"\r\n"; }, 1,
       "KDX\\DB StringType is empty"},
      {"bad platform value", [](Installation& s) { s.kdx += "\"MaxSendQueue\"=\"lots\"\r\n"; }, 0,
       "WARNING: KDX\\MaxSendQueue = \"lots\""},
  };
  for (const Case& c : cases) {
    Installation s;
    ASSERT_EQ(s.Run("--init-database").status, 0) << c.name;
    c.prepare(s);
    const Outcome o = s.Run("--check-config");
    EXPECT_EQ(o.status, c.status) << c.name << "\n" << o.out;
    EXPECT_NE(o.out.find(c.expected), std::string::npos) << c.name << "\n" << o.out;
  }
}

TEST(Preflight, ReportsATakenPort) {
  Installation s;
  ASSERT_EQ(s.Run("--init-database").status, 0);
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(s.port()));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(fd.get(), 1), 0);
  const Outcome o = s.Run("--check-config");
  EXPECT_EQ(o.status, 1) << o.out;
  EXPECT_NE(o.out.find("port " + std::to_string(s.port()) + " on 127.0.0.1 cannot be bound"),
            std::string::npos)
      << o.out;
}

}  // namespace
}  // namespace kalvo::testing
