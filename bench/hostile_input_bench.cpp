// What hostile input costs: time of framing one 64 KiB chunk built to make a size field be
// read again and again, peak resident memory of a real kalvosrv while 8 connections each send
// 60 MiB of an unfinished packet (with MaxBufferedBytes 128 MiB), and time and peak memory of
// parsing two hostile registry files (one very deep key; 80,000 values in one key). Each
// figure is printed beside a baseline measured in the same run: a well-formed chunk of the
// same size, the server's resident memory when idle, and a plain registry file of the same
// size. Prints figures only; it asserts nothing.
//
// Usage: hostile_input_bench [skip-server]
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "infra/log.h"
#include "infra/reg_file.h"
#include "infra/registry_store.h"
#include "net/packet.h"
#include "net/receive_buffers.h"

namespace kalvo::bench {
namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr int kConnections = 8;
constexpr size_t kPendingPerConnection = 60u << 20;
constexpr int32_t kMaxBuffered = 128 << 20;

// Seconds one chunk takes to be framed as the connection layer does it: appended, then
// packets taken off until none is left. The best of `rounds`.
double FrameSeconds(const std::string& chunk, int rounds) {
  RegistryStore registry((fs::temp_directory_path() / "kalvo-bench-none.reg").string());
  Log log(registry, "/dev/null");
  double best = 1e9;
  for (int r = 0; r < rounds; ++r) {
    ReceiveBuffers buffers(log);
    SocketDataStruct current;
    bool admin = false;
    const auto start = Clock::now();
    buffers.SocketGetData(1, chunk, admin);
    while (buffers.SocketPrepareDataForExecution(1, current)) {
    }
    best = std::min(best, Since(start));
  }
  return best;
}

// A chunk of well-formed small echo packets, `bytes` long or a little less.
std::string WellFormedChunk(size_t bytes) {
  static const std::string kEcho = "14|311|0||||0|";
  std::string chunk;
  while (chunk.size() + kEcho.size() <= bytes) chunk += kEcho;
  return chunk;
}

void FramingFigures() {
  std::string hostile(kChunk - 3, '0');
  hostile += "1|";
  const std::string plain = WellFormedChunk(kChunk);
  const double plain_s = FrameSeconds(plain, 5);
  const double hostile_s = FrameSeconds(hostile, 3);
  std::printf("framing one 64 KiB chunk\n");
  std::printf("  well-formed (14-byte packets)  %10.3f ms\n", plain_s * 1e3);
  std::printf("  65,533 \"0\" then \"1|\"          %10.3f ms   ratio %.1f\n", hostile_s * 1e3,
              hostile_s / plain_s);
}

// Runs `work` in a child process and gives its seconds and the growth of its peak resident
// memory over what it had before, so that earlier cases do not hide later ones.
struct Cost {
  double seconds = 0;
  int64_t peak_growth = 0;
};
Cost InChild(const std::function<void()>& work) {
  int fds[2];
  if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    ::close(fds[0]);
    const int64_t before = ResidentBytes(::getpid(), "VmRSS");
    const auto start = Clock::now();
    work();
    Cost cost{Since(start), ResidentBytes(::getpid(), "VmHWM") - before};
    if (::write(fds[1], &cost, sizeof cost) != sizeof cost) ::_exit(1);
    ::_exit(0);
  }
  ::close(fds[1]);
  Cost cost;
  const ssize_t got = ::read(fds[0], &cost, sizeof cost);
  ::close(fds[0]);
  ::waitpid(pid, nullptr, 0);
  if (got != sizeof cost) throw std::runtime_error("the measuring child failed");
  return cost;
}

Cost ParseCost(const std::string& file) {
  return InChild([&] {
    size_t skipped = 0;
    const RegDocument doc = ParseRegFile(file, [&](size_t, const std::string&) { ++skipped; });
    if (doc.keys().size() + skipped == 0) std::printf("(nothing parsed)\n");
  });
}

void PrintCost(const char* what, size_t bytes, const Cost& c) {
  std::printf("  %-34s %8zu KiB %10.3f s %10.1f MiB peak growth\n", what, bytes / 1024, c.seconds,
              static_cast<double>(c.peak_growth) / (1 << 20));
}

