#include "api/services/StatusSvc.h"

namespace Witnessd::AttestApi {

nlohmann::json Encode(const StatusSvc::Info& info) {
  nlohmann::json messages = nlohmann::json::array();
  for (const auto& m : info.messages) {
    messages.push_back(Com::Quarro::Lumen::Std::Errors::MessageToJson(m));
  }
  return {{"health", info.health == StatusSvc::Health::kOk ? "OK" : "WARNING"}, {"messages", messages}};
}

void StatusSvc::AsyncServiceBinder::BindImplementation(std::shared_ptr<StatusSvc> impl,
                                                       Lumen::Provider::InterfaceList* interfaces) {
  auto iface = std::make_shared<Lumen::Provider::ApiInterface>();
  iface->service_id = kServiceId;
  iface->operations["get"] = Binding::MakeOperation<Binding::NoInput, Info>(
      Binding::DecodeNothing, [impl](const Binding::NoInput&, Callback<Info> done) { impl->Get(std::move(done)); });
  interfaces->push_back(iface);
}

}  // namespace Witnessd::AttestApi
