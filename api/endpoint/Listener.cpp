#include "api/endpoint/Listener.h"

#include <cerrno>
#include <chrono>
#include <sstream>
#include <string>

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/asio/strand.hpp>

namespace Witnessd::AttestApi {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

constexpr int kBacklog = 128;
constexpr auto kAcceptRetryDelay = std::chrono::milliseconds(100);

std::string EndpointText(const tcp::endpoint& ep) {
  std::ostringstream os;
  os << ep;
  return os.str();
}

}  // namespace

Listener::Listener(asio::io_context& io, std::shared_ptr<Connections> connections)
    : acceptor_(asio::make_strand(io)), delay_(acceptor_.get_executor()), connections_(std::move(connections)) {}

bool Listener::Listen(const tcp::endpoint& ep, const char* family_name) {
  boost::system::error_code ec;
  acceptor_.open(ep.protocol(), ec);
  if (!ec) {
    acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
  }
  if (!ec && ep.address().is_v6()) {
    acceptor_.set_option(asio::ip::v6_only(true), ec);
  }
  if (!ec) {
    acceptor_.bind(ep, ec);
  }
  if (!ec) {
    acceptor_.listen(kBacklog, ec);
  }
  Lumen::Log::Logger& log = connections_->Log();
  if (ec) {
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    LUMEN_LOG(log, kLumenError) << family_name << " Failed to listen on: " << EndpointText(ep)
                                << " ec: " << ec.category().name() << ":" << ec.value();
    return false;
  }
  listening_ = true;
  LUMEN_LOG(log, kLumenInfo) << "Listening on: " << EndpointText(acceptor_.local_endpoint(ec));
  return true;
}

void Listener::Close() {
  boost::system::error_code ignored;
  acceptor_.close(ignored);
  delay_.cancel();
}

uint16_t Listener::BoundPort() const {
  boost::system::error_code ec;
  return listening_ ? acceptor_.local_endpoint(ec).port() : 0;
}

void Listener::Accept() {
  bool full = connections_->Full();
  if (connections_->CapChanged(full)) {
    LUMEN_LOG(connections_->Log(), full ? kLumenWarning : kLumenInfo)
        << ".Acceptor info:" << (full ? ";ConnectionLimit " : ";ConnectionLimitCleared ")
        << connections_->MaxConnections();
  }
  if (full) {
    AcceptAtCap();
    return;
  }
  AcceptOne();
}

// AcceptLater retries Accept after the back-off delay, unless the listener
// is gone or closed by then.
void Listener::AcceptLater() {
  std::weak_ptr<Listener> weak = weak_from_this();
  delay_.expires_after(kAcceptRetryDelay);
  delay_.async_wait([weak, connections = connections_](const boost::system::error_code& timer_ec) {
    auto again = weak.lock();
    if (timer_ec || !again) {
      if (timer_ec != asio::error::operation_aborted) {
        LUMEN_LOG(connections->Log(), kLumenError) << "Delay timer Accept Error:" << timer_ec.message();
      }
      return;
    }
    again->Accept();
  });
}

// AcceptAtCap waits for a client in the listen backlog, then makes room for
// it by evicting the connection that has waited longest for a request head:
// an idle or half-sent connection must not keep a client out. When every
// connection is serving a request, leave new clients in the listen backlog:
// accepting them would only spend descriptors the open connections need.
void Listener::AcceptAtCap() {
  std::weak_ptr<Listener> weak = weak_from_this();
  acceptor_.async_wait(tcp::acceptor::wait_read, [weak](const boost::system::error_code& ec) {
    auto l = weak.lock();
    if (!l || ec == asio::error::operation_aborted || !l->acceptor_.is_open()) {
      return;
    }
    if (ec || (l->connections_->Full() && !l->connections_->EvictOldestWaiting())) {
      l->AcceptLater();
      return;
    }
    l->AcceptOne();
  });
}

// AcceptOne accepts one client, starts its connection and goes on accepting.
void Listener::AcceptOne() {
  std::weak_ptr<Listener> weak = weak_from_this();
  auto& io = static_cast<asio::io_context&>(acceptor_.get_executor().context());
  acceptor_.async_accept(asio::make_strand(io), [weak](const boost::system::error_code& ec, StrandSocket socket) {
    auto l = weak.lock();
    if (!l || ec == asio::error::operation_aborted || !l->acceptor_.is_open()) {
      return;
    }
    if (!ec) {
      l->connections_->Serve(std::move(socket));
      l->Accept();
      return;
    }
    Lumen::Log::Logger& log = l->connections_->Log();
    // A peer that gave up before the accept is no error of ours.
    if (ec == asio::error::connection_aborted) {
      l->Accept();
      return;
    }
    // Running out of descriptors or memory passes; wait and retry.
    if (ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space || ec == asio::error::no_memory ||
        ec.value() == ENFILE) {
      LUMEN_LOG(log, kLumenWarning) << ".Acceptor info:" << ";DelayAcceptError " << ec.message();
      l->AcceptLater();
      return;
    }
    LUMEN_LOG(log, kLumenError) << ".Acceptor info:" << ";TerminalAcceptError " << ec.message();
  });
}

}  // namespace Witnessd::AttestApi
