#include "infra/settings.h"

#include <cctype>
#include <optional>

#include "infra/log.h"
#include "infra/numbers.h"
#include "infra/registry.h"
#include "infra/runtime_error.h"

namespace kalvo {
namespace {

// The port setting as a 32-bit number, converted as every other number setting is ("1.5"
// gives 2); nothing when it is not a number or does not fit.
std::optional<int32_t> PortNumber(const std::string& text) {
  try {
    return NumericTextToInt32(text);
  } catch (const RuntimeError&) {
    return std::nullopt;
  }
}

}  // namespace

int32_t SettingNumber(const RegistryValue& value) {
  if (value.IsNumber()) return value.ToLong();
  return NumericTextToInt32(value.ToText());
}

bool SettingBoolean(const RegistryValue& value) {
  if (value.IsNumber()) return value.ToLong() != 0;
  std::string text = value.ToText();
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (text == "true") return true;
  if (text == "false") return false;
  return SettingNumber(value) != 0;
}

void ReadSettings(RegistryStore& registry, const Decipher& decipher, Settings& s) {
  auto read = [&](std::string_view sub_key, std::string_view name, const RegistryValue& def) {
    return RegistryRead(registry, kSettingsRoot, kSettingsKey, sub_key, name, def);
  };
  auto text = [&](std::string_view sub_key, std::string_view name) {
    return read(sub_key, name, "").ToText();
  };
  auto number = [&](std::string_view sub_key, std::string_view name, int32_t def) {
    return SettingNumber(read(sub_key, name, def));
  };
  auto boolean = [&](std::string_view sub_key, std::string_view name, bool def) {
    return SettingBoolean(read(sub_key, name, def ? -1 : 0));
  };

  s.dsn = text("KDX\\DB", "DSN");
  s.login_user = decipher(text("KDX\\DB", "LoginUser"));
  s.login_pass = decipher(text("KDX\\DB", "LoginPass"));
  s.string_type = text("KDX\\DB", "StringType");
  s.string_max_size = number("KDX\\DB", "StringMaxSize", 0);
  s.number_type = text("KDX\\DB", "NumberType");
  s.blob_type = text("KDX\\DB", "BLOBType");
  s.blob_max_size = number("KDX\\DB", "BLOBMaxSize", 0);
  s.backup_automatic = number("KDX\\Backup", "Automatic", 3);
  s.backup_admin = number("KDX\\Backup", "Admin", 3);
  s.backup_client = number("KDX\\Backup", "Client", 3);
  s.delete_after_complete = number("KDX\\Action", "DeleteAfterComplete", 0) != 0;
  s.log_admin = number("KDX\\Log", "LogAdmin", -1);
  s.log_server = number("KDX\\Log", "LogServer", -1);
  s.log_client = number("KDX\\Log", "LogClient", -1);
  s.audit_is_active = number("KDX", "AuditIsActive", 0) != 0;
  s.audit_display_max_count = number("KDX", "AuditDisplayMaxCount", 1000);
  s.audit_is_limited = boolean("KDX", "AuditIsLimited", false);
  s.audit_is_save_max_count = boolean("KDX", "AuditIsSaveMaxCount", true);
  s.audit_save_max_count = number("KDX", "AuditSaveMaxCount", 1000);
  s.audit_is_save_max_days = boolean("KDX", "AuditIsSaveMaxDays", false);
  s.audit_save_max_days = number("KDX", "AuditSaveMaxDays", 365);
  s.server_local_port = read("KDX", "ServerLocalPort", "0").ToText();
  s.tray_enabled = SettingBoolean(RegistryRead(registry, "HKEY_LOCAL_MACHINE:System",
                                               "CurrentControlSet\\Services",
                                               "KalvoSrv\\Parameters", "Taskbaricon", "1"));
}

void ReadPlatformSettings(RegistryStore& registry, Settings& s) {
  s.problems.clear();
  auto read = [&](std::string_view sub_key, std::string_view name, const RegistryValue& def) {
    return RegistryRead(registry, kSettingsRoot, kSettingsKey, sub_key, name, def);
  };
  // A number of at least `least`; anything else keeps the default and is reported.
  auto number = [&](std::string_view sub_key, std::string_view name, int32_t def, int32_t least,
                    int32_t& out) {
    const RegistryValue value = read(sub_key, name, def);
    try {
      const int32_t n = SettingNumber(value);
      if (n >= least) {
        out = n;
        return;
      }
    } catch (const RuntimeError&) {
      // Not a number, or beyond 32 bits: reported below.
    }
    out = def;
    s.problems.push_back(std::string(sub_key) + "\\" + std::string(name) + " = \"" +
                         value.ToText() + "\" is not a whole number of at least " +
                         std::to_string(least) + "; using " + std::to_string(def));
  };
  number("KDX", "MaxPackageSize", kDefaultMaxPackageSize, 1, s.max_package_size);
  number("KDX", "MaxSendQueue", kDefaultMaxSendQueue, 1, s.max_send_queue);
  number("KDX", "MaxBufferedBytes", kDefaultMaxBufferedBytes, 1, s.max_buffered_bytes);
  number("KDX", "MaxConnectionsPerAddress", kDefaultMaxConnectionsPerAddress, 0,
         s.max_connections_per_address);
  number("KDX", "StatusPort", kDefaultStatusPort, 0, s.status_port);
  s.certificate_library = read("KDX", "CertificateLibrary", "../libbrennic.so").ToText();
  s.admin_allowed_addresses = read("KDX", "AdminAllowedAddresses", "").ToText();
  number("KDX\\DB", "DatabaseTimeout", kDefaultDatabaseTimeout, 1, s.database_timeout);
  number("KDX\\DB", "DatabaseWorkers", 0, 0, s.database_workers);
}

bool CheckRegistrySettings(const Settings& s, Log& log, std::string* failure) {
  const std::string db = "Der Datenbankzugriff ist nicht korrekt eingerichtet! ";
  const std::string& port = s.server_local_port;
  auto port_in_range = [&] {
    const std::optional<int32_t> value = PortNumber(port);
    return value && *value >= 1025 && *value <= 65535;
  };
  // The sizes are held as numbers, so they need no "numeric" check: a non-numeric stored
  // value already ended the reading of the settings.
  const struct {
    std::function<bool()> passes;
    std::string line;
  } checks[] = {
      {[&] { return IsNumericText(port); },
       "Der zu verwendende Port des KDX ist nicht numerisch (aktuell: " + port +
           ")! - Es wird der Standard-Port 15243 verwendet!"},
      {port_in_range,
       "Der zu verwendende Port des KDX liegt außerhalb des gültigen Bereichs von 1025 bis "
       "65535 (aktuell: " +
           port + ")! - Es wird der Standard-Port 15243 verwendet!"},
      {[&] { return !s.dsn.empty(); }, db + "(DSN leer)"},
      {[&] { return !s.string_type.empty(); }, db + "(DBStringType leer)"},
      {[&] { return s.string_max_size != 0; }, db + "(DBStrinMaxSize = 0)"},
      {[&] { return !s.blob_type.empty(); }, db + "(DBBLOBType leer)"},
      {[&] { return s.blob_max_size != 0; }, db + "(DBBLOBMaxSize = 0)"},
  };
  for (const auto& check : checks) {
    if (check.passes()) continue;
    if (failure != nullptr) *failure = check.line;
    log.WriteLog(check.line);
    return false;
  }
  if (failure != nullptr) failure->clear();
  return true;
}

int32_t ChooseServerPort(const Settings& s, std::string* reason) {
  std::string why;
  int32_t port = kDefaultServerPort;
  const std::optional<int32_t> value = PortNumber(s.server_local_port);
  if (!value) {
    why = "ServerLocalPort invalid -> assuming default port 15243";
  } else if (*value == 0) {
    why = "ServerLocalPort not found in registry -> assuming default port 15243";
  } else {
    // Any other number is used as it is, also one the range check complained about.
    port = *value;
  }
  if (reason != nullptr) *reason = why;
  return port;
}

}  // namespace kalvo
