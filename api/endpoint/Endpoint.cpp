// The endpoint: its configuration, the connections it shares between its
// listeners, and the serving tasks on the runtime's thread pool.
#include "api/endpoint/Endpoint.h"

#include <sys/resource.h>

#include <algorithm>
#include <sstream>

#include "api/endpoint/Listener.h"
#include "platform/Hearth.h"
#include "platform/Log.h"

namespace Witnessd::AttestApi {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

constexpr int kServingTasks = 5;

}  // namespace

std::string FormatDuration(std::chrono::nanoseconds d) {
  struct Unit {
    int64_t ns;
    const char* name;
  };
  static const Unit kUnits[] = {{60'000'000'000, "minutes"}, {1'000'000'000, "seconds"},
                                {1'000'000, "milliseconds"}, {1'000, "microseconds"}, {1, "nanoseconds"}};
  int64_t left = d.count();
  std::string out;
  for (const Unit& u : kUnits) {
    int64_t n = left / u.ns;
    if (n == 0) {
      continue;
    }
    left -= n * u.ns;
    if (!out.empty()) {
      out += " and ";
    }
    out += std::to_string(n) + " " + u.name;
  }
  return out.empty() ? "0 nanoseconds" : out;
}

std::string ServerConfig::ToString() const {
  std::ostringstream os;
  os << "ServerConfig{port:" << port << " endpoint4:" << endpoint4 << ";endpoint6:" << endpoint6;
  if (!localizer) {
    os << ";Localizer not set";
  }
  os << " readTimeout:" << FormatDuration(read_timeout) << ";writeTimeout:" << FormatDuration(write_timeout)
     << ";httpBodySizeLimitInBytes:" << http_body_size_limit_in_bytes
     << " ProtocolHandlerSpec::extractors count:" << num_extractors << "}";
  return os.str();
}

int DefaultMaxConnections() {
  struct rlimit limit {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return kDefaultMaxConnections;
  }
  rlim_t room = limit.rlim_cur > static_cast<rlim_t>(kReservedDescriptors) ? limit.rlim_cur - kReservedDescriptors : 1;
  return static_cast<int>(std::min<rlim_t>(room, kDefaultMaxConnections));
}

Endpoint::Endpoint(uint16_t port, std::shared_ptr<asio::io_context> io,
                   std::shared_ptr<Lumen::Provider::ApiProvider> provider, NotificationCallback callback,
                   std::shared_ptr<Lumen::L10n::Localizer> localizer, std::shared_ptr<Lumen::Log::Logger> logger,
                   Timeouts timeouts, int max_connections, PublicDocuments documents)
    : io_(std::move(io)),
      connections_(std::make_shared<Connections>(std::move(provider), std::move(logger), timeouts,
                                                 kHttpBodySizeLimitInBytes, std::max(1, max_connections),
                                                 std::move(documents))),
      callback_(std::move(callback)),
      listener4_(std::make_shared<Listener>(*io_, connections_)),
      listener6_(std::make_shared<Listener>(*io_, connections_)) {
  config_.port = port;
  config_.endpoint4 = tcp::endpoint(asio::ip::make_address("127.0.0.1"), port);
  config_.endpoint6 = tcp::endpoint(asio::ip::make_address("::1"), port);
  config_.localizer = localizer ? std::move(localizer) : Lumen::L10n::LocalizerHelpers::GetDefaultLocalizer();
  config_.read_timeout = timeouts.read;
  config_.write_timeout = timeouts.write;
}

Endpoint::~Endpoint() {
  Stop();
}

bool Endpoint::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (started_ || stopped_) {
    return started_ && !stopped_;
  }
  LUMEN_LOG(connections_->Log(), kLumenInfo) << config_.ToString();
  bool ok4 = listener4_->Listen(config_.endpoint4, "IPv4");
  bool ok6 = listener6_->Listen(config_.endpoint6, "IPv6");
  if (!ok4 && !ok6) {
    return false;
  }
  for (const auto& l : {listener4_, listener6_}) {
    if (l->Listening()) {
      l->Accept();
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
  Log_Level(kLogInfo, "HTTP endpoint listening on TCP port %d\n", config_.port);
  if (callback_) {
    callback_("endpoint.started");
  }
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
  listener4_->Close();
  listener6_->Close();
}

uint16_t Endpoint::BoundPort4() const {
  return listener4_->BoundPort();
}

uint16_t Endpoint::BoundPort6() const {
  return listener6_->BoundPort();
}

}  // namespace Witnessd::AttestApi
