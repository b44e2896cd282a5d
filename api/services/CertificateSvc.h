// Binding of the certificate service "com.quarro.hyv.attestation.certificate".
#pragma once

#include <memory>
#include <string>

#include "api/services/ServiceBinding.h"

namespace Witnessd::AttestApi {

class CertificateSvc {
 public:
  static constexpr const char* kServiceId = "com.quarro.hyv.attestation.certificate";

  struct Info {
    std::string certificate;  // PEM
  };

  virtual ~CertificateSvc() = default;
  virtual void Get(Callback<Info> done) = 0;
  virtual void Set(const std::string& certificate, Callback<Lumen::Void> done) = 0;

  struct AsyncServiceBinder {
    static void BindImplementation(std::shared_ptr<CertificateSvc> impl, Lumen::Provider::InterfaceList* interfaces);
  };
};

nlohmann::json Encode(const CertificateSvc::Info& info);

}  // namespace Witnessd::AttestApi
