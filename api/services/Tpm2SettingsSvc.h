// Binding of the TPM settings service "com.quarro.hyv.attestation.tpm2.settings".
#pragma once

#include <memory>
#include <optional>

#include "api/services/ServiceBinding.h"

namespace Witnessd::AttestApi {

class Tpm2SettingsSvc {
 public:
  static constexpr const char* kServiceId = "com.quarro.hyv.attestation.tpm2.settings";

  struct Info {
    bool require_endorsement_keys = false;
    bool require_certificate_validation = false;
  };
  // UpdateSpec: absent fields keep their current value.
  struct UpdateSpec {
    std::optional<bool> require_endorsement_keys;
    std::optional<bool> require_certificate_validation;
  };

  virtual ~Tpm2SettingsSvc() = default;
  virtual void Get(Callback<Info> done) = 0;
  virtual void Update(const UpdateSpec& args, Callback<Lumen::Void> done) = 0;

  struct AsyncServiceBinder {
    static void BindImplementation(std::shared_ptr<Tpm2SettingsSvc> impl,
                                   Lumen::Provider::InterfaceList* interfaces);
  };
};

nlohmann::json Encode(const Tpm2SettingsSvc::Info& info);

}  // namespace Witnessd::AttestApi
