// One address family's listener: the acceptor on a loopback address and the
// accept loop that holds the connection cap.
#pragma once

#include <cstdint>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "api/endpoint/Connection.h"

namespace Witnessd::AttestApi {

class Listener : public std::enable_shared_from_this<Listener> {
 public:
  Listener(boost::asio::io_context& io, std::shared_ptr<Connections> connections);

  // Listen opens the acceptor on |ep| and listens; a failure is logged with
  // |family_name| and leaves the acceptor closed.
  bool Listen(const boost::asio::ip::tcp::endpoint& ep, const char* family_name);
  bool Listening() const { return listening_; }

  // Accept keeps accepting clients and hands them to the connections.
  // Handlers hold neither the endpoint nor the I/O context: the endpoint owns
  // the listener, and a handler that runs after the listener is gone finds it
  // expired and stops.
  void Accept();

  // Close closes the acceptor and cancels a pending retry.
  void Close();

  // The port bound, 0 when not listening.
  uint16_t BoundPort() const;

 private:
  void AcceptLater();
  void AcceptAtCap();
  void AcceptOne();

  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer delay_;
  const std::shared_ptr<Connections> connections_;
  bool listening_ = false;
};

}  // namespace Witnessd::AttestApi
