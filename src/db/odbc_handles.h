// RAII ownership of ODBC handles, the one checking helper that turns a failed ODBC call into
// an OdbcError carrying the driver's diagnostics, and the process-wide ODBC environment.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
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

// The one ODBC environment of the process (ODBC 3 behaviour). The Server owns it and hands
// it to every Database; it must outlive every connection made through it. With `pooling`,
// driver-manager pooling (one pool per driver) is requested before the environment is
// allocated; the driver manager only pools when its odbcinst.ini enables it as well (see
// OdbcPoolingEnabled). Throws OdbcError when the environment cannot be set up.
//
// It also keeps the connection handles of closed connections for reuse: the driver manager
// of Debian 12 (unixODBC 2.3.11) leaks two character-set converters (about 64 KiB) for
// every connection handle it frees, which a server that connects per request cannot
// afford, while a handle that is disconnected and connected again leaks nothing. Not
// thread-safe: all connections are made on one thread.
class OdbcEnvironment {
 public:
  explicit OdbcEnvironment(bool pooling = true);
  OdbcEnvironment(const OdbcEnvironment&) = delete;
  OdbcEnvironment& operator=(const OdbcEnvironment&) = delete;
  SQLHENV get() const { return env_.get(); }

  // A connection handle (not connected) from the spare ones, or a new one; throws
  // OdbcError when none can be allocated.
  DbcHandle AcquireConnectionHandle();
  // Disconnects `dbc` and keeps it for the next AcquireConnectionHandle (a few are kept;
  // more are freed). Never throws.
  void ReleaseConnectionHandle(DbcHandle dbc) noexcept;

 private:
  static constexpr size_t kMaxSpareHandles = 8;
  EnvHandle env_;
  // Declared after env_: destroyed (freed) before the environment is.
  std::vector<DbcHandle> spare_;
};

// True when the driver manager's effective configuration turns pooling on: the [ODBC]
// section of odbcinst.ini (in $ODBCSYSINI, else the system directory) says Pooling = Yes
// (or 1/On/True). The file is $ODBCSYSINI/odbcinst.ini (ODBCINSTINI may rename it),
// /etc/odbcinst.ini without those variables; false when nothing is found.
bool OdbcPoolingEnabled();

// The CPTimeout value of the driver entry `driver` in odbcinst.ini, "" when it has none.
// Without one the driver manager does not pool that driver's connections.
std::string OdbcDriverPoolTimeout(std::string_view driver);

}  // namespace kalvo
