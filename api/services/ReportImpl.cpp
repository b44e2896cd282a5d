#include "api/services/ReportImpl.h"

#include <iterator>
#include <mutex>
#include <set>

#include "api/errors/ErrorCatalogue.h"
#include "config/tpm2/CaCertificates.h"
#include "config/tpm2/EndorsementKeys.h"
#include "config/tpm2/Tpm2Settings.h"
#include "platform/Assert.h"
#include "document/AttestationToken.h"
#include "platform/Log.h"
#include "platform/Metrics.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::AttestApi {
namespace {

constexpr const char* kSourcePath = "apps/witnessd/api/services/ReportImpl";

namespace StdErrors = Com::Quarro::Lumen::Std::Errors;
namespace Token = Witnessd::Document;
using Orm::Common::SslUtils;
using Tpm2::SessionResult;

// EkDigestOf digests the white-space-free |pem|, the form the EK registry
// and the sessions key EKs by. Empty when hashing fails (logged).
Config::Tpm2::EkDigest EkDigestOf(const std::string& pem) {
  std::string canonical = pem;
  SslUtils::CanonicalizePem(canonical);
  std::vector<uint8_t> digest;
  if (!SslUtils::ComputeHash(canonical, digest)) {
    Log_Level(kLogError, "Failed to compute hash for endorsement key\n");
    digest.clear();
  }
  return digest;
}

bool IsConfiguredEk(const Config::Tpm2::EkDigest& digest) {
  return !digest.empty() && Config::Tpm2::IsEkConfigured(digest);
}

// Digests of configured EKs whose text has passed ValidatePemKey. Whether a
// text is a valid key depends only on its white-space-free form, so each
// configured key is parsed once, not on every Report call; keys that are not
// configured are not kept, which bounds the set by the registry's history.
std::mutex g_valid_eks_mutex;
std::set<Config::Tpm2::EkDigest> g_valid_eks;

bool IsKnownValidEk(const Config::Tpm2::EkDigest& digest) {
  std::lock_guard<std::mutex> lock(g_valid_eks_mutex);
  return g_valid_eks.count(digest) != 0;
}

void RememberValidEk(const Config::Tpm2::EkDigest& digest) {
  std::lock_guard<std::mutex> lock(g_valid_eks_mutex);
  g_valid_eks.insert(digest);
}

// IdentifyEk establishes, from the TPM settings, that the host's EK is one
// this daemon trusts: a configured key, a certificate that chains to a
// configured CA, or both, as the settings require. |out_ek_pem| is the EK
// public key the host presented, as soon as it is known (also when it is
// then refused); on success it is the key to attest with. |certificates|
// keeps what presented certificates showed.
std::optional<Lumen::StdError> IdentifyEk(const ReportSvc::Ek& ek, Config::Tpm2::EkCertificateCache& certificates,
                                          std::string& out_ek_pem) {
  bool require_eks = false;
  bool require_validation = false;
  if (Config::Tpm2::GetTpm2Settings(require_eks, require_validation) != Config::ConfigResult::kConfigOk) {
    Log_Level(kLogError, "Unable to get Tpm2 settings\n");
    return StdErrors::Error();
  }
  if (!require_eks && !require_validation) {
    Log_Level(kLogError, "Tpm2 settings Endorsement Key and EK Certificate validation unset\n");
    return StdErrors::Error();
  }
  if (ek.public_key) {
    out_ek_pem = *ek.public_key;
  }
  if (ek.public_key && require_validation) {
    Log_Level(kLogError, "EK public key provided when EK certificate required\n");
    return Errors::Error(Errors::kReportTpmCertRequired);
  }
  if (ek.certificate) {
    // The chain is checked only when validation is required; without a
    // store the certificate is only parsed for its key.
    Orm::Common::TrustStore cas = require_validation ? Config::Tpm2::GetCaTrustStore() : nullptr;
    std::optional<Orm::Common::EkCertCheck> presented = certificates.Check(*ek.certificate, cas);
    if (!presented) {
      Log_Level(kLogError, "Invalid EK certificate format\n");
      return StdErrors::InvalidArgument({});
    }
    const std::string& key = presented->key;
    out_ek_pem = key;
    if (require_validation) {
      if (cas == nullptr) {
        Log_Level(kLogError, "Error getting all configured CA certificates for EK validation\n");
      }
      if (cas == nullptr || !presented->chains) {
        Log_Level(kLogError, "Failed to validate EK certificate with configured CAs\n");
        return Errors::Error(Errors::kReportUnknownTpmCa);
      }
    }
    if (require_eks && !IsConfiguredEk(EkDigestOf(key))) {
      Log_Level(kLogError, "Failed to validate EK certificate with configured EKs\n");
      return Errors::Error(Errors::kReportUnknownTpm);
    }
    return std::nullopt;
  }
  Config::Tpm2::EkDigest digest = EkDigestOf(*ek.public_key);
  bool configured = IsConfiguredEk(digest);
  if (configured && IsKnownValidEk(digest)) {
    return std::nullopt;
  }
  if (!SslUtils::ValidatePemKey(*ek.public_key)) {
    Log_Level(kLogError, "Invalid EK public key format\n");
    return StdErrors::InvalidArgument({});
  }
  if (!configured) {
    Log_Level(kLogError, "Failed to validate EK Pub with configured EKs\n");
    return Errors::Error(Errors::kReportUnknownTpm);
  }
  RememberValidEk(digest);
  return std::nullopt;
}

// The report errors of the session manager's result codes 1 to 9.
constexpr const char* kReportErrorIds[] = {
    nullptr,
    Errors::kReportAttestFailed,
    Errors::kReportAttestInvalidInput,
    Errors::kReportAttestUnknownSession,
    Errors::kReportAttestSessionLimit,
    Errors::kReportAttestInvalidState,
    Errors::kReportAttestIncomplete,
    Errors::kReportAttestUnknownSoftware,
    Errors::kReportAttestNoSecureBoot,
    Errors::kReportAttestVerifyFailed,
};

// The outcome of a session the session manager ended, before its caller
// had activated the credential, to admit a newer one.
constexpr const char* kEvictedOutcome = "evicted";

// OutcomeOf is the last part of an error's message id.
std::string OutcomeOf(const std::string& id) { return id.substr(id.rfind('.') + 1); }

Metrics::Counter& Attestations(const std::string& outcome) {
  return Metrics::GetCounter("witnessd_attestations_total",
                             "Attestations ended, by outcome (success or report error).", {{"outcome", outcome}});
}

// CountAttestation records an attestation that ended: "success", or the
// last part of the message id of the error it ended with ("error" for a
// failure without one). Requests refused before the EK is looked at are
// not attestations and are not counted.
void CountAttestation(const Lumen::StdError* error) {
  std::string outcome = "success";
  if (error != nullptr) {
    outcome = error->messages.empty() ? "error" : OutcomeOf(error->messages[0].id);
  }
  Attestations(outcome).Increment();
}

}  // namespace

