// kalvosrv: the token server.
#include <malloc.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "host/config_check.h"
#include "host/service_host.h"
#include "infra/language.h"
#include "infra/text_encoding.h"
#include "infra/version.h"

namespace {

constexpr const char* kDefaultRegistry = "/etc/opt/zentara/registry.reg";
constexpr const char* kUsage =
    "usage: kalvosrv [--registry FILE] [--log-file FILE] [--listen-address IPV4] "
    "[--foreground | --check-config | --init-database | --upgrade-database | "
    "--repair-database | --encrypt | "
    "--decrypt | --version | --help]";

std::string DefaultRegistryPath() {
  const char* env = std::getenv("KALVOSRV_REGISTRY");
  return env != nullptr && *env != '\0' ? env : kDefaultRegistry;
}

}  // namespace

int main(int argc, char** argv) {
  // Packets of many megabytes (backups) are mapped and unmapped on their own, so their memory
  // goes back to the system once they are sent or stored. Without a fixed threshold the
  // allocator raises it after the first large free and keeps later packets in its heap.
  mallopt(M_MMAP_THRESHOLD, 256 * 1024);
  CLI::App app{
      "kalvosrv - the Vaultara server component: serves the token clients and administration "
      "consoles on "
      "TCP (setting ServerLocalPort, default 15243) and its figures on "
      "http://127.0.0.1:<StatusPort>/status (default 15244).\n"
      "Runs as the systemd service kalvosrv.service; started by hand it needs --foreground.",
      "kalvosrv"};
  kalvo::ServerOptions options;
  options.registry_path = DefaultRegistryPath();
  bool foreground = false, check_config = false, encrypt = false, decrypt = false, version = false;
  bool init_database = false, upgrade_database = false, repair_database = false;
  app.add_option(
      "--registry", options.registry_path,
      "registry file (.reg); default $KALVOSRV_REGISTRY or " + std::string(kDefaultRegistry));
  app.add_option("--log-file", options.log_path,
                 "log file; default <program name>.log in the parent of the program directory");
  app.add_option("--listen-address", options.listen_address,
                 "IPv4 address the server port binds to")
      ->capture_default_str();
  app.add_flag("--foreground", foreground,
               "run in the foreground as if started by the service manager");
  app.add_flag("--check-config", check_config,
               "print the settings (password masked) and every problem of the configuration "
               "with what to do: registry and language files, settings, credentials, the data "
               "source, the database (reachable, tables complete) and the port; exit 0 when "
               "there is no error, 1 otherwise");
  app.add_flag("--init-database", init_database,
               "create the tables, the default group and the lookup indexes on the configured "
               "database, which must have none of the tables yet (else nothing is changed); "
               "exit 0 when the database is then complete, 1 otherwise");
  app.add_flag("--upgrade-database", upgrade_database,
               "add missing tables, columns and lookup indexes to the configured database; "
               "exit 0 when it is then complete, 1 otherwise");
  app.add_flag("--repair-database", repair_database,
               "keep one row of a doubled default group and split membership rows that hold "
               "several GUIDs (what --check-config reports); stop the service first");
  app.add_flag("--encrypt", encrypt,
               "read one line from standard input and print its cipher text for the "
               "LoginUser/LoginPass registry values");
  app.add_flag("--decrypt", decrypt, "read one cipher text from standard input, print the text");
  app.add_flag("--version", version, "print the version and exit");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help asks for its output; anything else is a command line we cannot run.
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "kalvosrv: " << e.what() << "\n" << kUsage << "\n";
    return 2;
  }

  if (version) {
    std::cout << "kalvosrv " << kalvo::GetVersionText("FileVersion") << "\n"
              << kalvo::Cp1252ToUtf8(kalvo::GetVersionText("LegalCopyright")) << "\n";
    return 0;
  }
  if (encrypt) return kalvo::EncryptCredential(std::cin, std::cout);
  if (decrypt) return kalvo::DecryptCredential(std::cin, std::cout);

  options.program = kalvo::CurrentProgram();
  options.language_id = kalvo::LanguageIdFromLocale();
  if (check_config) return kalvo::CheckConfig(options, std::cout);
  if (repair_database) return kalvo::RepairDatabaseFromShell(options, std::cout);
  if (init_database || upgrade_database) {
    if (init_database && upgrade_database) {
      std::cerr << "kalvosrv: --init-database and --upgrade-database exclude each other\n"
                << kUsage << "\n";
      return 2;
    }
    return kalvo::ConfigureDatabaseFromShell(options, upgrade_database, std::cout);
  }
  // Started by systemd (which sets INVOCATION_ID) or explicitly in the foreground.
  const char* invocation = std::getenv("INVOCATION_ID");
  options.started_as_service = foreground || (invocation != nullptr && *invocation != '\0');
  return kalvo::RunService(options);
}
