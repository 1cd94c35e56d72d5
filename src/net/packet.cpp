#include "net/packet.h"

#include <array>
#include <charconv>
#include <limits>
#include <utility>

#include "infra/log.h"
#include "infra/numbers.h"
#include "infra/runtime_error.h"

namespace kalvo {
namespace {

constexpr char kSeparator = '|';
constexpr int kHeaderFields = 7;  // the fields before Data

// A decoded packet whose texts still point into the decoded text.
struct PacketView {
  bool keep_alive = false;
  int32_t package_size = 0;
  int32_t package_id = 0;
  int32_t reserved = 0;
  int32_t data_size = 0;
  std::string_view misc1, misc2, misc3, data;
};

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Characters of the decimal text of `n`, its minus sign included.
int DecimalLength(int32_t n) {
  char buf[16];
  return static_cast<int>(std::to_chars(buf, buf + sizeof buf, n).ptr - buf);
}

void AppendNumber(std::string& out, int32_t n) {
  char buf[16];
  out.append(buf, std::to_chars(buf, buf + sizeof buf, n).ptr);
}

// The description a run-time error number carries.
const char* Describe(int32_t number) {
  switch (number) {
    case kErrOverflow:
      return "Overflow";
    case kErrTypeMismatch:
      return "Type mismatch";
    default:
      return "Invalid procedure call or argument";
  }
}

// ConvertToInt32 without exceptions (chunks that are no packet are frequent, and unwinding
// costs more than the whole decode): 0 and `out` set, or the error number.
int32_t ParseInt32(std::string_view text, int32_t& out) {
  size_t b = 0;
  size_t e = text.size();
  while (b < e && IsBlank(text[b])) ++b;
  while (e > b && IsBlank(text[e - 1])) --e;
  text = text.substr(b, e - b);

  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';

  // Digits beyond this bound overflow in any case; stop accumulating to stay in 64 bits.
  constexpr int64_t kBeyond = int64_t{1} << 40;
  int64_t value = 0;
  size_t digits = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, ++digits) {
    if (value < kBeyond) value = value * 10 + (text[i] - '0');
  }
  if (i < text.size() && text[i] == '.') {
    ++i;
    const size_t first = i;
    bool tail_nonzero = false;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, ++digits) {
      if (i > first && text[i] != '0') tail_nonzero = true;
    }
    if (i > first) {
      const int first_digit = text[first] - '0';
      // Round half to even, as the integer conversion does.
      if (first_digit > 5 || (first_digit == 5 && (tail_nonzero || value % 2 == 1))) ++value;
    }
  }
  if (digits == 0 || i != text.size()) return kErrTypeMismatch;
  if (negative) value = -value;
  if (value > std::numeric_limits<int32_t>::max() || value < std::numeric_limits<int32_t>::min()) {
    return kErrOverflow;
  }
  out = static_cast<int32_t>(value);
  return 0;
}

// Decodes without copying: 0, or the run-time error number of the first failure (a number
// that does not convert; a negative PackageSize or DataSize, which the string functions that
// cut Data reject as an invalid argument). Only the first seven separators are looked for,
// so a large Data full of "|" costs nothing extra.
int32_t DecodeView(std::string_view text, PacketView& view) {
  const size_t start = text.find_first_not_of('x');
  if (start == std::string_view::npos) {
    view.keep_alive = true;
    return 0;
  }
  const std::string_view rest = text.substr(start);

  std::array<std::string_view, kHeaderFields> fields{};
  int parts = 0;
  size_t pos = 0;
  bool more_than_header = false;
  while (true) {
    if (parts == kHeaderFields) {  // a seventh separator was found: Data follows
      more_than_header = true;
      break;
    }
    const size_t sep = rest.find(kSeparator, pos);
    fields[parts++] = rest.substr(pos, sep == std::string_view::npos ? sep : sep - pos);
    if (sep == std::string_view::npos) break;
    pos = sep + 1;
  }

  int32_t error = 0;
  if (parts > 0 && (error = ParseInt32(fields[0], view.package_size)) != 0) return error;
  if (parts > 1 && (error = ParseInt32(fields[1], view.package_id)) != 0) return error;
  if (parts > 2 && (error = ParseInt32(fields[2], view.reserved)) != 0) return error;
  if (parts > 3) view.misc1 = fields[3];
  if (parts > 4) view.misc2 = fields[4];
  if (parts > 5) view.misc3 = fields[5];
  if (parts > 6 && (error = ParseInt32(fields[6], view.data_size)) != 0) return error;
  if (more_than_header) {
    // Data = the last DataSize characters of the first PackageSize characters.
    if (view.package_size < 0 || view.data_size < 0) return kErrInvalidCall;
    const std::string_view head = rest.substr(0, static_cast<size_t>(view.package_size));
    const size_t count = std::min(head.size(), static_cast<size_t>(view.data_size));
    view.data = head.substr(head.size() - count);
  }
  return 0;
}

}  // namespace

