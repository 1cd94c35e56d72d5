// The administrator's subcommands of kalvoctl: tokens, groups, rights, audit, delete-token.
// Each sends one request, waits at most --timeout seconds for the answer of the same
// PackageID (skipping any other packet, such as broadcasts) and prints it as a table, or as
// one JSON document with --json. Registration and lifetimes as in commands.h.
#pragma once

#include <CLI/CLI.hpp>

namespace kalvo::ctl {

// `tokens`: the token list and, on standard error, a warning when the database is not ready.
void AddTokensCommand(CLI::App& app, int& exit_code);

// `groups`: every group with its abilities and members.
void AddGroupsCommand(CLI::App& app, int& exit_code);

// `rights GUID`: a token's rights and groups.
void AddRightsCommand(CLI::App& app, int& exit_code);

// `audit`: the audit log, filtered on the server.
void AddAuditCommand(CLI::App& app, int& exit_code);

// `delete-token GUID...`: deletes tokens; kExitServerFailed when the server reports failure.
void AddDeleteTokenCommand(CLI::App& app, int& exit_code);

}  // namespace kalvo::ctl
