// The daemon's HTTP endpoint on the loopback addresses.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "platform/lumen/Log.h"

namespace Witnessd::AttestApi {

class Endpoint {
 public:
  // Builds the configuration; opens nothing.
  Endpoint(uint16_t port, std::shared_ptr<boost::asio::io_context> io,
           std::shared_ptr<Lumen::Log::Logger> logger);
  ~Endpoint();

  // Start listens on 127.0.0.1 then ::1 and starts the serving tasks on the
  // runtime's thread pool. Returns true when at least one family listens.
  bool Start();

  // Stop closes the acceptors and stops the I/O context. Idempotent; safe to
  // call from the signal handler while requests are in flight.
  void Stop();

  // Ports actually bound, 0 when the family is not listening (for tests that
  // pass port 0).
  uint16_t BoundPort4() const;
  uint16_t BoundPort6() const;

 private:
  struct Listener;
  bool Listen(Listener* l, const char* family_name);
  void Accept(Listener* l);

  uint16_t port_;
  boost::asio::ip::tcp::endpoint endpoint4_;
  boost::asio::ip::tcp::endpoint endpoint6_;
  std::shared_ptr<boost::asio::io_context> io_;
  std::shared_ptr<Lumen::Log::Logger> logger_;
  std::unique_ptr<Listener> listener4_;
  std::unique_ptr<Listener> listener6_;
  std::mutex mutex_;
  bool started_ = false;
  bool stopped_ = false;
};

}  // namespace Witnessd::AttestApi