ReportImpl::ReportImpl(Tpm2::Attestation* sessions) : sessions_(sessions) {
  // Every outcome an attestation can end with is listed from the start, at
  // zero, so that a rate over it needs no first occurrence.
  Attestations("success");
  Attestations(kEvictedOutcome);
  for (const char* id : {Errors::kReportUnknownTpm, Errors::kReportUnknownTpmCa, Errors::kReportTpmCertRequired}) {
    Attestations(OutcomeOf(id));
  }
  for (size_t i = 1; i < std::size(kReportErrorIds); ++i) {
    Attestations(OutcomeOf(kReportErrorIds[i]));
  }
}

Lumen::StdError ReportImpl::ReportError(SessionResult code) {
  int index = static_cast<int>(code);
  if (index < 1 || index > 9) {
    NOT_REACHED();
  }
  return Errors::Error(kReportErrorIds[index]);
}

void ReportImpl::Create(const Request& request, Callback<Result> done) {
  if (request.type != RequestType::kTpm2 || !request.tpm2) {
    Log_Level(kLogError, "Unsupported request type\n");
    done(StdErrors::InvalidArgument({}));
    return;
  }
  const Tpm& tpm = *request.tpm2;
  if (tpm.document_types.empty() || tpm.document_types.size() > 2) {
    Log_Level(kLogError, "Unsupported number of document types specified: %lu\n", tpm.document_types.size());
    done(StdErrors::InvalidArgument({}));
    return;
  }
  if (tpm.contexts.size() > 1) {
    Log_Level(kLogError, "Unsupported number of contexts specified: %lu\n", tpm.contexts.size());
    done(StdErrors::InvalidArgument({}));
    return;
  }
  std::vector<int> types;
  for (DocumentType type : tpm.document_types) {
    if (type == DocumentType::kUnknown) {
      Log_Level(kLogError, "Unknown document type requested\n");
      done(Errors::InvalidArgument(Errors::kReportInvalidDocType));
      return;
    }
    types.push_back(type == DocumentType::kKmsAuthJwt ? Token::kKmsAuthJwt : Token::kReportingJwt);
  }
  if (tpm.ek.certificate && tpm.ek.public_key) {
    Log_Level(kLogError, "Both endorsement key certificate and public key specified\n");
    done(StdErrors::InvalidArgument({}));
    return;
  }
  if (!tpm.ek.certificate && !tpm.ek.public_key) {
    Log_Level(kLogError, "No endorsement key identifier specified\n");
    done(StdErrors::InvalidArgument({}));
    return;
  }

  std::optional<Tpm2::Bytes> context;
  if (!tpm.contexts.empty()) {
    context = tpm.contexts[0];
  }
  std::string ek_pem;
  if (std::optional<Lumen::StdError> error = IdentifyEk(tpm.ek, certificates_, ek_pem)) {
    Log_Level(kLogError, "Invalid Tpm2 identifier\n");
    // A host whose EK is no longer trusted (settings, EKs or CAs changed
    // under it) cannot finish its session: end it now rather than let it
    // hold the EK's session slot until it expires.
    if (context && !ek_pem.empty()) {
      sessions_->EndRefusedSession(ek_pem, *context);
    }
    CountAttestation(&*error);
    done(std::move(*error));
    return;
  }

  Tpm2::ProcessResult turn = sessions_->ProcessRequest(ek_pem, context);
  if (turn.evicted != 0) {
    Attestations(kEvictedOutcome).Increment(turn.evicted);
  }
  if (turn.code != SessionResult::kSuccess) {
    Log_Level(kLogError, "TPM 2 attestation failure: %d\n", static_cast<int>(turn.code));
    Lumen::StdError error = ReportError(turn.code);
    CountAttestation(&error);
    done(std::move(error));
    return;
  }
  Result result;
  if (!turn.done) {
    result.contexts = std::vector<std::vector<uint8_t>>{std::move(turn.out_context)};
    done(std::move(result));
    return;
  }
  std::vector<Token::SignedDocument> signed_documents;
  if (!Token::GenerateDocuments(types, turn.outcome, signed_documents)) {
    Lumen::StdError error = StdErrors::Error();
    CountAttestation(&error);
    done(std::move(error));
    return;
  }
  CountAttestation(nullptr);
  std::vector<ReportSvc::Document> documents;
  for (Token::SignedDocument& d : signed_documents) {
    documents.push_back({d.type == Token::kKmsAuthJwt ? DocumentType::kKmsAuthJwt : DocumentType::kReportingJwt,
                         std::move(d.token)});
  }
  result.documents = std::move(documents);
  done(std::move(result));
}

}  // namespace Witnessd::AttestApi
