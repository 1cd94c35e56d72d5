#include "net/connection_table.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/write.hpp>
#include <cstring>

#include "net/listener.h"

namespace kalvo {

namespace asio = boost::asio;
using asio::ip::tcp;

// One connection. Idle connections are kept small: only a small buffer for the first bytes of
// a read (the rest is read into the table's shared buffer) and no write buffers until
// something is sent.
struct ConnectionTable::Slot {
  explicit Slot(tcp::socket s) : socket(std::move(s)) {}
  tcp::socket socket;
  std::string tag;
  std::string remote_address;
  uint64_t id = 0;                    // the accept's request id
  std::array<char, 128> first_bytes;  // the read in progress lands here
  std::string writing;                // the bytes of the write in flight
  // Bytes waiting for the write in flight to finish: small replies share chunks of
  // kChunkBytes, so that a long queue of them costs its bytes and little more.
  std::deque<std::string> queued;
  size_t queued_bytes = 0;
  bool connected = true;
};

namespace {

constexpr size_t kChunkBytes = 64 * 1024;
// How often a refusal is reported for one address.
constexpr std::chrono::minutes kRefusalReportInterval{1};

UniqueFd OpenReserveDescriptor() { return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

}  // namespace

ConnectionTable::ConnectionTable(asio::io_context& io, ConnectionEvents& events)
    : io_(io),
      events_(events),
      acceptor_(io),
      accept_retry_(io),
      slots_(1),
      read_buffer_(64 * 1024),
      reserve_fd_(OpenReserveDescriptor()) {}

ConnectionTable::~ConnectionTable() { CloseAll(); }

bool ConnectionTable::Listen(uint16_t port, std::string* error, const std::string& bind_address) {
  boost::system::error_code ec;
  const auto address = asio::ip::make_address_v4(bind_address, ec);
  if (!ec) ec = OpenListener(acceptor_, tcp::endpoint(address, port));
  if (ec) {
    if (error != nullptr) *error = ec.message();
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    return false;
  }
  Accept();
  return true;
}

uint16_t ConnectionTable::LocalPort() const {
  boost::system::error_code ec;
  if (!acceptor_.is_open()) return 0;
  const auto endpoint = acceptor_.local_endpoint(ec);
  return ec ? 0 : endpoint.port();
}

bool ConnectionTable::IsListening() const { return acceptor_.is_open(); }

void ConnectionTable::StopListening() {
  boost::system::error_code ignored;
  acceptor_.close(ignored);
  accept_retry_.cancel();
}

void ConnectionTable::Accept() {
  acceptor_.async_accept([this](const boost::system::error_code& ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted || !acceptor_.is_open()) return;
    const bool no_descriptors = ec == asio::error::no_descriptors || ec.value() == ENFILE;
    const Shed shed = no_descriptors ? ShedWithoutDescriptors() : Shed::kFailed;
    if (shed == Shed::kClosedOne) {
      // The connection that waited is closed, so the backlog never fills with connections
      // nobody will serve; the next one may find a descriptor again.
      // The reason from errno's table: nothing here may need a descriptor.
      ReportRefusal("",
                    std::string("no file descriptor is left (") + std::strerror(ec.value()) + ")");
      Accept();
      return;
    }
    if (shed == Shed::kNoneWaiting) {
      // The system refuses an accept without a free descriptor even when nobody waits; look
      // again shortly (a connection that arrives meanwhile is closed then, and reported).
      accept_retry_.expires_after(std::chrono::milliseconds(100));
      accept_retry_.async_wait([this](const boost::system::error_code& wait_ec) {
        if (!wait_ec && acceptor_.is_open()) Accept();
      });
      return;
    }
    if (ec) {
      // Out of descriptors with none in reserve, for example: the connection stays in the
      // backlog, so accepting again at once would spin. Report it and try again a little later.
      try {
        events_.OnError(0, ec.value(), ec.message());
      } catch (...) {
      }
      accept_retry_.expires_after(std::chrono::milliseconds(100));
      accept_retry_.async_wait([this](const boost::system::error_code& wait_ec) {
        if (!wait_ec && acceptor_.is_open()) Accept();
      });
      return;
    }
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    // Reads are made when the socket is ready and must never block the one thread.
    socket.non_blocking(true, ignored);
    const auto remote = socket.remote_endpoint(ignored);
    std::string address = remote.address().is_v4() ? remote.address().to_v4().to_string()
                                                   : remote.address().to_string();
    if (const auto open = per_address_.find(address);
        max_per_address_ > 0 && open != per_address_.end() && open->second >= max_per_address_) {
      socket.close(ignored);
      ReportRefusal(address, std::to_string(max_per_address_) +
                                 " connections from this address are open "
                                 "(MaxConnectionsPerAddress)");
      Accept();
      return;
    }
    const int index = TakeLowestFreeIndex();
    if (index > 0) {
      auto& slot = slots_[index];
      slot = std::make_unique<Slot>(std::move(socket));
      slot->remote_address = std::move(address);
      ++per_address_[slot->remote_address];
      ++count_;
      slot->id = ++request_id_;
      try {
        events_.OnConnectionRequest(index, slot->remote_address, slot->id);
      } catch (...) {
      }
      if (IsLoaded(index)) WaitRead(index);
    }
    // With every 16-bit index taken the connection is dropped: `socket` closes here.
    Accept();
  });
}

ConnectionTable::Shed ConnectionTable::ShedWithoutDescriptors() {
  if (reserve_fd_.get() < 0) return Shed::kFailed;
  reserve_fd_.Close();
  const int fd = ::accept4(acceptor_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
  const int error = errno;
  if (fd >= 0) ::close(fd);
  reserve_fd_ = OpenReserveDescriptor();
  if (fd >= 0) return Shed::kClosedOne;
  return error == EAGAIN || error == EWOULDBLOCK ? Shed::kNoneWaiting : Shed::kFailed;
}

void ConnectionTable::ReportRefusal(const std::string& address, const std::string& reason) {
  const auto now = std::chrono::steady_clock::now();
  if (refusals_.size() > 4096) {
    // Addresses refused long ago need no memory.
    std::erase_if(refusals_, [&](const auto& entry) {
      return now - entry.second.reported >= kRefusalReportInterval;
    });
  }
  auto [it, first] = refusals_.try_emplace(address);
  Refusals& r = it->second;
  ++r.unreported;
  if (!first && now - r.reported < kRefusalReportInterval) return;
  r.reported = now;
  const size_t refused = std::exchange(r.unreported, 0);
  try {
    events_.OnConnectionRefused(address, refused, reason);
  } catch (...) {
  }
}

int ConnectionTable::TakeLowestFreeIndex() {
  if (!free_indices_.empty()) {
    const int index = *free_indices_.begin();
    free_indices_.erase(free_indices_.begin());
    return index;
  }
  if (slots_.size() > 32767) return 0;
  slots_.emplace_back();
  return static_cast<int>(slots_.size() - 1);
}

ConnectionTable::Slot* ConnectionTable::Find(int index) const {
  if (index < 1 || static_cast<size_t>(index) >= slots_.size()) return nullptr;
  return slots_[index].get();
}

void ConnectionTable::WaitRead(int index) {
  Slot* slot = Find(index);
  if (slot == nullptr || !slot->connected) return;
  // The first bytes go into the slot's own small buffer: the read is tried at once and only
  // waits when nothing is there, without re-arming the poller for every packet.
  slot->socket.async_read_some(
      asio::buffer(slot->first_bytes),
      [this, index, ptr = slot](const boost::system::error_code& ec, size_t n) {
        Slot* now = Find(index);
        if (now != ptr) return;
        if (ec) {
          if (ec != asio::error::operation_aborted) Fail(index, ec);
          return;
        }
        ReadAvailable(index, n);
      });
}

void ConnectionTable::ReadAvailable(int index, size_t first) {
  Slot* slot = Find(index);
  std::copy_n(slot->first_bytes.begin(), first, read_buffer_.begin());
  size_t n = first;
  if (first == slot->first_bytes.size()) {
    // The small buffer is full: whatever else is waiting joins this chunk.
    boost::system::error_code ec;
    n += slot->socket.read_some(
        asio::buffer(read_buffer_.data() + first, read_buffer_.size() - first), ec);
    if (ec && ec != asio::error::would_block && ec != asio::error::try_again) {
      // Serve what arrived; the error shows again on the next read.
      n = first;
    }
  }
  try {
    events_.OnDataArrival(index, std::string_view(read_buffer_.data(), n));
  } catch (...) {
  }
  // The handler may have unloaded the slot (or another one took its index).
  if (Find(index) == slot) WaitRead(index);
}

void ConnectionTable::Fail(int index, const boost::system::error_code& ec) {
  Slot* slot = Find(index);
  if (slot == nullptr || !slot->connected) return;
  slot->connected = false;
  try {
    if (ec == asio::error::eof || ec == asio::error::connection_reset) {
      events_.OnClose(index);
    } else {
      events_.OnError(index, ec.value(), ec.message());
    }
  } catch (...) {
  }
}

bool ConnectionTable::Send(int index, std::string bytes) {
  Slot* slot = Find(index);
  if (slot == nullptr || !slot->connected) return false;
  const size_t unsent = slot->writing.size() + slot->queued_bytes;
  if (unsent > 0 && unsent + bytes.size() > max_send_queue_) {
    Overflow(index, unsent + bytes.size());
    return false;
  }
  if (slot->writing.empty()) {
    slot->writing = std::move(bytes);
    StartWrite(index);
    return true;
  }
  slot->queued_bytes += bytes.size();
  auto& queued = slot->queued;
  if (!queued.empty() && queued.back().size() + bytes.size() <= queued.back().capacity()) {
    queued.back() += bytes;
  } else if (bytes.size() < kChunkBytes / 2) {
    queued.emplace_back().reserve(kChunkBytes);
    queued.back() += bytes;
  } else {
    queued.push_back(std::move(bytes));
  }
  return true;
}

void ConnectionTable::Overflow(int index, size_t wanted) {
  Slot* slot = Find(index);
  // Nothing more is sent or read; what is queued goes at once. The write in flight keeps its
  // buffer until the socket is closed.
  slot->connected = false;
  slot->queued.clear();
  slot->queued_bytes = 0;
  std::string description = "send queue full: " + std::to_string(wanted) +
                            " bytes would wait for a peer that does not read, MaxSendQueue is " +
                            std::to_string(max_send_queue_);
  // Reported later rather than here: Send runs inside request handlers and broadcasts, and
  // the close path (audit entry, notices to the consoles) must not run in their middle.
  asio::post(io_, [this, index, ptr = slot, description = std::move(description)] {
    if (Find(index) != ptr) return;
    try {
      events_.OnError(index, static_cast<int>(asio::error::no_buffer_space), description);
    } catch (...) {
    }
  });
}

size_t ConnectionTable::UnsentBytes(int index) const {
  const Slot* slot = Find(index);
  return slot == nullptr ? 0 : slot->writing.size() + slot->queued_bytes;
}

void ConnectionTable::StartWrite(int index) {
  Slot* slot = Find(index);
  if (slot->writing.empty()) return;
  asio::async_write(slot->socket, asio::buffer(slot->writing),
                    [this, index, ptr = slot](const boost::system::error_code& ec, size_t written) {
                      Slot* now = Find(index);
                      if (now != ptr) return;
                      if (ec) {
                        if (ec != asio::error::operation_aborted) Fail(index, ec);
                        return;
                      }
                      try {
                        events_.OnSendProgress(index, written);
                      } catch (...) {
                      }
                      now = Find(index);
                      if (now != ptr) return;
                      if (now->queued.empty()) {
                        now->writing.clear();
                        now->writing.shrink_to_fit();
                        return;
                      }
                      now->writing = std::move(now->queued.front());
                      now->queued.pop_front();
                      now->queued_bytes -= now->writing.size();
                      StartWrite(index);
                    });
}

void ConnectionTable::Unload(int index) {
  Slot* slot = Find(index);
  if (slot == nullptr) return;
  boost::system::error_code ignored;
  slot->socket.shutdown(tcp::socket::shutdown_both, ignored);
  slot->socket.close(ignored);
  // Pending completions compare the slot they were started for with the one now at their
  // index: keep the object alive until they ran by handing it to the io_context, so no new
  // slot can take its address meanwhile.
  if (auto it = per_address_.find(slot->remote_address); it != per_address_.end()) {
    if (--it->second == 0) per_address_.erase(it);
  }
  asio::post(io_, [doomed = std::move(slots_[index])] {});
  free_indices_.insert(index);
  --count_;
}

void ConnectionTable::CloseAll() {
  StopListening();
  for (int index : LoadedIndices()) Unload(index);
}

bool ConnectionTable::IsLoaded(int index) const { return Find(index) != nullptr; }

uint64_t ConnectionTable::ConnectionId(int index) const {
  const Slot* slot = Find(index);
  return slot == nullptr ? 0 : slot->id;
}

std::string ConnectionTable::RemoteAddress(int index) const {
  const Slot* slot = Find(index);
  return slot == nullptr ? std::string() : slot->remote_address;
}

std::string ConnectionTable::ConnectionTag(int index) const {
  const Slot* slot = Find(index);
  return slot == nullptr ? std::string() : slot->tag;
}

void ConnectionTable::SetConnectionTag(int index, std::string tag) {
  if (Slot* slot = Find(index)) slot->tag = std::move(tag);
}

std::vector<int> ConnectionTable::LoadedIndices() const {
  std::vector<int> out;
  for (size_t i = 1; i < slots_.size(); ++i) {
    if (slots_[i]) out.push_back(static_cast<int>(i));
  }
  return out;
}

int ConnectionTable::TokenConnectionCount() const {
  int n = 0;
  for (size_t i = 1; i < slots_.size(); ++i) {
    if (slots_[i] && !slots_[i]->tag.empty()) ++n;
  }
  return n;
}

}  // namespace kalvo
