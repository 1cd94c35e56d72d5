// The console's daily changes from the command line: groups (add, delete, members) and a
// token's person and description. Each reads the current state on one connection, checks that
// the server's database is ready, and sends one request that writes it back changed (302 for
// the groups, which replaces them all, so the groups not named are written back as they were;
// 310 for a token). Registration and lifetimes as in commands.h.
#pragma once

#include <CLI/CLI.hpp>

namespace kalvo::ctl {

// `group-add NAME [--description D] [--rights N]`: a new group with a new GUID.
void AddGroupAddCommand(CLI::App& app, int& exit_code);
// `group-delete NAME|GUID`.
void AddGroupDeleteCommand(CLI::App& app, int& exit_code);
// `group-members NAME|GUID [--add GUID...] [--remove GUID...]`.
void AddGroupMembersCommand(CLI::App& app, int& exit_code);
// `token-set GUID [--person P] [--description D]`: what is not given stays.
void AddTokenSetCommand(CLI::App& app, int& exit_code);

}  // namespace kalvo::ctl
