// The classifier's rules, and the in-memory path that parses a request's
// bytes with the endpoint's parser settings before applying them.
#include "api/endpoint/RequestClassifier.h"

#include <cctype>

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>

#include "api/endpoint/HttpRequest.h"
#include "platform/lumen/Localizer.h"

namespace Witnessd::AttestApi {

namespace http = boost::beast::http;

namespace {

std::string_view View(boost::beast::string_view s) {
  return {s.data(), s.size()};
}

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return out;
}

// AsciiIEquals compares ignoring the case of ASCII letters only.
bool AsciiIEquals(std::string_view a, std::string_view b) {
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  if (a.size() != b.size()) {
    return false;
  }
  for (size_t i = 0; i < a.size(); ++i) {
    if (lower(a[i]) != lower(b[i])) {
      return false;
    }
  }
  return true;
}

bool Contains(std::string_view haystack, std::string_view needle) {
  return haystack.find(needle) != std::string_view::npos;
}

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

std::optional<std::string_view> Header(const HttpRequest& req, boost::beast::string_view name) {
  auto it = req.find(name);
  if (it == req.end()) {
    return std::nullopt;
  }
  return View(it->value());
}

}  // namespace

RequestFields FieldsOf(const HttpRequest& req) {
  RequestFields f;
  if (req.method() == http::verb::get) {
    f.method = RequestFields::Method::kGet;
  } else if (req.method() == http::verb::post) {
    f.method = RequestFields::Method::kPost;
  }
  f.target = View(req.target());
  f.content_type = View(req[http::field::content_type]);
  f.accept = View(req[http::field::accept]);
  for (boost::beast::string_view name : {"lumen-ctx-format-locale", "accept-language"}) {
    f.locale = Header(req, name);
    if (f.locale) {
      break;
    }
  }
  f.body = req.body();
  return f;
}

std::optional<std::string_view> ExpectOf(const HttpRequest& req) {
  return Header(req, "expect");
}

Classified ClassifyRequest(const RequestFields& req) {
  Classified c;
  if (req.method == RequestFields::Method::kGet) {
    if (req.target == "/metrics" || req.target == "/jwks.json" || req.target == "/healthz") {
      c.verdict = req.target == "/metrics"     ? RequestVerdict::kMetrics
                  : req.target == "/jwks.json" ? RequestVerdict::kJwks
                                               : RequestVerdict::kHealth;
      return c;
    }
  }
  if (req.method != RequestFields::Method::kPost) {
    c.log_text = "Request is considered as bad";
    return c;
  }
  if (req.target != "/api") {
    c.verdict = RequestVerdict::kNotFound;
    return c;
  }
  switch (CheckContentType(req.content_type, &c.type)) {
    case TypeCheck::kFramed:
      c.log_text = "Request is framed. Not supported";
      return c;
    case TypeCheck::kUnsupported:
      c.verdict = RequestVerdict::kInvalidContentType;
      return c;
    case TypeCheck::kAccepted:
      break;
  }
  if (Contains(Lower(req.accept), ".stream.json")) {
    c.type.streaming = true;
  }
  if (req.locale && !Lumen::L10n::ParseLocaleHeader(std::string(*req.locale), &c.locale)) {
    c.verdict = RequestVerdict::kInvalidRequest;
    c.log_text = "Incorrect value of accept-language or lumen-ctx-format-locale header";
    return c;
  }
  if (!Lumen::JsonRpc::ParseCall(req.body, c.type.decorated, &c.call)) {
    c.verdict = RequestVerdict::kInvalidRequest;
    c.log_text = "Request deserialization failed";
    return c;
  }
  c.verdict = RequestVerdict::kServe;
  return c;
}

bool ExpectationOk(const std::optional<std::string_view>& expect, bool* wants_continue) {
  *wants_continue = false;
  if (!expect) {
    return true;
  }
  if (!AsciiIEquals(*expect, "100-continue")) {
    return false;
  }
  *wants_continue = true;
  return true;
}

bool WantsKeepAlive(unsigned version, std::string_view connection) {
  std::string lowered = Lower(connection);
  if (Contains(lowered, "close")) {
    return false;
  }
  return version >= 11 || Contains(lowered, "keep-alive");
}

RequestVerdict ClassifyHttpRequest(std::string_view bytes) {
  HttpRequestParser parser;
  ConfigureParser(parser, kHttpBodySizeLimitInBytes);
  parser.eager(false);
  boost::beast::error_code ec;
  boost::asio::const_buffer buf(bytes.data(), bytes.size());
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
  if (!ExpectationOk(ExpectOf(parser.get()), &wants_continue)) {
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
  return ClassifyRequest(FieldsOf(parser.get())).verdict;
}

}  // namespace Witnessd::AttestApi
