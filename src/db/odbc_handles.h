// RAII ownership of ODBC handles, the one checking helper that turns a failed ODBC call into
// an OdbcError carrying the driver's diagnostics, and the process-wide ODBC environment.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kalvo {

// A failed ODBC call: the native error code of the driver, the five-character SQLSTATE and
// the diagnostic message of the first diagnostic record. `what()` is the message.
class OdbcError : public std::runtime_error {
 public:
  OdbcError(int32_t native_code, std::string sql_state, const std::string& message)
      : std::runtime_error(message), native_code_(native_code), sql_state_(std::move(sql_state)) {}
  int32_t native_code() const { return native_code_; }
  const std::string& sql_state() const { return sql_state_; }

 private:
  int32_t native_code_;
  std::string sql_state_;
};

// True for SQL_SUCCESS and SQL_SUCCESS_WITH_INFO.
inline bool OdbcSucceeded(SQLRETURN rc) { return rc == SQL_SUCCESS || rc == SQL_SUCCESS_WITH_INFO; }

// True for a SQLSTATE that says the connection itself failed rather than the statement: class
// 08 (connection exception), HYT00/HYT01 (time limit reached) and PostgreSQL's 57P01-57P03
// (the server is shutting down or starting). A connection that failed so is not used again.
bool IsCommunicationFailure(std::string_view sql_state);

// Builds the error of the first diagnostic record of `handle` (of ODBC type `type`). When
// the handle holds no record, the error says which call (`context`) failed with which code.
OdbcError MakeOdbcError(SQLSMALLINT type, SQLHANDLE handle, std::string_view context, SQLRETURN rc);

// Throws MakeOdbcError(...) unless `rc` is a success. `context` names the ODBC call.
void CheckOdbc(SQLRETURN rc, SQLSMALLINT type, SQLHANDLE handle, std::string_view context);

// Owns one ODBC handle of type `Type` and frees it on destruction (never throws). Movable,
// not copyable. A connection handle that is still connected is disconnected before it is
// freed, so that a pooled connection goes back to the pool.
template <SQLSMALLINT Type>
class OdbcHandle {
 public:
  OdbcHandle() = default;
  explicit OdbcHandle(SQLHANDLE handle) : handle_(handle) {}
  ~OdbcHandle() { Reset(); }
  OdbcHandle(OdbcHandle&& other) noexcept : handle_(other.Release()) {}
  OdbcHandle& operator=(OdbcHandle&& other) noexcept {
    if (this != &other) {
      Reset();
      handle_ = other.Release();
    }
    return *this;
  }
  OdbcHandle(const OdbcHandle&) = delete;
  OdbcHandle& operator=(const OdbcHandle&) = delete;

  SQLHANDLE get() const { return handle_; }
  explicit operator bool() const { return handle_ != SQL_NULL_HANDLE; }
  SQLHANDLE Release() noexcept {
    SQLHANDLE h = handle_;
    handle_ = SQL_NULL_HANDLE;
    return h;
  }
  void Reset() noexcept {
    if (handle_ == SQL_NULL_HANDLE) return;
    if constexpr (Type == SQL_HANDLE_DBC) SQLDisconnect(handle_);
    SQLFreeHandle(Type, handle_);
    handle_ = SQL_NULL_HANDLE;
  }

 private:
  SQLHANDLE handle_ = SQL_NULL_HANDLE;
};

using EnvHandle = OdbcHandle<SQL_HANDLE_ENV>;
using DbcHandle = OdbcHandle<SQL_HANDLE_DBC>;
using StmtHandle = OdbcHandle<SQL_HANDLE_STMT>;

// Allocates a handle of type `Type` under `parent` (of type `parent_type`); throws OdbcError.
template <SQLSMALLINT Type>
OdbcHandle<Type> AllocateHandle(SQLSMALLINT parent_type, SQLHANDLE parent) {
  SQLHANDLE h = SQL_NULL_HANDLE;
  CheckOdbc(SQLAllocHandle(Type, parent, &h), parent_type, parent, "SQLAllocHandle");
  return OdbcHandle<Type>(h);
}

// Cuts off a database server that stops answering. The drivers' own time limits do not cover
// every hang: PostgreSQL's driver has the server apply the query limit (a stopped server never
// does), and a stopped server's kernel still accepts the request, so no client-side socket
// limit fires either. A watcher thread therefore shuts down every socket to a database server
// once an armed call has overrun its limit; the blocked call sees the connection end and
// fails at once. All connections to that server are cut, idle pooled ones included: they lead
// to the same server, and each would otherwise hold up a later operation just as long.
//
// Database servers are learnt from the TCP sockets a connect opens (NoteNewSockets), once for
// the whole process (the driver manager's pool is the process's), so sockets of other peers
// (the server's own clients) are never touched: a socket whose local port is one the server
// listens on (SetServerPorts) was accepted meanwhile by another thread and is no database's.
// A database reached through a Unix socket is not watched. Calls may
// be armed from several threads at once; the watcher thread starts with the first Arm and
// ends with the object.
class StallGuard {
 public:
  // The process's open sockets (their inodes), taken before a connect to learn which sockets
  // it opened. Sockets are found through /proc (the descriptors' links and the kernel's TCP
  // table), never by calls on the descriptors themselves, which other threads open and
  // close meanwhile.
  struct FdWindow {
    std::vector<uint64_t> sockets;  // ascending
  };

