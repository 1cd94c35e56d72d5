// Requests of consoles that read and change the server's settings and its database
// configuration: 305, 306, 350 and 351.
#pragma once

#include <string>

#include "requests/request.h"

namespace kalvo {

void ReportSettings(Request& r);          // 305
void UpdateSettings(Request& r);          // 306
void ReportDatabaseSettings(Request& r);  // 350
void ConfigureDatabase(Request& r);       // 351, sub-commands 1 to 6

// The names of the system (machine-wide) data sources, joined by NUL.
std::string GetAllDSN(OdbcEnvironment& env);

}  // namespace kalvo
