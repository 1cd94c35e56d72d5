#include "host/status_endpoint.h"

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cstdio>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "infra/json_text.h"
#include "infra/log.h"
#include "infra/runtime_error.h"
#include "infra/text_encoding.h"
#include "net/listener.h"

namespace kalvo {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

class StatusSession;

// What the endpoint and its connections share. Pending operations hold it by shared_ptr, so
// it outlives the StatusEndpoint when the io_context still has their completions queued;
// `stopped` tells those completions that `log` and `snapshot` may be gone.
struct StatusEndpointState {
  StatusEndpointState(asio::io_context& io, Log& log, std::function<StatusSnapshot()> snapshot,
                      StatusEndpointLimits limits)
      : log(log), snapshot(std::move(snapshot)), limits(limits), acceptor(io), retry_timer(io) {}

  Log& log;
  std::function<StatusSnapshot()> snapshot;
  StatusEndpointLimits limits;
  tcp::acceptor acceptor;
  // Delays the next accept after a failed one (e.g. out of descriptors) so it cannot spin.
  asio::steady_timer retry_timer;
  // The open connections; each adds itself on construction and removes itself on destruction.
  std::unordered_set<StatusSession*> sessions;
  uint16_t port = 0;
  bool started = false;
  bool stopped = false;
};

namespace {

constexpr std::string_view kProcName = "StatusEndpoint";
// A status request has no body; anything larger is a malformed client.
constexpr uint64_t kBodyLimit = 8192;
constexpr std::chrono::milliseconds kAcceptRetryDelay{100};

using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

void AppendMetric(std::string& out, std::string_view name, std::string_view type,
                  std::string_view help, int64_t value) {
  out.append("# HELP ").append(name).append(" ").append(help).append("\n");
  out.append("# TYPE ").append(name).append(" ").append(type).append("\n");
  out.append(name).append(" ").append(std::to_string(value)).append("\n");
}

bool IsHttpParseError(const beast::error_code& ec) {
  return ec.category() == http::make_error_code(http::error::bad_method).category();
}

Response TextResponse(http::status status, std::string body) {
  Response response{status, 11};
  response.set(http::field::content_type, "text/plain; charset=utf-8");
  response.body() = std::move(body);
  return response;
}

// The reply to a request that could not be read; the connection closes after it.
Response ClosingResponse(http::status status, std::string body) {
  Response response = TextResponse(status, std::move(body));
  response.keep_alive(false);
  return response;
}

// The reply to one parsed request. The snapshot is taken only for the two known paths.
Response BuildResponse(const Request& request, StatusEndpointState& state) {
  std::string_view path(request.target().data(), request.target().size());
  path = path.substr(0, path.find('?'));
  const bool is_status = path == "/status";
  const bool is_metrics = path == "/metrics";

  Response response;
  if (!is_status && !is_metrics) {
    response = TextResponse(http::status::not_found, "Not Found\n");
  } else if (request.method() != http::verb::get) {
    response = TextResponse(http::status::method_not_allowed, "Method Not Allowed\n");
    response.set(http::field::allow, "GET");
  } else {
    try {
      const StatusSnapshot snapshot = state.snapshot();
      response.result(http::status::ok);
      if (is_status) {
        response.set(http::field::content_type, "application/json; charset=utf-8");
        response.body() = RenderStatusJson(snapshot);
      } else {
        response.set(http::field::content_type, "text/plain; version=0.0.4; charset=utf-8");
        response.body() = RenderStatusMetrics(snapshot);
      }
      response.set(http::field::cache_control, "no-store");
    } catch (...) {
      LogCurrentException(state.log, kProcName, path);
      response = TextResponse(http::status::internal_server_error, "Internal Server Error\n");
    }
  }
  response.version(request.version());
  response.keep_alive(request.keep_alive());
  // A reply to HEAD carries no body, or the client would read it as the next reply.
  if (request.method() == http::verb::head) response.body().clear();
  return response;
}

}  // namespace

// One HTTP connection: read a request, write its reply, repeat while the client keeps the
// connection alive. Owned by shared_ptr: the pending read or write holds the last reference,
// so the session lives exactly as long as it has an operation in flight. StatusEndpoint::Stop()
// reaches every session through StatusEndpointState::sessions and closes its socket, which
// completes that operation and thereby frees the session.
class StatusSession : public std::enable_shared_from_this<StatusSession> {
 public:
  StatusSession(std::shared_ptr<StatusEndpointState> state, tcp::socket socket)
      : state_(std::move(state)), stream_(std::move(socket)) {
    state_->sessions.insert(this);
  }
  ~StatusSession() { state_->sessions.erase(this); }
  StatusSession(const StatusSession&) = delete;
  StatusSession& operator=(const StatusSession&) = delete;

