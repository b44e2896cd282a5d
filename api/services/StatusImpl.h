// The status service: whether the service is configured well enough to
// attest hosts, and if not, what is missing. Recomputed on every call.
#pragma once

#include "api/services/StatusSvc.h"

namespace Witnessd::AttestApi {

class StatusImpl : public StatusSvc {
 public:
  void Get(Callback<Info> done) override;
};

}  // namespace Witnessd::AttestApi
