// Binding of the status service "com.quarro.hyv.attestation.status".
#pragma once

#include <memory>
#include <vector>

#include "api/services/ServiceBinding.h"

namespace Witnessd::AttestApi {

class StatusSvc {
 public:
  static constexpr const char* kServiceId = "com.quarro.hyv.attestation.status";

  enum class Health { kOk = 1, kWarning = 2 };
  struct Info {
    Health health = Health::kOk;
    std::vector<Lumen::LocalizableMessage> messages;
  };

  virtual ~StatusSvc() = default;
  virtual void Get(Callback<Info> done) = 0;

  struct AsyncServiceBinder {
    // BindImplementation adds the service's interface, served by |impl|, to
    // |interfaces|.
    static void BindImplementation(std::shared_ptr<StatusSvc> impl, Lumen::Provider::InterfaceList* interfaces);
  };
};

nlohmann::json Encode(const StatusSvc::Info& info);

}  // namespace Witnessd::AttestApi