  void Start() { ReadRequest(); }
  void Close() { stream_.close(); }

 private:
  void ReadRequest() {
    // A parser reads exactly one message, so every request gets a fresh one.
    parser_.emplace();
    parser_->header_limit(state_->limits.header_limit);
    parser_->body_limit(kBodyLimit);
    stream_.expires_after(state_->limits.idle_timeout);
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->OnRead(ec); });
  }

  void OnRead(beast::error_code ec) {
    if (state_->stopped) return;
    try {
      if (ec == http::error::end_of_stream) {
        CloseGracefully();
      } else if (ec == http::error::header_limit) {
        Send(ClosingResponse(http::status::request_header_fields_too_large,
                             "Request Header Fields Too Large\n"));
      } else if (IsHttpParseError(ec)) {
        Send(ClosingResponse(http::status::bad_request, "Bad Request\n"));
      } else if (ec) {
        Close();  // timeout, reset, or the peer left in the middle of a request
      } else {
        Send(BuildResponse(parser_->get(), *state_));
      }
    } catch (...) {
      LogCurrentException(state_->log, kProcName);
      Close();
    }
  }

  // Writes `response`; the connection goes on with the next request when it is keep-alive.
  void Send(Response response) {
    response_ = std::move(response);
    response_.set(http::field::server, "kalvosrv");
    response_.prepare_payload();
    stream_.expires_after(state_->limits.idle_timeout);
    http::async_write(
        stream_, response_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->OnWrite(ec); });
  }

  void OnWrite(beast::error_code ec) {
    if (state_->stopped) return;
    try {
      if (ec) {
        Close();
      } else if (!response_.keep_alive()) {
        CloseGracefully();
      } else {
        ReadRequest();
      }
    } catch (...) {
      LogCurrentException(state_->log, kProcName);
      Close();
    }
  }

  // Ends our side and reads until the client closes its own (or the idle time runs out):
  // closing with unread input would reset the connection and could destroy the reply before
  // the client has read it.
  void CloseGracefully() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    stream_.expires_after(state_->limits.idle_timeout);
    Drain();
  }

  void Drain() {
    stream_.async_read_some(
        asio::buffer(drain_),
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->OnDrain(ec); });
  }

  void OnDrain(beast::error_code ec) {
    if (state_->stopped) return;
    try {
      if (ec) {
        Close();
      } else {
        Drain();
      }
    } catch (...) {
      LogCurrentException(state_->log, kProcName);
      Close();
    }
  }

  std::shared_ptr<StatusEndpointState> state_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  Response response_;
  std::array<char, 1024> drain_{};
};

namespace {

void Accept(const std::shared_ptr<StatusEndpointState>& state);

// Accepts again after a pause: a failure that persists (out of descriptors, say) would
// otherwise repeat at once and spin.
void AcceptLater(const std::shared_ptr<StatusEndpointState>& state) {
  state->retry_timer.expires_after(kAcceptRetryDelay);
  state->retry_timer.async_wait([state](beast::error_code wait_ec) {
    if (!wait_ec && !state->stopped) Accept(state);
  });
}

// Serves one accepted connection, or closes it when too many are open. A failure here (no
// memory for the session, say) loses this connection only.
void Serve(const std::shared_ptr<StatusEndpointState>& state, tcp::socket socket) {
  try {
    if (state->sessions.size() >= state->limits.max_sessions) {
      beast::error_code ignored;
      socket.close(ignored);  // refused: too many open connections
    } else {
      std::make_shared<StatusSession>(state, std::move(socket))->Start();
    }
  } catch (...) {
    LogCurrentException(state->log, kProcName, "accept");
  }
}

// Keeps one accept pending for as long as the endpoint is not stopped: every path through the
// completion arms the next accept, at once or after a pause.
void Accept(const std::shared_ptr<StatusEndpointState>& state) {
  state->acceptor.async_accept([state](beast::error_code ec, tcp::socket socket) {
    if (state->stopped) return;
    try {
      if (ec) {
        state->log.LogError(ec.value(), ec.message(), kProcName, "accept");
        AcceptLater(state);
        return;
      }
      Serve(state, std::move(socket));
      Accept(state);
    } catch (...) {
      LogCurrentException(state->log, kProcName, "accept");
      try {
        AcceptLater(state);
      } catch (...) {
        // Not even the timer could be armed; the failure is already logged.
      }
    }
  });
}

}  // namespace

