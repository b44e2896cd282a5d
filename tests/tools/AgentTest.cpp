// The agent's hosts and boot log against independent tools: credentials made
// by tpm2-tools open on both hosts, the swtpm's EK certificate chains to its
// CA, and tpm2-tools replays the log to what the TPM holds. The whole
// conversation against the daemon's checks runs in tests/api/services.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/DaemonProcess.h"
#include "tests/support/SwtpmProcess.h"
#include "tools/Agent.h"
#include "tools/BootLog.h"
#include "tools/HostTpm.h"
#include "tools/TpmBytes.h"
#include "tpm2/CredentialProtection.h"
#include "verify/QuoteVerify.h"

namespace Witnessd::Agent {
namespace {

namespace V = Witnessd::Verify;

// One swtpm for the whole test program, started on first use and stopped
// after the last test; every case boots it afresh.
Testing::SwtpmProcess* g_swtpm = nullptr;
bool g_swtpm_tried = false;

class SwtpmEnvironment : public testing::Environment {
 public:
  void TearDown() override {
    delete g_swtpm;
    g_swtpm = nullptr;
  }
};
testing::Environment* const g_environment = testing::AddGlobalTestEnvironment(new SwtpmEnvironment);

Testing::SwtpmProcess* SharedSwtpm() {
  if (!g_swtpm_tried) {
    g_swtpm_tried = true;
    g_swtpm = new Testing::SwtpmProcess();
    if (!g_swtpm->Setup() || !g_swtpm->Start()) {
      ADD_FAILURE() << g_swtpm->SetupLog();
      delete g_swtpm;
      g_swtpm = nullptr;
    }
  }
  return g_swtpm;
}

enum class HostKind { kSoftware, kSwtpm };

std::unique_ptr<HostTpm> MakeHost(HostKind kind) {
  if (kind == HostKind::kSoftware) {
    return MakeSoftwareHost();
  }
  Testing::SwtpmProcess* swtpm = SharedSwtpm();
  if (swtpm == nullptr) {
    return nullptr;
  }
  std::string error;
  auto host = OpenSwtpmHost(swtpm->Port(), &error);
  EXPECT_NE(nullptr, host) << error;
  return host;
}

// What a session gathers from one quote turn, checked as the session does.
struct QuoteTurn {
  Bytes nonce;
  Bytes quoted;
  Bytes signature;
  std::vector<PcrReadResult> reads;
  V::QuoteEvidence evidence = {};
};

// FillEvidence places the read PCR values by PCR number, walking each
// selection's bitmap in bit order.
void FillEvidence(QuoteTurn* q) {
  for (const PcrReadResult& r : q->reads) {
    V::TPML_PCR_SELECTION sel = {};
    V::TPML_DIGEST values = {};
    ASSERT_NE(0u, V::Tpm2_Unmarshal_TPML_PCR_SELECTION(r.selection_out.data(),
                                                       static_cast<uint32_t>(r.selection_out.size()), &sel));
    ASSERT_NE(0u, V::Tpm2_Unmarshal_TPML_DIGEST(r.values.data(), static_cast<uint32_t>(r.values.size()), &values));
    ASSERT_EQ(1u, sel.count);
    uint32_t bank = V::PcrBankIndex(sel.pcrSelections[0].hash);
    ASSERT_LT(bank, V::kNumPcrBanks);
    uint32_t next = 0;
    for (uint32_t pcr = 0; pcr < 8u * sel.pcrSelections[0].sizeofSelect; ++pcr) {
      if ((sel.pcrSelections[0].pcrSelect[pcr / 8] & (1u << (pcr % 8))) != 0 && next < values.count) {
        std::memcpy(q->evidence.pcrs[bank][pcr], values.digests[next].buffer, values.digests[next].size);
        ++next;
      }
    }
    EXPECT_EQ(values.count, next);
  }
  q->evidence.quote = {q->quoted.size(), q->quoted.data()};
  q->evidence.signature = {q->signature.size(), q->signature.data()};
}

// tpm2-tools as an independent maker: a credential from
// `tpm2_makecredential --tcti=none` must open on both kinds of host, and has
// the layout MakeCredential produces.
TEST(HostActivation, OpensCredentialsMadeByTpm2Tools) {
  if (system("tpm2_makecredential --version > /dev/null 2>&1") != 0) {
    GTEST_SKIP() << "tpm2_makecredential not installed";
  }
  std::string dir = Testing::MakeTempDir("witnessd-makecredential");
  for (HostKind kind : {HostKind::kSoftware, HostKind::kSwtpm}) {
    SCOPED_TRACE(kind == HostKind::kSoftware ? "software" : "swtpm");
    std::unique_ptr<HostTpm> host = MakeHost(kind);
    ASSERT_NE(nullptr, host);
    ASSERT_TRUE(host->Boot());
    Bytes ek;
    Bytes ak;
    ASSERT_TRUE(host->EkPublic(&ek)) << host->LastError();
    ASSERT_TRUE(host->CreateAk(Tpm2::AkTemplate(), Tpm2::OutsideInfo(), &ak)) << host->LastError();
    Bytes secret = Sha256(std::string("made by tpm2-tools"));
    {
      std::ofstream(dir + "/ek.pub", std::ios::binary).write(reinterpret_cast<const char*>(ek.data()), ek.size());
      std::ofstream(dir + "/secret.bin", std::ios::binary)
          .write(reinterpret_cast<const char*>(secret.data()), secret.size());
    }
    std::string name = "000b" + Hex(Sha256(Bytes(ak.begin() + 2, ak.end())));
    std::string cmd = "tpm2_makecredential --tcti=none -u " + dir + "/ek.pub -s " + dir + "/secret.bin -n " + name +
                      " -o " + dir + "/cred.out > /dev/null 2>&1";
    ASSERT_EQ(0, system(cmd.c_str()));
    std::ifstream in(dir + "/cred.out", std::ios::binary);
    Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The tool's file: magic 0xBADCC0DE, version 1, TPM2B_ID_OBJECT,
    // TPM2B_ENCRYPTED_SECRET.
    constexpr size_t kHeader = 8;
    constexpr size_t kBlob = 2 + 2 + 32 + 34;
    ASSERT_EQ(kHeader + kBlob + 2 + 256, file.size());
    Bytes blob(file.begin() + kHeader, file.begin() + kHeader + kBlob);
    Bytes encrypted(file.begin() + kHeader + kBlob, file.end());
    Bytes ours_blob;
    Bytes ours_encrypted;
    ASSERT_TRUE(Tpm2::MakeCredential(ek, ak, secret, &ours_blob, &ours_encrypted));
    EXPECT_EQ(blob.size(), ours_blob.size());
    EXPECT_EQ(encrypted.size(), ours_encrypted.size());
    Bytes cert_info;
    ASSERT_TRUE(host->ActivateCredential(blob, encrypted, &cert_info)) << host->LastError();
    EXPECT_EQ(Bytes(cert_info.begin() + 2, cert_info.end()), secret);
  }
  std::filesystem::remove_all(dir);
}

TEST(SwtpmHost, EkCertificateHoldsTheEkAndChainsToTheLocalCa) {
  std::unique_ptr<HostTpm> host = MakeHost(HostKind::kSwtpm);
  ASSERT_NE(nullptr, host);
  ASSERT_TRUE(host->Boot());
  Bytes ek;
  std::string ek_pem;
  std::string cert_pem;
  ASSERT_TRUE(host->EkPublic(&ek)) << host->LastError();
  ASSERT_TRUE(EkPublicPem(ek, &ek_pem));
  ASSERT_TRUE(host->EkCertificatePem(&cert_pem)) << host->LastError();

  auto read_cert = [](const std::string& pem) {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                                  BIO_free);
    return std::unique_ptr<X509, decltype(&X509_free)>(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr),
                                                       X509_free);
  };
  auto cert = read_cert(cert_pem);
  ASSERT_NE(nullptr, cert);
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(ek_pem.data(), static_cast<int>(ek_pem.size())),
                                                BIO_free);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr),
                                                          EVP_PKEY_free);
  ASSERT_NE(nullptr, key);
  EXPECT_EQ(1, EVP_PKEY_eq(key.get(), X509_get0_pubkey(cert.get())));

  auto root = read_cert(SharedSwtpm()->RootCaPem());
  auto issuer = read_cert(SharedSwtpm()->IssuerCaPem());
  ASSERT_NE(nullptr, root);
  ASSERT_NE(nullptr, issuer);
  std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), X509_STORE_free);
  X509_STORE_add_cert(store.get(), root.get());
  std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> chain(sk_X509_new_null(),
                                                                   [](STACK_OF(X509)* s) { sk_X509_free(s); });
  sk_X509_push(chain.get(), issuer.get());
  std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> ctx(X509_STORE_CTX_new(), X509_STORE_CTX_free);
  ASSERT_EQ(1, X509_STORE_CTX_init(ctx.get(), store.get(), cert.get(), chain.get()));
  // EK certificates carry TPM-specific critical extensions; only the chain
  // of signatures matters here.
  X509_STORE_CTX_set_flags(ctx.get(), X509_V_FLAG_PARTIAL_CHAIN);
  X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(ctx.get()), X509_V_FLAG_IGNORE_CRITICAL);
  EXPECT_EQ(1, X509_verify_cert(ctx.get())) << X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get()));
}

