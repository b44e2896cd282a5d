// Verification library throughput against bare OpenSSL, side by side in one
// run, with the ratios printed at the end:
//   VerifyQuote on a valid RSA-2048/SHA-256 quote vs one bare PKCS#1 v1.5
//   verify with a ready key (goal: at least 0.9 of the bare rate), and vs
//   one that first makes the key from the modulus, as VerifyQuote must;
//   ValidateEventLog on a 300-event log vs 300 bare SHA-256 of 64 bytes
//   (goal: at least 0.8 of the bare rate);
//   ParseTcgEventLog throughput in MB/s on a real 33 KB log.
#include <benchmark/benchmark.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench/RatioReporter.h"
#include "platform/Hex.h"
#include "platform/Log.h"
#include "platform/tcg/SecurityInfo.h"
#include "tests/verify/VerifyTestUtil.h"
#include "verify/EventLog.h"

namespace v = Witnessd::Verify;
using Witnessd::VerifyTest::Bytes;
using Witnessd::VerifyTest::QuoteBuilder;

namespace {

QuoteBuilder& Quote() {
  static QuoteBuilder* b = [] {
    auto* q = new QuoteBuilder();
    q->Build();
    return q;
  }();
  return *b;
}

void BM_VerifyQuote(benchmark::State& state) {
  QuoteBuilder& q = Quote();
  for (auto _ : state) {
    if (v::VerifyQuote(q.evidence.get(), q.Ak(), q.Nonce(), nullptr) != v::kVerifyOk) {
      state.SkipWithError("quote did not verify");
      break;
    }
  }
}
BENCHMARK(BM_VerifyQuote);

// The same signature over the same attestation, verified by OpenSSL alone
// with a key built once.
void BM_BareRsa2048Verify(benchmark::State& state) {
  QuoteBuilder& q = Quote();
  v::TPM2B_PUBLIC ak;
  v::Tpm2_Unmarshal_TPM2B_PUBLIC(q.ak_public.data(), static_cast<uint32_t>(q.ak_public.size()), &ak);
  v::TPMT_SIGNATURE sig;
  v::Tpm2_Unmarshal_TPMT_SIGNATURE(q.signature.data(), static_cast<uint32_t>(q.signature.size()), &sig);
  uint8_t digest[32];
  unsigned int digest_len;
  EVP_Digest(q.quote.data() + 2, q.quote.size() - 2, digest, &digest_len, EVP_sha256(), nullptr);
  BIGNUM* n = BN_bin2bn(ak.publicArea.unique.rsa.buffer, ak.publicArea.unique.rsa.size, nullptr);
  BIGNUM* e = BN_new();
  BN_set_word(e, 65537);
  OSSL_PARAM_BLD* bld = OSSL_PARAM_BLD_new();
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, n);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, e);
  OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(bld);
  EVP_PKEY_CTX* from = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
  EVP_PKEY* key = nullptr;
  EVP_PKEY_fromdata_init(from);
  EVP_PKEY_fromdata(from, &key, EVP_PKEY_PUBLIC_KEY, params);
  for (auto _ : state) {
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    if (EVP_PKEY_verify_init(ctx) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256()) != 1 ||
        EVP_PKEY_verify(ctx, sig.signature.rsassa.sig.buffer, sig.signature.rsassa.sig.size, digest, 32) != 1) {
      state.SkipWithError("bare verify failed");
    }
    EVP_PKEY_CTX_free(ctx);
  }
  EVP_PKEY_free(key);
  EVP_PKEY_CTX_free(from);
  OSSL_PARAM_free(params);
  OSSL_PARAM_BLD_free(bld);
  BN_free(n);
  BN_free(e);
}
BENCHMARK(BM_BareRsa2048Verify);

// The same, but the key is made from the modulus on every verify, as every
// quote comes with an attestation key seen for the first time.
void BM_BareRsa2048VerifyFromModulus(benchmark::State& state) {
  QuoteBuilder& q = Quote();
  v::TPM2B_PUBLIC ak;
  v::Tpm2_Unmarshal_TPM2B_PUBLIC(q.ak_public.data(), static_cast<uint32_t>(q.ak_public.size()), &ak);
  v::TPMT_SIGNATURE sig;
  v::Tpm2_Unmarshal_TPMT_SIGNATURE(q.signature.data(), static_cast<uint32_t>(q.signature.size()), &sig);
  uint8_t digest[32];
  unsigned int digest_len;
  EVP_Digest(q.quote.data() + 2, q.quote.size() - 2, digest, &digest_len, EVP_sha256(), nullptr);
  static const uint8_t kE[] = {1, 0, 1};
  for (auto _ : state) {
    OSSL_PARAM_BLD* bld = OSSL_PARAM_BLD_new();
    BIGNUM* n = BN_bin2bn(ak.publicArea.unique.rsa.buffer, ak.publicArea.unique.rsa.size, nullptr);
    BIGNUM* e = BN_bin2bn(kE, 3, nullptr);
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, n);
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, e);
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(bld);
    EVP_PKEY_CTX* from = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(from);
    EVP_PKEY_fromdata(from, &key, EVP_PKEY_PUBLIC_KEY, params);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    if (EVP_PKEY_verify_init(ctx) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256()) != 1 ||
        EVP_PKEY_verify(ctx, sig.signature.rsassa.sig.buffer, sig.signature.rsassa.sig.size, digest, 32) != 1) {
      state.SkipWithError("bare verify failed");
    }
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(key);
    EVP_PKEY_CTX_free(from);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    BN_free(n);
    BN_free(e);
  }
}
BENCHMARK(BM_BareRsa2048VerifyFromModulus);

