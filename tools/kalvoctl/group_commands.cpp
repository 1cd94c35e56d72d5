#include "kalvoctl/group_commands.h"

#include <iostream>
#include <memory>
#include <optional>

#include "infra/strings.h"
#include "infra/text_encoding.h"
#include "kalvoctl/action_views.h"
#include "kalvoctl/command_support.h"
#include "kalvoctl/commands.h"
#include "kalvoctl/group_views.h"

namespace kalvo::ctl {
namespace {

const CLI::Validator kGroupTextArgument(
    [](std::string& text) {
      return IsGroupText(Utf8ToCp1252(text)) ? std::string()
                                             : "a name or description cannot hold \"|\" or a "
                                               "line break";
    },
    "TEXT");

SocketDataStruct Request(int32_t id, std::string data = "", std::string misc1 = "") {
  SocketDataStruct request;
  request.PackageID = id;
  request.Misc1 = std::move(misc1);
  request.Data = std::move(data);
  return request;
}

// The token list (401 with "UPDATE", which also registers this connection as a console, so it
// hears the broadcast that answers 310). Nothing, after saying why, when there is no answer
// or the server's database is not ready: a change made from a list that could not be read
// would drop what the list lacked. `exit_code` says which.
std::optional<SocketDataStruct> ReadyTokenList(AskSession& session, int& exit_code) {
  auto answer = session.Ask({Request(kTokenListRequest, "", "UPDATE")}, kTokenListRequest);
  if (!answer) {
    exit_code = kExitConnection;
    return std::nullopt;
  }
  if (const std::string warning = DatabaseStateWarning(answer->Misc1); !warning.empty()) {
    std::cerr << "kalvoctl: " << warning << "; nothing changed\n";
    exit_code = kExitServerFailed;
    return std::nullopt;
  }
  return answer;
}

struct GroupChange {
  AskOptions ask;
  std::string group;  // name or GUID; the new name for group-add
  std::string description;
  int32_t rights = 0;
  std::vector<std::string> add, remove;
};

enum class GroupVerb { kAdd, kDelete, kMembers };

int RunGroupChange(const GroupChange& o, GroupVerb verb) {
  AskSession session(o.ask);
  int exit_code = kExitOk;
  if (!ReadyTokenList(session, exit_code)) return exit_code;
  const auto list = session.Ask({Request(kGroupListRequest)}, kGroupListRequest);
  if (!list) return kExitConnection;
  std::vector<GroupRow> groups = ParseGroupList(list->Data);
  const std::string name = Utf8ToCp1252(o.group);
  std::string error;
  if (verb == GroupVerb::kAdd) {
    GroupRow added;
    added.guid = NewGuid();
    added.name = name;
    added.description = Utf8ToCp1252(o.description);
    added.abilities = std::to_string(o.rights);
    groups.push_back(std::move(added));
  } else {
    const std::optional<size_t> index = FindGroup(groups, name, error);
    if (!index) {
      std::cerr << "kalvoctl: " << Cp1252ToUtf8(error) << "; nothing changed\n";
      return kExitUsage;
    }
    if (verb == GroupVerb::kDelete) {
      groups.erase(groups.begin() + static_cast<std::ptrdiff_t>(*index));
    } else {
      std::vector<std::string> add, remove;
      for (const auto& g : o.add) add.push_back(Utf8ToCp1252(g));
      for (const auto& g : o.remove) remove.push_back(Utf8ToCp1252(g));
      ChangeMembers(groups[*index], add, remove);
    }
  }
  const auto answer =
      session.Ask({Request(kSetGroupsRequest, FormatGroupData(groups))}, kSetGroupsRequest);
  if (!answer) return kExitConnection;
  PrintResult(answer->Data, o.ask.json);
  if (answer->Data == "OK") return kExitOk;
  std::cerr << "kalvoctl: the server did not store the groups\n";
  return kExitServerFailed;
}

struct TokenSetOptions {
  AskOptions ask;
  std::string guid;
  std::optional<std::string> person, description;
};

int RunTokenSet(const TokenSetOptions& o) {
  AskSession session(o.ask);
  int exit_code = kExitOk;
  const auto list = ReadyTokenList(session, exit_code);
  if (!list) return exit_code;
  const std::string guid = Utf8ToCp1252(o.guid);
  std::optional<TokenRow> token;
  for (const TokenRow& row : ParseTokenList(list->Data)) {
    if (EqualsNoCase(row.guid, guid)) token = row;
  }
  if (!token) {
    std::cerr << "kalvoctl: the server knows no token " << o.guid << "; nothing changed\n";
    return kExitServerFailed;
  }
  if (o.person) token->person = Utf8ToCp1252(*o.person);
  if (o.description) token->description = Utf8ToCp1252(*o.description);
  // No reply: the server broadcasts the changed token list to every console.
  const auto answer = session.Ask(
      {Request(kSetTokenDataRequest, token->person + "|" + token->description, token->guid)},
      kTokenListRequest);
  if (!answer) return kExitConnection;
  for (const TokenRow& row : ParseTokenList(answer->Data)) {
    if (EqualsNoCase(row.guid, guid) && row.person == token->person &&
        row.description == token->description) {
      PrintResult("OK", o.ask.json);
      return kExitOk;
    }
  }
  PrintResult("ERROR", o.ask.json);
  std::cerr << "kalvoctl: the server did not store the token's data\n";
  return kExitServerFailed;
}

}  // namespace

void AddGroupAddCommand(CLI::App& app, int& exit_code) {
  auto o = std::make_shared<GroupChange>();
  CLI::App* sub = app.add_subcommand(
      "group-add",
      "Add a group with a new GUID: reads the groups (301) and writes them back with the new "
      "one (302). Prints OK or ERROR; exit status 3 when it is not OK or the server's "
      "database is not ready.");
  sub->add_option("NAME", o->group, "The group's name")->required()->check(kGroupTextArgument);
  sub->add_option("--description", o->description, "Its description")->check(kGroupTextArgument);
  sub->add_option("--rights", o->rights, "Its rights: a sum of the bits 1, 2, 4, 8 and 16")
      ->check(CLI::Range(0, 31));
  AddAskOptions(*sub, o->ask);
  sub->callback([o, &exit_code] { exit_code = RunGroupChange(*o, GroupVerb::kAdd); });
}

void AddGroupDeleteCommand(CLI::App& app, int& exit_code) {
  auto o = std::make_shared<GroupChange>();
  CLI::App* sub = app.add_subcommand(
      "group-delete",
      "Delete a group (named by its GUID or its name) with its memberships; the other groups "
      "are written back unchanged (301, then 302).");
  sub->add_option("GROUP", o->group, "The group's GUID or name")->required();
  AddAskOptions(*sub, o->ask);
  sub->callback([o, &exit_code] { exit_code = RunGroupChange(*o, GroupVerb::kDelete); });
}

void AddGroupMembersCommand(CLI::App& app, int& exit_code) {
  auto o = std::make_shared<GroupChange>();
  CLI::App* sub = app.add_subcommand(
      "group-members",
      "Add tokens to a group and take tokens out of it (301, then 302); the other groups and "
      "members stay.");
  sub->add_option("GROUP", o->group, "The group's GUID or name")->required();
  sub->add_option("--add", o->add, "Tokens to add")->check(kGuidArgument);
  sub->add_option("--remove", o->remove, "Tokens to take out")->check(kGuidArgument);
  AddAskOptions(*sub, o->ask);
  sub->callback([o, &exit_code] { exit_code = RunGroupChange(*o, GroupVerb::kMembers); });
}

void AddTokenSetCommand(CLI::App& app, int& exit_code) {
  auto o = std::make_shared<TokenSetOptions>();
  CLI::App* sub = app.add_subcommand(
      "token-set",
      "Set a token's person and description (310); what is not given keeps its value. The "
      "server answers with the token list, which shows whether it was stored (exit status 3 "
      "when not).");
  sub->add_option("GUID", o->guid, "The token")->required()->check(kGuidArgument);
  sub->add_option("--person", o->person, "The token's person")->check(kGroupTextArgument);
  sub->add_option("--description", o->description, "The token's description")
      ->check(kGroupTextArgument);
  AddAskOptions(*sub, o->ask);
  sub->callback([o, &exit_code] { exit_code = RunTokenSet(*o); });
}

}  // namespace kalvo::ctl
