// The status endpoint: a small HTTP server on 127.0.0.1 from which the tray companion and
// monitoring read the server's figures. GET /status gives JSON, GET /metrics the Prometheus
// text format; any other path is 404, any other method 405.
#pragma once

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "host/status_snapshot.h"

namespace kalvo {

class Log;
struct StatusEndpointState;

// Bounds that keep a misbehaving local client from holding resources.
struct StatusEndpointLimits {
  // Connections beyond this many open ones are closed as soon as they are accepted.
  std::size_t max_sessions = 64;
  // A connection that neither sends a whole request nor takes its reply in this time is closed.
  std::chrono::milliseconds idle_timeout{30000};
  // Largest request header accepted; a larger one gets 431 and the connection is closed.
  uint32_t header_limit = 8192;
};

// The JSON document of GET /status, one object on one line, texts converted to UTF-8.
std::string RenderStatusJson(const StatusSnapshot& snapshot);

// The Prometheus text exposition (format 0.0.4) of GET /metrics, with HELP and TYPE lines.
std::string RenderStatusMetrics(const StatusSnapshot& snapshot);

// Serves the endpoint on the caller's io_context. Everything, including the snapshot callback,
// runs on the thread that runs that io_context; the class is not thread-safe.
class StatusEndpoint {
 public:
  // `io` and `log` must outlive this object; `snapshot` is called once per /status or /metrics
  // request and may throw (the client then gets 500, the exception is logged). Nothing is
  // opened until Start().
  StatusEndpoint(boost::asio::io_context& io, Log& log, std::function<StatusSnapshot()> snapshot,
                 StatusEndpointLimits limits = {});
  // Stops serving (see Stop()).
  ~StatusEndpoint();
  StatusEndpoint(const StatusEndpoint&) = delete;
  StatusEndpoint& operator=(const StatusEndpoint&) = delete;

  // Listens on 127.0.0.1:`port` (0 picks a free port, see port()) and starts accepting.
  // Logs "Status endpoint listening on 127.0.0.1:<port>". When the port cannot be opened,
  // logs "Status endpoint could not listen on 127.0.0.1:<port>: <reason>" and returns false.
  // Also false when already started or stopped: an endpoint serves at most once.
  bool Start(uint16_t port);

  // The port being listened on; 0 before a successful Start() and after Stop().
  uint16_t port() const;

  // Closes the listening socket and every open connection, so that the io_context runs out
  // of work from this endpoint once the cancelled operations have completed. Idempotent.
  void Stop();

 private:
  // Shared with the pending operations, which may complete after this object is gone.
  std::shared_ptr<StatusEndpointState> state_;
};

}  // namespace kalvo
