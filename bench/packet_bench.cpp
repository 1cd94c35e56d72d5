// Throughput of the packet codec and of framing, for a small packet (60 bytes on the wire,
// a typical request) and a large one (64 KiB, a backup upload). Framing is measured as the
// connection layer drives it: many small packets in one chunk, and one large packet in 1460-byte
// chunks (a TCP segment). The baseline is a plain copy of the same bytes, measured in the
// same run, so the figures can be read as a ratio to copying speed.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>
#include <vector>

#include "infra/log.h"
#include "infra/registry_store.h"
#include "net/packet.h"
#include "net/receive_buffers.h"

namespace kalvo {
namespace {

// A Log that writes nothing: its registry file does not exist, so the level is 0.
struct QuietLog {
  RegistryStore registry{
      (std::filesystem::temp_directory_path() / "kalvo-bench-none.reg").string()};
  Log log{registry, "/dev/null"};
};

QuietLog& Quiet() {
  static QuietLog quiet;
  return quiet;
}

// A packet whose wire text is exactly `wire_size` bytes (or one more, where the size field
// cannot land on it).
SocketDataStruct MakePacket(size_t wire_size) {
  SocketDataStruct r;
  r.PackageID = 115;
  r.Misc2 = "2";
  r.Misc3 = "Backup";
  for (size_t n = 0;; ++n) {
    r.Data.assign(n, 'd');
    for (size_t i = 0; i < n; i += 7) r.Data[i] = '|';  // the decoder must not trip on these
    r.DataSize = static_cast<int32_t>(n);
    r.PackageSize = SocketGetPackageSize(Quiet().log, r);
    if (static_cast<size_t>(r.PackageSize) >= wire_size) return r;
  }
}

void SetThroughput(benchmark::State& state, size_t bytes_per_packet, size_t packets_per_iter) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * packets_per_iter));
  state.SetBytesProcessed(
      static_cast<int64_t>(state.iterations() * packets_per_iter * bytes_per_packet));
}

// The baseline: one allocation and copy of the wire text, the least any decoder that hands
// out an owned Data must do.
void BM_CopyBaseline(benchmark::State& state) {
  const std::string wire(static_cast<size_t>(state.range(0)), 'd');
  for (auto _ : state) {
    std::string copy = wire;
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  SetThroughput(state, wire.size(), 1);
}

void BM_Encode(benchmark::State& state) {
  const SocketDataStruct r = MakePacket(static_cast<size_t>(state.range(0)));
  size_t bytes = 0;
  for (auto _ : state) {
    SocketDataStruct reply = r;  // a reply is built, sized, then encoded
    reply.PackageSize = SocketGetPackageSize(Quiet().log, reply);
    std::string wire = SocketStructToString(Quiet().log, reply);
    bytes = wire.size();
    benchmark::DoNotOptimize(wire.data());
  }
  SetThroughput(state, bytes, 1);
}

void BM_Decode(benchmark::State& state) {
  const std::string wire =
      SocketStructToString(Quiet().log, MakePacket(static_cast<size_t>(state.range(0))));
  for (auto _ : state) {
    SocketDataStruct r = SocketStringToStruct(Quiet().log, wire);
    benchmark::DoNotOptimize(r.Data.data());
  }
  SetThroughput(state, wire.size(), 1);
}

void BM_CheckAdminLogin(benchmark::State& state) {
  const std::string wire =
      SocketStructToString(Quiet().log, MakePacket(static_cast<size_t>(state.range(0))));
  for (auto _ : state) benchmark::DoNotOptimize(CheckAdminLoginPackage(Quiet().log, wire));
  SetThroughput(state, wire.size(), 1);
}

// Many packets arrive in one chunk of about 64 KiB; each is framed and decoded.
void BM_FrameManyInOneChunk(benchmark::State& state) {
  const std::string one =
      SocketStructToString(Quiet().log, MakePacket(static_cast<size_t>(state.range(0))));
  std::string chunk;
  size_t count = 0;
  while (chunk.size() + one.size() <= 65536) {
    chunk += one;
    ++count;
  }
  ReceiveBuffers buffers(Quiet().log);
  SocketDataStruct current;
  bool admin = false;
  for (auto _ : state) {
    buffers.SocketGetData(1, chunk, admin);
    while (buffers.SocketPrepareDataForExecution(1, current)) benchmark::DoNotOptimize(current);
  }
  SetThroughput(state, one.size(), count);
}

// One packet arrives in TCP-segment-sized chunks.
void BM_FrameOneInSegments(benchmark::State& state) {
  const std::string wire =
      SocketStructToString(Quiet().log, MakePacket(static_cast<size_t>(state.range(0))));
  constexpr size_t kSegment = 1460;
  ReceiveBuffers buffers(Quiet().log);
  SocketDataStruct current;
  bool admin = false;
  for (auto _ : state) {
    for (size_t pos = 0; pos < wire.size(); pos += kSegment) {
      buffers.SocketGetData(1, std::string_view(wire).substr(pos, kSegment), admin);
      while (buffers.SocketPrepareDataForExecution(1, current)) benchmark::DoNotOptimize(current);
    }
  }
  SetThroughput(state, wire.size(), 1);
}

constexpr int64_t kSmall = 60;
constexpr int64_t kLarge = 64 * 1024;

BENCHMARK(BM_CopyBaseline)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Encode)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Decode)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_CheckAdminLogin)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_FrameManyInOneChunk)->Arg(kSmall)->Arg(1024);
BENCHMARK(BM_FrameOneInSegments)->Arg(kSmall)->Arg(kLarge);

}  // namespace
}  // namespace kalvo

BENCHMARK_MAIN();
