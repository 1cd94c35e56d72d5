// The backup subcommands of kalvoctl: backups (list), backup-get (a console's fetch) and
// backup-put (a client's upload). Registration and lifetimes as in commands.h.
#pragma once

#include <CLI/CLI.hpp>

namespace kalvo::ctl {

// `backups [GUID] [--type T]`: one token's backups (308), or every token's (315).
void AddBackupsCommand(CLI::App& app, int& exit_code);

// `backup-get GUID --index I --type T [--out FILE]`: one backup's bytes (309).
void AddBackupGetCommand(CLI::App& app, int& exit_code);

// `backup-put GUID --type T --name N --in FILE`: stores a file as a client of the token would
// (101, then 115).
void AddBackupPutCommand(CLI::App& app, int& exit_code);

}  // namespace kalvo::ctl
