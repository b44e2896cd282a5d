// The provider's stages in front of the local provider: authentication,
// authorization, operation ids, and the call registrar with its audit,
// traffic and call metrics observers.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/Metrics.h"
#include "platform/Trackers.h"
#include "platform/lumen/Audit.h"
#include "platform/lumen/Log.h"
#include "platform/lumen/Provider.h"
#include "platform/lumen/TokenHandler.h"

namespace Witnessd::AttestApi {

// Audit record keys left by the filters; each key's text is its own name.
inline constexpr const char* kAuthnEventKey = "AUTHN_EVENT_KEY";
inline constexpr const char* kAuthnSubjectKey = "AUTHN_SUBJECT_KEY";
inline constexpr const char* kAuthnObjectKey = "AUTHN_OBJECT_KEY";
inline constexpr const char* kAuthnParamPrefix = "AUTHN_PARAM_PREFIX";
inline constexpr const char* kAuthzEventKey = "AUTHZ_EVENT_KEY";
inline constexpr const char* kAuthzSubjectKey = "AUTHZ_SUBJECT_KEY";
inline constexpr const char* kAuthzObjectKey = "AUTHZ_OBJECT_KEY";
inline constexpr const char* kAuthzParamPrefix = "AUTHZ_PARAM_PREFIX";

// AnonymousAuthnHandler gives requests with an empty security context the
// anonymous identity.
class AnonymousAuthnHandler {
 public:
  explicit AnonymousAuthnHandler(std::shared_ptr<Lumen::Log::Logger> logger) : logger_(std::move(logger)) {}
  // Authenticate returns true and the anonymous identity when |security_ctx|
  // is empty; otherwise it logs and returns false so other handlers decide.
  bool Authenticate(const nlohmann::json& security_ctx, Lumen::Provider::AuthnResult* out) const;

 private:
  std::shared_ptr<Lumen::Log::Logger> logger_;
};

// AuthnMetadata: accepted scheme ids per "<service id>.<operation id>".
using AuthnMetadata = std::map<std::string, std::set<std::string>>;
// AuthnMetadataFromSection reads the authentication section's
// {"services": {id: {"operations": {id: {"schemes": [...]}}}}}.
AuthnMetadata AuthnMetadataFromSection(const nlohmann::json& section);

// AsyncAuthnFilter establishes the caller's identity. An empty security
// context is anonymous and passes only operations that accept no
// authentication; otherwise the token must verify and the operation must
// accept tokens. Operations the metadata does not know are not part of the
// API: OPERATION_NOT_FOUND. Failures are UNAUTHENTICATED and leave AUTHN_*
// keys in the call's audit record.
class AsyncAuthnFilter : public Lumen::Provider::Filter {
 public:
  AsyncAuthnFilter(std::shared_ptr<Lumen::Provider::ApiProvider> next, AuthnMetadata metadata,
                   std::shared_ptr<const Hyv::Authn::TokenHandler> token_handler,
                   std::shared_ptr<const AnonymousAuthnHandler> anonymous, std::shared_ptr<Lumen::Log::Logger> logger);
  void Invoke(Lumen::Provider::Request request, Lumen::Provider::ResultCallback done) override;

 private:
  AuthnMetadata metadata_;
  std::shared_ptr<const Hyv::Authn::TokenHandler> token_handler_;
  std::shared_ptr<const AnonymousAuthnHandler> anonymous_;
  std::shared_ptr<Lumen::Log::Logger> logger_;
};

}  // namespace Witnessd::AttestApi

namespace HyvToken::Authz {

// JwtEntitlementCheckerImpl grants an operation when the identity came from a
// token whose entitlements hold every required privilege.
class JwtEntitlementCheckerImpl {
 public:
  // Check returns true when granted; otherwise |missing| names the first
  // privilege not held.
  bool Check(const Lumen::Provider::AuthnResult& identity, const std::vector<std::string>& privileges,
             std::string* missing) const;
};

}  // namespace HyvToken::Authz

namespace Witnessd::AttestApi {

// AsyncAuthzFilter checks the privileges the authorization metadata lists for
// the operation; a refusal is UNAUTHORIZED and leaves AUTHZ_* keys.
class AsyncAuthzFilter : public Lumen::Provider::Filter {
 public:
  AsyncAuthzFilter(std::shared_ptr<Lumen::Provider::ApiProvider> next,
                   std::shared_ptr<const HyvToken::Authz::JwtEntitlementCheckerImpl> checker,
                   const nlohmann::json& authz_section);
  void Invoke(Lumen::Provider::Request request, Lumen::Provider::ResultCallback done) override;

 private:
  std::shared_ptr<const HyvToken::Authz::JwtEntitlementCheckerImpl> checker_;
  std::map<std::string, std::vector<std::string>> privileges_;
};

}  // namespace Witnessd::AttestApi

