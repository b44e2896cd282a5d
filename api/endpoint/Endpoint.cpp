// The only translation unit that instantiates Boost.Beast: the HTTP session,
// the in-memory classifier and the listeners.
#include "api/endpoint/Endpoint.h"

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <list>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "platform/Hearth.h"
#include "platform/Log.h"
#include "platform/Metrics.h"
#include "platform/lumen/JsonRpc.h"

namespace Witnessd::AttestApi {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

constexpr int kLumenDebug = 1;
constexpr int kLumenInfo = 2;
constexpr int kLumenWarning = 3;
constexpr int kLumenError = 4;
constexpr int kServingTasks = 5;
constexpr int kBacklog = 128;
constexpr auto kAcceptRetryDelay = std::chrono::milliseconds(100);

constexpr const char* kServerName = "Lumen-PicoHttp";

std::string EndpointText(const tcp::endpoint& ep) {
  std::ostringstream os;
  os << ep;
  return os.str();
}

std::string_view View(beast::string_view s) {
  return {s.data(), s.size()};
}

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return out;
}

bool Contains(std::string_view haystack, std::string_view needle) {
  return haystack.find(needle) != std::string_view::npos;
}

// NoBodyExpected tells whether a response to |method| with |status| carries
// no body, so no Content-Length is written. The CONNECT test compares with a
// misspelled 8-character text and so never matches; kept as it is, since
// clients have only ever seen Content-Length on such replies.
bool NoBodyExpected(std::string_view method, unsigned status) {
  if ((status >= 100 && status < 200) || status == 204 || status == 304) {
    return true;
  }
  beast::string_view m(method.data(), method.size());
  return beast::iequals(m, "HEAD") || beast::iequals(m, "CONNNECT");
}

// The serialisation an accepted content type asks for.
struct ContentType {
  std::string value;  // as sent, without parameters
  bool decorated = true;
  bool streaming = false;
};

enum class TypeCheck { kAccepted, kFramed, kUnsupported };

TypeCheck CheckContentType(std::string_view header, ContentType* out) {
  std::string value = Lower(header.substr(0, header.find(';')));
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) {
    value.pop_back();
  }
  if (Contains(value, ".framed") || Contains(value, ".cframed")) {
    return TypeCheck::kFramed;
  }
  static const char* const kAccepted[] = {
      "application/json",
      "application/vnd.quarro.lumen.cleanjson",
      "application/vnd.quarro.lumen.stream.json",
      "application/vnd.quarro.lumen.clean.stream.json",
  };
  for (const char* accepted : kAccepted) {
    if (value == accepted) {
      out->value = value;
      out->decorated = !Contains(value, "clean");
      out->streaming = Contains(value, ".stream.json");
      return TypeCheck::kAccepted;
    }
  }
  return TypeCheck::kUnsupported;
}

bool WantsKeepAlive(const http::request<http::string_body>& req) {
  std::string connection = Lower(View(req[http::field::connection]));
  if (Contains(connection, "close")) {
    return false;
  }
  return req.version() >= 11 || Contains(connection, "keep-alive");
}

// ExpectationOk: no Expect header, or exactly 100-continue.
bool ExpectationOk(const http::request<http::string_body>& req, bool* wants_continue) {
  auto it = req.find(http::field::expect);
  *wants_continue = false;
  if (it == req.end()) {
    return true;
  }
  if (!beast::iequals(it->value(), "100-continue")) {
    return false;
  }
  *wants_continue = true;
  return true;
}

// Classified is the decision about one complete request.
struct Classified {
  RequestVerdict verdict = RequestVerdict::kBadRequest;
  const char* log_text = nullptr;
  ContentType type;
  std::string locale = "en_US";
  Lumen::JsonRpc::Call call;
};

Classified Classify(const http::request<http::string_body>& req) {
  Classified c;
  if (req.method() == http::verb::get && req.target() == "/metrics") {
    c.verdict = RequestVerdict::kMetrics;
    return c;
  }
  if (req.method() != http::verb::post) {
    c.log_text = "Request is considered as bad";
    return c;
  }
  if (req.target() != "/api") {
    c.verdict = RequestVerdict::kNotFound;
    return c;
  }
  switch (CheckContentType(View(req[http::field::content_type]), &c.type)) {
    case TypeCheck::kFramed:
      c.log_text = "Request is framed. Not supported";
      return c;
    case TypeCheck::kUnsupported:
      c.verdict = RequestVerdict::kInvalidContentType;
      return c;
    case TypeCheck::kAccepted:
      break;
  }
  if (Contains(Lower(View(req[http::field::accept])), ".stream.json")) {
    c.type.streaming = true;
  }
  for (beast::string_view name : {"lumen-ctx-format-locale", "accept-language"}) {
    auto it = req.find(name);
    if (it == req.end()) {
      continue;
    }
    if (!Lumen::L10n::ParseLocaleHeader(std::string(it->value()), &c.locale)) {
      c.verdict = RequestVerdict::kInvalidRequest;
      c.log_text = "Incorrect value of accept-language or lumen-ctx-format-locale header";
      return c;
    }
    break;
  }
  if (!Lumen::JsonRpc::ParseCall(req.body(), c.type.decorated, &c.call)) {
    c.verdict = RequestVerdict::kInvalidRequest;
    c.log_text = "Request deserialization failed";
    return c;
  }
  c.verdict = RequestVerdict::kServe;
  return c;
}

