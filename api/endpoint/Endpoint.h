// The daemon's HTTP endpoint on the loopback addresses: HTTP/1.1 with
// keep-alive, chunked bodies, the fixed error replies and the content types of
// the API, handing every call to the provider. The endpoint assembles the
// pieces: the request classifier (RequestClassifier.h), the connections and
// their cap (Connection.h) and one listener per address family (Listener.h).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "api/endpoint/Connection.h"
#include "api/endpoint/RequestClassifier.h"
#include "platform/lumen/Localizer.h"
#include "platform/lumen/Log.h"
#include "platform/lumen/Provider.h"

namespace Witnessd::AttestApi {

class Listener;

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
  // |documents| are served by GET to anyone.
  Endpoint(uint16_t port, std::shared_ptr<boost::asio::io_context> io,
           std::shared_ptr<Lumen::Provider::ApiProvider> provider, NotificationCallback callback,
           std::shared_ptr<Lumen::L10n::Localizer> localizer, std::shared_ptr<Lumen::Log::Logger> logger,
           Timeouts timeouts = Timeouts(), int max_connections = kDefaultMaxConnections,
           PublicDocuments documents = {});
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

 private:
  ServerConfig config_;
  std::shared_ptr<boost::asio::io_context> io_;
  std::shared_ptr<Connections> connections_;
  NotificationCallback callback_;
  std::shared_ptr<Listener> listener4_;
  std::shared_ptr<Listener> listener6_;
  std::mutex mutex_;
  bool started_ = false;
  bool stopped_ = false;
};

}  // namespace Witnessd::AttestApi
