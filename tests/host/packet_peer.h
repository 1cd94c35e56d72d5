// Test support: a peer of the real server that speaks packets, as a token client or a
// console does, from a loopback address of its choice.
#pragma once

#include <string>

#include "../net/packet_printer.h"
#include "infra/log.h"
#include "infra/registry_store.h"
#include "net/packet.h"
#include "net/socket_send.h"
#include "server_process.h"

namespace kalvo::testing {

class PacketPeer {
 public:
  // Connects to `port` on 127.0.0.1 from `source`; throws when it cannot.
  explicit PacketPeer(int port, const char* source = "127.0.0.1") : client_(port, 0, source) {}

  void Send(int32_t id, std::string data = "", std::string misc1 = "", std::string misc2 = "",
            std::string misc3 = "") {
    SocketDataStruct p =
        Packet(id, std::move(data), std::move(misc1), std::move(misc2), std::move(misc3));
    PrepareForSending(p, log_);
    client_.Send(SocketStructToString(log_, p));
  }

  // The next packet; PackageID 0 when none came within `quiet_ms`.
  SocketDataStruct Receive(int quiet_ms = 10000) {
    return SocketStringToStruct(log_, ReceivePacket(client_, quiet_ms));
  }

  // Sends and gives the next packet.
  SocketDataStruct Exchange(int32_t id, std::string data = "", std::string misc1 = "",
                            std::string misc2 = "", std::string misc3 = "") {
    Send(id, std::move(data), std::move(misc1), std::move(misc2), std::move(misc3));
    return Receive();
  }

  void Close() { client_.Close(); }

 private:
  // A log that writes nothing (the registry it reads does not exist: level 0).
  RegistryStore registry_{"/nonexistent/kalvo/registry.reg"};
  Log log_{registry_, "/dev/null"};
  Client client_;
};

}  // namespace kalvo::testing
