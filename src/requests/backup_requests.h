// Token backups: clients store and restore their token's content and list their own
// backups; consoles list and fetch the backups of any token. Clients name no token: theirs is
// the one their connection's 101 registered.
#pragma once

#include "db/backups.h"
#include "requests/request.h"

namespace kalvo {

// The backup maxima as the server holds them.
BackupMaxima BackupMaximaFrom(const Settings& settings);

// 115 (client): Data the backup, Misc2 its type, Misc3 its name. Audited as BACKUP, then
// stored. Answered with Data "OK", "TOOMUCH" when the type holds its maximum, or "Error";
// Misc2 stays.
void StoreClientBackup(Request& r);
// 116 (client): Misc1 the index, Misc2 the type. Audited as RESTORE; Data the backup.
void RestoreClientBackup(Request& r);
// 117 (client): Misc1 the type (4: all). Answered as 308 for the connection's token; a
// connection without a token gets an empty list, never the backups of every token.
void ListClientBackups(Request& r);
// 308: Data the token, Misc1 the type (4: all). Data the backups as name$type$index lines,
// Misc1 as asked, Misc2 1 or 0: whether the token has a certificate.
void ListTokenBackups(Request& r);
// 309: Data the token, Misc1 the index, Misc2 the type. The only reply with Reserved 1:
// Data the backup, Misc1 its time stamp, Misc2 the token.
void FetchTokenBackup(Request& r);
// 315: every token's backups as guid$name$type$index$person lines.
void ListAllBackups(Request& r);

}  // namespace kalvo
