// One connection's HTTP/1.1 session: reading heads and bodies with their
// timeouts, waiting for a head where a client at the cap may take its place,
// handing calls to the provider and writing the answers. With
// RequestClassifier.cpp, the only translation units that instantiate
// Boost.Beast.
#include "api/endpoint/Connection.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "api/endpoint/HandlerMemory.h"
#include "api/endpoint/HttpRequest.h"
#include "api/endpoint/RequestClassifier.h"
#include "platform/Metrics.h"
#include "platform/lumen/JsonRpc.h"

namespace Witnessd::AttestApi {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

constexpr const char* kServerName = "Lumen-PicoHttp";

using Clock = std::chrono::steady_clock;
using Timer = asio::basic_waitable_timer<Clock, asio::wait_traits<Clock>, Strand>;

std::string_view View(beast::string_view s) {
  return {s.data(), s.size()};
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

}  // namespace

// Connection serves one connection. Every handler runs on the connection's
// strand; a call's result is handled there at once when the provider answers
// on the strand, and posted back from any other thread. The one reference
// that keeps the connection alive, |self|, is moved from each step to the
// next rather than copied. Bytes already buffered are parsed, and a response
// the socket takes at once is sent, without another asynchronous operation.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Self = std::shared_ptr<Connection>;

  Connection(StrandSocket socket, std::shared_ptr<Connections> connections)
      : strand_(socket.get_executor()),
        socket_(std::move(socket)),
        timer_(strand_),
        connections_(std::move(connections)) {
    ++connections_->open_;
    // Writes are tried at once and finished asynchronously when the socket
    // would block.
    beast::error_code ignored;
    socket_.non_blocking(true, ignored);
  }
  ~Connection() {
    bool counted;
    {
      std::lock_guard<std::mutex> lock(connections_->waiting_mutex_);
      Unwait();
      counted = !evicted_;
    }
    if (counted) {
      --connections_->open_;
    }
  }

  static void Run(Self self) {
    Connection* connection = self.get();
    // Waiting from the accept on: the acceptor may evict the connection
    // before its first read starts.
    connection->BeginWait();
    asio::dispatch(connection->strand_,
                   connection->Bind([self = std::move(self)]() mutable { self->DoReadHeader(std::move(self)); }));
  }

  static bool EvictOldestWaiting(Connections& connections) {
    Self victim;
    {
      std::lock_guard<std::mutex> lock(connections.waiting_mutex_);
      if (connections.waiting_.empty()) {
        return false;
      }
      Connection* oldest = connections.waiting_.front();
      oldest->Unwait();
      oldest->evicted_ = true;
      --connections.open_;
      // Null when the connection is already being destroyed; its place is
      // released all the same, and its destructor no longer counts it.
      victim = oldest->weak_from_this().lock();
    }
    if (victim) {
      Connection* connection = victim.get();
      asio::post(connection->strand_, [victim = std::move(victim)] { victim->Close(); });
    }
    return true;
  }

 private:
  // Reply is the provider's callback for the connection's current call. Its
  // copies share the call's one answer: the first one called gives it; when
  // the last copy goes uncalled, the answer is INTERNAL_SERVER_ERROR. Each
  // copy holds the connection; a copy that outlives its call does nothing.
  class Reply {
   public:
    Reply(Self connection, uint32_t call) : connection_(std::move(connection)), call_(call) {}
    Reply(const Reply& other) : connection_(other.connection_), call_(other.call_) {
      if (connection_) {
        connection_->JoinReply(call_);
      }
    }
    Reply(Reply&& other) noexcept = default;
    Reply& operator=(const Reply&) = delete;
    Reply& operator=(Reply&&) = delete;
    ~Reply() {
      if (connection_ && connection_->LeaveReply(call_)) {
        Answer(std::move(connection_),
               Lumen::Provider::MethodResult::Failure(Com::Quarro::Lumen::Std::Errors::InternalServerError()));
      }
    }
    void operator()(Lumen::Provider::MethodResult result) {
      if (connection_ && connection_->TakeReply(call_)) {
        Answer(connection_, std::move(result));
      }
    }

   private:
    Self connection_;
    uint32_t call_;
  };

  // The answer state of the current call in one word: the call's number
  // (high half), whether it was answered (kAnswered) and how many callbacks
  // for it are alive (the bits below).
  static constexpr uint64_t kAnswered = uint64_t{1} << 31;
  static constexpr uint64_t kCallbacks = kAnswered - 1;

  // StartReply numbers a new call with one callback alive; on the strand.
  uint32_t StartReply() {
    ++call_number_;
    reply_state_.store((uint64_t{call_number_} << 32) | 1, std::memory_order_release);
    return call_number_;
  }

