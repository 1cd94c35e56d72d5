#include "net/receive_buffers.h"

#include "infra/log.h"
#include "infra/runtime_error.h"

namespace kalvo {

ReceiveBuffers::ReceiveBuffers(Log& log, int32_t max_package_size)
    : log_(log), max_package_size_(max_package_size) {}

std::string ReceiveBuffers::Key(int index) { return std::to_string(index) + "Socket"; }

int32_t ReceiveBuffers::FrontSize(Buffer& buffer) {
  if (buffer.front_size >= 0) return buffer.front_size;
  const std::string_view pending = std::string_view(buffer.bytes).substr(buffer.offset);
  const size_t separator = pending.find('|');
  // Without a "|" there is no size; framing drops such a buffer at once.
  if (separator == std::string_view::npos) return 0;
  // The number before the first "|" can no longer change, so it is read once per packet.
  const int32_t size = SocketReadPackageSize(pending.substr(0, separator + 1));
  buffer.front_size = size < 0 ? 0 : size;
  return buffer.front_size;
}

void ReceiveBuffers::Drop(int index, std::unordered_map<std::string, Buffer>::iterator it,
                          size_t size) {
  buffers_.erase(it);
  log_.WriteLog("ReceiveBuffer of connection " + std::to_string(index) + " dropped: size " +
                std::to_string(size) + " exceeds MaxPackageSize " +
                std::to_string(max_package_size_));
}

bool ReceiveBuffers::SocketGetData(int index, std::string_view chunk, bool& admin_login_flag) {
  try {
    if (chunk.empty()) return false;
    const auto [it, created] = buffers_.try_emplace(Key(index));
    Buffer& buffer = it->second;
    if (buffer.offset > 0) {
      // Once per arrival: what is left after the last packet moves to the front.
      buffer.bytes.erase(0, buffer.offset);
      buffer.offset = 0;
    }
    buffer.bytes.append(chunk);
    const size_t pending = buffer.bytes.size();
    if (pending > static_cast<size_t>(max_package_size_)) {
      // A long buffer is fine while its front is a valid packet: framing shortens it at once.
      const int32_t front = FrontSize(buffer);
      if (front < 1 || front > max_package_size_) Drop(index, it, pending);
    }
    admin_login_flag = CheckAdminLoginPackage(log_, chunk);
    return true;
  } catch (...) {
    LogCurrentException(log_, "SocketGetData");
    return false;
  }
}

// True for the start of a size field that has not yet reached its "|": a few digits,
// perhaps after blanks.
bool ReceiveBuffers::IsSizeFieldSoFar(std::string_view pending) {
  constexpr size_t kLongestSizeField = 12;  // blanks and the ten digits of a 32-bit size
  if (pending.empty() || pending.size() > kLongestSizeField) return false;
  const size_t digits = pending.find_first_not_of(' ');
  if (digits == std::string_view::npos) return false;
  return pending.find_first_not_of("0123456789", digits) == std::string_view::npos;
}

bool ReceiveBuffers::SocketPrepareDataForExecution(int index, SocketDataStruct& current) {
  try {
    const auto it = buffers_.find(Key(index));
    if (it == buffers_.end()) return false;
    Buffer& buffer = it->second;
    const int32_t size = FrontSize(buffer);
    if (size < 1 && IsSizeFieldSoFar(std::string_view(buffer.bytes).substr(buffer.offset))) {
      // TCP may cut a packet anywhere, also inside its size field: the digits wait for the
      // rest instead of being taken for garbage.
      return false;
    }
    if (size < 1) {
      // Garbage, a keep-alive glued to a packet, or a header cut before its "|": all of it
      // is discarded.
      buffers_.erase(it);
      return false;
    }
    if (size > max_package_size_) {
      Drop(index, it, static_cast<size_t>(size));
      return false;
    }
    const std::string_view pending = std::string_view(buffer.bytes).substr(buffer.offset);
    const size_t length = static_cast<size_t>(size);
    if (length > pending.size()) {
      // The size is known and within bounds: the rest of the packet then arrives without
      // the buffer growing (and briefly holding two copies) chunk by chunk.
      buffer.bytes.reserve(buffer.offset + length);
      return false;
    }
    current = SocketStringToStruct(log_, pending.substr(0, length));
    if (length == pending.size()) {
      buffers_.erase(it);
    } else {
      buffer.offset += length;
      buffer.front_size = -1;
    }
    return true;
  } catch (...) {
    LogCurrentException(log_, "SocketPrepareDataForExecution");
    return false;
  }
}

void ReceiveBuffers::Remove(int index) { buffers_.erase(Key(index)); }

bool ReceiveBuffers::Contains(int index) const { return buffers_.contains(Key(index)); }

size_t ReceiveBuffers::PendingSize(int index) const {
  const auto it = buffers_.find(Key(index));
  return it == buffers_.end() ? 0 : it->second.bytes.size() - it->second.offset;
}

}  // namespace kalvo