void ConfigureParser(http::request_parser<http::string_body>& parser, size_t body_limit) {
  parser.body_limit(body_limit);
}

// The endpoint's metrics; both are registered by the endpoint's constructor
// so that a scrape lists them before the first call. Of the call counts only
// the one for operations a client makes up is known up front (the label sets
// of the rest are operation by result), so the family starts with that one.
Metrics::Histogram& RequestSeconds() {
  static Metrics::Histogram& latency =
      Metrics::GetHistogram("witnessd_api_request_seconds", "Time from a request's last byte to its answer.");
  return latency;
}

prometheus::Family<Metrics::Counter>& ApiCalls() {
  static prometheus::Family<Metrics::Counter>& calls =
      Metrics::CounterFamily("witnessd_api_calls_total", "API calls answered, by operation and result.");
  return calls;
}

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

RequestVerdict ClassifyHttpRequest(std::string_view bytes) {
  http::request_parser<http::string_body> parser;
  ConfigureParser(parser, kHttpBodySizeLimitInBytes);
  parser.eager(false);
  beast::error_code ec;
  asio::const_buffer buf(bytes.data(), bytes.size());
  // Head first, as the session reads it: the Expect rule applies before any
  // body byte is looked at.
  while (!parser.is_header_done()) {
    size_t used = parser.put(buf, ec);
    buf += used;
    if (ec == http::error::need_more || (used == 0 && !ec)) {
      return RequestVerdict::kIncomplete;
    }
    if (ec == http::error::body_limit) {
      return RequestVerdict::kTooLarge;
    }
    if (ec) {
      return RequestVerdict::kBadRequest;
    }
  }
  bool wants_continue = false;
  if (!ExpectationOk(parser.get(), &wants_continue)) {
    return RequestVerdict::kExpectationFailed;
  }
  parser.eager(true);
  while (!parser.is_done()) {
    size_t used = parser.put(buf, ec);
    buf += used;
    if (ec == http::error::need_more || (used == 0 && !ec)) {
      return RequestVerdict::kIncomplete;  // the whole input was offered at once
    }
    if (ec == http::error::body_limit) {
      return RequestVerdict::kTooLarge;
    }
    if (ec) {
      return RequestVerdict::kBadRequest;
    }
  }
  return Classify(parser.get()).verdict;
}

int DefaultMaxConnections() {
  struct rlimit limit {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return kDefaultMaxConnections;
  }
  rlim_t room = limit.rlim_cur > static_cast<rlim_t>(kReservedDescriptors) ? limit.rlim_cur - kReservedDescriptors : 1;
  return static_cast<int>(std::min<rlim_t>(room, kDefaultMaxConnections));
}

namespace {
class HttpSession;
}  // namespace

struct Endpoint::Shared {
  std::shared_ptr<Lumen::Provider::ApiProvider> provider;
  std::shared_ptr<Lumen::Log::Logger> logger;
  std::chrono::nanoseconds read_timeout;
  std::chrono::nanoseconds write_timeout;
  std::chrono::nanoseconds header_timeout;
  std::chrono::nanoseconds idle_timeout;
  size_t body_limit;
  int max_connections;
  std::atomic<int> connections{0};  // open HttpSessions, less those evicted
  std::atomic<bool> at_cap{false};  // for logging the change only
  // The sessions waiting for a request head, in the order their waits began:
  // the front one is evicted first. A session moves its own node in and out,
  // so waiting allocates nothing.
  std::mutex waiting_mutex;
  std::list<HttpSession*> waiting;  // guarded by waiting_mutex
};

namespace {

// Every connection's handlers run on its own strand, made once when the
// connection is accepted; the concrete executor type spares each operation
// the type-erased executor's dispatch.
using Strand = asio::strand<asio::io_context::executor_type>;
using Socket = tcp::socket::rebind_executor<Strand>::other;
using Stream = beast::basic_stream<tcp, Strand>;

// HandlerMemory recycles the memory of one connection's asynchronous
// operations: the same few blocks serve every read and write, so a warm
// connection allocates nothing for them. A block is freed by whichever I/O
// thread completes its operation, hence the atomic flags.
class HandlerMemory {
 public:
  HandlerMemory() = default;
  HandlerMemory(const HandlerMemory&) = delete;
  HandlerMemory& operator=(const HandlerMemory&) = delete;

