#include "db/odbc_handles.h"

#include <odbcinst.h>

#include <algorithm>
#include <cctype>

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

namespace {

std::string ReadOdbcinst(std::string_view section, std::string_view key) {
  char value[256] = {};
  const std::string sec(section);
  const std::string k(key);
  SQLGetPrivateProfileString(sec.c_str(), k.c_str(), "", value, sizeof value, "odbcinst.ini");
  return value;
}

}  // namespace

bool OdbcPoolingEnabled() {
  std::string value = ReadOdbcinst("ODBC", "Pooling");
  std::transform(value.begin(), value.end(), value.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return value == "yes" || value == "1" || value == "on" || value == "true";
}

std::string OdbcDriverPoolTimeout(std::string_view driver) {
  return ReadOdbcinst(driver, "CPTimeout");
}

}  // namespace kalvo
