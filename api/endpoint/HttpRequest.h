// The endpoint's parsed request and how the classifier sees it. Included only
// by the two translation units that parse HTTP (RequestClassifier.cpp for the
// in-memory path, Connection.cpp for the network path), so the rest of the
// endpoint builds without Boost.Beast.
#pragma once

#include <cstddef>

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include "api/endpoint/RequestClassifier.h"

namespace Witnessd::AttestApi {

using HttpRequest = boost::beast::http::request<boost::beast::http::string_body>;
using HttpRequestParser = boost::beast::http::request_parser<boost::beast::http::string_body>;

// ConfigureParser applies the endpoint's limits to a fresh parser.
inline void ConfigureParser(HttpRequestParser& parser, size_t body_limit) {
  parser.body_limit(body_limit);
}

// FieldsOf gives the classifier's view of |req|; |req| outlives it.
RequestFields FieldsOf(const HttpRequest& req);

// ExpectOf is the first Expect header of |req|, if any.
std::optional<std::string_view> ExpectOf(const HttpRequest& req);

}  // namespace Witnessd::AttestApi
