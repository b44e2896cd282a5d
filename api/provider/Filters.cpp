#include "api/provider/Filters.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "api/provider/Metadata.h"
#include "platform/Assert.h"
#include "platform/System.h"
#include "platform/lumen/Audit.h"

namespace Witnessd::AttestApi {

namespace {

namespace StdErrors = Com::Quarro::Lumen::Std::Errors;
using Lumen::Provider::AuthnResult;
using Lumen::Provider::MethodResult;
using Lumen::Provider::Request;
using Lumen::Provider::ResultCallback;

constexpr int kLumenDebug = 1;
constexpr int kLumenInfo = 2;

std::string FullOperation(const Request& request) {
  return request.service_id + "." + request.operation_id;
}

void LeaveAuthnFailure(const Request& request, const std::string& subject, const std::string& reason) {
  auto& record = request.ctx->audit;
  record[kAuthnEventKey] = "authentication.failed";
  record[kAuthnSubjectKey] = subject;
  record[kAuthnObjectKey] = FullOperation(request);
  record[std::string(kAuthnParamPrefix) + "reason"] = reason;
}

}  // namespace

bool AnonymousAuthnHandler::Authenticate(const nlohmann::json& security_ctx, AuthnResult* out) const {
  if (!security_ctx.empty()) {
    LUMEN_LOG(*logger_, kLumenDebug) << "Security context is not empty. Skipping anonymous authentication.";
    return false;
  }
  out->name = "AnonymousAuthentication";
  out->username = "<ANONYMOUS>";
  out->values = {"@ANONYMOUS"};
  out->scheme = kNoAuthenticationScheme;
  return true;
}

AuthnMetadata AuthnMetadataFromSection(const nlohmann::json& section) {
  AuthnMetadata out;
  auto services = section.find("services");
  if (services == section.end() || !services->is_object()) {
    return out;
  }
  for (const auto& [service_id, service] : services->items()) {
    if (!service.is_object() || !service.contains("operations") || !service["operations"].is_object()) {
      continue;
    }
    for (const auto& [op_id, op] : service["operations"].items()) {
      auto& schemes = out[service_id + "." + op_id];
      if (op.is_object() && op.contains("schemes") && op["schemes"].is_array()) {
        for (const auto& s : op["schemes"]) {
          if (s.is_string()) {
            schemes.insert(s.get<std::string>());
          }
        }
      }
    }
  }
  return out;
}

AsyncAuthnFilter::AsyncAuthnFilter(std::shared_ptr<Lumen::Provider::ApiProvider> next, AuthnMetadata metadata,
                                   std::shared_ptr<const Hyv::Authn::TokenHandler> token_handler,
                                   std::shared_ptr<const AnonymousAuthnHandler> anonymous,
                                   std::shared_ptr<Lumen::Log::Logger> logger)
    : Filter(std::move(next)),
      metadata_(std::move(metadata)),
      token_handler_(std::move(token_handler)),
      anonymous_(std::move(anonymous)),
      logger_(std::move(logger)) {}

void AsyncAuthnFilter::Invoke(Request request, ResultCallback done) {
  auto entry = metadata_.find(FullOperation(request));
  if (entry == metadata_.end()) {
    done(MethodResult::Failure(StdErrors::OperationNotFound(request.service_id, request.operation_id)));
    return;
  }
  const std::set<std::string>& schemes = entry->second;
  bool open = schemes.count(kNoAuthenticationScheme) > 0;
  AuthnResult identity;
  if (anonymous_->Authenticate(request.security_ctx, &identity)) {
    if (!open) {
      LeaveAuthnFailure(request, identity.username, "no credentials");
      done(MethodResult::Failure(StdErrors::Unauthenticated()));
      return;
    }
  } else {
    std::string claimed;
    auto status = token_handler_->Authenticate(request.security_ctx, &identity, &claimed);
    if (status != Hyv::Authn::TokenHandler::Status::kOk) {
      LUMEN_LOG(*logger_, kLumenInfo) << "Token refused for " << FullOperation(request) << ": "
                                      << Hyv::Authn::TokenHandler::StatusText(status);
      // The subject of a refused token is only what its sender claims: the
      // entry marks it as such and carries a bounded, escaped copy.
      LeaveAuthnFailure(request, QrwAudit_UnverifiedSubject(claimed), Hyv::Authn::TokenHandler::StatusText(status));
      done(MethodResult::Failure(StdErrors::Unauthenticated()));
      return;
    }
    if (!open && schemes.count(Hyv::Authn::kTokenSchemeId) == 0) {
      LeaveAuthnFailure(request, identity.username, "scheme not accepted");
      done(MethodResult::Failure(StdErrors::Unauthenticated()));
      return;
    }
  }
  request.ctx->identity = std::move(identity);
  next_->Invoke(std::move(request), std::move(done));
}

}  // namespace Witnessd::AttestApi