int32_t ConvertToInt32(std::string_view text) {
  int32_t value = 0;
  const int32_t error = ParseInt32(text, value);
  if (error != 0) throw RuntimeError(error, Describe(error));
  return value;
}

int32_t SocketGetPackageSize(Log& log, const SocketDataStruct& record) {
  try {
    int32_t s = kHeaderFields;
    s = CheckedAdd(s, DecimalLength(record.PackageID));
    s = CheckedAdd(s, DecimalLength(record.Reserved));
    s = CheckedAdd(s, static_cast<int64_t>(record.Misc1.size()));
    s = CheckedAdd(s, static_cast<int64_t>(record.Misc2.size()));
    s = CheckedAdd(s, static_cast<int64_t>(record.Misc3.size()));
    s = CheckedAdd(s, DecimalLength(record.DataSize));
    s = CheckedAdd(s, record.DataSize);
    const int32_t t = CheckedAdd(s, DecimalLength(s));
    return CheckedAdd(s, DecimalLength(t));
  } catch (...) {
    LogCurrentException(log, "SocketGetPackageSize");
    return 0;
  }
}

std::string SocketStructToString(Log& log, const SocketDataStruct& record) {
  try {
    std::string out;
    out.reserve(3 * 11 + 7 + record.Misc1.size() + record.Misc2.size() + record.Misc3.size() + 11 +
                record.Data.size());
    AppendNumber(out, record.PackageSize);
    out += kSeparator;
    AppendNumber(out, record.PackageID);
    out += kSeparator;
    AppendNumber(out, record.Reserved);
    out += kSeparator;
    out += record.Misc1;
    out += kSeparator;
    out += record.Misc2;
    out += kSeparator;
    out += record.Misc3;
    out += kSeparator;
    AppendNumber(out, record.DataSize);
    out += kSeparator;
    out += record.Data;
    return out;
  } catch (...) {
    LogCurrentException(log, "SocketStructToString");
    return {};
  }
}

SocketDataStruct SocketStringToStruct(Log& log, std::string_view text) {
  try {
    PacketView view;
    const int32_t error = DecodeView(text, view);
    if (error != 0) throw RuntimeError(error, Describe(error));
    if (view.keep_alive) {
      log.WriteLog("KeepAlive received");
      return {};
    }
    SocketDataStruct record;
    record.PackageSize = view.package_size;
    record.PackageID = view.package_id;
    record.Reserved = view.reserved;
    record.DataSize = view.data_size;
    record.Data = view.data;
    record.Misc1 = view.misc1;
    record.Misc2 = view.misc2;
    record.Misc3 = view.misc3;
    return record;
  } catch (...) {
    LogCurrentException(log, "SocketStringToStruct");
    return {};
  }
}

int32_t SocketReadPackageSize(std::string_view text) {
  try {
    const size_t sep = text.find(kSeparator);
    if (sep == std::string_view::npos) return 0;
    int32_t size = 0;
    return ParseInt32(text.substr(0, sep), size) == 0 ? size : 0;
  } catch (...) {
    return 0;
  }
}

void SocketClearStruct(SocketDataStruct& record) {
  // Swapped out rather than assigned: assigning empty texts keeps their buffers, which after a
  // backup would hold megabytes until the next long packet.
  SocketDataStruct empty;
  std::swap(record, empty);
}

bool CheckAdminLoginPackage(Log& log, std::string_view chunk) {
  try {
    PacketView view;
    // Most chunks that do not decode are the middle of a long packet: normal traffic, so no
    // error line (one per TCP segment of every large upload would flood the log).
    if (DecodeView(chunk, view) != 0) return false;
    if (view.keep_alive) {
      log.WriteLog("KeepAlive received");
      return false;
    }
    return view.package_id == kAdminLoginPackageId;
  } catch (...) {
    LogCurrentException(log, "CheckAdminLoginPackage");
    return false;
  }
}

}  // namespace kalvo
