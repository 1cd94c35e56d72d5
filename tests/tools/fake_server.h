// What the end-to-end tests of kalvoctl share: a fake server on loopback that answers with
// fixed packets, a runner for the built kalvoctl, and the wire text of a packet.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "infra/log.h"
#include "infra/registry_store.h"
#include "net/packet.h"

namespace kalvo {

// Closes a descriptor on every path out.
struct Fd {
  int fd = -1;
  explicit Fd(int f) : fd(f) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd();
};

// Listens on 127.0.0.1 (a free port), accepts one connection, reads one whole packet, sends
// `replies` (each as its own write, 20 ms apart), then waits for the client to close. Every
// wait gives up after 10 s; the destructor waits for that.
class FakeServer {
 public:
  explicit FakeServer(std::vector<std::string> replies);
  // A conversation: for each exchange, reads one more whole packet, then sends its replies as
  // above. A request that does not come ends the conversation.
  explicit FakeServer(std::vector<std::vector<std::string>> exchanges);
  ~FakeServer();

  int port() const { return port_; }
  // The bytes of the requests; complete once the client has exited.
  const std::string& received() const { return received_; }

 private:
  void Serve();

  Fd listener_;
  int port_ = 0;
  std::vector<std::vector<std::string>> exchanges_;
  std::string received_;
  std::thread thread_;
};

struct RunResult {
  int exit_code = -1;
  std::string out;
  std::string err;
};

// Runs the built kalvoctl with `args` (shell words) and collects its output and exit code.
RunResult Kalvoctl(const std::string& args);

class KalvoctlTest : public ::testing::Test {
 protected:
  // The wire text of a packet.
  std::string Wire(int32_t id, std::string data, std::string misc1 = "", std::string misc2 = "",
                   std::string misc3 = "");
  // `wire` decoded.
  SocketDataStruct Decode(const std::string& wire) { return SocketStringToStruct(log_, wire); }
  // The command-line option that points kalvoctl at `server`.
  static std::string Port(const FakeServer& server) {
    return " --port " + std::to_string(server.port());
  }

  RegistryStore registry_{"/nonexistent/kalvoctl-test.reg"};
  Log log_{registry_, "/dev/null"};
};

}  // namespace kalvo
