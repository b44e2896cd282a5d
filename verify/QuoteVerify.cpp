#include "verify/QuoteVerify.h"

#include <cstring>
#include <vector>

#include "platform/Log.h"

namespace Witnessd::Verify {
namespace {

constexpr uint32_t kRsaExponent = 0x10001;
constexpr uint16_t kMinModulusBytes = 128;  // 1024 bits
constexpr uint16_t kMaxModulusBytes = 512;  // 4096 bits
constexpr uint32_t kMaxQuoteSelections = 5;
constexpr uint8_t kMaxQuoteSizeofSelect = 3;  // PCRs 0 to 23

// The record dumped as "sigVar:" is sigAlg, hash, size and signature.
static_assert(sizeof(TPMT_SIGNATURE) == 518);

// Lengths above 32 bits are clamped: the codec never reads past the given
// length, and no TPM structure comes near it.
uint32_t Len32(uint64_t len) {
  return len > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(len);
}

bool IsRequiredPcr(uint32_t pcr) {
  return (pcr >= 8 && pcr <= 15) || (pcr >= 17 && pcr <= 22);
}

}  // namespace

bool DecodeQuoteAttest(uint64_t quote_len, const uint8_t* quote, TPMS_ATTEST* out) {
  TPM2B_ATTEST attest;
  if (Tpm2_Unmarshal_TPM2B_ATTEST(quote, Len32(quote_len), &attest) == 0) {
    Warning("TPM2VLIB: Failed to unmarshal TPM2B_ATTEST in quote; len: %lu", static_cast<unsigned long>(quote_len));
    return false;
  }
  std::memset(out, 0, sizeof(*out));
  if (Tpm2_Unmarshal_TPMS_ATTEST(attest.buffer, attest.size, out) == 0) {
    Warning("TPM2VLIB: Failed to unmarshal TPMS_ATTEST in quote");
    HexDump("uTpm2bAttest:", attest.buffer, attest.size);
    return false;
  }
  return true;
}

VerifyStatus VerifyQuoteSignature(const QuoteEvidence* evidence, ByteView ak_public) {
  // Established in order: the AK is an RSA key of 1024 to 4096 bits with the
  // standard exponent; the signature is RSASSA with a known hash; that
  // signature verifies over the attestation bytes with the AK's modulus.
  if (ak_public.data == nullptr || evidence == nullptr) {
    return kAkInvalid;
  }
  TPM2B_PUBLIC ak;
  std::memset(&ak, 0, sizeof(ak));
  if (Tpm2_Unmarshal_TPM2B_PUBLIC(ak_public.data, Len32(ak_public.len), &ak) == 0) {
    Warning("TPM2VLIB: Failed to unmarshal TPM2B_PUBLIC in AK; len: %lu", static_cast<unsigned long>(ak_public.len));
    HexDump("ak:", ak_public.data, ak_public.len);
    return kAkInvalid;
  }
  const TPMT_PUBLIC& area = ak.publicArea;
  bool ak_ok = false;
  if (area.type != kTpmAlgRsa) {
    Warning("TPM2VLIB: Invalid AK modulus algorithm; %u, expected: %d", area.type, kTpmAlgRsa);
  } else if (area.parameters.exponent != 0 && area.parameters.exponent != kRsaExponent) {
    // Kept word for word: the found exponent goes in the "expected" slot.
    Warning("TPM2VLIB: Invalid AK RSA key exponent; expected %u, got 0", area.parameters.exponent);
  } else if (area.unique.rsa.size < kMinModulusBytes || area.unique.rsa.size > kMaxModulusBytes) {
    Warning("TPM2VLIB: Invalid AK RSA key size; %u, min: %d, max: %d", area.unique.rsa.size, kMinModulusBytes,
            kMaxModulusBytes);
  } else {
    ak_ok = true;
  }
  if (!ak_ok) {
    HexDump("publicVar:", ak_public.data + 2, ak.size);
    return kAkInvalid;
  }

  TPMT_SIGNATURE sig;
  std::memset(&sig, 0, sizeof(sig));
  if (Tpm2_Unmarshal_TPMT_SIGNATURE(evidence->signature.data, Len32(evidence->signature.len), &sig) == 0) {
    Warning("TPM2VLIB: Failed to unmarshal TPMT_SIGNATURE in quote; len: %lu",
            static_cast<unsigned long>(evidence->signature.len));
    HexDump("signature:", evidence->signature.data, evidence->signature.data ? evidence->signature.len : 0);
    return kSignatureInvalid;
  }
  const TPMS_SIGNATURE_RSA& rsa = sig.signature.rsassa;
  bool sig_ok = false;
  if (sig.sigAlg != kTpmAlgRsassa) {
    Warning("TPM2VLIB: Invalid quote signature algorithm; %d, expected: %d", sig.sigAlg, kTpmAlgRsassa);
  } else if (rsa.sig.size > kMaxRsaKeyBytes) {
    Warning("TPM2VLIB: Invalid quote signature size; %u, max: %d", rsa.sig.size, kMaxRsaKeyBytes);
  } else if (HashDigestSize(rsa.hash) == 0) {
    Warning("TPM2VLIB: Unsupported quote signature hash; %d", rsa.hash);
  } else {
    sig_ok = true;
  }
  if (!sig_ok) {
    HexDump("sigVar:", &sig, sizeof(sig));
    return kSignatureInvalid;
  }

  TPM2B_ATTEST attest;
  if (Tpm2_Unmarshal_TPM2B_ATTEST(evidence->quote.data, Len32(evidence->quote.len), &attest) == 0) {
    Warning("TPM2VLIB: Failed to unmarshal TPM2B_ATTEST in quote; len: %lu",
            static_cast<unsigned long>(evidence->quote.len));
    HexDump("quote:", evidence->quote.data, evidence->quote.data ? evidence->quote.len : 0);
    return kQuoteUndecodable;
  }
  uint8_t digest[kMaxDigestBytes];
  if (!HashBuffer(digest, rsa.hash, attest.buffer, attest.size)) {
    return kAttestHashFailed;
  }
  if (!VerifyRsaSignature(digest, HashDigestSize(rsa.hash), rsa.hash, area.unique.rsa.buffer, area.unique.rsa.size,
                          rsa.sig.buffer, rsa.sig.size)) {
    Warning("TPM2VLIB: Failed to validate PCR quote signature");
    HexDump("ak:", area.unique.rsa.buffer, area.unique.rsa.size);
    HexDump("signature:", rsa.sig.buffer, rsa.sig.size);
    HexDump("quote:", attest.buffer, attest.size);
    return kSignatureMismatch;
  }
  return kVerifyOk;
}

VerifyStatus VerifyQuoteNonce(const QuoteEvidence* evidence, ByteView nonce) {
  if (nonce.data == nullptr || nonce.len == 0) {
    return kNonceAbsent;
  }
  TPMS_ATTEST attest;
  if (evidence == nullptr || !DecodeQuoteAttest(evidence->quote.len, evidence->quote.data, &attest)) {
    return kEvidenceInvalid;
  }
  // Compared as 16-bit values, as both sizes are TPM2B sizes on the wire.
  if (static_cast<uint16_t>(nonce.len) != attest.extraData.size) {
    Warning("TPM2VLIB: Nonce length mismatch; got %u expected %d", static_cast<uint16_t>(nonce.len),
            attest.extraData.size);
    return kNonceLengthMismatch;
  }
  if (std::memcmp(nonce.data, attest.extraData.buffer, attest.extraData.size) != 0) {
    Warning("TPM2VLIB: Nonce mismatch");
    HexDump("nonce:", nonce.data, attest.extraData.size);
    HexDump("embedded nonce:", attest.extraData.buffer, attest.extraData.size);
    return kNonceMismatch;
  }
  return kVerifyOk;
}

VerifyStatus VerifyQuotePcrDigest(const QuoteEvidence* evidence) {
  TPMS_ATTEST attest;
  if (evidence == nullptr || !DecodeQuoteAttest(evidence->quote.len, evidence->quote.data, &attest)) {
    return kEvidenceInvalid;
  }
  // Established before hashing: 1 to 5 selections, each within PCRs 0-23
  // and of a known bank; the signer's name algorithm is a known hash. Only
  // the quote's own selection is read here (VerifyQuoteOrigin compares it
  // with the requested one), and clock, firmware and the signer's name
  // itself are not compared with anything.
  const TPML_PCR_SELECTION& sel = attest.pcrSelect;
  bool ok = true;
  uint32_t total = 0;
  uint16_t signer_alg = 0;
  if (sel.count == 0) {
    Warning("TPM2VLIB: No selections in PCR quote");
    ok = false;
  } else if (sel.count > kMaxQuoteSelections) {
    Warning("TPM2VLIB: Too many selections in PCR quote; %d, max: %d", sel.count, kMaxQuoteSelections);
    ok = false;
  }
  for (uint32_t i = 0; ok && i < sel.count; ++i) {
    const TPMS_PCR_SELECTION& s = sel.pcrSelections[i];
    if (s.sizeofSelect > kMaxQuoteSizeofSelect) {
      Warning("TPM2VLIB: Size of PCR selection too big; %d, max: %d", s.sizeofSelect, kMaxQuoteSizeofSelect);
      ok = false;
      break;
    }
    uint32_t bits = 0;
    for (uint8_t b = 0; b < s.sizeofSelect; ++b) {
      bits += static_cast<uint32_t>(__builtin_popcount(s.pcrSelect[b]));
    }
    uint16_t size = HashDigestSize(s.hash);
    if (size == 0) {
      Warning("TPM2VLIB: Unsupported PCR selection hash; %d", s.hash);
      ok = false;
      break;
    }
    total += bits * size;
  }
  if (ok) {
    if (attest.qualifiedSigner.size >= 2) {
      signer_alg = static_cast<uint16_t>((attest.qualifiedSigner.buffer[0] << 8) | attest.qualifiedSigner.buffer[1]);
    }
    if (HashDigestSize(signer_alg) == 0) {
      Warning("TPM2VLIB: Unsupported quote signer hash; %d", signer_alg);
      ok = false;
    }
  }
  if (!ok) {
    HexDump("attestationData:", &attest, sizeof(attest));
    return kEvidenceInvalid;
  }

  std::vector<uint8_t> values;
  values.reserve(total);
  for (uint32_t i = 0; i < sel.count; ++i) {
    const TPMS_PCR_SELECTION& s = sel.pcrSelections[i];
    uint32_t bank = PcrBankIndex(s.hash);
    uint16_t size = HashDigestSize(s.hash);
    for (uint32_t pcr = 0; pcr < kNumPcrs; ++pcr) {
      bool selected = pcr < s.sizeofSelect * 8u && IsPcrSelected(s.pcrSelect, pcr);
      if (selected) {
        values.insert(values.end(), evidence->pcrs[bank][pcr], evidence->pcrs[bank][pcr] + size);
      } else if (s.hash == kTpmAlgSha256 && IsRequiredPcr(pcr)) {
        // A warning only; PCRs 16 and 23 are deliberately exempt.
        Warning("TPM2VLIB: Required PCR %u is not selected", pcr);
      }
    }
  }
  uint8_t digest[kMaxDigestBytes];
  if (!HashBuffer(digest, signer_alg, values.data(), static_cast<uint16_t>(total))) {
    return kPcrHashFailed;
  }
  uint16_t digest_size = HashDigestSize(signer_alg);
  if (attest.pcrDigest.size != digest_size) {
    Warning("TPM2VLIB: PCR quote digest length mismatch; got %u, expected %d", digest_size, attest.pcrDigest.size);
    return kPcrDigestLengthMismatch;
  }
  if (std::memcmp(attest.pcrDigest.buffer, digest, digest_size) != 0) {
    HexDump("quote digest:", attest.pcrDigest.buffer, attest.pcrDigest.size);
    HexDump("constructed digest:", digest, digest_size);
    Warning("TPM2VLIB: Failed to validate PCR quote digest");
    return kPcrDigestMismatch;
  }
  return kVerifyOk;
}

bool PcrSelectionMasks(const TPML_PCR_SELECTION& selection, uint32_t (&out)[kNumPcrBanks]) {
  std::memset(out, 0, sizeof(out));
  if (selection.count > kMaxPcrSelections) {
    return false;
  }
  for (uint32_t i = 0; i < selection.count; ++i) {
    const TPMS_PCR_SELECTION& s = selection.pcrSelections[i];
    uint32_t bank = PcrBankIndex(s.hash);
    if (bank >= kNumPcrBanks || s.sizeofSelect > kMaxSizeofSelect) {
      return false;
    }
    for (uint8_t b = 0; b < s.sizeofSelect; ++b) {
      out[bank] |= uint32_t{s.pcrSelect[b]} << (8 * b);
    }
  }
  return true;
}

VerifyStatus VerifyQuoteOrigin(const QuoteEvidence* evidence, const QuoteRequirements& required) {
  TPMS_ATTEST attest;
  if (evidence == nullptr || !DecodeQuoteAttest(evidence->quote.len, evidence->quote.data, &attest)) {
    return kEvidenceInvalid;
  }
  // Data a host hashed and had its AK sign never starts with this value:
  // the TPM refuses a ticket for it. Anything else is the host's own text.
  if (attest.magic != kTpmGeneratedValue) {
    Warning("TPM2VLIB: Quote not generated by the TPM; magic: 0x%08x, expected: 0x%08x", attest.magic,
            kTpmGeneratedValue);
    return kMagicMismatch;
  }
  uint32_t quoted[kNumPcrBanks];
  uint32_t wanted[kNumPcrBanks];
  bool decodable = PcrSelectionMasks(attest.pcrSelect, quoted);
  if (!PcrSelectionMasks(required.selection, wanted)) {
    return kEvidenceInvalid;
  }
  if (!decodable || std::memcmp(quoted, wanted, sizeof(quoted)) != 0) {
    Warning("TPM2VLIB: Quoted PCR selection differs from the requested selection");
    for (uint32_t bank = 0; decodable && bank < kNumPcrBanks; ++bank) {
      if (quoted[bank] != wanted[bank]) {
        Warning("TPM2VLIB: PCR bank %u quoted: 0x%06x, requested: 0x%06x", bank, quoted[bank], wanted[bank]);
      }
    }
    return kPcrSelectionMismatch;
  }
  return kVerifyOk;
}

VerifyStatus VerifyQuote(const QuoteEvidence* evidence, ByteView ak_public, ByteView nonce,
                         const QuoteRequirements* required) {
  VerifyStatus status = VerifyQuoteSignature(evidence, ak_public);
  if (status == kVerifyOk) {
    status = VerifyQuoteNonce(evidence, nonce);
  }
  if (status == kVerifyOk && required != nullptr) {
    status = VerifyQuoteOrigin(evidence, *required);
  }
  if (status == kVerifyOk) {
    status = VerifyQuotePcrDigest(evidence);
  }
  return status;
}

}  // namespace Witnessd::Verify
