// The status service: whether the service is configured well enough to
// attest hosts, and if not, what is missing. Recomputed on every call.
#pragma once

#include "api/services/StatusSvc.h"
#include "config/Configuration.h"
#include "config/tpm2/TrustConfiguration.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::AttestApi {

class StatusImpl : public StatusSvc {
 public:
  // All three outlive the service.
  StatusImpl(const Config::Tpm2::TrustConfiguration& trust, const Trusted::BaseImageStore& images,
             Config::StatusConditions& conditions)
      : trust_(trust), images_(images), conditions_(conditions) {}

  void Get(Callback<Info> done) override;

 private:
  const Config::Tpm2::TrustConfiguration& trust_;
  const Trusted::BaseImageStore& images_;
  Config::StatusConditions& conditions_;
};

}  // namespace Witnessd::AttestApi
