// Quotes made by a real software TPM, verified as the session would verify
// them: the AK public area, the quote and the signature marshalled by the
// TPM software stack, the PCR values read with TPM2_PCR_Read.
#include <gtest/gtest.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>
#include <tss2/tss2_tctildr.h>

#include <cstring>
#include <memory>
#include <vector>

#include "tests/support/SwtpmProcess.h"
#include "tests/verify/VerifyTestUtil.h"
#include "verify/QuoteVerify.h"

namespace v = Witnessd::Verify;

namespace {

using Bytes = std::vector<uint8_t>;
using Witnessd::VerifyTest::Pair;

class SwtpmQuoteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tpm_.Setup()) << tpm_.SetupLog();
    ASSERT_TRUE(tpm_.Start()) << tpm_.SetupLog();
    ASSERT_EQ(TSS2_RC_SUCCESS, Tss2_TctiLdr_Initialize(tpm_.Tcti().c_str(), &tcti_));
    ASSERT_EQ(TSS2_RC_SUCCESS, Esys_Initialize(&esys_, tcti_, nullptr));
  }
  void TearDown() override {
    if (ak_ != ESYS_TR_NONE) Esys_FlushContext(esys_, ak_);
    if (esys_) Esys_Finalize(&esys_);
    if (tcti_) Tss2_TctiLdr_Finalize(&tcti_);
  }

  // A restricted RSA-2048 signing key (RSASSA/SHA-256) in the owner
  // hierarchy, exponent left at 0 as TPM templates usually have it.
  Bytes CreateAk() {
    TPM2B_SENSITIVE_CREATE sensitive = {};
    TPM2B_PUBLIC in_public = {};
    in_public.publicArea.type = TPM2_ALG_RSA;
    in_public.publicArea.nameAlg = TPM2_ALG_SHA256;
    in_public.publicArea.objectAttributes = TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_SIGN_ENCRYPT |
                                            TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT |
                                            TPMA_OBJECT_SENSITIVEDATAORIGIN | TPMA_OBJECT_USERWITHAUTH;
    in_public.publicArea.parameters.rsaDetail.symmetric.algorithm = TPM2_ALG_NULL;
    in_public.publicArea.parameters.rsaDetail.scheme.scheme = TPM2_ALG_RSASSA;
    in_public.publicArea.parameters.rsaDetail.scheme.details.rsassa.hashAlg = TPM2_ALG_SHA256;
    in_public.publicArea.parameters.rsaDetail.keyBits = 2048;
    TPM2B_DATA outside = {};
    TPML_PCR_SELECTION creation_pcrs = {};
    TPM2B_PUBLIC* out_public = nullptr;
    EXPECT_EQ(TSS2_RC_SUCCESS,
              Esys_CreatePrimary(esys_, ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &sensitive,
                                 &in_public, &outside, &creation_pcrs, &ak_, &out_public, nullptr, nullptr, nullptr));
    Bytes wire(sizeof(TPM2B_PUBLIC));
    size_t offset = 0;
    EXPECT_EQ(TSS2_RC_SUCCESS, Tss2_MU_TPM2B_PUBLIC_Marshal(out_public, wire.data(), wire.size(), &offset));
    wire.resize(offset);
    Esys_Free(out_public);
    return wire;
  }

  void Extend(ESYS_TR pcr, uint8_t fill) {
    TPML_DIGEST_VALUES values = {};
    values.count = 1;
    values.digests[0].hashAlg = TPM2_ALG_SHA256;
    std::memset(values.digests[0].digest.sha256, fill, 32);
    ASSERT_EQ(TSS2_RC_SUCCESS, Esys_PCR_Extend(esys_, pcr, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &values));
  }

  // Reads the SHA-256 bank into the evidence; the TPM returns at most 8
  // digests per call, so this asks again for what is left.
  void ReadPcrs(v::QuoteEvidence* evidence) {
    uint32_t left = 0xffffff;
    while (left != 0) {
      TPML_PCR_SELECTION sel = {};
      sel.count = 1;
      sel.pcrSelections[0].hash = TPM2_ALG_SHA256;
      sel.pcrSelections[0].sizeofSelect = 3;
      for (int b = 0; b < 3; ++b) sel.pcrSelections[0].pcrSelect[b] = static_cast<uint8_t>(left >> (8 * b));
      TPML_PCR_SELECTION* out_sel = nullptr;
      TPML_DIGEST* values = nullptr;
      ASSERT_EQ(TSS2_RC_SUCCESS, Esys_PCR_Read(esys_, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &sel, nullptr,
                                               &out_sel, &values));
      uint32_t next = 0;
      for (uint32_t pcr = 0; pcr < 24; ++pcr) {
        if (out_sel->pcrSelections[0].pcrSelect[pcr / 8] & (1u << (pcr % 8))) {
          ASSERT_LT(next, values->count);
          std::memcpy(evidence->pcrs[1][pcr], values->digests[next].buffer, values->digests[next].size);
          ++next;
          left &= ~(1u << pcr);
        }
      }
      Esys_Free(out_sel);
      Esys_Free(values);
      ASSERT_GT(next, 0u);
    }
  }

  Witnessd::Testing::SwtpmProcess tpm_;
  TSS2_TCTI_CONTEXT* tcti_ = nullptr;
  ESYS_CONTEXT* esys_ = nullptr;
  ESYS_TR ak_ = ESYS_TR_NONE;
};

