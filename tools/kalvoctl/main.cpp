// kalvoctl: a console for the server's packet protocol.
#include <CLI/CLI.hpp>
#include <iostream>

#include "infra/version.h"
#include "kalvoctl/action_commands.h"
#include "kalvoctl/backup_commands.h"
#include "kalvoctl/commands.h"
#include "kalvoctl/group_commands.h"
#include "kalvoctl/settings_commands.h"
#include "kalvoctl/sql_commands.h"
#include "kalvoctl/token_commands.h"

int main(int argc, char** argv) {
  CLI::App app{
      "kalvoctl - send requests to the Vaultara server component (kalvosrv) and watch its "
      "broadcasts"};
  app.require_subcommand(1);
  app.footer(
      "send and listen print packets as they arrive, fields in wire order, texts in UTF-8 with "
      "control characters escaped (\\r, \\n, \\0, \\xNN; JSON: \\uNNNN). tokens, groups, "
      "rights, audit, delete-token, backups, actions, action-details, settings and sql print a "
      "table, or with --json one JSON document; "
      "backup-get writes the backup's bytes unchanged.\n"
      "Exit status: 0 success (also when no reply came to send), 1 the connection failed, the "
      "server closed it while listening or before answering, or no answer came within "
      "--timeout, 2 bad arguments or an unreadable --data-file, 3 the server answered that the "
      "request failed (delete-token, backup-put, action-add, -stop, -start, -delete, group-add, "
      "group-delete, group-members, token-set) or that its database cannot be reached "
      "(tokens, and the group and token changes, which then send nothing), has no "
      "such backup (backup-get), reports an SQL error (sql) or reported settings that cannot be "
      "written back unchanged (settings --set, which then sends nothing). A console request "
      "that stays unanswered may come from an address outside the server's "
      "AdminAllowedAddresses: it ignores those without a word.");
  app.set_version_flag("--version", kalvo::GetVersionText("FileVersion"));
  int exit_code = kalvo::ctl::kExitOk;
  kalvo::ctl::AddSendCommand(app, exit_code);
  kalvo::ctl::AddListenCommand(app, exit_code);
  kalvo::ctl::AddTokensCommand(app, exit_code);
  kalvo::ctl::AddGroupsCommand(app, exit_code);
  kalvo::ctl::AddRightsCommand(app, exit_code);
  kalvo::ctl::AddAuditCommand(app, exit_code);
  kalvo::ctl::AddDeleteTokenCommand(app, exit_code);
  kalvo::ctl::AddGroupAddCommand(app, exit_code);
  kalvo::ctl::AddGroupDeleteCommand(app, exit_code);
  kalvo::ctl::AddGroupMembersCommand(app, exit_code);
  kalvo::ctl::AddTokenSetCommand(app, exit_code);
  kalvo::ctl::AddBackupsCommand(app, exit_code);
  kalvo::ctl::AddBackupGetCommand(app, exit_code);
  kalvo::ctl::AddBackupPutCommand(app, exit_code);
  kalvo::ctl::AddActionCommands(app, exit_code);
  kalvo::ctl::AddSettingsCommand(app, exit_code);
  kalvo::ctl::AddSqlCommand(app, exit_code);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version ask for their output; anything else cannot be run.
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "kalvoctl: " << e.what() << "\n"
              << "usage: kalvoctl COMMAND [OPTIONS]  (kalvoctl --help lists the commands, "
                 "kalvoctl COMMAND --help their options)\n";
    return kalvo::ctl::kExitUsage;
  }
  return exit_code;
}
