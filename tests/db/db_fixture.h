// One body of database tests, run once per engine: each test of a TEST_P suite derived from
// DbTest runs against SQLite (the SQLite3 driver, a temporary file), PostgreSQL (the
// PostgreSQL ANSI driver, a cluster this test program starts once on loopback) and MariaDB
// (the driver of the shipped template, a server this test program starts once on loopback).
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "db/connection.h"
#include "db/database.h"
#include "db/odbc_handles.h"
#include "infra/log.h"
#include "infra/registry_store.h"
#include "odbc_test_env.h"

namespace kalvo::testing {

enum class Engine { kSqlite, kPostgres, kMariaDb };

inline std::string EngineName(const ::testing::TestParamInfo<Engine>& info) {
  switch (info.param) {
    case Engine::kSqlite:
      return "SQLite";
    case Engine::kPostgres:
      return "PostgreSQL";
    case Engine::kMariaDb:
      return "MariaDB";
  }
  return "?";
}

// Everything a test program shares: the temporary directory, the PostgreSQL and MariaDB
// servers, the ODBC configuration, the one ODBC environment, and a log with level 1.
class SharedDatabases {
 public:
  static SharedDatabases& Get() {
    static SharedDatabases shared;
    return shared;
  }

  // Each server is started when the first test of its engine asks for it, so a program
  // (or a single test case run on its own) starts only the servers it uses. True when the
  // server runs; otherwise the error says why.
  bool postgres_ok() {
    if (!pg_tried_) {
      pg_tried_ = true;
      postgres_ok_ = pg_.Start(pg_port_);
    }
    return postgres_ok_;
  }
  const std::string& postgres_error() const { return pg_.error(); }
  bool mariadb_ok() {
    if (!maria_tried_) {
      maria_tried_ = true;
      mariadb_ok_ = maria_.Start(maria_port_);
    }
    return mariadb_ok_;
  }
  const std::string& mariadb_error() const { return maria_.error(); }
  OdbcEnvironment& env() { return *env_; }
  Log& log() { return *log_; }
  const std::string& log_path() const { return log_->path(); }
  const TempDir& dir() const { return dir_; }

 private:
  // The data sources name their ports before the servers run: the ODBC configuration must
  // be written before the one environment is created.
  SharedDatabases()
      : pg_(dir_.path()),
        maria_(dir_.path()),
        pg_port_(FreeLoopbackPort()),
        maria_port_(FreeLoopbackPortOtherThan(pg_port_)) {
    WriteOdbcConfig(dir_.path(), true, dir_.path() / "kalvo.db", pg_port_, maria_port_);
    env_ = std::make_unique<OdbcEnvironment>(true);
    {
      std::ofstream reg(dir_.path() / "registry.reg");
      reg << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n"
             "\"LogLevel\"=dword:00000001\r\n\r\n";
    }
    registry_ = std::make_unique<RegistryStore>((dir_.path() / "registry.reg").string());
    log_ = std::make_unique<Log>(*registry_, (dir_.path() / "test.log").string());
  }

  TempDir dir_;
  PgCluster pg_;
  MariaDbServer maria_;
  int pg_port_;
  int maria_port_;
  bool pg_tried_ = false;
  bool maria_tried_ = false;
  bool postgres_ok_ = false;
  bool mariadb_ok_ = false;
  std::unique_ptr<OdbcEnvironment> env_;
  std::unique_ptr<RegistryStore> registry_;
  std::unique_ptr<Log> log_;
};

// Tables that tests create besides the server's own; dropped before every test.
inline constexpr const char* kScratchTables[] = {"t_text", "t_blob", "t_num", "tbl_kdx_tmp_test_2",
                                                 "tbl_kdx_tmp_test_1"};

class DbTest : public ::testing::TestWithParam<Engine> {
 protected:
  void SetUp() override {
    SharedDatabases& shared = SharedDatabases::Get();
    if (GetParam() == Engine::kPostgres && !shared.postgres_ok()) {
      if (RunningInCi()) {
        FAIL() << "PostgreSQL test cluster did not start: " << shared.postgres_error();
      }
      GTEST_SKIP() << "PostgreSQL test cluster did not start: " << shared.postgres_error();
    }
    if (GetParam() == Engine::kMariaDb && !shared.mariadb_ok()) {
      // Only missing binaries excuse a skip; a server that is installed but does not start
      // is a failure.
      if (MariaDbServer::Installed() || RunningInCi()) {
        FAIL() << "MariaDB test server did not start: " << shared.mariadb_error();
      }
      GTEST_SKIP() << "MariaDB test server not run: " << shared.mariadb_error();
    }
    database_ = std::make_unique<Database>(shared.env(), shared.log(), Settings());
    CleanDatabase();
    ClearLog();
  }

