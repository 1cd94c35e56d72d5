#include "host/service_host.h"

#include <sys/resource.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-journal.h>

#include <boost/asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace kalvo {
namespace {

// The service control event of a parameter change.
constexpr int kServiceEventParamChange = 6;

// A log line for the journal (LogToJournal), tagged so that "journalctl -t kalvosrv" finds it
// also outside the unit. Lines are text, never a format.
void SendToJournal(std::string_view line) {
  sd_journal_send("MESSAGE=%.*s", static_cast<int>(line.size()), line.data(), "PRIORITY=%d",
                  LOG_INFO, "SYSLOG_IDENTIFIER=kalvosrv", nullptr);
}

}  // namespace

int RunService(const ServerOptions& options) {
  boost::asio::io_context io;
  Server server(io, options);
  server.log().SetJournalSink(SendToJournal);
  // Taken over before loading, so that a control sent as soon as the log says the server is
  // loaded waits for its handler instead of ending the process (SIGUSR1's default action).
  boost::asio::signal_set signals(io, SIGTERM, SIGINT, SIGUSR1);
  signals.add(SIGUSR2);
  signals.add(SIGHUP);
  // Before anything opens descriptors; the log can say so only once it exists.
  const std::string descriptor_limit = RaiseDescriptorLimit();
  server.log().WriteLog(descriptor_limit);
  server.FormLoad();
  if (server.StopLoading()) {
    server.FormQueryUnload(kUnloadFromCode);
    server.FormUnload();
    server.FormTerminate();
    return 1;
  }
  server.ServiceStart();
  server.on_connection_count_changed = [](int count) {
    sd_notifyf(0, "STATUS=%d connections", count);
  };
  sd_notifyf(0, "READY=1\nSTATUS=listening on port %u, 0 connections",
             static_cast<unsigned>(server.ListeningPort()));

  std::function<void(const boost::system::error_code&, int)> on_signal =
      [&](const boost::system::error_code& ec, int signal_number) {
        if (ec) return;
        switch (signal_number) {
          case SIGTERM:
          case SIGINT:
            sd_notify(0, "STOPPING=1");
            server.ServiceStop();
            if (server.Unloaded()) {
              server.FormTerminate();
              signals.cancel();
              io.stop();
              return;
            }
            break;
          case SIGUSR1:
            server.ServicePause();
            sd_notify(0, "STATUS=paused");
            break;
          case SIGUSR2:
            server.ServiceContinue();
            sd_notify(0, "STATUS=running");
            break;
          case SIGHUP:
            sd_notify(0, "RELOADING=1");
            server.ServiceControl(kServiceEventParamChange);
            sd_notify(0, "READY=1");
            break;
        }
        signals.async_wait(on_signal);
      };
  signals.async_wait(on_signal);
  io.run();
  return 0;
}

std::string RaiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return std::string("Open file limit unknown: ") + std::strerror(errno);
  }
  const rlim_t before = limit.rlim_cur;
  if (limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      return "Open file limit " + std::to_string(before) + " (raising it to " +
             std::to_string(limit.rlim_max) + " failed: " + std::strerror(errno) + ")";
    }
  }
  return "Open file limit " + std::to_string(limit.rlim_cur) +
         (before == limit.rlim_cur ? "" : " (raised from " + std::to_string(before) + ")");
}

}  // namespace kalvo
