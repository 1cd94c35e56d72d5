#include "db/odbc_handles.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

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

DbcHandle OdbcEnvironment::AcquireConnectionHandle() {
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
  if (spare_.size() < kMaxSpareHandles) {
    try {
      spare_.push_back(std::move(dbc));
    } catch (...) {
      // Out of memory: the handle is freed instead when `dbc` goes.
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

std::string OdbcDriverPoolTimeout(std::string_view driver) {
  return ReadIniText(OdbcinstPath(), driver, "CPTimeout");
}

}  // namespace kalvo
