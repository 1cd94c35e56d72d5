#include "net/connection_table.h"

#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>
#include <cerrno>
#include <memory>
#include <vector>

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

// Records the connections the table accepts and the errors it reports.
struct Recorder : NoEvents {
  void OnConnectionRequest(int index, const std::string&, uint64_t) override {
    accepted.push_back(index);
  }
  void OnError(int index, int number, const std::string& description) override {
    errors.push_back(std::to_string(index) + " " + std::to_string(number) + " " + description);
  }
  std::vector<int> accepted;
  std::vector<std::string> errors;
};

// A listening table with clients connected to it on loopback.
class TableWithClients : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(table_.Listen(0, &error, "127.0.0.1")) << error;
  }
  // Connects a client (with a small receive buffer) and gives the index it got.
  int Connect() {
    auto& client = clients_.emplace_back(std::make_unique<tcp::socket>(io_));
    client->open(tcp::v4());
    client->set_option(asio::socket_base::receive_buffer_size(4096));
    client->connect({asio::ip::address_v4::loopback(), table_.LocalPort()});
    const size_t before = events_.accepted.size();
    while (events_.accepted.size() == before && io_.run_one_for(std::chrono::seconds(3)) > 0) {
    }
    return events_.accepted.size() > before ? events_.accepted.back() : -1;
  }
  // Runs what is ready without waiting.
  void Poll() {
    io_.restart();
    io_.poll();
  }

  asio::io_context io_;
  Recorder events_;
  ConnectionTable table_{io_, events_};
  std::vector<std::unique_ptr<tcp::socket>> clients_;
};

TEST_F(TableWithClients, FreedIndicesAreTakenLowestFirst) {
  for (int expected = 1; expected <= 4; ++expected) ASSERT_EQ(Connect(), expected);
  table_.Unload(3);
  table_.Unload(2);
  EXPECT_EQ(Connect(), 2) << "the lowest free index, not the one freed last or first";
  EXPECT_EQ(Connect(), 3);
  EXPECT_EQ(Connect(), 5) << "with no index free, the next one above the highest";
}

TEST_F(TableWithClients, PeerThatNeverReadsIsClosedWhenItsQueuePassesTheLimit) {
  constexpr size_t kLimit = 256 * 1024;
  table_.set_max_send_queue(kLimit);
  const int index = Connect();
  ASSERT_EQ(index, 1);
  const std::string reply(16 * 1024, 'r');
  size_t most_unsent = 0;
  bool refused = false;
  // The kernel's buffers take the first megabytes; then the queue grows up to the limit.
  for (size_t sent = 0; sent < (64u << 20) && !refused; sent += reply.size()) {
    refused = !table_.Send(index, reply);
    most_unsent = std::max(most_unsent, table_.UnsentBytes(index));
    if (!refused) Poll();
    ASSERT_TRUE(events_.errors.empty()) << "reported before the handler that sent returned";
  }
  ASSERT_TRUE(refused) << "64 MiB queued for a peer that reads nothing";
  EXPECT_LE(most_unsent, kLimit);
  EXPECT_GT(most_unsent, kLimit - reply.size());
  // What was queued is gone at once, nothing more is taken, and the failure arrives as a
  // socket error once the current handler is done.
  EXPECT_LE(table_.UnsentBytes(index), reply.size()) << "only the write in flight is left";
  EXPECT_FALSE(table_.Send(index, "x"));
  Poll();
  ASSERT_EQ(events_.errors.size(), 1u);
  EXPECT_EQ(events_.errors[0].rfind("1 " + std::to_string(ENOBUFS) + " send queue full: ", 0), 0u)
      << events_.errors[0];
  EXPECT_NE(
      events_.errors[0].find(" bytes would wait for a peer that does not read, MaxSendQueue is " +
                             std::to_string(kLimit)),
      std::string::npos)
      << events_.errors[0];
  // The slot stays loaded until the handler unloads it, as for any socket error.
  EXPECT_TRUE(table_.IsLoaded(index));
}

TEST_F(TableWithClients, SingleReplyLargerThanTheLimitIsSentWhole) {
  table_.set_max_send_queue(1024);
  ASSERT_EQ(Connect(), 1);
  const std::string reply(200 * 1024, 'b');
  ASSERT_TRUE(table_.Send(1, reply));
  std::string received(reply.size(), '\0');
  size_t got = 0;
  clients_[0]->non_blocking(true);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  // Read it all while the table writes.
  while (got < reply.size() && std::chrono::steady_clock::now() < deadline) {
    Poll();
    boost::system::error_code ec;
    got += clients_[0]->read_some(asio::buffer(received.data() + got, reply.size() - got), ec);
    if (ec && ec != asio::error::would_block) break;
  }
  EXPECT_EQ(got, reply.size());
  EXPECT_TRUE(received == reply);
  EXPECT_TRUE(events_.errors.empty());
}

}  // namespace
}  // namespace kalvo
