// The per-connection receive buffers and the framing that cuts whole packets off their front.
// The connection layer hands in each received chunk and then calls
// SocketPrepareDataForExecution until it returns false, executing each packet it yields; so
// every complete packet is executed in arrival order before the arrival is done.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "infra/settings.h"  // kDefaultMaxPackageSize, kDefaultMaxBufferedBytes
#include "net/packet.h"

namespace kalvo {

class Log;

// The keyed collection ReceiveBuffers: one pending text per connection (the collection's key
// of connection n is Key(n), "<n>Socket"; it is looked up by the index itself); no entry
// means an empty buffer. Framing examines each received byte a
// bounded number of times, however the packets are cut into chunks and whatever the bytes
// are: consumed packets are skipped by an offset, the text is compacted once per arrival (or
// at once when the consumed part outweighs the rest), and a size field is read once even when
// the packets it yields end inside it. Not thread-safe.
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

  // Bytes all buffers hold together: pending bytes plus taken ones not yet compacted away.
  size_t BufferedBytes() const { return buffered_bytes_; }

  // Enforces MaxBufferedBytes. While all buffers together hold more than the bound, forgets
  // the buffer holding the most bytes (the lowest connection index among equals), logs one
  // line naming the connection, `address` of it as the caller knows it, its bytes and the
  // bound, and gives the connection's index: the caller closes that connection and asks
  // again. Gives 0 when the buffers are within the bound. `address` may be empty (then
  // nothing is named) and is only called when a buffer is dropped.
  int DropLargestOverBound(const std::function<std::string(int index)>& address);

  int32_t max_package_size() const { return max_package_size_; }
  void set_max_package_size(int32_t bytes) { max_package_size_ = bytes; }
  int32_t max_buffered_bytes() const { return max_buffered_bytes_; }
  void set_max_buffered_bytes(int32_t bytes) { max_buffered_bytes_ = bytes; }

  // For tests and benchmarks: an upper bound of the bytes framing has looked at or copied so
  // far (separator searches, size fields read, bytes compacted or decoded, chunks appended).
  // Linear framing keeps it within a small multiple of the bytes received.
  uint64_t bytes_examined() const { return bytes_examined_; }

 private:
  // Where the digits of a size field lie, kept after reading it so that a size field whose
  // packet ends before its "|" (a size smaller than the field itself) yields the size of the
  // rest of the field without reading that again. Positions index the buffer's text.
  struct SizeField {
    size_t separator = std::string::npos;  // the field's "|"; npos when nothing is kept
    size_t int_begin = 0;                  // digits before the ".", after blanks and sign
    size_t int_end = 0;
    bool dot = false;
    size_t frac_end = 0;  // fraction digits are [int_end + 1, frac_end) when `dot`
    // The last non-zero fraction digit more than ten places before the fraction's end: the
    // fraction digits read as a number from there or before overflow. npos when none.
    size_t big_fraction_digit = std::string::npos;
    bool frac_tail_nonzero = false;  // a non-zero fraction digit after the first
    int32_t whole = 0;               // the size the whole field gives
  };
  struct Buffer {
    std::string bytes;
    size_t offset = 0;        // bytes before this were taken already
    int32_t front_size = -1;  // size field of the packet at `offset`, -1 when not read
    SizeField field;
  };
  using Iterator = std::unordered_map<int, Buffer>::iterator;

  // The size field at the buffer's front, read once per packet.
  int32_t FrontSize(Buffer& buffer);
  // The size the text from `start` to field.separator gives, read as SocketReadPackageSize
  // would, in a bounded number of steps.
  int32_t SizeFrom(const Buffer& buffer, size_t start);
  int32_t DigitsValue(const Buffer& buffer, size_t begin, size_t end, size_t big_digit,
                      bool with_fraction);
  static SizeField ReadField(std::string_view bytes, size_t begin, size_t separator);
  static bool IsSizeFieldSoFar(std::string_view pending);
  void Drop(int index, Iterator it, size_t size);
  void Erase(Iterator it);

  Log& log_;
  int32_t max_package_size_;
  int32_t max_buffered_bytes_ = kDefaultMaxBufferedBytes;
  std::unordered_map<int, Buffer> buffers_;
  size_t buffered_bytes_ = 0;
  uint64_t bytes_examined_ = 0;
};

}  // namespace kalvo
