#include "api/services/ReportImpl.h"

#include <optional>

#include "api/errors/ErrorCatalogue.h"
#include "platform/Assert.h"
#include "document/AttestationToken.h"
#include "platform/Log.h"
#include "platform/Metrics.h"

namespace Witnessd::AttestApi {
namespace {

constexpr const char* kSourcePath = "apps/witnessd/api/services/ReportImpl";

namespace StdErrors = Com::Quarro::Lumen::Std::Errors;
namespace Token = Witnessd::Document;
using Tpm2::SessionResult;

using Config::Tpm2::EkVerdict;

// The report errors of the session manager's result codes and of EK
// identification. Each switch names every value, so the compiler tells when
// one is missing.
constexpr const char* ReportErrorId(SessionResult code) {
  switch (code) {
    case SessionResult::kSuccess:
      return nullptr;
    case SessionResult::kInternalFailure:
      return Errors::kReportAttestFailed;
    case SessionResult::kInvalidInput:
      return Errors::kReportAttestInvalidInput;
    case SessionResult::kUnknownSession:
      return Errors::kReportAttestUnknownSession;
    case SessionResult::kSessionLimit:
      return Errors::kReportAttestSessionLimit;
    case SessionResult::kInvalidState:
      return Errors::kReportAttestInvalidState;
    case SessionResult::kIncompleteEventLog:
      return Errors::kReportAttestIncomplete;
    case SessionResult::kUnknownSoftware:
      return Errors::kReportAttestUnknownSoftware;
    case SessionResult::kNoSecureBoot:
      return Errors::kReportAttestNoSecureBoot;
    case SessionResult::kVerificationFailed:
      return Errors::kReportAttestVerifyFailed;
  }
  return nullptr;
}

constexpr SessionResult kSessionFailures[] = {
    SessionResult::kInternalFailure,   SessionResult::kInvalidInput,       SessionResult::kUnknownSession,
    SessionResult::kSessionLimit,      SessionResult::kInvalidState,       SessionResult::kIncompleteEventLog,
    SessionResult::kUnknownSoftware,   SessionResult::kNoSecureBoot,       SessionResult::kVerificationFailed,
};

Lumen::StdError IdentificationError(EkVerdict verdict) {
  switch (verdict) {
    case EkVerdict::kTrusted:
    case EkVerdict::kSettingsUnset:
      return StdErrors::Error();
    case EkVerdict::kInvalid:
      return StdErrors::InvalidArgument({});
    case EkVerdict::kCertificateRequired:
      return Errors::Error(Errors::kReportTpmCertRequired);
    case EkVerdict::kUnknownCa:
      return Errors::Error(Errors::kReportUnknownTpmCa);
    case EkVerdict::kUnknownTpm:
      return Errors::Error(Errors::kReportUnknownTpm);
  }
  return StdErrors::Error();
}

// The outcome of a session the session manager ended, before its caller
// had activated the credential, to admit a newer one.
constexpr const char* kEvictedOutcome = "evicted";

// OutcomeOf is the last part of an error's message id.
std::string OutcomeOf(const std::string& id) { return id.substr(id.rfind('.') + 1); }

Metrics::Counter& Attestations(const std::string& outcome) {
  return Metrics::GetCounter("witnessd_attestations_total",
                             "Attestations ended, by outcome (success or report error).", {{"outcome", outcome}});
}

}  // namespace

// CountAttestation records an attestation that ended: "success", or the
// last part of the message id of the error it ended with ("error" for a
// failure without one). Requests refused before the EK is looked at are
// not attestations and are not counted. The outcomes listed at start are
// counted without a lookup in the registry, which takes its locks.
void ReportImpl::CountAttestation(const Lumen::StdError* error) const {
  std::string outcome = "success";
  if (error != nullptr) {
    outcome = error->messages.empty() ? "error" : OutcomeOf(error->messages[0].id);
  }
  auto it = counters_.find(outcome);
  (it != counters_.end() ? *it->second : Attestations(outcome)).Increment();
}

ReportImpl::ReportImpl(const Config::Tpm2::TrustConfiguration& trust, Tpm2::SessionManager& sessions,
                       const Witnessd::Document::TokenSigner& signer)
    : trust_(trust), sessions_(sessions), signer_(signer) {
  // Every outcome an attestation can end with is listed from the start, at
  // zero, so that a rate over it needs no first occurrence.
  for (const std::string& outcome : {std::string("success"), std::string(kEvictedOutcome)}) {
    counters_[outcome] = &Attestations(outcome);
  }
  for (const char* id : {Errors::kReportUnknownTpm, Errors::kReportUnknownTpmCa, Errors::kReportTpmCertRequired}) {
    counters_[OutcomeOf(id)] = &Attestations(OutcomeOf(id));
  }
  for (SessionResult code : kSessionFailures) {
    counters_[OutcomeOf(ReportErrorId(code))] = &Attestations(OutcomeOf(ReportErrorId(code)));
  }
}

Lumen::StdError ReportImpl::ReportError(SessionResult code) {
  const char* id = ReportErrorId(code);
  if (id == nullptr) {
    NOT_REACHED();
  }
  return Errors::Error(id);
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
  // One snapshot of the trust configuration for the whole call.
  Config::Tpm2::TrustSnapshotPtr trust = trust_.Snapshot();
  Config::Tpm2::PresentedEk presented;
  presented.public_key = tpm.ek.public_key ? &*tpm.ek.public_key : nullptr;
  presented.certificate = tpm.ek.certificate ? &*tpm.ek.certificate : nullptr;
  Config::Tpm2::EkIdentity ek = Config::Tpm2::IdentifyEk(*trust, presented, certificates_);
  if (ek.verdict != EkVerdict::kTrusted) {
    Log_Level(kLogError, "Invalid Tpm2 identifier\n");
    // A host whose EK is no longer trusted (settings, EKs or CAs changed
    // under it) cannot finish its session: end it now rather than let it
    // hold the EK's session slot until it expires.
    if (context && ek.id) {
      sessions_.EndRefusedSession(*ek.id, *context);
    }
    Lumen::StdError error = IdentificationError(ek.verdict);
    CountAttestation(&error);
    done(std::move(error));
    return;
  }

  Tpm2::ProcessResult turn = sessions_.ProcessRequest(*ek.id, context);
  if (turn.evicted != 0) {
    counters_.at(kEvictedOutcome)->Increment(turn.evicted);
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
  // The token names the host by the EK the session was proven with.
  std::optional<std::vector<Token::SignedDocument>> signed_documents =
      signer_.GenerateDocuments(types, turn.outcome, Config::Tpm2::EkIdHex(*ek.id));
  if (!signed_documents) {
    Lumen::StdError error = StdErrors::Error();
    CountAttestation(&error);
    done(std::move(error));
    return;
  }
  CountAttestation(nullptr);
  std::vector<ReportSvc::Document> documents;
  for (Token::SignedDocument& d : *signed_documents) {
    documents.push_back({d.type == Token::kKmsAuthJwt ? DocumentType::kKmsAuthJwt : DocumentType::kReportingJwt,
                         std::move(d.token)});
  }
  result.documents = std::move(documents);
  done(std::move(result));
}

}  // namespace Witnessd::AttestApi
