// kalvoctl: a console for the server's packet protocol.
#include <CLI/CLI.hpp>

#include "infra/version.h"
#include "kalvoctl/commands.h"

int main(int argc, char** argv) {
  CLI::App app{"kalvoctl - send requests to the token server and watch its broadcasts"};
  app.require_subcommand(1);
  app.footer(
      "Packets are printed as they arrive, fields in wire order, texts in UTF-8 with control "
      "characters escaped (\\r, \\n, \\0, \\xNN; JSON: \\uNNNN).\n"
      "Exit status: 0 success (also when no reply came), 1 the connection failed or the server "
      "closed it while listening, 2 bad arguments or an unreadable --data-file.");
  app.set_version_flag("--version", kalvo::GetVersionText("FileVersion"));
  int exit_code = kalvo::ctl::kExitOk;
  kalvo::ctl::AddSendCommand(app, exit_code);
  kalvo::ctl::AddListenCommand(app, exit_code);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : kalvo::ctl::kExitUsage;
  }
  return exit_code;
}
