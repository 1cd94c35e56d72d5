// The two registry settings the companion reads: whether the tray icon is wanted and the
// status endpoint's port.
#pragma once

#include <cstdint>
#include <string>

namespace kalvo::tray {

inline constexpr const char* kDefaultRegistryFile = "/etc/opt/zentara/registry.reg";

struct TraySettings {
  // "Taskbaricon" under the service's key
  // HKEY_LOCAL_MACHINE\System\CurrentControlSet\Services\KalvoSrv\Parameters:
  // "0", dword 0 or "False" switch the icon off.
  bool tray_enabled = true;
  // "StatusPort" under HKEY_LOCAL_MACHINE\Software\Orvanta\Zentara\KDX.
  int32_t status_port = 15244;
};

// Reads the settings from the registry file at `path`, with the defaults above for what is
// missing. A file that is missing or cannot be read (the server's file is often readable
// by root only) gives the defaults. Never writes the file.
TraySettings ReadTraySettings(const std::string& path);

// The registry file to read: `given` when not "", else $KALVOSRV_REGISTRY when set, else
// the server's default file.
std::string TrayRegistryPath(const std::string& given);

// "http://127.0.0.1:<port>/status".
std::string DefaultStatusUrl(int32_t port);

}  // namespace kalvo::tray