  void* Allocate(size_t size) {
    for (Block& b : blocks_) {
      if (size <= sizeof(b.storage) && !b.used.exchange(true, std::memory_order_acquire)) {
        return b.storage;
      }
    }
    return ::operator new(size);
  }

  void Deallocate(void* p) {
    for (Block& b : blocks_) {
      if (p == b.storage) {
        b.used.store(false, std::memory_order_release);
        return;
      }
    }
    ::operator delete(p);
  }

 private:
  // Four blocks cover the nested operations of a read or a write (the
  // message operation, its stream operation and the socket's).
  struct Block {
    alignas(std::max_align_t) unsigned char storage[1024];
    std::atomic<bool> used{false};
  };
  std::array<Block, 4> blocks_;
};

template <typename T>
class HandlerAllocator {
 public:
  using value_type = T;
  explicit HandlerAllocator(HandlerMemory* memory) : memory_(memory) {}
  template <typename U>
  HandlerAllocator(const HandlerAllocator<U>& other) : memory_(other.memory_) {}  // implicit: asio rebinds
  T* allocate(size_t n) { return static_cast<T*>(memory_->Allocate(sizeof(T) * n)); }
  void deallocate(T* p, size_t) { memory_->Deallocate(p); }
  bool operator==(const HandlerAllocator& other) const { return memory_ == other.memory_; }
  bool operator!=(const HandlerAllocator& other) const { return memory_ != other.memory_; }

 private:
  template <typename>
  friend class HandlerAllocator;
  HandlerMemory* memory_;
};

// WithMemory gives |handler| the connection's recycled memory for the
// operations it completes.
template <typename Handler>
class WithMemory {
 public:
  using allocator_type = HandlerAllocator<char>;
  WithMemory(HandlerMemory* memory, Handler handler) : memory_(memory), handler_(std::move(handler)) {}
  allocator_type get_allocator() const noexcept { return allocator_type(memory_); }
  template <typename... Args>
  void operator()(Args&&... args) {
    handler_(std::forward<Args>(args)...);
  }

 private:
  HandlerMemory* memory_;
  Handler handler_;
};

// HttpSession serves one connection. Every handler runs on the connection's
// strand; a call's result may come from any thread and is posted back. The
// one reference that keeps the session alive, |self|, is moved from each
// step to the next rather than copied.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  using Self = std::shared_ptr<HttpSession>;

  HttpSession(Socket socket, std::shared_ptr<Endpoint::Shared> shared)
      : strand_(socket.get_executor()), stream_(std::move(socket)), shared_(std::move(shared)) {
    ++shared_->connections;
  }
  ~HttpSession() {
    bool counted;
    {
      std::lock_guard<std::mutex> lock(shared_->waiting_mutex);
      Unwait();
      counted = !evicted_;
    }
    if (counted) {
      --shared_->connections;
    }
  }

  static void Run(Self self) {
    HttpSession* session = self.get();
    // Waiting from the accept on: the acceptor may evict the session before
    // its first read starts.
    session->BeginWait();
    asio::dispatch(session->strand_,
                   session->Bind([self = std::move(self)]() mutable { self->DoReadHeader(std::move(self)); }));
  }

  // EvictOldestWaiting closes the session that has waited longest for a
  // request head, to make room for a client at the cap. Its place counts as
  // free at once; the socket is closed on the session's strand. Returns false
  // when no session waits for a head: every one is serving a request.
  static bool EvictOldestWaiting(Endpoint::Shared& shared) {
    Self victim;
    {
      std::lock_guard<std::mutex> lock(shared.waiting_mutex);
      if (shared.waiting.empty()) {
        return false;
      }
      HttpSession* oldest = shared.waiting.front();
      oldest->Unwait();
      oldest->evicted_ = true;
      --shared.connections;
      // Null when the session is already being destroyed; its place is
      // released all the same, and its destructor no longer counts it.
      victim = oldest->weak_from_this().lock();
    }
    if (victim) {
      HttpSession* session = victim.get();
      asio::post(session->strand_, [victim = std::move(victim)] { victim->Close(); });
    }
    return true;
  }

