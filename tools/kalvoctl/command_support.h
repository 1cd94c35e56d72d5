// What every kalvoctl subcommand that talks to a server shares: the --host/--port options,
// a log that writes nothing, and the report of a failed connection.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <string>

#include "infra/log.h"
#include "infra/registry_store.h"

namespace kalvo::ctl {

class PacketClient;

// Where the codec's log lines go: nowhere. A registry that does not exist leaves the log
// level at 0, so nothing is written. `log` refers to `registry`, so the object stays put.
struct QuietLog {
  QuietLog() = default;
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;

  RegistryStore registry{"/nonexistent/kalvoctl/registry.reg"};
  Log log{registry, "/dev/null"};
};

// The server to talk to.
struct ConnectionOptions {
  std::string host = "127.0.0.1";
  std::string port = "15243";
};

// Registers --host and --port on `sub`, writing into `o`; `o` must outlive the parse.
void AddConnectionOptions(CLI::App& sub, ConnectionOptions& o);

// Prints client.error() on standard error; gives kExitConnection.
int ConnectionFailed(const PacketClient& client);

// `seconds` as a steady-clock duration.
std::chrono::steady_clock::duration ToDuration(double seconds);

}  // namespace kalvo::ctl
