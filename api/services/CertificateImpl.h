// The certificate service: the report-signing certificate, for clients that
// verify tokens. It cannot be replaced through the API.
#pragma once

#include "api/services/CertificateSvc.h"

namespace Witnessd::AttestApi {

class CertificateImpl : public CertificateSvc {
 public:
  void Get(Callback<Info> done) override;
  void Set(const std::string& certificate, Callback<Lumen::Void> done) override;
};

}  // namespace Witnessd::AttestApi
