#include "verify/Tpm2Marshal.h"

#include <gtest/gtest.h>
#include <tss2/tss2_mu.h>

#include <cstring>
#include <random>
#include <vector>

#include "tests/verify/VerifyTestUtil.h"

namespace v = Witnessd::Verify;

namespace {

using Witnessd::VerifyTest::Bytes;
using Witnessd::VerifyTest::ReadFile;

template <typename T, typename Fn>
uint32_t Unmarshal(Fn fn, const Bytes& wire, T* out) {
  return fn(wire.data(), static_cast<uint32_t>(wire.size()), out);
}

// Every strict prefix of a valid encoding must fail: no field may be read
// across the end of the input.
template <typename T, typename Fn>
void ExpectEveryPrefixFails(Fn fn, const Bytes& wire) {
  for (size_t n = 0; n < wire.size(); ++n) {
    T out;
    SCOPED_TRACE(n);
    Bytes prefix(wire.begin(), wire.begin() + n);  // exact-size copy lets ASan catch over-reads
    EXPECT_EQ(0u, fn(prefix.data(), static_cast<uint32_t>(n), &out));
  }
}

TEST(Tpm2Unmarshal, SizedBufferCapacities) {
  struct Case {
    const char* name;
    uint16_t capacity;
    uint32_t (*fn)(const uint8_t*, uint32_t, void*);
  };
#define CASE(T, cap) \
  {#T, cap, [](const uint8_t* s, uint32_t l, void* o) { return v::Tpm2_Unmarshal_##T(s, l, static_cast<v::T*>(o)); }}
  const Case kCases[] = {
      CASE(TPM2B_DATA, 64), CASE(TPM2B_DIGEST, 64), CASE(TPM2B_ATTEST, 2304),
  };
#undef CASE
  alignas(8) static uint8_t out[4096];
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    for (uint16_t size : {uint16_t{0}, c.capacity, static_cast<uint16_t>(c.capacity + 1)}) {
      Bytes wire = {static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
      wire.resize(2 + size, 0xa5);
      uint32_t expected = size <= c.capacity ? 2u + size : 0u;
      EXPECT_EQ(expected, c.fn(wire.data(), static_cast<uint32_t>(wire.size()), out)) << size;
      // One byte short of the stated size.
      EXPECT_EQ(0u, c.fn(wire.data(), static_cast<uint32_t>(wire.size() - 1), out)) << size;
    }
  }
}

TEST(Tpm2Marshal, SizedBufferMustFitAndKeepItsCapacity) {
  uint8_t dst[2];
  v::TPM2B_DIGEST d{};
  d.size = 3;
  EXPECT_EQ(0u, v::Tpm2_Marshal_TPM2B_DIGEST(&d, dst, sizeof(dst)));  // does not fit
  d.size = 65;
  uint8_t big[128];
  EXPECT_EQ(0u, v::Tpm2_Marshal_TPM2B_DIGEST(&d, big, sizeof(big)));  // above capacity
}

TEST(Tpm2Unmarshal, PcrSelectionLimits) {
  const struct {
    const char* name;
    Bytes wire;
    uint32_t consumed;
  } kCases[] = {
      {"count 0", {0, 0, 0, 0}, 4},
      {"sizeofSelect 4", {0, 0, 0, 1, /*SHA256*/ 0x00, 0x0b, 4, 0xff, 0xff, 0xff, 0x00}, 11},
      {"sizeofSelect 5", {0, 0, 0, 1, 0x00, 0x0b, 5, 0xff, 0xff, 0xff, 0x00, 0x00}, 0},
      {"count 17", {0, 0, 0, 17}, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    v::TPML_PCR_SELECTION out;
    EXPECT_EQ(c.consumed, Unmarshal(v::Tpm2_Unmarshal_TPML_PCR_SELECTION, c.wire, &out));
  }
  // Sixteen selections pass; the seventeenth is one too many.
  Bytes wire = {0, 0, 0, 16};
  for (int i = 0; i < 16; ++i) {
    wire.insert(wire.end(), {0x00, 0x04, 3, 0xff, 0xff, 0xff});
  }
  v::TPML_PCR_SELECTION out;
  EXPECT_EQ(wire.size(), Unmarshal(v::Tpm2_Unmarshal_TPML_PCR_SELECTION, wire, &out));
  ExpectEveryPrefixFails<v::TPML_PCR_SELECTION>(v::Tpm2_Unmarshal_TPML_PCR_SELECTION, wire);
}

TEST(Tpm2Unmarshal, DigestListLimit) {
  for (uint32_t count : {8u, 9u}) {
    Bytes wire = {0, 0, 0, static_cast<uint8_t>(count)};
    for (uint32_t i = 0; i < count; ++i) {
      wire.insert(wire.end(), {0, 1, static_cast<uint8_t>(i)});
    }
    v::TPML_DIGEST out;
    EXPECT_EQ(count <= 8 ? wire.size() : 0u, Unmarshal(v::Tpm2_Unmarshal_TPML_DIGEST, wire, &out)) << count;
  }
}

// A quote attestation, annotated per field; certify differs only in type.
Bytes QuoteAttestWire(uint16_t type) {
  return {0xff, 0x54, 0x43, 0x47,                          // magic
          static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type),  // type
          0x00, 0x02, 0x00, 0x0b,                          // qualifiedSigner: size 2, alg SHA256
          0x00, 0x01, 0x7e,                                // extraData: 1 byte
          0, 0, 0, 0, 0, 0, 0, 9, 0, 0, 0, 1, 0, 0, 0, 2, 1,  // clockInfo
          1, 2, 3, 4, 5, 6, 7, 8,                          // firmwareVersion
          0, 0, 0, 1, 0x00, 0x0b, 3, 0x01, 0x10, 0x00,     // pcrSelect: SHA256 {0, 12}
          0x00, 0x02, 0xab, 0xcd};                         // pcrDigest
}

TEST(Tpm2Unmarshal, AttestQuoteOnly) {
  v::TPMS_ATTEST out;
  Bytes quote = QuoteAttestWire(v::kTpmStAttestQuote);
  // The decoded fields are compared with the other library's below.
  ASSERT_EQ(quote.size(), Unmarshal(v::Tpm2_Unmarshal_TPMS_ATTEST, quote, &out));
  ExpectEveryPrefixFails<v::TPMS_ATTEST>(v::Tpm2_Unmarshal_TPMS_ATTEST, quote);
  EXPECT_EQ(0u, Unmarshal(v::Tpm2_Unmarshal_TPMS_ATTEST, QuoteAttestWire(v::kTpmStAttestCertify), &out));
}

TEST(Tpm2Unmarshal, EkTemplateFixture) {
  // A real RSA-2048 EK template, a TPMT_PUBLIC without size prefix.
  Bytes wire = ReadFile(WITNESSD_TEST_DATA "/verify/ek-template-default.bin");
  ASSERT_EQ(314u, wire.size());
  v::TPMT_PUBLIC pub;
  ASSERT_EQ(314u, Unmarshal(v::Tpm2_Unmarshal_TPMT_PUBLIC, wire, &pub));
  ExpectEveryPrefixFails<v::TPMT_PUBLIC>(v::Tpm2_Unmarshal_TPMT_PUBLIC, wire);

  // Wrapped as a TPM2B_PUBLIC it round-trips; a size that does not match
  // the area is refused.
  Bytes sized = {0x01, 0x3a};
  sized.insert(sized.end(), wire.begin(), wire.end());
  v::TPM2B_PUBLIC p2b;
  ASSERT_EQ(316u, Unmarshal(v::Tpm2_Unmarshal_TPM2B_PUBLIC, sized, &p2b));
  Bytes again(400);
  ASSERT_EQ(316u, v::Tpm2_Marshal_TPM2B_PUBLIC(&p2b, again.data(), static_cast<uint32_t>(again.size())));
  again.resize(316);
  EXPECT_EQ(sized, again);
  sized[1] = 0x3b;
  sized.push_back(0);
  EXPECT_EQ(0u, Unmarshal(v::Tpm2_Unmarshal_TPM2B_PUBLIC, sized, &p2b));
}

TEST(Tpm2Signature, KeyTypeIsNoSignatureAlgorithm) {
  v::TPMT_SIGNATURE sig{};
  sig.sigAlg = v::kTpmAlgRsa;
  uint8_t dst[8];
  EXPECT_EQ(0u, v::Tpm2_Marshal_TPMT_SIGNATURE(&sig, dst, sizeof(dst)));
}

// --- Cross-check against the TPM software stack's marshalling library ---

class Rng {
 public:
  explicit Rng(uint32_t seed) : gen_(seed) {}
  uint32_t Below(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(gen_); }
  uint16_t U16() { return static_cast<uint16_t>(Below(0x10000)); }
  uint32_t U32() { return static_cast<uint32_t>(gen_()); }
  template <typename T>
  T Pick(std::initializer_list<T> values) { return values.begin()[Below(static_cast<uint32_t>(values.size()))]; }
  template <typename T>
  void Fill(T* b, uint16_t max) {
    b->size = static_cast<uint16_t>(Below(max + 1u));
    for (uint16_t i = 0; i < b->size; ++i) b->buffer[i] = static_cast<uint8_t>(gen_());
  }

 private:
  std::mt19937 gen_;
};

uint16_t RandomHash(Rng& rng) {
  return rng.Pick<uint16_t>({v::kTpmAlgSha1, v::kTpmAlgSha256, v::kTpmAlgSha384, v::kTpmAlgSha512});
}

v::TPMT_SYM_DEF_OBJECT RandomSymDef(Rng& rng) {
  v::TPMT_SYM_DEF_OBJECT s{};
  s.algorithm = rng.Pick<uint16_t>({v::kTpmAlgNull, v::kTpmAlgAes, v::kTpmAlgSm4, v::kTpmAlgCamellia});
  if (s.algorithm != v::kTpmAlgNull) {
    s.keyBits = rng.Pick<uint16_t>({128, 256});
    s.mode = rng.Pick<uint16_t>({0x40, 0x43, 0x44});
  }
  return s;
}

v::TPMT_SIG_SCHEME RandomAsymScheme(Rng& rng, bool ecc) {
  v::TPMT_SIG_SCHEME s{};
  s.scheme = ecc ? rng.Pick<uint16_t>({v::kTpmAlgNull, v::kTpmAlgEcdsa, v::kTpmAlgEcdh, v::kTpmAlgEcdaa,
                                       v::kTpmAlgSm2, v::kTpmAlgEcschnorr, v::kTpmAlgEcmqv})
                 : rng.Pick<uint16_t>({v::kTpmAlgNull, v::kTpmAlgRsaes, v::kTpmAlgRsassa, v::kTpmAlgRsapss,
                                       v::kTpmAlgOaep});
  if (s.scheme != v::kTpmAlgNull && s.scheme != v::kTpmAlgRsaes) {
    s.hashAlg = RandomHash(rng);
  }
  if (s.scheme == v::kTpmAlgEcdaa) {
    s.count = rng.U16();
  }
  return s;
}

v::TPM2B_PUBLIC RandomPublic(Rng& rng) {
  v::TPM2B_PUBLIC p{};
  v::TPMT_PUBLIC& a = p.publicArea;
  a.type = rng.Pick<uint16_t>({v::kTpmAlgRsa, v::kTpmAlgKeyedHash, v::kTpmAlgEcc, v::kTpmAlgSymCipher});
  a.nameAlg = RandomHash(rng);
  a.objectAttributes = rng.U32();
  rng.Fill(&a.authPolicy, 64);
  switch (a.type) {
    case v::kTpmAlgRsa:
      a.parameters.symmetric = RandomSymDef(rng);
      a.parameters.scheme = RandomAsymScheme(rng, false);
      a.parameters.keyBits = rng.Pick<uint16_t>({1024, 2048, 4096});
      a.parameters.exponent = rng.Pick<uint32_t>({0, 3, 65537});
      rng.Fill(&a.unique.rsa, 512);
      break;
    case v::kTpmAlgKeyedHash:
      a.parameters.scheme.scheme = rng.Pick<uint16_t>({v::kTpmAlgNull, v::kTpmAlgHmac, v::kTpmAlgXor});
      if (a.parameters.scheme.scheme != v::kTpmAlgNull) a.parameters.scheme.hashAlg = RandomHash(rng);
      if (a.parameters.scheme.scheme == v::kTpmAlgXor) {
        a.parameters.scheme.count = rng.Pick<uint16_t>({v::kTpmAlgKdf1Sp800_108, v::kTpmAlgMgf1});
      }
      rng.Fill(&a.unique.sym, 64);
      break;
    case v::kTpmAlgSymCipher:
      a.parameters.symmetric = RandomSymDef(rng);
      rng.Fill(&a.unique.sym, 64);
      break;
    case v::kTpmAlgEcc:
      a.parameters.symmetric = RandomSymDef(rng);
      a.parameters.scheme = RandomAsymScheme(rng, true);
      a.parameters.curveID = rng.Pick<uint16_t>({3, 4, 0x10});
      // KDF2 is left out: the other library does not decode it (it stops
      // after the size and reports success), so it is checked on its own below.
      a.parameters.kdf.scheme = rng.Pick<uint16_t>(
          {v::kTpmAlgNull, v::kTpmAlgMgf1, v::kTpmAlgKdf1Sp800_56a, v::kTpmAlgKdf1Sp800_108});
      if (a.parameters.kdf.scheme != v::kTpmAlgNull) a.parameters.kdf.hashAlg = RandomHash(rng);
      rng.Fill(&a.unique.ecc.x, 128);
      rng.Fill(&a.unique.ecc.y, 128);
      break;
  }
  return p;
}

v::TPMT_SIGNATURE RandomSignature(Rng& rng) {
  v::TPMT_SIGNATURE s{};
  s.sigAlg = rng.Pick<uint16_t>({v::kTpmAlgNull, v::kTpmAlgHmac, v::kTpmAlgRsassa, v::kTpmAlgRsapss,
                                 v::kTpmAlgEcdsa, v::kTpmAlgEcdaa, v::kTpmAlgSm2, v::kTpmAlgEcschnorr});
  switch (s.sigAlg) {
    case v::kTpmAlgNull:
      break;
    case v::kTpmAlgHmac:
      s.signature.hmac.hashAlg = RandomHash(rng);
      for (auto& b : s.signature.hmac.digest) b = static_cast<uint8_t>(rng.U32());
      break;
    case v::kTpmAlgRsassa:
    case v::kTpmAlgRsapss:
      s.signature.rsassa.hash = RandomHash(rng);
      rng.Fill(&s.signature.rsassa.sig, 512);
      break;
    default:
      s.signature.ecdsa.hash = RandomHash(rng);
      rng.Fill(&s.signature.ecdsa.signatureR, 128);
      rng.Fill(&s.signature.ecdsa.signatureS, 128);
      break;
  }
  return s;
}

v::TPML_PCR_SELECTION RandomSelection(Rng& rng) {
  v::TPML_PCR_SELECTION l{};
  l.count = rng.Below(17);
  for (uint32_t i = 0; i < l.count; ++i) {
    l.pcrSelections[i].hash = RandomHash(rng);
    l.pcrSelections[i].sizeofSelect = static_cast<uint8_t>(rng.Below(5));
    for (int j = 0; j < l.pcrSelections[i].sizeofSelect; ++j) {
      l.pcrSelections[i].pcrSelect[j] = static_cast<uint8_t>(rng.U32());
    }
  }
  return l;
}

// Marshals |in| with ours, has the other library read and rewrite it (both
// must consume everything and agree byte for byte), then reads the other
// library's bytes with ours and rewrites them again.
template <typename Ours, typename Theirs, typename OurMarshal, typename OurUnmarshal, typename TheirMarshal,
          typename TheirUnmarshal>
void CrossCheck(const Ours& in, OurMarshal our_marshal, OurUnmarshal our_unmarshal, TheirMarshal their_marshal,
                TheirUnmarshal their_unmarshal) {
  Bytes ours(8192), theirs(8192), again(8192);
  uint32_t len = our_marshal(&in, ours.data(), static_cast<uint32_t>(ours.size()));
  ASSERT_NE(0u, len);
  ours.resize(len);

  Theirs t{};
  size_t offset = 0;
  ASSERT_EQ(TSS2_RC_SUCCESS, their_unmarshal(ours.data(), ours.size(), &offset, &t));
  ASSERT_EQ(len, offset);
  offset = 0;
  ASSERT_EQ(TSS2_RC_SUCCESS, their_marshal(&t, theirs.data(), theirs.size(), &offset));
  theirs.resize(offset);
  ASSERT_EQ(ours, theirs);

  Ours back{};
  ASSERT_EQ(theirs.size(), our_unmarshal(theirs.data(), static_cast<uint32_t>(theirs.size()), &back));
  uint32_t again_len = our_marshal(&back, again.data(), static_cast<uint32_t>(again.size()));
  again.resize(again_len);
  EXPECT_EQ(theirs, again);
}

TEST(Tpm2Marshal, AgreesWithTssMuOnRandomStructures) {
  Rng rng(20261122);
  for (int i = 0; i < 300; ++i) {
    SCOPED_TRACE(i);
    v::TPM2B_PUBLIC pub = RandomPublic(rng);
    CrossCheck<v::TPM2B_PUBLIC, ::TPM2B_PUBLIC>(pub, v::Tpm2_Marshal_TPM2B_PUBLIC, v::Tpm2_Unmarshal_TPM2B_PUBLIC,
                                                Tss2_MU_TPM2B_PUBLIC_Marshal, Tss2_MU_TPM2B_PUBLIC_Unmarshal);
    v::TPMT_SIGNATURE sig = RandomSignature(rng);
    CrossCheck<v::TPMT_SIGNATURE, ::TPMT_SIGNATURE>(sig, v::Tpm2_Marshal_TPMT_SIGNATURE,
                                                    v::Tpm2_Unmarshal_TPMT_SIGNATURE, Tss2_MU_TPMT_SIGNATURE_Marshal,
                                                    Tss2_MU_TPMT_SIGNATURE_Unmarshal);
    v::TPML_PCR_SELECTION sel = RandomSelection(rng);
    CrossCheck<v::TPML_PCR_SELECTION, ::TPML_PCR_SELECTION>(
        sel, v::Tpm2_Marshal_TPML_PCR_SELECTION, v::Tpm2_Unmarshal_TPML_PCR_SELECTION,
        Tss2_MU_TPML_PCR_SELECTION_Marshal, Tss2_MU_TPML_PCR_SELECTION_Unmarshal);
    v::TPML_DIGEST digests{};
    digests.count = rng.Below(9);
    for (uint32_t d = 0; d < digests.count; ++d) rng.Fill(&digests.digests[d], 64);
    CrossCheck<v::TPML_DIGEST, ::TPML_DIGEST>(digests, v::Tpm2_Marshal_TPML_DIGEST, v::Tpm2_Unmarshal_TPML_DIGEST,
                                              Tss2_MU_TPML_DIGEST_Marshal, Tss2_MU_TPML_DIGEST_Unmarshal);
    v::TPMT_SIG_SCHEME scheme{};
    scheme.scheme = rng.Pick<uint16_t>({v::kTpmAlgNull, v::kTpmAlgHmac, v::kTpmAlgRsassa, v::kTpmAlgRsapss,
                                        v::kTpmAlgEcdsa, v::kTpmAlgEcdaa, v::kTpmAlgSm2, v::kTpmAlgEcschnorr});
    if (scheme.scheme != v::kTpmAlgNull) scheme.hashAlg = RandomHash(rng);
    if (scheme.scheme == v::kTpmAlgEcdaa) scheme.count = rng.U16();
    CrossCheck<v::TPMT_SIG_SCHEME, ::TPMT_SIG_SCHEME>(scheme, v::Tpm2_Marshal_TPMT_SIG_SCHEME,
                                                      v::Tpm2_Unmarshal_TPMT_SIG_SCHEME,
                                                      Tss2_MU_TPMT_SIG_SCHEME_Marshal,
                                                      Tss2_MU_TPMT_SIG_SCHEME_Unmarshal);
    v::TPM2B_DATA data{};
    rng.Fill(&data, 64);
    CrossCheck<v::TPM2B_DATA, ::TPM2B_DATA>(data, v::Tpm2_Marshal_TPM2B_DATA, v::Tpm2_Unmarshal_TPM2B_DATA,
                                            Tss2_MU_TPM2B_DATA_Marshal, Tss2_MU_TPM2B_DATA_Unmarshal);
  }
}

TEST(Tpm2Marshal, EccKdf2RoundTrips) {
  Rng rng(3);
  v::TPM2B_PUBLIC pub;
  do {
    pub = RandomPublic(rng);
  } while (pub.publicArea.type != v::kTpmAlgEcc);
  pub.publicArea.parameters.kdf = {v::kTpmAlgKdf2, v::kTpmAlgSha256};
  Bytes wire(1024);
  uint32_t len = v::Tpm2_Marshal_TPM2B_PUBLIC(&pub, wire.data(), 1024);
  ASSERT_NE(0u, len);
  wire.resize(len);
  v::TPM2B_PUBLIC back;
  ASSERT_EQ(len, Unmarshal(v::Tpm2_Unmarshal_TPM2B_PUBLIC, wire, &back));
  EXPECT_EQ(v::kTpmAlgSha256, back.publicArea.parameters.kdf.hashAlg);
}

TEST(Tpm2Unmarshal, AttestAgreesWithTssMu) {
  // No attestation marshaller here: the other library writes random quotes
  // and the decoded fields are compared.
  Rng rng(7);
  for (int i = 0; i < 200; ++i) {
    SCOPED_TRACE(i);
    ::TPMS_ATTEST t{};
    t.magic = rng.U32();
    t.type = TPM2_ST_ATTEST_QUOTE;
    t.qualifiedSigner.size = static_cast<uint16_t>(rng.Below(69));
    for (uint16_t b = 0; b < t.qualifiedSigner.size; ++b) t.qualifiedSigner.name[b] = static_cast<uint8_t>(rng.U32());
    rng.Fill(&t.extraData, 64);
    t.clockInfo.clock = (uint64_t{rng.U32()} << 32) | rng.U32();
    t.clockInfo.resetCount = rng.U32();
    t.clockInfo.restartCount = rng.U32();
    t.clockInfo.safe = static_cast<uint8_t>(rng.Below(2));
    t.firmwareVersion = (uint64_t{rng.U32()} << 32) | rng.U32();
    v::TPML_PCR_SELECTION sel = RandomSelection(rng);
    t.attested.quote.pcrSelect.count = sel.count;
    for (uint32_t s = 0; s < sel.count; ++s) {
      t.attested.quote.pcrSelect.pcrSelections[s].hash = sel.pcrSelections[s].hash;
      t.attested.quote.pcrSelect.pcrSelections[s].sizeofSelect = sel.pcrSelections[s].sizeofSelect;
      std::memcpy(t.attested.quote.pcrSelect.pcrSelections[s].pcrSelect, sel.pcrSelections[s].pcrSelect, 4);
    }
    rng.Fill(&t.attested.quote.pcrDigest, 64);
    Bytes wire(4096);
    size_t offset = 0;
    ASSERT_EQ(TSS2_RC_SUCCESS, Tss2_MU_TPMS_ATTEST_Marshal(&t, wire.data(), wire.size(), &offset));
    wire.resize(offset);
    v::TPMS_ATTEST ours;
    ASSERT_EQ(offset, Unmarshal(v::Tpm2_Unmarshal_TPMS_ATTEST, wire, &ours));
    EXPECT_EQ(t.magic, ours.magic);
    EXPECT_EQ(t.clockInfo.clock, ours.clockInfo.clock);
    EXPECT_EQ(t.clockInfo.restartCount, ours.clockInfo.restartCount);
    EXPECT_EQ(t.firmwareVersion, ours.firmwareVersion);
    EXPECT_EQ(0, std::memcmp(t.qualifiedSigner.name, ours.qualifiedSigner.buffer, t.qualifiedSigner.size));
    EXPECT_EQ(0, std::memcmp(t.extraData.buffer, ours.extraData.buffer, t.extraData.size));
    ASSERT_EQ(t.attested.quote.pcrSelect.count, ours.pcrSelect.count);
    Bytes sel_wire(512);
    uint32_t sel_len = v::Tpm2_Marshal_TPML_PCR_SELECTION(&ours.pcrSelect, sel_wire.data(), 512);
    EXPECT_EQ(0, std::memcmp(sel_wire.data(), wire.data() + offset - sel_len - 2 - ours.pcrDigest.size, sel_len));
    ASSERT_EQ(t.attested.quote.pcrDigest.size, ours.pcrDigest.size);
    EXPECT_EQ(0, std::memcmp(t.attested.quote.pcrDigest.buffer, ours.pcrDigest.buffer, ours.pcrDigest.size));
  }
}

}  // namespace
