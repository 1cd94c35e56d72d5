// Token logons (request 101) per second through the real kalvosrv beside the same database
// operations executed directly over ODBC in this process, on SQLite (a temporary file) and
// PostgreSQL (a throw-away cluster on loopback), with 10,000 and 1,000,000 registered tokens;
// and the cost of one audit write with 1,000,000 entries in the audit log, trimmed by count
// beside not trimmed.
//
// Run: build/bench/token_logon_bench [seconds per point, default 3] [--no-million]
//          [--no-sqlite] [--no-postgres] [--connections N, default 2]
//
// A logon is what the server does for a 101 of a token client: DBGetTokenRights, the reply,
// DBSetLastTokenConnect and DBLogClientAction (auditing on, not limited). The baseline calls
// the same three operations on this process's one thread with the same settings, each with
// its own connect and disconnect through the pooling driver manager, as the server does. The
// server is a child process (--foreground, a temporary registry file, StatusPort 0) loaded by
// N client connections on 127.0.0.1, each sending the next 101 for a random registered token
// once the previous one was answered. Direct and server phases alternate within a point, and
// the server is idle (a 311 echo answered) before a direct phase starts. Both log at the same
// LogLevel: 0 for every point, and 1 (the example registry's value) for the 10,000-token one.
//
// Printed per point: the medians of the per-phase rates and of the per-round ratio
// server/direct (other load on the machine comes in bursts), and the CPU microseconds per
// logon of the process doing the logons: the server, or this process in its direct phases.
// SQLite runs inside that process, so its work is in the figure; PostgreSQL's backend is not.
//
// The audit writes run in this process; on PostgreSQL a trim still running after
// max(10 s, 5 x seconds) is cancelled from a second connection and reported as a lower bound.
//
// Tokens are registered in bulk (one INSERT ... SELECT over a generated series), each with a
// membership in the group "Jeder" as a first logon would give it. Everything (server child,
// cluster, temporary directory) is cleaned up on every path, Ctrl-C included.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "db/audit.h"
#include "db/connection.h"
#include "db/database.h"
#include "db/schema.h"
#include "db/tokens.h"
#include "infra/log.h"
#include "infra/registry_store.h"
#include "net/packet.h"
#include "net/socket_send.h"
#include "security/encryption.h"

namespace {

using namespace kalvo::bench;

constexpr int64_t kSmall = 10'000;
constexpr int64_t kLarge = 1'000'000;
constexpr int64_t kAuditRows = 1'000'000;
constexpr const char* kLogonName = "bench";
constexpr const char* kUserDn = "CN=Bench User,OU=Tokens,O=Orvanta";
constexpr const char* kPeerIp = "127.0.0.1";
struct Options {
  double seconds = 3.0;
  bool million = true;
  bool sqlite = true;
  bool postgres = true;
  int connections = 2;
};

bool ParseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--no-million") {
      o.million = false;
    } else if (a == "--no-sqlite") {
      o.sqlite = false;
    } else if (a == "--no-postgres") {
      o.postgres = false;
    } else if (a == "--connections" && i + 1 < argc) {
      o.connections = std::atoi(argv[++i]);
      if (o.connections < 1) return false;
    } else if (!a.empty() && a[0] != '-') {
      o.seconds = std::atof(a.c_str());
      if (o.seconds <= 0) return false;
    } else {
      return false;
    }
  }
  return true;
}

// Bulk loads rebuild the lookup indexes afterwards: much faster than maintaining them per row.
void DropIndexes(kalvo::DbConnection& c, std::initializer_list<const char*> names) {
  for (const char* name : names) MustRun(c, std::string("DROP INDEX IF EXISTS ") + name);
}

// Registers tokens first..last, each a member of "Jeder"; gives the seconds it took.
double RegisterTokens(kalvo::Database& db, bool postgres, int64_t first, int64_t last) {
  const auto start = Clock::now();
  kalvo::DbConnection c(db);
  Connect(c);
  DropIndexes(c, {"ix_kdx_token_guid", "ix_kdx_token_groups_token", "ix_kdx_token_groups_group"});
  const std::string guid = GuidSql(postgres, "n");
  MustRun(c, InsertSeries(postgres, "tbl_kdx_token",
                          guid + ", 'Token ' || n, '', '2020-01-01-00-00-00', "
                                 "'2020-01-01-00-00-00', '10.0.0.1', NULL, 'CN=Token ' || n",
                          first, last));
  MustRun(c,
          InsertSeries(postgres, "tbl_kdx_token_groups",
                       guid + ", '" + std::string(kalvo::kEveryoneGroupGuid) + "'", first, last));
  kalvo::DBCreateIndexes(c);
  // What autovacuum would do shortly after such a load.
  if (postgres) MustRun(c, "ANALYZE");
  if (CountOf(c, "SELECT COUNT(*) FROM tbl_kdx_token") != last ||
      CountOf(c, "SELECT COUNT(*) FROM tbl_kdx_token_groups WHERE token_guid = '" + GuidOf(last) +
                     "'") != 1) {
    throw std::runtime_error("token registration gave unexpected rows");
  }
  return Since(start);
}

