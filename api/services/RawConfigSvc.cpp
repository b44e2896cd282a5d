#include "api/services/RawConfigSvc.h"

namespace Witnessd::AttestApi {

nlohmann::json Encode(const RawConfigSvc::Info& info) {
  return {{"config", Lumen::Json::Base64Encode(info.config)}, {"hash", info.hash}};
}

void RawConfigSvc::AsyncServiceBinder::BindImplementation(std::shared_ptr<RawConfigSvc> impl,
                                                          Lumen::Provider::InterfaceList* interfaces) {
  using Lumen::Void;
  using MaybeType = std::optional<InfoType>;
  auto iface = std::make_shared<Lumen::Provider::ApiInterface>();
  iface->service_id = kServiceId;
  iface->operations["export"] = Binding::MakeOperation<MaybeType, Info>(
      [](Binding::InputReader& r) -> MaybeType {
        std::optional<std::string> text = r.OptString("info_type");
        if (!text) {
          return std::nullopt;
        }
        if (*text == "COMPRESSED") {
          return InfoType::kCompressed;
        }
        return *text == "PLAIN" ? InfoType::kPlain : InfoType::kUnknown;
      },
      [impl](const MaybeType& type, Callback<Info> done) { impl->Export(type, std::move(done)); });
  iface->operations["import"] = Binding::MakeOperation<std::vector<uint8_t>, Void>(
      [](Binding::InputReader& r) { return r.Binary("config"); },
      [impl](const std::vector<uint8_t>& config, Callback<Void> done) { impl->Import(config, std::move(done)); });
  interfaces->push_back(iface);
}

}  // namespace Witnessd::AttestApi
