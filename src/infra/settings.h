// The server's settings as read from the registry at start-up, and their checks.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "infra/numbers.h"  // IsNumericText, used by the checks
#include "infra/registry_store.h"
#include "infra/registry_value.h"

namespace kalvo {

class Log;

inline constexpr std::string_view kSettingsRoot = "HKEY_LOCAL_MACHINE:Software";
inline constexpr std::string_view kSettingsKey = "Orvanta\\Zentara";
inline constexpr int32_t kDefaultServerPort = 15243;
inline constexpr int32_t kDefaultStatusPort = 15244;
// The default bound of one packet and of a connection's pending bytes: 64 MiB.
inline constexpr int32_t kDefaultMaxPackageSize = 64 * 1024 * 1024;
// The default bound of the replies queued for one connection and not yet sent: 8 MiB.
inline constexpr int32_t kDefaultMaxSendQueue = 8 * 1024 * 1024;
// The default bound of the bytes all receive buffers hold together: 256 MiB.
inline constexpr int32_t kDefaultMaxBufferedBytes = 256 * 1024 * 1024;
// The default number of connections one address may hold open at once.
inline constexpr int32_t kDefaultMaxConnectionsPerAddress = 256;
// The default time limit of a database login and of one statement, in seconds.
inline constexpr int32_t kDefaultDatabaseTimeout = 15;

// Every setting, with the default used when its value is missing.
struct Settings {
  // "KDX\DB"
  std::string dsn;
  std::string login_user;  // deciphered
  std::string login_pass;  // deciphered
  std::string string_type;
  int32_t string_max_size = 0;
  std::string number_type;
  std::string blob_type;
  int32_t blob_max_size = 0;
  // "KDX\Backup"
  int32_t backup_automatic = 3;
  int32_t backup_admin = 3;
  int32_t backup_client = 3;
  // "KDX\Action"
  bool delete_after_complete = false;
  // "KDX\Log"
  int32_t log_admin = -1;
  int32_t log_server = -1;
  int32_t log_client = -1;
  // "KDX"
  bool audit_is_active = false;
  int32_t audit_display_max_count = 1000;
  bool audit_is_limited = false;
  bool audit_is_save_max_count = true;
  int32_t audit_save_max_count = 1000;
  bool audit_is_save_max_days = false;
  int32_t audit_save_max_days = 365;
  std::string server_local_port = "0";  // as stored; Form_Load decides the port
  // "HKEY_LOCAL_MACHINE:System", "CurrentControlSet\Services", "KalvoSrv\Parameters"
  bool tray_enabled = true;
  // Settings of this platform, read after all of the above, each on its own: a value that
  // cannot be converted keeps its default and is named in `problems`.
  // "KDX"
  int32_t max_package_size = kDefaultMaxPackageSize;
  int32_t max_send_queue = kDefaultMaxSendQueue;
  int32_t max_buffered_bytes = kDefaultMaxBufferedBytes;
  // Connections one remote address may hold open at once; 0 = no limit.
  int32_t max_connections_per_address = kDefaultMaxConnectionsPerAddress;
  int32_t status_port = kDefaultStatusPort;
  std::string certificate_library = "../libbrennic.so";
  // IPv4 addresses and CIDR ranges, comma-separated, that may send console requests;
  // "" = every address.
  std::string admin_allowed_addresses;
  // "KDX\DB": seconds a login or one statement may take.
  int32_t database_timeout = kDefaultDatabaseTimeout;
  // "KDX\DB": threads that run the requests reaching the database; 0 = as suits the engine.
  int32_t database_workers = 0;
  // One English line per platform value that could not be read, naming the default used.
  std::vector<std::string> problems;

  bool operator==(const Settings&) const = default;
};

// Deciphers a stored credential (LoginUser, LoginPass).
using Decipher = std::function<std::string(std::string_view cipher_text)>;

// A value as a conversion to a 32-bit integer does it: numbers pass, numeric texts are
// rounded half to even; anything else throws RuntimeError 13 (type mismatch), a number
// beyond 32 bits RuntimeError 6.
int32_t SettingNumber(const RegistryValue& value);
// A value as a conversion to a Boolean does it: numbers are true when not 0; the texts
// "True" and "False" in any case; numeric texts as numbers; anything else throws as above.
bool SettingBoolean(const RegistryValue& value);

// Reads every setting in table order into `settings`. A value of the wrong type that cannot
// be converted (a text where a number is expected) throws RuntimeError 13 ("Type
// mismatch"); the values read before it are kept, the rest keep their defaults. The
// platform's own settings are not read here (ReadPlatformSettings).
void ReadSettings(RegistryStore& registry, const Decipher& decipher, Settings& settings);

// Reads the settings of this platform (MaxPackageSize and the values after it in Settings).
// Never throws: each value is converted on its own, and one that is not a number in its
// range keeps its default and gets a line in `settings.problems`, so neither a bad value
// here nor one of ReadSettings can leave another value (such as AdminAllowedAddresses)
// unread.
void ReadPlatformSettings(RegistryStore& registry, Settings& settings);

// Runs the start-up checks in order and stops at the first failure, which it logs (German).
// Gives true when all pass. `failure`, when given, receives the failing check's line.
bool CheckRegistrySettings(const Settings& settings, Log& log, std::string* failure = nullptr);

// The port to listen on: ServerLocalPort when it is a number other than 0 (also one outside
// 1025-65535, which the checks only complain about), else 15243. `reason` receives the
// fallback's log line ("not found" for 0, "invalid" for a text that is no number), or ""
// when the setting was used.
int32_t ChooseServerPort(const Settings& settings, std::string* reason);

}  // namespace kalvo
