#include "core/tray_settings.h"

#include <cctype>
#include <cstdlib>

#include "infra/numbers.h"
#include "infra/registry.h"
#include "infra/registry_store.h"

namespace kalvo::tray {
namespace {

// The value as the server turns it into a Boolean: numbers are true unless 0, the texts
// "True" and "False" in any case, numeric texts by their number. A text the server could
// not convert leaves the icon on.
bool IconWanted(const RegistryValue& value) {
  if (value.IsNumber()) return value.ToLong() != 0;
  std::string text = value.ToText();
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (text == "false") return false;
  if (!IsNumericText(text)) return true;
  try {
    return NumericTextToInt32(text) != 0;
  } catch (...) {
    return true;  // beyond 32 bits: not 0
  }
}

}  // namespace

TraySettings ReadTraySettings(const std::string& path) {
  TraySettings settings;
  RegistryStore store(path);
  // Only what exists is read: a missing sub key would otherwise be offered for deletion.
  if (store.GetValue("HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\KalvoSrv\\"
                     "Parameters",
                     "Taskbaricon")) {
    const RegistryValue icon =
        RegistryRead(store, "HKEY_LOCAL_MACHINE:System", "CurrentControlSet\\Services",
                     "KalvoSrv\\Parameters", "Taskbaricon", "1");
    settings.tray_enabled = IconWanted(icon);
  }
  if (store.GetValue("HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX", "StatusPort")) {
    settings.status_port = RegistryRead(store, "HKEY_LOCAL_MACHINE:Software", "Orvanta\\Zentara",
                                        "KDX", "StatusPort", settings.status_port)
                               .ToLong();
  }
  return settings;
}

std::string TrayRegistryPath(const std::string& given) {
  if (!given.empty()) return given;
  const char* env = std::getenv("KALVOSRV_REGISTRY");
  return env != nullptr && *env != '\0' ? env : kDefaultRegistryFile;
}

std::string DefaultStatusUrl(int32_t port) {
  return "http://127.0.0.1:" + std::to_string(port) + "/status";
}

}  // namespace kalvo::tray
