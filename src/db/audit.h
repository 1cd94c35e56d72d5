// The client audit log: what token clients did (connect, execute, back up, restore, remove,
// disconnect, fail), kept within the configured limits and queried by the consoles with
// filters. `database` must outlive every call.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "db/connection.h"

namespace kalvo {

// Audit action codes and their filter bits in queries (deliberately not in code order).
enum class AuditAction : int32_t {
  kConnect = 1,     // "CONNECT", bit 1
  kExecute = 2,     // "EXECUTE", bit 16
  kBackup = 3,      // "BACKUP", bit 4
  kRestore = 4,     // "RESTORE", bit 8
  kRemove = 5,      // "REMOVE", bit 2
  kDisconnect = 6,  // "DISCONNECT", bit 32
  kError = 7,       // "ERROR", bit 64
};

// The text stored for an action code; "UNKNOWN" for any other code.
std::string_view AuditActionText(int32_t code);

// The audit settings: whether entries are written, and how the table is trimmed before each.
struct AuditSettings {
  bool is_active = false;
  bool is_limited = false;        // trim before each new entry
  bool is_save_max_count = true;  // trim by count, else by age
  int32_t save_max_count = 1000;
  bool is_save_max_days = false;  // stored, but the trimming does not look at it
  int32_t save_max_days = 365;
};

// Writes one entry when auditing is active, trimming the table first when it is limited.
// `identity` is the connection's tag: token GUID, NUL, user DN, NUL, user name (missing fields
// are empty). A failed trim, connect or insert is only logged. Never throws.
void DBLogClientAction(Database& database, const AuditSettings& settings, std::string_view identity,
                       AuditAction action, std::string_view ip, std::string_view action_guid);

// Deletes every entry (`all`), or all but the newest `count` - 1 time stamps (`by_count`, so
// that the entry about to be written makes `count`; entries sharing a time stamp go or stay
// together), or else those older than midnight `days` days ago, whatever `by_days` says.
// "OK" when the statement ran, else "ERROR".
std::string DBDeleteLoggingInformation(Database& database, bool all, bool by_count, int32_t count,
                                       bool by_days, int32_t days);

// The filters of an audit query. `mask` selects actions by their filter bits (0 and 127: all);
// `text_filters` holds the person, user name, token GUID and IP patterns separated by CRLF
// ("*" and "?" wildcards); `time_filters` the exclusive bounds from and to, separated by CRLF.
// "*", an empty line or a missing line means no filter.
struct AuditQuery {
  int32_t mask = 0;
  std::string text_filters;
  std::string time_filters;
};

// The newest entries (at most `max_rows`) of tokens that still exist that match `query`, as
// token guid|person|user name|action|time stamp|ip|user DN, entries separated by CRLF, newest
// first. `total` receives the number of all entries of the table as text. "" (and `total`
// untouched) when the database cannot be reached.
std::string DBGetLoggingInformation(Database& database, int32_t max_rows, const AuditQuery& query,
                                    std::string& total);

}  // namespace kalvo
