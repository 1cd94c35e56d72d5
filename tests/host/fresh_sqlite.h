// Test support: the end-to-end tests' SQLite database (the process-wide test data source) with
// every table made anew, this process's own access to it for reading back what a server wrote,
// and the registry lines that give a server the same database.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "../db/odbc_test_env.h"
#include "db/connection.h"
#include "db/operation.h"
#include "db/schema.h"

namespace kalvo::testing {

class FreshSqlite {
 public:
  // Drops and creates every table; `ok()` tells whether that worked.
  FreshSqlite() {
    SqliteOdbcDir();
    settings_.dsn = kSqliteDsn;
    settings_.string_type = "VARCHAR";
    settings_.string_max_size = 255;
    settings_.number_type = "INTEGER";
    settings_.blob_type = "BLOB";
    settings_.blob_max_size = 4096;
    database_ = std::make_unique<Database>(env_, log_, settings_);
    DbConnection c(*database_);
    ok_ = DBConnect(c) && DBDropAllTables(c) == 0 &&
          DBCreateAllTables(c, settings_, [](std::string_view, std::string_view key) {
            return std::string(key == "GROUP_EVERYONE" ? "Jeder" : "Alle");
          }) == 0;
  }

  bool ok() const { return ok_; }
  Database& database() { return *database_; }

  // The "KDX\DB" key of a server on this database (BLOBMaxSize 4096), with `extra` value lines.
  static std::string DatabaseKey(const std::string& extra = "") {
    return "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\DB]\r\n\"DSN\"=\"" +
           std::string(kSqliteDsn) +
           "\"\r\n\"StringType\"=\"VARCHAR\"\r\n\"StringMaxSize\"=dword:000000ff\r\n"
           "\"NumberType\"=\"INTEGER\"\r\n\"BLOBType\"=\"BLOB\"\r\n"
           "\"BLOBMaxSize\"=dword:00001000\r\n" +
           extra + "\r\n";
  }

  // The rows of `sql` as "a|b$c|d" ("" when it fails or has no rows).
  std::string Query(std::string_view sql) {
    return RunOperation(*database_, "Query", ConnectFailure::kPlain, std::string(),
                        [&](DbConnection& c, std::string& result) {
                          result = QueryText(c, Statement(sql), "|", "$", false, true);
                        });
  }

  // Executes `sql`, which must succeed.
  void MustExecute(std::string_view sql) {
    DbConnection c(*database_);
    RecordSet ignored;
    ASSERT_TRUE(DBConnect(c) && DBExecuteSQLCommand(c, Statement(sql), ignored)) << sql;
  }

 private:
  RegistryStore registry_{"/nonexistent/kalvo/registry.reg"};
  Log log_{registry_, "/dev/null"};
  OdbcEnvironment env_{true};
  DatabaseSettings settings_;
  std::unique_ptr<Database> database_;
  bool ok_ = false;
};

}  // namespace kalvo::testing
