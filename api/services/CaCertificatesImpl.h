// The CA certificates service: the administrator's list, get, create and
// delete of trusted TPM manufacturer CA chains.
#pragma once

#include "api/services/CaCertificatesSvc.h"
#include "config/tpm2/TrustConfiguration.h"

namespace Witnessd::AttestApi {

class CaCertificatesImpl : public CaCertificatesSvc {
 public:
  // |trust| outlives the service.
  explicit CaCertificatesImpl(Config::Tpm2::TrustConfiguration& trust) : trust_(trust) {}

  void List(Callback<std::vector<Summary>> done) override;
  void Get(const std::string& name, Callback<Info> done) override;
  void Create(const CreateSpec& args, Callback<Lumen::Void> done) override;
  void Delete(const std::string& name, Callback<Lumen::Void> done) override;

 private:
  Config::Tpm2::TrustConfiguration& trust_;
};

}  // namespace Witnessd::AttestApi
