// Binding of the endorsement keys service
// "com.quarro.hyv.attestation.tpm2.endorsement_keys".
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api/services/ServiceBinding.h"

namespace Witnessd::AttestApi {

class EndorsementKeysSvc {
 public:
  static constexpr const char* kServiceId = "com.quarro.hyv.attestation.tpm2.endorsement_keys";

  struct Summary {
    std::string name;
  };
  struct Info {
    std::string name;
    std::string public_key;  // PEM
  };
  struct CreateSpec {
    std::string name;
    std::optional<std::string> public_key;   // PEM
    std::optional<std::string> certificate;  // PEM
  };

  virtual ~EndorsementKeysSvc() = default;
  virtual void List(Callback<std::vector<Summary>> done) = 0;
  virtual void Get(const std::string& name, Callback<Info> done) = 0;
  virtual void Create(const CreateSpec& args, Callback<Lumen::Void> done) = 0;
  virtual void Delete(const std::string& name, Callback<Lumen::Void> done) = 0;

  struct AsyncServiceBinder {
    static void BindImplementation(std::shared_ptr<EndorsementKeysSvc> impl,
                                   Lumen::Provider::InterfaceList* interfaces);
  };
};

nlohmann::json Encode(const EndorsementKeysSvc::Summary& summary);
nlohmann::json Encode(const EndorsementKeysSvc::Info& info);

}  // namespace Witnessd::AttestApi
