#include "host/config_check.h"

#include <istream>
#include <ostream>

#include "db/odbc_handles.h"
#include "db/schema.h"
#include "infra/log.h"
#include "infra/runtime_error.h"
#include "infra/text_encoding.h"
#include "infra/version.h"
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

}  // namespace

int CheckConfig(const ServerOptions& options, std::ostream& out) {
  RegistryStore registry(options.registry_path);
  std::string warnings;
  registry.SetWarningSink([&](const std::string& w) { warnings += "  " + w + "\n"; });
  Log log(registry, LogPathFrom(options));
  Settings s;
  const Decipher decipher = SettingsDecipher();
  std::string read_error;
  try {
    ReadSettings(registry, decipher, s);
  } catch (const std::exception& e) {
    read_error = e.what();
  }
  ReadPlatformSettings(registry, s);
  auto u = [](const std::string& t) { return Cp1252ToUtf8(t); };
  out << "registry file: " << options.registry_path << "\n";
  if (!warnings.empty()) out << "registry file warnings:\n" << u(warnings);
  out << "log file: " << log.path() << "\n"
      << "KDX\\DB DSN = " << u(s.dsn) << "\n"
      << "KDX\\DB LoginUser = " << u(s.login_user) << "\n"
      << "KDX\\DB LoginPass = " << (s.login_pass.empty() ? "(empty)" : "********") << "\n"
      << "KDX\\DB StringType = " << u(s.string_type) << "\n"
      << "KDX\\DB StringMaxSize = " << s.string_max_size << "\n"
      << "KDX\\DB NumberType = " << u(s.number_type) << "\n"
      << "KDX\\DB BLOBType = " << u(s.blob_type) << "\n"
      << "KDX\\DB BLOBMaxSize = " << s.blob_max_size << "\n"
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
      << "KDX ServerLocalPort = " << u(s.server_local_port) << "\n"
      << "KDX MaxPackageSize = " << s.max_package_size << "\n"
      << "KDX StatusPort = " << s.status_port << "\n"
      << "KDX CertificateLibrary = " << u(s.certificate_library) << "\n"
      << "Taskbaricon = " << YesNo(s.tray_enabled) << "\n";
  std::string reason;
  const int32_t port = ChooseServerPort(s, &reason);
  out << "listening port: " << port << (reason.empty() ? "" : " (" + reason + ")") << "\n";
  if (!read_error.empty()) {
    out << "FAILED: a setting could not be converted (" << read_error
        << "); the settings after it keep their defaults\n";
    return 1;
  }
  if (!OdbcPoolingEnabled()) {
    out << "WARNING: ODBC connection pooling is off: every database operation opens a new "
           "connection. Set Pooling = Yes in the [ODBC] section of odbcinst.ini and a "
           "CPTimeout in the driver's section.\n";
  }
  std::string failure;
  if (!CheckRegistrySettings(s, log, &failure)) {
    out << "FAILED: " << u(failure) << "\n";
    return 1;
  }
  OdbcEnvironment env;
  const TableState state = CheckDatabaseState(env, log, DatabaseSettingsFrom(s));
  out << "database state: " << TableStateName(state) << " (" << static_cast<int>(state) << ")\n";
  out << "all checks passed\n";
  return 0;
}

int EncryptCredential(std::istream& in, std::ostream& out) {
  const std::string plain = Utf8ToCp1252(ReadLine(in));
  out << EncryptText(plain, VersionInfoKeyText()) << "\n";
  return 0;
}

int DecryptCredential(std::istream& in, std::ostream& out) {
  const std::string cipher = ReadLine(in);
  out << Cp1252ToUtf8(DecryptText(cipher, VersionInfoKeyText())) << "\n";
  return 0;
}

}  // namespace kalvo