TEST_F(SwtpmQuoteTest, RealQuoteVerifiesAndOneChangeBreaksIt) {
  Bytes ak = CreateAk();
  Extend(ESYS_TR_PCR12, 0x12);
  Extend(ESYS_TR_PCR8, 0x08);

  TPM2B_DATA nonce = {};
  nonce.size = 32;
  for (int i = 0; i < 32; ++i) nonce.buffer[i] = static_cast<uint8_t>(i * 7 + 1);
  TPMT_SIG_SCHEME scheme = {};
  scheme.scheme = TPM2_ALG_RSASSA;
  scheme.details.rsassa.hashAlg = TPM2_ALG_SHA256;
  TPML_PCR_SELECTION sel = {};
  sel.count = 1;
  sel.pcrSelections[0] = {TPM2_ALG_SHA256, 3, {0xff, 0xff, 0xff}};
  TPM2B_ATTEST* quoted = nullptr;
  TPMT_SIGNATURE* signature = nullptr;
  ASSERT_EQ(TSS2_RC_SUCCESS, Esys_Quote(esys_, ak_, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &nonce, &scheme,
                                        &sel, &quoted, &signature));
  Bytes quote(sizeof(TPM2B_ATTEST)), sig(sizeof(TPMT_SIGNATURE));
  size_t quote_len = 0, sig_len = 0;
  ASSERT_EQ(TSS2_RC_SUCCESS, Tss2_MU_TPM2B_ATTEST_Marshal(quoted, quote.data(), quote.size(), &quote_len));
  ASSERT_EQ(TSS2_RC_SUCCESS, Tss2_MU_TPMT_SIGNATURE_Marshal(signature, sig.data(), sig.size(), &sig_len));
  quote.resize(quote_len);
  sig.resize(sig_len);
  Esys_Free(quoted);
  Esys_Free(signature);

  auto evidence = std::make_unique<v::QuoteEvidence>();
  std::memset(evidence.get(), 0, sizeof(*evidence));
  ReadPcrs(evidence.get());
  evidence->quote = {quote.size(), quote.data()};
  evidence->signature = {sig.size(), sig.data()};
  v::ByteView ak_view{ak.size(), ak.data()};
  v::ByteView nonce_view{nonce.size, nonce.buffer};
  // The TPM's own quote carries its magic and the selection asked for.
  v::QuoteRequirements required = {};
  required.selection.count = 1;
  required.selection.pcrSelections[0] = {TPM2_ALG_SHA256, 3, {0xff, 0xff, 0xff}};
  EXPECT_EQ(Pair(v::kVerifyOk), Pair(v::VerifyQuote(evidence.get(), ak_view, nonce_view, &required)));

  nonce.buffer[5] ^= 1;
  EXPECT_EQ(Pair(v::kNonceMismatch), Pair(v::VerifyQuote(evidence.get(), ak_view, nonce_view, nullptr)));
  nonce.buffer[5] ^= 1;
  evidence->pcrs[1][12][0] ^= 1;  // a PCR value the agent misreported
  EXPECT_EQ(Pair(v::kPcrDigestMismatch), Pair(v::VerifyQuote(evidence.get(), ak_view, nonce_view, nullptr)));
  evidence->pcrs[1][12][0] ^= 1;
  sig[sig.size() - 1] ^= 1;
  EXPECT_EQ(Pair(v::kSignatureMismatch), Pair(v::VerifyQuote(evidence.get(), ak_view, nonce_view, nullptr)));
}

}  // namespace
