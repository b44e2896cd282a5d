#include "platform/lumen/Provider.h"

namespace Lumen::Provider {

AsyncLocalProvider::AsyncLocalProvider(const InterfaceList& interfaces,
                                       std::shared_ptr<const Json::TypeRegistry> types)
    : types_(std::move(types)) {
  for (const auto& i : interfaces) {
    auto& slot = by_service_[i->service_id];
    if (!slot) {
      slot = i;
    } else {
      // Two interfaces of one service (metadata services share prefixes with
      // nothing, but a binder may add operations in two steps): merge.
      auto merged = std::make_shared<ApiInterface>(*slot);
      for (const auto& [name, handler] : i->operations) {
        merged->operations.emplace(name, handler);
      }
      slot = merged;
    }
  }
}

void AsyncLocalProvider::Invoke(Request request, ResultCallback done) {
  auto it = by_service_.find(request.service_id);
  if (it != by_service_.end()) {
    auto op = it->second->operations.find(request.operation_id);
    if (op != it->second->operations.end()) {
      op->second(request, std::move(done));
      return;
    }
  }
  done(MethodResult::Failure(
      Com::Quarro::Lumen::Std::Errors::OperationNotFound(request.service_id, request.operation_id)));
}

std::vector<std::string> AsyncLocalProvider::Operations() const {
  std::vector<std::string> out;
  for (const auto& [service, iface] : by_service_) {
    for (const auto& [op, handler] : iface->operations) {
      out.push_back(service + "." + op);
    }
  }
  return out;
}

}  // namespace Lumen::Provider
