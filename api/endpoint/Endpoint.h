// The daemon's HTTP endpoint on the loopback addresses: HTTP/1.1 with
// keep-alive, chunked bodies, the fixed error replies and the content types of
// the API, handing every call to the provider.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "platform/lumen/Localizer.h"
#include "platform/lumen/Log.h"
#include "platform/lumen/Provider.h"

namespace Witnessd::AttestApi {

inline constexpr size_t kHttpBodySizeLimitInBytes = 2500000;

// The fixed replies, byte for byte.
inline constexpr std::string_view kBadRequestReply =
    "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\nServer: Lumen-PicoHttp\r\n\r\n";
inline constexpr std::string_view kExpectationFailedReply =
    "HTTP/1.1 417 Expectation Failed\r\nConnection: close\r\nContent-Length: 0\r\nServer: Lumen-PicoHttp\r\n\r\n";
inline constexpr std::string_view kContinueReply = "HTTP/1.1 100 Continue\r\n\r\n";

// ServerConfig is fixed at construction; nothing comes from the settings file.
struct ServerConfig {
  uint16_t port = 0;
  boost::asio::ip::tcp::endpoint endpoint4;
  boost::asio::ip::tcp::endpoint endpoint6;
  std::shared_ptr<Lumen::L10n::Localizer> localizer;
  std::chrono::nanoseconds read_timeout = std::chrono::seconds(1200);
  std::chrono::nanoseconds write_timeout = std::chrono::seconds(1800);
  size_t http_body_size_limit_in_bytes = kHttpBodySizeLimitInBytes;
  size_t num_extractors = 0;

  // ToString renders the configuration for the log.
  std::string ToString() const;
};

// FormatDuration writes |d| in the largest fitting units, parts joined with
// "and": "20 minutes", "1 minutes and 30 seconds", "250 milliseconds".
std::string FormatDuration(std::chrono::nanoseconds d);

// What the endpoint does with one request, decided from its bytes alone.
enum class RequestVerdict {
  kServe,              // handed to the provider
  kIncomplete,         // more bytes needed
  kBadRequest,         // fixed 400 reply, connection closed
  kExpectationFailed,  // fixed 417 reply, connection closed
  kNotFound,           // 404: a path other than /api
  kTooLarge,           // 413 request_exceeds_max_size
  kInvalidContentType, // 415 invalid_content_type
  kInvalidRequest,     // 400 invalid_request: not a JSON-RPC invoke call, or a bad locale header
  kMetrics,            // GET /metrics: the metrics in Prometheus text format
};

// ClassifyHttpRequest parses |bytes| as one request in memory with the
// endpoint's limits and rules and returns its verdict. Used by the fuzzer and
// the tests; the network path uses the same checks.
RequestVerdict ClassifyHttpRequest(std::string_view bytes);

// Per-connection timeouts; tests pass short ones. |header| bounds the wait
// for a complete request head: from the accept, or on a kept-alive
// connection from the first byte of the next request. |idle| bounds the wait
// for that first byte. |read| bounds the body of a request whose head is
// complete, |write| the response.
struct EndpointTimeouts {
  std::chrono::nanoseconds read = std::chrono::seconds(1200);
  std::chrono::nanoseconds write = std::chrono::seconds(1800);
  std::chrono::nanoseconds header = std::chrono::seconds(10);
  std::chrono::nanoseconds idle = std::chrono::seconds(30);
};

// The most connections served at once when the settings do not say.
inline constexpr int kDefaultMaxConnections = 512;
// Descriptors kept free for everything but connections (store, logs,
// listeners, files read per request).
inline constexpr int kReservedDescriptors = 64;

// DefaultMaxConnections returns kDefaultMaxConnections, lowered so that
// connections never take more than the open-files limit leaves after
// kReservedDescriptors; at least 1.
int DefaultMaxConnections();

class Endpoint {
 public:
  using Timeouts = EndpointTimeouts;
  using NotificationCallback = std::function<void(const std::string& event)>;

  // Builds the configuration; opens nothing. |port| 0 binds an ephemeral
  // port per family (tests); BoundPort4/6 report it. While |max_connections|
  // connections are open, a client waiting to be accepted takes the place of
  // the connection that has waited longest for a request head (idle between
  // requests or with part of a head); when every connection is serving a
  // request, clients wait in the listen backlog until one closes.
  Endpoint(uint16_t port, std::shared_ptr<boost::asio::io_context> io,
           std::shared_ptr<Lumen::Provider::ApiProvider> provider, NotificationCallback callback,
           std::shared_ptr<Lumen::L10n::Localizer> localizer, std::shared_ptr<Lumen::Log::Logger> logger,
           Timeouts timeouts = Timeouts(), int max_connections = kDefaultMaxConnections);
  ~Endpoint();

  // Start listens on 127.0.0.1 then ::1 and starts the serving tasks on the
  // runtime's thread pool. Returns true when at least one family listens.
  bool Start();

  // Stop closes the acceptors and stops the I/O context. Idempotent; safe to
  // call from the signal handler while requests are in flight.
  void Stop();

  const ServerConfig& Config() const { return config_; }

  // Ports actually bound, 0 when the family is not listening.
  uint16_t BoundPort4() const;
  uint16_t BoundPort6() const;

  // Internals shared with the connection handlers.
  struct Shared;    // what every connection keeps alive
  struct Listener;  // one family's acceptor

 private:
  bool Listen(Listener* l, const char* family_name);

  ServerConfig config_;
  std::shared_ptr<boost::asio::io_context> io_;
  std::shared_ptr<Shared> shared_;
  NotificationCallback callback_;
  std::shared_ptr<Listener> listener4_;
  std::shared_ptr<Listener> listener6_;
  std::mutex mutex_;
  bool started_ = false;
  bool stopped_ = false;
};

}  // namespace Witnessd::AttestApi
