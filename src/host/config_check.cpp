#include "host/config_check.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <istream>
#include <ostream>

#include "db/consistency.h"
#include "db/data_sources.h"
#include "db/odbc_handles.h"
#include "db/schema.h"
#include "infra/ini_file.h"
#include "infra/language.h"
#include "infra/log.h"
#include "infra/registry.h"
#include "infra/runtime_error.h"
#include "infra/text_encoding.h"
#include "infra/unique_fd.h"
#include "infra/version.h"
#include "net/address_filter.h"
#include "security/encryption.h"

namespace kalvo {
namespace {

std::string ReadLine(std::istream& in) {
  std::string line;
  std::getline(in, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

const char* YesNo(bool b) { return b ? "True" : "False"; }
std::string U(const std::string& text) { return Cp1252ToUtf8(text); }

// Everything a check reads: the registry, the log (the database operations write to it) and
// the settings as start-up reads them.
struct Loaded {
  explicit Loaded(const ServerOptions& options)
      : registry(options.registry_path), log(registry, LogPathFrom(options)) {
    registry.SetWarningSink([this](const std::string& w) { warnings.push_back(w); });
    try {
      ReadSettings(registry, SettingsDecipher(), settings);
    } catch (const std::exception& e) {
      read_error = e.what();
    }
    ReadPlatformSettings(registry, settings);
  }
  std::string RawSetting(std::string_view name) {
    return RegistryRead(registry, kSettingsRoot, kSettingsKey, "KDX\\DB", name, "").ToText();
  }

  RegistryStore registry;
  Log log;
  Settings settings;
  std::string read_error;
  std::vector<std::string> warnings;
};

// Whether the registry file can be read: "" when it can, else the problem.
std::string RegistryFileProblem(const std::string& path) {
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) {
    return "the registry file " + path +
           " does not exist: copy the example (registry.reg.example in the package's "
           "documentation) there, or name another file with --registry or KALVOSRV_REGISTRY";
  }
  if (!std::filesystem::is_regular_file(path, ec) || !std::ifstream(path, std::ios::binary)) {
    return "the registry file " + path + " cannot be read (" + std::strerror(errno) +
           "): give the service's user read access";
  }
  return "";
}

// Whether `port` can be bound on `address` now: "" when it can, else the system's reason.
std::string BindProblem(const std::string& address, int32_t port) {
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, address.c_str(), &where.sin_addr) != 1) return "no IPv4 address";
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) return std::strerror(errno);
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&where), sizeof where) != 0) {
    return std::strerror(errno);
  }
  return "";
}

// Whether a running kalvosrv serves `port`: its status endpoint on 127.0.0.1:`status_port`
// answers and names that port. Asking the server itself needs no privilege, where finding
// the socket's process would.
bool RunningServerHolds(int32_t port, int32_t status_port) {
  if (status_port < 1 || status_port > 65535) return false;
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_port = htons(static_cast<uint16_t>(status_port));
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd.get() < 0 || ::connect(fd.get(), reinterpret_cast<sockaddr*>(&where), sizeof where) != 0) {
    return false;
  }
  const std::string request = "GET /status HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
  if (!WriteAll(fd.get(), request)) return false;
  std::string answer;
  char buf[4096];
  pollfd p{fd.get(), POLLIN, 0};
  while (answer.size() < 65536 && ::poll(&p, 1, 2000) > 0) {
    const ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n <= 0) break;
    answer.append(buf, static_cast<size_t>(n));
  }
  return answer.find("\"listening\":true") != std::string::npos &&
         answer.find("\"port\":" + std::to_string(port) + ",") != std::string::npos;
}