  // The settings an administrator would configure for the engine under test.
  DatabaseSettings Settings() const {
    DatabaseSettings s;
    s.number_type = "INTEGER";
    switch (GetParam()) {
      case Engine::kSqlite:
        s.dsn = kSqliteDsn;
        s.blob_type = "BLOB";
        break;
      case Engine::kPostgres:
        s.dsn = kPostgresDsn;
        s.user = kPgUser;
        s.password = kPgPassword;
        s.blob_type = "BYTEA";
        break;
      case Engine::kMariaDb:
        s.dsn = kMariaDbDsn;
        s.user = kMariaDbUser;
        s.password = kMariaDbPassword;
        s.number_type = "INT";
        s.blob_type = "LONGBLOB";
        break;
    }
    s.string_type = "VARCHAR";
    s.string_max_size = 255;
    s.blob_max_size = 1000;
    return s;
  }

  Database& db() { return *database_; }

  // Executes statements that must succeed for the test's set-up.
  void MustExecute(std::initializer_list<std::string_view> statements) {
    DbConnection c(db());
    ASSERT_TRUE(DBConnect(c));
    for (std::string_view sql : statements) {
      RecordSet ignored;
      ASSERT_TRUE(DBExecuteSQLCommand(c, Statement(sql), ignored)) << sql;
    }
  }

  // The rows of `sql` as "a|b$c|d" (empty when it fails or has no rows).
  std::string Query(std::string_view sql) {
    DbConnection c(db());
    RecordSet rs;
    if (!DBConnect(c) || !DBExecuteSQLCommand(c, Statement(sql), rs) || rs.Eof()) return "";
    return DBGetStringFromRecordSet(db(), rs, "|", "$", false, true);
  }

  std::string LogText() const {
    std::ifstream in(SharedDatabases::Get().log_path());
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  void ClearLog() { std::ofstream(SharedDatabases::Get().log_path(), std::ios::trunc); }
  static int Occurrences(const std::string& text, std::string_view part) {
    int n = 0;
    for (size_t p = text.find(part); p != std::string::npos; p = text.find(part, p + 1)) ++n;
    return n;
  }

 private:
  void CleanDatabase() {
    DbConnection c(db());
    ASSERT_TRUE(DBConnect(c)) << LogText();
    RecordSet ignored;
    const std::string view = "DROP VIEW tbl_kdx_token";
    DBExecuteSQLCommand(c, Statement(view), ignored);
    for (const char* t : kScratchTables) {
      DBExecuteSQLCommand(c, Statement("DROP TABLE ").Sql(t), ignored);
    }
    for (int i = 1; i <= 13; ++i) {
      DBExecuteSQLCommand(c, Statement("DROP TABLE ").Sql(TableNameForCleanup(i)), ignored);
    }
  }
  static std::string TableNameForCleanup(int index);

  std::unique_ptr<Database> database_;
};

inline std::string DbTest::TableNameForCleanup(int index) {
  static const char* kNames[] = {
      "tbl_kdx_tmp_string",    "tbl_kdx_tmp_number",      "tbl_kdx_tmp_blob",
      "tbl_kdx_token",         "tbl_kdx_groups",          "tbl_kdx_token_groups",
      "tbl_kdx_backup",        "tbl_kdx_job_properties",  "tbl_kdx_job_members",
      "tbl_kdx_job_data",      "tbl_kdx_job_data_source", "tbl_kdx_job_state",
      "tbl_kdx_logging_client"};
  return kNames[index - 1];
}

#define KALVO_INSTANTIATE_ENGINES(suite)                                                        \
  INSTANTIATE_TEST_SUITE_P(                                                                     \
      Engines, suite,                                                                           \
      ::testing::Values(::kalvo::testing::Engine::kSqlite, ::kalvo::testing::Engine::kPostgres, \
                        ::kalvo::testing::Engine::kMariaDb),                                    \
      ::kalvo::testing::EngineName)

}  // namespace kalvo::testing
