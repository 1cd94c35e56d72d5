// A client connection to the server: connect, send packets, and receive packets framed exactly
// as the server frames them. One thread; every wait is bounded.
#pragma once

// Boost 1.74's Asio uses std::exchange without including <utility> under C++20.
#include <utility>
// clang-format off: keep <utility> first
#include <boost/asio.hpp>
// clang-format on
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "net/packet.h"
#include "net/receive_buffers.h"

namespace kalvo {
class Log;
}

namespace kalvo::ctl {

// Why Receive returned.
enum class StopReason {
  kIdle,      // no packet for the idle time
  kDeadline,  // the overall time ran out
  kEnough,    // the packet handler asked to stop
  kClosed,    // the server closed the connection
  kSignal,    // SIGINT or SIGTERM
  kError,     // a read failed; see error()
};

class PacketClient {
 public:
  using Clock = std::chrono::steady_clock;

  // `log` receives the codec's lines (keep-alives, decode errors) and must outlive the client.
  explicit PacketClient(Log& log);

  // Resolves `host` and connects to `port` within `timeout`. False on failure, with a
  // message in error().
  bool Connect(const std::string& host, const std::string& port, Clock::duration timeout);

  // Sets DataSize and PackageSize of `packet` and sends its wire text. False on failure
  // (message in error()). Blocks until the bytes are handed to the kernel.
  bool Send(SocketDataStruct packet);

  // Calls `on_packet` for every packet received, in order, until `on_packet` returns false,
  // `idle` passes without a packet (when set), `deadline` is reached (when set), the server
  // closes the connection, a read fails, or SIGINT/SIGTERM arrives.
  StopReason Receive(const std::function<bool(const SocketDataStruct&)>& on_packet,
                     std::optional<Clock::duration> idle,
                     std::optional<Clock::time_point> deadline);

  const std::string& error() const { return error_; }

 private:
  Log& log_;
  boost::asio::io_context io_;
  boost::asio::ip::tcp::socket socket_{io_};
  ReceiveBuffers buffers_;
  std::string error_;
};

}  // namespace kalvo::ctl
