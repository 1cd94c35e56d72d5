// What the benchmarks that drive a real kalvosrv share: interruption, the engines (SQLite in a
// temporary file, PostgreSQL in a throw-away cluster on loopback), the schema, the registry of
// a server child and the child itself. Header-only: each benchmark is one program.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "../tests/db/odbc_test_env.h"
#include "db/connection.h"
#include "db/database.h"
#include "db/schema.h"
#include "infra/log.h"
#include "infra/registry_store.h"
#include "net/packet.h"
#include "net/socket_send.h"
#include "security/encryption.h"

namespace kalvo::bench {

namespace asio = boost::asio;
namespace fs = std::filesystem;
namespace kt = kalvo::testing;
using asio::ip::tcp;
using Clock = std::chrono::steady_clock;

inline volatile std::sig_atomic_t g_interrupted = 0;
inline void OnSignal(int) { g_interrupted = 1; }

inline void CheckInterrupted() {
  if (g_interrupted) throw std::runtime_error("interrupted");
}

inline double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A number as the registry writes a dword: eight hexadecimal digits.
inline std::string Hex(int32_t value) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(value));
  return hex;
}

// Multiplier of the first GUID group: consecutive rows get scattered GUIDs, as real ones are.
inline constexpr uint64_t kGuidMix = 2654435761u;

// The GUID of token row `n`: 8-4-4-4-12 upper-case hexadecimal, the row number in the last
// group. The SQL of GuidSql gives the same text.
inline std::string GuidOf(int64_t n) {
  char text[40];
  std::snprintf(
      text, sizeof text, "%08llX-0000-4000-8000-%012llX",
      static_cast<unsigned long long>((static_cast<uint64_t>(n) * kGuidMix) % (1ull << 32)),
      static_cast<unsigned long long>(n));
  return text;
}

inline std::string GuidSql(bool postgres, const std::string& n) {
  const std::string mixed = "((" + n + ") * " + std::to_string(kGuidMix) + ") % 4294967296";
  if (postgres) {
    return "upper(lpad(to_hex(" + mixed + "), 8, '0') || '-0000-4000-8000-' || lpad(to_hex(" + n +
           "), 12, '0'))";
  }
  return "printf('%08X-0000-4000-8000-%012X', " + mixed + ", " + n + ")";
}

// "INSERT INTO table SELECT <columns> ..." over n = first..last.
inline std::string InsertSeries(bool postgres, const std::string& table, const std::string& columns,
                                int64_t first, int64_t last) {
  if (postgres) {
    return "INSERT INTO " + table + " SELECT " + columns + " FROM generate_series(" +
           std::to_string(first) + "::bigint, " + std::to_string(last) + "::bigint) AS s(n)";
  }
  return "INSERT INTO " + table + " WITH RECURSIVE s(n) AS (SELECT " + std::to_string(first) +
         " UNION ALL SELECT n + 1 FROM s WHERE n < " + std::to_string(last) + ") SELECT " +
         columns + " FROM s";
}

struct Engine {
  std::string name;
  bool postgres = false;
  kalvo::DatabaseSettings settings;
};

inline void MustRun(kalvo::DbConnection& c, const std::string& sql) {
  kalvo::RecordSet ignored;
  if (!kalvo::DBExecuteSQLCommand(c, kalvo::Statement(sql), ignored)) {
    throw std::runtime_error("statement failed (" + c.database().last_error_description() +
                             "): " + sql.substr(0, 200));
  }
}

inline int64_t CountOf(kalvo::DbConnection& c, const std::string& sql) {
  kalvo::RecordSet rs;
  if (!kalvo::DBExecuteSQLCommand(c, kalvo::Statement(sql), rs) || rs.Eof() || !rs.rows[0][0]) {
    throw std::runtime_error("count failed: " + sql);
  }
  return std::stoll(*rs.rows[0][0]);
}

inline void Connect(kalvo::DbConnection& c) {
  if (!kalvo::DBConnect(c)) {
    throw std::runtime_error("cannot connect: " + c.database().last_error_description());
  }
}

inline void CreateSchema(kalvo::Database& db) {
  kalvo::DbConnection c(db);
  Connect(c);
  const kalvo::LanguageLookup language = [](std::string_view, std::string_view key) {
    return key == "GROUP_EVERYONE" ? std::string("Jeder") : std::string("Everyone");
  };
  if (kalvo::DBCreateAllTables(c, db.settings(), language) != 0) {
    throw std::runtime_error("creating the tables failed");
  }
}

