// Fuzz target: the connect path with a data source name, user and password of any bytes and
// length, the way a console's database test hands them on. The driver manager's pooling is
// on and the SQLite data source exists, so texts that pass our length check reach the pool's
// fixed buffers: a length check that lets too much through ends the run with a sanitizer or
// fortify report.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "../db/odbc_test_env.h"
#include "db/connection.h"
#include "infra/log.h"
#include "infra/registry_store.h"

// The driver manager of Debian 12 leaks its character-set converters for every connection handle
// it frees (which random users and passwords make it do often) and the PostgreSQL driver keeps a
// little of every connection: neither is ours.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:iconv_open\nleak:libodbc.so\nleak:psqlodbca.so\n";
}

namespace {

struct Setup {
  Setup() { kalvo::testing::WriteOdbcConfig(dir.path(), true, dir.path() / "kalvo.db", 0); }
  kalvo::testing::TempDir dir;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Setup setup;
  static kalvo::RegistryStore registry("/nonexistent/kalvo/registry.reg");
  static kalvo::Log log(registry, "/dev/null");
  static kalvo::OdbcEnvironment env(true);
  static kalvo::Database database(env, log);
  // The input is the three texts separated by NUL; an odd first byte takes the data source
  // that exists instead of the first text, so that the driver and the pool are reached.
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string fields[3];
  size_t field = 0;
  for (size_t i = 1; i < input.size(); ++i) {
    if (input[i] == '\0' && field < 2) {
      ++field;
    } else {
      fields[field] += input[i];
    }
  }
  if (size > 0 && (data[0] & 1) != 0) fields[0] = kalvo::testing::kSqliteDsn;
  kalvo::DbConnection connection(database);
  kalvo::DBConnect(connection, fields[0], fields[1], fields[2]);
  return 0;
}
