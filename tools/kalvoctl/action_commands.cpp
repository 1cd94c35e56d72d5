#include "kalvoctl/action_commands.h"

#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "infra/dates.h"
#include "infra/json_text.h"
#include "infra/text_encoding.h"
#include "kalvoctl/action_views.h"
#include "kalvoctl/command_support.h"
#include "kalvoctl/commands.h"

namespace kalvo::ctl {
namespace {

const CLI::Validator kPeriodArgument(
    [](std::string& text) {
      return ActionPeriod(text) ? std::string()
                                : "not a period (a number, or once, connect, daily, weekly, "
                                  "biweekly, monthly): " +
                                      text;
    },
    "PERIOD");

const CLI::Validator kTimeArgument(
    [](std::string& text) {
      return ActionTime(text) ? std::string() : "not a date and time: " + text;
    },
    "TIME");

bool ReadFile(const std::string& path, std::string& bytes) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream out;
  out << file.rdbuf();
  bytes = out.str();
  return static_cast<bool>(file);
}

int RunList(const AskOptions& o) {
  SocketDataStruct request;
  request.PackageID = kActionListRequest;
  const auto answer = Ask(o, request);
  if (!answer) return kExitConnection;
  const auto rows = ParseActionList(answer->Data);
  std::cout << (o.json ? FormatActionJson(rows) : FormatActionTable(rows));
  return kExitOk;
}

struct AddOptions {
  AskOptions ask;
  ActionDraft draft;  // built by BuildDraft
  std::string guid, name, period = "once", first, last, data, data_file, json_file;
  int32_t type = 2, priority = 0;
  bool stopped = false;
  std::vector<std::string> members, sources;
  bool replace = false;
};

// The draft of the options: a JSON file first, then every option given on top of it.
bool BuildDraft(const CLI::App& sub, AddOptions& o, std::string& error) {
  ActionDraft& d = o.draft;
  if (!o.json_file.empty()) {
    std::string text;
    if (!ReadFile(o.json_file, text)) {
      error = "cannot read " + o.json_file;
      return false;
    }
    const auto doc = ParseJson(text, error);
    if (!doc || !ReadActionDraft(*doc, d, error)) {
      error = o.json_file + ": " + error;
      return false;
    }
  }
  // Without a file the options with a default count even when not given; the others (and,
  // with a file, all) only when given.
  const auto given = [&](const char* name) { return sub.count(name) > 0; };
  const auto set = [&](const char* name) { return o.json_file.empty() || given(name); };
  if (set("--guid")) d.guid = Utf8ToCp1252(o.guid);
  if (set("--name")) d.name = Utf8ToCp1252(o.name);
  if (set("--type")) d.type = o.type;
  if (set("--priority")) d.priority = o.priority;
  if (set("--stopped")) d.stopped = o.stopped;
  if (set("--period")) d.period = *ActionPeriod(o.period);
  if (given("--first")) d.first_time = *ActionTime(o.first);
  if (given("--last")) d.last_time = *ActionTime(o.last);
  if (d.first_time.empty()) d.first_time = FormatTimestamp("");
  if (given("--member")) {
    d.members.clear();
    for (const std::string& m : o.members) d.members.push_back(Utf8ToCp1252(m));
  }
  if (given("--source")) {
    d.sources.clear();
    for (const std::string& s : o.sources) {
      const size_t colon = s.find(':');
      d.sources.emplace_back(Utf8ToCp1252(s.substr(0, colon)),
                             colon == std::string::npos ? "" : Utf8ToCp1252(s.substr(colon + 1)));
    }
  }
  if (given("--data")) d.data = Utf8ToCp1252(o.data);
  if (given("--data-file") && !ReadFile(o.data_file, d.data)) {
    error = "cannot read " + o.data_file;
    return false;
  }
  if (d.guid.empty()) d.guid = NewGuid();
  error = ActionDraftProblem(d);
  return error.empty();
}

int RunAdd(const CLI::App& sub, AddOptions& o) {
  std::string error;
  if (!BuildDraft(sub, o, error)) {
    std::cerr << "kalvoctl: " << error << "\n";
    return kExitUsage;
  }
  const auto answer = Ask(o.ask, MakeDefineActionRequest(o.draft, o.replace));
  if (!answer) return kExitConnection;
  const bool ok = answer->Misc1 == "OK";
  if (o.ask.json) {
    std::cout << "{\"result\":" << JsonString(answer->Misc1)
              << ",\"guid\":" << JsonString(o.draft.guid) << "}\n";
  } else {
    std::cout << answer->Misc1 << " " << Cp1252ToUtf8(o.draft.guid) << "\n";
  }
  if (ok) return kExitOk;
  std::cerr << "kalvoctl: the server did not store the action (a GUID that is taken, or see its "
               "log)\n";
  return kExitServerFailed;
}

struct OneOptions {
  AskOptions ask;
  std::string guid;
};

// 320, 322 and 323: the server's answer is in Misc1; 322/323 give the new state in Data.
int RunOne(const OneOptions& o, int32_t id) {
  SocketDataStruct request;
  request.PackageID = id;
  request.Data = Utf8ToCp1252(o.guid);
  const auto answer = Ask(o.ask, request);
  if (!answer) return kExitConnection;
  const bool has_state = id != kDeleteActionRequest;
  if (o.ask.json) {
    std::cout << "{\"result\":" << JsonString(answer->Misc1);
    if (has_state) std::cout << ",\"state\":" << JsonString(ActionStateName(answer->Data));
    std::cout << "}\n";
  } else {
    std::cout << answer->Misc1;
    if (has_state) std::cout << " (" << ActionStateName(answer->Data) << ")";
    std::cout << "\n";
  }
  if (answer->Misc1 == "OK") return kExitOk;
  std::cerr << "kalvoctl: the server reported a failure\n";
  return kExitServerFailed;
}

int RunDetails(const OneOptions& o) {
  SocketDataStruct request;
  request.PackageID = kActionDetailsRequest;
  request.Data = Utf8ToCp1252(o.guid);
  const auto answer = Ask(o.ask, request);
  if (!answer) return kExitConnection;
  const auto rows = ParseActionDetails(answer->Data);
  std::cout << (o.ask.json ? FormatActionDetailsJson(request.Data, rows)
                           : FormatActionDetailsTable(rows));
  return kExitOk;
}

void AddOneCommand(CLI::App& app, int& exit_code, const char* name, const char* help, int32_t id) {
  auto options = std::make_shared<OneOptions>();
  CLI::App* sub = app.add_subcommand(name, help);
  sub->add_option("GUID", options->guid, "The action")->required()->check(kGuidArgument);
  AddAskOptions(*sub, options->ask);
  sub->callback([options, &exit_code, id] {
    exit_code = id == kActionDetailsRequest ? RunDetails(*options) : RunOne(*options, id);
  });
}

}  // namespace

