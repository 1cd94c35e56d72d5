// The server's memory when a client sends echo requests (311) and never reads a reply: the
// replies pile up in the connection's send queue until MaxSendQueue closes the connection.
// Runs the server on SQLite with the queue practically unbounded (the baseline) and with the
// default MaxSendQueue, and prints the peak resident memory of each. Given the path of another
// kalvosrv (a build of an earlier version), that one runs first with its default settings.
// No assertions; figures only.
//
//   send_queue_bench [other-kalvosrv]

#include <cstdio>
#include <string>
#include <vector>

#include "bench_support.h"
#include "infra/settings.h"

namespace kb = kalvo::bench;

namespace {

constexpr size_t kRequestBytes = 100u << 20;  // 100 MiB of requests

struct Run {
  int64_t rss_start = 0;
  int64_t rss_peak = 0;
  size_t sent = 0;
  bool closed = false;
  double seconds = 0;
};

// Sends echo requests until kRequestBytes went out or the server closed the connection;
// reads nothing. Gives what the server's memory did meanwhile.
Run Flood(const kb::ServerChild& server) {
  Run run;
  run.rss_start = kb::ResidentBytes(server.pid());
  kb::asio::io_context io;
  kb::tcp::socket socket(io);
  socket.open(kb::tcp::v4());
  // A small receive window: the replies stay with the server instead of in this socket.
  socket.set_option(kb::asio::socket_base::receive_buffer_size(4096));
  socket.connect(kb::tcp::endpoint(kb::asio::ip::address_v4::loopback(),
                                   static_cast<uint16_t>(server.port())));
  std::string batch;
  for (int i = 0; i < 4096; ++i) batch += "14|311|0||||0|";
  const auto start = kb::Clock::now();
  while (run.sent < kRequestBytes) {
    kb::CheckInterrupted();
    boost::system::error_code ec;
    kb::asio::write(socket, kb::asio::buffer(batch), ec);
    if (ec) {
      run.closed = true;
      break;
    }
    run.sent += batch.size();
  }
  // Let the server work through what it has read.
  server.Sync();
  run.seconds = kb::Since(start);
  run.rss_peak = kb::ResidentBytes(server.pid(), "VmHWM");
  return run;
}

double MiB(int64_t bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); }

}  // namespace

int main(int argc, char** argv) {
  const kb::fs::path self = kb::fs::canonical("/proc/self/exe");
  const std::string exe = (self.parent_path().parent_path() / "kalvosrv").string();
  const std::string other = argc > 1 ? argv[1] : "";
  return kb::GuardedRun("send_queue_bench", [&] {
    kb::BenchEngines engines(true, false, 1000);
    const kb::Engine& sqlite = engines.engines().front();
    {
      kalvo::Database db(engines.env(), engines.log(), sqlite.settings);
      kb::CreateSchema(db);
    }
    struct Setting {
      const char* name;
      std::string exe;
      int32_t max_send_queue;  // 0: not set
    };
    std::vector<Setting> settings;
    if (!other.empty()) settings.push_back({"other kalvosrv, defaults", other, 0});
    settings.push_back({"unbounded", exe, INT32_MAX});
    settings.push_back({"MaxSendQueue 8 MiB (default)", exe, kalvo::kDefaultMaxSendQueue});
    std::printf("%-30s %10s %10s %12s %8s %8s\n", "send queue", "RSS start", "RSS peak", "requests",
                "closed", "seconds");
    double baseline_growth = 0;
    for (const Setting& s : settings) {
      kb::ServerChild server(s.exe, engines.dir(), [&](int port) {
        return kb::RegistryText(
            port, 0, sqlite,
            s.max_send_queue == 0 ? std::string()
                                  : "\"MaxSendQueue\"=dword:" + kb::Hex(s.max_send_queue) + "\r\n");
      });
      const Run run = Flood(server);
      const double growth = MiB(run.rss_peak - run.rss_start);
      if (baseline_growth == 0) baseline_growth = growth;
      std::printf("%-30s %8.1f M %8.1f M %10.1f M %8s %8.2f   growth %.1f MiB (%.2fx baseline)\n",
                  s.name, MiB(run.rss_start), MiB(run.rss_peak),
                  MiB(static_cast<int64_t>(run.sent)), run.closed ? "yes" : "no", run.seconds,
                  growth, baseline_growth > 0 ? growth / baseline_growth : 0.0);
    }
    return 0;
  });
}
