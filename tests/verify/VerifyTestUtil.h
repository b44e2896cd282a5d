// Helpers for the verification library's tests, fuzz seeds and benchmark:
// base64, TPM2B wrapping, and a builder of signed quotes with one field at a
// time changed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "verify/QuoteVerify.h"

namespace Witnessd::VerifyTest {

using Bytes = std::vector<uint8_t>;

Bytes Base64(const std::string& text);
// Prefixes |body| with its 16-bit big-endian size.
Bytes WithSize(const Bytes& body);
Bytes ReadFile(const std::string& path);
// Pair renders a status as "{category, code}" for test messages.
std::string Pair(Verify::VerifyStatus s);

// A quote signed by an RSA-2048 key made once per process. Change the
// public fields, then Build().
struct QuoteBuilder {
  uint16_t ak_type = Verify::kTpmAlgRsa;
  uint32_t exponent_field = 65537;
  Bytes modulus_override;  // empty: the real key's modulus
  uint16_t sig_alg = Verify::kTpmAlgRsassa;
  uint16_t sig_hash = Verify::kTpmAlgSha256;
  bool corrupt_signature = false;
  Bytes embedded_nonce = Bytes(32, 0x5a);
  Bytes nonce = Bytes(32, 0x5a);
  std::vector<Verify::TPMS_PCR_SELECTION> selections = {{Verify::kTpmAlgSha256, 3, {0xff, 0xff, 0x7f, 0}}};
  uint16_t signer_name_alg = Verify::kTpmAlgSha256;
  uint16_t attest_type = Verify::kTpmStAttestQuote;
  uint32_t magic = Verify::kTpmGeneratedValue;
  uint16_t digest_trim = 0;
  bool pcr_value_flip = false;

  // Outputs of Build().
  Bytes ak_public, quote, signature;
  std::unique_ptr<Verify::QuoteEvidence> evidence = std::make_unique<Verify::QuoteEvidence>();

  // Fills the PCR table with fixed values (or keeps those set by the caller
  // when |keep_pcrs|), then makes the AK, attestation and signature.
  void Build(bool keep_pcrs = false);
  Verify::ByteView Ak() const { return {ak_public.size(), ak_public.data()}; }
  Verify::ByteView Nonce() const { return {nonce.size(), nonce.data()}; }
};

}  // namespace Witnessd::VerifyTest