  // Answer delivers a call's result on the strand.
  static void Answer(Self self, Lumen::JsonRpc::Call call, ContentType type, Lumen::Provider::MethodResult result) {
    HttpSession* session = self.get();
    asio::post(session->stream_.get_executor(),
               session->Bind([self = std::move(self), call = std::move(call), type = std::move(type),
                              result = std::move(result)]() mutable {
                 self->CountCall(call, result);
                 auto types = self->shared_->provider->Types();
                 std::string body = Lumen::JsonRpc::ResultBody(call, result, type.decorated, types.get());
                 HttpSession* to = self.get();
                 to->WriteResponse(std::move(self), http::status::ok, type.value, std::move(body), type.streaming,
                                   nullptr);
               }));
  }

 private:
  Lumen::Log::Logger& Log() { return *shared_->logger; }

  template <typename Handler>
  WithMemory<Handler> Bind(Handler handler) {
    return WithMemory<Handler>(&memory_, std::move(handler));
  }

  // CountCall records one answered call: by operation and result kind, and
  // its latency from the end of the request. A connection mostly repeats
  // one operation, so the last counter found is kept.
  void CountCall(const Lumen::JsonRpc::Call& call, const Lumen::Provider::MethodResult& result) {
    using Com::Quarro::Lumen::Std::Errors::Kind;
    std::optional<Kind> kind;
    if (result.error) {
      kind = result.error->kind;
    }
    if (counter_ == nullptr || kind != counted_kind_ || call.service_id != counted_service_ ||
        call.operation_id != counted_operation_) {
      std::string kind_name = kind ? Com::Quarro::Lumen::Std::Errors::KindName(*kind) : "ok";
      counter_ = &ApiCalls().Add({{"operation", OperationLabel(call, result)}, {"result", kind_name}});
      counted_kind_ = kind;
      counted_service_ = call.service_id;
      counted_operation_ = call.operation_id;
    }
    counter_->Increment();
    RequestSeconds().Observe(std::chrono::duration<double>(std::chrono::steady_clock::now() - request_done_).count());
  }

  // OperationLabel names the called operation; names a client makes up are
  // one label, "unknown", so that clients cannot grow the set of series.
  static std::string OperationLabel(const Lumen::JsonRpc::Call& call, const Lumen::Provider::MethodResult& result) {
    static constexpr size_t kMaxOperations = 256;
    static std::mutex mutex;
    static std::set<std::string> seen;
    if (result.error && result.error->kind == Com::Quarro::Lumen::Std::Errors::Kind::kOperationNotFound) {
      return "unknown";
    }
    std::string name = call.service_id + "." + call.operation_id;
    std::lock_guard<std::mutex> lock(mutex);
    if (seen.count(name) == 0) {
      if (seen.size() >= kMaxOperations) {
        return "unknown";
      }
      seen.insert(name);
    }
    return name;
  }

  // A connection waits for a request head from its accept, and when kept
  // alive from the end of each response, until the head is complete. While
  // it waits it may be evicted; once the head is complete it is serving and
  // keeps its place. BeginWait and EndWait return false when the session has
  // been evicted.
  bool BeginWait() {
    std::lock_guard<std::mutex> lock(shared_->waiting_mutex);
    if (evicted_) {
      return false;
    }
    shared_->waiting.splice(shared_->waiting.end(), wait_node_, wait_pos_);
    waiting_ = true;
    return true;
  }

  bool EndWait() {
    std::lock_guard<std::mutex> lock(shared_->waiting_mutex);
    Unwait();
    return !evicted_;
  }

  // Unwait takes the session out of the waiting sessions; the caller holds
  // the waiting mutex.
  void Unwait() {
    if (waiting_) {
      wait_node_.splice(wait_node_.end(), shared_->waiting, wait_pos_);
      waiting_ = false;
    }
  }

  // DoIdle waits, on a kept-alive connection, for the first byte of the next
  // request; the head then has the head timeout to complete. Bytes already
  // buffered (a pipelined request) start the head at once.
  void DoIdle(Self self) {
    if (!BeginWait()) {
      Close();
      return;
    }
    if (buffer_.size() > 0) {
      DoReadHeader(std::move(self));
      return;
    }
    stream_.expires_after(shared_->idle_timeout);
    stream_.async_read_some(buffer_.prepare(kIdleReadSize),
                            Bind([self = std::move(self)](beast::error_code ec, size_t n) mutable {
                              self->buffer_.commit(n);
                              if (ec) {
                                // Idle timeout, the peer's close or an eviction: nothing to answer.
                                self->EndWait();
                                self->Close();
                                return;
                              }
                              self->DoReadHeader(std::move(self));
                            }));
  }

  void DoReadHeader(Self self) {
    parser_.emplace();  // fresh parser per request
    ConfigureParser(*parser_, shared_->body_limit);
    stream_.expires_after(shared_->header_timeout);
    http::async_read_header(stream_, buffer_, *parser_,
                            Bind([self = std::move(self)](beast::error_code ec, size_t) mutable {
                              self->OnReadHeader(std::move(self), ec);
                            }));
  }