namespace HyvToken::Authz {

bool JwtEntitlementCheckerImpl::Check(const Lumen::Provider::AuthnResult& identity,
                                      const std::vector<std::string>& privileges, std::string* missing) const {
  for (const auto& p : privileges) {
    bool held = identity.scheme == Hyv::Authn::kTokenSchemeId &&
                std::find(identity.values.begin(), identity.values.end(), p) != identity.values.end();
    if (!held) {
      *missing = p;
      return false;
    }
  }
  return true;
}

}  // namespace HyvToken::Authz

namespace Witnessd::AttestApi {

AsyncAuthzFilter::AsyncAuthzFilter(std::shared_ptr<Lumen::Provider::ApiProvider> next,
                                   std::shared_ptr<const HyvToken::Authz::JwtEntitlementCheckerImpl> checker,
                                   const nlohmann::json& authz_section)
    : Filter(std::move(next)), checker_(std::move(checker)) {
  // The section was validated by LoadAuthzInfoMetadata::Load.
  for (const auto& [service_id, service] : authz_section["services"].items()) {
    for (const auto& [op_id, op] : service["operations"].items()) {
      privileges_[service_id + "." + op_id] = op["privileges"].get<std::vector<std::string>>();
    }
  }
}

void AsyncAuthzFilter::Invoke(Request request, ResultCallback done) {
  auto entry = privileges_.find(FullOperation(request));
  if (entry != privileges_.end() && !entry->second.empty()) {
    std::string missing;
    const auto& identity = request.ctx->identity;
    if (!identity || !checker_->Check(*identity, entry->second, &missing)) {
      auto& record = request.ctx->audit;
      record[kAuthzSubjectKey] = identity ? identity->username : "";
      record[kAuthzObjectKey] = FullOperation(request);
      record[std::string(kAuthzParamPrefix) + "privilege"] = missing.empty() ? entry->second.front() : missing;
      done(MethodResult::Failure(StdErrors::Unauthorized()));
      return;
    }
  }
  next_->Invoke(std::move(request), std::move(done));
}

}  // namespace Witnessd::AttestApi

namespace Orm::Common::HearthLumen {

OpIdProvider::OpIdProvider(std::shared_ptr<Lumen::Provider::ApiProvider> next,
                           std::shared_ptr<Lumen::Log::Logger> logger)
    : Filter(std::move(next)), logger_(std::move(logger)) {
  // A random prefix per run and a counter: unique ids without touching the
  // random generator on the serving threads.
  char prefix[24];
  snprintf(prefix, sizeof(prefix), "witnessd-%08x-", Random_Fast());
  prefix_ = prefix;
}

void OpIdProvider::Invoke(Lumen::Provider::Request request, Lumen::Provider::ResultCallback done) {
  if (request.ctx->op_id.empty()) {
    request.ctx->op_id = prefix_ + std::to_string(next_id_.fetch_add(1, std::memory_order_relaxed));
  }
  LUMEN_LOG(*logger_, 1) << "Invoking " << request.service_id << "." << request.operation_id
                         << " opId:" << request.ctx->op_id;
  next_->Invoke(std::move(request), std::move(done));
}

}  // namespace Orm::Common::HearthLumen

namespace Lumen::Observer {

void CallRegistrar::Invoke(Provider::Request request, Provider::ResultCallback done) {
  for (const auto& o : observers_) {
    o->OnCallStart(request);
  }
  // The end of the call needs its identity and context, not its input.
  Provider::Request kept;
  kept.service_id = request.service_id;
  kept.operation_id = request.operation_id;
  kept.ctx = request.ctx;
  auto start = std::chrono::steady_clock::now();
  next_->Invoke(std::move(request), [observers = observers_, kept = std::move(kept), start,
                                     done = std::move(done)](Provider::MethodResult r) {
    std::chrono::nanoseconds elapsed = std::chrono::steady_clock::now() - start;
    for (const auto& o : observers) {
      o->OnCallEnd(kept, r, elapsed);
    }
    done(std::move(r));
  });
}

}  // namespace Lumen::Observer