  void JoinReply(uint32_t call) {
    uint64_t s = reply_state_.load(std::memory_order_acquire);
    while ((s >> 32) == call && !reply_state_.compare_exchange_weak(s, s + 1, std::memory_order_acq_rel)) {
    }
  }

  // LeaveReply tells whether the last callback of |call| went uncalled.
  bool LeaveReply(uint32_t call) {
    uint64_t s = reply_state_.load(std::memory_order_acquire);
    for (;;) {
      if ((s >> 32) != call) {
        return false;
      }
      uint64_t next = s - 1;
      bool uncalled = (next & (kAnswered | kCallbacks)) == 0;
      if (uncalled) {
        next |= kAnswered;
      }
      if (reply_state_.compare_exchange_weak(s, next, std::memory_order_acq_rel)) {
        return uncalled;
      }
    }
  }

  // TakeReply tells whether |call| is still to be answered, and marks it
  // answered.
  bool TakeReply(uint32_t call) {
    uint64_t s = reply_state_.load(std::memory_order_acquire);
    for (;;) {
      if ((s >> 32) != call || (s & kAnswered) != 0) {
        return false;
      }
      if (reply_state_.compare_exchange_weak(s, s | kAnswered, std::memory_order_acq_rel)) {
        return true;
      }
    }
  }

  // Answer writes the current call's result on the strand: at once when the
  // provider answered there, else posted.
  static void Answer(Self self, Lumen::Provider::MethodResult result) {
    Connection* connection = self.get();
    if (connection->strand_.running_in_this_thread()) {
      connection->WriteResult(std::move(self), std::move(result));
      return;
    }
    asio::post(connection->strand_,
               connection->Bind([self = std::move(self), result = std::move(result)]() mutable {
                 Connection* to = self.get();
                 to->WriteResult(std::move(self), std::move(result));
               }));
  }

  void WriteResult(Self self, const Lumen::Provider::MethodResult& result) {
    std::string body = Lumen::JsonRpc::ResultBody(call_, result, type_.decorated, connections_->types_.get());
    WriteResponse(std::move(self), http::status::ok, type_.value, std::move(body), type_.streaming, nullptr);
  }

  Lumen::Log::Logger& Log() { return connections_->Log(); }
  const EndpointTimeouts& Timeouts() const { return connections_->timeouts_; }

  template <typename Handler>
  WithMemory<Handler> Bind(Handler handler) {
    return WithMemory<Handler>(&memory_, std::move(handler));
  }

  // The connection has one deadline at a time, and one timer that wakes no
  // later than it. A later deadline leaves the timer as it is: when it wakes
  // early it waits again until the deadline. Only an earlier deadline
  // re-arms it. When the deadline passes, the socket is closed, so the
  // pending read or write fails with a timeout.
  void Deadline(std::chrono::nanoseconds timeout) {
    deadline_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(timeout);
    if (deadline_ < timer_at_) {
      Arm(deadline_);
    }
  }

  // NoDeadline: nothing is bounded, as while the provider computes.
  void NoDeadline() { deadline_ = Clock::time_point::max(); }

  void Arm(Clock::time_point at) {
    timer_at_ = at;
    timer_.expires_at(at);  // cancels the wait it replaces
    timer_.async_wait(Bind([self = shared_from_this(), at](beast::error_code ec) { self->OnTimer(at, ec); }));
  }

  void OnTimer(Clock::time_point at, beast::error_code ec) {
    if (ec == asio::error::operation_aborted || at != timer_at_) {
      return;  // closed, or replaced by an earlier wait
    }
    timer_at_ = Clock::time_point::max();
    if (!socket_.is_open() || deadline_ == Clock::time_point::max()) {
      return;
    }
    if (Clock::now() < deadline_) {
      Arm(deadline_);
      return;
    }
    timed_out_ = true;
    Close();
  }

  // TimedOut is |ec| of an operation, or the timeout when the deadline
  // closed the socket under it.
  beast::error_code TimedOut(beast::error_code ec) const { return timed_out_ ? beast::error::timeout : ec; }

  // A connection waits for a request head from its accept, and when kept
  // alive from the end of each response, until the head is complete. While
  // it waits it may be evicted; once the head is complete it is serving and
  // keeps its place. BeginWait and EndWait return false when the connection
  // has been evicted.
  bool BeginWait() {
    std::lock_guard<std::mutex> lock(connections_->waiting_mutex_);
    if (evicted_) {
      return false;
    }
    connections_->waiting_.splice(connections_->waiting_.end(), wait_node_, wait_pos_);
    waiting_ = true;
    return true;
  }

  bool EndWait() {
    std::lock_guard<std::mutex> lock(connections_->waiting_mutex_);
    Unwait();
    return !evicted_;
  }

