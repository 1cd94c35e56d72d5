// Test and benchmark support: a private ODBC configuration (odbcinst.ini and odbc.ini in a
// temporary directory, pointed at by ODBCSYSINI and ODBCINI) and throw-away PostgreSQL and
// MariaDB servers on free loopback ports. Nothing is written into the machine's ODBC setup,
// and nothing the machine runs is used. Header-only so that the benchmarks can use it too.
#pragma once

#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

#include "infra/ini_file.h"

namespace kalvo::testing {

inline constexpr const char* kSqliteDsn = "kalvo_test_sqlite";
inline constexpr const char* kPostgresDsn = "kalvo_test_pg";
inline constexpr const char* kPgUser = "kalvo";
inline constexpr const char* kPgPassword = "Kalvo-Test-1";
inline constexpr const char* kPgBin = "/usr/lib/postgresql/15/bin";
inline constexpr const char* kMariaDbDsn = "kalvo_test_mariadb";
inline constexpr const char* kMariaDbUser = "kalvo";
inline constexpr const char* kMariaDbPassword = "Kalvo-Test-1";
inline constexpr const char* kMariaDbServer = "/usr/sbin/mariadbd";
inline constexpr const char* kMariaDbInstall = "/usr/bin/mariadb-install-db";
inline constexpr const char* kMariaDbClient = "/usr/bin/mariadb";

// The ODBC templates the package ships; the MariaDB data source of the tests is made from
// its template, so a template naming a driver the machine does not register fails here.
inline std::filesystem::path PackagingOdbcDir() {
  return std::filesystem::path(__FILE__).parent_path() / ".." / ".." / "packaging" / "odbc";
}

// A directory that is removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kalvo-db-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// The driver library of `driver` as the machine's odbcinst.ini names it, made absolute so
// that a copy of the entry works from another directory.
inline std::string DriverLibrary(const std::string& driver) {
  std::string lib = ReadIniText("/etc/odbcinst.ini", driver, "Driver");
  if (lib.empty() || lib.front() == '/') return lib;
  for (const char* dir : {"/usr/lib/x86_64-linux-gnu/odbc/", "/usr/lib/x86_64-linux-gnu/",
                          "/usr/lib/aarch64-linux-gnu/odbc/", "/usr/lib/odbc/", "/usr/lib/"}) {
    if (std::filesystem::exists(std::string(dir) + lib)) return dir + lib;
  }
  return lib;
}

// A free TCP port on 127.0.0.1 (free when asked; good enough for a test cluster).
inline int FreeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  ::close(fd);
  return port;
}

// A free port as above that is not `taken` (the kernel may hand out the same one twice).
inline int FreeLoopbackPortOtherThan(int taken) {
  int port = FreeLoopbackPort();
  while (port == taken) port = FreeLoopbackPort();
  return port;
}

// A PostgreSQL cluster in `dir`/pg, WIN1252, password authentication, listening on
// 127.0.0.1:port() with its socket in `dir`. As root the server runs as "nobody" (it
// refuses to run as root). Stopped on destruction.
class PgCluster {
 public:
  explicit PgCluster(std::filesystem::path dir) : dir_(std::move(dir)) {}
  ~PgCluster() { Stop(); }
  PgCluster(const PgCluster&) = delete;
  PgCluster& operator=(const PgCluster&) = delete;

