// The Report service: vets the attested host's EK against the TPM settings,
// the configured EKs and CA chains, runs one turn of the attestation
// conversation and answers with the next context or the signed documents.
#pragma once

#include "api/services/ReportSvc.h"
#include "config/tpm2/EkCertificateCache.h"
#include "tpm2/Attestation.h"

namespace Witnessd::AttestApi {

class ReportImpl : public ReportSvc {
 public:
  // |sessions| is the session manager; it outlives the service. Registers
  // the attestation outcome counters.
  explicit ReportImpl(Tpm2::Attestation* sessions);

  void Create(const Request& request, Callback<Result> done) override;

  // ReportError is the API error for a failed turn of the conversation
  // (codes 1 to 9 of the session manager).
  static Lumen::StdError ReportError(Tpm2::SessionResult code);

 private:
  Tpm2::Attestation* sessions_;
  Config::Tpm2::EkCertificateCache certificates_;  // what presented EK certificates showed
};

}  // namespace Witnessd::AttestApi