// Replaces the audit log by `rows` entries with distinct time stamps in the past.
double FillAuditLog(kalvo::Database& db, bool postgres, int64_t rows, int64_t tokens) {
  const auto start = Clock::now();
  kalvo::DbConnection c(db);
  Connect(c);
  MustRun(c, "DELETE FROM tbl_kdx_logging_client");
  DropIndexes(c, {"ix_kdx_logging_time", "ix_kdx_logging_token"});
  const std::string stamp =
      postgres ? "to_char(timestamp '2020-01-01' + n * interval '1 second', "
                 "'YYYY-MM-DD-HH24-MI-SS')"
               : "strftime('%Y-%m-%d-%H-%M-%S', '2020-01-01', '+' || n || ' seconds')";
  MustRun(c, InsertSeries(postgres, "tbl_kdx_logging_client",
                          GuidSql(postgres, "(n % " + std::to_string(tokens) + ") + 1") +
                              ", 'bench', 'CONNECT', " + stamp + ", '10.0.0.1', '', 'CN=x'",
                          1, rows));
  kalvo::DBCreateIndexes(c);
  if (postgres) MustRun(c, "ANALYZE tbl_kdx_logging_client");
  return Since(start);
}

int64_t AuditRows(kalvo::Database& db) {
  kalvo::DbConnection c(db);
  Connect(c);
  return CountOf(c, "SELECT COUNT(*) FROM tbl_kdx_logging_client");
}

// Logons completed in a timed phase, its wall-clock seconds, and the CPU seconds the process
// doing the logons (this one, or the server) used meanwhile.
struct Phase {
  int64_t count = 0;
  double seconds = 0;
  double cpu = 0;
  double rate() const { return static_cast<double>(count) / seconds; }
};