  // Initialises and starts the cluster on `port` (0: a free one); false (with `error()`
  // telling why) on failure.
  bool Start(int port = 0) {
    if (!std::filesystem::exists(std::string(kPgBin) + "/initdb")) {
      error_ = std::string("no PostgreSQL server binaries in ") + kPgBin;
      return false;
    }
    const std::filesystem::path data = dir_ / "pg";
    {
      std::ofstream pw(dir_ / "pgpass");
      pw << kPgPassword << "\n";
    }
    std::string run_as;
    if (::geteuid() == 0) {
      const passwd* nobody = ::getpwnam("nobody");
      if (nobody == nullptr) {
        error_ = "running as root and no user 'nobody' to run PostgreSQL";
        return false;
      }
      std::error_code ec;
      std::filesystem::permissions(dir_, std::filesystem::perms::owner_all, ec);
      if (::chown(dir_.c_str(), nobody->pw_uid, nobody->pw_gid) != 0 ||
          ::chown((dir_ / "pgpass").c_str(), nobody->pw_uid, nobody->pw_gid) != 0) {
        error_ = "cannot hand the cluster directory to 'nobody'";
        return false;
      }
      run_as = "runuser -u nobody -- ";
    }
    port_ = port != 0 ? port : FreeLoopbackPort();
    const std::string log = (dir_ / "pg.log").string();
    std::string cmd = run_as + kPgBin + "/initdb -D '" + data.string() + "' -U " + kPgUser +
                      " --pwfile='" + (dir_ / "pgpass").string() +
                      "' -A scram-sha-256 -E WIN1252 --locale=C --no-sync >'" + log + "' 2>&1";
    if (std::system(cmd.c_str()) != 0) {
      error_ = "initdb failed, see " + log;
      return false;
    }
    run_as_ = run_as;
    return StartServer();
  }

  // Stops the running cluster (its connections end, what was committed stays) and starts it
  // again on the same port, as an administrator's restart does; false when it does not come
  // back.
  bool Restart() {
    Stop("fast");
    return StartServer();
  }

  // Stops the cluster; the immediate mode (the default) may lose the last commits, since the
  // cluster runs without synchronous commits.
  void Stop(const char* mode = "immediate") {
    if (!started_) return;
    const std::string cmd = run_as_ + kPgBin + "/pg_ctl -D '" + (dir_ / "pg").string() + "' -m " +
                            mode + " -w stop >/dev/null 2>&1";
    if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "pg_ctl stop failed\n");
    started_ = false;
  }

  int port() const { return port_; }
  const std::string& error() const { return error_; }

 private:
  bool StartServer() {
    const std::string log = (dir_ / "pg.log").string();
    const std::string cmd = run_as_ + kPgBin + "/pg_ctl -D '" + (dir_ / "pg").string() + "' -l '" +
                            (dir_ / "server.log").string() + "' -w -t 60 -o \"-p " +
                            std::to_string(port_) + " -k '" + dir_.string() +
                            "' -c listen_addresses=127.0.0.1 -c fsync=off -c synchronous_commit=off"
                            " -c full_page_writes=off\" start >>'" +
                            log + "' 2>&1";
    if (std::system(cmd.c_str()) != 0) {
      error_ = "pg_ctl start failed, see " + log + " and server.log";
      return false;
    }
    started_ = true;
    return true;
  }

  std::filesystem::path dir_;
  std::string run_as_;
  std::string error_;
  int port_ = 0;
  bool started_ = false;
};

// A MariaDB server with its data directory and socket in `dir`/mariadb, listening on
// 127.0.0.1:port(), with a database "kalvo" in latin1 (Windows-1252) that the user
// kMariaDbUser owns. Durability is traded for speed (no binary log, no flush per commit).
// Stopped on destruction.
class MariaDbServer {
 public:
  explicit MariaDbServer(std::filesystem::path dir) : dir_(std::move(dir) / "mariadb") {}
  ~MariaDbServer() { Stop(); }
  MariaDbServer(const MariaDbServer&) = delete;
  MariaDbServer& operator=(const MariaDbServer&) = delete;

  // False when the server binaries are not installed: the only reason to skip its tests.
  static bool Installed() {
    return ::access(kMariaDbServer, X_OK) == 0 && ::access(kMariaDbInstall, X_OK) == 0 &&
           ::access(kMariaDbClient, X_OK) == 0;
  }