constexpr int kEvents = 300;

// A 300-event hypervisor log: the required events, secure boot, and the
// rest trusted payloads in PCRs 11 and 12 (each looked up and compared).
struct HvLog {
  static uint32_t Pcr(int i) { return i == 0 ? 10 : i < 4 ? 12 : (i == 4 || i % 3 == 0) ? 11 : 12; }

  std::vector<Bytes> data, sha256;
  std::vector<std::vector<v::TcgDigest>> digests;
  std::vector<v::TcgEventRecord> records, work;
  v::PayloadChecksumTable checksums;
  v::QuoteEvidence evidence{};

  HvLog() {
    uint8_t replay[24][32] = {};
    std::memset(replay[17], 0xff, 6 * 32);
    for (int i = 0; i < kEvents; ++i) {
      std::string name = i == 0 ? "uefiSecureBootEnabled = TRUE"
                         : i == 1 ? "k.b00" : i == 2 ? "s.v00" : i == 3 ? "sb.v00" : i == 4 ? "hyvupdt.v00"
                                                                                             : "payload" + std::to_string(i) + ".v00";
      uint32_t pcr = Pcr(i);
      uint32_t id = i == 0 ? 5 : 1;
      Bytes d;
      for (uint32_t x : {id, static_cast<uint32_t>(name.size() + 1)}) {
        for (int k = 0; k < 4; ++k) d.push_back(static_cast<uint8_t>(x >> (8 * k)));
      }
      d.insert(d.end(), name.begin(), name.end());
      d.push_back(0);
      data.push_back(d);
      Bytes h(32);
      unsigned int len;
      EVP_Digest(name.data(), name.size(), h.data(), &len, EVP_sha256(), nullptr);
      sha256.push_back(h);
      if (pcr != 10) checksums[name] = Hearth::HexString(h.data(), 32);
      uint8_t input[64];
      std::memcpy(input, replay[pcr], 32);
      std::memcpy(input + 32, h.data(), 32);
      EVP_Digest(input, 64, replay[pcr], &len, EVP_sha256(), nullptr);
    }
    for (int i = 0; i < kEvents; ++i) {
      digests.push_back({{v::kTpmAlgSha256, sha256[i].data(), 32}});
    }
    for (int i = 0; i < kEvents; ++i) {
      uint32_t pcr = Pcr(i);
      records.push_back({pcr, v::kEvEventTag, 1, digests[i].data(), data[i].data(),
                         static_cast<uint16_t>(data[i].size())});
    }
    for (int pcr = 0; pcr < 24; ++pcr) std::memcpy(evidence.pcrs[1][pcr], replay[pcr], 32);
  }
};

void BM_ValidateEventLog300(benchmark::State& state) {
  static HvLog log;
  v::HostClaims claims{0};
  for (auto _ : state) {
    if (v::ValidateEventLog(log.records.data(), kEvents, &claims, "00", &log.checksums, &log.evidence) !=
        v::kVerifyOk) {
      state.SkipWithError("log did not validate");
      break;
    }
  }
}
BENCHMARK(BM_ValidateEventLog300);

void BM_BareSha256_300x64(benchmark::State& state) {
  uint8_t input[kEvents][64];
  for (int i = 0; i < kEvents; ++i) std::memset(input[i], i, 64);
  uint8_t out[32];
  unsigned int len;
  // Fetched once, the fastest way to call it.
  EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  for (auto _ : state) {
    for (int i = 0; i < kEvents; ++i) {
      EVP_Digest(input[i], 64, out, &len, sha256, nullptr);
      benchmark::DoNotOptimize(out);
    }
  }
  EVP_MD_free(sha256);
}
BENCHMARK(BM_BareSha256_300x64);

void BM_ParseTcgEventLog(benchmark::State& state) {
  Bytes log = Witnessd::VerifyTest::ReadFile(WITNESSD_TEST_DATA "/verify/eventlog/event-gce-ubuntu-2104-log.bin");
  std::vector<HvkCtl::Security::SecurityInfoImpl::Entry> entries;
  for (auto _ : state) {
    HvkCtl::Security::SecurityInfoImpl::ParseTcgEventLog(log.data(), log.size(), &entries);
    benchmark::DoNotOptimize(entries.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(log.size()));
}
BENCHMARK(BM_ParseTcgEventLog);

}  // namespace

int main(int argc, char** argv) {
  Log_SetMaxLevel(kLogError);
  benchmark::Initialize(&argc, argv);
  Witnessd::Bench::RatioReporter reporter(Witnessd::Bench::RatioReporter::Clock::kCpu);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto ratio = [&](const char* a, const char* b) { return reporter.RateRatio(a, b); };
  std::printf("VerifyQuote rate / bare RSA-2048 verify rate (key made once):     %.3f (goal >= 0.9)\n",
              ratio("BM_VerifyQuote", "BM_BareRsa2048Verify"));
  std::printf("VerifyQuote rate / bare RSA-2048 verify rate (key from modulus): %.3f\n",
              ratio("BM_VerifyQuote", "BM_BareRsa2048VerifyFromModulus"));
  std::printf("ValidateEventLog(300) rate / bare 300 x SHA-256 rate:             %.3f (goal >= 0.8)\n",
              ratio("BM_ValidateEventLog300", "BM_BareSha256_300x64"));
  benchmark::Shutdown();
  return 0;
}