  void OnReadHeader(Self self, beast::error_code ec) {
    if (!EndWait()) {
      Close();  // evicted: its place went to a waiting client
      return;
    }
    if (ec == http::error::end_of_stream || ec == beast::error::timeout || ec == asio::error::operation_aborted ||
        ec == asio::error::connection_reset) {
      Close();
      return;
    }
    if (ec == http::error::body_limit) {
      SendTooLarge(std::move(self));
      return;
    }
    if (ec) {
      LUMEN_LOG(Log(), kLumenDebug) << "Request is considered as bad: " << ec.message();
      SendFixed(std::move(self), kBadRequestReply, true);
      return;
    }
    const auto& req = parser_->get();
    keep_alive_ = WantsKeepAlive(req);
    method_.assign(req.method_string().data(), req.method_string().size());
    bool wants_continue = false;
    if (!ExpectationOk(req, &wants_continue)) {
      LUMEN_LOG(Log(), kLumenWarning) << "Invalid Http request: Expect header value is not 100-continue";
      SendFixed(std::move(self), kExpectationFailedReply, false);
      return;
    }
    if (wants_continue && !parser_->is_done()) {
      stream_.expires_after(shared_->write_timeout);
      asio::async_write(stream_, asio::buffer(kContinueReply.data(), kContinueReply.size()),
                        Bind([self = std::move(self)](beast::error_code ec, size_t) mutable {
                          if (ec) {
                            LUMEN_LOG(self->Log(), kLumenDebug) << "Failed to sent response head " << ec.message();
                            self->Close();
                            return;
                          }
                          self->DoReadBody(std::move(self));
                        }));
      return;
    }
    DoReadBody(std::move(self));
  }

  void DoReadBody(Self self) {
    stream_.expires_after(shared_->read_timeout);
    http::async_read(stream_, buffer_, *parser_, Bind([self = std::move(self)](beast::error_code ec, size_t) mutable {
                       self->OnReadBody(std::move(self), ec);
                     }));
  }

  void OnReadBody(Self self, beast::error_code ec) {
    if (ec == http::error::body_limit) {
      SendTooLarge(std::move(self));
      return;
    }
    if (ec == beast::error::timeout || ec == asio::error::operation_aborted || ec == asio::error::connection_reset ||
        ec == http::error::end_of_stream || ec == http::error::partial_message) {
      LUMEN_LOG(Log(), kLumenDebug) << "lumen.recv.failed " << ec.message();
      Close();
      return;
    }
    if (ec) {
      LUMEN_LOG(Log(), kLumenDebug) << "Request is considered as bad: " << ec.message();
      SendFixed(std::move(self), kBadRequestReply, true);
      return;
    }
    request_done_ = std::chrono::steady_clock::now();
    Handle(std::move(self), parser_->release());
  }

  void Handle(Self self, http::request<http::string_body> req) {
    Classified c = Classify(req);
    if (c.log_text != nullptr) {
      LUMEN_LOG(Log(), kLumenInfo) << c.log_text;
    }
    switch (c.verdict) {
      case RequestVerdict::kServe:
        break;
      case RequestVerdict::kNotFound:
        WriteResponse(std::move(self), http::status::not_found, "", "", false, nullptr);
        return;
      case RequestVerdict::kMetrics:
        WriteResponse(std::move(self), http::status::ok, "text/plain; version=0.0.4", Metrics::RenderText(), false,
                      nullptr);
        return;
      case RequestVerdict::kInvalidContentType:
        WriteFrameworkError(std::move(self), http::status::unsupported_media_type, "application/json",
                            "invalid_content_type", "lumen.invalid.content.type");
        return;
      case RequestVerdict::kInvalidRequest:
        WriteFrameworkError(std::move(self), http::status::bad_request, "text/plain", "invalid_request",
                            "lumen.invalid.request");
        return;
      default:
        SendFixed(std::move(self), kBadRequestReply, true);
        return;
    }
    Lumen::Provider::Request call;
    call.service_id = c.call.service_id;
    call.operation_id = c.call.operation_id;
    call.input = std::move(c.call.input);
    call.security_ctx = std::move(c.call.security_ctx);
    call.ctx->op_id = c.call.op_id;
    call.ctx->locale = c.locale;

    // The guard answers INTERNAL_SERVER_ERROR if the provider drops the
    // callback without calling it, so every request gets exactly one reply.
    // It holds the session until then.
    struct ReplyGuard {
      Self session;
      Lumen::JsonRpc::Call call;
      ContentType type;
      std::atomic<bool> answered{false};
      void Give(Lumen::Provider::MethodResult r) {
        if (!answered.exchange(true)) {
          Answer(std::move(session), std::move(call), std::move(type), std::move(r));
        }
      }
      ~ReplyGuard() {
        if (!answered.load()) {
          Answer(std::move(session), std::move(call), std::move(type),
                 Lumen::Provider::MethodResult::Failure(Com::Quarro::Lumen::Std::Errors::InternalServerError()));
        }
      }
    };
    auto guard = std::make_shared<ReplyGuard>();
    guard->session = std::move(self);
    guard->call = std::move(c.call);
    guard->type = std::move(c.type);
    shared_->provider->Invoke(std::move(call),
                              [guard = std::move(guard)](Lumen::Provider::MethodResult r) { guard->Give(std::move(r)); });
  }

