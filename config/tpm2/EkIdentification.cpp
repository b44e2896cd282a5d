#include "config/tpm2/EkIdentification.h"

#include "platform/Log.h"

namespace Witnessd::Config::Tpm2 {

EkIdentity IdentifyEk(const TrustSnapshot& trust, const PresentedEk& ek, EkCertificateCache& certificates) {
  const bool require_eks = trust.require_endorsement_keys;
  const bool require_validation = trust.require_certificate_validation;
  EkIdentity identity;
  if (!require_eks && !require_validation) {
    Log_Level(kLogError, "Tpm2 settings Endorsement Key and EK Certificate validation unset\n");
    identity.verdict = EkVerdict::kSettingsUnset;
    return identity;
  }
  if (ek.public_key != nullptr) {
    identity.id = certificates.KeyId(*ek.public_key);
    if (require_validation) {
      Log_Level(kLogError, "EK public key provided when EK certificate required\n");
      identity.verdict = EkVerdict::kCertificateRequired;
      return identity;
    }
    if (!identity.id) {
      Log_Level(kLogError, "Invalid EK public key format\n");
      identity.verdict = EkVerdict::kInvalid;
      return identity;
    }
    if (trust.configured_eks.count(*identity.id) == 0) {
      Log_Level(kLogError, "Failed to validate EK Pub with configured EKs\n");
      identity.verdict = EkVerdict::kUnknownTpm;
      return identity;
    }
    identity.verdict = EkVerdict::kTrusted;
    return identity;
  }
  // The chain is checked only when validation is required; without a store
  // the certificate is only parsed for its key.
  const Orm::Common::TrustStore none;
  std::optional<Orm::Common::EkCertCheck> presented =
      certificates.Check(*ek.certificate, require_validation ? trust.cas : none);
  if (presented) {
    identity.id = certificates.KeyId(presented->key);
  }
  if (!identity.id) {
    Log_Level(kLogError, "Invalid EK certificate format\n");
    identity.verdict = EkVerdict::kInvalid;
    return identity;
  }
  if (require_validation) {
    if (trust.cas == nullptr) {
      Log_Level(kLogError, "Error getting all configured CA certificates for EK validation\n");
    }
    if (trust.cas == nullptr || !presented->chains) {
      Log_Level(kLogError, "Failed to validate EK certificate with configured CAs\n");
      identity.verdict = EkVerdict::kUnknownCa;
      return identity;
    }
  }
  if (require_eks && trust.configured_eks.count(*identity.id) == 0) {
    Log_Level(kLogError, "Failed to validate EK certificate with configured EKs\n");
    identity.verdict = EkVerdict::kUnknownTpm;
    return identity;
  }
  identity.verdict = EkVerdict::kTrusted;
  return identity;
}

EkVerdict CertificateEkKey(const TrustSnapshot& trust, const std::string& pem, std::string& out_key) {
  const Orm::Common::TrustStore none;
  std::optional<Orm::Common::EkCertCheck> check =
      CheckEkCertificate(pem, trust.require_certificate_validation ? trust.cas : none);
  if (!check) {
    return EkVerdict::kInvalid;
  }
  if (trust.require_certificate_validation && (trust.cas == nullptr || !check->chains)) {
    return EkVerdict::kUnknownCa;
  }
  out_key = std::move(check->key);
  return EkVerdict::kTrusted;
}

}  // namespace Witnessd::Config::Tpm2
