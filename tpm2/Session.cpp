#include "tpm2/Session.h"

#include <cstring>
#include <limits>
#include <mutex>

#include "platform/Assert.h"
#include "platform/Log.h"
#include "platform/System.h"
#include "platform/tcg/Tpm20Cmd.h"
#include "tpm2/CredentialProtection.h"
#include "verify/QuoteVerify.h"
#include "verify/Tpm2Marshal.h"

namespace Witnessd::Tpm2 {
namespace {

constexpr const char* kSourcePath = "apps/witnessd/tpm2/Session";

using namespace Witnessd::Verify;
using Entry = HostCtl::Security::SecurityInfo::TcgEventLog_Entry;

constexpr size_t kNonceBytes = 32;
constexpr size_t kSecretBytes = 32;
constexpr size_t kSha256Bytes = 32;
// The largest event data the verification records can describe.
constexpr size_t kMaxEventDataBytes = std::numeric_limits<uint16_t>::max();

// EventRecords are the verification records of the session's events. They
// point into the events: validation may rewrite a malformed payload name in
// place, and the events outlive the records and do not change meanwhile.
struct EventRecords {
  std::vector<TcgEventRecord> records;
  std::vector<std::vector<TcgDigest>> digests;
};

// MakeRecords fills |out| for |events|; false when an event has more
// digests or data than a record can describe.
bool MakeRecords(std::vector<Entry>& events, EventRecords* out) {
  out->records.reserve(events.size());
  out->digests.reserve(events.size());
  for (Entry& e : events) {
    if (e.digests.size() > std::numeric_limits<uint8_t>::max() || e.eventData.size() > kMaxEventDataBytes) {
      return false;
    }
    std::vector<TcgDigest>& d = out->digests.emplace_back();
    for (const Entry::Digest& digest : e.digests) {
      d.push_back({digest.algorithm, digest.value.data(), static_cast<uint16_t>(digest.value.size())});
    }
    out->records.push_back({e.pcrIndex, e.eventType, static_cast<uint8_t>(d.size()), d.data(),
                            e.eventData.empty() ? nullptr : e.eventData.data(),
                            static_cast<uint16_t>(e.eventData.size())});
  }
  return true;
}

// EventFailure logs a failed replay or validation of session |id|'s event
// log and maps it to a result. A log the agent did not declare |complete| is
// reported as incomplete data rather than as failed measurements.
SessionResult EventFailure(uint64_t id, VerifyStatus status, bool complete) {
  Log_Level(kLogError, "Event validation failed for session %lu; error = {%d, %d}\n", id,
            static_cast<int>(StatusCategory(status)), static_cast<int>(StatusCode(status)));
  switch (StatusCategory(status)) {
    case 1:
      return SessionResult::kInvalidInput;
    case 7:
      return SessionResult::kNoSecureBoot;
    default:
      return complete ? SessionResult::kVerificationFailed : SessionResult::kIncompleteEventLog;
  }
}

// PcrRead is one TPM2_PCR_Read result: one SHA-256 selection and its values.
struct PcrRead {
  TPMS_PCR_SELECTION selection;
  TPML_DIGEST values;
};

// ParsePcrRead decodes one PCR read (TPML_PCR_SELECTION of SHA-256 and its
// TPML_DIGEST).
bool ParsePcrRead(const Bytes& selection_bytes, const Bytes& values_bytes, PcrRead* out) {
  TPML_PCR_SELECTION selection = {};
  if (Tpm2_Unmarshal_TPML_PCR_SELECTION(selection_bytes.data(), static_cast<uint32_t>(selection_bytes.size()),
                                        &selection) == 0) {
    Log_Level(kLogError, "Failed to extract PCR selections\n");
    return false;
  }
  if (selection.count != 1) {
    Log_Level(kLogError, "Expected one PCR selection but found %d\n", static_cast<int>(selection.count));
    return false;
  }
  out->selection = selection.pcrSelections[0];
  if (out->selection.hash != PcrHashAlgorithm()) {
    Log_Level(kLogError, "Expected PCR hash algorithm %d but found %d\n", PcrHashAlgorithm(), out->selection.hash);
    return false;
  }
  out->values = {};
  if (Tpm2_Unmarshal_TPML_DIGEST(values_bytes.data(), static_cast<uint32_t>(values_bytes.size()), &out->values) ==
      0) {
    Log_Level(kLogError, "Failed to extract PCR values\n");
    return false;
  }
  return true;
}

// FillPcrSlots copies one PCR read into the SHA-256 bank of |evidence|, by
// PCR number, until the values run out.
bool FillPcrSlots(const PcrRead& read, QuoteEvidence* evidence) {
  const TPMS_PCR_SELECTION& sel = read.selection;
  const TPML_DIGEST& values = read.values;
  uint32_t bank = PcrBankIndex(kTpmAlgSha256);
  uint32_t next = 0;
  for (uint32_t byte = 0; byte < sel.sizeofSelect && next < values.count; byte++) {
    for (uint32_t bit = 0; bit < 8 && next < values.count; bit++) {
      if ((sel.pcrSelect[byte] & (1u << bit)) == 0) {
        continue;
      }
      uint32_t pcr = byte * 8 + bit;
      // A TPM with this bank has 24 PCRs; a selection beyond them is forged.
      if (pcr >= kNumPcrs) {
        Log_Level(kLogError, "Expected PCR index below %u but found %u\n", kNumPcrs, pcr);
        return false;
      }
      const TPM2B_DIGEST& digest = values.digests[next++];
      size_t len = digest.size < kSha256Bytes ? digest.size : kSha256Bytes;
      std::memset(evidence->pcrs[bank][pcr], 0, kSha256Bytes);
      std::memcpy(evidence->pcrs[bank][pcr], digest.buffer, len);
    }
  }
  return true;
}

// Required holds the selection every quote request names.
const QuoteRequirements& Required() {
  static const QuoteRequirements required = [] {
    QuoteRequirements r = {};
    Bytes bytes = RequiredPcrSelection();
    VERIFY(Tpm2_Unmarshal_TPML_PCR_SELECTION(bytes.data(), static_cast<uint32_t>(bytes.size()), &r.selection) != 0);
    return r;
  }();
  return required;
}

// ReadsCoverRequired establishes that the PCR reads name every PCR of the
// required selection exactly once, name no other, and carry one value per
// PCR named: then each value event-log validation uses is one the quote's
// digest binds.
bool ReadsCoverRequired(const std::vector<Bytes>& selections, const std::vector<Bytes>& values) {
  uint32_t required[kNumPcrBanks];
  VERIFY(PcrSelectionMasks(Required().selection, required));
  uint32_t bank = PcrBankIndex(kTpmAlgSha256);
  uint32_t seen = 0;
  for (size_t i = 0; i < selections.size(); i++) {
    PcrRead read;
    if (!ParsePcrRead(selections[i], values[i], &read)) {
      return false;
    }
    TPML_PCR_SELECTION one = {1, {read.selection}};
    uint32_t masks[kNumPcrBanks];
    if (!PcrSelectionMasks(one, masks)) {
      Log_Level(kLogError, "Failed to extract PCR selections\n");
      return false;
    }
    uint32_t named = static_cast<uint32_t>(__builtin_popcount(masks[bank]));
    if (read.values.count != named) {
      Log_Level(kLogError, "PCR read names %u PCRs but holds %u values\n", named, read.values.count);
      return false;
    }
    if ((seen & masks[bank]) != 0) {
      Log_Level(kLogError, "PCR read repeats PCRs 0x%06x\n", seen & masks[bank]);
      return false;
    }
    seen |= masks[bank];
  }
  if (seen != required[bank]) {
    Log_Level(kLogError, "PCR reads cover PCRs 0x%06x instead of the requested 0x%06x\n", seen, required[bank]);
    return false;
  }
  return true;
}

}  // namespace

std::optional<PreparedEks::Prepared> PreparedEks::Find(const Bytes& ek_public) const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  auto it = entries_.find(ek_public);
  if (it == entries_.end()) {
    return std::nullopt;
  }
  return it->second;
}

