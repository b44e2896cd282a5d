// The certificate service: the report-signing certificate, for clients that
// verify tokens, and its replacement by an administrator.
#pragma once

#include "api/services/CertificateSvc.h"
#include "config/SigningKey.h"

namespace Witnessd::AttestApi {

class CertificateImpl : public CertificateSvc {
 public:
  // |keys| outlives the service.
  explicit CertificateImpl(Config::SigningKeys& keys) : keys_(keys) {}

  void Get(Callback<Info> done) override;
  // Set replaces the signing pair with the certificate and RSA private key
  // that |pem| holds (both PEM blocks in one text).
  void Set(const std::string& pem, Callback<Lumen::Void> done) override;

 private:
  Config::SigningKeys& keys_;
};

}  // namespace Witnessd::AttestApi
