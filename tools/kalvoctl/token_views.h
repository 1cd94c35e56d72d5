// The administrator's views of tokens, groups, rights and the audit log: building the requests
// from command-line values, reading the server's answers, and showing them as tables for
// people or as JSON for programs. Pure: no sockets, no output. Packet texts are Windows-1252;
// every Format* function gives UTF-8 ending in "\n".
//
// Reading never fails. The server joins free texts (persons, descriptions, names) with
// separators it does not escape, so every list is read defensively:
// - a record starts with a GUID followed by its field separator; a piece that does not is the
//   rest of the record before it, whose text held the record separator;
// - a record with too few fields gets empty ones; one with too many gives the excess to its
//   free-text field named below, so the fields before and after it stay in place.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "net/packet.h"

namespace kalvo::ctl {

// ---- Requests

// The requests behind the views; each is answered with a packet of the same PackageID.
inline constexpr int32_t kTokenListRequest = 401;  // with Misc1 "UPDATE": list, no own token
inline constexpr int32_t kGroupListRequest = 301;
inline constexpr int32_t kTokenRightsRequest = 307;
inline constexpr int32_t kDeleteTokensRequest = 328;
inline constexpr int32_t kAuditRequest = 329;

// The audit filter mask for action `names` (case-insensitive; CONNECT 1, REMOVE 2, BACKUP 4,
// RESTORE 8, EXECUTE 16, DISCONNECT 32, ERROR 64), 0 for no names. Gives nothing, with the
// first name that is no action in `unknown`, when a name (also "") is not one of these.
std::optional<int32_t> AuditActionMask(const std::vector<std::string>& names, std::string& unknown);

// "CONNECT, REMOVE, BACKUP, RESTORE, EXECUTE, DISCONNECT, ERROR", for messages.
std::string AuditActionList();

// True when `pattern` can travel as one line of the audit filters: no "|", CR or LF.
bool IsFilterText(std::string_view pattern);

// `text` (any form ParseDateText reads) as the timestamp text "yyyy-mm-dd-hh-mm-ss"; "" gives
// "*" (no bound). Gives nothing when the text cannot be read as a date.
std::optional<std::string> AuditTimeBound(std::string_view text);

// What an audit query asks for. Texts are Windows-1252; "" means no filter.
struct AuditFilter {
  int32_t action_mask = 0;              // 0: every action
  std::string person, user, token, ip;  // patterns with "*" and "?"; must pass IsFilterText
  std::string from, to;                 // timestamp texts (see AuditTimeBound); both exclusive
};

// The 329 request: Misc1 the mask, Misc2 person, user, token, IP joined by CRLF, Misc3 from
// and to joined by CRLF, every missing filter as "*".
SocketDataStruct MakeAuditRequest(const AuditFilter& filter);

// ---- Answers

// One row of the token list (401).
struct TokenRow {
  std::string guid, person, description, created, last_used, last_ip, user_dn;
  std::string has_certificate;         // the server's word for yes or no, in its language
  std::vector<std::string> addresses;  // peers of the token's open connections
};

// The token list: rows joined by "|", fields by "$" in the order of TokenRow, addresses
// joined by ",". The free-text field is the person. "" gives no rows.
std::vector<TokenRow> ParseTokenList(std::string_view data);

// The database state text of a 401 answer when the server cannot reach its database.
inline constexpr std::string_view kConnectFailedState = "2";

// "" when the database state text of a 401 answer (its Misc1) says the database is up to
// date ("1"); otherwise a warning naming the state, e.g. "the server's database is not ready:
// state 3 (NoTables)".
std::string DatabaseStateWarning(std::string_view state_text);

struct GroupMember {
  std::string guid, person;
};

// One group of the group list (301).
struct GroupRow {
  std::string guid, name, description;
  std::string abilities;  // a number as the server sent it
  std::vector<GroupMember> members;
};

// The group list: groups joined by CRLF, fields by "|" (guid, name, description, abilities,
// members); members joined by "$", each "token guid,person" split at its first ",". The
// free-text field of a group is its description. "" gives no groups.
std::vector<GroupRow> ParseGroupList(std::string_view data);

struct TokenGroup {
  std::string name, guid;
};

// The groups of a 307 answer: entries joined by "|", each name CRLF guid (the name is
// everything before the last CRLF). "" gives no groups.
std::vector<TokenGroup> ParseTokenGroups(std::string_view data);

// One audit entry (329).
struct AuditRow {
  std::string token_guid, person, user_name, action, timestamp, ip, user_dn;
};

// The audit rows: joined by CRLF, fields by "|" in the order of AuditRow. The free-text field
// is the person. "" gives no rows.
std::vector<AuditRow> ParseAuditRows(std::string_view data);

// ---- Showing

// A timestamp text "yyyy-mm-dd-hh-mm-ss" as "yyyy-mm-dd hh:mm:ss"; any other text unchanged.
std::string TimestampForPeople(std::string_view text);

// Tables list every row; an empty list gives one line saying so. JSON is one document on one
// line: texts as strings, numbers as numbers (null when the server's text is no number).
std::string FormatTokenTable(const std::vector<TokenRow>& rows);
std::string FormatTokenJson(const std::vector<TokenRow>& rows);
std::string FormatGroupTable(const std::vector<GroupRow>& groups);
std::string FormatGroupJson(const std::vector<GroupRow>& groups);
// `rights` is the 307 answer's Misc1.
std::string FormatRightsText(std::string_view rights, const std::vector<TokenGroup>& groups);
std::string FormatRightsJson(std::string_view token_guid, std::string_view rights,
                             const std::vector<TokenGroup>& groups);
// `total` is the 329 answer's Misc3: the number of entries in the audit table. The table ends
// with "N of TOTAL entries shown".
std::string FormatAuditTable(const std::vector<AuditRow>& rows, std::string_view total);
std::string FormatAuditJson(const std::vector<AuditRow>& rows, std::string_view total);

}  // namespace kalvo::ctl
