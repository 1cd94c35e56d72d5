// The table of TCP connections: slot 0 is the listener, every accepted connection takes the
// lowest free index from 1 upwards and keeps it until it is closed. One io_context thread
// drives everything; socket events are handed to a ConnectionEvents sink one at a time.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "infra/unique_fd.h"
#include "net/peer_table.h"

namespace kalvo {

// Receives the socket events of the table. Every callback runs on the io_context thread and
// must not throw (the table catches and drops what escapes, but the handler should log).
class ConnectionEvents {
 public:
  virtual ~ConnectionEvents() = default;
  // A connection was accepted into slot `index` (`request_id` counts accepts from 1).
  virtual void OnConnectionRequest(int index, const std::string& remote_address,
                                   uint64_t request_id) = 0;
  // `chunk` arrived on slot `index`.
  virtual void OnDataArrival(int index, std::string_view chunk) = 0;
  // `bytes` of a queued send were written to slot `index`.
  virtual void OnSendProgress(int index, size_t bytes) = 0;
  // The peer of slot `index` closed the connection. The slot stays loaded until the handler
  // calls ConnectionTable::Unload.
  virtual void OnClose(int index) = 0;
  // A socket error on slot `index`; the slot stays loaded as for OnClose. Index 0 is the
  // listener failing to accept; it keeps listening and tries again shortly.
  virtual void OnError(int index, int number, const std::string& description) = 0;
  // A new connection was closed at once without taking a slot: `remote_address` held as many
  // connections as allowed, or ("" as the address) the process had no descriptor left for it.
  // `refused` counts the connections so closed since the last report for the same address; one
  // report per address and minute at most. The default does nothing.
  virtual void OnConnectionRefused(const std::string& remote_address, size_t refused,
                                   const std::string& reason) {
    (void)remote_address, (void)refused, (void)reason;
  }
};

class ConnectionTable : public PeerTable {
 public:
  // `io` and `events` must outlive the table.
  ConnectionTable(boost::asio::io_context& io, ConnectionEvents& events);
  ~ConnectionTable() override;
  ConnectionTable(const ConnectionTable&) = delete;
  ConnectionTable& operator=(const ConnectionTable&) = delete;

  // Binds the listener to 0.0.0.0:`port` (0 picks a free port) and starts accepting.
  // `bind_address` may name another IPv4 address (tests use 127.0.0.1). Gives false and
  // the reason in `error` when the port cannot be bound.
  bool Listen(uint16_t port, std::string* error, const std::string& bind_address = "0.0.0.0");
  // The listener's local port, 0 when not listening.
  uint16_t LocalPort() const;
  bool IsListening() const;
  // Stops accepting; open connections stay.
  void StopListening();

  // Queues `bytes` for slot `index`; writes go out in order. Gives false (and sends nothing)
  // when the slot is not loaded or not connected. When the bytes would take the slot's unsent
  // bytes past the send-queue limit, they are dropped with everything still queued, the slot
  // stops sending, and the failure is reported through ConnectionEvents::OnError (ENOBUFS)
  // once the current event handler has returned, as for a socket error; gives false then.
  bool Send(int index, std::string bytes) override;
  // The most bytes of replies one connection may have waiting to be written (the write in
  // flight included); a peer that does not read its replies is closed when it would be
  // passed. A single reply that finds nothing waiting is always accepted, whatever its size.
  void set_max_send_queue(size_t bytes) { max_send_queue_ = bytes; }
  // The bytes of slot `index` that are queued or in flight; 0 when it is not loaded.
  size_t UnsentBytes(int index) const;
  // The most connections one remote address may hold open at once (0: no limit); one more is
  // closed as soon as it is accepted (see ConnectionEvents::OnConnectionRefused).
  void set_max_connections_per_address(int32_t limit) {
    max_per_address_ = limit > 0 ? static_cast<size_t>(limit) : 0;
  }
  // Closes and unloads slot `index`, freeing its index; pending writes are dropped.
  void Unload(int index);
  // Closes every connection and the listener.
  void CloseAll();

  bool IsLoaded(int index) const;
  // The peer's dotted IPv4 address ("" for a slot that is not loaded).
  std::string RemoteAddress(int index) const override;
  // The per-connection text a token client's registration sets; "" when not loaded.
  std::string ConnectionTag(int index) const override;
  void SetConnectionTag(int index, std::string tag) override;
  // Indices of the loaded connection slots, ascending.
  std::vector<int> LoadedIndices() const override;
  // The request id the connection at `index` was accepted with (counting from 1); 0 when none.
  uint64_t ConnectionId(int index) const override;
  int ConnectionCount() const { return count_; }
  // Connections whose tag is not empty: those with a token.
  int TokenConnectionCount() const;

 private:
  struct Slot;
  void Accept();
  void WaitRead(int index);
  void ReadAvailable(int index, size_t first);
  void StartWrite(int index);
  void Fail(int index, const boost::system::error_code& ec);
  void Overflow(int index, size_t wanted);
  Slot* Find(int index) const;
  int TakeLowestFreeIndex();
  // Accepts and closes at once what waits in the backlog while no descriptor is left, using the
  // one held in reserve.
  enum class Shed { kClosedOne, kNoneWaiting, kFailed };
  Shed ShedWithoutDescriptors();
  void ReportRefusal(const std::string& address, const std::string& reason);

  boost::asio::io_context& io_;
  ConnectionEvents& events_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer accept_retry_;
  std::vector<std::unique_ptr<Slot>> slots_;  // slots_[i] for index i; [0] unused
  std::set<int> free_indices_;                // indices below slots_.size() that are free
  int count_ = 0;
  uint64_t request_id_ = 0;
  size_t max_send_queue_ = SIZE_MAX;
  std::vector<char> read_buffer_;  // shared: reads happen one at a time on this thread
  size_t max_per_address_ = 0;
  std::unordered_map<std::string, size_t> per_address_;  // open connections by address
  struct Refusals {
    std::chrono::steady_clock::time_point reported;
    size_t unreported = 0;
  };
  std::unordered_map<std::string, Refusals> refusals_;  // by address; "" for no descriptors
  UniqueFd reserve_fd_;  // given up for a moment to accept and close when descriptors run out
};

}  // namespace kalvo
