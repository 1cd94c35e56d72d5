#include "host/status_endpoint.h"

#include <gtest/gtest.h>
#include <stdlib.h>  // mkdtemp

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include "infra/log.h"
#include "infra/registry_store.h"

namespace kalvo {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using namespace std::chrono_literals;
using Response = http::response<http::string_body>;

// Every client operation gives up after this; the io loop after twice as long.
constexpr auto kClientTimeout = 3s;

template <typename Predicate>
void RunUntil(asio::io_context& io, Predicate ready) {
  io.restart();
  const auto deadline = std::chrono::steady_clock::now() + 2 * kClientTimeout;
  while (!ready() && io.run_one_until(deadline) > 0) {
  }
}

// A client on the endpoint's own io_context; each call drives the loop until it completes.
class Client {
 public:
  explicit Client(asio::io_context& io) : io_(io), stream_(io) {}

  beast::error_code Connect(uint16_t port) {
    return Await([&](auto done) {
      stream_.async_connect({asio::ip::address_v4::loopback(), port}, done);
    });
  }
  beast::error_code Write(const std::string& bytes) {
    return Await([&](auto done) { asio::async_write(stream_, asio::buffer(bytes), done); });
  }
  // One response; an error (end_of_stream, reset) when the server closed instead.
  beast::error_code Read(Response& response) {
    return Await([&](auto done) { http::async_read(stream_, buffer_, response, done); });
  }
  Response Get(const std::string& target, const std::string& method = "GET") {
    Response response;
    EXPECT_FALSE(Write(method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
    EXPECT_FALSE(Read(response));
    return response;
  }
  void Close() { stream_.close(); }

 private:
  template <typename Start>
  beast::error_code Await(Start start) {
    auto result = std::make_shared<std::optional<beast::error_code>>();
    stream_.expires_after(kClientTimeout);
    start([result](beast::error_code ec, std::size_t = 0) { *result = ec; });
    // The stream's own expiry ends the operation before RunUntil gives up.
    RunUntil(io_, [&] { return result->has_value(); });
    return result->value_or(asio::error::timed_out);
  }

  asio::io_context& io_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
};

StatusSnapshot SampleSnapshot() {
  StatusSnapshot s;
  s.listening = true;
  s.port = 15243;
  s.server_start_time = "05.03.2024 14:07:09";
  s.start_time_unix = 1709644029;
  s.bytes_sent = 1234;
  s.bytes_received = 2147483647;
  s.connection_count = 2;
  s.token_connection_count = 1;
  s.requests_by_package_id = {{101, 3}, {311, 12}};
  return s;
}

class StatusEndpointTest : public ::testing::Test {
 protected:
  StatusEndpointTest()
      : dir_(MakeTempDir()), registry_(dir_ + "/registry.reg"), log_(registry_, dir_ + "/k.log") {}
  ~StatusEndpointTest() override { std::filesystem::remove_all(dir_); }

  static std::string MakeTempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "status_test_XXXXXX");
    return ::mkdtemp(pattern.data());
  }

  // An endpoint on a free port that serves `snapshot`.
  std::unique_ptr<StatusEndpoint> Serve(std::function<StatusSnapshot()> snapshot = SampleSnapshot,
                                        StatusEndpointLimits limits = {}) {
    auto endpoint = std::make_unique<StatusEndpoint>(io_, log_, std::move(snapshot), limits);
    EXPECT_TRUE(endpoint->Start(0));
    EXPECT_NE(endpoint->port(), 0);
    return endpoint;
  }