void PreparedEks::Add(const Bytes& ek_public, Prepared prepared) {
  std::unique_lock<std::shared_mutex> lock(mutex_);
  if (entries_.size() >= kMaxEntries) {
    entries_.clear();
  }
  entries_.emplace(ek_public, std::move(prepared));
}

Session::Session(const Config::Tpm2::EkId& ek, uint64_t created_us, bool strict_quote_checks, PreparedEks* eks)
    : lock_(MXUser_CreateRWLock("tpm2Session", kRankUnranked)),
      created_us_(created_us),
      strict_quote_checks_(strict_quote_checks),
      ek_(ek),
      eks_(eks),
      nonce_(kNonceBytes) {
  VERIFY(lock_ != nullptr);
  // One draw for both: each call of the random source has a fixed cost.
  uint8_t random[sizeof(id_) + kNonceBytes];
  VERIFY(Random_Crypto(sizeof(random), random));
  std::memcpy(&id_, random, sizeof(id_));
  std::memcpy(nonce_.data(), random + sizeof(id_), kNonceBytes);
}

Session::~Session() {
  MXUser_DestroyRWLock(lock_);
}

SessionResult Session::CheckEkPublic(const Bytes& ek_public) const {
  TPM2B_PUBLIC ek = {};
  if (Tpm2_Unmarshal_TPM2B_PUBLIC(ek_public.data(), static_cast<uint32_t>(ek_public.size()), &ek) == 0) {
    Log_Level(kLogError, "Failed to extract EK public key\n");
    return SessionResult::kInvalidInput;
  }
  bool ek_matches = false;
  std::optional<std::string> ek_der = Tpm20Cmd::Tpm2PubSpkiDer(ek_public);
  if (!ek_der) {
    Log_Level(kLogError, "Failed to extract EK public key in PEM format\n");
  } else {
    if (Config::Tpm2::EkIdOfSpkiDer(*ek_der) != ek_) {
      Log_Level(kLogError, "EK public key digest does not match\n");
    } else {
      ek_matches = true;
    }
  }
  if (!ek_matches) {
    Log_Level(kLogError, "Invalid EK TPM2B_PUBLIC for session\n");
    return SessionResult::kInvalidInput;
  }
  if (!VerifyEkPublic(ek.publicArea)) {
    Log_Level(kLogError, "Failed to verify EK public key\n");
    return SessionResult::kInvalidInput;
  }
  return SessionResult::kSuccess;
}

