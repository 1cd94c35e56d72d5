// Changing the groups from the command line: the server replaces all groups at once (302), so
// every change is the current list (301) with one group added, removed or changed, written back
// whole. Pure: no sockets, no output. Texts are Windows-1252.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kalvoctl/token_views.h"

namespace kalvo::ctl {

inline constexpr int32_t kSetGroupsRequest = 302;     // answered as 302: "OK" or "ERROR"
inline constexpr int32_t kSetTokenDataRequest = 310;  // answered by the 401 broadcast

// True when `text` can travel as a group's name or description, or a token's person or
// description: no "|" (the field separator) and no line break (the group separator).
bool IsGroupText(std::string_view text);

// The 302 Data of `groups`: one group per line (CRLF), "guid|name|description|abilities|"
// followed by the member GUIDs joined by "$" (the server reads only a member's GUID). An
// abilities text that is no number goes as "0".
std::string FormatGroupData(const std::vector<GroupRow>& groups);

// The index of the group whose GUID is `name_or_guid` (any case) or, failing that, whose name
// is exactly `name_or_guid`. Nothing, with why in `error`, when there is none or the name is
// that of several groups.
std::optional<size_t> FindGroup(const std::vector<GroupRow>& groups, std::string_view name_or_guid,
                                std::string& error);

// Adds the tokens `add` to group `group` (those not in it yet) and takes `remove` out.
void ChangeMembers(GroupRow& group, const std::vector<std::string>& add,
                   const std::vector<std::string>& remove);

}  // namespace kalvo::ctl
