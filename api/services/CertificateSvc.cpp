#include "api/services/CertificateSvc.h"

namespace Witnessd::AttestApi {

nlohmann::json Encode(const CertificateSvc::Info& info) {
  return {{"certificate", info.certificate}};
}

void CertificateSvc::AsyncServiceBinder::BindImplementation(std::shared_ptr<CertificateSvc> impl,
                                                            Lumen::Provider::InterfaceList* interfaces) {
  auto iface = std::make_shared<Lumen::Provider::ApiInterface>();
  iface->service_id = kServiceId;
  iface->operations["get"] = Binding::MakeOperation<Binding::NoInput, Info>(
      Binding::DecodeNothing, [impl](const Binding::NoInput&, Callback<Info> done) { impl->Get(std::move(done)); });
  iface->operations["set"] = Binding::MakeOperation<std::string, Lumen::Void>(
      [](Binding::InputReader& r) { return r.String("certificate"); },
      [impl](const std::string& cert, Callback<Lumen::Void> done) { impl->Set(cert, std::move(done)); });
  interfaces->push_back(iface);
}

}  // namespace Witnessd::AttestApi
