#include "kalvoctl/client.h"

#include <array>
#include <csignal>

#include "infra/log.h"
#include "net/socket_send.h"

namespace kalvo::ctl {
namespace asio = boost::asio;
using asio::ip::tcp;

namespace {
// The buffer key the client uses for its one connection.
constexpr int kConnection = 1;
}  // namespace

PacketClient::PacketClient(Log& log) : log_(log), buffers_(log) {}

bool PacketClient::Connect(const std::string& host, const std::string& port,
                           Clock::duration timeout) {
  boost::system::error_code ec;
  tcp::resolver resolver(io_);
  const auto endpoints = resolver.resolve(host, port, ec);
  if (ec) {
    error_ = "cannot resolve " + host + ":" + port + ": " + ec.message();
    return false;
  }
  asio::steady_timer timer(io_, timeout);
  bool timed_out = false;
  boost::system::error_code connect_ec = asio::error::would_block;
  asio::async_connect(socket_, endpoints, [&](const boost::system::error_code& e, const auto&) {
    connect_ec = e;
    timer.cancel();
  });
  timer.async_wait([&](const boost::system::error_code& e) {
    if (!e) {
      timed_out = true;
      socket_.close();
    }
  });
  io_.restart();
  io_.run();
  if (timed_out) {
    error_ = "cannot connect to " + host + ":" + port + ": timed out";
    return false;
  }
  if (connect_ec) {
    error_ = "cannot connect to " + host + ":" + port + ": " + connect_ec.message();
    return false;
  }
  return true;
}

bool PacketClient::Send(SocketDataStruct packet) {
  PrepareForSending(packet, log_);
  if (packet.PackageSize == 0) {
    error_ = "packet too large";
    return false;
  }
  boost::system::error_code ec;
  asio::write(socket_, asio::buffer(SocketStructToString(log_, packet)), ec);
  if (ec) {
    error_ = "cannot send: " + ec.message();
    return false;
  }
  return true;
}

StopReason PacketClient::Receive(const std::function<bool(const SocketDataStruct&)>& on_packet,
                                 std::optional<Clock::duration> idle,
                                 std::optional<Clock::time_point> deadline) {
  StopReason reason = StopReason::kClosed;
  bool stopped = false;
  asio::steady_timer idle_timer(io_);
  asio::steady_timer deadline_timer(io_);
  asio::signal_set signals(io_, SIGINT, SIGTERM);
  std::array<char, 65536> chunk{};

  const auto stop = [&](StopReason why) {
    if (stopped) return;
    stopped = true;
    reason = why;
    boost::system::error_code ignored;
    socket_.cancel(ignored);
    idle_timer.cancel();
    deadline_timer.cancel();
    signals.cancel();
  };
  const auto arm_idle = [&] {
    if (!idle) return;
    idle_timer.expires_after(*idle);
    idle_timer.async_wait([&](const boost::system::error_code& e) {
      if (!e) stop(StopReason::kIdle);
    });
  };

  std::function<void()> read;
  read = [&] {
    socket_.async_read_some(
        asio::buffer(chunk), [&](const boost::system::error_code& e, std::size_t n) {
          if (stopped) return;
          if (e == asio::error::eof || e == asio::error::connection_reset) {
            stop(StopReason::kClosed);
            return;
          }
          if (e) {
            error_ = "cannot receive: " + e.message();
            stop(StopReason::kError);
            return;
          }
          bool admin_login = false;
          if (buffers_.SocketGetData(kConnection, std::string_view(chunk.data(), n), admin_login)) {
            SocketDataStruct current;
            bool got_one = false;
            while (!stopped && buffers_.SocketPrepareDataForExecution(kConnection, current)) {
              got_one = true;
              if (!on_packet(current)) stop(StopReason::kEnough);
            }
            if (got_one && !stopped) arm_idle();
          }
          if (!stopped) read();
        });
  };

  if (deadline) {
    deadline_timer.expires_at(*deadline);
    deadline_timer.async_wait([&](const boost::system::error_code& e) {
      if (!e) stop(StopReason::kDeadline);
    });
  }
  signals.async_wait([&](const boost::system::error_code& e, int) {
    if (!e) stop(StopReason::kSignal);
  });
  arm_idle();
  read();
  io_.restart();
  io_.run();
  return reason;
}

}  // namespace kalvo::ctl
