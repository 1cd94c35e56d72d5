#include "db/odbc_handles.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>

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

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string Trim(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
    text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
    text.remove_suffix(1);
  return std::string(text);
}

// The odbcinst.ini the driver manager reads: $ODBCSYSINI (else /etc) joined with
// $ODBCINSTINI (else "odbcinst.ini"), or $ODBCINSTINI alone when it is an absolute path.
std::string OdbcinstPath() {
  const char* sys = std::getenv("ODBCSYSINI");
  const char* inst = std::getenv("ODBCINSTINI");
  const std::string file = inst != nullptr && *inst != '\0' ? inst : "odbcinst.ini";
  if (file.front() == '/') return file;
  return std::string(sys != nullptr && *sys != '\0' ? sys : "/etc") + "/" + file;
}

// The value of `key` in `section` of odbcinst.ini, names compared case-insensitively.
std::string ReadOdbcinst(std::string_view section, std::string_view key) {
  std::ifstream in(OdbcinstPath());
  const std::string want_section = Lower(std::string(section));
  const std::string want_key = Lower(std::string(key));
  std::string line, current;
  while (std::getline(in, line)) {
    const std::string t = Trim(line);
    if (t.empty() || t.front() == '#' || t.front() == ';') continue;
    if (t.front() == '[') {
      current = Lower(Trim(t.substr(1, t.find(']') - 1)));
      continue;
    }
    const size_t eq = t.find('=');
    if (current == want_section && eq != std::string::npos &&
        Lower(Trim(t.substr(0, eq))) == want_key) {
      return Trim(t.substr(eq + 1));
    }
  }
  return "";
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
