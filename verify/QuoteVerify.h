// Quote verification: a TPM 2.0 quote must be signed by the session's
// attestation key, carry the session's nonce, and digest the PCR values the
// session read. Warnings are logged with the prefix "TPM2VLIB: ".
#pragma once

#include <cstdint>

#include "verify/CryptoUtil.h"
#include "verify/Tpm2Marshal.h"

namespace Witnessd::Verify {

// VerifyStatus: category in the low 32 bits, code in the high 32 bits;
// 0 is success. Logged by callers as "error = {%d, %d}".
using VerifyStatus = uint64_t;

constexpr VerifyStatus MakeStatus(uint32_t category, uint32_t code) {
  return (uint64_t{code} << 32) | category;
}
constexpr uint32_t StatusCategory(VerifyStatus s) { return static_cast<uint32_t>(s); }
constexpr uint32_t StatusCode(VerifyStatus s) { return static_cast<uint32_t>(s >> 32); }

inline constexpr VerifyStatus kVerifyOk = 0;
inline constexpr VerifyStatus kAkInvalid = MakeStatus(1, 1);           // AK absent, undecodable, unacceptable
inline constexpr VerifyStatus kQuoteUndecodable = MakeStatus(1, 2);    // in the signature check
inline constexpr VerifyStatus kSignatureInvalid = MakeStatus(1, 3);    // undecodable, not RSASSA, bad hash
inline constexpr VerifyStatus kEvidenceInvalid = MakeStatus(1, 4);     // absent, undecodable, bad selection
inline constexpr VerifyStatus kNonceAbsent = MakeStatus(1, 5);
inline constexpr VerifyStatus kAttestHashFailed = MakeStatus(2, 11);
inline constexpr VerifyStatus kSignatureMismatch = MakeStatus(2, 12);
inline constexpr VerifyStatus kNonceLengthMismatch = MakeStatus(3, 9);
inline constexpr VerifyStatus kNonceMismatch = MakeStatus(3, 10);
inline constexpr VerifyStatus kPcrDigestLengthMismatch = MakeStatus(4, 9);
inline constexpr VerifyStatus kPcrDigestMismatch = MakeStatus(4, 10);
inline constexpr VerifyStatus kPcrHashFailed = MakeStatus(4, 11);

// Caller-owned bytes. Plain data so that QuoteEvidence stays trivially
// copyable; ByteView{} is empty.
struct ByteView {
  uint64_t len;
  const uint8_t* data;
};

// What the session collected for one quote. |pcrs| holds the PCR values
// read, by bank (PcrBankIndex), PCR and the first digest-size bytes of each
// 64-byte slot; banks that no quoted selection names are never read.
struct QuoteEvidence {
  uint8_t pcrs[kNumPcrBanks][kNumPcrs][kPcrSlotBytes];
  ByteView quote;      // marshalled TPM2B_ATTEST
  ByteView signature;  // marshalled TPMT_SIGNATURE
};

// VerifyQuote runs VerifyQuoteSignature, VerifyQuoteNonce and
// VerifyQuotePcrDigest in that order and returns the first failure, or
// kVerifyOk. |ak_public| holds a marshalled TPM2B_PUBLIC; |context| is unused.
VerifyStatus VerifyQuote(const QuoteEvidence* evidence, ByteView ak_public, ByteView nonce, void* context);

// VerifyQuoteSignature checks that the quote is signed (RSASSA) by the RSA
// attestation key |ak_public|.
VerifyStatus VerifyQuoteSignature(const QuoteEvidence* evidence, ByteView ak_public);

// VerifyQuoteNonce checks that the quote's extraData equals |nonce|.
VerifyStatus VerifyQuoteNonce(const QuoteEvidence* evidence, ByteView nonce);

// VerifyQuotePcrDigest checks the quote's pcrDigest against the evidence's
// PCR values for the quote's own selection, hashed with the signer's name
// algorithm.
VerifyStatus VerifyQuotePcrDigest(const QuoteEvidence* evidence);

// DecodeQuoteAttest reads a TPM2B_ATTEST holding a quote attestation into
// |out|. Returns false, with a warning, when either layer does not decode.
bool DecodeQuoteAttest(uint64_t quote_len, const uint8_t* quote, TPMS_ATTEST* out);

}  // namespace Witnessd::Verify
