// Binding of the base images service "com.quarro.hyv.attestation.os.hyv.base_images".
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api/services/ServiceBinding.h"

namespace Witnessd::AttestApi {

class BaseImagesSvc {
 public:
  static constexpr const char* kServiceId = "com.quarro.hyv.attestation.os.hyv.base_images";

  struct Summary {
    std::string version;
    std::string name;                               // "HYVi <version>"
    std::optional<std::string> last_attested_time;  // RFC 3339 UTC
  };
  struct Package {
    std::string name;
    std::string version;
    std::string vendor;
    std::string type;
    std::string summary;
  };
  struct Info {
    std::string version;
    std::string name;
    std::optional<std::string> last_attested_time;
    std::vector<Package> packages;
  };

  virtual ~BaseImagesSvc() = default;
  // Import takes the gzip-compressed image database and answers the new
  // image's version.
  virtual void Import(const std::vector<uint8_t>& imgdb, Callback<std::string> done) = 0;
  virtual void List(Callback<std::vector<Summary>> done) = 0;
  virtual void Delete(const std::string& version, Callback<Lumen::Void> done) = 0;
  virtual void Get(const std::string& version, Callback<Info> done) = 0;

  struct AsyncServiceBinder {
    static void BindImplementation(std::shared_ptr<BaseImagesSvc> impl, Lumen::Provider::InterfaceList* interfaces);
  };
};

nlohmann::json Encode(const BaseImagesSvc::Summary& summary);
nlohmann::json Encode(const BaseImagesSvc::Package& package);
nlohmann::json Encode(const BaseImagesSvc::Info& info);

}  // namespace Witnessd::AttestApi
