// The CA certificates service: the administrator's list, get, create and
// delete of trusted TPM manufacturer CA chains.
#pragma once

#include "api/services/CaCertificatesSvc.h"

namespace Witnessd::AttestApi {

class CaCertificatesImpl : public CaCertificatesSvc {
 public:
  void List(Callback<std::vector<Summary>> done) override;
  void Get(const std::string& name, Callback<Info> done) override;
  void Create(const CreateSpec& args, Callback<Lumen::Void> done) override;
  void Delete(const std::string& name, Callback<Lumen::Void> done) override;
};

}  // namespace Witnessd::AttestApi