// For a data source of the SQLite driver: the directory its database file should lie in,
// when that directory does not exist ("" otherwise). The driver's own message only says
// that the connect failed.
std::string MissingDatabaseDirectory(const std::string& dsn, const std::string& driver) {
  if (driver.find("SQLite") == std::string::npos) return "";
  // The system data sources: $ODBCINI, else odbc.ini in $ODBCSYSINI, else /etc/odbc.ini.
  const char* ini = std::getenv("ODBCINI");
  const char* sys = std::getenv("ODBCSYSINI");
  const std::string path =
      ini != nullptr && *ini != '\0'
          ? ini
          : std::string(sys != nullptr && *sys != '\0' ? sys : "/etc") + "/odbc.ini";
  const std::string file = ReadIniText(path, dsn, "Database");
  const std::filesystem::path dir = std::filesystem::path(file).parent_path();
  std::error_code ec;
  if (file.empty() || dir.empty() || std::filesystem::is_directory(dir, ec)) return "";
  return dir.string();
}

void CheckDatabaseSettings(const Settings& s, std::vector<Finding>& out) {
  auto missing = [&](bool bad, const std::string& what) {
    if (bad) out.push_back({true, what});
  };
  missing(s.dsn.empty(), "KDX\\DB DSN is empty: name the ODBC data source (a section of odbc.ini)");
  missing(s.string_type.empty(),
          "KDX\\DB StringType is empty: set the text column type, for example VARCHAR");
  missing(s.string_max_size == 0,
          "KDX\\DB StringMaxSize is 0: set the length of long text columns, for example 255");
  missing(s.blob_type.empty(),
          "KDX\\DB BLOBType is empty: set the binary column type (BLOB, BYTEA, LONGBLOB)");
  missing(s.blob_max_size == 0,
          "KDX\\DB BLOBMaxSize is 0: set the size of one stored part, for example 65536");
}

void CheckDataSource(OdbcEnvironment& env, const Settings& s, std::vector<Finding>& out) {
  if (s.dsn.empty()) return;
  const std::vector<DataSource> sources = OdbcDataSources(env);
  const auto source = std::find_if(sources.begin(), sources.end(),
                                   [&](const DataSource& d) { return d.name == s.dsn; });
  if (source == sources.end()) {
    out.push_back({true, "the data source \"" + U(s.dsn) +
                             "\" is not defined: add it to odbc.ini (odbcinst -q -s lists "
                             "the defined ones)"});
    return;
  }
  if (std::string dir = MissingDatabaseDirectory(U(s.dsn), source->driver); !dir.empty()) {
    out.push_back({true, "the directory " + dir +
                             " of the data source's SQLite database does "
                             "not exist: create it, writable by the service's user (the package "
                             "makes /var/lib/kalvosrv)"});
  }
  // The driver manager's pooling is not needed: the database workers keep their connections.
}

}  // namespace

