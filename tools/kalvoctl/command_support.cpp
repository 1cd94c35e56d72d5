#include "kalvoctl/command_support.h"

#include <iostream>

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

}  // namespace kalvo::ctl
