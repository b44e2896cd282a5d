// Event log replay and validation. A log is first replayed against the
// quoted SHA-256 PCRs, and the boot facts (TXT launch, Hvkernel digest) are
// read only from the PCRs that replayed. Validation then holds it to a base
// image: every boot component measured into the hypervisor's PCRs must be a
// trusted payload of that image, the required components and UEFI secure
// boot must be present, a TXT launch must match the host's claim, and the
// replayed SHA-256 PCRs must equal the quoted ones. Warnings are logged with
// the prefix "TPM2VLIB: ".
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "verify/QuoteVerify.h"

namespace Witnessd::Verify {

// Payload checksum table of one base image: payload file name to the
// payload's SHA-256 as lower-case hexadecimal text.
using PayloadChecksumTable = std::unordered_map<std::string, std::string>;

// One digest of an event; the bytes belong to the caller.
struct TcgDigest {
  uint16_t algorithm;
  const uint8_t* digest;
  uint16_t size;
};

// One event of the log as the session passes it. The event data bytes are
// the caller's and writable: validation may rewrite a malformed payload
// name in place (see ValidateEventLog).
struct TcgEventRecord {
  uint32_t pcrIndex;
  uint32_t eventType;
  uint8_t digestCount;
  const TcgDigest* digests;
  uint8_t* eventData;
  uint16_t eventDataSize;
};

// What the host says of itself; only txtEnabled is read (non-zero: the host
// claims a TXT measured launch).
struct HostClaims {
  uint8_t txtEnabled;
};

inline constexpr uint32_t kEvEventTag = 6;

inline constexpr VerifyStatus kEventInvalidInput = MakeStatus(1, 8);      // also a bad event above PCR 7
inline constexpr VerifyStatus kUnexpectedHvkEventId = MakeStatus(6, 8);
inline constexpr VerifyStatus kTxtEventInvalid = MakeStatus(6, 15);       // second TXT event or wrong MLE digest
inline constexpr VerifyStatus kTxtClaimMismatch = MakeStatus(6, 16);
inline constexpr VerifyStatus kChecksumMissing = MakeStatus(6, 17);       // also a required event missing
inline constexpr VerifyStatus kChecksumMismatch = MakeStatus(6, 18);
inline constexpr VerifyStatus kNoSha256Digest = MakeStatus(6, 19);
inline constexpr VerifyStatus kDuplicateSha256Digest = MakeStatus(6, 20);
inline constexpr VerifyStatus kNoSecureBoot = MakeStatus(7, 0);
inline constexpr VerifyStatus kReplayMismatch = MakeStatus(8, 10);

// ValidateEventLog checks |count| events against the trusted payloads
// |checksums| and the expected TXT MLE digest (lower-case hex), then
// replays them into SHA-256 PCRs and compares PCRs 8 to 22 (except 16) with
// the SHA256 bank of |evidence|. Returns kVerifyOk or the first failure.
// Tagged events (EV_EVENT_TAG) carry hvkEventId (UINT32), payload length
// (UINT32), both little-endian like the rest of the event log, and a
// NUL-terminated payload name; a payload that is not a
// proper NUL-terminated text is overwritten in place with "Unknown".
VerifyStatus ValidateEventLog(TcgEventRecord* events, uint32_t count, const HostClaims* claims,
                              const char* expected_txt_digest, const PayloadChecksumTable* checksums,
                              const QuoteEvidence* evidence);

// CheckEventLog is ValidateEventLog without the replay and its comparison
// with the quote: the same checks, in the same order, with the same results
// up to that point. After ReplayEventLog gave a mask with every PCR of
// kReplayComparedPcrs, with the TXT claim read from the events of that mask,
// ValidateEventLog's replay is that same replay, so CheckEventLog decides as
// ValidateEventLog would.
VerifyStatus CheckEventLog(TcgEventRecord* events, uint32_t count, const HostClaims* claims,
                           const char* expected_txt_digest, const PayloadChecksumTable* checksums);

// The PCRs a replay is compared on: 8 to 22, except 16 (the debug PCR).
inline constexpr uint32_t kReplayComparedPcrs = ((1u << 23) - (1u << 8)) & ~(1u << 16);

// What the log says of the boot, read by ReadBootFacts.
struct BootFacts {
  // A TXT measured launch: the boot-module tag "b" in PCR 17.
  bool txt = false;
  // Lower-case hex SHA-256 of the first Hvkernel tag "k.b00" in the kernel
  // PCR (19 after a TXT launch, else 12); empty when there is none.
  std::string hvkernel_digest;
};

// ReplayEventLog replays |count| events against the SHA256 bank of
// |evidence|: the SHA-256 digest of each event is extended into its PCR,
// PCRs 17 to 22 starting from zero when the log records a TXT launch and
// from all ones otherwise, and PCRs 8 to 22 (except 16) are compared with
// the quoted values. A PCR with an event that has no single SHA-256 digest
// cannot be replayed and is left out. |out_replayed| receives the mask
// (bit n: PCR n) of the PCRs whose replay equals the quoted value. Returns
// kReplayMismatch for the first replayable PCR that differs.
VerifyStatus ReplayEventLog(const TcgEventRecord* events, uint32_t count, const QuoteEvidence* evidence,
                            uint32_t* out_replayed);

// ReadBootFacts reads the boot facts from those of the |count| events that
// are in the PCRs of the mask |pcrs|; pass the mask ReplayEventLog gave so
// that only measurements the quote binds are believed. A tagged event
// counts only when its data holds id, size N and N bytes of text whose last
// is the only zero.
BootFacts ReadBootFacts(const TcgEventRecord* events, uint32_t count, uint32_t pcrs);

// FindSha256Digest sets |out| to the one SHA-256 digest (algorithm SHA256,
// 32 bytes) among |count| digests. Returns kNoSha256Digest when there is
// none and kDuplicateSha256Digest when there are two or more.
VerifyStatus FindSha256Digest(const TcgDigest* digests, uint32_t count, const TcgDigest** out);

// DigestMatchesHex is true when |digest| written as lower-case hex equals
// |expected| exactly.
bool DigestMatchesHex(const uint8_t* digest, uint16_t size, const char* expected);

}  // namespace Witnessd::Verify
