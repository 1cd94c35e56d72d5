// The consoles' view of the client audit log: a filtered query, and clearing it.
#pragma once

#include "requests/request.h"

namespace kalvo {

// 329: Misc1 the action mask, Misc2 the text filters, Misc3 the time filters. Answered
// without the "Daten gesendet" line: Data the entries, Misc3 the number of all entries.
void QueryAudit(Request& r);
// 330: deletes every entry, then answers as 329 (unfiltered) with Misc1 "Delete=OK" or
// "Delete=ERROR".
void ClearAudit(Request& r);

}  // namespace kalvo
