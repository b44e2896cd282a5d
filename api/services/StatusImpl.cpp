#include "api/services/StatusImpl.h"

#include "api/errors/ErrorCatalogue.h"
#include "config/Configuration.h"
#include "config/tpm2/CaCertificates.h"
#include "config/tpm2/EndorsementKeys.h"
#include "config/tpm2/Tpm2Settings.h"
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
  bool require_eks = false;
  bool require_validation = false;
  Tpm2::GetTpm2Settings(require_eks, require_validation);

  SetStatusCondition(kStatusInvalidTpm2Settings, !require_eks && !require_validation);

  SetStatusCondition(kStatusTpmCaUnset, false);
  SetStatusCondition(kStatusTpmDupCa, false);
  if (require_validation) {
    Tpm2::CaCertList cas = Tpm2::GetAllCaCertificates();
    if (cas == nullptr || cas->empty()) {
      SetStatusCondition(kStatusTpmCaUnset, true);
    } else if (!Orm::Common::SslUtils::CheckNoCaCertDups(*cas)) {
      SetStatusCondition(kStatusTpmDupCa, true);
    }
  }

  SetStatusCondition(kStatusTpmEkUnset, false);
  if (require_eks) {
    std::vector<std::string> names;
    Tpm2::ListEndorsementKeys(names);
    SetStatusCondition(kStatusTpmEkUnset, names.empty());
  }

  std::vector<std::string> versions;
  Trusted::ListBaseImages(versions);
  SetStatusCondition(kStatusTrustedSoftwareUnset, versions.empty());

  Info info;
  for (int index : GetStatusConditions()) {
    if (index >= 0 && index < kNumStatusConditions) {
      info.messages.push_back(Errors::MakeMessage(kConditionIds[index]));
    }
  }
  info.health = info.messages.empty() ? Health::kOk : Health::kWarning;
  done(std::move(info));
}

}  // namespace Witnessd::AttestApi