Bytes Session::QuoteQualifyingData() const {
  // The nonce never changes after construction, so no lock is needed.
  TPM2B_DATA data = {};
  data.size = static_cast<uint16_t>(nonce_.size());
  std::memcpy(data.buffer, nonce_.data(), nonce_.size());
  uint8_t out[sizeof(data.buffer) + 2];
  uint32_t len = Tpm2_Marshal_TPM2B_DATA(&data, out, sizeof(out));
  VERIFY(len != 0);
  return Bytes(out, out + len);
}

SessionResult Session::SetAttestationKey(const Bytes& ak_public, const Bytes& ek_public, Bytes& out_blob,
                                         Bytes& out_secret) {
  MXUser::WriteGuard guard(lock_);
  if (state_ != SessionState::kInitialized) {
    Log_Level(kLogError, "Session state is not initialized: %d\n", static_cast<int>(state_));
    return SessionResult::kInvalidState;
  }
  // Before a credential is made for the AK, establish that:
  // - the AK is exactly the restricted signing key the template asked for;
  // - the EK is the one whose digest opened the session;
  // - the EK is a restricted decryption key bound to its TPM.
  TPM2B_PUBLIC ak = {};
  if (Tpm2_Unmarshal_TPM2B_PUBLIC(ak_public.data(), static_cast<uint32_t>(ak_public.size()), &ak) == 0) {
    Log_Level(kLogError, "Failed to extract AK public key\n");
    return SessionResult::kInvalidInput;
  }
  if (!VerifyAkPublic(ak.publicArea)) {
    Log_Level(kLogError, "Failed to verify AK public key\n");
    return SessionResult::kInvalidInput;
  }
  // An EK public area kept from an earlier session passed every check below
  // but the comparison with this session's EK.
  std::optional<PreparedEks::Prepared> prepared = eks_ != nullptr ? eks_->Find(ek_public) : std::nullopt;
  if (prepared && prepared->id != ek_) {
    Log_Level(kLogError, "EK public key digest does not match\n");
    Log_Level(kLogError, "Invalid EK TPM2B_PUBLIC for session\n");
    return SessionResult::kInvalidInput;
  }
  if (!prepared) {
    SessionResult checked = CheckEkPublic(ek_public);
    if (checked != SessionResult::kSuccess) {
      return checked;
    }
  }
  credential_secret_.assign(kSecretBytes, 0);
  VERIFY(Random_Crypto(credential_secret_.size(), credential_secret_.data()));
  std::shared_ptr<const CredentialKey> key = prepared ? prepared->key : PrepareCredentialKey(ek_public);
  bool made = key != nullptr ? MakeCredential(*key, ak_public, credential_secret_, &out_blob, &out_secret)
                             : MakeCredential(ek_public, ak_public, credential_secret_, &out_blob, &out_secret);
  if (!made) {
    Log_Level(kLogError, "Failed to make credential for AK\n");
    return SessionResult::kInternalFailure;
  }
  if (!prepared && eks_ != nullptr && key != nullptr) {
    eks_->Add(ek_public, {ek_, std::move(key)});
  }
  ak_public_ = ak_public;
  state_ = SessionState::kAkAwaitingActivation;
  return SessionResult::kSuccess;
}

