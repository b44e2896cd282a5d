// The request classifier: what the endpoint does with one request, decided
// from the request alone (method, path, a few headers, the body), before
// anything is handed to the provider.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/lumen/JsonRpc.h"

namespace Witnessd::AttestApi {

inline constexpr size_t kHttpBodySizeLimitInBytes = 2500000;

// What the endpoint does with one request, decided from its bytes alone.
enum class RequestVerdict {
  kServe,              // handed to the provider
  kIncomplete,         // more bytes needed
  kBadRequest,         // fixed 400 reply, connection closed
  kExpectationFailed,  // fixed 417 reply, connection closed
  kNotFound,           // 404: a path other than /api
  kTooLarge,           // 413 request_exceeds_max_size
  kInvalidContentType, // 415 invalid_content_type
  kInvalidRequest,     // 400 invalid_request: not a JSON-RPC invoke call, or a bad locale header
  kMetrics,            // GET /metrics: the metrics in Prometheus text format
  kJwks,               // GET /jwks.json: the token-signing keys as a JWK Set
  kHealth,             // GET /healthz: whether the daemon can serve
};

// ClassifyHttpRequest parses |bytes| as one request in memory with the
// endpoint's limits and rules and returns its verdict. Used by the fuzzer and
// the tests; the network path uses the same checks.
RequestVerdict ClassifyHttpRequest(std::string_view bytes);

// The serialisation an accepted content type asks for.
struct ContentType {
  std::string value;  // as sent, without parameters
  bool decorated = true;
  bool streaming = false;
};

// RequestFields is what the classifier reads of a complete request: views
// into the parsed message, which outlives them. An absent header is empty.
struct RequestFields {
  enum class Method { kGet, kPost, kOther };
  Method method = Method::kOther;
  std::string_view target;
  std::string_view content_type;
  std::string_view accept;
  // The first of "lumen-ctx-format-locale" and "accept-language" present.
  std::optional<std::string_view> locale;
  std::string_view body;
};

// Classified is the decision about one complete request.
struct Classified {
  RequestVerdict verdict = RequestVerdict::kBadRequest;
  const char* log_text = nullptr;  // logged at info level when set
  ContentType type;
  std::string locale = "en_US";
  Lumen::JsonRpc::Call call;
};

Classified ClassifyRequest(const RequestFields& request);

// ExpectationOk: no Expect header (|expect| empty), or exactly 100-continue,
// which sets |wants_continue|.
bool ExpectationOk(const std::optional<std::string_view>& expect, bool* wants_continue);

// WantsKeepAlive: the Connection header does not say close, and the request
// is HTTP/1.1 (|version| 11) or later or asks for keep-alive.
bool WantsKeepAlive(unsigned version, std::string_view connection);

}  // namespace Witnessd::AttestApi