  void WriteFrameworkError(Self self, http::status status, std::string_view content_type, const char* key,
                           const std::string& message_id) {
    WriteResponse(std::move(self), status, content_type, Lumen::JsonRpc::FrameworkErrorBody(message_id), false, key);
  }

  void SendTooLarge(Self self) {
    keep_alive_ = false;  // the rest of the body is never read
    WriteFrameworkError(std::move(self), http::status::payload_too_large, "application/json",
                        "request_exceeds_max_size", "lumen.request.exceeds.max.size");
  }

  // WriteResponse sends the head and the body in one write: the head is
  // written into a buffer the connection keeps, the body is not copied.
  void WriteResponse(Self self, http::status status, std::string_view content_type, std::string body, bool chunked,
                     const char* lumen_error) {
    unsigned code = static_cast<unsigned>(status);
    beast::string_view reason = http::obsolete_reason(status);
    head_.assign("HTTP/1.1 ");
    head_ += std::to_string(code);
    head_ += ' ';
    head_.append(reason.data(), reason.size());
    head_ += "\r\nServer: ";
    head_ += kServerName;
    head_ += keep_alive_ ? "\r\nConnection: Keep-Alive" : "\r\nConnection: close";
    if (!content_type.empty()) {
      head_ += "\r\nContent-Type: ";
      head_ += content_type;
    }
    if (lumen_error != nullptr) {
      head_ += "\r\nlumen-error: ";
      head_ += lumen_error;
    }
    chunk_head_.clear();
    chunk_tail_.clear();
    if (chunked) {
      // The whole body as one chunk, then the last chunk.
      head_ += "\r\nTransfer-Encoding: chunked";
      if (!body.empty()) {
        char size_hex[2 * sizeof(size_t) + 3];
        std::snprintf(size_hex, sizeof(size_hex), "%zx\r\n", body.size());
        chunk_head_ = size_hex;
        chunk_tail_ = "\r\n";
      }
      chunk_tail_ += "0\r\n\r\n";
    } else if (!NoBodyExpected(method_, code)) {
      head_ += "\r\nContent-Length: ";
      head_ += std::to_string(body.size());
    }
    head_ += "\r\n\r\n";
    body_ = std::move(body);
    status_ = code;
    std::array<asio::const_buffer, 4> buffers = {asio::buffer(head_), asio::buffer(chunk_head_), asio::buffer(body_),
                                                 asio::buffer(chunk_tail_)};
    stream_.expires_after(shared_->write_timeout);
    bool framework_error = lumen_error != nullptr;
    asio::async_write(stream_, buffers,
                      Bind([self = std::move(self), framework_error](beast::error_code ec, size_t) mutable {
                        self->OnWritten(std::move(self), ec, framework_error);
                      }));
  }

  void OnWritten(Self self, beast::error_code ec, bool framework_error) {
    if (ec) {
      // "sent" is kept as operators' log searches know the texts.
      LUMEN_LOG(Log(), kLumenDebug) << (framework_error ? "Failed to sent Deserializer error "
                                                        : "Failed to deliver response. EC:")
                                    << ec.message();
      Close();
      return;
    }
    LUMEN_LOG(Log(), 0) << "Response head sent:" << status_;
    LUMEN_LOG(Log(), 0) << "Request handled";
    if (!keep_alive_) {
      Close();
      return;
    }
    DoIdle(std::move(self));
  }

  // SendFixed writes one of the fixed replies and closes the connection.
  void SendFixed(Self self, std::string_view reply, bool invalid_request) {
    stream_.expires_after(shared_->write_timeout);
    asio::async_write(stream_, asio::buffer(reply.data(), reply.size()),
                      Bind([self = std::move(self), invalid_request](beast::error_code ec, size_t) {
                        if (invalid_request) {
                          LUMEN_LOG(self->Log(), kLumenDebug)
                              << (ec ? "Failed to send InvalidRequest response:" : "Sent InvalidRequest response:")
                              << ec.message();
                        }
                        self->Close();
                      }));
  }

