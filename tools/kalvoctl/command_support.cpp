#include "kalvoctl/command_support.h"

#include <iostream>

#include "infra/guid.h"
#include "infra/json_text.h"
#include "infra/text_encoding.h"
#include "kalvoctl/client.h"
#include "kalvoctl/commands.h"

namespace kalvo::ctl {

void AddConnectionOptions(CLI::App& sub, ConnectionOptions& o) {
  sub.add_option("--host", o.host, "Server address or name")->capture_default_str();
  sub.add_option("--port", o.port, "Server TCP port")->capture_default_str();
}

int ConnectionFailed(const PacketClient& client) {
  std::cerr << "kalvoctl: " << client.error() << "\n";
  return kExitConnection;
}

std::chrono::steady_clock::duration ToDuration(double seconds) {
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(seconds));
}

void AddAskOptions(CLI::App& sub, AskOptions& o) {
  AddConnectionOptions(sub, o.connection);
  sub.add_option("--timeout", o.timeout, "Seconds to wait for the connection and the answer")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  sub.add_flag("--json", o.json, "Print one JSON document instead of a table");
}

const CLI::Validator kGuidArgument(
    [](std::string& text) {
      return IsGUID(Utf8ToCp1252(text))
                 ? std::string()
                 : "not a GUID (hexadecimal digits 8-4-4-4-12 joined by \"-\"): " + text;
    },
    "GUID");

std::optional<SocketDataStruct> Ask(const AskOptions& o, std::vector<SocketDataStruct> requests,
                                    int32_t answer_id) {
  const auto deadline = std::chrono::steady_clock::now() + ToDuration(o.timeout);
  QuietLog quiet;
  PacketClient client(quiet.log);
  if (!client.Connect(o.connection.host, o.connection.port, ToDuration(o.timeout))) {
    ConnectionFailed(client);
    return std::nullopt;
  }
  for (SocketDataStruct& request : requests) {
    if (!client.Send(std::move(request))) {
      ConnectionFailed(client);
      return std::nullopt;
    }
  }
  std::optional<SocketDataStruct> answer;
  const StopReason why = client.Receive(
      [&](const SocketDataStruct& p) {
        if (p.PackageID != answer_id) return true;
        answer = p;
        return false;
      },
      std::nullopt, deadline);
  if (answer) return answer;
  switch (why) {
    case StopReason::kError:
      ConnectionFailed(client);
      break;
    case StopReason::kClosed:
      std::cerr << "kalvoctl: the server closed the connection before answering request "
                << answer_id << "\n";
      break;
    case StopReason::kSignal:
      std::cerr << "kalvoctl: interrupted while waiting for the answer to request " << answer_id
                << "\n";
      break;
    default:
      std::cerr << "kalvoctl: no answer to request " << answer_id << " from " << o.connection.host
                << ":" << o.connection.port << " within " << o.timeout << " seconds\n";
  }
  return std::nullopt;
}

void PrintResult(std::string_view result, bool json) {
  if (json) {
    std::cout << "{\"result\":" << JsonString(result) << "}\n";
  } else {
    std::cout << Cp1252ToUtf8(result) << "\n";
  }
}

std::optional<SocketDataStruct> Ask(const AskOptions& o, SocketDataStruct request) {
  const int32_t id = request.PackageID;
  std::vector<SocketDataStruct> requests;
  requests.push_back(std::move(request));
  return Ask(o, std::move(requests), id);
}

}  // namespace kalvo::ctl
