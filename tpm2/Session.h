// One attestation of one remote TPM: what witnessd issued to it (credential
// secret, nonce) and what it received from it (AK, quote, PCR values, event
// log), with the steps of the conversation as a forward-only state machine.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "config/tpm2/EkId.h"
#include "platform/MXUser.h"
#include "platform/tcg/SecurityInfo.h"
#include "verify/EventLog.h"

namespace Witnessd::Tpm2 {

using Bytes = std::vector<uint8_t>;

// Result codes of the session and the session manager; the Report service
// maps 1 to 9 onto its errors.
enum class SessionResult : int {
  kSuccess = 0,
  kInternalFailure = 1,
  kInvalidInput = 2,
  kUnknownSession = 3,
  kSessionLimit = 4,
  kInvalidState = 5,
  kIncompleteEventLog = 6,
  kUnknownSoftware = 7,
  kNoSecureBoot = 8,
  kVerificationFailed = 9,
};

enum class SessionState : int32_t {
  kInitialized = 0,
  kAkAwaitingActivation = 1,
  kAkActivated = 2,
  kQuoteReceived = 3,
  kEventLogReceived = 4,
  kReadyForAttestation = 5,
  kEvidenceVerified = 6,
  kAttested = 7,
};

// What a successful attestation established, for the signed token.
struct AttestationOutcome {
  std::string software_type;     // "hyv"
  std::string software_version;  // the base image version
  std::vector<std::string> attested_properties;
};

// The trusted measurements of the base image whose Hvkernel digest the
// host's replayed event log carries.
struct ExpectedMeasurements {
  std::string txt_mle_digest;  // lower-case hex
  std::shared_ptr<const Verify::PayloadChecksumTable> payload_checksums;
};

struct CredentialKey;

// PreparedEks keeps, by the exact bytes of an EK's public area, what a
// session established of it: the EK's identity and its credential key, so
// that a host's EK is parsed, hashed and set up for encryption once, not in
// every session. Only EKs that passed every check are kept; at most
// kMaxEntries, the set starts over when full. Lookups share the lock.
class PreparedEks {
 public:
  static constexpr size_t kMaxEntries = 4096;
  struct Prepared {
    Config::Tpm2::EkId id;
    std::shared_ptr<const CredentialKey> key;
  };
  std::optional<Prepared> Find(const Bytes& ek_public) const;
  void Add(const Bytes& ek_public, Prepared prepared);

 private:
  struct Hash {
    size_t operator()(const Bytes& b) const {
      return std::hash<std::string_view>()(std::string_view(reinterpret_cast<const char*>(b.data()), b.size()));
    }
  };
  mutable std::shared_mutex mutex_;
  std::unordered_map<Bytes, Prepared, Hash> entries_;  // guarded by mutex_
};

class Session {
 public:
  // Session draws its id and nonce from the cryptographic random source (a
  // failure there ends the process) and keeps |ek|, the identity of the EK
  // that opened it. |created_us| is the monotonic time of creation in
  // microseconds, from which expiry counts. With |strict_quote_checks| the
  // quote must be the TPM's own attestation over exactly the required PCR
  // selection, and the PCR reads must cover that selection, each PCR once;
  // without, any selection the quote binds is accepted.
  // |eks|, when given, outlives the session and keeps the EKs it checked.
  Session(const Config::Tpm2::EkId& ek, uint64_t created_us, bool strict_quote_checks = true,
          PreparedEks* eks = nullptr);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Immutable after construction; readable without the lock.
  uint64_t Id() const { return id_; }
  uint64_t Created() const { return created_us_; }
  const Config::Tpm2::EkId& Ek() const { return ek_; }

  // QuoteQualifyingData is the nonce as a marshalled TPM2B_DATA.
  Bytes QuoteQualifyingData() const;

  // The steps. Each checks the state first, moves it forward only on
  // success and never back; a failure leaves the session as it was (except
  // that Attest may have renamed malformed payload names in the kept log, as
  // ValidateEventLog does, which changes no later result). Nothing is read
  // from the event log before it has been replayed against the verified
  // quote.
  //
  // SetAttestationKey (create-AK): checks |ak_public| against the AK
  // template and |ek_public| against the session's EK, then makes a
  // credential for the AK; |out_blob| and |out_secret| go to the agent.
  SessionResult SetAttestationKey(const Bytes& ak_public, const Bytes& ek_public, Bytes& out_blob,
                                  Bytes& out_secret);
  // ActivateAttestationKey (activate-AK): |cert_info| (TPM2B_DIGEST) must
  // hold the credential secret.
  SessionResult ActivateAttestationKey(const Bytes& cert_info);
  // SetQuote keeps the quote, its signature and the PCR reads (selections
  // and values pairwise), replacing earlier ones. Under strict checks the
  // reads must cover the required selection exactly.
  SessionResult SetQuote(const Bytes& quoted, const Bytes& signature, const std::vector<Bytes>& pcr_selections,
                         const std::vector<Bytes>& pcr_values);
  // SetEventLog parses the TCG event log and keeps it with |complete|, the
  // agent's word that the log is whole.
  SessionResult SetEventLog(const Bytes& event_log, bool complete);
  // VerifyEvidence (once quote and log are both in) verifies the quote,
  // replays the event log against the quoted PCRs and reads the boot facts
  // (TXT launch, Hvkernel digest) from the events of the PCRs that replayed;
  // kUnknownSoftware when those name no Hvkernel.
  SessionResult VerifyEvidence();
  // Attest validates the replayed event log against |expected|, the trusted
  // measurements of the base image with the verified Hvkernel digest.
  SessionResult Attest(const ExpectedMeasurements& expected);

  // AttestedProperties: "secure_boot", then "txt" and "drtm" after a TXT
  // launch.
  std::vector<std::string> AttestedProperties();
  SessionState State();
  // HvkernelDigest is the lower-case hex SHA-256 of the Hvkernel module, once
  // VerifyEvidence succeeded; empty before.
  std::string HvkernelDigest();

 private:
  // CheckEkPublic establishes that |ek_public| parses, is the EK whose
  // identity opened the session and is a restricted decryption key bound to
  // its TPM; each refusal is logged.
  SessionResult CheckEkPublic(const Bytes& ek_public) const;

  MXUserRWLock* lock_;
  SessionState state_ = SessionState::kInitialized;
  uint64_t id_ = 0;
  uint64_t created_us_;
  const bool strict_quote_checks_;
  const Config::Tpm2::EkId ek_;
  PreparedEks* const eks_;
  Bytes credential_secret_;
  Bytes ak_public_;
  Bytes nonce_;
  Bytes quoted_;
  Bytes signature_;
  std::vector<Bytes> pcr_selections_;
  std::vector<Bytes> pcr_values_;
  std::vector<HostCtl::Security::SecurityInfo::TcgEventLog_Entry> events_;
  bool log_complete_ = false;
  // Set by VerifyEvidence: the quoted PCR values and the boot facts of the
  // replayed log.
  std::unique_ptr<Verify::QuoteEvidence> evidence_;
  Verify::BootFacts facts_;
  uint32_t replayed_ = 0;  // the PCRs whose replay matched the quote
};

}  // namespace Witnessd::Tpm2
