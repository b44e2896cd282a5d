// The Report service: checks the shape of a report request, has the host's
// EK identified against one snapshot of the trust configuration, runs one
// turn of the attestation conversation and answers with the next context or
// the signed documents.
#pragma once

#include <map>
#include <string>

#include "api/services/ReportSvc.h"
#include "config/tpm2/EkCertificateCache.h"
#include "config/tpm2/EkIdentification.h"
#include "config/tpm2/TrustConfiguration.h"
#include "document/AttestationToken.h"
#include "platform/Metrics.h"
#include "tpm2/SessionManager.h"

namespace Witnessd::AttestApi {

class ReportImpl : public ReportSvc {
 public:
  // The trust configuration, the session manager and the token signer
  // outlive the service. Registers the attestation outcome counters.
  ReportImpl(const Config::Tpm2::TrustConfiguration& trust, Tpm2::SessionManager& sessions,
             const Witnessd::Document::TokenSigner& signer);

  void Create(const Request& request, Callback<Result> done) override;

  // ReportError is the API error for a failed turn of the conversation
  // (every code of the session manager but kSuccess).
  static Lumen::StdError ReportError(Tpm2::SessionResult code);

 private:
  void CountAttestation(const Lumen::StdError* error) const;

  const Config::Tpm2::TrustConfiguration& trust_;
  Tpm2::SessionManager& sessions_;
  const Witnessd::Document::TokenSigner& signer_;
  Config::Tpm2::EkCertificateCache certificates_;  // what presented EK certificates showed
  // The attestation counters by outcome, filled by the constructor only.
  std::map<std::string, Metrics::Counter*> counters_;
};

}  // namespace Witnessd::AttestApi
