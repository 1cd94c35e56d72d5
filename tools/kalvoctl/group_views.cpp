#include "kalvoctl/group_views.h"

#include <algorithm>

#include "infra/numbers.h"
#include "infra/strings.h"

namespace kalvo::ctl {

bool IsGroupText(std::string_view text) { return text.find_first_of("|\r\n") == std::string::npos; }

std::string FormatGroupData(const std::vector<GroupRow>& groups) {
  std::string out;
  for (const GroupRow& g : groups) {
    if (!out.empty()) out += "\r\n";
    const auto abilities = WholeNumberText(g.abilities);
    out += g.guid + "|" + g.name + "|" + g.description + "|" +
           std::to_string(abilities.value_or(0)) + "|";
    for (size_t i = 0; i < g.members.size(); ++i) {
      if (i > 0) out += "$";
      out += g.members[i].guid;
    }
  }
  return out;
}

std::optional<size_t> FindGroup(const std::vector<GroupRow>& groups, std::string_view name_or_guid,
                                std::string& error) {
  for (size_t i = 0; i < groups.size(); ++i) {
    if (EqualsNoCase(groups[i].guid, name_or_guid)) return i;
  }
  std::optional<size_t> found;
  for (size_t i = 0; i < groups.size(); ++i) {
    if (groups[i].name != name_or_guid) continue;
    if (found) {
      error = "several groups are named \"" + std::string(name_or_guid) + "\": name it by its GUID";
      return std::nullopt;
    }
    found = i;
  }
  if (!found) error = "no group is named \"" + std::string(name_or_guid) + "\"";
  return found;
}

void ChangeMembers(GroupRow& group, const std::vector<std::string>& add,
                   const std::vector<std::string>& remove) {
  auto& members = group.members;
  for (const std::string& guid : remove) {
    std::erase_if(members, [&](const GroupMember& m) { return EqualsNoCase(m.guid, guid); });
  }
  for (const std::string& guid : add) {
    const bool in = std::any_of(members.begin(), members.end(),
                                [&](const GroupMember& m) { return EqualsNoCase(m.guid, guid); });
    if (!in) members.push_back({guid, ""});
  }
}

}  // namespace kalvo::ctl
