// The action subcommands of kalvoctl: actions (list), action-add, action-stop, action-start,
// action-delete and action-details. Registration and lifetimes as in commands.h.
#pragma once

#include <CLI/CLI.hpp>

namespace kalvo::ctl {

void AddActionCommands(CLI::App& app, int& exit_code);

}  // namespace kalvo::ctl
