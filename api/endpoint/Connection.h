// The endpoint's connections: what they share (the provider, the logger,
// their timeouts, the cap on open connections and the ones waiting for a
// request head), and the fixed replies they write. A connection itself lives
// in Connection.cpp, the translation unit that serves HTTP.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>

#include "platform/lumen/Log.h"
#include "platform/lumen/Provider.h"

namespace Witnessd::AttestApi {

// The levels of the framework logger the endpoint writes to.
inline constexpr int kLumenDebug = 1;
inline constexpr int kLumenInfo = 2;
inline constexpr int kLumenWarning = 3;
inline constexpr int kLumenError = 4;

// The fixed replies, byte for byte.
inline constexpr std::string_view kBadRequestReply =
    "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\nServer: Lumen-PicoHttp\r\n\r\n";
inline constexpr std::string_view kExpectationFailedReply =
    "HTTP/1.1 417 Expectation Failed\r\nConnection: close\r\nContent-Length: 0\r\nServer: Lumen-PicoHttp\r\n\r\n";
inline constexpr std::string_view kContinueReply = "HTTP/1.1 100 Continue\r\n\r\n";

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

// Every connection's handlers run on its own strand, made once when the
// connection is accepted; the concrete executor type spares each operation
// the type-erased executor's dispatch.
using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;
using StrandSocket = boost::asio::ip::tcp::socket::rebind_executor<Strand>::other;

class Connection;

// Connections is what every open connection shares and keeps alive, and the
// count the listeners hold against the cap. While the cap is reached, a
// client waiting to be accepted takes the place of the connection that has
// waited longest for a request head.
// The documents the endpoint serves to anyone by GET, outside the API.
struct PublicDocuments {
  // The JWK Set of the token-signing keys (application/json); null: 404.
  std::function<std::string()> jwks;
  // Why the daemon cannot serve, empty when it can; null: always healthy.
  std::function<std::string()> health_problem;
};

class Connections : public std::enable_shared_from_this<Connections> {
 public:
  Connections(std::shared_ptr<Lumen::Provider::ApiProvider> provider, std::shared_ptr<Lumen::Log::Logger> logger,
              const EndpointTimeouts& timeouts, size_t body_limit, int max_connections,
              PublicDocuments documents = {});

  // Serve serves an accepted client until its connection closes.
  void Serve(StrandSocket socket);

  // Full tells whether as many connections are open as the cap allows.
  bool Full() const { return open_.load() >= max_connections_; }
  // CapChanged records |full| and tells whether it differs from what the
  // previous call recorded; the listeners log the changes only.
  bool CapChanged(bool full) { return at_cap_.exchange(full) != full; }
  int MaxConnections() const { return max_connections_; }

  // EvictOldestWaiting closes the connection that has waited longest for a
  // request head, to make room for a client at the cap. Its place counts as
  // free at once; the socket is closed on the connection's strand. Returns
  // false when no connection waits for a head: every one is serving a
  // request.
  bool EvictOldestWaiting();

  Lumen::Log::Logger& Log() const { return *logger_; }

 private:
  friend class Connection;

  const std::shared_ptr<Lumen::Provider::ApiProvider> provider_;
  const std::shared_ptr<const Lumen::Json::TypeRegistry> types_;  // the provider's, fixed: fetched once
  const std::shared_ptr<Lumen::Log::Logger> logger_;
  const EndpointTimeouts timeouts_;
  const size_t body_limit_;
  const int max_connections_;
  const PublicDocuments documents_;
  std::atomic<int> open_{0};         // open connections, less those evicted
  std::atomic<bool> at_cap_{false};  // for logging the change only
  // The connections waiting for a request head, in the order their waits
  // began: the front one is evicted first. A connection moves its own node
  // in and out, so waiting allocates nothing.
  std::mutex waiting_mutex_;
  std::list<Connection*> waiting_;  // guarded by waiting_mutex_
};

}  // namespace Witnessd::AttestApi
