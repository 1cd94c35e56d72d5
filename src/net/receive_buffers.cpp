#include "net/receive_buffers.h"

#include <limits>

#include "infra/log.h"
#include "infra/runtime_error.h"

namespace kalvo {
namespace {

constexpr size_t kNone = std::string::npos;
// Digits of the largest 32-bit number: a run of digits with a non-zero digit before its last
// ten overflows.
constexpr size_t kSignificantDigits = 10;
// Taken packets of at least this many bytes are given back at once when they outweigh the
// rest of the buffer, instead of staying until the connection's next arrival.
constexpr size_t kReleaseAt = 64 * 1024;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The last non-zero digit of bytes[begin, end) that lies more than ten places before `end`.
size_t BigDigit(std::string_view bytes, size_t begin, size_t end) {
  size_t found = kNone;
  for (size_t i = begin; i + kSignificantDigits < end; ++i) {
    if (bytes[i] != '0') found = i;
  }
  return found;
}

}  // namespace

ReceiveBuffers::ReceiveBuffers(Log& log, int32_t max_package_size)
    : log_(log), max_package_size_(max_package_size) {}

std::string ReceiveBuffers::Key(int index) { return std::to_string(index) + "Socket"; }

ReceiveBuffers::SizeField ReceiveBuffers::ReadField(std::string_view bytes, size_t begin,
                                                    size_t separator) {
  SizeField f;
  f.whole = SocketReadPackageSize(bytes.substr(begin, separator - begin + 1));
  // Only a field that is a valid positive number is kept: its shape is then blanks, an
  // optional sign, digits, an optional "." with digits, and blanks.
  if (f.whole < 1) return f;
  size_t i = begin;
  while (i < separator && IsBlank(bytes[i])) ++i;
  if (i < separator && (bytes[i] == '+' || bytes[i] == '-')) ++i;
  f.int_begin = i;
  while (i < separator && IsDigit(bytes[i])) ++i;
  f.int_end = i;
  f.frac_end = i;
  if (i < separator && bytes[i] == '.') {
    f.dot = true;
    for (++i; i < separator && IsDigit(bytes[i]); ++i) {
      if (i > f.int_end + 1 && bytes[i] != '0') f.frac_tail_nonzero = true;
    }
    f.frac_end = i;
  }
  if (f.dot) f.big_fraction_digit = BigDigit(bytes, f.int_end + 1, f.frac_end);
  f.separator = separator;
  return f;
}

int32_t ReceiveBuffers::DigitsValue(const Buffer& buffer, size_t begin, size_t end,
                                    size_t big_digit, bool with_fraction) {
  if (big_digit != kNone && big_digit >= begin) return 0;  // overflow: no size
  // Every digit before the last ten is a zero here.
  const size_t from = end - begin > kSignificantDigits ? end - kSignificantDigits : begin;
  int64_t value = 0;
  for (size_t i = from; i < end; ++i) value = value * 10 + (buffer.bytes[i] - '0');
  bytes_examined_ += end - from;
  const SizeField& f = buffer.field;
  if (with_fraction && f.dot && f.frac_end > f.int_end + 1) {
    // Rounded half to even, as ConvertToInt32 rounds.
    const int first = buffer.bytes[f.int_end + 1] - '0';
    if (first > 5 || (first == 5 && (f.frac_tail_nonzero || value % 2 == 1))) ++value;
  }
  return value > std::numeric_limits<int32_t>::max() ? 0 : static_cast<int32_t>(value);
}

int32_t ReceiveBuffers::SizeFrom(const Buffer& buffer, size_t start) {
  const SizeField& f = buffer.field;
  if (start < f.int_begin) return f.whole;  // only blanks or the sign were left out
  // The integer digits of a kept field have no non-zero digit before their last ten (the
  // whole field would have overflowed).
  if (start < f.int_end) return DigitsValue(buffer, start, f.int_end, kNone, true);
  if (!f.dot) return 0;  // blanks after the digits are no number
  // From the "." on: fraction digits rounded (none give 0), or the fraction digits alone.
  if (start == f.int_end) return DigitsValue(buffer, start, start, kNone, true);
  if (start < f.frac_end)
    return DigitsValue(buffer, start, f.frac_end, f.big_fraction_digit, false);
  return 0;
}

int32_t ReceiveBuffers::FrontSize(Buffer& buffer) {
  if (buffer.front_size >= 0) return buffer.front_size;
  if (buffer.field.separator != kNone && buffer.offset <= buffer.field.separator) {
    // The packet taken last ended inside its own size field: the next size is the rest of
    // that field, whose first "|" is still the same one.
    buffer.front_size = SizeFrom(buffer, buffer.offset);
    return buffer.front_size;
  }
  buffer.field = SizeField{};
  const std::string_view pending = std::string_view(buffer.bytes).substr(buffer.offset);
  const size_t separator = pending.find('|');
  // Without a "|" there is no size; framing drops such a buffer at once.
  if (separator == std::string_view::npos) {
    bytes_examined_ += pending.size();
    return 0;
  }
  // The number before the first "|" can no longer change, so it is read once per packet.
  buffer.field = ReadField(buffer.bytes, buffer.offset, buffer.offset + separator);
  bytes_examined_ += 3 * (separator + 1);  // found, read as a number, its shape taken
  buffer.front_size = buffer.field.whole < 0 ? 0 : buffer.field.whole;
  return buffer.front_size;
}

void ReceiveBuffers::Erase(Iterator it) {
  buffered_bytes_ -= it->second.bytes.size();
  buffers_.erase(it);
}

void ReceiveBuffers::Drop(int index, Iterator it, size_t size) {
  Erase(it);
  log_.WriteLog("ReceiveBuffer of connection " + std::to_string(index) + " dropped: size " +
                std::to_string(size) + " exceeds MaxPackageSize " +
                std::to_string(max_package_size_));
}

bool ReceiveBuffers::SocketGetData(int index, std::string_view chunk, bool& admin_login_flag) {
  try {
    if (chunk.empty()) return false;
    const auto [it, created] = buffers_.try_emplace(index);
    Buffer& buffer = it->second;
    if (buffer.offset > 0) {
      // Once per arrival: what is left after the last packet moves to the front.
      bytes_examined_ += buffer.bytes.size() - buffer.offset;
      buffer.bytes.erase(0, buffer.offset);
      buffered_bytes_ -= buffer.offset;
      buffer.offset = 0;
      buffer.field = SizeField{};
    }
    buffer.bytes.append(chunk);
    buffered_bytes_ += chunk.size();
    bytes_examined_ += 2 * chunk.size();  // appended, and looked at for the console's login
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
    const auto it = buffers_.find(index);
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
      Erase(it);
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
    bytes_examined_ += length;
    if (length == pending.size()) {
      Erase(it);
      return true;
    }
    buffer.offset += length;
    buffer.front_size = -1;
    const size_t rest = buffer.bytes.size() - buffer.offset;
    if (buffer.offset >= kReleaseAt && buffer.offset >= rest) {
      // A large packet taken: its memory goes back now, not at the connection's next
      // arrival. Copying the smaller rest keeps framing linear.
      bytes_examined_ += rest;
      buffer.bytes = buffer.bytes.substr(buffer.offset);
      buffered_bytes_ -= buffer.offset;
      buffer.offset = 0;
      buffer.field = SizeField{};
    }
    return true;
  } catch (...) {
    LogCurrentException(log_, "SocketPrepareDataForExecution");
    return false;
  }
}

int ReceiveBuffers::DropLargestOverBound(const std::function<std::string(int index)>& address) {
  if (max_buffered_bytes_ >= 0 && buffered_bytes_ <= static_cast<size_t>(max_buffered_bytes_)) {
    return 0;
  }
  // Runs only past the bound, so looking at every buffer costs nothing in normal operation.
  auto largest = buffers_.end();
  for (auto it = buffers_.begin(); it != buffers_.end(); ++it) {
    if (largest == buffers_.end() || it->second.bytes.size() > largest->second.bytes.size() ||
        (it->second.bytes.size() == largest->second.bytes.size() && it->first < largest->first)) {
      largest = it;
    }
  }
  if (largest == buffers_.end()) return 0;
  const int index = largest->first;
  const size_t bytes = largest->second.bytes.size();
  Erase(largest);
  const std::string where = address ? address(index) : std::string();
  log_.WriteLog("ReceiveBuffer of connection " + std::to_string(index) +
                (where.empty() ? std::string() : " (" + where + ")") + " dropped: it holds " +
                std::to_string(bytes) +
                " bytes, the most while all buffers together exceed MaxBufferedBytes " +
                std::to_string(max_buffered_bytes_) + "; the connection is closed");
  return index;
}

void ReceiveBuffers::Remove(int index) {
  const auto it = buffers_.find(index);
  if (it != buffers_.end()) Erase(it);
}

bool ReceiveBuffers::Contains(int index) const { return buffers_.contains(index); }

size_t ReceiveBuffers::PendingSize(int index) const {
  const auto it = buffers_.find(index);
  return it == buffers_.end() ? 0 : it->second.bytes.size() - it->second.offset;
}

}  // namespace kalvo
