#include "kalvoctl/command_support.h"

#include <algorithm>
#include <iostream>
#include <iterator>

#include "infra/guid.h"
#include "infra/json_text.h"
#include "infra/text_encoding.h"
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

namespace {

// The requests of token clients, which the server answers whatever the address; it serves
// every other request only to the consoles its AdminAllowedAddresses names.
constexpr int32_t kClientRequests[] = {101, 102, 115, 116, 117, 326, 327};

bool IsConsoleRequest(int32_t id) {
  return std::find(std::begin(kClientRequests), std::end(kClientRequests), id) ==
         std::end(kClientRequests);
}

}  // namespace

AskSession::AskSession(const AskOptions& o) : o_(o), client_(quiet_.log) {}

std::optional<SocketDataStruct> AskSession::Ask(std::vector<SocketDataStruct> requests,
                                                int32_t answer_id) {
  const auto deadline = std::chrono::steady_clock::now() + ToDuration(o_.timeout);
  if (!connected_) {
    if (!client_.Connect(o_.connection.host, o_.connection.port, ToDuration(o_.timeout))) {
      ConnectionFailed(client_);
      return std::nullopt;
    }
    connected_ = true;
  }
  for (SocketDataStruct& request : requests) {
    if (!client_.Send(std::move(request))) {
      ConnectionFailed(client_);
      return std::nullopt;
    }
  }
  std::optional<SocketDataStruct> answer;
  const StopReason why = client_.Receive(
      [&](const SocketDataStruct& p) {
        if (p.PackageID != answer_id) return true;
        answer = p;
        return false;
      },
      std::nullopt, deadline);
  if (answer) return answer;
  switch (why) {
    case StopReason::kError:
      ConnectionFailed(client_);
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
      std::cerr << "kalvoctl: no answer to request " << answer_id << " from " << o_.connection.host
                << ":" << o_.connection.port << " within " << o_.timeout << " seconds";
      if (IsConsoleRequest(answer_id)) std::cerr << ": is this address in AdminAllowedAddresses?";
      std::cerr << "\n";
  }
  return std::nullopt;
}

std::optional<SocketDataStruct> Ask(const AskOptions& o, std::vector<SocketDataStruct> requests,
                                    int32_t answer_id) {
  AskSession session(o);
  return session.Ask(std::move(requests), answer_id);
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
