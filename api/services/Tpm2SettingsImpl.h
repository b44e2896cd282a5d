// The TPM settings service: get and update of the two TPM attestation
// settings.
#pragma once

#include "api/services/Tpm2SettingsSvc.h"
#include "config/tpm2/TrustConfiguration.h"

namespace Witnessd::AttestApi {

class Tpm2SettingsImpl : public Tpm2SettingsSvc {
 public:
  // |trust| outlives the service.
  explicit Tpm2SettingsImpl(Config::Tpm2::TrustConfiguration& trust) : trust_(trust) {}

  void Get(Callback<Info> done) override;
  void Update(const UpdateSpec& args, Callback<Lumen::Void> done) override;

 private:
  Config::Tpm2::TrustConfiguration& trust_;
};

}  // namespace Witnessd::AttestApi
