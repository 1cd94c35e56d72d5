#include "net/connection_table.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

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
  void OnConnectionRefused(const std::string& address, size_t refused,
                           const std::string& reason) override {
    refusals.push_back(address + " " + std::to_string(refused) + " " + reason);
  }
  std::vector<int> accepted;
  std::vector<std::string> errors;
  std::vector<std::string> refusals;
};

// A listening table with clients connected to it on loopback.
class TableWithClients : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(table_.Listen(0, &error, "127.0.0.1")) << error;
  }
  // Connects a client (with a small receive buffer, from `from`) and gives the index it got,
  // -1 when the table took none.
  int Connect(const char* from = "127.0.0.1") {
    auto& client = clients_.emplace_back(std::make_unique<tcp::socket>(io_));
    client->open(tcp::v4());
    client->set_option(asio::socket_base::receive_buffer_size(4096));
    client->bind({asio::ip::make_address_v4(from), 0});
    client->connect({asio::ip::address_v4::loopback(), table_.LocalPort()});
    const size_t before = events_.accepted.size();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (events_.accepted.size() == before && std::chrono::steady_clock::now() < deadline &&
           !PeerClosed(*client)) {
      io_.run_one_for(std::chrono::milliseconds(20));
    }
    return events_.accepted.size() > before ? events_.accepted.back() : -1;
  }
  // True when the table closed the connection of `client` (what it reads ends).
  static bool PeerClosed(tcp::socket& client) {
    client.non_blocking(true);
    char byte;
    boost::system::error_code ec;
    client.read_some(asio::buffer(&byte, 1), ec);
    return ec == asio::error::eof || ec == asio::error::connection_reset;
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

TEST_F(TableWithClients, ConnectionsBeyondTheLimitOfOneAddressAreClosedAtOnce) {
  table_.set_max_connections_per_address(2);
  EXPECT_EQ(Connect(), 1);
  EXPECT_EQ(Connect(), 2);
  for (int extra = 0; extra < 3; ++extra) {
    EXPECT_EQ(Connect(), -1) << "over the limit";
    EXPECT_TRUE(PeerClosed(*clients_.back()));
  }
  ASSERT_EQ(events_.refusals.size(), 1u) << "one report per address and minute";
  EXPECT_EQ(events_.refusals[0],
            "127.0.0.1 1 2 connections from this address are open (MaxConnectionsPerAddress)");
  EXPECT_EQ(Connect("127.0.0.2"), 3) << "another address is served";
  table_.Unload(1);
  EXPECT_EQ(Connect(), 1) << "a closed connection makes room";
  table_.set_max_connections_per_address(0);
  EXPECT_EQ(Connect(), 4) << "0 is no limit";
}

// Lowers the soft limit of open descriptors to the lowest free one for its lifetime: no new
// descriptor can be opened meanwhile.
class NoFreeDescriptors {
 public:
  NoFreeDescriptors() {
    ::getrlimit(RLIMIT_NOFILE, &saved_);
    const int lowest_free = ::open("/dev/null", O_RDONLY);
    ::close(lowest_free);
    rlimit lowered = saved_;
    lowered.rlim_cur = static_cast<rlim_t>(lowest_free);
    ::setrlimit(RLIMIT_NOFILE, &lowered);
  }
  ~NoFreeDescriptors() { ::setrlimit(RLIMIT_NOFILE, &saved_); }

 private:
  rlimit saved_{};
};

TEST_F(TableWithClients, WithoutDescriptorsNewConnectionsAreClosedInsteadOfLeftWaiting) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizers' own checks need descriptors the test takes away";
#endif
  // The clients' sockets exist before the limit is lowered; connecting needs no descriptor.
  std::vector<tcp::socket> clients;
  for (int i = 0; i < 3; ++i) clients.emplace_back(io_).open(tcp::v4());
  {
    NoFreeDescriptors exhausted;
    for (int i = 0; i < 2; ++i) {
      clients[i].connect({asio::ip::address_v4::loopback(), table_.LocalPort()});
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
      while (!PeerClosed(clients[i]) && std::chrono::steady_clock::now() < deadline) {
        io_.run_one_for(std::chrono::milliseconds(20));
      }
      EXPECT_TRUE(PeerClosed(clients[i])) << i;
    }
  }
  EXPECT_TRUE(events_.accepted.empty());
  ASSERT_EQ(events_.refusals.size(), 1u);
  EXPECT_TRUE(events_.refusals[0].starts_with(" 1 no file descriptor is left"))
      << events_.refusals[0];
  // With descriptors again, connections are served as before (once what was under way when
  // they came back has run).
  Poll();
  clients[2].connect({asio::ip::address_v4::loopback(), table_.LocalPort()});
  while (events_.accepted.empty() && io_.run_one_for(std::chrono::seconds(3)) > 0) {
  }
  EXPECT_EQ(events_.accepted, std::vector<int>{1});
  EXPECT_TRUE(events_.errors.empty()) << events_.errors[0];
}

}  // namespace
}  // namespace kalvo
