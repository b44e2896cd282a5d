// The framework's provider model: a request names a service and an operation,
// carries clean JSON input and a security context, and is answered once,
// asynchronously, through a result callback. Filters and the local provider
// all implement ApiProvider and are chained in front of each other.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/lumen/Message.h"

namespace Lumen::Json {
class TypeRegistry;
}

namespace Lumen::Provider {

// AuthnResult is the identity an authentication handler established.
struct AuthnResult {
  std::string name;                 // "AnonymousAuthentication", "TokenAuthentication"
  std::string username;             // "<ANONYMOUS>" or the token's subject
  std::vector<std::string> values;  // "@ANONYMOUS", or the token's entitlements
  std::string scheme;               // the scheme id that produced it
};

// CallContext travels with one call through every filter. Stages of a call
// run one after another (each hands on through a callback), so it needs no
// lock.
struct CallContext {
  std::string op_id;
  std::string locale = "en_US";
  std::optional<AuthnResult> identity;
  // The call's audit record (eventID, subject, object, result and the
  // AUTHN_*/AUTHZ_* outcomes of the filters).
  std::map<std::string, std::string> audit;
};

struct Request {
  std::string service_id;
  std::string operation_id;
  nlohmann::json input = nlohmann::json::object();         // clean JSON
  nlohmann::json security_ctx = nlohmann::json::object();  // empty: anonymous
  std::shared_ptr<CallContext> ctx = std::make_shared<CallContext>();
};

// MethodResult: the output (clean JSON, null for none) or an error.
struct MethodResult {
  nlohmann::json output;
  std::optional<StdError> error;

  static MethodResult Value(nlohmann::json v) { return {std::move(v), std::nullopt}; }
  static MethodResult Failure(StdError e) { return {nullptr, std::move(e)}; }
};

using ResultCallback = std::function<void(MethodResult)>;

class ApiProvider {
 public:
  virtual ~ApiProvider() = default;
  // Invoke answers |request| exactly once through |done|, on any thread.
  virtual void Invoke(Request request, ResultCallback done) = 0;
  // Types describes the operations' values for the decorated JSON form; null
  // when the provider has no metamodel.
  virtual std::shared_ptr<const Json::TypeRegistry> Types() const { return nullptr; }
};

using OperationHandler = std::function<void(const Request& request, ResultCallback done)>;

// ApiInterface is one bound service: its operations by operation id.
struct ApiInterface {
  std::string service_id;
  std::map<std::string, OperationHandler> operations;
};

using InterfaceList = std::vector<std::shared_ptr<ApiInterface>>;

// AsyncLocalProvider dispatches to the interface that serves the request's
// service; an unknown service or operation is answered with
// OPERATION_NOT_FOUND. The interface table is fixed at construction, so
// dispatch takes no lock.
class AsyncLocalProvider : public ApiProvider {
 public:
  AsyncLocalProvider(const InterfaceList& interfaces, std::shared_ptr<const Json::TypeRegistry> types);
  void Invoke(Request request, ResultCallback done) override;
  std::shared_ptr<const Json::TypeRegistry> Types() const override { return types_; }

  // Operations lists "<service id>.<operation id>" of every bound operation.
  std::vector<std::string> Operations() const;

 private:
  std::map<std::string, std::shared_ptr<ApiInterface>> by_service_;
  std::shared_ptr<const Json::TypeRegistry> types_;
};

// Filter is a provider stage in front of another one.
class Filter : public ApiProvider {
 public:
  explicit Filter(std::shared_ptr<ApiProvider> next) : next_(std::move(next)) {}
  std::shared_ptr<const Json::TypeRegistry> Types() const override { return next_->Types(); }

 protected:
  std::shared_ptr<ApiProvider> next_;
};

}  // namespace Lumen::Provider
