// The per-connection receive buffers and the framing that cuts whole packets off their front.
// The connection layer hands in each received chunk and then calls
// SocketPrepareDataForExecution until it returns false, executing each packet it yields; so
// every complete packet is executed in arrival order before the arrival is done.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "infra/settings.h"  // kDefaultMaxPackageSize
#include <unordered_map>

#include "net/packet.h"

namespace kalvo {

class Log;

// The keyed collection ReceiveBuffers: one pending text per connection under the key
// "<index>Socket"; no entry means an empty buffer. Consumed packets are skipped by an offset
// and the text is compacted once per arrival, so framing costs time linear in the bytes
// received, however the packets are cut into chunks.
class ReceiveBuffers {
 public:
  // `log` must outlive this object. `max_package_size` is the setting MaxPackageSize: a
  // packet whose size field is larger, or a buffer that grows past it without a valid packet
  // size at its front, is dropped like garbage (the connection stays open).
  explicit ReceiveBuffers(Log& log, int32_t max_package_size = kDefaultMaxPackageSize);

  // The collection key of a connection: 3 gives "3Socket".
  static std::string Key(int index);

  // Appends `chunk` (everything one read gave) to the buffer of connection `index`, creating
  // the entry, and sets `admin_login_flag` to CheckAdminLoginPackage(chunk) (the chunk alone).
  // False, and nothing changed, when `chunk` is empty; false after logging as "SocketGetData"
  // on any failure.
  bool SocketGetData(int index, std::string_view chunk, bool& admin_login_flag);

  // Takes at most one whole packet off the front of connection `index`'s buffer and decodes
  // it into `current`. True when one was taken. False when there is no buffer, the packet is
  // not complete yet (the buffer is kept), or the front holds no valid size: no "|", no
  // number before it, a size below 1 (everything received so far is dropped) or above
  // MaxPackageSize (dropped and logged with the connection and the size). On failure logs as
  // "SocketPrepareDataForExecution" and gives false.
  bool SocketPrepareDataForExecution(int index, SocketDataStruct& current);

  // Forgets the buffer of connection `index` (on close); a missing entry is no error.
  void Remove(int index);

  // True when connection `index` has an entry.
  bool Contains(int index) const;

  // Bytes pending (received but not yet taken) for connection `index`; 0 without an entry.
  size_t PendingSize(int index) const;

  int32_t max_package_size() const { return max_package_size_; }
  void set_max_package_size(int32_t bytes) { max_package_size_ = bytes; }

 private:
  struct Buffer {
    std::string bytes;
    size_t offset = 0;        // bytes before this were taken already
    int32_t front_size = -1;  // size field of the packet at `offset`, -1 when not read
  };

  // The size field at the buffer's front, read once per packet.
  static int32_t FrontSize(Buffer& buffer);
  static bool IsSizeFieldSoFar(std::string_view pending);
  void Drop(int index, std::unordered_map<std::string, Buffer>::iterator it, size_t size);

  Log& log_;
  int32_t max_package_size_;
  std::unordered_map<std::string, Buffer> buffers_;
};

}  // namespace kalvo
