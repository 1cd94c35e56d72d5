#include "net/connection_table.h"

#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>

namespace kalvo {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

class NoEvents : public ConnectionEvents {
 public:
  void OnConnectionRequest(int, const std::string&, uint64_t) override {}
  void OnDataArrival(int, std::string_view) override {}
  void OnSendProgress(int, size_t) override {}
  void OnClose(int) override {}
  void OnError(int, int, const std::string&) override {}
};

// A port that another socket is listening on for the lifetime of this object.
class TakenPort {
 public:
  explicit TakenPort(asio::io_context& io) : acceptor_(io, {asio::ip::address_v4::loopback(), 0}) {}
  uint16_t port() const { return acceptor_.local_endpoint().port(); }

 private:
  tcp::acceptor acceptor_;
};

TEST(ConnectionTableListen, FailuresGiveTheReasonAndLeaveTheListenerClosedForAnotherTry) {
  asio::io_context io;
  TakenPort taken(io);
  const struct {
    std::string address;
    uint16_t port;
    const char* why;
  } cases[] = {
      {"127.0.0.1", taken.port(), "another socket listens on the port"},
      {"localhost", 0, "a host name is not an IPv4 address"},
      {"192.0.2.1", 0, "an address this host does not have"},
  };
  for (const auto& c : cases) {
    NoEvents events;
    ConnectionTable table(io, events);
    std::string error;
    EXPECT_FALSE(table.Listen(c.port, &error, c.address)) << c.why;
    EXPECT_FALSE(error.empty()) << c.why;
    EXPECT_FALSE(table.IsListening()) << c.why;
    EXPECT_EQ(table.LocalPort(), 0) << c.why;
    // Nothing of the failed attempt is left open to make the next one fail.
    EXPECT_TRUE(table.Listen(0, &error, "127.0.0.1")) << c.why << ": " << error;
    EXPECT_NE(table.LocalPort(), 0) << c.why;
  }
}

TEST(ConnectionTableListen, AcceptedConnectionTakesSlotOne) {
  asio::io_context io;
  struct Recorder : NoEvents {
    void OnConnectionRequest(int index, const std::string& address, uint64_t id) override {
      seen = std::to_string(index) + " " + address + " " + std::to_string(id);
    }
    std::string seen;
  } events;
  ConnectionTable table(io, events);
  std::string error;
  ASSERT_TRUE(table.Listen(0, &error, "127.0.0.1")) << error;
  tcp::socket client(io);
  client.connect({asio::ip::address_v4::loopback(), table.LocalPort()});
  while (events.seen.empty() && io.run_one_for(std::chrono::seconds(3)) > 0) {
  }
  EXPECT_EQ(events.seen, "1 127.0.0.1 1");
}

}  // namespace
}  // namespace kalvo