namespace {

// The findings about a registry file that exists, read into `loaded`.
std::vector<Finding> PreflightOf(const ServerOptions& options, Loaded& loaded,
                                 const PreflightScope& scope) {
  std::vector<Finding> out;
  const Settings& s = loaded.settings;
  for (const std::string& w : loaded.warnings) {
    out.push_back({false, "registry file: " + U(w)});
  }
  Language language(options.program, options.language_id);
  if (!language.LanguageFileExists()) {
    out.push_back({true, "the language file " + language.LanguageFileFor(options.language_id) +
                             " (or its English fallback) is missing: the server ends at "
                             "start-up without it; reinstall the package"});
  }
  if (!loaded.read_error.empty()) {
    out.push_back({true, "a setting could not be converted (" + loaded.read_error +
                             "): the settings after it in the table keep their defaults; "
                             "correct its type in the registry file"});
  }
  for (const std::string& p : s.problems) out.push_back({false, U(p)});
  CheckDatabaseSettings(s, out);
  for (const char* name : {"LoginUser", "LoginPass"}) {
    const std::string stored = loaded.RawSetting(name);
    if (!stored.empty() && !IsCipherText(stored)) {
      out.push_back({true, std::string("KDX\\DB ") + name +
                               " is not cipher text: store the output of \"kalvosrv "
                               "--encrypt\" (it reads the plain text from standard input)"});
    }
  }
  std::string reason;
  const int32_t port = ChooseServerPort(s, &reason);
  if (!reason.empty()) out.push_back({false, reason});
  if (port < 1 || port > 65535) {
    out.push_back({true, "KDX ServerLocalPort " + std::to_string(port) +
                             " is no TCP port: set a port from 1025 to 65535"});
  } else if (port < 1025) {
    out.push_back({false, "KDX ServerLocalPort " + std::to_string(port) +
                              " lies below 1025: it is used, but the service needs the "
                              "capability to bind it"});
  }
  std::vector<std::string> address_problems;
  AddressFilter::Parse(s.admin_allowed_addresses, &address_problems);
  for (const std::string& p : address_problems) {
    out.push_back({true, p + ": correct KDX AdminAllowedAddresses"});
  }
  if (s.admin_allowed_addresses.find_first_not_of(" \t") == std::string::npos) {
    out.push_back({false,
                   "KDX AdminAllowedAddresses is empty: every address may send console "
                   "requests, including 701 (any SQL); list the consoles' addresses or ranges"});
  }
  OdbcEnvironment env;
  CheckDataSource(env, s, out);
  if (scope.database && !s.dsn.empty()) {
    Database database(env, loaded.log, DatabaseSettingsFrom(s));
    DbConnection connection(database);
    if (std::optional<std::string> problem = DBConnectProblem(connection)) {
      out.push_back({true, "the database cannot be reached: " + U(*problem) +
                               " - check DSN, LoginUser and LoginPass under KDX\\DB and that "
                               "the database server runs"});
    } else if (const TableState state = DBIsDatabaseUpToDate(database);
               state != TableState::kUpToDate) {
      out.push_back({true, "the database's tables are not complete (" +
                               std::string(TableStateName(state)) +
                               "): run \"kalvosrv --init-database\" on an empty database, or "
                               "\"kalvosrv --upgrade-database\" on one made by an older version"});
    } else {
      for (const std::string& problem : DBFindDataProblems(database)) {
        out.push_back({true, U(problem) + ": run \"kalvosrv --repair-database\" (with the "
                                          "service stopped)"});
      }
    }
  }
  if (scope.port && port >= 1 && port <= 65535) {
    if (std::string problem = BindProblem(options.listen_address, port); !problem.empty()) {
      if (RunningServerHolds(port, s.status_port)) {
        out.push_back({false,
                       "port " + std::to_string(port) +
                           " is served by the running kalvosrv (its status endpoint says so); "
                           "a reload or restart keeps it",
                       true});
        return out;
      }
      out.push_back({true, "port " + std::to_string(port) + " on " + options.listen_address +
                               " cannot be bound (" + problem +
                               "): another program (or a running kalvosrv) uses it; stop it "
                               "or change KDX ServerLocalPort"});
    }
  }
  return out;
}

}  // namespace

std::vector<Finding> Preflight(const ServerOptions& options, const PreflightScope& scope) {
  if (std::string problem = RegistryFileProblem(options.registry_path); !problem.empty()) {
    // Without the file every other check would only report defaults.
    return {{true, problem}};
  }
  Loaded loaded(options);
  return PreflightOf(options, loaded, scope);
}

