#include "fake_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kalvo {
namespace {

bool WaitReadable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 10000) == 1;
}

}  // namespace

Fd::~Fd() {
  if (fd >= 0) ::close(fd);
}

FakeServer::FakeServer(std::vector<std::string> replies)
    : FakeServer(std::vector<std::vector<std::string>>{std::move(replies)}) {}

FakeServer::FakeServer(std::vector<std::vector<std::string>> exchanges)
    : listener_(::socket(AF_INET, SOCK_STREAM, 0)), exchanges_(std::move(exchanges)) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(listener_.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  ::listen(listener_.fd, 1);
  socklen_t len = sizeof addr;
  ::getsockname(listener_.fd, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

FakeServer::~FakeServer() { thread_.join(); }

void FakeServer::Serve() {
  if (!WaitReadable(listener_.fd)) return;
  Fd conn(::accept(listener_.fd, nullptr, nullptr));
  char buf[4096];
  size_t answered = 0;  // bytes of the requests already answered
  for (const auto& replies : exchanges_) {
    for (;;) {
      const std::string_view pending = std::string_view(received_).substr(answered);
      const int32_t size = SocketReadPackageSize(pending);
      if (size > 0 && pending.size() >= static_cast<size_t>(size)) {
        answered += static_cast<size_t>(size);
        break;
      }
      if (!WaitReadable(conn.fd)) return;
      const ssize_t n = ::read(conn.fd, buf, sizeof buf);
      if (n <= 0) return;
      received_.append(buf, static_cast<size_t>(n));
    }
    for (const auto& r : replies) {
      if (::write(conn.fd, r.data(), r.size()) != static_cast<ssize_t>(r.size())) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  // Later bytes are not kept: the test may be reading received() by then.
  while (WaitReadable(conn.fd) && ::read(conn.fd, buf, sizeof buf) > 0) {
  }
}

RunResult Kalvoctl(const std::string& args) {
  const std::string err_file =
      (std::filesystem::temp_directory_path() / ("kalvoctl-err-" + std::to_string(::getpid())))
          .string();
  const std::string cmd = std::string(KALVO_BUILD_DIR) + "/kalvoctl " + args + " 2>" + err_file;
  RunResult run;
  FILE* pipe = ::popen(cmd.c_str(), "r");
  if (pipe == nullptr) return run;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0) run.out.append(buf, n);
  const int status = ::pclose(pipe);
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::stringstream err;
  err << std::ifstream(err_file).rdbuf();
  run.err = err.str();
  std::filesystem::remove(err_file);
  return run;
}

std::string KalvoctlTest::Wire(int32_t id, std::string data, std::string misc1, std::string misc2,
                               std::string misc3) {
  SocketDataStruct r;
  r.PackageID = id;
  r.Misc1 = std::move(misc1);
  r.Misc2 = std::move(misc2);
  r.Misc3 = std::move(misc3);
  r.DataSize = static_cast<int32_t>(data.size());
  r.Data = std::move(data);
  r.PackageSize = SocketGetPackageSize(log_, r);
  return SocketStructToString(log_, r);
}

}  // namespace kalvo
