// The data sources the ODBC driver manager knows (user and system data sources).
#pragma once

#include <string>
#include <vector>

#include "db/odbc_handles.h"

namespace kalvo {

struct DataSource {
  std::string name;
  // The driver as the data source names it: a driver entry of odbcinst.ini, or a library path.
  std::string driver;
};

// Which data sources to list: the user's and the system's, or the system's (machine-wide) only.
enum class DataSourceScope { kUserAndSystem, kSystem };

// Every data source of `scope` SQLDataSources lists, in its order; empty when it lists none or
// fails.
std::vector<DataSource> OdbcDataSources(OdbcEnvironment& env,
                                        DataSourceScope scope = DataSourceScope::kUserAndSystem);

}  // namespace kalvo
