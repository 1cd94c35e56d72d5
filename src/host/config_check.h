// The administrator's command-line helpers: the preflight of the configuration, creating and
// upgrading the database, and enciphering the database credentials for the registry file.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "host/server.h"

namespace kalvo {

// One problem of the configuration, in English, with what to do about it.
struct Finding {
  bool error = true;  // false: a warning, which does not fail the preflight
  std::string text;
  bool note = false;  // with `error` false: a plain remark, nothing to do
};

// What the preflight looks at besides the files and settings.
struct PreflightScope {
  bool database = true;  // connect, and check that the tables are complete
  bool port = true;      // try to bind the server port
};

// Checks the configuration `options` name: the registry file (present and readable), the
// language file, the settings (conversions, the database settings, this platform's values,
// AdminAllowedAddresses), the stored credentials (cipher text), ODBC pooling for the DSN's
// driver, and as `scope` says the database (reachable, tables "UpToDate") and the port (free).
std::vector<Finding> Preflight(const ServerOptions& options, const PreflightScope& scope);

// Prints the effective settings (the database password masked) and every finding of a full
// preflight to `out`. Gives 0 when there is no error, 1 otherwise.
int CheckConfig(const ServerOptions& options, std::ostream& out);

// Creates the tables, the default group and the lookup indexes (`upgrade` false; refused,
// changing nothing, unless the database has none of the tables), or adds
// what is missing to existing tables (`upgrade` true), on the database the registry file
// configures; prints the result code with its meaning and the database's state. Gives 0 on
// success, 1 otherwise.
int ConfigureDatabaseFromShell(const ServerOptions& options, bool upgrade, std::ostream& out);

// Puts right the data that the preflight reports as unusable (a doubled default group,
// membership rows holding several GUIDs) on the database the registry file configures;
// prints what it did and what is left. Gives 0 when nothing is left, 1 otherwise.
int RepairDatabaseFromShell(const ServerOptions& options, std::ostream& out);

// Reads one line of UTF-8 text from `in` and prints its cipher text for LoginUser/LoginPass.
int EncryptCredential(std::istream& in, std::ostream& out);
// Reads one cipher text from `in` and prints the plain text (UTF-8).
int DecryptCredential(std::istream& in, std::ostream& out);

}  // namespace kalvo
