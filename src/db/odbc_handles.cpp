#include "db/odbc_handles.h"

#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "infra/ini_file.h"

namespace kalvo {

OdbcError MakeOdbcError(SQLSMALLINT type, SQLHANDLE handle, std::string_view context,
                        SQLRETURN rc) {
  SQLCHAR state[SQL_SQLSTATE_SIZE + 1] = {};
  SQLINTEGER native = 0;
  SQLCHAR message[SQL_MAX_MESSAGE_LENGTH + 1] = {};
  SQLSMALLINT length = 0;
  if (handle != SQL_NULL_HANDLE &&
      OdbcSucceeded(SQLGetDiagRec(type, handle, 1, state, &native, message,
                                  static_cast<SQLSMALLINT>(sizeof message), &length))) {
    return OdbcError(native, reinterpret_cast<const char*>(state),
                     reinterpret_cast<const char*>(message));
  }
  return OdbcError(rc, "HY000", std::string(context) + " failed with code " + std::to_string(rc));
}

bool IsCommunicationFailure(std::string_view sql_state) {
  return sql_state.starts_with("08") || sql_state == "HYT00" || sql_state == "HYT01" ||
         sql_state == "57P01" || sql_state == "57P02" || sql_state == "57P03";
}

void CheckOdbc(SQLRETURN rc, SQLSMALLINT type, SQLHANDLE handle, std::string_view context) {
  if (!OdbcSucceeded(rc)) throw MakeOdbcError(type, handle, context, rc);
}

OdbcEnvironment::OdbcEnvironment(bool pooling) {
  // Pooling is a process attribute: it must be set on the null handle before the
  // environment exists.
  SQLSetEnvAttr(SQL_NULL_HENV, SQL_ATTR_CONNECTION_POOLING,
                reinterpret_cast<SQLPOINTER>(pooling ? SQL_CP_ONE_PER_DRIVER : SQL_CP_OFF),
                SQL_IS_UINTEGER);
  env_ = AllocateHandle<SQL_HANDLE_ENV>(SQL_HANDLE_ENV, SQL_NULL_HANDLE);
  CheckOdbc(SQLSetEnvAttr(env_.get(), SQL_ATTR_ODBC_VERSION,
                          reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0),
            SQL_HANDLE_ENV, env_.get(), "SQLSetEnvAttr");
  if (pooling) {
    SQLSetEnvAttr(env_.get(), SQL_ATTR_CP_MATCH, reinterpret_cast<SQLPOINTER>(SQL_CP_STRICT_MATCH),
                  SQL_IS_UINTEGER);
  }
}

OdbcEnvironment::~OdbcEnvironment() {
  std::vector<OpenConnection> open = std::move(open_);
  open_.clear();
  for (OpenConnection& c : open) ReleaseConnectionHandle(std::move(c.dbc));
  spare_.clear();
}

DbcHandle OdbcEnvironment::AcquireConnectionHandle() {
  std::lock_guard lock(mutex_);
  if (!spare_.empty()) {
    DbcHandle dbc = std::move(spare_.back());
    spare_.pop_back();
    return dbc;
  }
  return AllocateHandle<SQL_HANDLE_DBC>(SQL_HANDLE_ENV, env_.get());
}

void OdbcEnvironment::ReleaseConnectionHandle(DbcHandle dbc) noexcept {
  if (!dbc) return;
  SQLDisconnect(dbc.get());
  std::lock_guard lock(mutex_);
  if (spare_.size() < kMaxSpareHandles) {
    try {
      spare_.push_back(std::move(dbc));
    } catch (...) {
      // Out of memory: the handle is freed instead when `dbc` goes.
    }
  }
}

void OdbcEnvironment::DiscardConnectionHandle(DbcHandle dbc) noexcept {
  std::lock_guard lock(mutex_);
  if (!dbc || discarded_.size() >= kMaxDiscarded) return;  // `dbc` is freed as it goes
  try {
    discarded_.push_back(std::move(dbc));
  } catch (...) {
    // Out of memory: freed instead.
  }
}

void OdbcEnvironment::KeepOpen(std::string key, DbcHandle dbc) noexcept {
  if (!dbc) return;
  std::vector<OpenConnection> leaving;
  {
    std::lock_guard lock(mutex_);
    try {
      // A connection of another key than the newest is not taken again soon: the settings
      // changed, or it served a one-off test of another data source.
      for (auto it = open_.begin(); it != open_.end();) {
        if (it->key != key || (open_.size() >= kMaxOpen && it == open_.begin())) {
          leaving.push_back(std::move(*it));
          it = open_.erase(it);
        } else {
          ++it;
        }
      }
      open_.push_back(OpenConnection{std::move(key), std::move(dbc)});
    } catch (...) {
      // Out of memory: `dbc` is disconnected and freed as it goes.
    }
  }
  // Closed after the lock is given back (a disconnect may wait for the database), their handles
  // kept for reuse rather than freed (see above).
  for (OpenConnection& c : leaving) ReleaseConnectionHandle(std::move(c.dbc));
}

DbcHandle OdbcEnvironment::TakeOpen(std::string_view key) {
  std::lock_guard lock(mutex_);
  for (auto it = open_.rbegin(); it != open_.rend(); ++it) {
    if (it->key != key) continue;
    DbcHandle dbc = std::move(it->dbc);
    open_.erase(std::next(it).base());
    return dbc;
  }
  return DbcHandle();
}

void OdbcEnvironment::DiscardOpen(std::string_view key) noexcept {
  std::vector<DbcHandle> failed;
  {
    std::lock_guard lock(mutex_);
    for (auto it = open_.begin(); it != open_.end();) {
      if (it->key == key) {
        try {
          failed.push_back(std::move(it->dbc));
        } catch (...) {
          // Out of memory: this one is freed as it goes.
        }
        it = open_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (DbcHandle& dbc : failed) DiscardConnectionHandle(std::move(dbc));
}

std::string ConnectionKey(std::string_view dsn, std::string_view user, std::string_view password) {
  std::string key;
  key.reserve(dsn.size() + user.size() + password.size() + 2);
  key.append(dsn).append(1, '\0').append(user).append(1, '\0').append(password);
  return key;
}

namespace {

// The inode of the socket behind descriptor link `link` ("socket:[12345]"); 0 for another file.
uint64_t SocketInode(const std::filesystem::path& link) {
  std::error_code ec;
  const std::string target = std::filesystem::read_symlink(link, ec).string();
  if (ec || !target.starts_with("socket:[") || !target.ends_with("]")) return 0;
  return std::strtoull(target.c_str() + 8, nullptr, 10);
}

// Every open descriptor of the process that is a socket, with its inode.
std::vector<std::pair<int, uint64_t>> OpenSockets() {
  std::vector<std::pair<int, uint64_t>> sockets;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
    const std::string name = entry.path().filename().string();
    if (name.empty() || !std::all_of(name.begin(), name.end(),
                                     [](unsigned char c) { return std::isdigit(c) != 0; })) {
      continue;
    }
    if (const uint64_t inode = SocketInode(entry.path())) {
      sockets.emplace_back(std::stoi(name), inode);
    }
  }
  return sockets;
}

// A TCP socket as the kernel's table shows it: its local port and its remote end (address and
// port in the table's own hexadecimal form, which is what identifies a database server here).
struct TcpSocket {
  uint16_t local_port = 0;
  std::string remote;
};

// The TCP sockets of the machine (IPv4 and IPv6) by inode.
std::map<uint64_t, TcpSocket> TcpSockets() {
  std::map<uint64_t, TcpSocket> sockets;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // the heading
    while (std::getline(in, line)) {
      // "sl local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout
      // inode ..."
      std::istringstream fields(line);
      std::string sl, local, remote, state, queues, timer, retransmits, uid, timeout;
      uint64_t inode = 0;
      if (!(fields >> sl >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
            timeout >> inode) ||
          inode == 0) {
        continue;
      }
      const size_t colon = local.rfind(':');
      TcpSocket& s = sockets[inode];
      s.local_port =
          colon == std::string::npos
              ? 0
              : static_cast<uint16_t>(std::strtoul(local.c_str() + colon + 1, nullptr, 16));
      s.remote = remote;
    }
  }
  return sockets;
}

// The database servers learnt from connects. Shared by every guard of the process: the
// driver manager's pool is the process's, so a connection one environment opened may serve
// another.
struct DatabasePeers {
  std::mutex mutex;
  std::vector<std::string> peers;  // socket addresses, as bytes
};

DatabasePeers& KnownPeers() {
  static DatabasePeers known;
  return known;
}

}  // namespace

StallGuard::~StallGuard() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (watcher_.joinable()) watcher_.join();
}

StallGuard::FdWindow StallGuard::Snapshot() {
  FdWindow window;
  for (const auto& [fd, inode] : OpenSockets()) window.sockets.push_back(inode);
  std::sort(window.sockets.begin(), window.sockets.end());
  return window;
}

void StallGuard::NoteNewSockets(const FdWindow& before) {
  std::vector<uint16_t> server_ports;
  {
    std::lock_guard lock(mutex_);
    server_ports = server_ports_;
  }
  std::map<uint64_t, TcpSocket> tcp;
  for (const auto& [fd, inode] : OpenSockets()) {
    if (std::binary_search(before.sockets.begin(), before.sockets.end(), inode)) continue;
    if (tcp.empty()) tcp = TcpSockets();
    const auto found = tcp.find(inode);
    if (found == tcp.end()) continue;
    if (std::find(server_ports.begin(), server_ports.end(), found->second.local_port) !=
        server_ports.end()) {
      continue;  // a peer the server accepted meanwhile
    }
    DatabasePeers& known = KnownPeers();
    std::lock_guard lock(known.mutex);
    if (std::find(known.peers.begin(), known.peers.end(), found->second.remote) ==
        known.peers.end()) {
      known.peers.push_back(found->second.remote);
    }
  }
}

void StallGuard::SetServerPorts(std::vector<uint16_t> ports) {
  std::lock_guard lock(mutex_);
  server_ports_ = std::move(ports);
}

uint64_t StallGuard::Arm(std::chrono::milliseconds limit) {
  bool wake = false;
  uint64_t ticket = 0;
  {
    std::lock_guard lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    // The watcher waits for the earliest deadline; only one earlier than that needs it awake.
    wake = std::none_of(armed_.begin(), armed_.end(), [&](const auto& a) {
      return !a.second.fired && a.second.deadline <= deadline;
    });
    ticket = ++last_ticket_;
    armed_.emplace(ticket, Armed{deadline, false});
    if (!watcher_.joinable()) watcher_ = std::thread([this] { Watch(); });
  }
  if (wake) wake_.notify_all();
  return ticket;
}

bool StallGuard::Disarm(uint64_t ticket) {
  std::lock_guard lock(mutex_);
  const auto it = armed_.find(ticket);
  if (it == armed_.end()) return false;
  const bool fired = it->second.fired;
  armed_.erase(it);
  return fired;
}

void StallGuard::Watch() {
  std::unique_lock lock(mutex_);
  while (!stop_) {
    std::optional<std::chrono::steady_clock::time_point> earliest;
    for (const auto& [ticket, armed] : armed_) {
      if (!armed.fired && (!earliest || armed.deadline < *earliest)) earliest = armed.deadline;
    }
    if (!earliest) {
      wake_.wait(lock);
    } else if (wake_.wait_until(lock, *earliest) == std::cv_status::timeout &&
               std::chrono::steady_clock::now() >= *earliest) {
      // Every armed call loses its connection with the cut, so each learns of it.
      for (auto& [ticket, armed] : armed_) armed.fired = true;
      CutDatabaseSockets();
    }
  }
}

void StallGuard::CutDatabaseSockets() {
  DatabasePeers& known = KnownPeers();
  std::lock_guard lock(known.mutex);
  if (known.peers.empty()) return;
  const std::map<uint64_t, TcpSocket> tcp = TcpSockets();
  for (const auto& [fd, inode] : OpenSockets()) {
    const auto found = tcp.find(inode);
    if (found != tcp.end() && std::find(known.peers.begin(), known.peers.end(),
                                        found->second.remote) != known.peers.end()) {
      ::shutdown(fd, SHUT_RDWR);
    }
  }
}

namespace {

// The odbcinst.ini the driver manager reads: $ODBCSYSINI (else /etc) joined with
// $ODBCINSTINI (else "odbcinst.ini"), or $ODBCINSTINI alone when it is an absolute path.
std::string OdbcinstPath() {
  const char* sys = std::getenv("ODBCSYSINI");
  const char* inst = std::getenv("ODBCINSTINI");
  const std::string file = inst != nullptr && *inst != '\0' ? inst : "odbcinst.ini";
  if (file.front() == '/') return file;
  return std::string(sys != nullptr && *sys != '\0' ? sys : "/etc") + "/" + file;
}

}  // namespace

bool OdbcPoolingEnabled() {
  std::string value = ReadIniText(OdbcinstPath(), "ODBC", "Pooling");
  std::transform(value.begin(), value.end(), value.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return value == "yes" || value == "1" || value == "on" || value == "true";
}

}  // namespace kalvo
