// Binding of the CA certificates service
// "com.quarro.hyv.attestation.tpm2.ca_certificates".
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "api/services/ServiceBinding.h"

namespace Witnessd::AttestApi {

class CaCertificatesSvc {
 public:
  static constexpr const char* kServiceId = "com.quarro.hyv.attestation.tpm2.ca_certificates";

  struct Summary {
    std::string name;
  };
  struct Info {
    std::string name;
    std::vector<std::string> certificates;  // PEM, chain order
  };
  struct CreateSpec {
    std::string name;
    std::vector<std::string> certificates;
  };

  virtual ~CaCertificatesSvc() = default;
  virtual void List(Callback<std::vector<Summary>> done) = 0;
  virtual void Get(const std::string& name, Callback<Info> done) = 0;
  virtual void Create(const CreateSpec& args, Callback<Lumen::Void> done) = 0;
  virtual void Delete(const std::string& name, Callback<Lumen::Void> done) = 0;

  struct AsyncServiceBinder {
    static void BindImplementation(std::shared_ptr<CaCertificatesSvc> impl,
                                   Lumen::Provider::InterfaceList* interfaces);
  };
};

nlohmann::json Encode(const CaCertificatesSvc::Summary& summary);
nlohmann::json Encode(const CaCertificatesSvc::Info& info);

}  // namespace Witnessd::AttestApi
