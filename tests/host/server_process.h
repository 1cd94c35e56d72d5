// Test support: the real kalvosrv started in the foreground on free loopback ports with a
// temporary registry file and log, and a blocking TCP client with time limits.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace kalvo::testing {

namespace fs = std::filesystem;

// A TCP port that was free a moment ago on 127.0.0.1.
inline int FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

inline std::string ReadFile(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

class ServerProcess {
 public:
  // Starts the server; `extra_kdx` are further .reg value lines under the KDX key,
  // `extra_keys` further keys with their values (the database's "KDX\\DB", for example).
  explicit ServerProcess(const std::string& extra_kdx = "", const std::string& extra_keys = "") {
    dir_ = fs::temp_directory_path() /
           ("kalvo_e2e_" + std::to_string(::getpid()) + "_" + std::to_string(counter_++));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    port_ = FreePort();
    status_port_ = FreePort();
    std::ofstream(dir_ / "registry.reg", std::ios::binary)
        << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n"
        << "\"LogLevel\"=dword:00000001\r\n\r\n"
        << "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]\r\n"
        << "\"ServerLocalPort\"=\"" << port_ << "\"\r\n"
        << "\"StatusPort\"=dword:" << std::hex << status_port_ << std::dec << "\r\n"
        << extra_kdx << "\r\n"
        << extra_keys;
    pid_ = ::fork();
    if (pid_ == 0) {
      const std::string exe = std::string(KALVO_BUILD_DIR) + "/kalvosrv";
      const std::string reg = (dir_ / "registry.reg").string();
      const std::string log = (dir_ / "kalvosrv.log").string();
      ::execl(exe.c_str(), exe.c_str(), "--foreground", "--registry", reg.c_str(), "--log-file",
              log.c_str(), "--listen-address", "127.0.0.1", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    if (!WaitForLog("Form_Load complete"))
      throw std::runtime_error("server did not start:\n" + Log());
  }

  ~ServerProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    fs::remove_all(dir_);
  }

  int port() const { return port_; }
  int status_port() const { return status_port_; }
  pid_t pid() const { return pid_; }
  std::string Log() const { return ReadFile(dir_ / "kalvosrv.log"); }
  std::string RegistryText() const { return ReadFile(dir_ / "registry.reg"); }

  // Waits up to fifteen seconds (sanitizer builds on a loaded machine are slow) until the
  // log holds `text` (`times` times).
  bool WaitForLog(const std::string& text, int times = 1) const {
    for (int i = 0; i < 1500; ++i) {
      if (Count(Log(), text) >= times) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  // Sends `signal` and gives the exit status once the process ended (or -1 after 15 s).
  int StopWith(int signal) {
    ::kill(pid_, signal);
    for (int i = 0; i < 1500; ++i) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
  }

  static int Count(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) {
      ++n;
    }
    return n;
  }

 private:
  static inline int counter_ = 0;
  fs::path dir_;
  int port_ = 0;
  int status_port_ = 0;
  pid_t pid_ = -1;
};

// A blocking client whose reads give up after a time limit.
class Client {
 public:
  // With `receive_buffer` > 0 the socket's receive buffer is made that small before it
  // connects, so that a peer that does not read fills it quickly. `source` is the loopback
  // address it connects from.
  explicit Client(int port, int receive_buffer = 0, const char* source = "127.0.0.1") {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (receive_buffer > 0) {
      ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    sockaddr_in from{};
    from.sin_family = AF_INET;
    ::inet_pton(AF_INET, source, &from.sin_addr);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0) {
      throw std::runtime_error("bind failed");
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      throw std::runtime_error("connect failed");
    }
  }
  ~Client() { Close(); }
  void Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  void Send(const std::string& bytes) {
    if (!TrySend(bytes)) throw std::runtime_error("send failed");
  }
  // Sends all of `bytes`; false when the connection failed first (closed by the server).
  bool TrySend(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }
  // Reads until `count` bytes arrived or nothing came for `quiet_ms`.
  std::string Receive(size_t count, int quiet_ms = 2000) {
    std::string out;
    while (out.size() < count) {
      timeval tv{quiet_ms / 1000, (quiet_ms % 1000) * 1000};
      ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
      char buf[4096];
      const ssize_t n = ::recv(fd_, buf, std::min(sizeof buf, count - out.size()), 0);
      if (n <= 0) break;
      out.append(buf, static_cast<size_t>(n));
    }
    return out;
  }

 private:
  int fd_ = -1;
};

// Reads one whole packet by its size field; what came ("" or a part) when no more came in
// time.
inline std::string ReceivePacket(Client& client, int quiet_ms = 2000) {
  std::string head;
  while (head.find('|') == std::string::npos) {
    const std::string c = client.Receive(1, quiet_ms);
    if (c.empty()) return head;
    head += c;
  }
  const size_t size = std::stoul(head.substr(0, head.find('|')));
  return head + client.Receive(size - head.size(), quiet_ms);
}

}  // namespace kalvo::testing
