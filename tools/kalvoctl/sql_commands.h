// The `sql` subcommand of kalvoctl. Registration and lifetimes as in commands.h.
#pragma once

#include <CLI/CLI.hpp>

namespace kalvo::ctl {

// `sql TEXT`: runs one statement on the server's database (701) and prints its result set or
// acknowledgement; kExitServerFailed when the driver reports an error.
void AddSqlCommand(CLI::App& app, int& exit_code);

}  // namespace kalvo::ctl
