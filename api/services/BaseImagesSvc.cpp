#include "api/services/BaseImagesSvc.h"

#include "config/Configuration.h"

namespace Witnessd::AttestApi {

namespace {

nlohmann::json OptionalText(const std::optional<std::string>& text) {
  return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

}  // namespace

nlohmann::json Encode(const BaseImagesSvc::Summary& summary) {
  return {{"version", summary.version},
          {"name", summary.name},
          {"last_attested_time", OptionalText(summary.last_attested_time)}};
}

nlohmann::json Encode(const BaseImagesSvc::Package& package) {
  return {{"name", package.name},
          {"version", package.version},
          {"vendor", package.vendor},
          {"type", package.type},
          {"summary", package.summary}};
}

nlohmann::json Encode(const BaseImagesSvc::Info& info) {
  return {{"version", info.version},
          {"name", info.name},
          {"last_attested_time", OptionalText(info.last_attested_time)},
          {"packages", Binding::Encode(info.packages)}};
}

void BaseImagesSvc::AsyncServiceBinder::BindImplementation(std::shared_ptr<BaseImagesSvc> impl,
                                                           Lumen::Provider::InterfaceList* interfaces) {
  using Lumen::Void;
  auto iface = std::make_shared<Lumen::Provider::ApiInterface>();
  iface->service_id = kServiceId;
  auto by_version = [](Binding::InputReader& r) { return r.Checked("version", Config::RecordNameValid); };
  iface->operations["import"] = Binding::MakeOperation<std::vector<uint8_t>, std::string>(
      [](Binding::InputReader& r) { return r.Binary("imgdb"); },
      [impl](const std::vector<uint8_t>& imgdb, Callback<std::string> done) {
        impl->Import(imgdb, std::move(done));
      });
  iface->operations["list"] = Binding::MakeOperation<Binding::NoInput, std::vector<Summary>>(
      Binding::DecodeNothing,
      [impl](const Binding::NoInput&, Callback<std::vector<Summary>> done) { impl->List(std::move(done)); });
  iface->operations["delete"] = Binding::MakeOperation<std::string, Void>(
      by_version, [impl](const std::string& v, Callback<Void> done) { impl->Delete(v, std::move(done)); });
  iface->operations["get"] = Binding::MakeOperation<std::string, Info>(
      by_version, [impl](const std::string& v, Callback<Info> done) { impl->Get(v, std::move(done)); });
  interfaces->push_back(iface);
}

}  // namespace Witnessd::AttestApi
