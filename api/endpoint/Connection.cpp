// One connection's HTTP/1.1 session: reading heads and bodies with their
// timeouts, waiting for a head where a client at the cap may take its place,
// handing calls to the provider and writing the answers. With
// RequestClassifier.cpp, the only translation units that instantiate
// Boost.Beast.
#include "api/endpoint/Connection.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>

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

using Stream = beast::basic_stream<tcp, Strand>;

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
// strand; a call's result may come from any thread and is posted back. The
// one reference that keeps the connection alive, |self|, is moved from each
// step to the next rather than copied.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Self = std::shared_ptr<Connection>;

  Connection(StrandSocket socket, std::shared_ptr<Connections> connections)
      : strand_(socket.get_executor()), stream_(std::move(socket)), connections_(std::move(connections)) {
    ++connections_->open_;
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

  // Answer delivers a call's result on the strand.
  static void Answer(Self self, Lumen::JsonRpc::Call call, ContentType type, Lumen::Provider::MethodResult result) {
    Connection* connection = self.get();
    asio::post(connection->stream_.get_executor(),
               connection->Bind([self = std::move(self), call = std::move(call), type = std::move(type),
                                 result = std::move(result)]() mutable {
                 auto types = self->connections_->provider_->Types();
                 std::string body = Lumen::JsonRpc::ResultBody(call, result, type.decorated, types.get());
                 Connection* to = self.get();
                 to->WriteResponse(std::move(self), http::status::ok, type.value, std::move(body), type.streaming,
                                   nullptr);
               }));
  }

 private:
  Lumen::Log::Logger& Log() { return connections_->Log(); }
  const EndpointTimeouts& Timeouts() const { return connections_->timeouts_; }

  template <typename Handler>
  WithMemory<Handler> Bind(Handler handler) {
    return WithMemory<Handler>(&memory_, std::move(handler));
  }

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
    stream_.expires_after(Timeouts().idle);
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
    ConfigureParser(*parser_, connections_->body_limit_);
    stream_.expires_after(Timeouts().header);
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
    keep_alive_ = WantsKeepAlive(req.version(), View(req[http::field::connection]));
    method_.assign(req.method_string().data(), req.method_string().size());
    bool wants_continue = false;
    if (!ExpectationOk(ExpectOf(req), &wants_continue)) {
      LUMEN_LOG(Log(), kLumenWarning) << "Invalid Http request: Expect header value is not 100-continue";
      SendFixed(std::move(self), kExpectationFailedReply, false);
      return;
    }
    if (wants_continue && !parser_->is_done()) {
      stream_.expires_after(Timeouts().write);
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
    stream_.expires_after(Timeouts().read);
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

    // The guard answers INTERNAL_SERVER_ERROR if the provider drops the
    // callback without calling it, so every request gets exactly one reply.
    // It holds the connection until then.
    struct ReplyGuard {
      Self connection;
      Lumen::JsonRpc::Call call;
      ContentType type;
      std::atomic<bool> answered{false};
      void Give(Lumen::Provider::MethodResult r) {
        if (!answered.exchange(true)) {
          Answer(std::move(connection), std::move(call), std::move(type), std::move(r));
        }
      }
      ~ReplyGuard() {
        if (!answered.load()) {
          Answer(std::move(connection), std::move(call), std::move(type),
                 Lumen::Provider::MethodResult::Failure(Com::Quarro::Lumen::Std::Errors::InternalServerError()));
        }
      }
    };
    auto guard = std::make_shared<ReplyGuard>();
    guard->connection = std::move(self);
    guard->call = std::move(c.call);
    guard->type = std::move(c.type);
    connections_->provider_->Invoke(std::move(call), [guard = std::move(guard)](Lumen::Provider::MethodResult r) {
      guard->Give(std::move(r));
    });
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
    stream_.expires_after(Timeouts().write);
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
    stream_.expires_after(Timeouts().write);
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