  StallGuard() = default;
  ~StallGuard();
  StallGuard(const StallGuard&) = delete;
  StallGuard& operator=(const StallGuard&) = delete;

  static FdWindow Snapshot();
  // Remembers the peers of the sockets opened since `before` as database servers.
  void NoteNewSockets(const FdWindow& before);
  // The local ports the server listens on: sockets on them are its own peers.
  void SetServerPorts(std::vector<uint16_t> ports);
  // Starts the clock for one call that may take `limit`; gives the ticket for Disarm.
  uint64_t Arm(std::chrono::milliseconds limit);
  // Stops the clock of `ticket`; true when a limit passed and the sockets were cut meanwhile.
  bool Disarm(uint64_t ticket);

 private:
  struct Armed {
    std::chrono::steady_clock::time_point deadline;
    bool fired = false;
  };
  void Watch();
  void CutDatabaseSockets();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::map<uint64_t, Armed> armed_;  // by ticket
  uint64_t last_ticket_ = 0;
  std::vector<uint16_t> server_ports_;
  bool stop_ = false;
  std::thread watcher_;  // last: started after, joined before the rest goes
};

// The one ODBC environment of the process (ODBC 3 behaviour). The Server owns it and hands
// it to every Database; it must outlive every connection made through it. With `pooling`,
// driver-manager pooling (one pool per driver) is requested before the environment is
// allocated; the driver manager only pools when its odbcinst.ini enables it as well (see
// OdbcPoolingEnabled). Throws OdbcError when the environment cannot be set up.
//
// It keeps the connections of finished operations open for the next operation with the same
// data source, user and password (KeepOpen / TakeOpen), so that an operation's connect costs
// no round trip and no handle is freed per operation: the driver manager of Debian 12
// (unixODBC 2.3.11) leaks two character-set converters (about 64 KiB) for every connection
// handle it frees. A connection that failed is taken out of use for good (Discard). Because
// healthy connections are kept here rather than handed back to the driver manager's pool, a
// connect with a new physical connection (after one proved dead) really is new: the driver
// manager hands out pooled connections without trying them. Thread-safe: the database workers
// connect and close at the same time.
class OdbcEnvironment {
 public:
  explicit OdbcEnvironment(bool pooling = true);
  // Closes the connections it keeps open as a connection's close does, then frees the handles.
  ~OdbcEnvironment();
  OdbcEnvironment(const OdbcEnvironment&) = delete;
  OdbcEnvironment& operator=(const OdbcEnvironment&) = delete;
  SQLHENV get() const { return env_.get(); }

  // A connection handle (not connected) from the spare ones, or a new one; throws
  // OdbcError when none can be allocated.
  DbcHandle AcquireConnectionHandle();
  // Disconnects `dbc` and keeps the handle for the next AcquireConnectionHandle (a few are
  // kept; more are freed). Never throws.
  void ReleaseConnectionHandle(DbcHandle dbc) noexcept;
  // Keeps `dbc`, connected with the data source, user and password that `key` stands for
  // (see ConnectionKey), for the next TakeOpen of the same key. A few are kept; past that,
  // and for other keys than the newest, the oldest is disconnected. Never throws.
  void KeepOpen(std::string key, DbcHandle dbc) noexcept;
  // The most recently kept connection of `key`, or an empty handle when there is none.
  DbcHandle TakeOpen(std::string_view key);
  // Takes `dbc`, whose connection failed (a communication failure or a time limit), out of
  // use for good. It is kept connected rather than disconnected: the driver manager takes every
  // disconnected connection back into its pool and hands it out again unless the driver calls
  // it dead (SQL_ATTR_CONNECTION_DEAD), and PostgreSQL's driver does not after a failed send.
  // A few are kept so (a server restart kills about as many as the pool holds); past that
  // they are freed. Never throws.
  void DiscardConnectionHandle(DbcHandle dbc) noexcept;
  // Discards every kept connection of `key`: one of them failed, and the others lead to the
  // same server. Never throws.
  void DiscardOpen(std::string_view key) noexcept;
  // Connections kept open (for tests).
  size_t open_count() const { return open_.size(); }

  // The guard against database servers that stop answering; lives as long as this object.
  StallGuard& stall_guard() { return stall_guard_; }

 private:
  struct OpenConnection {
    std::string key;
    DbcHandle dbc;
  };
  static constexpr size_t kMaxSpareHandles = 8;
  static constexpr size_t kMaxOpen = 8;
  static constexpr size_t kMaxDiscarded = 32;
  EnvHandle env_;
  std::mutex mutex_;  // guards the three lists
  // Declared after env_: destroyed (freed) before the environment is.
  std::vector<DbcHandle> spare_;
  std::vector<OpenConnection> open_;  // oldest first
  std::vector<DbcHandle> discarded_;  // failed connections, still connected (see above)
  StallGuard stall_guard_;
};

// The text that identifies a data source, user and password among kept connections.
std::string ConnectionKey(std::string_view dsn, std::string_view user, std::string_view password);

// True when the driver manager's effective configuration turns pooling on: the [ODBC]
// section of odbcinst.ini (in $ODBCSYSINI, else the system directory) says Pooling = Yes
// (or 1/On/True). The file is $ODBCSYSINI/odbcinst.ini (ODBCINSTINI may rename it),
// /etc/odbcinst.ini without those variables; false when nothing is found.
bool OdbcPoolingEnabled();

}  // namespace kalvo