namespace Orm::Common::HearthLumen {

// OpIdProvider gives every call an operation id for the logs: the caller's
// "opId" when it sent one, otherwise a random one.
class OpIdProvider : public Lumen::Provider::Filter {
 public:
  OpIdProvider(std::shared_ptr<Lumen::Provider::ApiProvider> next, std::shared_ptr<Lumen::Log::Logger> logger);
  void Invoke(Lumen::Provider::Request request, Lumen::Provider::ResultCallback done) override;

 private:
  std::shared_ptr<Lumen::Log::Logger> logger_;
  std::string prefix_;
  std::atomic<uint64_t> next_id_{1};
};

}  // namespace Orm::Common::HearthLumen

namespace Lumen::Observer {

class CallObserver {
 public:
  virtual ~CallObserver() = default;
  virtual void OnCallStart(const Provider::Request& request) = 0;
  // |elapsed| is the time since the call reached the registrar.
  virtual void OnCallEnd(const Provider::Request& request, const Provider::MethodResult& result,
                         std::chrono::nanoseconds elapsed) = 0;
};

// CallRegistrar tells its observers about the start and the end of every
// call passing through it. Observers are registered during assembly only.
class CallRegistrar : public Provider::Filter {
 public:
  using Provider::Filter::Filter;
  void Register(std::shared_ptr<CallObserver> observer) { observers_.push_back(std::move(observer)); }
  void Invoke(Provider::Request request, Provider::ResultCallback done) override;

 private:
  std::vector<std::shared_ptr<CallObserver>> observers_;
};

}  // namespace Lumen::Observer

namespace Witnessd::AttestApi {

inline constexpr const char* kAuditSwitchPath = "/var/run/quarro/AuditApiCallEnabled";

// AuditObserver fills each call's audit record and writes the "api.call"
// entry when auditing is enabled, and the authentication and authorization
// entries the filters left. Those refusals are written through a refusal log,
// which caps them a second and reports the excess at the end of a later call.
class AuditObserver : public Lumen::Observer::CallObserver {
 public:
  // Auditing of API calls is decided once, when the provider is assembled:
  // enabled when |switch_path| exists then.
  explicit AuditObserver(const std::string& switch_path);
  bool Enabled() const { return enabled_; }

  void OnCallStart(const Lumen::Provider::Request& request) override;
  void OnCallEnd(const Lumen::Provider::Request& request, const Lumen::Provider::MethodResult& result,
                 std::chrono::nanoseconds elapsed) override;

 private:
  const bool enabled_;
  QrwAuditRefusalLog refusals_;
};

// TrafficObserver counts calls and errors in the daemon's trackers.
class TrafficObserver : public Lumen::Observer::CallObserver {
 public:
  TrafficObserver(std::shared_ptr<Orm::Common::HearthLumen::TrafficTracker> traffic,
                  std::shared_ptr<Orm::Common::HearthLumen::ErrorsTracker> errors)
      : traffic_(std::move(traffic)), errors_(std::move(errors)) {}
  void OnCallStart(const Lumen::Provider::Request& request) override;
  void OnCallEnd(const Lumen::Provider::Request& request, const Lumen::Provider::MethodResult& result,
                 std::chrono::nanoseconds elapsed) override;

 private:
  std::shared_ptr<Orm::Common::HearthLumen::TrafficTracker> traffic_;
  std::shared_ptr<Orm::Common::HearthLumen::ErrorsTracker> errors_;
};

// CallMetricsObserver counts answered calls by operation and result kind in
// witnessd_api_calls_total and observes their latency in
// witnessd_api_request_seconds. Both families are registered by its
// constructor, so a scrape lists them before the first call; of the call
// counts only the one for operations a client makes up is known up front
// (the label sets of the rest are operation by result).
class CallMetricsObserver : public Lumen::Observer::CallObserver {
 public:
  CallMetricsObserver();
  void OnCallStart(const Lumen::Provider::Request&) override {}
  void OnCallEnd(const Lumen::Provider::Request& request, const Lumen::Provider::MethodResult& result,
                 std::chrono::nanoseconds elapsed) override;

 private:
  // The most operation names counted apart; the rest count as "unknown".
  static constexpr size_t kMaxOperations = 256;

  Metrics::Histogram& latency_;
  prometheus::Family<Metrics::Counter>& calls_;
  std::mutex mutex_;
  // The operation names counted apart, and each counter found, by operation
  // label and result kind; guarded by mutex_.
  std::set<std::string> operations_;
  std::map<std::pair<std::string, std::string>, Metrics::Counter*> counters_;
};

}  // namespace Witnessd::AttestApi
