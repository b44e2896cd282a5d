#include "api/endpoint/Endpoint.h"

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/socket_base.hpp>
#include <sstream>

#include "platform/Hearth.h"
#include "platform/Log.h"

namespace Witnessd::AttestApi {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

constexpr int kLumenInfo = 2;
constexpr int kLumenError = 4;
constexpr int kServingTasks = 5;
constexpr int kBacklog = 128;

std::string EndpointText(const tcp::endpoint& ep) {
  std::ostringstream os;
  os << ep;
  return os.str();
}

}  // namespace

struct Endpoint::Listener {
  explicit Listener(asio::io_context& io) : acceptor(io) {}
  tcp::acceptor acceptor;
  bool listening = false;
};

Endpoint::Endpoint(uint16_t port, std::shared_ptr<asio::io_context> io,
                   std::shared_ptr<Lumen::Log::Logger> logger)
    : port_(port),
      endpoint4_(asio::ip::make_address("127.0.0.1"), port),
      endpoint6_(asio::ip::make_address("::1"), port),
      io_(std::move(io)),
      logger_(std::move(logger)),
      listener4_(std::make_unique<Listener>(*io_)),
      listener6_(std::make_unique<Listener>(*io_)) {}

Endpoint::~Endpoint() {
  Stop();
}

bool Endpoint::Listen(Listener* l, const char* family_name) {
  const tcp::endpoint& ep = l == listener4_.get() ? endpoint4_ : endpoint6_;
  boost::system::error_code ec;
  l->acceptor.open(ep.protocol(), ec);
  if (!ec) {
    l->acceptor.set_option(asio::socket_base::reuse_address(true), ec);
  }
  if (!ec && ep.address().is_v6()) {
    l->acceptor.set_option(asio::ip::v6_only(true), ec);
  }
  if (!ec) {
    l->acceptor.bind(ep, ec);
  }
  if (!ec) {
    l->acceptor.listen(kBacklog, ec);
  }
  if (ec) {
    boost::system::error_code ignored;
    l->acceptor.close(ignored);
    LUMEN_LOG(*logger_, kLumenError) << family_name << " Failed to listen on: " << EndpointText(ep)
                                     << " ec: " << ec.category().name() << ":" << ec.value();
    return false;
  }
  l->listening = true;
  LUMEN_LOG(*logger_, kLumenInfo) << "Listening on: " << EndpointText(l->acceptor.local_endpoint(ec));
  return true;
}

void Endpoint::Accept(Listener* l) {
  l->acceptor.async_accept([this, l](const boost::system::error_code& ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted || !l->acceptor.is_open()) {
      return;
    }
    // Connections are accepted and closed until request handling is attached.
    boost::system::error_code ignored;
    socket.close(ignored);
    Accept(l);
  });
}

bool Endpoint::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (started_ || stopped_) {
    return started_ && !stopped_;
  }
  bool ok4 = Listen(listener4_.get(), "IPv4");
  bool ok6 = Listen(listener6_.get(), "IPv6");
  if (!ok4 && !ok6) {
    return false;
  }
  for (Listener* l : {listener4_.get(), listener6_.get()}) {
    if (l->listening) {
      Accept(l);
    }
  }
  auto& pool = Hearth::Service::GetApp().GetThreadPool();
  for (int i = 0; i < kServingTasks; ++i) {
    pool.Post([io = io_] {
      auto guard = asio::make_work_guard(*io);
      io->run();
    });
  }
  started_ = true;
  Log_Level(kLogInfo, "HTTP endpoint listening on TCP port %d\n", port_);
  return true;
}

void Endpoint::Stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) {
    return;
  }
  stopped_ = true;
  // Stop the serving loops first so no handler touches an acceptor while it
  // is closed here.
  io_->stop();
  boost::system::error_code ignored;
  listener4_->acceptor.close(ignored);
  listener6_->acceptor.close(ignored);
}

uint16_t Endpoint::BoundPort4() const {
  boost::system::error_code ec;
  return listener4_->listening ? listener4_->acceptor.local_endpoint(ec).port() : 0;
}

uint16_t Endpoint::BoundPort6() const {
  boost::system::error_code ec;
  return listener6_->listening ? listener6_->acceptor.local_endpoint(ec).port() : 0;
}

}  // namespace Witnessd::AttestApi