  void Close() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    stream_.socket().close(ignored);
  }

  // What DoIdle reads at most while waiting for a request's first byte.
  static constexpr size_t kIdleReadSize = 1024;

  HandlerMemory memory_;  // first: outlives the stream's pending operations
  const Strand strand_;   // the stream's executor, kept for posting from other threads
  Stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::shared_ptr<Endpoint::Shared> shared_;
  // The session's node in the waiting sessions: in |wait_node_| while not
  // waiting, in the endpoint's list while waiting. Guarded, with the flags,
  // by the endpoint's waiting mutex.
  std::list<HttpSession*> wait_node_{this};
  const std::list<HttpSession*>::iterator wait_pos_ = wait_node_.begin();
  bool waiting_ = false;
  bool evicted_ = false;
  bool keep_alive_ = true;
  std::string method_;
  std::chrono::steady_clock::time_point request_done_;
  // The response being written.
  std::string head_;
  std::string chunk_head_;
  std::string chunk_tail_;
  std::string body_;
  unsigned status_ = 0;
  // The counter of the last answered call, by its service, operation and
  // result kind.
  Metrics::Counter* counter_ = nullptr;
  std::optional<Com::Quarro::Lumen::Std::Errors::Kind> counted_kind_;
  std::string counted_service_;
  std::string counted_operation_;
};

}  // namespace

struct Endpoint::Listener {
  explicit Listener(asio::io_context& io) : acceptor(asio::make_strand(io)), delay(acceptor.get_executor()) {}
  tcp::acceptor acceptor;
  asio::steady_timer delay;
  bool listening = false;
};

Endpoint::Endpoint(uint16_t port, std::shared_ptr<asio::io_context> io,
                   std::shared_ptr<Lumen::Provider::ApiProvider> provider, NotificationCallback callback,
                   std::shared_ptr<Lumen::L10n::Localizer> localizer, std::shared_ptr<Lumen::Log::Logger> logger,
                   Timeouts timeouts, int max_connections)
    : io_(std::move(io)),
      callback_(std::move(callback)),
      listener4_(std::make_shared<Listener>(*io_)),
      listener6_(std::make_shared<Listener>(*io_)) {
  RequestSeconds();
  ApiCalls().Add({{"operation", "unknown"},
                  {"result", Com::Quarro::Lumen::Std::Errors::KindName(
                                 Com::Quarro::Lumen::Std::Errors::Kind::kOperationNotFound)}});
  config_.port = port;
  config_.endpoint4 = tcp::endpoint(asio::ip::make_address("127.0.0.1"), port);
  config_.endpoint6 = tcp::endpoint(asio::ip::make_address("::1"), port);
  config_.localizer = localizer ? std::move(localizer) : Lumen::L10n::LocalizerHelpers::GetDefaultLocalizer();
  config_.read_timeout = timeouts.read;
  config_.write_timeout = timeouts.write;
  shared_ = std::make_shared<Shared>();
  shared_->provider = std::move(provider);
  shared_->logger = std::move(logger);
  shared_->read_timeout = timeouts.read;
  shared_->write_timeout = timeouts.write;
  shared_->header_timeout = timeouts.header;
  shared_->idle_timeout = timeouts.idle;
  shared_->body_limit = kHttpBodySizeLimitInBytes;
  shared_->max_connections = std::max(1, max_connections);
}

Endpoint::~Endpoint() {
  Stop();
}

bool Endpoint::Listen(Listener* l, const char* family_name) {
  const tcp::endpoint& ep = l == listener4_.get() ? config_.endpoint4 : config_.endpoint6;
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
  Lumen::Log::Logger& log = *shared_->logger;
  if (ec) {
    boost::system::error_code ignored;
    l->acceptor.close(ignored);
    LUMEN_LOG(log, kLumenError) << family_name << " Failed to listen on: " << EndpointText(ep)
                                << " ec: " << ec.category().name() << ":" << ec.value();
    return false;
  }
  l->listening = true;
  LUMEN_LOG(log, kLumenInfo) << "Listening on: " << EndpointText(l->acceptor.local_endpoint(ec));
  return true;
}

