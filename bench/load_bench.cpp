// Load against the real kalvosrv beside a bare Boost.Asio echo server, in the same run:
//  (b) N connections (1, 16, 256) each sending 311 round trips for a fixed time; the server's
//      round trips/s are reported as a ratio of the bare echo's;
//  (c) resident memory per idle connection with 10,000 connections open.
// Run: build/bench/load_bench [seconds per point, default 3] [idle connections, default 10000]
// Both servers run as child processes on 127.0.0.1; the load runs on this process's thread.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

#include <boost/asio.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace asio = boost::asio;
using asio::ip::tcp;
namespace fs = std::filesystem;

namespace {

const std::string kEcho = "14|311|0||||0|";

int FreePort() {
  asio::io_context io;
  tcp::acceptor a(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  return a.local_endpoint().port();
}

// The bare baseline: answers every 14 bytes with the same 14 bytes.
[[noreturn]] void RunBareEcho(int port) {
  asio::io_context io;
  tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::address_v4::loopback(), port));
  struct Session : std::enable_shared_from_this<Session> {
    explicit Session(tcp::socket s) : socket(std::move(s)) {}
    tcp::socket socket;
    char data[14];
    void Read() {
      asio::async_read(socket, asio::buffer(data),
                       [self = shared_from_this()](boost::system::error_code ec, size_t) {
                         if (!ec) self->Write();
                       });
    }
    void Write() {
      asio::async_write(socket, asio::buffer(data),
                        [self = shared_from_this()](boost::system::error_code ec, size_t) {
                          if (!ec) self->Read();
                        });
    }
  };
  std::function<void()> accept = [&] {
    acceptor.async_accept([&](boost::system::error_code ec, tcp::socket s) {
      if (!ec) {
        s.set_option(tcp::no_delay(true));
        std::make_shared<Session>(std::move(s))->Read();
      }
      accept();
    });
  };
  accept();
  io.run();
  _exit(0);
}

pid_t StartKalvosrv(const std::string& exe, int port, const fs::path& dir) {
  fs::create_directories(dir);
  std::ofstream(dir / "registry.reg", std::ios::binary)
      << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n"
      << "\"LogLevel\"=dword:00000000\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]"
      << "\r\n\"ServerLocalPort\"=\"" << port << "\"\r\n\"StatusPort\"=dword:00000000\r\n";
  const pid_t pid = fork();
  if (pid == 0) {
    const std::string reg = (dir / "registry.reg").string(), log = (dir / "k.log").string();
    execl(exe.c_str(), exe.c_str(), "--foreground", "--registry", reg.c_str(), "--log-file",
          log.c_str(), "--listen-address", "127.0.0.1", static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

pid_t StartBare(int port) {
  const pid_t pid = fork();
  if (pid == 0) RunBareEcho(port);
  return pid;
}

void WaitForPort(int port) {
  for (int i = 0; i < 500; ++i) {
    asio::io_context io;
    tcp::socket s(io);
    boost::system::error_code ec;
    s.connect(tcp::endpoint(asio::ip::address_v4::loopback(), port), ec);
    if (!ec) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Round trips per second of `connections` clients for `seconds`.
double RoundTrips(int port, int connections, double seconds) {
  asio::io_context io;
  struct Client {
    explicit Client(asio::io_context& io) : socket(io) {}
    tcp::socket socket;
    char reply[14];
  };
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < connections; ++i) {
    clients.push_back(std::make_unique<Client>(io));
    clients.back()->socket.connect(tcp::endpoint(asio::ip::address_v4::loopback(), port));
    clients.back()->socket.set_option(tcp::no_delay(true));
  }
  uint64_t count = 0;
  bool running = true;
  std::function<void(Client*)> round = [&](Client* c) {
    asio::async_write(c->socket, asio::buffer(kEcho), [&, c](boost::system::error_code ec, size_t) {
      if (ec) return;
      asio::async_read(c->socket, asio::buffer(c->reply), [&, c](boost::system::error_code ec, size_t) {
        if (ec) return;
        ++count;
        if (running) round(c);
      });
    });
  };
  for (auto& c : clients) round(c.get());
  asio::steady_timer timer(
      io, std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds)));
  const auto start = std::chrono::steady_clock::now();
  timer.async_wait([&](boost::system::error_code) {
    running = false;
    for (auto& c : clients) c->socket.close();
  });
  io.run();
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return static_cast<double>(count) / elapsed;
}

long RssKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

// Resident memory growth per connection, in bytes, with `n` idle connections open.
double BytesPerIdleConnection(pid_t pid, int port, int n) {
  asio::io_context io;
  const long before = RssKiB(pid);
  std::vector<tcp::socket> sockets;
  sockets.reserve(n);
  for (int i = 0; i < n; ++i) {
    sockets.emplace_back(io);
    sockets.back().connect(tcp::endpoint(asio::ip::address_v4::loopback(), port));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // let the server accept all
  const long after = RssKiB(pid);
  return static_cast<double>(after - before) * 1024.0 / n;
}

void Stop(pid_t pid) {
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::stod(argv[1]) : 3.0;
  const int idle = argc > 2 ? std::stoi(argv[2]) : 10000;
  rlimit limit{static_cast<rlim_t>(idle * 2 + 1024), static_cast<rlim_t>(idle * 2 + 1024)};
  setrlimit(RLIMIT_NOFILE, &limit);  // children inherit it
  const fs::path self = fs::canonical("/proc/self/exe");
  const std::string exe = (self.parent_path().parent_path() / "kalvosrv").string();
  const fs::path dir = fs::temp_directory_path() / ("kalvo_load_" + std::to_string(getpid()));

  const int server_port = FreePort(), bare_port = FreePort();
  const pid_t server = StartKalvosrv(exe, server_port, dir);
  const pid_t bare = StartBare(bare_port);
  WaitForPort(server_port);
  WaitForPort(bare_port);

  std::printf("%-12s %14s %14s %8s\n", "connections", "kalvosrv rt/s", "bare echo rt/s", "ratio");
  for (int n : {1, 16, 256}) {
    const double bare_rate = RoundTrips(bare_port, n, seconds);
    const double server_rate = RoundTrips(server_port, n, seconds);
    std::printf("%-12d %14.0f %14.0f %8.2f\n", n, server_rate, bare_rate, server_rate / bare_rate);
  }
  std::fflush(stdout);
  const double server_bytes = BytesPerIdleConnection(server, server_port, idle);
  const double bare_bytes = BytesPerIdleConnection(bare, bare_port, idle);
  std::printf("resident memory per idle connection (%d open): kalvosrv %.2f KiB, bare echo "
              "%.2f KiB\n",
              idle, server_bytes / 1024, bare_bytes / 1024);
  Stop(server);
  Stop(bare);
  fs::remove_all(dir);
  return 0;
}
