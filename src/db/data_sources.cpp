#include "db/data_sources.h"

namespace kalvo {

std::vector<DataSource> OdbcDataSources(OdbcEnvironment& env, DataSourceScope scope) {
  std::vector<DataSource> sources;
  SQLCHAR name[SQL_MAX_DSN_LENGTH + 1];
  SQLCHAR driver[1024];
  SQLUSMALLINT direction =
      scope == DataSourceScope::kSystem ? SQL_FETCH_FIRST_SYSTEM : SQL_FETCH_FIRST;
  for (;;) {
    SQLSMALLINT name_length = 0, driver_length = 0;
    const SQLRETURN rc = SQLDataSources(env.get(), direction, name, sizeof name, &name_length,
                                        driver, sizeof driver, &driver_length);
    if (!SQL_SUCCEEDED(rc)) break;
    sources.push_back({reinterpret_cast<const char*>(name), reinterpret_cast<const char*>(driver)});
    direction = SQL_FETCH_NEXT;
  }
  return sources;
}

}  // namespace kalvo
