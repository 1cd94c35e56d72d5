// Backups of a token's content. Each token keeps a numbered series per backup type, index 1
// the newest. A backup is stored in consecutive part rows of at most BLOBMaxSize characters
// each (the part's length in backup_size, its bytes in backup_data), so a text of any length
// and any bytes, NUL and "|" included, reads back exactly as it was stored.
//
// The statements glue a number to the "AND" that follows it ("backup_index = 2AND
// backup_type = 1"); the dialect adaptation adds the blank the engines need when they run,
// the log shows them as built. Every operation connects itself and behaves as RunOperation
// describes. `database` must outlive the call.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "db/database.h"

namespace kalvo {

class Log;

// Backup types; kAllBackupTypes only selects in DBGetTokenBackupNames.
inline constexpr int32_t kAutomaticBackup = 1;
inline constexpr int32_t kAdminBackup = 2;
inline constexpr int32_t kClientBackup = 3;
inline constexpr int32_t kAllBackupTypes = 4;

// How many backups a token keeps per type ("KDX\Backup" Automatic, Admin, Client).
struct BackupMaxima {
  int32_t automatic = 3;
  int32_t admin = 3;
  int32_t client = 3;

  // The maximum of `type`; 0 for a type that has none, so that such a backup is refused.
  int32_t For(int32_t type) const;
};

// The number of parts a text of `length` characters takes with parts of `part_size`: the
// length divided by the part size, rounded up, and 1 for a text that fits one part (also the
// empty text). A negative part size with a longer text gives the same quotient, which is 0 or
// below (no part); a part size of 0 with a longer text is the run-time error "Division by
// zero". Logs "GetDataSplitCount (OK)".
int32_t GetDataSplitCount(Log& log, int64_t length, int32_t part_size);

// The length of part `part` (from 1): `part_size`, or what is left for the last part. Logs
// "GetDataSplitSize (OK)".
int32_t GetDataSplitSize(Log& log, int64_t length, int32_t part_size, int32_t part);

// Cuts `data` into its parts of `part_size` characters (GetDataSplitCount parts of
// GetDataSplitSize characters; the empty text is one empty part) and hands each to `write`
// with its number from 1, in order, working out (and logging) each part's size just before
// its write. Stops at the first write that gives false and gives false; true otherwise, also
// when there is no part at all (a negative part size). Throws the run-time error of
// GetDataSplitCount for a part size of 0.
bool ForEachDataPart(Log& log, std::string_view data, int32_t part_size,
                     const std::function<bool(int32_t part, std::string_view text)>& write);

// Saves `data` as the new index 1 of the token's backups of `type` under `name`. Client and
// administrator backups are refused while the type already holds its maximum of rows (a
// backup of three parts counts three): false with `result` "TOOMUCH". Automatic backups
// rotate: the oldest beyond the maximum goes. Otherwise the indexes beyond the maximum are
// deleted, the others move up by one and the parts are written. True when every part was
// written; `result` stays empty then. There is no transaction: a failure leaves the series
// as far as it got, except that the parts of the new backup written before the failure are
// deleted again, so that a backup never reads back cut.
bool DBSetTokenBackupData(Database& database, const BackupMaxima& maxima, std::string_view guid,
                          int32_t type, std::string_view name, std::string_view data,
                          std::string& result);

// The text of backup `index` (a number as text) of `type`: its parts joined in order. A part
// row that is missing replaces what was read so far by "NOTFOUND"; the later parts are still
// appended. "" when there is no such backup. `backup_time` receives the time stamp of the
// first part found, unless it already holds one.
std::string DBGetTokenBackupData(Database& database, std::string_view guid, std::string_view index,
                                 int32_t type, std::string& backup_time);

// Deletes backup `index` of `type` of the token, then lowers by one the indexes above it of
// that type, of every token (this closes the gap of the token's series and, deliberately,
// shifts the series of all other tokens too). "OK" or "ERROR".
std::string DBDeleteTokenBackupData(Database& database, std::string_view guid,
                                    std::string_view index, int32_t type);

// The backups of a token as lines name$type$index, or with an empty `guid` those of every
// token as guid$name$type$index$person; only `type` unless it is kAllBackupTypes. Lines are
// separated by CRLF; "" when there is none.
std::string DBGetTokenBackupNames(Database& database, std::string_view guid, int32_t type);

}  // namespace kalvo
