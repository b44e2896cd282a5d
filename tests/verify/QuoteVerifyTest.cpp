#include "verify/QuoteVerify.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/verify/VerifyTestUtil.h"

namespace v = Witnessd::Verify;

namespace {

using Witnessd::VerifyTest::Base64;
using Witnessd::VerifyTest::Bytes;
using Witnessd::VerifyTest::Pair;
using Witnessd::VerifyTest::QuoteBuilder;

// A real SHA-1 quote from a cloud VM's virtual TPM: AK public area, quote
// and signature as the TPM returned them, and the 24 SHA-1 PCR values.
struct RealQuote {
  Bytes ak_public;  // with the TPM2B size added
  Bytes quote;      // with the TPM2B size added
  Bytes signature;
  std::unique_ptr<v::QuoteEvidence> evidence = std::make_unique<v::QuoteEvidence>();

  RealQuote() {
    std::ifstream in(WITNESSD_TEST_DATA "/verify/windows_gcp_shielded_vm.json");
    nlohmann::json doc = nlohmann::json::parse(in);
    ak_public = Witnessd::VerifyTest::WithSize(Base64(doc["AK"]["Public"]));
    quote = Witnessd::VerifyTest::WithSize(Base64(doc["Quote"]["Quote"]));
    signature = Base64(doc["Quote"]["Signature"]);
    std::memset(evidence.get(), 0, sizeof(*evidence));
    for (const auto& pcr : doc["Log"]["PCRs"]) {
      Bytes value = Base64(pcr["Digest"]);
      std::memcpy(evidence->pcrs[0][pcr["Index"].get<int>()], value.data(), value.size());
    }
    Refresh();
  }
  void Refresh() {
    evidence->quote = {quote.size(), quote.data()};
    evidence->signature = {signature.size(), signature.data()};
  }
  v::ByteView Ak() const { return {ak_public.size(), ak_public.data()}; }
};

TEST(VerifyQuoteSignature, RealSha1Quote) {
  RealQuote q;
  EXPECT_EQ(Pair(v::kVerifyOk), Pair(v::VerifyQuoteSignature(q.evidence.get(), q.Ak())));
  // One flipped bit anywhere in the attestation breaks it.
  q.quote[40] ^= 0x01;
  EXPECT_EQ(Pair(v::kSignatureMismatch), Pair(v::VerifyQuoteSignature(q.evidence.get(), q.Ak())));
}

TEST(VerifyQuotePcrDigest, RealQuoteUsesSignerNameAlgorithm) {
  // This TPM digested the PCRs with its signing hash (SHA-1), while its
  // name algorithm is SHA-256. The check digests with the signer's name
  // algorithm, so the real quote fails on the digest size...
  RealQuote q;
  EXPECT_EQ(Pair(v::kPcrDigestLengthMismatch), Pair(v::VerifyQuotePcrDigest(q.evidence.get())));
  // ...and passes once the signer's name says SHA-1 (qualifiedSigner is at
  // offset 2 + 4 + 2 + 2 of the TPM2B_ATTEST).
  q.quote[10] = 0x00;
  q.quote[11] = 0x04;
  EXPECT_EQ(Pair(v::kVerifyOk), Pair(v::VerifyQuotePcrDigest(q.evidence.get())));
  q.evidence->pcrs[0][7][0] ^= 0x80;
  EXPECT_EQ(Pair(v::kPcrDigestMismatch), Pair(v::VerifyQuotePcrDigest(q.evidence.get())));
}

TEST(VerifyQuote, BuiltQuoteEdgeCases) {
  // Each row changes one thing of a good quote and names the result.
  const struct {
    const char* name;
    void (*mutate)(QuoteBuilder*);
    v::VerifyStatus expected;
  } kRows[] = {
      {"good", [](QuoteBuilder*) {}, v::kVerifyOk},
      {"exponent field 0 verifies with 65537", [](QuoteBuilder* b) { b->exponent_field = 0; }, v::kVerifyOk},
      {"exponent 3", [](QuoteBuilder* b) { b->exponent_field = 3; }, v::kAkInvalid},
      {"ECC AK", [](QuoteBuilder* b) { b->ak_type = v::kTpmAlgEcc; }, v::kAkInvalid},
      {"modulus 127 bytes", [](QuoteBuilder* b) { b->modulus_override = Bytes(127, 0xc1); }, v::kAkInvalid},
      {"modulus 128 bytes accepted", [](QuoteBuilder* b) { b->modulus_override = Bytes(128, 0xc1); },
       v::kSignatureMismatch},
      {"modulus 512 bytes accepted", [](QuoteBuilder* b) { b->modulus_override = Bytes(512, 0xc1); },
       v::kSignatureMismatch},
      {"modulus 513 bytes", [](QuoteBuilder* b) { b->modulus_override = Bytes(513, 0xc1); }, v::kAkInvalid},
      {"RSAPSS", [](QuoteBuilder* b) { b->sig_alg = v::kTpmAlgRsapss; }, v::kSignatureInvalid},
      {"signature hash NULL", [](QuoteBuilder* b) { b->sig_hash = v::kTpmAlgNull; }, v::kSignatureInvalid},
      {"SHA-384 signature", [](QuoteBuilder* b) { b->sig_hash = v::kTpmAlgSha384; }, v::kVerifyOk},
      {"SM3 signature cannot verify", [](QuoteBuilder* b) { b->sig_hash = v::kTpmAlgSm3_256; },
       v::kSignatureMismatch},
      {"nonce one byte short", [](QuoteBuilder* b) { b->nonce.pop_back(); }, v::kNonceLengthMismatch},
      {"nonce differs", [](QuoteBuilder* b) { b->nonce[31] ^= 1; }, v::kNonceMismatch},
      {"nonce empty", [](QuoteBuilder* b) { b->nonce.clear(); }, v::kNonceAbsent},
      {"bad signature and bad nonce", [](QuoteBuilder* b) { b->corrupt_signature = true; b->nonce[0] ^= 1; },
       v::kSignatureMismatch},
      {"sizeofSelect 4", [](QuoteBuilder* b) { b->selections[0].sizeofSelect = 4; }, v::kEvidenceInvalid},
      {"no selection", [](QuoteBuilder* b) { b->selections.clear(); }, v::kEvidenceInvalid},
      {"five selections", [](QuoteBuilder* b) { b->selections.resize(5, b->selections[0]); }, v::kVerifyOk},
      {"six selections", [](QuoteBuilder* b) { b->selections.resize(6, b->selections[0]); }, v::kEvidenceInvalid},
      {"selection hash NULL", [](QuoteBuilder* b) { b->selections[0].hash = v::kTpmAlgNull; },
       v::kEvidenceInvalid},
      {"PCR 12 not selected warns only", [](QuoteBuilder* b) { b->selections[0].pcrSelect[1] &= ~0x10; },
       v::kVerifyOk},
      {"SHA-1 and SHA-256 banks", [](QuoteBuilder* b) { b->selections.push_back({v::kTpmAlgSha1, 3, {0xff, 0, 0}}); },
       v::kVerifyOk},
      {"signer name SHA-1", [](QuoteBuilder* b) { b->signer_name_alg = v::kTpmAlgSha1; }, v::kVerifyOk},
      {"signer name unknown", [](QuoteBuilder* b) { b->signer_name_alg = 0x0099; }, v::kEvidenceInvalid},
      {"digest one byte short", [](QuoteBuilder* b) { b->digest_trim = 1; }, v::kPcrDigestLengthMismatch},
      {"PCR value read differs", [](QuoteBuilder* b) { b->pcr_value_flip = true; }, v::kPcrDigestMismatch},
      {"certify attestation", [](QuoteBuilder* b) { b->attest_type = v::kTpmStAttestCertify; },
       v::kEvidenceInvalid},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    QuoteBuilder b;
    row.mutate(&b);
    b.Build();
    EXPECT_EQ(Pair(row.expected), Pair(v::VerifyQuote(b.evidence.get(), b.Ak(), b.Nonce(), nullptr)));
  }
}

// Under the strict requirements a quote must be the TPM's own attestation
// (a host can have its AK sign a structure it wrote, but not one that starts
// with the magic) over exactly the requested PCRs, compared as sets per
// bank. Without them, these quotes verify.
TEST(VerifyQuote, StrictRequirementsOnMagicAndSelection) {
  using Sel = v::TPMS_PCR_SELECTION;
  const Sel kRequested = {v::kTpmAlgSha256, 3, {0x00, 0xff, 0x7e, 0}};  // PCRs 8-15, 17-22
  v::QuoteRequirements required = {};
  required.selection.count = 1;
  required.selection.pcrSelections[0] = kRequested;
  const struct {
    const char* name;
    std::vector<Sel> selections;
    uint32_t magic;
    v::VerifyStatus strict;
  } kRows[] = {
      {"the requested PCRs", {kRequested}, v::kTpmGeneratedValue, v::kVerifyOk},
      {"split over two selections of the bank",
       {{v::kTpmAlgSha256, 2, {0x00, 0xff}}, {v::kTpmAlgSha256, 3, {0x00, 0x00, 0x7e}}}, v::kTpmGeneratedValue,
       v::kVerifyOk},
      {"magic off by one bit", {kRequested}, v::kTpmGeneratedValue ^ 1, v::kMagicMismatch},
      {"magic zero", {kRequested}, 0, v::kMagicMismatch},
      {"PCR 22 missing", {{v::kTpmAlgSha256, 3, {0x00, 0xff, 0x3e}}}, v::kTpmGeneratedValue,
       v::kPcrSelectionMismatch},
      {"PCR 8 only", {{v::kTpmAlgSha256, 3, {0x00, 0x01, 0x00}}}, v::kTpmGeneratedValue, v::kPcrSelectionMismatch},
      {"PCR 0 extra", {{v::kTpmAlgSha256, 3, {0x01, 0xff, 0x7e}}}, v::kTpmGeneratedValue, v::kPcrSelectionMismatch},
      {"PCR 8 in the SHA-1 bank",
       {{v::kTpmAlgSha256, 3, {0x00, 0xfe, 0x7e}}, {v::kTpmAlgSha1, 3, {0x00, 0x01, 0x00}}}, v::kTpmGeneratedValue,
       v::kPcrSelectionMismatch},
      {"a SHA-1 bank besides", {kRequested, {v::kTpmAlgSha1, 3, {0x00, 0xff, 0x00}}}, v::kTpmGeneratedValue,
       v::kPcrSelectionMismatch},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    QuoteBuilder b;
    b.selections = row.selections;
    b.magic = row.magic;
    b.Build();
    EXPECT_EQ(Pair(row.strict), Pair(v::VerifyQuote(b.evidence.get(), b.Ak(), b.Nonce(), &required)));
    EXPECT_EQ(Pair(v::kVerifyOk), Pair(v::VerifyQuote(b.evidence.get(), b.Ak(), b.Nonce(), nullptr)));
  }
}

TEST(VerifyQuote, AbsentOrTruncatedInputs) {
  QuoteBuilder b;
  b.Build();
  EXPECT_EQ(Pair(v::kAkInvalid), Pair(v::VerifyQuote(b.evidence.get(), v::ByteView{}, b.Nonce(), nullptr)));
  EXPECT_EQ(Pair(v::kEvidenceInvalid), Pair(v::VerifyQuoteNonce(nullptr, b.Nonce())));
  EXPECT_EQ(Pair(v::kEvidenceInvalid), Pair(v::VerifyQuotePcrDigest(nullptr)));
  // Every strict prefix of each input is refused with that input's status.
  const Bytes ak = b.ak_public, quote = b.quote, sig = b.signature;
  for (size_t n = 0; n < ak.size(); ++n) {
    Bytes cut(ak.begin(), ak.begin() + n);
    ASSERT_EQ(Pair(v::kAkInvalid), Pair(v::VerifyQuoteSignature(b.evidence.get(), {cut.size(), cut.data()}))) << n;
  }
  for (size_t n = 0; n < sig.size(); ++n) {
    Bytes cut(sig.begin(), sig.begin() + n);
    b.evidence->signature = {cut.size(), cut.data()};
    ASSERT_EQ(Pair(v::kSignatureInvalid), Pair(v::VerifyQuoteSignature(b.evidence.get(), b.Ak()))) << n;
  }
  b.evidence->signature = {sig.size(), sig.data()};
  for (size_t n = 0; n < quote.size(); ++n) {
    Bytes cut(quote.begin(), quote.begin() + n);
    b.evidence->quote = {cut.size(), cut.data()};
    ASSERT_EQ(Pair(v::kQuoteUndecodable), Pair(v::VerifyQuoteSignature(b.evidence.get(), b.Ak()))) << n;
    ASSERT_EQ(Pair(v::kEvidenceInvalid), Pair(v::VerifyQuotePcrDigest(b.evidence.get()))) << n;
  }
}

}  // namespace
