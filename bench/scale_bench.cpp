// Database operations whose cost must not grow with the organisation: the token list, the
// console's audit query and an audit write trimmed by count, each measured on a database of
// its own making (default 100,000 tokens and 1,000,000 audit entries, LogLevel 0) beside the
// statements that preceded them, run directly in the same process as the baseline. Every
// point also checks that both give the same result.
// Run: build/bench/scale_bench [--tokens N] [--audit N] [--seconds S] [--no-sqlite]
//      [--no-postgres]
// One table row per engine and point; the baseline runs once (it takes seconds), the
// operation is repeated for about `seconds` and its median is given.
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "db/audit.h"
#include "db/tokens.h"
#include "infra/arrays.h"

namespace {

using namespace kalvo::bench;

struct Options {
  int64_t tokens = 100000;
  int64_t audit = 1000000;
  double seconds = 2;
  bool sqlite = true;
  bool postgres = true;
};

bool ParseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool has_value = i + 1 < argc;
    if (a == "--tokens" && has_value) {
      o.tokens = std::stoll(argv[++i]);
    } else if (a == "--audit" && has_value) {
      o.audit = std::stoll(argv[++i]);
    } else if (a == "--seconds" && has_value) {
      o.seconds = std::stod(argv[++i]);
    } else if (a == "--no-sqlite") {
      o.sqlite = false;
    } else if (a == "--no-postgres") {
      o.postgres = false;
    } else {
      return false;
    }
  }
  return o.tokens > 0 && o.audit > 1;
}

// Statements a baseline may run for; a longer one is cancelled and reported as "> limit".
constexpr int32_t kBaselineLimitSeconds = 30;
constexpr int32_t kDisplayCount = 100;

// One point of the table: the operation as the server runs it and the former statements.
// Each gives its result as text, or nothing when it failed (a cancelled baseline); where the
// result is the state of the table, `check` reads it after the timed run.
struct Point {
  const char* name;
  std::function<std::optional<std::string>()> now;
  std::function<std::optional<std::string>()> before;
  std::function<std::string()> check;
};

void FillTokens(kalvo::DbConnection& c, bool postgres, int64_t tokens) {
  // Every tenth token has a certificate.
  const std::string certificate = postgres ? "CASE WHEN n % 10 = 0 THEN 'CERT'::bytea ELSE NULL END"
                                           : "CASE WHEN n % 10 = 0 THEN X'43455254' ELSE NULL END";
  MustRun(c, InsertSeries(postgres, "tbl_kdx_token",
                          GuidSql(postgres, "n") +
                              ", 'Token ' || n, '', '2020-01-01-00-00-00', "
                              "'2020-01-01-00-00-00', '10.0.0.1', " +
                              certificate + ", 'CN=Token ' || n",
                          1, tokens));
}

void FillAudit(kalvo::DbConnection& c, bool postgres, int64_t rows, int64_t tokens) {
  const std::string stamp =
      postgres ? "to_char(timestamp '2020-01-01' + n * interval '1 second', "
                 "'YYYY-MM-DD-HH24-MI-SS')"
               : "strftime('%Y-%m-%d-%H-%M-%S', '2020-01-01', '+' || n || ' seconds')";
  MustRun(c, InsertSeries(postgres, "tbl_kdx_logging_client",
                          GuidSql(postgres, "(n % " + std::to_string(tokens) + ") + 1") +
                              ", 'bench', 'CONNECT', " + stamp + ", '10.0.0.1', '', 'CN=x'",
                          1, rows));
}

// The token list as it was built before: the tokens' rows, then one probe per token.
std::optional<std::string> TokenListBefore(kalvo::Database& db,
                                           const kalvo::LanguageLookup& language) {
  kalvo::DbConnection c(db);
  Connect(c);
  kalvo::RecordSet rs;
  if (!kalvo::DBExecuteSQLCommand(
          c,
          kalvo::Statement("SELECT token_guid, token_person, token_description, token_creation, "
                           "token_last_use, token_last_ip, token_user_dn FROM tbl_kdx_token"),
          rs)) {
    return std::nullopt;
  }
  std::vector<std::string> rows = kalvo::DBGetArrayFromRecordSet(db, rs, "$", "|", true, true);
  for (std::string& row : rows) {
    CheckInterrupted();
    const bool has = kalvo::DBTokenHasCertificate(c, row.substr(0, 36));
    row += "$" + language("GENERAL", has ? "YES" : "NO") + "$";
  }
  return kalvo::Join(rows, "|");
}

// The audit query as it was: every matching entry sorted, the newest kept, then the total.
std::optional<std::string> AuditQueryBefore(kalvo::Database& db) {
  kalvo::DbConnection c(db);
  Connect(c);
  kalvo::RecordSet rs;
  const kalvo::Statement sql(
      "SELECT tbl_kdx_logging_client.token_guid, tbl_kdx_token.token_person, "
      "tbl_kdx_logging_client.user_name, tbl_kdx_logging_client.token_action, "
      "tbl_kdx_logging_client.token_timestamp, tbl_kdx_logging_client.token_ip, "
      "tbl_kdx_logging_client.token_user_dn FROM tbl_kdx_token, tbl_kdx_logging_client "
      "WHERE tbl_kdx_token.token_guid = tbl_kdx_logging_client.token_guid "
      "ORDER BY tbl_kdx_logging_client.token_timestamp DESC");
  if (!kalvo::DBExecuteSQLCommand(c, sql, rs, kDisplayCount)) return std::nullopt;
  std::string text =
      kalvo::Join(kalvo::DBGetArrayFromRecordSet(db, rs, "|", "\r\n", false, true), "\r\n");
  return text + "\r\n" + std::to_string(CountOf(c, "SELECT COUNT(*) FROM tbl_kdx_logging_client"));
}

