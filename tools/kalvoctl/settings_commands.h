// The `settings` subcommand of kalvoctl. Registration and lifetimes as in commands.h.
#pragma once

#include <CLI/CLI.hpp>

namespace kalvo::ctl {

// `settings [--set NAME=VALUE ...]`: prints the server's settings (305); with --set, changes
// the named ones (305, 306 with all thirteen, then 305 again, on one connection) and prints
// what the server holds afterwards.
void AddSettingsCommand(CLI::App& app, int& exit_code);

}  // namespace kalvo::ctl
