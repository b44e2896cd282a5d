// The certificate service: the report-signing certificate, for clients that
// verify tokens. It cannot be replaced through the API.
#pragma once

#include "api/services/CertificateSvc.h"
#include "config/SigningKey.h"

namespace Witnessd::AttestApi {

class CertificateImpl : public CertificateSvc {
 public:
  // |keys| outlives the service.
  explicit CertificateImpl(const Config::SigningKeys& keys) : keys_(keys) {}

  void Get(Callback<Info> done) override;
  void Set(const std::string& certificate, Callback<Lumen::Void> done) override;

 private:
  const Config::SigningKeys& keys_;
};

}  // namespace Witnessd::AttestApi