  std::string LogText() {
    std::ifstream in(log_.path());
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string dir_;
  RegistryStore registry_;
  Log log_;
  asio::io_context io_;
};

TEST(StatusRendering, JsonCarriesEveryFigureAndUtf8StartTime) {
  StatusSnapshot s = SampleSnapshot();
  s.server_start_time = "M\xE4rz \"1\" \\ \t\x01";
  EXPECT_EQ(RenderStatusJson(s),
            "{\"listening\":true,\"paused\":false,\"port\":15243,"
            "\"serverStartTime\":\"M\xC3\xA4rz \\\"1\\\" \\\\ \\t\\u0001\","
            "\"startTimeUnix\":1709644029,\"bytesSent\":1234,\"bytesReceived\":2147483647,"
            "\"connectionCount\":2,\"tokenConnectionCount\":1,"
            "\"requestsByPackageId\":{\"101\":3,\"311\":12}}");
  EXPECT_NE(RenderStatusJson(StatusSnapshot{}).find("\"startTimeUnix\":null"), std::string::npos);
}

TEST(StatusRendering, MetricsAreTypedOnceAndCountRequestsPerPackageId) {
  const std::string text = RenderStatusMetrics(SampleSnapshot());
  for (const char* line :
       {"kalvosrv_bytes_received 2147483647\n", "kalvosrv_start_time_seconds 1709644029\n",
        "# TYPE kalvosrv_requests_total counter\n",
        "kalvosrv_requests_total{package_id=\"101\"} 3\n",
        "kalvosrv_requests_total{package_id=\"311\"} 12\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
  // Each sample's family is declared (HELP and TYPE) before it and only once.
  std::istringstream lines(text);
  std::set<std::string> typed, helped;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string first, second, name;
    words >> first >> second >> name;
    if (first == "#") {
      EXPECT_TRUE((second == "TYPE" ? typed : helped).insert(name).second) << line;
    } else {
      const std::string family = first.substr(0, first.find('{'));
      EXPECT_TRUE(typed.count(family) && helped.count(family)) << line;
    }
  }
  EXPECT_EQ(RenderStatusMetrics(StatusSnapshot{}).find("start_time_seconds"), std::string::npos);
}

TEST_F(StatusEndpointTest, ServesStatusAndMetricsOnOneKeepAliveConnection) {
  auto endpoint = Serve();
  Client client(io_);
  ASSERT_FALSE(client.Connect(endpoint->port()));
  const Response status = client.Get("/status");
  EXPECT_EQ(status.result(), http::status::ok);
  EXPECT_EQ(status[http::field::content_type], "application/json; charset=utf-8");
  EXPECT_EQ(status.body(), RenderStatusJson(SampleSnapshot()));
  const Response metrics = client.Get("/metrics");
  EXPECT_EQ(metrics.result(), http::status::ok);
  EXPECT_EQ(metrics[http::field::content_type], "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_EQ(metrics.body(), RenderStatusMetrics(SampleSnapshot()));

  // Two pipelined requests in one write get two replies in order.
  ASSERT_FALSE(client.Write(
      "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\nGET /status HTTP/1.1\r\nHost: x\r\n\r\n"));
  Response first, second;
  ASSERT_FALSE(client.Read(first));
  ASSERT_FALSE(client.Read(second));
  EXPECT_EQ(first.body(), RenderStatusMetrics(SampleSnapshot()));
  EXPECT_EQ(second.body(), RenderStatusJson(SampleSnapshot()));
}

TEST_F(StatusEndpointTest, AnswersUnknownPathsAndMethodsWithoutClosing) {
  struct Case {
    const char* method;
    const char* target;
    http::status expected;
    const char* reason;
  } cases[] = {
      {"GET", "/", http::status::not_found, "only two resources exist"},
      {"GET", "/statusx", http::status::not_found, "no prefix match"},
      {"POST", "/nope", http::status::not_found, "unknown path wins over method"},
      {"POST", "/status", http::status::method_not_allowed, "read-only resource"},
      {"DELETE", "/metrics", http::status::method_not_allowed, "read-only resource"},
      {"GET", "/status?refresh=1", http::status::ok, "a query string is ignored"},
  };
  auto endpoint = Serve();
  Client client(io_);
  ASSERT_FALSE(client.Connect(endpoint->port()));
  for (const Case& c : cases) {
    const Response response = client.Get(c.target, c.method);
    EXPECT_EQ(response.result(), c.expected) << c.method << " " << c.target << ": " << c.reason;
    if (c.expected == http::status::method_not_allowed) {
      EXPECT_EQ(response[http::field::allow], "GET");
    }
  }
}

TEST_F(StatusEndpointTest, UnreadableRequestsGetAnErrorAndTheConnectionCloses) {
  struct Case {
    std::string request;
    http::status expected;
    const char* reason;
  } cases[] = {
      {"GET /status HTTP/1.1\r\nX: " + std::string(9000, 'a') + "\r\n\r\n",
       http::status::request_header_fields_too_large, "header above 8 KiB"},
      {"GARBAGE\r\n\r\n", http::status::bad_request, "no request line"},
      {"GET /status HTTP/1.1\r\nConnection: close\r\n\r\n", http::status::ok,
       "the client asked to close"},
  };
  auto endpoint = Serve();
  for (const Case& c : cases) {
    Client client(io_);
    ASSERT_FALSE(client.Connect(endpoint->port()));
    ASSERT_FALSE(client.Write(c.request));
    Response response, none;
    ASSERT_FALSE(client.Read(response)) << c.reason;
    EXPECT_EQ(response.result(), c.expected) << c.reason;
    EXPECT_EQ(client.Read(none), http::error::end_of_stream) << c.reason;
  }
}

TEST_F(StatusEndpointTest, ThrowingSnapshotGives500AndServingContinues) {
  int calls = 0;
  auto endpoint = Serve([&] {
    if (++calls == 1) throw std::runtime_error("counters unavailable");
    return SampleSnapshot();
  });
  Client client(io_);
  ASSERT_FALSE(client.Connect(endpoint->port()));
  EXPECT_EQ(client.Get("/status").result(), http::status::internal_server_error);
  EXPECT_EQ(client.Get("/status").result(), http::status::ok);
}

TEST_F(StatusEndpointTest, StopClosesOpenConnectionsSoRunReturns) {
  auto endpoint = Serve();
  Client waiting(io_);
  ASSERT_FALSE(waiting.Connect(endpoint->port()));
  ASSERT_EQ(waiting.Get("/status").result(), http::status::ok);  // its session now waits

  asio::post(io_, [&] {
    endpoint->Stop();
    endpoint->Stop();
  });
  const auto start = std::chrono::steady_clock::now();
  Response none;
  EXPECT_TRUE(waiting.Read(none));  // the server closed it
  waiting.Close();
  io_.run_for(2 * kClientTimeout);
  EXPECT_TRUE(io_.stopped()) << "work left after Stop()";
  EXPECT_LT(std::chrono::steady_clock::now() - start, kClientTimeout);
  EXPECT_EQ(endpoint->port(), 0);
  EXPECT_FALSE(endpoint->Start(0)) << "an endpoint serves once";
}

TEST_F(StatusEndpointTest, DestroyingTheEndpointWithQueuedCompletionsIsSafe) {
  auto endpoint = Serve();
  Client client(io_);
  ASSERT_FALSE(client.Connect(endpoint->port()));
  ASSERT_EQ(client.Get("/status").result(), http::status::ok);
  // A request whose read may already have completed when the endpoint goes away.
  ASSERT_FALSE(client.Write("GET /status HTTP/1.1\r\nHost: x\r\n\r\n"));
  io_.poll();
  endpoint.reset();
  client.Close();
  io_.restart();
  io_.run_for(2 * kClientTimeout);
  EXPECT_TRUE(io_.stopped());
}

TEST_F(StatusEndpointTest, BoundsSessionsAndIdleTime) {
  auto endpoint = Serve(SampleSnapshot, {.max_sessions = 2, .idle_timeout = 1s});
  Client a(io_), b(io_), refused(io_);
  for (Client* c : {&a, &b}) {
    ASSERT_FALSE(c->Connect(endpoint->port()));
    ASSERT_EQ(c->Get("/status").result(), http::status::ok);
  }
  ASSERT_FALSE(refused.Connect(endpoint->port()));
  Response response;
  EXPECT_TRUE(refused.Write("GET /status HTTP/1.1\r\n\r\n") || refused.Read(response))
      << "a third session was served";

  // Both idle sessions time out, which frees room for a new one.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(a.Read(response));
  EXPECT_TRUE(b.Read(response));
  EXPECT_LT(std::chrono::steady_clock::now() - start, kClientTimeout);
  a.Close();
  b.Close();
  Client later(io_);
  ASSERT_FALSE(later.Connect(endpoint->port()));
  EXPECT_EQ(later.Get("/status").result(), http::status::ok);
}

TEST_F(StatusEndpointTest, PortInUseFailsWithALogLine) {
  auto first = Serve();
  StatusEndpoint second(io_, log_, SampleSnapshot);
  EXPECT_FALSE(second.Start(first->port()));
  EXPECT_EQ(second.port(), 0);
  EXPECT_NE(LogText().find("Status endpoint could not listen on 127.0.0.1:" +
                           std::to_string(first->port()) + ": "),
            std::string::npos)
      << LogText();
}

}  // namespace
}  // namespace kalvo
