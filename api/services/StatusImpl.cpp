#include "api/services/StatusImpl.h"

#include "api/errors/ErrorCatalogue.h"
#include "platform/ssl/SslUtils.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::AttestApi {
namespace {

using namespace Config;

// Message ids of the status conditions, by index.
constexpr const char* kConditionIds[kNumStatusConditions] = {
    Errors::kStatusInvalidTpm2Settings,
    Errors::kStatusTpmCaUnset,
    Errors::kStatusTpmEkUnset,
    Errors::kStatusTpmDupCa,
    Errors::kStatusTrustedSoftwareUnset,
    Errors::kStatusHyvBaseImagesLoadError,
};

}  // namespace

void StatusImpl::Get(Callback<Info> done) {
  Tpm2::TrustSnapshotPtr trust = trust_.Snapshot();
  const bool require_eks = trust->require_endorsement_keys;
  const bool require_validation = trust->require_certificate_validation;

  conditions_.Set(kStatusInvalidTpm2Settings, !require_eks && !require_validation);

  conditions_.Set(kStatusTpmCaUnset, false);
  conditions_.Set(kStatusTpmDupCa, false);
  if (require_validation) {
    if (trust->cas == nullptr || trust->ca_certificates.empty()) {
      conditions_.Set(kStatusTpmCaUnset, true);
    } else if (!Orm::Common::SslUtils::CheckNoCaCertDups(trust->ca_certificates)) {
      conditions_.Set(kStatusTpmDupCa, true);
    }
  }

  conditions_.Set(kStatusTpmEkUnset, false);
  if (require_eks) {
    std::vector<std::string> names;
    trust_.ListEndorsementKeys(names);
    conditions_.Set(kStatusTpmEkUnset, names.empty());
  }

  std::vector<std::string> versions;
  images_.List(versions);
  conditions_.Set(kStatusTrustedSoftwareUnset, versions.empty());

  Info info;
  for (int index : conditions_.Get()) {
    if (index >= 0 && index < kNumStatusConditions) {
      info.messages.push_back(Errors::MakeMessage(kConditionIds[index]));
    }
  }
  info.health = info.messages.empty() ? Health::kOk : Health::kWarning;
  done(std::move(info));
}

}  // namespace Witnessd::AttestApi
