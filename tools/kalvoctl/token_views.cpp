#include "kalvoctl/token_views.h"

#include <array>
#include <utility>

#include "infra/arrays.h"
#include "infra/dates.h"
#include "infra/guid.h"
#include "infra/json_text.h"
#include "infra/numbers.h"
#include "infra/strings.h"
#include "infra/text_encoding.h"
#include "kalvoctl/print.h"
#include "kalvoctl/view_support.h"

namespace kalvo::ctl {
namespace {

struct ActionName {
  std::string_view name;
  int32_t bit;
};

// The bits are the server's filter mask, not the order in which it numbers the actions.
constexpr std::array<ActionName, 7> kAuditActions = {{{"CONNECT", 1},
                                                      {"REMOVE", 2},
                                                      {"BACKUP", 4},
                                                      {"RESTORE", 8},
                                                      {"EXECUTE", 16},
                                                      {"DISCONNECT", 32},
                                                      {"ERROR", 64}}};

// Indexed by the database state number; entry 0 names every number the server does not use.
constexpr std::array<std::string_view, 7> kDatabaseStates = {
    "Unknown",      "UpToDate",      "ConnectFailed", "NoTables",
    "TableMissing", "ColumnMissing", "DataMissing"};

bool EndsWithCrlfGuid(std::string_view entry) {
  return entry.size() >= kCrlf.size() + kGuidLength &&
         entry.substr(entry.size() - kGuidLength - kCrlf.size(), kCrlf.size()) == kCrlf &&
         IsGUID(entry.substr(entry.size() - kGuidLength));
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

}  // namespace

std::optional<int32_t> AuditActionMask(const std::vector<std::string>& names,
                                       std::string& unknown) {
  int32_t mask = 0;
  for (const auto& name : names) {
    const std::string_view wanted = Trimmed(name);
    bool known = false;
    for (const auto& action : kAuditActions) {
      if (!wanted.empty() && EqualsNoCase(wanted, action.name)) {
        mask |= action.bit;
        known = true;
      }
    }
    if (!known) {
      unknown = name;
      return std::nullopt;
    }
  }
  return mask;
}

std::string AuditActionList() {
  std::string out;
  for (const auto& action : kAuditActions) {
    if (!out.empty()) out += ", ";
    out += action.name;
  }
  return out;
}

bool IsFilterText(std::string_view pattern) {
  return pattern.find_first_of("|\r\n") == std::string_view::npos;
}

std::optional<std::string> AuditTimeBound(std::string_view text) {
  if (text.empty()) return "*";
  const auto time = ParseDateText(text);
  if (!time) return std::nullopt;
  return FormatTimestamp(*time);
}

SocketDataStruct MakeAuditRequest(const AuditFilter& filter) {
  const auto or_any = [](const std::string& text) { return text.empty() ? "*" : text; };
  const std::string crlf(kCrlf);
  SocketDataStruct request;
  request.PackageID = kAuditRequest;
  request.Misc1 = std::to_string(filter.action_mask);
  request.Misc2 = or_any(filter.person) + crlf + or_any(filter.user) + crlf + or_any(filter.token) +
                  crlf + or_any(filter.ip);
  request.Misc3 = or_any(filter.from) + crlf + or_any(filter.to);
  return request;
}

std::vector<TokenRow> ParseTokenList(std::string_view data) {
  std::vector<TokenRow> rows;
  for (const auto& record : SplitRecords(data, "|", "$")) {
    auto f = SplitFields(record, "$", 9, 1);
    TokenRow row{f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], {}};
    for (auto& address : Split(f[8], ",")) {
      if (!address.empty()) row.addresses.push_back(std::move(address));
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

std::string DatabaseStateWarning(std::string_view state_text) {
  const auto state = WholeNumberText(state_text);
  if (state == 1) return "";
  if (!state) {
    return "the server's database state is unknown: \"" + Cp1252ToUtf8(state_text) + "\"";
  }
  const bool named = *state > 1 && *state < static_cast<long long>(kDatabaseStates.size());
  return "the server's database is not ready: state " + std::to_string(*state) + " (" +
         std::string(kDatabaseStates[named ? static_cast<size_t>(*state) : 0]) + ")";
}

std::vector<GroupRow> ParseGroupList(std::string_view data) {
  std::vector<GroupRow> groups;
  for (const auto& record : SplitRecords(data, kCrlf, "|")) {
    auto f = SplitFields(record, "|", 5, 2);
    GroupRow group{f[0], f[1], f[2], f[3], {}};
    for (const auto& member : SplitRecords(f[4], "$", ",")) {
      auto m = SplitFields(member, ",", 2, 1);
      group.members.push_back({std::move(m[0]), std::move(m[1])});
    }
    groups.push_back(std::move(group));
  }
  return groups;
}

std::vector<TokenGroup> ParseTokenGroups(std::string_view data) {
  // An entry ends with CRLF and the group's GUID; a piece that does not has a "|" in its
  // group name and goes on in the next piece.
  std::vector<std::string> entries;
  std::optional<std::string> pending;
  for (auto& piece : Split(data, "|")) {
    if (pending) {
      *pending += "|" + piece;
    } else {
      pending = std::move(piece);
    }
    if (EndsWithCrlfGuid(*pending)) {
      entries.push_back(std::move(*pending));
      pending.reset();
    }
  }
  if (pending && !pending->empty()) entries.push_back(std::move(*pending));

  std::vector<TokenGroup> groups;
  for (const auto& entry : entries) {
    const size_t crlf = entry.rfind(kCrlf);
    if (crlf == std::string::npos) {
      groups.push_back({entry, ""});
    } else {
      groups.push_back({entry.substr(0, crlf), entry.substr(crlf + kCrlf.size())});
    }
  }
  return groups;
}

std::vector<AuditRow> ParseAuditRows(std::string_view data) {
  std::vector<AuditRow> rows;
  for (const auto& record : SplitRecords(data, kCrlf, "|")) {
    auto f = SplitFields(record, "|", 7, 1);
    rows.push_back({f[0], f[1], f[2], f[3], f[4], f[5], f[6]});
  }
  return rows;
}

std::string TimestampForPeople(std::string_view text) {
  if (text.size() != 19) return std::string(text);
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash_position = i == 4 || i == 7 || i == 10 || i == 13 || i == 16;
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (dash_position ? text[i] != '-' : !digit) return std::string(text);
  }
  std::string out(text);
  out[10] = ' ';
  out[13] = ':';
  out[16] = ':';
  return out;
}

std::string FormatTokenTable(const std::vector<TokenRow>& rows) {
  if (rows.empty()) return "No tokens.\n";
  std::vector<std::vector<std::string>> cells;
  for (const auto& r : rows) {
    std::string addresses;
    for (const auto& a : r.addresses) addresses += (addresses.empty() ? "" : ",") + a;
    cells.push_back({r.guid, r.person, r.description, TimestampForPeople(r.created),
                     TimestampForPeople(r.last_used), r.last_ip, r.user_dn, r.has_certificate,
                     addresses});
  }
  return FormatTable({"GUID", "PERSON", "DESCRIPTION", "CREATED", "LAST USE", "LAST IP", "USER DN",
                      "CERTIFICATE", "ADDRESSES"},
                     cells);
}

std::string FormatTokenJson(const std::vector<TokenRow>& rows) {
  return JsonArray(rows,
                   [](const TokenRow& r) {
                     return JsonObject({{"guid", JsonString(r.guid)},
                                        {"person", JsonString(r.person)},
                                        {"description", JsonString(r.description)},
                                        {"created", JsonTimeOrNull(r.created)},
                                        {"lastUsed", JsonTimeOrNull(r.last_used)},
                                        {"lastIp", JsonString(r.last_ip)},
                                        {"userDn", JsonString(r.user_dn)},
                                        {"hasCertificate", JsonYesNoOrNull(r.has_certificate)},
                                        {"addresses", JsonArray(r.addresses, JsonString)}});
                   }) +
         "\n";
}

std::string FormatGroupTable(const std::vector<GroupRow>& groups) {
  if (groups.empty()) return "No groups.\n";
  std::vector<std::vector<std::string>> cells;
  for (const auto& g : groups) {
    cells.push_back({g.guid, g.name, g.description, g.abilities, std::to_string(g.members.size())});
  }
  return FormatTable({"GUID", "NAME", "DESCRIPTION", "ABILITIES", "MEMBERS"}, cells);
}

std::string FormatGroupJson(const std::vector<GroupRow>& groups) {
  return JsonArray(groups,
                   [](const GroupRow& g) {
                     const auto member = [](const GroupMember& m) {
                       return JsonObject(
                           {{"guid", JsonString(m.guid)}, {"person", JsonString(m.person)}});
                     };
                     return JsonObject({{"guid", JsonString(g.guid)},
                                        {"name", JsonString(g.name)},
                                        {"description", JsonString(g.description)},
                                        {"abilities", JsonNumberOrNull(g.abilities)},
                                        {"members", JsonArray(g.members, member)}});
                   }) +
         "\n";
}

std::string FormatRightsText(std::string_view rights, const std::vector<TokenGroup>& groups) {
  std::string out = "Rights: " + NumberForPeople(rights) + "\n";
  if (groups.empty()) return out + "No groups.\n";
  std::vector<std::vector<std::string>> cells;
  for (const auto& g : groups) cells.push_back({g.name, g.guid});
  return out + FormatTable({"GROUP", "GUID"}, cells);
}

std::string FormatRightsJson(std::string_view token_guid, std::string_view rights,
                             const std::vector<TokenGroup>& groups) {
  const auto group = [](const TokenGroup& g) {
    return JsonObject({{"name", JsonString(g.name)}, {"guid", JsonString(g.guid)}});
  };
  return JsonObject({{"token", JsonString(token_guid)},
                     {"rights", JsonNumberOrNull(rights)},
                     {"groups", JsonArray(groups, group)}}) +
         "\n";
}

std::string FormatAuditTable(const std::vector<AuditRow>& rows, std::string_view total) {
  std::string out;
  if (!rows.empty()) {
    std::vector<std::vector<std::string>> cells;
    for (const auto& r : rows) {
      cells.push_back({TimestampForPeople(r.timestamp), r.action, r.person, r.user_name, r.ip,
                       r.token_guid, r.user_dn});
    }
    out = FormatTable({"TIME", "ACTION", "PERSON", "USER", "IP", "TOKEN", "USER DN"}, cells);
  }
  return out + std::to_string(rows.size()) + " of " + NumberForPeople(total) + " entries shown\n";
}

std::string FormatAuditJson(const std::vector<AuditRow>& rows, std::string_view total) {
  const auto entry = [](const AuditRow& r) {
    return JsonObject({{"tokenGuid", JsonString(r.token_guid)},
                       {"person", JsonString(r.person)},
                       {"userName", JsonString(r.user_name)},
                       {"action", JsonString(r.action)},
                       {"timestamp", JsonTimeOrNull(r.timestamp)},
                       {"ip", JsonString(r.ip)},
                       {"userDn", JsonString(r.user_dn)}});
  };
  return JsonObject({{"total", JsonNumberOrNull(total)}, {"entries", JsonArray(rows, entry)}}) +
         "\n";
}

}  // namespace kalvo::ctl
