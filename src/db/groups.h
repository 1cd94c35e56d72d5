// Groups and their members: a group carries ability bits, and a token's rights are the union
// of the bits of its groups. Administrators read and replace all groups at once. The result
// texts are passed on unchanged as packet text; their delimiters are part of the protocol.
//
// Operations that take a Database connect themselves and behave as RunOperation describes;
// those that take a DbConnection use the caller's. `database` must outlive the call.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "db/connection.h"

namespace kalvo {

// Every group as guid|name|description|abilities|members, groups separated by CRLF, where
// members are "token guid,person" entries separated by "$" (the last "|" stays when a group
// has none). "" when there is no group.
std::string DBGetGroupData(Database& database);

// Replaces every group and every membership with those of `data` (the format of
// DBGetGroupData; a member entry longer than 36 characters counts by its first 36). Names
// and descriptions are stored as bound values, so any text survives there. Afterwards, action
// members that are neither a token nor a group any more are removed. Nothing is rolled back:
// a failure leaves the groups deleted up to it. True when it went through to the end.
bool DBSetGroupData(Database& database, std::string_view data);

// The choice list of action members: "name$guid" of every group joined by "|", CRLF, then
// "person$guid" of every token joined by "|" (either part "" when its table is empty).
std::string DBGetAllMemberGUIDs(Database& database);

// Tells a group from a token: when `member_guid` names a group, `tokens` receives the GUIDs of
// its tokens and the result is true; otherwise (a token, or a failed lookup) `tokens` is left
// empty and the result is false.
bool DBGetGroupMembers(DbConnection& connection, std::vector<std::string>& tokens,
                       std::string_view member_guid);

}  // namespace kalvo