int CheckConfig(const ServerOptions& options, std::ostream& out) {
  out << "registry file: " << options.registry_path << "\n";
  std::vector<Finding> findings;
  if (std::string problem = RegistryFileProblem(options.registry_path); !problem.empty()) {
    findings.push_back({true, problem});
  } else {
    Loaded loaded(options);
    findings = PreflightOf(options, loaded, PreflightScope{});
    const Settings& s = loaded.settings;
    out << "log file: " << loaded.log.path() << "\n"
        << "KDX\\DB DSN = " << U(s.dsn) << "\n"
        << "KDX\\DB LoginUser = " << U(s.login_user) << "\n"
        << "KDX\\DB LoginPass = " << (s.login_pass.empty() ? "(empty)" : "********") << "\n"
        << "KDX\\DB StringType = " << U(s.string_type) << "\n"
        << "KDX\\DB StringMaxSize = " << s.string_max_size << "\n"
        << "KDX\\DB NumberType = " << U(s.number_type) << "\n"
        << "KDX\\DB BLOBType = " << U(s.blob_type) << "\n"
        << "KDX\\DB BLOBMaxSize = " << s.blob_max_size << "\n"
        << "KDX\\DB DatabaseTimeout = " << s.database_timeout << "\n"
        << "KDX\\Backup Automatic = " << s.backup_automatic << "\n"
        << "KDX\\Backup Admin = " << s.backup_admin << "\n"
        << "KDX\\Backup Client = " << s.backup_client << "\n"
        << "KDX\\Action DeleteAfterComplete = " << YesNo(s.delete_after_complete) << "\n"
        << "KDX\\Log LogAdmin = " << s.log_admin << "\n"
        << "KDX\\Log LogServer = " << s.log_server << "\n"
        << "KDX\\Log LogClient = " << s.log_client << "\n"
        << "KDX AuditIsActive = " << YesNo(s.audit_is_active) << "\n"
        << "KDX AuditDisplayMaxCount = " << s.audit_display_max_count << "\n"
        << "KDX AuditIsLimited = " << YesNo(s.audit_is_limited) << "\n"
        << "KDX AuditIsSaveMaxCount = " << YesNo(s.audit_is_save_max_count) << "\n"
        << "KDX AuditSaveMaxCount = " << s.audit_save_max_count << "\n"
        << "KDX AuditIsSaveMaxDays = " << YesNo(s.audit_is_save_max_days) << "\n"
        << "KDX AuditSaveMaxDays = " << s.audit_save_max_days << "\n"
        << "KDX ServerLocalPort = " << U(s.server_local_port) << "\n"
        << "KDX MaxPackageSize = " << s.max_package_size << "\n"
        << "KDX MaxSendQueue = " << s.max_send_queue << "\n"
        << "KDX MaxBufferedBytes = " << s.max_buffered_bytes << "\n"
        << "KDX MaxConnectionsPerAddress = " << s.max_connections_per_address << "\n"
        << "KDX\\DB DatabaseWorkers = " << s.database_workers << "\n"
        << "KDX AdminAllowedAddresses = " << U(s.admin_allowed_addresses) << "\n"
        << "KDX StatusPort = " << s.status_port << "\n"
        << "KDX CertificateLibrary = " << U(s.certificate_library) << "\n"
        << "Taskbaricon = " << YesNo(s.tray_enabled) << "\n";
  }
  int errors = 0;
  for (const Finding& f : findings) {
    out << (f.error ? "ERROR: " : f.note ? "NOTE: " : "WARNING: ") << f.text << "\n";
    errors += f.error ? 1 : 0;
  }
  if (errors > 0) {
    out << errors << (errors == 1 ? " problem" : " problems") << " found\n";
    return 1;
  }
  out << "configuration OK\n";
  return 0;
}

