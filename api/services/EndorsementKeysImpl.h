// The endorsement keys service: the administrator's list, get, create and
// delete of trusted EKs, declared by public key, by EK certificate, or both.
#pragma once

#include "api/services/EndorsementKeysSvc.h"
#include "config/tpm2/TrustConfiguration.h"

namespace Witnessd::AttestApi {

class EndorsementKeysImpl : public EndorsementKeysSvc {
 public:
  // |trust| outlives the service.
  explicit EndorsementKeysImpl(Config::Tpm2::TrustConfiguration& trust) : trust_(trust) {}

  void List(Callback<std::vector<Summary>> done) override;
  void Get(const std::string& name, Callback<Info> done) override;
  void Create(const CreateSpec& args, Callback<Lumen::Void> done) override;
  void Delete(const std::string& name, Callback<Lumen::Void> done) override;

 private:
  Config::Tpm2::TrustConfiguration& trust_;
};

}  // namespace Witnessd::AttestApi