std::string RenderStatusJson(const StatusSnapshot& snapshot) {
  std::string out = "{\"listening\":";
  out += snapshot.listening ? "true" : "false";
  out += ",\"paused\":";
  out += snapshot.paused ? "true" : "false";
  out += ",\"port\":" + std::to_string(snapshot.port);
  out += ",\"serverStartTime\":";
  out += JsonString(snapshot.server_start_time);
  out += ",\"startTimeUnix\":";
  out += snapshot.start_time_unix != 0 ? std::to_string(snapshot.start_time_unix) : "null";
  out += ",\"bytesSent\":" + std::to_string(snapshot.bytes_sent);
  out += ",\"bytesReceived\":" + std::to_string(snapshot.bytes_received);
  out += ",\"connectionCount\":" + std::to_string(snapshot.connection_count);
  out += ",\"tokenConnectionCount\":" + std::to_string(snapshot.token_connection_count);
  out += ",\"requestsByPackageId\":{";
  bool first = true;
  for (const auto& [package_id, count] : snapshot.requests_by_package_id) {
    if (!first) out += ',';
    first = false;
    out += '"' + std::to_string(package_id) + "\":" + std::to_string(count);
  }
  out += "}}";
  return out;
}

std::string RenderStatusMetrics(const StatusSnapshot& snapshot) {
  std::string out;
  AppendMetric(out, "kalvosrv_listening", "gauge",
               "1 when the server's port is in the listening state, else 0.", snapshot.listening);
  AppendMetric(out, "kalvosrv_paused", "gauge", "1 while the service is paused, else 0.",
               snapshot.paused);
  // The byte counts are 32-bit and stop at their limit instead of wrapping, which a counter
  // must not do; a gauge says honestly what they are.
  AppendMetric(out, "kalvosrv_bytes_sent", "gauge",
               "Bytes sent since the start (32-bit; stops counting at the limit, the addition that "
               "would overflow is dropped).",
               snapshot.bytes_sent);
  AppendMetric(out, "kalvosrv_bytes_received", "gauge",
               "Bytes received since the start (32-bit; stops counting at the limit).",
               snapshot.bytes_received);
  AppendMetric(out, "kalvosrv_connections", "gauge", "Open client connections.",
               snapshot.connection_count);
  AppendMetric(out, "kalvosrv_token_connections", "gauge",
               "Open connections on which a token client has identified a token.",
               snapshot.token_connection_count);
  if (snapshot.start_time_unix != 0) {
    AppendMetric(out, "kalvosrv_start_time_seconds", "gauge",
                 "Start time of the server in seconds since the Unix epoch.",
                 snapshot.start_time_unix);
  }
  out +=
      "# HELP kalvosrv_requests_total Requests handled since the start, by PackageID.\n"
      "# TYPE kalvosrv_requests_total counter\n";
  for (const auto& [package_id, count] : snapshot.requests_by_package_id) {
    out += "kalvosrv_requests_total{package_id=\"" + std::to_string(package_id) + "\"} " +
           std::to_string(count) + "\n";
  }
  return out;
}

StatusEndpoint::StatusEndpoint(asio::io_context& io, Log& log,
                               std::function<StatusSnapshot()> snapshot,
                               StatusEndpointLimits limits)
    : state_(std::make_shared<StatusEndpointState>(io, log, std::move(snapshot), limits)) {}

StatusEndpoint::~StatusEndpoint() { Stop(); }

bool StatusEndpoint::Start(uint16_t port) {
  StatusEndpointState& state = *state_;
  if (state.started || state.stopped) return false;
  try {
    const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), port);
    beast::error_code ec = OpenListener(state.acceptor, endpoint);
    if (!ec) state.port = state.acceptor.local_endpoint(ec).port();
    if (ec) {
      beast::error_code ignored;
      state.acceptor.close(ignored);
      state.port = 0;
      // Forced: without the endpoint the tray companion shows nothing, so the reason must
      // reach the log whatever the log level.
      state.log.WriteLog("Status endpoint could not listen on 127.0.0.1:" + std::to_string(port) +
                             ": " + ec.message(),
                         true);
      return false;
    }
    state.started = true;
    state.log.WriteLog("Status endpoint listening on 127.0.0.1:" + std::to_string(state.port));
    Accept(state_);
    return true;
  } catch (...) {
    LogCurrentException(state.log, kProcName, "Start");
    beast::error_code ignored;
    state.acceptor.close(ignored);
    state.port = 0;
    return false;
  }
}

uint16_t StatusEndpoint::port() const { return state_->port; }

void StatusEndpoint::Stop() {
  StatusEndpointState& state = *state_;
  if (state.stopped) return;
  state.stopped = true;
  state.port = 0;
  beast::error_code ignored;
  state.acceptor.close(ignored);
  try {
    state.retry_timer.cancel();
  } catch (...) {
    // A timer that cannot be cancelled fires once and sees `stopped`.
  }
  // Closing does not free a session at once (its cancelled operation still holds it), but
  // copying first keeps the loop independent of that.
  const std::vector<StatusSession*> sessions(state.sessions.begin(), state.sessions.end());
  for (StatusSession* session : sessions) session->Close();
}

}  // namespace kalvo
