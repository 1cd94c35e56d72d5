// What every kalvoctl subcommand that talks to a server shares: the --host/--port options,
// a log that writes nothing, and the report of a failed connection.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "infra/log.h"
#include "infra/registry_store.h"
#include "kalvoctl/client.h"
#include "net/packet.h"

namespace kalvo::ctl {

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

// Options of every command that asks the server a question.
struct AskOptions {
  ConnectionOptions connection;
  double timeout = 5.0;
  bool json = false;
};

// Registers the connection options, --timeout and --json on `sub`, writing into `o`.
void AddAskOptions(CLI::App& sub, AskOptions& o);

// Accepts a GUID as the server's requests take it. Command-line texts arrive as UTF-8; the
// check looks at what goes on the wire.
extern const CLI::Validator kGuidArgument;

// One connection for several questions in a row, so that a read-modify-write happens in one
// console session. `o` must outlive the session.
class AskSession {
 public:
  explicit AskSession(const AskOptions& o);
  AskSession(const AskSession&) = delete;
  AskSession& operator=(const AskSession&) = delete;

  // Connects on the first call, sends `requests` in order and waits, at most o.timeout seconds
  // per call (the connection included), for the packet whose PackageID is `answer_id`; other
  // packets (replies to the earlier requests, broadcasts) are skipped. Gives the answer, or
  // nothing after saying on standard error why none came (exit with kExitConnection then).
  // When a console request stays unanswered, the message asks whether this address is one the
  // server serves: it ignores console requests from anywhere else without a word.
  std::optional<SocketDataStruct> Ask(std::vector<SocketDataStruct> requests, int32_t answer_id);

 private:
  const AskOptions& o_;
  QuietLog quiet_;
  PacketClient client_;
  bool connected_ = false;
};

// AskSession::Ask on a connection of its own.
std::optional<SocketDataStruct> Ask(const AskOptions& o, std::vector<SocketDataStruct> requests,
                                    int32_t answer_id);
// Prints the server's one-word answer (Windows-1252) to a request that changes something: the
// word on a line, or with `json` the document {"result": word}.
void PrintResult(std::string_view result, bool json);

// The same for one request answered with its own PackageID.
std::optional<SocketDataStruct> Ask(const AskOptions& o, SocketDataStruct request);

}  // namespace kalvo::ctl
