#include "kalvoctl/settings_commands.h"

#include <iostream>
#include <memory>

#include "kalvoctl/command_support.h"
#include "kalvoctl/commands.h"
#include "kalvoctl/settings_views.h"

namespace kalvo::ctl {
namespace {

const CLI::Validator kChangeArgument(
    [](std::string& text) {
      std::string error;
      return ParseSettingChange(text, error) ? std::string() : error;
    },
    "NAME=VALUE");

struct SettingsOptions {
  AskOptions ask;
  std::vector<std::string> changes;
};

SocketDataStruct MakeRequest(int32_t id, std::string data = "") {
  SocketDataStruct request;
  request.PackageID = id;
  request.Data = std::move(data);
  return request;
}

int RunSettings(const SettingsOptions& o) {
  AskSession session(o.ask);
  auto answer = session.Ask({MakeRequest(kReportSettingsRequest)}, kReportSettingsRequest);
  if (!answer) return kExitConnection;
  if (!o.changes.empty()) {
    // The server takes all thirteen at once: the others go back as it reported them. Should
    // its report not read, writing it back could change what nobody asked to change.
    std::string error;
    auto values = ParseSettings(answer->Data, error);
    if (!values) {
      std::cerr << "kalvoctl: " << error << "; nothing changed\n";
      return kExitServerFailed;
    }
    for (const std::string& text : o.changes) {
      const auto change = ParseSettingChange(text, error);
      if (!change) {  // the option's check has refused it already
        std::cerr << "kalvoctl: " << error << "\n";
        return kExitUsage;
      }
      (*values)[change->index] = change->value;
    }
    if (!session.Ask({MakeRequest(kUpdateSettingsRequest, JoinSettings(*values))},
                     kUpdateSettingsRequest)) {
      return kExitConnection;
    }
    // What the server holds now, as it reports it.
    answer = session.Ask({MakeRequest(kReportSettingsRequest)}, kReportSettingsRequest);
    if (!answer) return kExitConnection;
    for (const std::string& text : o.changes) {
      std::string ignored;
      if (const auto change = ParseSettingChange(text, ignored)) {
        const std::string note = SettingChangeNote(change->index);
        if (!note.empty()) std::cerr << "kalvoctl: note: " << note << "\n";
      }
    }
  }
  std::cout << (o.ask.json ? FormatSettingsJson(answer->Data) : FormatSettingsTable(answer->Data));
  return kExitOk;
}

}  // namespace

void AddSettingsCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<SettingsOptions>();
  CLI::App* sub = app.add_subcommand(
      "settings",
      "Show the server's settings (request 305): the number of backups kept per type "
      "(BackupAutomatic, BackupAdmin, BackupClient), the log settings (LogAdmin, LogServer, "
      "LogClient) and the audit settings (AuditIsActive, AuditDisplayMaxCount, AuditIsLimited, "
      "AuditIsSaveMaxCount, AuditSaveMaxCount, AuditIsSaveMaxDays, AuditSaveMaxDays). With "
      "--set, read them, replace the named values, send all thirteen back (306; the server "
      "writes them to its registry) and show what the server then reports. LogServer 0 to 4 "
      "also sets the server's log level (0, 5, 7, 9, 10).");
  sub->add_option("--set", options->changes,
                  "NAME=VALUE (repeat for more; names in any case): numbers are whole 32-bit "
                  "numbers, Booleans true or false (also 1, 0, -1, yes, no)")
      ->check(kChangeArgument);
  AddAskOptions(*sub, options->ask);
  sub->callback([options, &exit_code] { exit_code = RunSettings(*options); });
}

}  // namespace kalvo::ctl
