// Shared machinery of the service bindings: each operation decodes its clean
// JSON input (a missing required field or a wrong JSON type is
// INVALID_ARGUMENT before the implementation is called), calls the typed
// implementation, and encodes its value or passes its error on.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "api/errors/ErrorCatalogue.h"
#include "platform/lumen/Json.h"
#include "platform/lumen/Message.h"
#include "platform/lumen/Provider.h"

namespace Witnessd::AttestApi {

// Callback<T> receives an operation's result, exactly once, on any thread.
template <class T>
using Callback = std::function<void(Lumen::Outcome<T>)>;

namespace Binding {

using Lumen::Json::InputReader;
using Lumen::Provider::MethodResult;
using Lumen::Provider::OperationHandler;
using Lumen::Provider::Request;
using Lumen::Provider::ResultCallback;

inline nlohmann::json Encode(const Lumen::Void&) {
  return nullptr;
}

inline nlohmann::json Encode(const std::string& s) {
  return s;
}

// Encode of a service's own structures is found by argument-dependent lookup:
// each service defines it in Witnessd::AttestApi next to its types.
template <class T>
nlohmann::json Encode(const std::vector<T>& items) {
  nlohmann::json out = nlohmann::json::array();
  for (const auto& item : items) {
    out.push_back(Encode(item));
  }
  return out;
}

// MakeOperation builds the handler of one operation. |decode| reads the input
// into In; |call| runs the implementation; Encode(const Out&) renders the
// value. An exception escaping the implementation is a bug there; it is
// answered with INTERNAL_SERVER_ERROR unless a result was already given.
template <class In, class Out, class Decode, class Call>
OperationHandler MakeOperation(Decode decode, Call call) {
  return [decode, call](const Request& request, ResultCallback done) {
    InputReader reader(request.input);
    In in = decode(reader);
    if (!reader.Ok()) {
      done(MethodResult::Failure(reader.Error()));
      return;
    }
    auto answered = std::make_shared<std::atomic<bool>>(false);
    auto once = [done, answered](MethodResult r) {
      if (!answered->exchange(true)) {
        done(std::move(r));
      }
    };
    Callback<Out> typed = [once](Lumen::Outcome<Out> outcome) {
      if (auto* error = std::get_if<Lumen::StdError>(&outcome)) {
        once(MethodResult::Failure(std::move(*error)));
      } else {
        once(MethodResult::Value(Encode(std::get<Out>(outcome))));
      }
    };
    try {
      call(in, std::move(typed));
    } catch (const std::exception&) {
      once(MethodResult::Failure(Com::Quarro::Lumen::Std::Errors::InternalServerError()));
    }
  };
}

// NoInput decodes operations without parameters.
struct NoInput {};
inline NoInput DecodeNothing(InputReader&) {
  return {};
}

}  // namespace Binding
}  // namespace Witnessd::AttestApi
