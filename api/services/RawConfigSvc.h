// Binding of the raw configuration service "com.quarro.hyv.attestation.raw_config".
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api/services/ServiceBinding.h"

namespace Witnessd::AttestApi {

class RawConfigSvc {
 public:
  static constexpr const char* kServiceId = "com.quarro.hyv.attestation.raw_config";

  // Any string other than "COMPRESSED" and "PLAIN" arrives as kUnknown.
  enum class InfoType { kCompressed = 0, kPlain = 1, kUnknown = 2 };
  struct Info {
    std::vector<uint8_t> config;
    std::string hash;  // hex
  };

  virtual ~RawConfigSvc() = default;
  // |info_type| is empty when the caller gave none.
  virtual void Export(std::optional<InfoType> info_type, Callback<Info> done) = 0;
  // |config| is the gzip-compressed export text.
  virtual void Import(const std::vector<uint8_t>& config, Callback<Lumen::Void> done) = 0;

  struct AsyncServiceBinder {
    static void BindImplementation(std::shared_ptr<RawConfigSvc> impl, Lumen::Provider::InterfaceList* interfaces);
  };
};

nlohmann::json Encode(const RawConfigSvc::Info& info);

}  // namespace Witnessd::AttestApi