double ProcessCpuSeconds() {
  timespec t{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// CPU seconds used so far by all threads of process `pid` (the scheduler's nanosecond count).
double ChildCpuSeconds(pid_t pid) {
  double total = 0;
  const fs::path tasks = "/proc/" + std::to_string(pid) + "/task";
  std::error_code ec;
  for (const auto& task : fs::directory_iterator(tasks, ec)) {
    std::ifstream in(task.path() / "schedstat");
    double ns = 0;
    if (in >> ns) total += ns * 1e-9;
  }
  return total;
}

kalvo::AuditSettings LogonAudit() {
  kalvo::AuditSettings a;
  a.is_active = true;
  return a;
}

// The baseline: the server's logon operations on this process's thread, for `seconds`.
Phase DirectLogons(kalvo::Database& db, int64_t tokens, double seconds, std::mt19937_64& rng) {
  std::uniform_int_distribution<int64_t> pick(1, tokens);
  const kalvo::AuditSettings audit = LogonAudit();
  Phase p;
  const double cpu_start = ProcessCpuSeconds();
  const auto start = Clock::now();
  while ((p.seconds = Since(start)) < seconds) {
    CheckInterrupted();
    const std::string guid = GuidOf(pick(rng));
    kalvo::DBGetTokenRights(db, guid);
    if (kalvo::DBSetLastTokenConnect(db, guid, kLogonName, kPeerIp, kUserDn).empty()) {
      throw std::runtime_error("direct logon of " + guid + " failed");
    }
    kalvo::DBLogClientAction(db, audit,
                             guid + '\0' + std::string(kUserDn) + '\0' + std::string(kLogonName),
                             kalvo::AuditAction::kConnect, kPeerIp, "");
    ++p.count;
  }
  p.cpu = ProcessCpuSeconds() - cpu_start;
  return p;
}

std::string LogonPacket(const std::string& guid, kalvo::Log& log) {
  kalvo::SocketDataStruct r;
  r.PackageID = 101;
  r.Misc2 = kLogonName;
  r.Misc3 = kUserDn;
  r.Data = guid;
  kalvo::PrepareForSending(r, log);
  return kalvo::SocketStructToString(log, r);
}

// Logons answered by the server in `seconds`, `connections` clients each keeping one 101 in
// flight for a random registered token.
Phase ServerLogons(const ServerChild& server, int connections, int64_t tokens, double seconds,
                   std::mt19937_64& rng, kalvo::Log& log) {
  struct Client {
    explicit Client(asio::io_context& io) : socket(io) {}
    tcp::socket socket;
    std::string request, received, guid;
    std::array<char, 4096> chunk{};
  };
  asio::io_context io;
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < connections; ++i) {
    clients.push_back(std::make_unique<Client>(io));
    clients.back()->socket.connect(
        tcp::endpoint(asio::ip::address_v4::loopback(), static_cast<uint16_t>(server.port())));
    clients.back()->socket.set_option(tcp::no_delay(true));
  }
  std::uniform_int_distribution<int64_t> pick(1, tokens);
  Phase p;
  int64_t wrong = 0;
  bool running = true;
  std::function<void(Client*)> send, read;
  send = [&](Client* c) {
    c->guid = GuidOf(pick(rng));
    c->request = LogonPacket(c->guid, log);
    asio::async_write(c->socket, asio::buffer(c->request),
                      [&, c](boost::system::error_code ec, size_t) {
                        if (!ec) read(c);
                      });
  };
  read = [&](Client* c) {
    c->socket.async_read_some(
        asio::buffer(c->chunk), [&, c](boost::system::error_code ec, size_t n) {
          if (ec) return;
          c->received.append(c->chunk.data(), n);
          bool answered = false;
          for (;;) {
            const int32_t size = kalvo::SocketReadPackageSize(c->received);
            if (size <= 0 || c->received.size() < static_cast<size_t>(size)) break;
            const kalvo::SocketDataStruct reply =
                kalvo::SocketStringToStruct(log, std::string_view(c->received).substr(0, size));
            c->received.erase(0, static_cast<size_t>(size));
            if (reply.PackageID != 101) continue;
            if (reply.Data != c->guid) ++wrong;
            answered = true;
          }
          if (!answered) return read(c);
          ++p.count;
          if (running) send(c);
        });
  };
  const double cpu_start = ChildCpuSeconds(server.pid());
  const auto start = Clock::now();
  for (auto& c : clients) send(c.get());
  asio::steady_timer timer(
      io, std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
  timer.async_wait([&](boost::system::error_code) {
    p.seconds = Since(start);
    running = false;
    for (auto& c : clients) c->socket.close();
  });
  asio::steady_timer watch(io);
  std::function<void()> poll = [&] {
    watch.expires_after(std::chrono::milliseconds(100));
    watch.async_wait([&](boost::system::error_code ec) {
      if (ec) return;
      if (g_interrupted) {
        timer.cancel();
        return;
      }
      if (running) poll();
    });
  };
  poll();
  io.run();
  CheckInterrupted();
  if (wrong > 0) throw std::runtime_error(std::to_string(wrong) + " replies named another token");
  // The work of the requests cut off by the end of the phase is counted in the CPU time.
  server.Sync();
  p.cpu = ChildCpuSeconds(server.pid()) - cpu_start;
  return p;
}

// Medians over the rounds of a point (the machine's other load comes in bursts that would
// otherwise decide the figures), and the CPU microseconds per logon over all rounds.
struct Rates {
  double server = 0;
  double direct = 0;
  double ratio = 0;  // of the server's to the direct rate in the same round
  double server_cpu_us = 0;
  double direct_cpu_us = 0;
};

// One point: a short warm-up of both, then direct and server alternating in half-second
// phases, `seconds` for each in all, so that the load of other processes on the machine falls
// on both alike.
Rates MeasurePoint(kalvo::Database& db, const ServerChild& server, const Options& o, int64_t tokens,
                   std::mt19937_64& rng, kalvo::Log& log) {
  DirectLogons(db, tokens, 0.2, rng);
  ServerLogons(server, o.connections, tokens, 0.2, rng, log);
  const int rounds = std::max(2, static_cast<int>(o.seconds / 0.5 + 0.5));
  const double phase = o.seconds / rounds;
  std::vector<double> direct_rates, server_rates, ratios;
  Phase direct, served;
  for (int round = 0; round < rounds; ++round) {
    const Phase d = DirectLogons(db, tokens, phase, rng);
    const Phase s = ServerLogons(server, o.connections, tokens, phase, rng, log);
    direct_rates.push_back(d.rate());
    server_rates.push_back(s.rate());
    ratios.push_back(s.rate() / d.rate());
    direct.count += d.count;
    direct.cpu += d.cpu;
    served.count += s.count;
    served.cpu += s.cpu;
  }
  return {Median(server_rates), Median(direct_rates), Median(ratios),
          served.cpu * 1e6 / static_cast<double>(served.count),
          direct.cpu * 1e6 / static_cast<double>(direct.count)};
}

// Cancels, after `budget` seconds, a trim of the audit log still running on PostgreSQL. It
// uses a connection, environment and log of its own: those of the measuring thread are busy.
class TrimWatchdog {
 public:
  TrimWatchdog(const kalvo::DatabaseSettings& settings, const fs::path& registry_file,
               const fs::path& log_file, double budget)
      : thread_([=, this] {
          {
            std::unique_lock lock(mutex_);
            if (done_cv_.wait_for(lock, std::chrono::duration<double>(budget),
                                  [this] { return done_; })) {
              return;
            }
          }
          kalvo::OdbcEnvironment env(true);
          kalvo::RegistryStore registry(registry_file.string());
          kalvo::Log log(registry, log_file.string());
          kalvo::Database db(env, log, settings);
          kalvo::DbConnection c(db);
          if (!kalvo::DBConnect(c)) return;
          kalvo::RecordSet ignored;
          fired_ = kalvo::DBExecuteSQLCommand(
              c,
              kalvo::Statement("SELECT pg_cancel_backend(pid) FROM pg_stat_activity WHERE pid <> "
                               "pg_backend_pid() AND state = 'active' AND query LIKE 'DELETE "
                               "FROM tbl_kdx_logging_client%'"),
              ignored);
        }) {}
  ~TrimWatchdog() {
    {
      std::lock_guard lock(mutex_);
      done_ = true;
    }
    done_cv_.notify_all();
    thread_.join();
  }
  bool fired() const { return fired_; }

 private:
  std::mutex mutex_;
  std::condition_variable done_cv_;
  bool done_ = false;
  std::atomic<bool> fired_{false};
  std::thread thread_;  // last: starts once the members it uses exist
};

struct AuditCost {
  double limited_ms = 0;
  double unlimited_ms = 0;
  bool limited_cancelled = false;
  int64_t rows_after_limited = 0;
};

// Milliseconds per audit write with `rows` entries in the log: trimmed by count to `rows`
// before each write, and not trimmed. A trim on PostgreSQL is cancelled after `budget` s.
AuditCost MeasureAuditWrite(kalvo::Database& db, const Engine& e, const fs::path& dir,
                            double seconds, double budget) {
  AuditCost cost;
  kalvo::AuditSettings limited;
  limited.is_active = true;
  limited.is_limited = true;
  limited.is_save_max_count = true;
  limited.save_max_count = static_cast<int32_t>(kAuditRows);
  const std::string identity =
      GuidOf(1) + '\0' + std::string(kUserDn) + '\0' + std::string(kLogonName);
  auto write = [&](const kalvo::AuditSettings& a) {
    kalvo::DBLogClientAction(db, a, identity, kalvo::AuditAction::kConnect, kPeerIp, "");
  };
  {
    int64_t n = 0;
    const auto start = Clock::now();
    do {
      CheckInterrupted();
      std::unique_ptr<TrimWatchdog> watchdog;
      if (e.postgres) {
        watchdog = std::make_unique<TrimWatchdog>(e.settings, dir / "bench.reg",
                                                  dir / "watchdog.log", budget);
      }
      write(limited);
      ++n;
      if (watchdog && watchdog->fired()) cost.limited_cancelled = true;
    } while (!cost.limited_cancelled && Since(start) < seconds);
    cost.limited_ms = Since(start) * 1e3 / static_cast<double>(n);
  }
  cost.rows_after_limited = AuditRows(db);
  {
    int64_t n = 0;
    const auto start = Clock::now();
    do {
      CheckInterrupted();
      write(LogonAudit());
      ++n;
    } while (Since(start) < seconds);
    cost.unlimited_ms = Since(start) * 1e3 / static_cast<double>(n);
  }
  return cost;
}

void PrintPoint(const Engine& e, int64_t tokens, int log_level, const Rates& r) {
  std::printf("%-11s %9lld %9d %10.0f %10.0f %14.2f %11.0f %11.0f\n", e.name.c_str(),
              static_cast<long long>(tokens), log_level, r.server, r.direct, r.ratio,
              r.server_cpu_us, r.direct_cpu_us);
  std::fflush(stdout);
}

void RunEngine(const Engine& e, const Options& o, const std::string& exe, BenchEngines& engines) {
  const fs::path& dir = engines.dir();
  kalvo::OdbcEnvironment& env = engines.env();
  kalvo::Log& log = engines.log();
  kalvo::Database db(env, log, e.settings);
  std::mt19937_64 rng(20240601);
  CreateSchema(db);
  const double small_load = RegisterTokens(db, e.postgres, 1, kSmall);
  std::printf("%-11s registered %lld tokens in %.1f s\n", e.name.c_str(),
              static_cast<long long>(kSmall), small_load);
  Rates small, large;
  for (int level : {0, 1}) {
    engines.SetLogLevel(level);
    ServerChild server(exe, dir, [&](int port) { return RegistryText(port, level, e); });
    const Rates r = MeasurePoint(db, server, o, kSmall, rng, log);
    PrintPoint(e, kSmall, level, r);
    if (level == 0) small = r;
  }
  engines.SetLogLevel(0);
  if (o.million) {
    const double large_load = RegisterTokens(db, e.postgres, kSmall + 1, kLarge);
    std::printf("%-11s registered %lld more tokens in %.1f s\n", e.name.c_str(),
                static_cast<long long>(kLarge - kSmall), large_load);
    ServerChild server(exe, dir, [&](int port) { return RegistryText(port, 0, e); });
    large = MeasurePoint(db, server, o, kLarge, rng, log);
    PrintPoint(e, kLarge, 0, large);
    std::printf("%-11s 1,000,000 / 10,000 tokens (goal >= 0.5): server %.2f, direct %.2f\n",
                e.name.c_str(), large.server / small.server, large.direct / small.direct);
  }
  const int64_t tokens = o.million ? kLarge : kSmall;
  const double fill = FillAuditLog(db, e.postgres, kAuditRows, tokens);
  std::printf("%-11s audit log filled with %lld entries in %.1f s\n", e.name.c_str(),
              static_cast<long long>(kAuditRows), fill);
  std::fflush(stdout);
  const double budget = std::max(10.0, 5 * o.seconds);
  const AuditCost a = MeasureAuditWrite(db, e, dir, o.seconds, budget);
  if (a.limited_cancelled) {
    std::printf(
        "%-11s audit write, 10^6 entries: limited > %.0f ms (trim cancelled after %.0f s)"
        ", unlimited %.3f ms, limited/unlimited > %.0f\n",
        e.name.c_str(), a.limited_ms, budget, a.unlimited_ms, a.limited_ms / a.unlimited_ms);
  } else {
    std::printf(
        "%-11s audit write, 10^6 entries: limited %.1f ms, unlimited %.3f ms, "
        "limited/unlimited %.0f (entries after the limited writes: %lld)\n",
        e.name.c_str(), a.limited_ms, a.unlimited_ms, a.limited_ms / a.unlimited_ms,
        static_cast<long long>(a.rows_after_limited));
  }
  std::fflush(stdout);
}

int Run(const Options& o) {
  const fs::path self = fs::canonical("/proc/self/exe");
  const std::string exe = (self.parent_path().parent_path() / "kalvosrv").string();
  BenchEngines engines(o.sqlite, o.postgres, 10485760);
  std::printf(
      "token logons (101) per second: kalvosrv with %d client connection(s) beside the "
      "same operations called directly; %.1f s per point, auditing on\n",
      o.connections, o.seconds);
  std::printf("%-11s %9s %9s %10s %10s %14s %11s %11s\n", "engine", "tokens", "LogLevel",
              "server/s", "direct/s", "server/direct", "srv cpu us", "dir cpu us");
  std::fflush(stdout);
  for (const Engine& e : engines.engines()) RunEngine(e, o, exe, engines);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: %s [seconds per point] [--no-million] [--no-sqlite] [--no-postgres] "
                 "[--connections N]\n",
                 argv[0]);
    return 2;
  }
  return GuardedRun("token_logon_bench", [&] { return Run(options); });
}