// An audit write trimmed to `keep` entries as it was: the NOT IN statement, then the insert.
std::optional<std::string> TrimmedWriteBefore(kalvo::Database& db, int64_t keep) {
  kalvo::DbConnection c(db);
  Connect(c);
  kalvo::RecordSet ignored;
  if (!kalvo::DBExecuteSQLCommand(
          c,
          kalvo::Statement("DELETE FROM tbl_kdx_logging_client WHERE token_timestamp NOT IN "
                           "(SELECT TOP ")
              .Number(keep - 1)
              .Sql(" token_timestamp FROM tbl_kdx_logging_client ORDER BY token_timestamp DESC)"),
          ignored)) {
    return std::nullopt;
  }
  MustRun(c, "INSERT INTO tbl_kdx_logging_client VALUES ('" + GuidOf(1) +
                 "', 'bench', 'CONNECT', '2030-01-01-00-00-00', '10.0.0.1', '', 'CN=x')");
  return std::string();
}

// Seconds of one run of `f` (the median of runs for about `seconds`, at least three), and
// its last result.
std::pair<double, std::optional<std::string>> Time(
    const std::function<std::optional<std::string>()>& f, double seconds, bool once) {
  std::vector<double> runs;
  std::optional<std::string> result;
  const auto begin = Clock::now();
  do {
    CheckInterrupted();
    const auto start = Clock::now();
    result = f();
    runs.push_back(Since(start));
  } while (!once && (runs.size() < 3 || Since(begin) < seconds));
  return {Median(runs), result};
}

void RunEngine(const Engine& engine, const Options& o, BenchEngines& engines) {
  kalvo::DatabaseSettings settings = engine.settings;
  settings.timeout_seconds = kBaselineLimitSeconds;
  kalvo::Database db(engines.env(), engines.log(), settings);
  CreateSchema(db);
  {
    const auto start = Clock::now();
    kalvo::DbConnection c(db);
    Connect(c);
    FillTokens(c, engine.postgres, o.tokens);
    FillAudit(c, engine.postgres, o.audit, o.tokens);
    if (engine.postgres) MustRun(c, "ANALYZE");
    std::printf("%-11s %lld tokens and %lld audit entries made in %.1f s\n", engine.name.c_str(),
                static_cast<long long>(o.tokens), static_cast<long long>(o.audit), Since(start));
    std::fflush(stdout);
  }
  const kalvo::LanguageLookup language = [](std::string_view, std::string_view key) {
    return std::string(key == "YES" ? "Ja" : "Nein");
  };
  kalvo::AuditSettings trimmed;
  trimmed.is_active = trimmed.is_limited = trimmed.is_save_max_count = true;
  trimmed.save_max_count = static_cast<int32_t>(o.audit);
  const std::string identity = GuidOf(1) + '\0' + "CN=x" + '\0' + "bench";
  const Point points[] = {
      {"token list",
       [&]() -> std::optional<std::string> {
         // The list with the addresses column empty, as the baseline builds it.
         return kalvo::DBGetTokenList(db, language, nullptr);
       },
       [&] { return TokenListBefore(db, language); }, nullptr},
      {"audit query",
       [&]() -> std::optional<std::string> {
         std::string total;
         std::string text = kalvo::DBGetLoggingInformation(db, kDisplayCount, {}, total);
         return text + "\r\n" + total;
       },
       [&] { return AuditQueryBefore(db); }, nullptr},
      {"trimmed audit write",
       [&]() -> std::optional<std::string> {
         kalvo::DBLogClientAction(db, trimmed, identity, kalvo::AuditAction::kConnect, "10.0.0.1",
                                  "");
         return std::string();
       },
       [&] { return TrimmedWriteBefore(db, o.audit); },
       [&] {
         kalvo::DbConnection c(db);
         Connect(c);
         return std::to_string(CountOf(c, "SELECT COUNT(*) FROM tbl_kdx_logging_client"));
       }},
  };
  for (const Point& p : points) {
    auto [before_s, before] = Time(p.before, 0, true);
    if (before && p.check) before = p.check();
    auto [now_s, now] = Time(p.now, o.seconds, false);
    if (now && p.check) now = p.check();
    const bool same = before && now && *before == *now;
    if (before) {
      std::printf("%-11s %-20s %12.1f %12.2f %10.0f %6s\n", engine.name.c_str(), p.name,
                  before_s * 1e3, now_s * 1e3, before_s / now_s, same ? "yes" : "NO");
    } else {
      std::printf("%-11s %-20s %11s%d %12.2f %9s%.0f %6s\n", engine.name.c_str(), p.name, "> ",
                  kBaselineLimitSeconds * 1000, now_s * 1e3, "> ", kBaselineLimitSeconds / now_s,
                  "-");
    }
    std::fflush(stdout);
  }
}

int Run(const Options& o) {
  BenchEngines engines(o.sqlite, o.postgres, 1000);
  std::printf("%-11s %-20s %12s %12s %10s %6s\n", "engine", "operation", "before ms", "now ms",
              "before/now", "same");
  for (const Engine& e : engines.engines()) RunEngine(e, o, engines);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: %s [--tokens N] [--audit N (> 1)] [--seconds S] [--no-sqlite] "
                 "[--no-postgres]\n",
                 argv[0]);
    return 2;
  }
  return GuardedRun("scale_bench", [&] { return Run(options); });
}