  // Initialises the data directory, starts the server on `port` (0: a free one) and creates
  // the user and the database; false (with `error()` telling why) on failure.
  bool Start(int port = 0) {
    if (!Installed()) {
      error_ = std::string("no MariaDB server binaries (") + kMariaDbServer + ", " +
               kMariaDbInstall + ", " + kMariaDbClient +
               "; Debian packages mariadb-server-core, mariadb-client-core)";
      return false;
    }
    std::error_code ec;
    std::filesystem::create_directories(dir_, ec);
    const std::string data = (dir_ / "data").string();
    const std::string log = (dir_ / "setup.log").string();
    // mariadbd refuses to run as root unless told to.
    const std::string user = ::geteuid() == 0 ? " --user=root" : "";
    std::string cmd = std::string(kMariaDbInstall) + " --no-defaults --datadir='" + data + "'" +
                      user +
                      " --auth-root-authentication-method=normal --skip-test-db"
                      " --skip-name-resolve >'" +
                      log + "' 2>&1";
    // Seen once in many runs: the bootstrap failed under load. A second try on an empty
    // data directory; the reason goes into the error, since the directory is removed.
    bool installed = false;
    for (int attempt = 0; attempt < 2 && !installed; ++attempt) {
      std::filesystem::remove_all(data, ec);
      installed = std::system(cmd.c_str()) == 0;
    }
    if (!installed) {
      std::ifstream in(log);
      std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      error_ = "mariadb-install-db failed twice: " +
               text.substr(text.size() > 2000 ? text.size() - 2000 : 0);
      return false;
    }
    port_ = port != 0 ? port : FreeLoopbackPort();
    cmd = std::string(kMariaDbServer) + " --no-defaults --datadir='" + data + "' --socket='" +
          socket() + "' --pid-file='" + (dir_ / "pid").string() + "' --log-error='" +
          (dir_ / "server.log").string() + "' --port=" + std::to_string(port_) + user +
          " --bind-address=127.0.0.1 --skip-name-resolve --skip-log-bin"
          " --innodb-flush-log-at-trx-commit=0 --innodb-doublewrite=0"
          " --innodb-buffer-pool-size=32M --innodb-log-file-size=16M"
          " </dev/null >/dev/null 2>&1 &";
    if (std::system(cmd.c_str()) != 0) {
      error_ = "mariadbd could not be started";
      return false;
    }
    started_ = true;
    // The server is up once root can run a statement over the socket.
    const std::string client =
        std::string(kMariaDbClient) + " --no-defaults --socket='" + socket() + "' -uroot";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::system((client + " -e 'SELECT 1' >/dev/null 2>&1").c_str()) != 0) {
      if (std::chrono::steady_clock::now() >= deadline) {
        error_ = "mariadbd did not answer within 60 s, see " + (dir_ / "server.log").string();
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    // The steps the README gives administrators.
    cmd = client +
          " -e \"CREATE DATABASE kalvo CHARACTER SET latin1 COLLATE latin1_swedish_ci;"
          " CREATE USER '" +
          kMariaDbUser + "'@'127.0.0.1' IDENTIFIED BY '" + kMariaDbPassword +
          "'; GRANT ALL PRIVILEGES ON kalvo.* TO '" + kMariaDbUser + "'@'127.0.0.1';\" >>'" + log +
          "' 2>&1";
    if (std::system(cmd.c_str()) != 0) {
      error_ = "creating the database and user failed, see " + log;
      return false;
    }
    return true;
  }

  // Stops the server and waits until it has gone (at most 30 s).
  void Stop() {
    if (!started_) return;
    started_ = false;
    std::ifstream pid_file(dir_ / "pid");
    pid_t pid = 0;
    if (!(pid_file >> pid) || pid <= 0 || ::kill(pid, SIGTERM) != 0) return;
    // The server removes its pid file as the last step of a clean shutdown; the process
    // itself may linger as a zombie of whoever adopted it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    auto running = [&] { return std::filesystem::exists(dir_ / "pid") && ::kill(pid, 0) == 0; };
    while (running() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (running()) ::kill(pid, SIGKILL);
  }

  int port() const { return port_; }
  const std::string& error() const { return error_; }

 private:
  std::string socket() const { return (dir_ / "mysqld.sock").string(); }

  std::filesystem::path dir_;
  std::string error_;
  int port_ = 0;
  bool started_ = false;
};

// Writes odbcinst.ini (SQLite3, PostgreSQL ANSI and the MariaDB template's driver, each with
// CPTimeout; [ODBC] Pooling as asked) and odbc.ini (the SQLite DSN on `sqlite_file`, the
// PostgreSQL DSN on `pg_port` and the MariaDB DSN on `mariadb_port` when they are not 0) into
// `dir`, and points ODBCSYSINI and ODBCINI at them. Must run before the process's ODBC
// environment is created.
inline void WriteOdbcConfig(const std::filesystem::path& dir, bool pooling,
                            const std::filesystem::path& sqlite_file, int pg_port,
                            int mariadb_port = 0) {
  // Driver, character set and session settings come from the shipped template; only where
  // the server is differs.
  const std::string maria_template = (PackagingOdbcDir() / "odbc.ini.mariadb").string();
  const std::string maria_driver = ReadIniText(maria_template, "kalvo", "Driver");
  {
    std::ofstream inst(dir / "odbcinst.ini");
    inst << "[ODBC]\nPooling = " << (pooling ? "Yes" : "No") << "\n\n"
         << "[SQLite3]\nDescription = SQLite3 ODBC Driver\nDriver = " << DriverLibrary("SQLite3")
         << "\nCPTimeout = 120\nThreading = 1\n\n"
         << "[PostgreSQL ANSI]\nDescription = PostgreSQL ODBC driver (ANSI version)\nDriver = "
         << DriverLibrary("PostgreSQL ANSI") << "\nCPTimeout = 120\nThreading = 1\n";
    if (mariadb_port != 0) {
      inst << "\n[" << maria_driver << "]\nDriver = " << DriverLibrary(maria_driver)
           << "\nCPTimeout = 120\nThreading = 1\n";
    }
  }
  {
    std::ofstream ini(dir / "odbc.ini");
    ini << "[" << kSqliteDsn << "]\nDriver = SQLite3\nDatabase = " << sqlite_file.string()
        << "\nTimeout = 5000\n\n";
    if (pg_port != 0) {
      ini << "[" << kPostgresDsn
          << "]\nDriver = PostgreSQL ANSI\nServername = 127.0.0.1\nPort = " << pg_port
          << "\nDatabase = postgres\nConnSettings = SET client_encoding TO 'WIN1252'\n"
             "ByteaAsLongVarBinary = 1\nSSLmode = disable\n\n";
    }
    if (mariadb_port != 0) {
      ini << "[" << kMariaDbDsn << "]\nDriver = " << maria_driver
          << "\nServer = 127.0.0.1\nPort = " << mariadb_port
          << "\nDatabase = kalvo\nCharset = " << ReadIniText(maria_template, "kalvo", "Charset")
          << "\nInitStmt = " << ReadIniText(maria_template, "kalvo", "InitStmt") << "\n";
    }
  }
  ::setenv("ODBCSYSINI", dir.c_str(), 1);
  ::setenv("ODBCINI", (dir / "odbc.ini").c_str(), 1);
}

// The directory of a process-wide ODBC configuration with pooling and the SQLite data source
// on "kalvo.db" inside it, written on first use: the driver manager reads its files once per
// process.
inline const std::filesystem::path& SqliteOdbcDir() {
  static TempDir dir;
  static const bool written = [] {
    WriteOdbcConfig(dir.path(), true, dir.path() / "kalvo.db", 0);
    return true;
  }();
  (void)written;
  return dir.path();
}

// True when the environment says this is a CI run, where a test database that cannot be
// started is a failure rather than a reason to skip.
inline bool RunningInCi() {
  const char* ci = std::getenv("CI");
  return ci != nullptr && std::string(ci) == "true";
}

}  // namespace kalvo::testing
