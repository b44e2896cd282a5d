#include "api/services/EndorsementKeysSvc.h"

#include "config/Configuration.h"

namespace Witnessd::AttestApi {

nlohmann::json Encode(const EndorsementKeysSvc::Summary& summary) {
  return {{"name", summary.name}};
}

nlohmann::json Encode(const EndorsementKeysSvc::Info& info) {
  return {{"name", info.name}, {"public_key", info.public_key}};
}

void EndorsementKeysSvc::AsyncServiceBinder::BindImplementation(std::shared_ptr<EndorsementKeysSvc> impl,
                                                                Lumen::Provider::InterfaceList* interfaces) {
  using Lumen::Void;
  auto iface = std::make_shared<Lumen::Provider::ApiInterface>();
  iface->service_id = kServiceId;
  auto by_name = [](Binding::InputReader& r) { return r.Checked("name", Config::RecordNameValid); };
  iface->operations["list"] = Binding::MakeOperation<Binding::NoInput, std::vector<Summary>>(
      Binding::DecodeNothing,
      [impl](const Binding::NoInput&, Callback<std::vector<Summary>> done) { impl->List(std::move(done)); });
  iface->operations["get"] = Binding::MakeOperation<std::string, Info>(
      by_name, [impl](const std::string& name, Callback<Info> done) { impl->Get(name, std::move(done)); });
  iface->operations["create"] = Binding::MakeOperation<CreateSpec, Void>(
      [](Binding::InputReader& r) {
        CreateSpec args;
        args.name = r.Checked("name", Config::RecordNameValid);
        args.public_key = r.OptString("public_key");
        args.certificate = r.OptString("certificate");
        return args;
      },
      [impl](const CreateSpec& args, Callback<Void> done) { impl->Create(args, std::move(done)); });
  iface->operations["delete"] = Binding::MakeOperation<std::string, Void>(
      by_name, [impl](const std::string& name, Callback<Void> done) { impl->Delete(name, std::move(done)); });
  interfaces->push_back(iface);
}

}  // namespace Witnessd::AttestApi
