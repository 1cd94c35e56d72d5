#include "requests/configuration_requests.h"

#include "db/data_sources.h"
#include "db/inventory.h"
#include "infra/arrays.h"
#include "infra/numbers.h"
#include "infra/registry.h"
#include "infra/runtime_error.h"
#include "security/encryption.h"

namespace kalvo {
namespace {

constexpr std::string_view kNul("\0", 1);

std::string BooleanText(bool value) { return value ? "True" : "False"; }

// Writes one value below the product's settings key.
void WriteSetting(Request& r, std::string_view sub_key, std::string_view name,
                  const RegistryValue& value) {
  RegistryWrite(r.ctx.registry, kSettingsRoot, kSettingsKey, sub_key, name, value);
}

// The log level of the log writer for the console's log Server value 0 to 4; nothing for
// any other value.
std::optional<int32_t> LogLevelFor(int32_t log_server) {
  static constexpr int32_t kLevels[] = {0, 5, 7, 9, 10};
  if (log_server < 0 || log_server > 4) return std::nullopt;
  return kLevels[log_server];
}

// The silent reply of 350 and 351, which is not sent while AdminLoginFlag is set (a console
// that has just announced itself with 501); the flag is cleared instead.
void AnswerUnlessLoggingIn(Request& r, int32_t package_id, std::string data) {
  if (r.ctx.state.admin_login_flag) {
    r.ctx.state.admin_login_flag = false;
    return;
  }
  r.SetReply(package_id, std::move(data));
  r.ReplySilently();
}

// Sub-command 1: DSN, encrypted user and encrypted password, joined by NUL.
std::string CheckConnection(Request& r) {
  const std::vector<std::string> f = Split(r.record().Data, kNul);
  if (f.size() != 3) return "ERROR";
  return DBCheckConnection(r.ctx.database, f[0], DecryptCredentialText(f[1]),
                           DecryptCredentialText(f[2]))
             ? "OK"
             : "ERROR";
}

// Sub-command 6: the eight configuration fields and the mode 1 to 4, joined by NUL. On
// success the new configuration is the server's (its database and its settings) and is
// written to the registry.
std::string ConfigureTables(Request& r) {
  const std::vector<std::string> f = Split(r.record().Data, kNul);
  int32_t mode = 0;
  try {
    if (f.size() >= 9) mode = NumericTextToInt32(f[8]);
  } catch (const RuntimeError&) {
    return "-3";  // as for any other field that cannot be read
  }
  ConfigDatabaseHooks hooks;
  hooks.decrypt = DecryptCredentialText;
  hooks.language = r.ctx.language;
  hooks.store = [&r](const DatabaseSettings& s) {
    Settings& held = r.ctx.settings;
    held.dsn = s.dsn;
    held.login_user = s.user;
    held.login_pass = s.password;
    held.string_type = s.string_type;
    held.string_max_size = s.string_max_size;
    held.number_type = s.number_type;
    held.blob_type = s.blob_type;
    held.blob_max_size = s.blob_max_size;
    WriteSetting(r, "KDX\\DB", "DSN", s.dsn);
    WriteSetting(r, "KDX\\DB", "LoginUser", EncryptCredentialText(s.user));
    WriteSetting(r, "KDX\\DB", "LoginPass", EncryptCredentialText(s.password));
    WriteSetting(r, "KDX\\DB", "StringType", s.string_type);
    WriteSetting(r, "KDX\\DB", "StringMaxSize", s.string_max_size);
    WriteSetting(r, "KDX\\DB", "NumberType", s.number_type);
    WriteSetting(r, "KDX\\DB", "BLOBType", s.blob_type);
    WriteSetting(r, "KDX\\DB", "BLOBMaxSize", s.blob_max_size);
  };
  return std::to_string(DBConfigDatabase(r.ctx.database, r.record().Data, mode, hooks));
}

}  // namespace

void ReportSettings(Request& r) {
  const Settings& s = r.ctx.settings;
  const std::vector<std::string> values = {
      std::to_string(s.backup_automatic),     std::to_string(s.backup_admin),
      std::to_string(s.backup_client),        std::to_string(s.log_admin),
      std::to_string(s.log_server),           std::to_string(s.log_client),
      BooleanText(s.audit_is_active),         std::to_string(s.audit_display_max_count),
      BooleanText(s.audit_is_limited),        BooleanText(s.audit_is_save_max_count),
      std::to_string(s.audit_save_max_count), BooleanText(s.audit_is_save_max_days),
      std::to_string(s.audit_save_max_days)};
  r.SetReply(305, Join(values, "$"));
  r.Reply();
}

// The values replace the held settings in the report's order, as far as the console sent
// them; a value that cannot be converted ends the request there (no reply, nothing written,
// the values before it are held). Then all thirteen are written: the log values as Admin,
// Server and Client, although start-up reads LogAdmin, LogServer and LogClient; consoles
// of this system rely on exactly these names.
void UpdateSettings(Request& r) {
  Settings& s = r.ctx.settings;
  const std::vector<std::string> v = Split(r.record().Data, "$");
  int32_t* const numbers[] = {&s.backup_automatic, &s.backup_admin, &s.backup_client,
                              &s.log_admin,        &s.log_server,   &s.log_client};
  for (size_t i = 0; i < v.size() && i < 13; ++i) {
    const RegistryValue value(v[i]);
    switch (i) {
      case 6:
        s.audit_is_active = SettingBoolean(value);
        break;
      case 7:
        s.audit_display_max_count = SettingNumber(value);
        break;
      case 8:
        s.audit_is_limited = SettingBoolean(value);
        break;
      case 9:
        s.audit_is_save_max_count = SettingBoolean(value);
        break;
      case 10:
        s.audit_save_max_count = SettingNumber(value);
        break;
      case 11:
        s.audit_is_save_max_days = SettingBoolean(value);
        break;
      case 12:
        s.audit_save_max_days = SettingNumber(value);
        break;
      default:
        *numbers[i] = SettingNumber(value);
        break;
    }
  }
  // A flag is stored as the 32-bit number of a Boolean: -1 for true.
  auto flag = [](bool b) { return RegistryValue(b ? -1 : 0); };
  WriteSetting(r, "KDX\\Backup", "Automatic", s.backup_automatic);
  WriteSetting(r, "KDX\\Backup", "Admin", s.backup_admin);
  WriteSetting(r, "KDX\\Backup", "Client", s.backup_client);
  WriteSetting(r, "KDX\\Log", "Admin", s.log_admin);
  WriteSetting(r, "KDX\\Log", "Server", s.log_server);
  WriteSetting(r, "KDX\\Log", "Client", s.log_client);
  WriteSetting(r, "KDX", "AuditIsActive", flag(s.audit_is_active));
  WriteSetting(r, "KDX", "AuditDisplayMaxCount", s.audit_display_max_count);
  WriteSetting(r, "KDX", "AuditIsLimited", flag(s.audit_is_limited));
  WriteSetting(r, "KDX", "AuditIsSaveMaxCount", flag(s.audit_is_save_max_count));
  WriteSetting(r, "KDX", "AuditSaveMaxCount", s.audit_save_max_count);
  WriteSetting(r, "KDX", "AuditIsSaveMaxDays", flag(s.audit_is_save_max_days));
  WriteSetting(r, "KDX", "AuditSaveMaxDays", s.audit_save_max_days);
  if (const std::optional<int32_t> level = LogLevelFor(s.log_server)) {
    // Directly under the product key, where the log writer reads it.
    RegistryWrite(r.ctx.registry, kSettingsRoot, "Orvanta", "Zentara", "LogLevel", *level);
  }
  r.SetReply(306, "");
  r.Reply();
}

void ReportDatabaseSettings(Request& r) {
  const Settings& s = r.ctx.settings;
  // The password is never sent.
  AnswerUnlessLoggingIn(r, 350,
                        Join({s.dsn, s.login_user, s.string_type, std::to_string(s.string_max_size),
                              s.number_type, s.blob_type, std::to_string(s.blob_max_size)},
                             "|"));
}

void ConfigureDatabase(Request& r) {
  // A sub-command that is no number is a run-time error of the request: no answer, and the
  // console-login flag stays as it is.
  const int32_t sub_command = NumericTextToInt32(r.record().Misc1);
  const Settings& s = r.ctx.settings;
  std::string data;
  switch (sub_command) {
    case 1:
      data = CheckConnection(r);
      break;
    case 2:
      data = GetAllDSN(r.ctx.database.env()) + "\r\n" + s.dsn;
      break;
    case 3:
      data = EncryptCredentialText(s.login_user) + "|" + EncryptCredentialText(s.login_pass);
      break;
    case 4: {
      auto list = [&r](std::string_view name) {
        return RegistryRead(r.ctx.registry, kSettingsRoot, kSettingsKey, "KDX\\DB", name, "")
            .ToText();
      };
      data = list("ListStringType") + "|" + list("ListNumberType") + "|" + list("ListBLOBType");
      break;
    }
    case 5:
      data = DBExecuteTest(r.ctx.database, r.record().Data, DecryptCredentialText);
      break;
    case 6:
      data = ConfigureTables(r);
      break;
    default:
      break;
  }
  AnswerUnlessLoggingIn(r, 351, std::move(data));
}

std::string GetAllDSN(OdbcEnvironment& env) {
  std::vector<std::string> names;
  for (const DataSource& source : OdbcDataSources(env, DataSourceScope::kSystem)) {
    names.push_back(source.name);
  }
  return Join(names, kNul);
}

}  // namespace kalvo
