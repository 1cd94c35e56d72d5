// The packet-level subcommands of kalvoctl, and the exit codes of every subcommand. Each
// Add*Command registers its options on `app` and, when the subcommand is chosen, runs it after
// parsing and stores its exit code in `exit_code`. `app` and `exit_code` must outlive the
// parse and the callback.
#pragma once

#include <CLI/CLI.hpp>

namespace kalvo::ctl {

// Exit codes: 0 success, 1 the connection failed or broke or no answer came in time, 2 bad
// arguments or input files, 3 the server answered that the request failed.
inline constexpr int kExitOk = 0;
inline constexpr int kExitConnection = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitServerFailed = 3;

// `send`: one packet, then every reply until the server is quiet for --timeout seconds.
void AddSendCommand(CLI::App& app, int& exit_code);

// `listen`: registers as an administration console and prints the broadcasts it receives.
void AddListenCommand(CLI::App& app, int& exit_code);

}  // namespace kalvo::ctl