SessionResult Session::ActivateAttestationKey(const Bytes& cert_info) {
  MXUser::WriteGuard guard(lock_);
  if (state_ != SessionState::kAkAwaitingActivation) {
    Log_Level(kLogError, "Session AK not awaiting activation: %d\n", static_cast<int>(state_));
    return SessionResult::kInvalidState;
  }
  TPM2B_DIGEST credential = {};
  if (Tpm2_Unmarshal_TPM2B_DIGEST(cert_info.data(), static_cast<uint32_t>(cert_info.size()), &credential) == 0) {
    Log_Level(kLogError, "Failed to extract AK credential\n");
    return SessionResult::kInvalidInput;
  }
  if (credential.size != credential_secret_.size() ||
      std::memcmp(credential.buffer, credential_secret_.data(), credential_secret_.size()) != 0) {
    Log_Level(kLogError, "Failed to verify credential\n");
    return SessionResult::kInvalidInput;
  }
  state_ = SessionState::kAkActivated;
  return SessionResult::kSuccess;
}

SessionResult Session::SetQuote(const Bytes& quoted, const Bytes& signature, const std::vector<Bytes>& pcr_selections,
                                const std::vector<Bytes>& pcr_values) {
  if (pcr_selections.empty() || pcr_selections.size() != pcr_values.size()) {
    Log_Level(kLogError, "Invalid PCR selection data\n");
    return SessionResult::kInvalidInput;
  }
  MXUser::WriteGuard guard(lock_);
  if (state_ != SessionState::kAkActivated && state_ != SessionState::kEventLogReceived) {
    Log_Level(kLogError, "Session not ready for quote data: %d\n", static_cast<int>(state_));
    return SessionResult::kInvalidState;
  }
  if (strict_quote_checks_ && !ReadsCoverRequired(pcr_selections, pcr_values)) {
    Log_Level(kLogError, "Invalid PCR selection data\n");
    return SessionResult::kInvalidInput;
  }
  quoted_ = quoted;
  signature_ = signature;
  pcr_selections_ = pcr_selections;
  pcr_values_ = pcr_values;
  state_ = state_ == SessionState::kEventLogReceived ? SessionState::kReadyForAttestation
                                                     : SessionState::kQuoteReceived;
  return SessionResult::kSuccess;
}

SessionResult Session::SetEventLog(const Bytes& event_log, bool complete) {
  MXUser::WriteGuard guard(lock_);
  if (state_ != SessionState::kAkActivated && state_ != SessionState::kQuoteReceived) {
    Log_Level(kLogError, "Session not ready for event log: %d\n", static_cast<int>(state_));
    return SessionResult::kInvalidState;
  }
  std::vector<Entry> events;
  if (!HvkCtl::Security::SecurityInfoImpl::ParseTcgEventLog(event_log.data(), event_log.size(), &events)) {
    Log_Level(kLogError, "Failed to parse event log data\n");
    return SessionResult::kInvalidInput;
  }
  events_ = std::move(events);
  log_complete_ = complete;
  state_ = state_ == SessionState::kQuoteReceived ? SessionState::kReadyForAttestation
                                                  : SessionState::kEventLogReceived;
  return SessionResult::kSuccess;
}

