// The TPM settings service: get and update of the two TPM attestation
// settings.
#pragma once

#include "api/services/Tpm2SettingsSvc.h"

namespace Witnessd::AttestApi {

class Tpm2SettingsImpl : public Tpm2SettingsSvc {
 public:
  void Get(Callback<Info> done) override;
  void Update(const UpdateSpec& args, Callback<Lumen::Void> done) override;
};

}  // namespace Witnessd::AttestApi