  // Unwait takes the connection out of the waiting ones; the caller holds
  // the waiting mutex.
  void Unwait() {
    if (waiting_) {
      wait_node_.splice(wait_node_.end(), connections_->waiting_, wait_pos_);
      waiting_ = false;
    }
  }

  // DoIdle waits, on a kept-alive connection, for the first byte of the next
  // request; the head then has the head timeout to complete. Bytes already
  // buffered (a pipelined request) start the head at once, in a handler of
  // its own so that a run of pipelined requests does not nest.
  void DoIdle(Self self) {
    if (!BeginWait()) {
      Close();
      return;
    }
    if (buffer_.size() > 0) {
      asio::post(strand_, Bind([self = std::move(self)]() mutable { self->DoReadHeader(std::move(self)); }));
      return;
    }
    Deadline(Timeouts().idle);
    socket_.async_read_some(buffer_.prepare(kIdleReadSize),
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
    ConfigureParser(*parser_, connections_->body_limit_);
    parser_->eager(false);  // the head only: a 100 Continue goes before the body
    Deadline(Timeouts().header);
    Parse(std::move(self), /*head=*/true);
  }

  // Parse feeds the buffered bytes to the parser until the head (|head|) or
  // the whole request is complete, reading more whenever it needs more,
  // then goes on to OnReadHeader or OnReadBody.
  void Parse(Self self, bool head) {
    beast::error_code ec;
    while (!(head ? parser_->is_header_done() : parser_->is_done())) {
      if (buffer_.size() > 0) {
        size_t used = parser_->put(buffer_.data(), ec);
        buffer_.consume(used);
        if (ec && ec != http::error::need_more) {
          break;
        }
        if (!ec && used > 0) {
          continue;
        }
        ec = {};
      }
      ReadMore(std::move(self), head);
      return;
    }
    Parsed(std::move(self), head, ec);
  }

  void ReadMore(Self self, bool head) {
    size_t size = beast::read_size(buffer_, kReadSize);
    if (size == 0) {
      Parsed(std::move(self), head, http::error::buffer_overflow);
      return;
    }
    socket_.async_read_some(
        buffer_.prepare(size), Bind([self = std::move(self), head](beast::error_code ec, size_t n) mutable {
          Connection* c = self.get();
          c->buffer_.commit(n);
          if (ec == asio::error::eof && !c->timed_out_) {
            if (c->parser_->got_some()) {
              // A request without a length ends with the connection.
              ec = {};
              c->parser_->put_eof(ec);
            } else {
              ec = http::error::end_of_stream;
            }
            c->Parsed(std::move(self), head, ec);
            return;
          }
          if (ec) {
            c->Parsed(std::move(self), head, c->TimedOut(ec));
            return;
          }
          c->Parse(std::move(self), head);
        }));
  }

  void Parsed(Self self, bool head, beast::error_code ec) {
    if (head) {
      OnReadHeader(std::move(self), ec);
    } else {
      OnReadBody(std::move(self), ec);
    }
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
    keep_alive_ = WantsKeepAlive(req.version(), View(req[http::field::connection]));
    method_.assign(req.method_string().data(), req.method_string().size());
    bool wants_continue = false;
    if (!ExpectationOk(ExpectOf(req), &wants_continue)) {
      LUMEN_LOG(Log(), kLumenWarning) << "Invalid Http request: Expect header value is not 100-continue";
      SendFixed(std::move(self), kExpectationFailedReply, false);
      return;
    }
    if (wants_continue && !parser_->is_done()) {
      Deadline(Timeouts().write);
      Send(std::move(self), asio::buffer(kContinueReply.data(), kContinueReply.size()),
           [](Self self, beast::error_code ec) {
             if (ec) {
               LUMEN_LOG(self->Log(), kLumenDebug) << "Failed to sent response head " << ec.message();
               self->Close();
               return;
             }
             self->DoReadBody(std::move(self));
           });
      return;
    }
    DoReadBody(std::move(self));
  }

  void DoReadBody(Self self) {
    Deadline(Timeouts().read);
    parser_->eager(true);
    Parse(std::move(self), /*head=*/false);
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
    NoDeadline();
    Handle(std::move(self), parser_->release());
  }

  void Handle(Self self, HttpRequest req) {
    Classified c = ClassifyRequest(FieldsOf(req));
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
      case RequestVerdict::kJwks:
        if (!connections_->documents_.jwks) {
          WriteResponse(std::move(self), http::status::not_found, "", "", false, nullptr);
          return;
        }
        WriteResponse(std::move(self), http::status::ok, "application/json", connections_->documents_.jwks(), false, nullptr);
        return;
      case RequestVerdict::kHealth: {
        std::string problem = connections_->documents_.health_problem ? connections_->documents_.health_problem() : "";
        bool healthy = problem.empty();
        WriteResponse(std::move(self), healthy ? http::status::ok : http::status::service_unavailable,
                      "text/plain", healthy ? "ok\n" : problem + "\n", false, nullptr);
        return;
      }
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

    // Every request gets exactly one answer: the provider's, or
    // INTERNAL_SERVER_ERROR when it drops the callback uncalled. The
    // callback holds the connection until then.
    call_ = std::move(c.call);
    type_ = std::move(c.type);
    uint32_t number = StartReply();
    connections_->provider_->Invoke(std::move(call), Reply(std::move(self), number));
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
    Deadline(Timeouts().write);
    bool framework_error = lumen_error != nullptr;
    Send(std::move(self), buffers, [framework_error](Self self, beast::error_code ec) {
      Connection* c = self.get();
      c->OnWritten(std::move(self), ec, framework_error);
    });
  }

  // Send writes |buffers|, which outlive the write, then calls |then| with
  // the connection and the outcome: at once when the socket takes every
  // byte now, else when an asynchronous write of the rest has finished.
  template <typename Buffers, typename Then>
  void Send(Self self, const Buffers& buffers, Then then) {
    beast::error_code ec;
    size_t written = socket_.write_some(buffers, ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again) {
      ec = {};
      written = 0;
    }
    if (ec || written == asio::buffer_size(buffers)) {
      then(std::move(self), ec);
      return;
    }
    beast::buffers_suffix<Buffers> rest(buffers);
    rest.consume(written);
    asio::async_write(socket_, rest,
                      Bind([self = std::move(self), then = std::move(then)](beast::error_code ec, size_t) mutable {
                        Connection* c = self.get();
                        then(std::move(self), c->TimedOut(ec));
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
    Deadline(Timeouts().write);
    Send(std::move(self), asio::buffer(reply.data(), reply.size()), [invalid_request](Self self, beast::error_code ec) {
      if (invalid_request) {
        LUMEN_LOG(self->Log(), kLumenDebug)
            << (ec ? "Failed to send InvalidRequest response:" : "Sent InvalidRequest response:") << ec.message();
      }
      self->Close();
    });
  }

  // Close ends the connection: the socket's pending operations fail, and the
  // timer lets go of the connection.
  void Close() {
    beast::error_code ignored;
    socket_.shutdown(tcp::socket::shutdown_send, ignored);
    socket_.close(ignored);
    NoDeadline();
    timer_.cancel();
  }

  // What DoIdle reads at most while waiting for a request's first byte.
  static constexpr size_t kIdleReadSize = 1024;
  // What one read of a head or body takes at most.
  static constexpr size_t kReadSize = 65536;

  HandlerMemory memory_;  // first: outlives the pending operations
  const Strand strand_;   // the socket's executor, kept for posting from other threads
  StrandSocket socket_;
  Timer timer_;
  Clock::time_point deadline_ = Clock::time_point::max();  // none
  Clock::time_point timer_at_ = Clock::time_point::max();  // no wait pending
  bool timed_out_ = false;
  beast::flat_buffer buffer_;
  std::optional<HttpRequestParser> parser_;
  std::shared_ptr<Connections> connections_;
  // The connection's node in the waiting connections: in |wait_node_| while
  // not waiting, in the shared list while waiting. Guarded, with the flags,
  // by the shared waiting mutex.
  std::list<Connection*> wait_node_{this};
  const std::list<Connection*>::iterator wait_pos_ = wait_node_.begin();
  bool waiting_ = false;
  bool evicted_ = false;
  bool keep_alive_ = true;
  std::string method_;
  // The call handed to the provider, and its answer state.
  Lumen::JsonRpc::Call call_;
  ContentType type_;
  uint32_t call_number_ = 0;
  std::atomic<uint64_t> reply_state_{0};
  // The response being written.
  std::string head_;
  std::string chunk_head_;
  std::string chunk_tail_;
  std::string body_;
  unsigned status_ = 0;
};

Connections::Connections(std::shared_ptr<Lumen::Provider::ApiProvider> provider,
                         std::shared_ptr<Lumen::Log::Logger> logger, const EndpointTimeouts& timeouts,
                         size_t body_limit, int max_connections, PublicDocuments documents)
    : provider_(std::move(provider)),
      types_(provider_->Types()),
      logger_(std::move(logger)),
      timeouts_(timeouts),
      body_limit_(body_limit),
      max_connections_(max_connections),
      documents_(std::move(documents)) {}

void Connections::Serve(StrandSocket socket) {
  Connection::Run(std::make_shared<Connection>(std::move(socket), shared_from_this()));
}

bool Connections::EvictOldestWaiting() {
  return Connection::EvictOldestWaiting(*this);
}

}  // namespace Witnessd::AttestApi