// The registry of a server child: listening on `port`, LogLevel `log_level`, no status
// endpoint, auditing on, the database of `e`; `extra_kdx` is appended to the key "KDX".
inline std::string RegistryText(int port, int log_level, const Engine& e,
                                const std::string& extra_kdx = "") {
  const kalvo::DatabaseSettings& s = e.settings;
  const std::string key = kalvo::VersionInfoKeyText();
  const std::string user = s.user.empty() ? "" : kalvo::EncryptText(s.user, key);
  const std::string pass = s.password.empty() ? "" : kalvo::EncryptText(s.password, key);
  const std::string hex = Hex(log_level);
  return std::string("REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n") +
         "\"LogLevel\"=dword:" + hex + "\r\n\r\n" +
         "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]\r\n" + "\"ServerLocalPort\"=\"" +
         std::to_string(port) + "\"\r\n\"StatusPort\"=dword:00000000\r\n" +
         "\"AuditIsActive\"=dword:ffffffff\r\n" + extra_kdx + "\r\n" +
         "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\DB]\r\n\"DSN\"=\"" + s.dsn +
         "\"\r\n\"LoginUser\"=\"" + user + "\"\r\n\"LoginPass\"=\"" + pass +
         "\"\r\n\"StringType\"=\"" + s.string_type + "\"\r\n\"StringMaxSize\"=dword:000000ff\r\n" +
         "\"NumberType\"=\"" + s.number_type + "\"\r\n\"BLOBType\"=\"" + s.blob_type +
         "\"\r\n\"BLOBMaxSize\"=dword:" + Hex(s.blob_max_size) + "\r\n";
}

// The registry of this process's own log: LogLevel `log_level`.
inline void WriteBenchRegistry(const fs::path& file, int log_level) {
  std::ofstream(file, std::ios::binary)
      << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n\"LogLevel\"=dword:"
      << Hex(log_level) << "\r\n";
}

