#include "api/services/Tpm2SettingsSvc.h"

namespace Witnessd::AttestApi {

nlohmann::json Encode(const Tpm2SettingsSvc::Info& info) {
  return {{"require_endorsement_keys", info.require_endorsement_keys},
          {"require_certificate_validation", info.require_certificate_validation}};
}

void Tpm2SettingsSvc::AsyncServiceBinder::BindImplementation(std::shared_ptr<Tpm2SettingsSvc> impl,
                                                             Lumen::Provider::InterfaceList* interfaces) {
  auto iface = std::make_shared<Lumen::Provider::ApiInterface>();
  iface->service_id = kServiceId;
  iface->operations["get"] = Binding::MakeOperation<Binding::NoInput, Info>(
      Binding::DecodeNothing, [impl](const Binding::NoInput&, Callback<Info> done) { impl->Get(std::move(done)); });
  iface->operations["update"] = Binding::MakeOperation<UpdateSpec, Lumen::Void>(
      [](Binding::InputReader& r) {
        UpdateSpec args;
        args.require_endorsement_keys = r.OptBool("require_endorsement_keys");
        args.require_certificate_validation = r.OptBool("require_certificate_validation");
        return args;
      },
      [impl](const UpdateSpec& args, Callback<Lumen::Void> done) { impl->Update(args, std::move(done)); });
  interfaces->push_back(iface);
}

}  // namespace Witnessd::AttestApi
