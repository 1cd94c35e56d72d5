// The server object: owns every piece of process-wide state (settings, log, language,
// connection table, request state, counters, the status endpoint) and carries the start-up,
// service-control and shutdown sequence. main builds one; tests build their own.
#pragma once

#include <boost/asio/io_context.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "db/database.h"
#include "db/odbc_handles.h"
#include "host/status_endpoint.h"
#include "infra/cdebug.h"
#include "infra/language.h"
#include "infra/log.h"
#include "infra/program_info.h"
#include "infra/registry_store.h"
#include "infra/settings.h"
#include "net/connection_table.h"
#include "net/receive_buffers.h"
#include "requests/certificates.h"
#include "requests/dispatcher.h"
#include "requests/request.h"
#include "requests/request_scheduler.h"
#include "requests/server_state.h"

namespace kalvo {

// The database part of the settings.
DatabaseSettings DatabaseSettingsFrom(const Settings& settings);

struct ServerOptions {
  std::string registry_path;        // the .reg file
  ProgramInfo program;              // where language files lie; the log goes to its parent
  std::string log_path;             // "" = the program's log file
  bool started_as_service = false;  // by systemd, or --foreground
  std::string listen_address = "0.0.0.0";
  int language_id = 0x09;  // primary language id of the locale
};

// The log file the options ask for: `log_path`, or the program's own log file when it is "".
std::string LogPathFrom(const ServerOptions& options);

// What deciphers the stored credentials (LoginUser, LoginPass) when the settings are read:
// DecryptText under the program's version key. Holds its own copy of the key.
Decipher SettingsDecipher();

// Tray requests: 1 = add the icon, 2 = turn it to the ready state, 4 = delete it.
inline constexpr int32_t kTrayDelete = 4;
// The unload mode of a session end (the interactive user logs off).
inline constexpr int kUnloadSessionEnd = 2;
// The unload mode of an unload that the program itself asks for.
inline constexpr int kUnloadFromCode = 1;

class Server : public ConnectionEvents {
 public:
  // `io` must outlive the server. Nothing is opened until FormLoad().
  Server(boost::asio::io_context& io, ServerOptions options);
  ~Server() override;

  // The start-up sequence: language file, service check, settings and their checks, port
  // choice, listening. Afterwards StopLoading() tells whether the program must end.
  void FormLoad();
  // Reads every setting and prepares the process-wide state derived from them.
  void DoStartupSettings();

  // Service control events.
  bool ServiceStart();
  void ServiceStop();
  bool ServicePause();
  bool ServiceContinue();
  void ServiceControl(int service_event);

  // Shutdown: QueryUnload, then Unload (which gives true when the unload is refused), then
  // Terminate.
  void FormQueryUnload(int unload_mode);
  bool FormUnload();
  void FormTerminate();

  bool StopLoading() const { return stop_loading_; }
  bool RegistrySettingsOK() const { return registry_settings_ok_; }
  bool ServiceRunning() const { return service_running_; }
  bool Unloaded() const { return unloaded_; }
  uint16_t ListeningPort() const { return connections_.LocalPort(); }
  uint16_t StatusPort() const { return status_.port(); }
  int32_t BytesSent() const { return bytes_sent_; }
  int32_t BytesReceived() const { return bytes_received_; }
  const std::string& ServerStartTime() const { return server_start_time_; }
  const std::string& Title() const { return title_; }
  StatusSnapshot Snapshot() const;

  Log& log() { return log_; }
  Settings& settings() { return settings_; }
  Database& database() { return database_; }
  ServerState& state() { return state_; }
  ConnectionTable& connections() { return connections_; }

  // Socket events.
  void OnConnectionRequest(int index, const std::string& remote_address,
                           uint64_t request_id) override;
  void OnDataArrival(int index, std::string_view chunk) override;
  void OnSendProgress(int index, size_t bytes) override;
  void OnClose(int index) override;
  void OnError(int index, int number, const std::string& description) override;
  void OnConnectionRefused(const std::string& remote_address, size_t refused,
                           const std::string& reason) override;

  // Called whenever the number of connections changed (systemd status line).
  std::function<void(int connections)> on_connection_count_changed;

 private:
  // Adds `amount` to a 32-bit counter; overflow is an error and leaves the counter as it was.
  static void AddToCounter(int32_t& counter, int64_t amount);
  // Closes connection `index`; what the close leaves to the database (its audit entries, with
  // `failed` the error entry first, and the notice to the consoles) follows its requests.
  void SocketClose(int index, bool failed = false);
  // The database workers the settings ask for, or as suit the engine of the data source.
  int DatabaseWorkers();

  ServerOptions options_;
  RegistryStore registry_;
  Log log_;
  Language language_;
  Settings settings_;
  std::unique_ptr<CDebug> trace_;
  ServerState state_;
  ReceiveBuffers receive_buffers_;
  ConnectionTable connections_;
  OdbcEnvironment odbc_;
  Database database_;
  CertificateLibrary certificates_;
  // The language file is read by the workers too (the token list's Yes and No).
  std::mutex language_mutex_;
  Dispatcher dispatcher_;
  StatusEndpoint status_;
  // Last: its workers end before anything they use goes.
  RequestScheduler scheduler_;

  bool stop_loading_ = false;
  int form_unload_mode_ = 0;
  bool registry_settings_ok_ = false;
  bool service_running_ = false;
  bool unloaded_ = false;
  int32_t bytes_sent_ = 0;
  int32_t bytes_received_ = 0;
  std::string server_start_time_;
  int64_t start_time_unix_ = 0;
  std::string title_;
  std::string menu_status_, menu_info_, menu_help_;
  int32_t tray_request_ = 0;
  int32_t tray_request_done_ = 0;
  bool tray_icon_ready_ = false;
};

}  // namespace kalvo