void AddActionCommands(CLI::App& app, int& exit_code) {
  auto list = std::make_shared<AskOptions>();
  CLI::App* sub = app.add_subcommand(
      "actions",
      "List the actions (request 319) in name order: state (invalid, waiting, active, stopped, "
      "expired, completed), type, period, priority, validity span and number of members.");
  AddAskOptions(*sub, *list);
  sub->callback([list, &exit_code] { exit_code = RunList(*list); });

  auto add = std::make_shared<AddOptions>();
  CLI::App* a = app.add_subcommand(
      "action-add",
      "Define an action (request 318) from options, or from a JSON file (--json-file; options "
      "given as well override it): {\"guid\", \"name\", \"type\", \"period\", \"priority\", "
      "\"first\", \"last\", \"stopped\", \"members\": [GUID...], \"sources\": [{\"source\", "
      "\"owner\"}...], \"data\"}. Prints OK or ERROR and the action's GUID; exit status 3 for "
      "ERROR. Type 1 carries no data; every other type needs data.");
  a->add_option("--guid", add->guid, "The action's GUID (default: a new one)")
      ->check(kGuidArgument);
  a->add_option("--name", add->name, "Its name");
  a->add_option("--type", add->type, "Its type (1: no data)")->capture_default_str();
  a->add_option("--period", add->period,
                "once, connect (every connection), daily, weekly, biweekly, monthly, or the "
                "number")
      ->capture_default_str()
      ->check(kPeriodArgument);
  a->add_option("--priority", add->priority, "Larger runs first")->capture_default_str();
  a->add_option("--first", add->first, "Valid from (default: now)")->check(kTimeArgument);
  a->add_option("--last", add->last, "Valid until (default: no end)")->check(kTimeArgument);
  a->add_flag("--stopped", add->stopped, "Define it stopped");
  a->add_option("--member", add->members, "A token or group GUID (repeat for more)")
      ->check(kGuidArgument);
  a->add_option("--source", add->sources, "A data source as SOURCE:OWNER (repeat for more)");
  a->add_option("--data", add->data, "The payload as text");
  a->add_option("--data-file", add->data_file, "The payload, byte for byte from a file")
      ->excludes("--data");
  a->add_option("--json-file", add->json_file, "The definition as JSON");
  a->add_flag("--update", add->replace,
              "Replace the action of that GUID (its execution counts are lost)");
  AddAskOptions(*a, add->ask);
  a->callback([add, a, &exit_code] { exit_code = RunAdd(*a, *add); });

  AddOneCommand(app, exit_code, "action-stop", "Stop an action (request 322).", kStopActionRequest);
  AddOneCommand(app, exit_code, "action-start", "Start a stopped action again (request 323).",
                kStartActionRequest);
  AddOneCommand(app, exit_code, "action-delete",
                "Delete an action with its members, data and execution counts (request 320).",
                kDeleteActionRequest);
  AddOneCommand(app, exit_code, "action-details",
                "Show an action's member tokens (groups expanded) with their last run and "
                "counts (request 324).",
                kActionDetailsRequest);
}

}  // namespace kalvo::ctl
