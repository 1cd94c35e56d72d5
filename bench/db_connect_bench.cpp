// Cost of the per-operation connect with and without the driver manager's connection
// pooling, on SQLite (a temporary file) and PostgreSQL (a throw-away cluster on loopback).
// Pooling is switched by rewriting the private odbcinst.ini between two phases; the
// summary prints each pooled figure against its unpooled baseline of the same run.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "../tests/db/odbc_test_env.h"
#include "db/connection.h"
#include "db/database.h"
#include "infra/log.h"
#include "infra/registry_store.h"

namespace {

using kalvo::Database;
using kalvo::DatabaseSettings;
using kalvo::DbConnection;
namespace kt = kalvo::testing;

struct Setup {
  kt::TempDir dir;
  kt::PgCluster pg{dir.path()};
  bool pg_ok = false;
  std::unique_ptr<kalvo::OdbcEnvironment> env;
  std::unique_ptr<kalvo::RegistryStore> registry;
  std::unique_ptr<kalvo::Log> log;
  std::map<std::string, double> ms_per_connect;
};

Setup* g_setup = nullptr;

DatabaseSettings SettingsFor(bool postgres) {
  DatabaseSettings s;
  s.dsn = postgres ? kt::kPostgresDsn : kt::kSqliteDsn;
  if (postgres) {
    s.user = kt::kPgUser;
    s.password = kt::kPgPassword;
  }
  return s;
}

void Connect(benchmark::State& state, bool postgres, const std::string& label) {
  Database db(*g_setup->env, *g_setup->log, SettingsFor(postgres));
  const DatabaseSettings& s = db.settings();
  for (auto _ : state) {
    DbConnection c(db);
    try {
      c.Open(s.dsn, s.user, s.password);
    } catch (const kalvo::OdbcError& e) {
      state.SkipWithError(e.what());
      break;
    }
    c.Close();
  }
  state.counters["connects/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.SetLabel(label);
}

// Records ms per connect of a finished run for the summary.
class Recorder : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.iterations > 0 && !r.error_occurred) {
        g_setup->ms_per_connect[r.benchmark_name()] =
            r.GetAdjustedRealTime() * 1e3 / benchmark::GetTimeUnitMultiplier(r.time_unit);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

void RunPhase(bool pooling) {
  kt::WriteOdbcConfig(g_setup->dir.path(), pooling, g_setup->dir.path() / "bench.db",
                      g_setup->pg_ok ? g_setup->pg.port() : 0);
  g_setup->env = std::make_unique<kalvo::OdbcEnvironment>(pooling);
  const std::string suffix = pooling ? "pooled" : "unpooled";
  const std::string label = std::string("pooling ") + (kalvo::OdbcPoolingEnabled() ? "on" : "off");
  benchmark::RegisterBenchmark(("Connect/SQLite/" + suffix).c_str(), [label](benchmark::State& s) {
    Connect(s, false, label);
  })->Unit(benchmark::kMillisecond);
  if (g_setup->pg_ok) {
    benchmark::RegisterBenchmark(("Connect/PostgreSQL/" + suffix).c_str(),
                                 [label](benchmark::State& s) { Connect(s, true, label); })
        ->Unit(benchmark::kMillisecond);
  }
  Recorder reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::ClearRegisteredBenchmarks();
  g_setup->env.reset();
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Setup setup;
  g_setup = &setup;
  setup.pg_ok = setup.pg.Start();
  if (!setup.pg_ok) std::fprintf(stderr, "PostgreSQL skipped: %s\n", setup.pg.error().c_str());
  setup.registry = std::make_unique<kalvo::RegistryStore>((setup.dir.path() / "r.reg").string());
  setup.log = std::make_unique<kalvo::Log>(*setup.registry, (setup.dir.path() / "b.log").string());

  RunPhase(false);
  RunPhase(true);

  std::printf("\nms per connect (goal with pooling: < 0.05 ms)\n");
  for (const char* engine : {"SQLite", "PostgreSQL"}) {
    const auto off = setup.ms_per_connect.find(std::string("Connect/") + engine + "/unpooled");
    const auto on = setup.ms_per_connect.find(std::string("Connect/") + engine + "/pooled");
    if (off == setup.ms_per_connect.end() || on == setup.ms_per_connect.end()) continue;
    std::printf("%-11s unpooled %8.4f ms  pooled %8.4f ms  speed-up x%.0f\n", engine, off->second,
                on->second, off->second / on->second);
  }
  benchmark::Shutdown();
  return 0;
}
