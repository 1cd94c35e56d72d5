// Task hand-outs (request 327) per second through the real kalvosrv beside the same database
// operation executed directly over ODBC in this process, with 1,000 actions over 10,000 tokens
// in 100 groups, on SQLite (a temporary file) and PostgreSQL (a throw-away cluster on
// loopback).
//
// Run: build/bench/action_handout_bench [seconds, default 3] [--no-sqlite] [--no-postgres]
//          [--connections N, default 2]
//
// Every token is a member of one group; every action (type 2, a short payload, due at every
// connection, priorities 0 to 9) has one group as its member, so a token is handed ten tasks,
// each checked for its state and schedule. A hand-out is what the server does for a 327:
// DBGetTaskCollection of the token. The baseline calls it on this process's thread with its
// own connect through the pooling driver manager, as the server does. N client connections on
// 127.0.0.1 each keep one 327 for a random token in flight. Direct and server alternate in
// half-second phases; printed are the medians of the rates and of the per-round ratio
// server/direct (goal >= 0.9).
#include <random>

#include "bench_support.h"
#include "db/actions.h"
#include "net/packet.h"
#include "net/socket_send.h"

namespace {

using namespace kalvo::bench;

constexpr int64_t kTokens = 10'000;
constexpr int64_t kGroups = 100;
constexpr int64_t kActions = 1'000;
constexpr int64_t kGroupBase = 10'000'000;   // GUID numbers of the groups
constexpr int64_t kActionBase = 20'000'000;  // and of the actions

struct Options {
  double seconds = 3.0;
  bool sqlite = true;
  bool postgres = true;
  int connections = 2;
};

bool ParseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--no-sqlite") {
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

std::string Plus(int64_t base, const std::string& n) {
  return "(" + std::to_string(base) + " + " + n + ")";
}

// Tokens 1..10,000 in groups 0..99 (token n in group n % 100), actions 0..999 with group k % 100
// as member, payload "payload <k>" and priority k % 10.
void Populate(kalvo::Database& db, bool pg) {
  kalvo::DbConnection c(db);
  Connect(c);
  MustRun(c,
          InsertSeries(pg, "tbl_kdx_token",
                       GuidSql(pg, "n") + ", 'Token ' || n, '', '', '', '', '', ''", 1, kTokens));
  MustRun(c, InsertSeries(pg, "tbl_kdx_groups",
                          GuidSql(pg, Plus(kGroupBase, "n")) + ", 'Gruppe ' || n, '', 0", 0,
                          kGroups - 1));
  MustRun(c, InsertSeries(pg, "tbl_kdx_token_groups",
                          GuidSql(pg, "n") + ", " + GuidSql(pg, Plus(kGroupBase, "n % 100")), 1,
                          kTokens));
  MustRun(c, InsertSeries(pg, "tbl_kdx_job_properties",
                          GuidSql(pg, Plus(kActionBase, "n")) +
                              ", 'Aufgabe ' || n, 2, 1, n % 10, '2020-01-01-00-00-00', '', 0",
                          0, kActions - 1));
  MustRun(c, InsertSeries(pg, "tbl_kdx_job_members",
                          GuidSql(pg, Plus(kActionBase, "n")) + ", " +
                              GuidSql(pg, Plus(kGroupBase, "n % 100")),
                          0, kActions - 1));
  const std::string payload = pg ? "convert_to('payload ' || n, 'UTF8')" : "'payload ' || n";
  MustRun(c, InsertSeries(pg, "tbl_kdx_job_data",
                          GuidSql(pg, Plus(kActionBase, "n")) + ", " + payload + ", 1", 0,
                          kActions - 1));
  if (pg) MustRun(c, "ANALYZE");
  if (CountOf(c, "SELECT COUNT(*) FROM tbl_kdx_job_members") != kActions) {
    throw std::runtime_error("the actions were not loaded");
  }
}

std::string RandomToken(std::mt19937_64& rng) {
  return GuidOf(static_cast<int64_t>(rng() % kTokens) + 1);
}

// Hand-outs done directly in `seconds`.
double DirectRate(kalvo::Database& db, double seconds, std::mt19937_64& rng) {
  int64_t n = 0;
  const auto start = Clock::now();
  double elapsed = 0;
  while ((elapsed = Since(start)) < seconds) {
    CheckInterrupted();
    if (kalvo::DBGetTaskCollection(db, RandomToken(rng)).size() != 10) {
      throw std::runtime_error("a token was not handed its ten tasks");
    }
    ++n;
  }
  return static_cast<double>(n) / elapsed;
}

// Hand-outs answered by the server in `seconds`, `connections` clients each keeping one 327 in
// flight (blocking sockets, served in turn: the server handles one request at a time anyway).
double ServerRate(const ServerChild& server, int connections, double seconds, std::mt19937_64& rng,
                  kalvo::Log& log) {
  asio::io_context io;
  std::vector<tcp::socket> sockets;
  for (int i = 0; i < connections; ++i) {
    sockets.emplace_back(io);
    sockets.back().connect(
        tcp::endpoint(asio::ip::address_v4::loopback(), static_cast<uint16_t>(server.port())));
  }
  const auto send = [&](tcp::socket& s) {
    kalvo::SocketDataStruct r;
    r.PackageID = 327;
    r.Data = RandomToken(rng);
    SendPacket(s, std::move(r), log);
  };
  const auto receive = [&](tcp::socket& s) {
    if (ReceivePacket(s, log).Data == "NONE") {
      throw std::runtime_error("the server handed out nothing");
    }
  };
  for (auto& s : sockets) send(s);
  int64_t n = 0;
  const auto start = Clock::now();
  double elapsed = 0;
  while ((elapsed = Since(start)) < seconds) {
    CheckInterrupted();
    for (auto& s : sockets) {
      receive(s);
      ++n;
      send(s);
    }
  }
  for (auto& s : sockets) receive(s);
  return static_cast<double>(n) / elapsed;
}

int Run(const Options& o) {
  const fs::path self = fs::canonical("/proc/self/exe");
  const std::string exe = (self.parent_path().parent_path() / "kalvosrv").string();
  BenchEngines engines(o.sqlite, o.postgres, 4096);
  std::printf(
      "task hand-outs (327) per second, %lld actions over %lld tokens in %lld groups: kalvosrv "
      "with %d connection(s) beside the same operation called directly; %.1f s each\n",
      static_cast<long long>(kActions), static_cast<long long>(kTokens),
      static_cast<long long>(kGroups), o.connections, o.seconds);
  std::printf("%-11s %10s %10s %14s\n", "engine", "server/s", "direct/s", "server/direct");
  std::fflush(stdout);
  for (const Engine& e : engines.engines()) {
    kalvo::Database db(engines.env(), engines.log(), e.settings);
    CreateSchema(db);
    Populate(db, e.postgres);
    ServerChild server(exe, engines.dir(), [&](int port) { return RegistryText(port, 0, e); });
    std::mt19937_64 rng(327);
    DirectRate(db, 0.2, rng);
    ServerRate(server, o.connections, 0.2, rng, engines.log());
    std::vector<double> direct, served, ratios;
    const double phase = 0.5;
    for (int round = 0; round < std::max(1, static_cast<int>(o.seconds / phase)); ++round) {
      direct.push_back(DirectRate(db, phase, rng));
      served.push_back(ServerRate(server, o.connections, phase, rng, engines.log()));
      ratios.push_back(served.back() / direct.back());
    }
    std::printf("%-11s %10.0f %10.0f %14.2f\n", e.name.c_str(), Median(served), Median(direct),
                Median(ratios));
    std::fflush(stdout);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fprintf(stderr, "usage: %s [seconds] [--no-sqlite] [--no-postgres] [--connections N]\n",
                 argv[0]);
    return 2;
  }
  return GuardedRun("action_handout_bench", [&] { return Run(options); });
}