void RegistryFigures() {
  const std::string head = "REGEDIT4\r\n\r\n";
  // One key nested as deep as 128 KiB allows.
  std::string deep = head + "[HKEY_LOCAL_MACHINE";
  while (deep.size() < 128 * 1024) deep += "\\A";
  deep += "]\r\n\"v\"=\"x\"\r\n";
  // 80,000 values in one key.
  std::string values = head + "[HKEY_LOCAL_MACHINE\\Software\\Big]\r\n";
  for (int i = 0; i < 80000; ++i) values += "\"value" + std::to_string(i) + "\"=\"x\"\r\n";
  // Baseline: keys of four levels with one value each, as many bytes as the larger case.
  std::string plain = head;
  for (int i = 0; plain.size() < values.size(); ++i) {
    plain += "[HKEY_LOCAL_MACHINE\\Software\\Plain\\K" + std::to_string(i) + "]\r\n\"v\"=\"x\"\r\n";
  }
  std::printf("parsing a registry file\n");
  PrintCost("plain keys (baseline)", plain.size(), ParseCost(plain));
  PrintCost("one key 65,000 levels deep", deep.size(), ParseCost(deep));
  PrintCost("80,000 values in one key", values.size(), ParseCost(values));
}

void ServerFigures() {
  const fs::path self = fs::canonical("/proc/self/exe");
  const std::string exe = (self.parent_path().parent_path() / "kalvosrv").string();
  kt::TempDir dir;
  ServerChild server(exe, dir.path(), [](int port) {
    return "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n"
           "\"LogLevel\"=dword:00000000\r\n\r\n"
           "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]\r\n\"ServerLocalPort\"=\"" +
           std::to_string(port) +
           "\"\r\n\"StatusPort\"=dword:00000000\r\n\"MaxBufferedBytes\"=dword:" +
           Hex(kMaxBuffered) + "\r\n";
  });
  server.Sync();
  const int64_t idle = ResidentBytes(server.pid(), "VmRSS");

  asio::io_context io;
  std::vector<std::unique_ptr<tcp::socket>> sockets;
  for (int i = 0; i < kConnections; ++i) {
    sockets.push_back(std::make_unique<tcp::socket>(io));
    sockets.back()->connect(
        tcp::endpoint(asio::ip::address_v4::loopback(), static_cast<uint16_t>(server.port())));
  }
  // Each announces a packet a little larger than what it will send, so nothing completes.
  const std::string header = std::to_string(kPendingPerConnection + 100) + "|115|0||2|Backup|" +
                             std::to_string(kPendingPerConnection + 100 - 40) + "|";
  const std::string filler(1 << 20, 'd');
  std::vector<size_t> sent(kConnections, 0);
  std::vector<bool> open(kConnections, true);
  int dropped = 0;
  for (size_t round = 0; round * filler.size() < kPendingPerConnection; ++round) {
    CheckInterrupted();
    for (int i = 0; i < kConnections; ++i) {
      if (!open[i]) continue;
      boost::system::error_code ec;
      if (round == 0) asio::write(*sockets[i], asio::buffer(header), ec);
      if (!ec) asio::write(*sockets[i], asio::buffer(filler), ec);
      if (ec) {
        open[i] = false;
        ++dropped;
      } else {
        sent[i] += filler.size();
      }
    }
  }
  server.Sync();
  const int64_t peak = ResidentBytes(server.pid(), "VmHWM");
  std::printf("kalvosrv with %d connections each sending %zu MiB of an unfinished packet\n",
              kConnections, kPendingPerConnection >> 20);
  std::printf("  MaxBufferedBytes %d MiB; connections dropped by the server: %d\n",
              kMaxBuffered >> 20, dropped);
  std::printf("  resident when idle %8.1f MiB; peak %8.1f MiB; peak - idle %8.1f MiB\n",
              static_cast<double>(idle) / (1 << 20), static_cast<double>(peak) / (1 << 20),
              static_cast<double>(peak - idle) / (1 << 20));
}

}  // namespace
}  // namespace kalvo::bench

int main(int argc, char** argv) {
  using namespace kalvo::bench;
  const bool skip_server = argc > 1 && std::strcmp(argv[1], "skip-server") == 0;
  std::signal(SIGPIPE, SIG_IGN);
  return GuardedRun("hostile_input_bench", [&] {
    FramingFigures();
    std::fflush(stdout);
    RegistryFigures();
    std::fflush(stdout);
    if (!skip_server) ServerFigures();
    return 0;
  });
}