// tpm2-tools as an independent reader: `tpm2_eventlog` must parse the log and
// replay every PCR it names to the value the swtpm holds after MeasureBoot.
TEST(BootLog, Tpm2ToolsReplayMatchesTheTpm) {
  if (system("tpm2_eventlog --version > /dev/null 2>&1") != 0) {
    GTEST_SKIP() << "tpm2_eventlog not installed";
  }
  std::string dir = Testing::MakeTempDir("witnessd-eventlog");
  for (bool txt : {false, true}) {
    SCOPED_TRACE(txt);
    std::unique_ptr<HostTpm> host = MakeHost(HostKind::kSwtpm);
    ASSERT_NE(nullptr, host);
    BootPlan plan;
    plan.txt = txt;
    std::vector<BootEvent> events = HypervisorBootEvents(plan);
    ASSERT_TRUE(MeasureBoot(host.get(), plan, events)) << host->LastError();
    Bytes log = WriteEventLog(events);
    std::ofstream(dir + "/log.bin", std::ios::binary).write(reinterpret_cast<const char*>(log.data()), log.size());
    std::string cmd = "tpm2_eventlog " + dir + "/log.bin > " + dir + "/out.yaml 2>&1";
    ASSERT_EQ(0, system(cmd.c_str()));

    // Every PCR, read as the TPM holds it.
    const Bytes all_pcrs = {0, 0, 0, 1, 0x00, 0x0B, 3, 0xFF, 0xFF, 0xFF};
    std::vector<PcrReadResult> reads;
    ASSERT_TRUE(host->ReadPcrs(all_pcrs, &reads)) << host->LastError();
    QuoteTurn q;
    q.reads = reads;
    FillEvidence(&q);
    uint32_t bank = V::PcrBankIndex(0x000B);

    std::ifstream out(dir + "/out.yaml");
    std::string line;
    bool in_pcrs = false;
    int compared = 0;
    while (std::getline(out, line)) {
      if (line == "pcrs:") {
        in_pcrs = true;
        continue;
      }
      unsigned pcr = 0;
      char hex[65] = {};
      if (in_pcrs && sscanf(line.c_str(), " %u : 0x%64s", &pcr, hex) == 2 && pcr < V::kNumPcrs) {
        std::string want = Hex(Bytes(q.evidence.pcrs[bank][pcr], q.evidence.pcrs[bank][pcr] + 32));
        std::string got(hex);
        std::transform(got.begin(), got.end(), got.begin(), [](unsigned char c) { return std::tolower(c); });
        EXPECT_EQ(want, got) << "PCR " << pcr;
        ++compared;
      }
    }
    // PCRs 0-7, 10, 11, the core PCR, and PCR 17 with a launch.
    EXPECT_EQ(txt ? 12 : 11, compared);
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace Witnessd::Agent