namespace {

void Accept(const std::shared_ptr<Endpoint::Listener>& listener, std::shared_ptr<Endpoint::Shared> shared);
void AcceptAtCap(const std::shared_ptr<Endpoint::Listener>& listener, std::shared_ptr<Endpoint::Shared> shared);
void AcceptOne(const std::shared_ptr<Endpoint::Listener>& listener, std::shared_ptr<Endpoint::Shared> shared);

// AcceptLater retries Accept after the back-off delay, unless the endpoint
// is gone or stopped by then.
void AcceptLater(const std::shared_ptr<Endpoint::Listener>& listener, std::shared_ptr<Endpoint::Shared> shared) {
  std::weak_ptr<Endpoint::Listener> weak = listener;
  listener->delay.expires_after(kAcceptRetryDelay);
  listener->delay.async_wait([weak, shared](const boost::system::error_code& timer_ec) {
    auto again = weak.lock();
    if (timer_ec || !again) {
      if (timer_ec != asio::error::operation_aborted) {
        LUMEN_LOG(*shared->logger, kLumenError) << "Delay timer Accept Error:" << timer_ec.message();
      }
      return;
    }
    Accept(again, shared);
  });
}

// Accept keeps accepting on |listener|. Handlers hold neither the endpoint
// nor the I/O context: the endpoint owns the listener, and a handler that
// runs after the endpoint is gone finds it expired and stops.
void Accept(const std::shared_ptr<Endpoint::Listener>& listener, std::shared_ptr<Endpoint::Shared> shared) {
  bool full = shared->connections.load() >= shared->max_connections;
  if (shared->at_cap.exchange(full) != full) {
    LUMEN_LOG(*shared->logger, full ? kLumenWarning : kLumenInfo)
        << ".Acceptor info:" << (full ? ";ConnectionLimit " : ";ConnectionLimitCleared ") << shared->max_connections;
  }
  if (full) {
    AcceptAtCap(listener, std::move(shared));
    return;
  }
  AcceptOne(listener, std::move(shared));
}

// AcceptAtCap waits for a client in the listen backlog, then makes room for
// it by evicting the connection that has waited longest for a request head:
// an idle or half-sent connection must not keep a client out. When every
// connection is serving a request, leave new clients in the listen backlog:
// accepting them would only spend descriptors the open connections need.
void AcceptAtCap(const std::shared_ptr<Endpoint::Listener>& listener, std::shared_ptr<Endpoint::Shared> shared) {
  std::weak_ptr<Endpoint::Listener> weak = listener;
  listener->acceptor.async_wait(tcp::acceptor::wait_read, [weak, shared](const boost::system::error_code& ec) {
    auto l = weak.lock();
    if (!l || ec == asio::error::operation_aborted || !l->acceptor.is_open()) {
      return;
    }
    if (ec || (shared->connections.load() >= shared->max_connections && !HttpSession::EvictOldestWaiting(*shared))) {
      AcceptLater(l, shared);
      return;
    }
    AcceptOne(l, shared);
  });
}

// AcceptOne accepts one client, starts its session and goes on accepting.
void AcceptOne(const std::shared_ptr<Endpoint::Listener>& listener, std::shared_ptr<Endpoint::Shared> shared) {
  std::weak_ptr<Endpoint::Listener> weak = listener;
  auto& io = static_cast<asio::io_context&>(listener->acceptor.get_executor().context());
  listener->acceptor.async_accept(asio::make_strand(io), [weak, shared](const boost::system::error_code& ec,
                                                                         Socket socket) {
    auto l = weak.lock();
    if (!l || ec == asio::error::operation_aborted || !l->acceptor.is_open()) {
      return;
    }
    if (!ec) {
      HttpSession::Run(std::make_shared<HttpSession>(std::move(socket), shared));
      Accept(l, shared);
      return;
    }
    Lumen::Log::Logger& log = *shared->logger;
    // A peer that gave up before the accept is no error of ours.
    if (ec == asio::error::connection_aborted) {
      Accept(l, shared);
      return;
    }
    // Running out of descriptors or memory passes; wait and retry.
    if (ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space || ec == asio::error::no_memory ||
        ec.value() == ENFILE) {
      LUMEN_LOG(log, kLumenWarning) << ".Acceptor info:" << ";DelayAcceptError " << ec.message();
      AcceptLater(l, shared);
      return;
    }
    LUMEN_LOG(log, kLumenError) << ".Acceptor info:" << ";TerminalAcceptError " << ec.message();
  });
}

}  // namespace

bool Endpoint::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (started_ || stopped_) {
    return started_ && !stopped_;
  }
  LUMEN_LOG(*shared_->logger, kLumenInfo) << config_.ToString();
  bool ok4 = Listen(listener4_.get(), "IPv4");
  bool ok6 = Listen(listener6_.get(), "IPv6");
  if (!ok4 && !ok6) {
    return false;
  }
  for (const auto& l : {listener4_, listener6_}) {
    if (l->listening) {
      Accept(l, shared_);
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
  boost::system::error_code ignored;
  listener4_->acceptor.close(ignored);
  listener6_->acceptor.close(ignored);
  listener4_->delay.cancel();
  listener6_->delay.cancel();
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