SessionResult Session::VerifyEvidence() {
  MXUser::WriteGuard guard(lock_);
  if (state_ != SessionState::kReadyForAttestation) {
    Log_Level(kLogError, "Session not ready for attestation: %d\n", static_cast<int>(state_));
    return SessionResult::kInvalidState;
  }
  auto evidence = std::make_unique<QuoteEvidence>();
  std::memset(evidence.get(), 0, sizeof(QuoteEvidence));
  for (size_t i = 0; i < pcr_selections_.size(); i++) {
    PcrRead read;
    if (!ParsePcrRead(pcr_selections_[i], pcr_values_[i], &read) || !FillPcrSlots(read, evidence.get())) {
      Log_Level(kLogError, "Failed to extract PCR digests\n");
      return SessionResult::kInvalidInput;
    }
  }
  evidence->quote = {quoted_.size(), quoted_.data()};
  evidence->signature = {signature_.size(), signature_.data()};
  VerifyStatus status = VerifyQuote(evidence.get(), {ak_public_.size(), ak_public_.data()},
                                    {nonce_.size(), nonce_.data()}, strict_quote_checks_ ? &Required() : nullptr);
  if (status != kVerifyOk) {
    Log_Level(kLogError, "Quote validation failed for session %lu; error = {%d, %d}\n", id_,
              static_cast<int>(StatusCategory(status)), static_cast<int>(StatusCode(status)));
    return StatusCategory(status) == 1 ? SessionResult::kInvalidInput : SessionResult::kVerificationFailed;
  }

  // Parse, replay against the quote, then read facts only from the events of
  // the PCRs that replayed: what the lookup of the base image and the TXT
  // claim rest on is what the TPM measured.
  EventRecords events;
  if (!MakeRecords(events_, &events)) {
    Log_Level(kLogError, "Event log entry too large for validation\n");
    return SessionResult::kInvalidInput;
  }
  uint32_t replayed = 0;
  status = ReplayEventLog(events.records.data(), static_cast<uint32_t>(events.records.size()), evidence.get(),
                          &replayed);
  if (status != kVerifyOk) {
    return EventFailure(id_, status, log_complete_);
  }
  BootFacts facts = ReadBootFacts(events.records.data(), static_cast<uint32_t>(events.records.size()), replayed);
  Log_Level(kLogVerbose, "TXT Enabled: %d\n", facts.txt ? 1 : 0);
  if (facts.hvkernel_digest.empty()) {
    Log_Level(kLogError, "Failed to find Hvkernel SHA-256 digest in event log\n");
    return SessionResult::kUnknownSoftware;
  }
  evidence_ = std::move(evidence);
  facts_ = std::move(facts);
  replayed_ = replayed;
  state_ = SessionState::kEvidenceVerified;
  return SessionResult::kSuccess;
}

SessionResult Session::Attest(const ExpectedMeasurements& expected) {
  MXUser::WriteGuard guard(lock_);
  if (state_ != SessionState::kEvidenceVerified) {
    Log_Level(kLogError, "Session not ready for attestation: %d\n", static_cast<int>(state_));
    return SessionResult::kInvalidState;
  }
  Log_Level(kLogVerbose, "Attesting session %lu; hvkernel=%s txt=%d\n", id_, facts_.hvkernel_digest.c_str(),
            facts_.txt ? 1 : 0);
  EventRecords events;
  VERIFY(MakeRecords(events_, &events));  // VerifyEvidence checked the sizes
  HostClaims claims = {static_cast<uint8_t>(facts_.txt ? 1 : 0)};
  static const PayloadChecksumTable kNoChecksums;
  const PayloadChecksumTable* checksums =
      expected.payload_checksums ? expected.payload_checksums.get() : &kNoChecksums;
  // VerifyEvidence replayed the log; when every compared PCR replayed, the
  // replay of ValidateEventLog would be that same one and is not run again.
  VerifyStatus status =
      (replayed_ & kReplayComparedPcrs) == kReplayComparedPcrs
          ? CheckEventLog(events.records.data(), static_cast<uint32_t>(events.records.size()), &claims,
                          expected.txt_mle_digest.c_str(), checksums)
          : ValidateEventLog(events.records.data(), static_cast<uint32_t>(events.records.size()), &claims,
                             expected.txt_mle_digest.c_str(), checksums, evidence_.get());
  if (status != kVerifyOk) {
    return EventFailure(id_, status, log_complete_);
  }
  state_ = SessionState::kAttested;
  return SessionResult::kSuccess;
}

std::vector<std::string> Session::AttestedProperties() {
  MXUser::ReadGuard guard(lock_);
  std::vector<std::string> properties = {"secure_boot"};
  if (facts_.txt) {
    properties.push_back("txt");
    properties.push_back("drtm");
  }
  return properties;
}

SessionState Session::State() {
  MXUser::ReadGuard guard(lock_);
  return state_;
}

std::string Session::HvkernelDigest() {
  MXUser::ReadGuard guard(lock_);
  return facts_.hvkernel_digest;
}

}  // namespace Witnessd::Tpm2