// kalvosrv in the foreground as a child process; killed when the object goes (and, through
// the parent-death signal, when this process dies without unwinding).
class ServerChild {
 public:
  // Starts it with the registry text `registry_for(port)` on a free port; throws when it does
  // not listen within 15 s.
  ServerChild(const std::string& exe, const fs::path& dir,
              const std::function<std::string(int port)>& registry_for)
      : port_(kt::FreeLoopbackPort()) {
    const int port = port_;
    const std::string reg = (dir / ("server-" + std::to_string(port) + ".reg")).string();
    const std::string log = (dir / ("server-" + std::to_string(port) + ".log")).string();
    std::ofstream(reg, std::ios::binary) << registry_for(port);
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::execl(exe.c_str(), exe.c_str(), "--foreground", "--registry", reg.c_str(), "--log-file",
              log.c_str(), "--listen-address", "127.0.0.1", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    try {
      WaitListening(log);
    } catch (...) {
      Stop();  // the destructor does not run for a constructor that throws
      throw;
    }
  }
  ~ServerChild() { Stop(); }
  ServerChild(const ServerChild&) = delete;
  ServerChild& operator=(const ServerChild&) = delete;

  // Returns once the server has handled everything sent before: it serves one request at a
  // time, so the answer to an echo (311) comes after all earlier work.
  void Sync() const {
    asio::io_context io;
    tcp::socket s(io);
    s.connect(tcp::endpoint(asio::ip::address_v4::loopback(), static_cast<uint16_t>(port_)));
    static const std::string kEcho = "14|311|0||||0|";
    asio::write(s, asio::buffer(kEcho));
    char reply[14];
    asio::read(s, asio::buffer(reply));
  }

  int port() const { return port_; }
  pid_t pid() const { return pid_; }

 private:
  void WaitListening(const std::string& log) {
    for (int i = 0; i < 1500; ++i) {
      CheckInterrupted();
      if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        throw std::runtime_error("kalvosrv ended at start, see " + log);
      }
      asio::io_context io;
      tcp::socket s(io);
      boost::system::error_code ec;
      s.connect(tcp::endpoint(asio::ip::address_v4::loopback(), static_cast<uint16_t>(port_)), ec);
      if (!ec) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("kalvosrv did not listen within 15 s, see " + log);
  }

  void Stop() noexcept {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    for (int i = 0; i < 300; ++i) {
      if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  int port_;
  pid_t pid_ = -1;
};

// The engines of a benchmark run and what they need: a temporary directory (SQLite's file,
// the cluster, the ODBC configuration, logs), the cluster, and this process's ODBC
// environment and log. `blob_max_size` is the engines' BLOBMaxSize.
class BenchEngines {
 public:
  BenchEngines(bool sqlite, bool postgres, int32_t blob_max_size) : pg_(dir_.path()) {
    bool pg_ok = false;
    if (postgres) {
      pg_ok = pg_.Start();
      if (!pg_ok) std::fprintf(stderr, "PostgreSQL skipped: %s\n", pg_.error().c_str());
    }
    kt::WriteOdbcConfig(dir_.path(), true, dir_.path() / "kalvo.db", pg_ok ? pg_.port() : 0);
    env_ = std::make_unique<kalvo::OdbcEnvironment>(true);
    WriteBenchRegistry(dir_.path() / "bench.reg", 0);
    registry_ = std::make_unique<kalvo::RegistryStore>((dir_.path() / "bench.reg").string());
    log_ = std::make_unique<kalvo::Log>(*registry_, (dir_.path() / "bench.log").string());
    kalvo::DatabaseSettings common;
    common.string_type = "VARCHAR";
    common.string_max_size = 255;
    common.number_type = "INTEGER";
    common.blob_max_size = blob_max_size;
    if (sqlite) {
      Engine e{"SQLite", false, common};
      e.settings.dsn = kt::kSqliteDsn;
      e.settings.blob_type = "BLOB";
      engines_.push_back(e);
    }
    if (pg_ok) {
      Engine e{"PostgreSQL", true, common};
      e.settings.dsn = kt::kPostgresDsn;
      e.settings.user = kt::kPgUser;
      e.settings.password = kt::kPgPassword;
      e.settings.blob_type = "BYTEA";
      engines_.push_back(e);
    }
  }

  const fs::path& dir() const { return dir_.path(); }
  const std::vector<Engine>& engines() const { return engines_; }
  kalvo::OdbcEnvironment& env() { return *env_; }
  kalvo::Log& log() { return *log_; }
  // Sets this process's LogLevel (the servers' comes with their own registry).
  void SetLogLevel(int level) {
    WriteBenchRegistry(dir_.path() / "bench.reg", level);
    registry_->Invalidate();
  }

 private:
  kt::TempDir dir_;
  kt::PgCluster pg_;
  std::unique_ptr<kalvo::OdbcEnvironment> env_;
  std::unique_ptr<kalvo::RegistryStore> registry_;
  std::unique_ptr<kalvo::Log> log_;
  std::vector<Engine> engines_;
};

inline double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// The kernel's count of resident bytes of process `pid`: "VmRSS" now, or "VmHWM" (the peak
// so far). 0 when it cannot be read.
inline int64_t ResidentBytes(pid_t pid, const char* field = "VmRSS") {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  const std::string prefix = std::string(field) + ":";
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(prefix, 0) == 0) return std::stoll(line.substr(prefix.size())) * 1024;
  }
  return 0;
}

// Sends `packet` (sizes computed here) on a blocking socket.
inline void SendPacket(tcp::socket& socket, kalvo::SocketDataStruct packet, kalvo::Log& log) {
  kalvo::PrepareForSending(packet, log);
  asio::write(socket, asio::buffer(kalvo::SocketStructToString(log, packet)));
}

// Reads the next whole packet from a blocking socket.
inline kalvo::SocketDataStruct ReceivePacket(tcp::socket& socket, kalvo::Log& log) {
  std::string text;
  char c = 0;
  while (c != '|') {
    asio::read(socket, asio::buffer(&c, 1));
    text += c;
  }
  const size_t size = std::stoul(text);
  const size_t head = text.size();
  text.resize(size);
  asio::read(socket, asio::buffer(text.data() + head, size - head));
  return kalvo::SocketStringToStruct(log, text);
}

// Runs a benchmark with Ctrl-C and SIGTERM turned into an orderly stop; an exception is
// reported under `name` after every destructor ran (servers stopped, clusters stopped, files
// removed). Gives the exit status.
inline int GuardedRun(const char* name, const std::function<int()>& run) {
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  try {
    return run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", name, e.what());
    return 1;
  }
}

}  // namespace kalvo::bench
