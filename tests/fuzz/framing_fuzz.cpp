// Fuzz target: arbitrary chunk sequences on two connections through ReceiveBuffers, each
// arrival compared with the plain framing rules (reference_framing.h), with a small
// MaxBufferedBytes enforced after each arrival; and the packet decoders on the raw input.
// Traps when the two framings disagree, when framing does more than linear work, or when the
// buffered bytes break their bound.
//
// Input: records of one control byte and up to 63 bytes of chunk. The control byte's low six
// bits are the chunk's length, its top bit the connection (1 or 2).
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "infra/log.h"
#include "infra/registry_store.h"
#include "net/packet.h"
#include "net/receive_buffers.h"
#include "reference_framing.h"

namespace {

constexpr int32_t kMaxPackageSize = 200;
constexpr int32_t kMaxBufferedBytes = 300;

// A Log that writes nothing: its registry file does not exist, so the level is 0.
kalvo::Log& QuietLog() {
  static kalvo::RegistryStore registry(
      (std::filesystem::temp_directory_path() / "kalvo-fuzz-none.reg").string());
  static kalvo::Log log(registry, "/dev/null");
  return log;
}

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kalvo::Log& log = QuietLog();
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  // The decoders take any text.
  const kalvo::SocketDataStruct decoded = kalvo::SocketStringToStruct(log, input);
  Check(decoded.Misc1.find('|') == std::string::npos);
  kalvo::CheckAdminLoginPackage(log, input);
  kalvo::SocketReadPackageSize(input);

  kalvo::ReceiveBuffers buffers(log, kMaxPackageSize);
  buffers.set_max_buffered_bytes(kMaxBufferedBytes);
  kalvo::testing::ReferenceFraming reference[2] = {
      kalvo::testing::ReferenceFraming(kMaxPackageSize),
      kalvo::testing::ReferenceFraming(kMaxPackageSize)};
  size_t received = 0;
  for (size_t pos = 0; pos < input.size();) {
    const auto control = static_cast<uint8_t>(input[pos++]);
    const int index = (control & 0x80) != 0 ? 2 : 1;
    const std::string_view chunk = input.substr(pos, control & 0x3F);
    pos += chunk.size();
    received += chunk.size();

    std::vector<kalvo::SocketDataStruct> got;
    bool admin = false;
    if (buffers.SocketGetData(index, chunk, admin)) {
      kalvo::SocketDataStruct current;
      while (buffers.SocketPrepareDataForExecution(index, current)) got.push_back(current);
    }
    Check(got == reference[index - 1].Arrive(log, chunk));
    Check(buffers.PendingSize(index) == reference[index - 1].pending());

    while (const int victim = buffers.DropLargestOverBound(nullptr)) {
      Check(victim == 1 || victim == 2);
      reference[victim - 1] = kalvo::testing::ReferenceFraming(kMaxPackageSize);
    }
    Check(buffers.BufferedBytes() <= static_cast<size_t>(kMaxBufferedBytes));
    Check(buffers.BufferedBytes() >= buffers.PendingSize(1) + buffers.PendingSize(2));
  }
  // Linear: a bounded number of looks per byte received, whatever the bytes.
  Check(buffers.bytes_examined() <= 32 * received + 64);
  return 0;
}
