#include "kalvoctl/token_commands.h"

#include <iostream>
#include <memory>
#include <optional>

#include "infra/text_encoding.h"
#include "kalvoctl/client.h"
#include "kalvoctl/command_support.h"
#include "kalvoctl/commands.h"
#include "kalvoctl/settings_views.h"
#include "kalvoctl/token_views.h"

namespace kalvo::ctl {
namespace {

const CLI::Validator kActionArgument(
    [](std::string& text) {
      std::string unknown;
      return AuditActionMask({text}, unknown)
                 ? std::string()
                 : "unknown action \"" + text + "\"; the actions are " + AuditActionList();
    },
    "ACTION");

const CLI::Validator kPatternArgument(
    [](std::string& text) {
      return IsFilterText(Utf8ToCp1252(text)) ? std::string()
                                              : "a pattern cannot hold \"|\" or a line break";
    },
    "PATTERN");

const CLI::Validator kTimeArgument(
    [](std::string& text) {
      return AuditTimeBound(text) ? std::string() : "not a date and time: " + text;
    },
    "TIME");

int RunTokens(const AskOptions& o) {
  SocketDataStruct request;
  request.PackageID = kTokenListRequest;
  // Without "UPDATE" the server would register the (empty) Data as this console's own token.
  request.Misc1 = "UPDATE";
  const auto answer = Ask(o, std::move(request));
  if (!answer) return kExitConnection;
  const std::string warning = DatabaseStateWarning(answer->Misc1);
  if (!warning.empty()) std::cerr << "kalvoctl: warning: " << warning << "\n";
  const auto rows = ParseTokenList(answer->Data);
  std::cout << (o.json ? FormatTokenJson(rows) : FormatTokenTable(rows));
  // A database that cannot be reached gives an empty list, which is no answer.
  return answer->Misc1 == kConnectFailedState ? kExitServerFailed : kExitOk;
}

int RunGroups(const AskOptions& o) {
  SocketDataStruct request;
  request.PackageID = kGroupListRequest;
  const auto answer = Ask(o, std::move(request));
  if (!answer) return kExitConnection;
  const auto groups = ParseGroupList(answer->Data);
  std::cout << (o.json ? FormatGroupJson(groups) : FormatGroupTable(groups));
  return kExitOk;
}

struct RightsOptions {
  AskOptions ask;
  std::string guid;
};

int RunRights(const RightsOptions& o) {
  SocketDataStruct request;
  request.PackageID = kTokenRightsRequest;
  request.Data = Utf8ToCp1252(o.guid);
  const auto answer = Ask(o.ask, request);
  if (!answer) return kExitConnection;
  const auto groups = ParseTokenGroups(answer->Data);
  std::cout << (o.ask.json ? FormatRightsJson(request.Data, answer->Misc1, groups)
                           : FormatRightsText(answer->Misc1, groups));
  return kExitOk;
}

struct AuditOptions {
  AskOptions ask;
  std::vector<std::string> actions;
  std::string person, user, token, ip, from, to;
};

int RunAudit(const AuditOptions& o) {
  // The validators have accepted every value, so nothing below can fail.
  std::string unknown;
  AuditFilter filter;
  filter.action_mask = AuditActionMask(o.actions, unknown).value_or(0);
  filter.person = Utf8ToCp1252(o.person);
  filter.user = Utf8ToCp1252(o.user);
  filter.token = Utf8ToCp1252(o.token);
  filter.ip = Utf8ToCp1252(o.ip);
  filter.from = AuditTimeBound(o.from).value_or("*");
  filter.to = AuditTimeBound(o.to).value_or("*");
  AskSession session(o.ask);
  // The settings first, on the same connection: an empty log may only mean auditing is off.
  SocketDataStruct settings_request;
  settings_request.PackageID = kReportSettingsRequest;
  const auto settings = session.Ask({settings_request}, kReportSettingsRequest);
  if (!settings) return kExitConnection;
  std::string error;
  const auto values = ParseSettings(settings->Data, error);
  if (values && (*values)[*SettingIndex("AuditIsActive")] == "False") {
    std::cerr << "kalvoctl: note: auditing is off (AuditIsActive is false): the server records "
                 "no new entries; \"kalvoctl settings --set AuditIsActive=true\" switches it "
                 "on\n";
  }
  const auto answer = session.Ask({MakeAuditRequest(filter)}, kAuditRequest);
  if (!answer) return kExitConnection;
  const auto rows = ParseAuditRows(answer->Data);
  std::cout << (o.ask.json ? FormatAuditJson(rows, answer->Misc3)
                           : FormatAuditTable(rows, answer->Misc3));
  return kExitOk;
}

struct DeleteOptions {
  AskOptions ask;
  std::vector<std::string> guids;
};

int RunDelete(const DeleteOptions& o) {
  SocketDataStruct request;
  request.PackageID = kDeleteTokensRequest;
  for (const auto& guid : o.guids) {
    if (!request.Data.empty()) request.Data += "\r\n";
    request.Data += Utf8ToCp1252(guid);
  }
  const auto answer = Ask(o.ask, std::move(request));
  if (!answer) return kExitConnection;
  PrintResult(answer->Data, o.ask.json);
  if (answer->Data == "OK") return kExitOk;
  std::cerr << "kalvoctl: the server did not delete the tokens\n";
  return kExitServerFailed;
}

}  // namespace

void AddTokensCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<AskOptions>();
  CLI::App* sub = app.add_subcommand(
      "tokens",
      "List the tokens: GUID, person, description, creation, last use, last IP, user DN, "
      "certificate (the server's yes or no) and the addresses of the token's open "
      "connections. Sends request 401, which registers this connection as a console until it "
      "closes. Warns on standard error when the server's database is not ready; exit status 3 "
      "when it cannot be reached.");
  AddAskOptions(*sub, *options);
  sub->callback([options, &exit_code] { exit_code = RunTokens(*options); });
}

void AddGroupsCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<AskOptions>();
  CLI::App* sub = app.add_subcommand(
      "groups",
      "List the groups (request 301): GUID, name, description, abilities and the number of "
      "members; --json lists the members.");
  AddAskOptions(*sub, *options);
  sub->callback([options, &exit_code] { exit_code = RunGroups(*options); });
}

void AddRightsCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<RightsOptions>();
  CLI::App* sub = app.add_subcommand(
      "rights",
      "Show a token's rights (a sum of the bits 1, 2, 4, 8 and 16) and its groups (request "
      "307).");
  sub->add_option("GUID", options->guid, "The token")->required()->check(kGuidArgument);
  AddAskOptions(*sub, options->ask);
  sub->callback([options, &exit_code] { exit_code = RunRights(*options); });
}

void AddAuditCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<AuditOptions>();
  CLI::App* sub = app.add_subcommand(
      "audit",
      "Show the audit log (request 329), newest first: only entries whose token still exists, "
      "at most the server's AuditDisplayMaxCount, then how many entries the log holds; says on "
      "standard error when auditing is off (AuditIsActive, read first with request 305). "
      "Patterns use * and ? as wildcards.");
  AddAskOptions(*sub, options->ask);
  sub->add_option("--action", options->actions,
                  "Only these actions, comma-separated, any case: " + AuditActionList())
      ->delimiter(',')
      ->check(kActionArgument);
  sub->add_option("--person", options->person, "Only persons matching the pattern")
      ->check(kPatternArgument);
  sub->add_option("--user", options->user, "Only user names matching the pattern")
      ->check(kPatternArgument);
  sub->add_option("--token", options->token, "Only token GUIDs matching the pattern")
      ->check(kPatternArgument);
  sub->add_option("--ip", options->ip, "Only IP addresses matching the pattern")
      ->check(kPatternArgument);
  sub->add_option("--from", options->from,
                  "Only entries after this time (exclusive): yyyy-mm-dd-hh-mm-ss, "
                  "yyyy-mm-dd[ hh:mm[:ss]] or dd.mm.yyyy[ hh:mm[:ss]]")
      ->check(kTimeArgument);
  sub->add_option("--to", options->to, "Only entries before this time (exclusive), as --from")
      ->check(kTimeArgument);
  sub->callback([options, &exit_code] { exit_code = RunAudit(*options); });
}

void AddDeleteTokenCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<DeleteOptions>();
  CLI::App* sub = app.add_subcommand(
      "delete-token",
      "Delete tokens (request 328) and print the server's answer, OK or ERROR; exit status 3 "
      "when it is not OK.");
  sub->add_option("GUID", options->guids, "The tokens")->required()->check(kGuidArgument);
  AddAskOptions(*sub, options->ask);
  sub->callback([options, &exit_code] { exit_code = RunDelete(*options); });
}

}  // namespace kalvo::ctl
