#include "host/server.h"

#include <ctime>
#include <filesystem>

#include "host/config_check.h"
#include "infra/numbers.h"
#include "infra/runtime_error.h"
#include "infra/text_encoding.h"
#include "security/encryption.h"

namespace kalvo {

DatabaseSettings DatabaseSettingsFrom(const Settings& s) {
  return {s.dsn,         s.login_user, s.login_pass,    s.string_type,     s.string_max_size,
          s.number_type, s.blob_type,  s.blob_max_size, s.database_timeout};
}

std::string LogPathFrom(const ServerOptions& options) {
  return options.log_path.empty() ? Log::LogPathFor(options.program) : options.log_path;
}

Decipher SettingsDecipher() {
  return [key = VersionInfoKeyText()](std::string_view cipher) { return DecryptText(cipher, key); };
}

Server::Server(boost::asio::io_context& io, ServerOptions options)
    : options_(std::move(options)),
      registry_(options_.registry_path),
      log_(registry_, LogPathFrom(options_)),
      language_(options_.program, options_.language_id),
      receive_buffers_(log_),
      connections_(io, *this),
      database_(odbc_, log_),
      certificates_(""),
      dispatcher_(RequestContext{state_, connections_, log_, settings_, database_,
                                 [this](std::string_view section, std::string_view key) {
                                   std::lock_guard lock(language_mutex_);
                                   return language_.GetLanguageString(section, key);
                                 },
                                 certificates_, registry_}),
      status_(io, log_, [this] { return Snapshot(); }),
      scheduler_(io, dispatcher_) {
  registry_.SetWarningSink([this](const std::string& line) { log_.WriteLog(line); });
  log_.WriteLog("Form_Initialize...");
}

Server::~Server() { log_.SetTrace(nullptr); }

void Server::FormLoad() {
  try {
    log_.WriteLog("Form_Load startet");
    if (!language_.LanguageFileExists()) {
      // No language file: the message cannot come from one.
      std::fprintf(stderr, "Vaultara: %s\n",
                   "This component of the Vaultara is not proper installed and will now end.");
      log_.WriteLog("Language file was not found -> loading will be stopped");
      stop_loading_ = true;
    } else if (!options_.started_as_service) {
      const std::string text =
          language_.GetLanguageString("MSGBOX_SERVER", "ERROR_NO_SERVICE_START");
      const std::string title = language_.GetLanguageString("MAINWIN_SERVER", "TITLE");
      std::fprintf(stderr, "%s: %s\n", Cp1252ToUtf8(title).c_str(), Cp1252ToUtf8(text).c_str());
      log_.WriteLog("Not starting as service -> loading will be stopped");
      stop_loading_ = true;
    } else {
      stop_loading_ = false;
      log_.WriteLog(
          "Starting as service and language file was found -> loading will be "
          "continued");
    }
    if (stop_loading_) return;

    form_unload_mode_ = 0;
    if (std::error_code ec; !std::filesystem::exists(options_.registry_path, ec)) {
      // Without its settings the server would serve nothing but defaults.
      std::fprintf(stderr, "kalvosrv: ERROR: the registry file %s does not exist\n",
                   options_.registry_path.c_str());
      log_.WriteLog("Registry file " + options_.registry_path +
                    " not found -> loading will be stopped");
      stop_loading_ = true;
      return;
    }
    DoStartupSettings();
    // This platform's own values are read whatever happened above, so that a bad value of
    // the table cannot leave them (the console addresses among them) at their defaults.
    ReadPlatformSettings(registry_, settings_);
    for (const std::string& problem : settings_.problems) log_.WriteLog(problem);
    std::vector<std::string> address_problems;
    state_.console_addresses =
        AddressFilter::Parse(settings_.admin_allowed_addresses, &address_problems);
    for (const std::string& problem : address_problems) log_.WriteLog(problem);
    // Whatever was read, also when reading stopped early, is what the database and the
    // certificate library use.
    database_.set_settings(DatabaseSettingsFrom(settings_));
    certificates_ = CertificateLibrary(settings_.certificate_library);
    log_.WriteLog("DoStartupSettings completed");
    receive_buffers_.set_max_package_size(settings_.max_package_size);
    connections_.set_max_send_queue(static_cast<size_t>(settings_.max_send_queue));
    connections_.set_max_connections_per_address(settings_.max_connections_per_address);
    receive_buffers_.set_max_buffered_bytes(settings_.max_buffered_bytes);
    registry_settings_ok_ = CheckRegistrySettings(settings_, log_);
    log_.WriteLog(std::string("Checking registry settings resulted ") +
                  (registry_settings_ok_ ? "True" : "False"));

    std::string fallback;
    const int32_t port = ChooseServerPort(settings_, &fallback);
    if (!fallback.empty()) log_.WriteLog(fallback);
    std::string error;
    if (port < 1 || port > 65535) {
      throw RuntimeError(kErrInvalidCall,
                         "ServerLocalPort " + std::to_string(port) + " is no TCP port");
    }
    if (!connections_.Listen(static_cast<uint16_t>(port), &error, options_.listen_address)) {
      throw RuntimeError(10048, "Address in use or not available: port " + std::to_string(port) +
                                    " (" + error + ")");
    }
    log_.WriteLog("Now listening on port " + std::to_string(connections_.LocalPort()));
    scheduler_.on_settings_changed = [this](const Settings& changed) {
      settings_ = changed;
      database_.set_settings(DatabaseSettingsFrom(settings_));
    };
    scheduler_.Start(DatabaseWorkers());
    dispatcher_.set_scheduler(&scheduler_);
    log_.WriteLog("Database workers: " + std::to_string(scheduler_.workers()));

    bytes_sent_ = 0;
    bytes_received_ = 0;
    server_start_time_ = LogTimestamp();
    start_time_unix_ = static_cast<int64_t>(std::time(nullptr));
    if (settings_.status_port > 0 && settings_.status_port <= 65535) {
      status_.Start(static_cast<uint16_t>(settings_.status_port));
    }
    // Sockets on these ports are the server's own peers, never a database server's.
    odbc_.stall_guard().SetServerPorts({connections_.LocalPort(), status_.port()});
    // What an administrator's preflight would report goes to the journal as well (the port
    // is this process's own by now).
    for (const Finding& f : Preflight(options_, PreflightScope{true, false})) {
      std::fprintf(stderr, "kalvosrv: %s: %s\n", f.error ? "ERROR" : "WARNING", f.text.c_str());
    }
    log_.WriteLog("Form_Load complete");
  } catch (...) {
    LogCurrentException(log_, "Form_Load");
    // Without a listening port the service has nothing to offer: end it, so that the
    // service manager sees the failure instead of an idle process.
    std::fprintf(stderr, "kalvosrv: loading failed, see the log file %s\n", log_.path().c_str());
    stop_loading_ = true;
  }
}

void Server::DoStartupSettings() {
  try {
    ReadSettings(registry_, SettingsDecipher(), settings_);
    state_.admin_login_flag = false;
    title_ = language_.GetLanguageString("MAINWIN_SERVER", "TITLE");
    menu_status_ = language_.GetLanguageString("MENU_SERVER", "STATUS");
    menu_info_ = language_.GetLanguageString("MENU_SERVER", "INFO");
    menu_help_ = language_.GetLanguageString("MENU_SERVER", "HELP");
    tray_request_ = kTrayDelete;
    tray_request_done_ = kTrayDelete;
    tray_icon_ready_ = false;
    trace_ = std::make_unique<CDebug>(options_.program.dir);
    trace_->SetProgTitle("Vaultara - Administration");
    trace_->SetProgName("KalvoAdm");
    trace_->SetMaxFileSize(1024);
    trace_->SetToDebugger(true);
    trace_->SetToFile(false);
    trace_->SetToEventLog(false);
    log_.SetTrace(trace_.get());
  } catch (...) {
    // A setting that cannot be converted ends the reading here, silently; what was read so
    // far stays and the rest keep their defaults.
  }
}

bool Server::ServiceStart() {
  log_.WriteLog("Service_Start started");
  const bool success = !stop_loading_;
  if (success) service_running_ = true;
  // The closing line is the same whether or not the start succeeded.
  log_.WriteLog("Service_Start complete (Success = TRUE)");
  return success;
}

void Server::ServiceStop() {
  log_.WriteLog("Service_Stop started -> calling <unload me>");
  FormQueryUnload(kUnloadFromCode);
  if (!FormUnload()) unloaded_ = true;
  log_.WriteLog("Service_Stop complete");
}

bool Server::ServicePause() {
  log_.WriteLog("Service_Pause started");
  service_running_ = false;
  log_.WriteLog("Service_Pause complete (Success = TRUE)");
  return true;
}

bool Server::ServiceContinue() {
  log_.WriteLog("Service_Continue started");
  service_running_ = true;
  log_.WriteLog("Service_Continue complete (Success = TRUE)");
  return true;
}

void Server::ServiceControl(int service_event) {
  // Parameters may have changed on disk: the next read looks at the registry file again.
  registry_.Invalidate();
  log_.WriteLog("Service_Control (ServiceEvent = " + std::to_string(service_event) + ")");
}

void Server::FormQueryUnload(int unload_mode) {
  form_unload_mode_ = unload_mode;
  log_.WriteLog("Form_QueryUnload: FormUnloadMode = " + std::to_string(unload_mode));
}

bool Server::FormUnload() {
  bool cancel = false;
  try {
    log_.WriteLog("Form_Unload startet");
    if (stop_loading_) {
      log_.WriteLog(
          "Program will be terminated because another instance is running or the language file "
          "was not found or the program was started with parameters.");
    } else if (form_unload_mode_ != kUnloadSessionEnd) {
      log_.WriteLog(
          "Program should be terminated -> Clearing all timer, removing tray icon and "
          "destroying objects");
      tray_request_ = kTrayDelete;
      tray_request_done_ = kTrayDelete;
      status_.Stop();
      connections_.CloseAll();
    } else {
      log_.WriteLog("The user is logging out -> aborting unload");
      tray_request_ = kTrayDelete;
      tray_request_done_ = kTrayDelete;
      cancel = true;
    }
    log_.WriteLog("Form_Unload complete");
  } catch (...) {
    LogCurrentException(log_, "Form_Unload");
  }
  return cancel;
}

void Server::FormTerminate() {
  log_.WriteLog("Form_Terminate started -> destroying all objects");
  log_.SetTrace(nullptr);
  trace_.reset();
  log_.WriteLog("Form_Terminate complete");
}

StatusSnapshot Server::Snapshot() const {
  StatusSnapshot s;
  s.listening = connections_.IsListening();
  s.paused = !service_running_;
  s.port = connections_.LocalPort();
  s.server_start_time = server_start_time_;
  s.start_time_unix = start_time_unix_;
  s.bytes_sent = bytes_sent_;
  s.bytes_received = bytes_received_;
  s.connection_count = connections_.ConnectionCount();
  s.token_connection_count = connections_.TokenConnectionCount();
  s.requests_by_package_id = state_.requests_by_package_id;
  return s;
}

void Server::AddToCounter(int32_t& counter, int64_t amount) {
  counter = CheckedAdd(counter, amount);
}

void Server::OnConnectionRequest(int index, const std::string& remote_address,
                                 uint64_t request_id) {
  try {
    log_.WriteLog("Socket_ConnectionRequest: " + remote_address +
                  " RequestID: " + std::to_string(request_id));
    (void)index;
    if (on_connection_count_changed) on_connection_count_changed(connections_.ConnectionCount());
  } catch (...) {
    LogCurrentException(log_, "Socket_ConnectionRequest");
  }
}

void Server::OnDataArrival(int index, std::string_view chunk) {
  try {
    try {
      AddToCounter(bytes_received_, static_cast<int64_t>(chunk.size()));
    } catch (...) {
      // The counter keeps its value; the data is still served.
      LogCurrentException(log_, "Socket_DataArrival");
    }
    if (!receive_buffers_.SocketGetData(index, chunk, state_.admin_login_flag)) return;
    SocketDataStruct record;
    while (receive_buffers_.SocketPrepareDataForExecution(index, record)) {
      dispatcher_.Submit(index, std::move(record));
      record = SocketDataStruct();
      // A handler may have closed this connection.
      if (!connections_.IsLoaded(index)) break;
    }
    // Past MaxBufferedBytes the connection whose buffer holds the most is closed (this one
    // or another), as any other close; its buffer is already gone, so this ends.
    while (const int victim = receive_buffers_.DropLargestOverBound(
               [this](int i) { return connections_.RemoteAddress(i); })) {
      SocketClose(victim);
    }
  } catch (...) {
    LogCurrentException(log_, "Socket_DataArrival");
  }
}

void Server::OnSendProgress(int, size_t bytes) {
  try {
    AddToCounter(bytes_sent_, static_cast<int64_t>(bytes));
  } catch (...) {
    LogCurrentException(log_, "Socket_SendProgress");
  }
}

void Server::OnClose(int index) { SocketClose(index); }

void Server::OnError(int index, int number, const std::string& description) {
  try {
    log_.WriteLog("Socket_Error: " + std::to_string(index) + " ErrorNr: " + std::to_string(number) +
                  " ErrorDesc: " + description);
  } catch (...) {
    LogCurrentException(log_, "Socket_Error");
  }
  SocketClose(index, true);
}

void Server::OnConnectionRefused(const std::string& remote_address, size_t refused,
                                 const std::string& reason) {
  try {
    const std::string who = remote_address.empty() ? "a new connection" : remote_address;
    log_.WriteLog("Socket_ConnectionRequest: " + who + " closed at once: " + reason + " (" +
                  std::to_string(refused) + (refused == 1 ? " connection" : " connections") +
                  " closed so since the last report)");
  } catch (...) {
    LogCurrentException(log_, "Socket_ConnectionRequest");
  }
}

int Server::DatabaseWorkers() {
  if (settings_.database_workers > 0) return settings_.database_workers;
  // SQLite writes one transaction at a time whatever the number of threads; two let a reader
  // run beside a writer. A database server serves several at once.
  bool sqlite = false;
  try {
    DbConnection probe(database_);
    const DatabaseSettings& s = database_.settings();
    probe.Open(s.dsn, s.user, s.password);
    sqlite = probe.dialect() == Dialect::kSqlite;
  } catch (...) {
    // Not reachable now: as for a database server.
  }
  return sqlite ? 2 : 4;
}

void Server::SocketClose(int index, bool failed) {
  try {
    const std::string tag = connections_.ConnectionTag(index);
    const std::string address = connections_.RemoteAddress(index);
    const uint64_t id = connections_.ConnectionId(index);
    const std::string prefix = "Socket_Close (" + std::to_string(index) + "): " + address;
    log_.WriteLog(prefix + " wird getrennt");
    receive_buffers_.Remove(index);
    state_.admin_connections.Remove(index);
    state_.pending_task_collections.erase(ConnectionKey(index));
    std::vector<AuditAction> audits;
    if (failed) audits.push_back(AuditAction::kError);
    if (!tag.empty()) audits.push_back(AuditAction::kDisconnect);
    const bool notify = state_.admin_connections.Count() > 0;
    if (!audits.empty() || notify) {
      scheduler_.SubmitClose(index, id, tag, address, std::move(audits), notify);
    }
    if (index < 1) {
      log_.WriteLog("Index = " + std::to_string(index) + " -> Nothing to be done");
    } else {
      log_.WriteLog("Index = " + std::to_string(index) + " -> Closing and unloading");
      connections_.Unload(index);
    }
    log_.WriteLog(prefix + " wurde getrennt");
  } catch (...) {
    LogCurrentException(log_, "Socket_Close");
    // Whatever failed, the slot must not stay loaded with a dead socket.
    connections_.Unload(index);
  }
  if (on_connection_count_changed) on_connection_count_changed(connections_.ConnectionCount());
}

}  // namespace kalvo
