// The request handlers without a network: a recording peer table stands in for the sockets,
// the database is real (each engine), and a dispatcher with fresh server state handles the
// packets one by one.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../net/packet_printer.h"
#include "domain_fixture.h"
#include "requests/certificates.h"
#include "requests/dispatcher.h"

namespace kalvo::testing {

// Records what the handlers send, decoded, with the connection it went to.
class RecordingPeers : public PeerTable {
 public:
  struct Peer {
    std::string address, tag;
  };
  struct Sent {
    int index;
    SocketDataStruct packet;
    std::string wire;
  };

  explicit RecordingPeers(Log& log) : log_(log) {}

  bool Send(int index, std::string bytes) override {
    if (peers.count(index) == 0) return false;
    // The sizes are checked through the wire text; the fields are compared without them.
    SocketDataStruct packet = SocketStringToStruct(log_, bytes);
    packet.PackageSize = packet.DataSize = 0;
    sent.push_back({index, std::move(packet), std::move(bytes)});
    return true;
  }
  std::string RemoteAddress(int index) const override {
    return peers.count(index) ? peers.at(index).address : "";
  }
  std::string ConnectionTag(int index) const override {
    return peers.count(index) ? peers.at(index).tag : "";
  }
  void SetConnectionTag(int index, std::string tag) override { peers[index].tag = std::move(tag); }
  std::vector<int> LoadedIndices() const override {
    std::vector<int> out;
    for (const auto& [index, peer] : peers) out.push_back(index);
    return out;
  }

  std::map<int, Peer> peers;
  std::vector<Sent> sent;

 private:
  Log& log_;
};

class HandlersTest : public DomainDbTest {
 protected:
  void SetUp() override {
    DomainDbTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    settings_.string_max_size = 255;
    settings_.log_client = 2;
    settings_.audit_is_active = true;
    settings_.audit_display_max_count = 100;
    peers_.peers = {{1, {"10.0.0.1", ""}}, {2, {"10.0.0.2", ""}}, {3, {"10.0.0.3", ""}}};
    dispatcher_ = std::make_unique<Dispatcher>(
        RequestContext{state_, peers_, SharedDatabases::Get().log(), settings_, db(),
                       [](std::string_view, std::string_view key) {
                         return std::string(key == "YES" ? "Ja" : "Nein");
                       },
                       certificates_, registry_});
  }

  void TearDown() override {
    std::filesystem::remove(registry_path_);
    DomainDbTest::TearDown();
  }

  // Handles `packet` as if it came from connection `index`; gives what was sent meanwhile.
  std::vector<RecordingPeers::Sent> Handle(int index, SocketDataStruct packet) {
    peers_.sent.clear();
    state_.current = std::move(packet);
    dispatcher_->DoSocketAction(index);
    return peers_.sent;
  }

  // Connection 3 becomes a registered console (its registration reply is dropped).
  void RegisterConsole(int index = 3) {
    Handle(index, Packet(401, "", "UPDATE"));
    ASSERT_TRUE(state_.admin_connections.Contains(index));
  }

  std::string AuditActions() {
    return Query(
        "SELECT token_action FROM tbl_kdx_logging_client ORDER BY token_timestamp, token_action");
  }

  ServerState state_;
  RecordingPeers peers_{SharedDatabases::Get().log()};
  // A registry file of this test alone; it does not exist until a test writes it.
  const std::string registry_path_ = [] {
    std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    for (char& c : name) {
      if (c == '/') c = '_';  // parameterised tests are named "Test/0"
    }
    return (std::filesystem::temp_directory_path() /
            ("kalvo_handlers_" + std::to_string(::getpid()) + "_" + name + ".reg"))
        .string();
  }();
  RegistryStore registry_{registry_path_};
  kalvo::Settings settings_;
  CertificateLibrary certificates_{KALVO_STAND_IN_CERT_LIB};
  std::unique_ptr<Dispatcher> dispatcher_;
};

}  // namespace kalvo::testing
