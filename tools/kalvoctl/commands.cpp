#include "kalvoctl/commands.h"

#include <fcntl.h>

#include <iostream>
#include <memory>

#include "infra/text_encoding.h"
#include "infra/unique_fd.h"
#include "kalvoctl/client.h"
#include "kalvoctl/command_support.h"
#include "kalvoctl/print.h"

namespace kalvo::ctl {
namespace {

// The console registration request: 401 adds the connection to the consoles that receive
// every broadcast. (501 is not sent: it would make the server swallow its next 350/351 reply.)
constexpr int32_t kRegisterConsoleId = 401;
constexpr double kListenConnectTimeout = 5.0;

void AddJsonFlag(CLI::App& sub, bool& json) {
  sub.add_flag("--json", json, "Print one JSON object per packet and line");
}

void PrintPacket(const SocketDataStruct& packet, bool json, bool& first) {
  if (json) {
    std::cout << FormatPacketJson(packet) << "\n";
  } else {
    if (!first) std::cout << "\n";
    std::cout << FormatPacketText(packet);
  }
  first = false;
  std::cout.flush();
}

struct SendOptions {
  ConnectionOptions connection;
  bool json = false;
  int32_t id = 0;
  std::string misc1, misc2, misc3, data, data_file;
  bool binary = false;
  double timeout = 2.0;
};

int RunSend(const SendOptions& o) {
  SocketDataStruct packet;
  packet.PackageID = o.id;
  packet.Misc1 = Utf8ToCp1252(o.misc1);
  packet.Misc2 = Utf8ToCp1252(o.misc2);
  packet.Misc3 = Utf8ToCp1252(o.misc3);
  for (const auto* misc : {&packet.Misc1, &packet.Misc2, &packet.Misc3}) {
    if (misc->find('|') != std::string::npos) {
      std::cerr << "kalvoctl: the Misc fields cannot hold \"|\"\n";
      return kExitUsage;
    }
  }
  if (!o.data_file.empty()) {
    // A directory opens but does not read: ReadAll tells.
    const UniqueFd fd(::open(o.data_file.c_str(), O_RDONLY | O_CLOEXEC));
    std::string bytes;
    if (fd.get() < 0 || !ReadAll(fd.get(), bytes)) {
      std::cerr << "kalvoctl: cannot read " << o.data_file << "\n";
      return kExitUsage;
    }
    packet.Data = o.binary ? bytes : DecodeTextFile(bytes);
  } else {
    packet.Data = Utf8ToCp1252(o.data);
  }

  QuietLog quiet;
  PacketClient client(quiet.log);
  if (!client.Connect(o.connection.host, o.connection.port, ToDuration(o.timeout))) {
    return ConnectionFailed(client);
  }
  if (!client.Send(std::move(packet))) {
    return ConnectionFailed(client);
  }
  bool first = true;
  const StopReason why = client.Receive(
      [&](const SocketDataStruct& p) {
        PrintPacket(p, o.json, first);
        return true;
      },
      ToDuration(o.timeout), std::nullopt);
  if (why == StopReason::kError) return ConnectionFailed(client);
  return kExitOk;
}

struct ListenOptions {
  ConnectionOptions connection;
  bool json = false;
  int count = 0;          // 0: no limit
  double duration = 0.0;  // 0: no limit
  bool show_registration = false;
};

int RunListen(const ListenOptions& o) {
  QuietLog quiet;
  PacketClient client(quiet.log);
  if (!client.Connect(o.connection.host, o.connection.port, ToDuration(kListenConnectTimeout))) {
    return ConnectionFailed(client);
  }
  // Taken before sending, so that --duration counts from the registration.
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (o.duration > 0) deadline = std::chrono::steady_clock::now() + ToDuration(o.duration);
  SocketDataStruct registration;
  registration.PackageID = kRegisterConsoleId;
  if (!client.Send(registration)) {
    return ConnectionFailed(client);
  }
  bool first = true;
  bool awaiting_reply = true;
  int printed = 0;
  const StopReason why = client.Receive(
      [&](const SocketDataStruct& p) {
        // The server answers the registration before any broadcast can reach this console,
        // so a first 401 is that answer (the token list), not a broadcast.
        const bool is_reply = awaiting_reply && p.PackageID == kRegisterConsoleId;
        awaiting_reply = false;
        if (is_reply && !o.show_registration) return true;
        PrintPacket(p, o.json, first);
        return o.count == 0 || ++printed < o.count;
      },
      std::nullopt, deadline);
  if (why == StopReason::kClosed) {
    std::cerr << "kalvoctl: the server closed the connection\n";
    return kExitConnection;
  }
  if (why == StopReason::kError) return ConnectionFailed(client);
  return kExitOk;
}

}  // namespace

void AddSendCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<SendOptions>();
  CLI::App* sub = app.add_subcommand(
      "send",
      "Send one packet and print every packet the server sends back, until none has arrived "
      "for --timeout seconds. Texts are taken as UTF-8 and sent as Windows-1252.");
  AddConnectionOptions(*sub, options->connection);
  AddJsonFlag(*sub, options->json);
  sub->add_option("--id", options->id, "PackageID of the request")->required();
  sub->add_option("--misc1", options->misc1, "Misc1 text (no \"|\")");
  sub->add_option("--misc2", options->misc2, "Misc2 text (no \"|\")");
  sub->add_option("--misc3", options->misc3, "Misc3 text (no \"|\")");
  auto* data = sub->add_option("--data", options->data, "Data text");
  auto* file = sub->add_option("--data-file", options->data_file,
                               "Read Data from a file (UTF-8 or Windows-1252 text, detected)");
  data->excludes(file);
  sub->add_flag("--binary", options->binary, "Send the --data-file bytes unchanged")->needs(file);
  sub->add_option("--timeout", options->timeout,
                  "Seconds to wait for the connection and, after the last packet, for more")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  sub->callback([options, &exit_code] { exit_code = RunSend(*options); });
}

void AddListenCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<ListenOptions>();
  CLI::App* sub = app.add_subcommand(
      "listen",
      "Register as an administration console (request 401) and print every broadcast the "
      "server sends, until interrupted, --count packets or --duration seconds.");
  AddConnectionOptions(*sub, options->connection);
  AddJsonFlag(*sub, options->json);
  sub->add_option("--count", options->count, "Stop after this many packets")
      ->check(CLI::PositiveNumber);
  sub->add_option("--duration", options->duration, "Stop after this many seconds")
      ->check(CLI::PositiveNumber);
  sub->add_flag("--show-registration", options->show_registration,
                "Also print the server's answer to the registration (the token list)");
  sub->callback([options, &exit_code] { exit_code = RunListen(*options); });
}

}  // namespace kalvo::ctl
