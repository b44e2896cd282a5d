// EK identification: whether the EK a host presents is one this daemon
// trusts, by a configured key, a certificate that chains to a configured CA,
// or both, as the TPM settings require. A pure function of the trust
// snapshot and the presented EK; the Report service and the EK
// administration both come here.
#pragma once

#include <optional>
#include <string>

#include "config/tpm2/EkCertificateCache.h"
#include "config/tpm2/EkId.h"
#include "config/tpm2/TrustConfiguration.h"

namespace Witnessd::Config::Tpm2 {

enum class EkVerdict {
  kTrusted,
  kSettingsUnset,        // neither setting holds: no EK can be trusted
  kInvalid,              // the key or certificate does not parse
  kCertificateRequired,  // a bare key where validation requires a certificate
  kUnknownCa,            // the certificate chains to no configured CA
  kUnknownTpm,           // the key is not a configured EK
};

struct EkIdentity {
  EkVerdict verdict = EkVerdict::kInvalid;
  // The presented EK's identity as soon as its key is read, also when it is
  // then refused; for kTrusted always set.
  std::optional<EkId> id;
};

// The EK a host presents: exactly one of the two.
struct PresentedEk {
  const std::string* public_key = nullptr;
  const std::string* certificate = nullptr;
};

// IdentifyEk decides |ek| against |trust|; each refusal is logged with its
// reason. |certificates| keeps what presented certificates showed.
EkIdentity IdentifyEk(const TrustSnapshot& trust, const PresentedEk& ek, EkCertificateCache& certificates);

// CertificateEkKey establishes that the EK certificate |pem| may declare an
// EK: it parses and, when |trust| requires validation, chains to a
// configured CA. It gives the certificate's public key (standard PEM), or
// the verdict that refuses it (kInvalid, kUnknownCa).
EkVerdict CertificateEkKey(const TrustSnapshot& trust, const std::string& pem, std::string& out_key);

}  // namespace Witnessd::Config::Tpm2