int ConfigureDatabaseFromShell(const ServerOptions& options, bool upgrade, std::ostream& out) {
  if (std::string problem = RegistryFileProblem(options.registry_path); !problem.empty()) {
    out << "ERROR: " << problem << "\n";
    return 1;
  }
  Loaded loaded(options);
  const Settings& s = loaded.settings;
  Language language(options.program, options.language_id);
  if (!upgrade && !language.LanguageFileExists()) {
    out << "ERROR: the language file " << language.LanguageFileFor(options.language_id)
        << " is missing: it names the default group; reinstall the package\n";
    return 1;
  }
  OdbcEnvironment env;
  Database database(env, loaded.log, DatabaseSettingsFrom(s));
  if (!upgrade) {
    // Creating on a database that has tables fails for every table and adds the default
    // group a second time: refuse before anything is written.
    const TableState before = DBIsDatabaseUpToDate(database);
    if (before == TableState::kConnectFailed) {
      out << "initialisation of \"" << U(s.dsn) << "\": -1 (the database cannot be reached; "
          << "see the log file " << loaded.log.path() << ")\n";
      return 1;
    }
    if (before != TableState::kNoTables) {
      out << "ERROR: the database \"" << U(s.dsn) << "\" has tables already (state "
          << TableStateName(before) << "): --init-database works only on a database without "
          << "any of the server's tables, so nothing was changed. Run \"kalvosrv "
             "--upgrade-database\" to add missing tables and columns, and \"kalvosrv "
             "--check-config\" to check the data (\"kalvosrv --repair-database\" puts a "
             "doubled default group right)\n";
      return 1;
    }
  }
  ConfigDatabaseHooks hooks;
  hooks.language = [&language](std::string_view section, std::string_view key) {
    return language.GetLanguageString(section, key);
  };
  // The settings hold the credentials deciphered already: the fields go in as they are.
  const std::string nul(1, '\0');
  const std::string fields = s.dsn + nul + s.login_user + nul + s.login_pass + nul + s.string_type +
                             nul + std::to_string(s.string_max_size) + nul + s.number_type + nul +
                             s.blob_type + nul + std::to_string(s.blob_max_size) + nul +
                             (upgrade ? "2" : "1");
  const int32_t result = DBConfigDatabase(database, fields, upgrade ? 2 : 1, hooks);
  std::string meaning;
  if (result == 0) {
    meaning = upgrade ? "the tables are upgraded" : "the tables are created";
  } else if (result == -1) {
    meaning = "the database cannot be reached; see the log file " + loaded.log.path();
  } else if (result == -2 || result == -3) {
    meaning = "the database settings under KDX\\DB are incomplete or not numbers";
  } else if (upgrade) {
    meaning = "a step of the upgrade failed; see the log file " + loaded.log.path();
  } else {
    meaning = std::to_string(result) +
              " steps failed (a table that exists already is not created again: use "
              "--upgrade-database on a database that has tables); see the log file " +
              loaded.log.path();
  }
  out << (upgrade ? "upgrade" : "initialisation") << " of \"" << U(s.dsn) << "\": " << result
      << " (" << meaning << ")\n";
  if (result != 0) return 1;
  const TableState state = DBIsDatabaseUpToDate(database);
  out << "database state: " << TableStateName(state) << " (" << static_cast<int>(state) << ")\n";
  if (state == TableState::kUpToDate) return 0;
  if (upgrade) {
    out << "an upgrade adds tables and columns but no data: use --init-database on a database "
           "that has no tables yet\n";
  }
  return 1;
}

int RepairDatabaseFromShell(const ServerOptions& options, std::ostream& out) {
  if (std::string problem = RegistryFileProblem(options.registry_path); !problem.empty()) {
    out << "ERROR: " << problem << "\n";
    return 1;
  }
  Loaded loaded(options);
  OdbcEnvironment env;
  Database database(env, loaded.log, DatabaseSettingsFrom(loaded.settings));
  const int32_t deleted = DBRepairData(database);
  if (deleted < 0) {
    out << "ERROR: the repair failed; see the log file " << loaded.log.path() << "\n";
    return 1;
  }
  out << "repair of \"" << U(loaded.settings.dsn) << "\": " << deleted << " row(s) replaced\n";
  const std::vector<std::string> left = DBFindDataProblems(database);
  for (const std::string& problem : left) out << "ERROR: " << U(problem) << "\n";
  return left.empty() ? 0 : 1;
}

int EncryptCredential(std::istream& in, std::ostream& out) {
  const std::string plain = Utf8ToCp1252(ReadLine(in));
  out << EncryptCredentialText(plain) << "\n";
  return 0;
}

int DecryptCredential(std::istream& in, std::ostream& out) {
  const std::string cipher = ReadLine(in);
  out << Cp1252ToUtf8(DecryptCredentialText(cipher)) << "\n";
  return 0;
}

}  // namespace kalvo