namespace Witnessd::AttestApi {

namespace {

// The record's checks are assertions of the audit context itself.
constexpr const char* kSourcePath = "api/AuditContext";

std::string Get(const std::map<std::string, std::string>& record, const std::string& key) {
  auto it = record.find(key);
  return it == record.end() ? std::string() : it->second;
}

// WriteEvent writes one authentication or authorization entry, or the
// "product.issue" entry when a mandatory part of it is empty, through |log|.
void WriteEvent(QrwAuditRefusalLog& log, const std::string& event_id, const std::string& subject,
                const std::string& object, bool success, const std::map<std::string, std::string>& record,
                const std::string& prefix) {
  if (event_id.empty() || subject.empty() || object.empty()) {
    std::string reason = "One or more mandatory string arguments to function are empty. eventId:" + event_id +
                         ";subject:" + subject + ";object:" + object;
    QrwAuditItem items[] = {{"reason", reason.c_str()}, {"location", "Service audit"}};
    log.LogList("product.issue", "", "hyv", false, items, 2);
    return;
  }
  std::vector<std::pair<std::string, std::string>> extra;
  for (const auto& [key, value] : record) {
    if (key.size() > prefix.size() && key.compare(0, prefix.size(), prefix) == 0) {
      extra.emplace_back(key.substr(prefix.size()), value);
    }
  }
  std::vector<QrwAuditItem> items;
  for (const auto& [name, value] : extra) {
    items.push_back({name.c_str(), value.c_str()});
  }
  log.LogList(event_id.c_str(), subject.c_str(), object.c_str(), success, items.data(), items.size());
}

}  // namespace

AuditObserver::AuditObserver(const std::string& switch_path) : enabled_(access(switch_path.c_str(), F_OK) == 0) {}

void AuditObserver::OnCallStart(const Request& request) {
  auto& record = request.ctx->audit;
  record["eventID"] = "api.call";
  record["subject"] = "";
  // An operation the provider does not know is named by the caller alone.
  record["object"] = QrwAudit_SanitizeText(FullOperation(request));
}

void AuditObserver::OnCallEnd(const Request& request, const MethodResult& result, std::chrono::nanoseconds) {
  auto& record = request.ctx->audit;
  if (request.ctx->identity) {
    record["subject"] = request.ctx->identity->username;
  }
  record["result"] = result.error ? "false" : "true";
  bool enabled = enabled_;
  VERIFY(record.count("eventID") == 1);
  refusals_.Flush();
  if (enabled) {
    VERIFY(record.count("subject") == 1 && record.count("object") == 1 && record.count("result") == 1);
    QrwAudit_LogList(record["eventID"].c_str(), record["subject"].c_str(), record["object"].c_str(),
                     record["result"] == "true", nullptr, 0);
  }
  if (record.count(kAuthnEventKey) != 0) {
    WriteEvent(refusals_, Get(record, kAuthnEventKey), Get(record, kAuthnSubjectKey), Get(record, kAuthnObjectKey),
               false, record, kAuthnParamPrefix);
  }
  if (record.count(kAuthzSubjectKey) != 0 || record.count(kAuthzEventKey) != 0) {
    std::string event_id = record.count(kAuthzEventKey) != 0 ? record[kAuthzEventKey] : "service.access.denied";
    WriteEvent(refusals_, event_id, Get(record, kAuthzSubjectKey), Get(record, kAuthzObjectKey), false, record,
               kAuthzParamPrefix);
  }
}

void TrafficObserver::OnCallStart(const Request&) {
  traffic_->CountRequest();
}

void TrafficObserver::OnCallEnd(const Request&, const MethodResult& result, std::chrono::nanoseconds) {
  if (!result.error) {
    return;
  }
  switch (result.error->kind) {
    case StdErrors::Kind::kInvalidArgument:
    case StdErrors::Kind::kAlreadyExists:
    case StdErrors::Kind::kNotFound:
    case StdErrors::Kind::kError:
      errors_->Count("service");
      break;
    case StdErrors::Kind::kOperationNotFound:
      errors_->Count("resource");
      break;
    default:
      errors_->Count("others");
      break;
  }
}

CallMetricsObserver::CallMetricsObserver()
    : latency_(Metrics::GetHistogram("witnessd_api_request_seconds", "Time from a request's last byte to its answer.")),
      calls_(Metrics::CounterFamily("witnessd_api_calls_total", "API calls answered, by operation and result.")) {
  calls_.Add({{"operation", "unknown"}, {"result", StdErrors::KindName(StdErrors::Kind::kOperationNotFound)}});
}

void CallMetricsObserver::OnCallEnd(const Request& request, const MethodResult& result,
                                    std::chrono::nanoseconds elapsed) {
  std::string kind = result.error ? StdErrors::KindName(result.error->kind) : "ok";
  // Operations a client makes up are one label, "unknown", so that clients
  // cannot grow the set of series.
  std::string operation = "unknown";
  Metrics::Counter* counter;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!result.error || result.error->kind != StdErrors::Kind::kOperationNotFound) {
      std::string name = FullOperation(request);
      if (operations_.count(name) != 0 || operations_.size() < kMaxOperations) {
        operations_.insert(name);
        operation = std::move(name);
      }
    }
    Metrics::Counter*& found = counters_[{operation, kind}];
    if (found == nullptr) {
      found = &calls_.Add({{"operation", operation}, {"result", kind}});
    }
    counter = found;
  }
  counter->Increment();
  latency_.Observe(std::chrono::duration<double>(elapsed).count());
}

}  // namespace Witnessd::AttestApi
