#include "tpm2/CredentialProtection.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/SwtpmProcess.h"
#include "tools/HostTpm.h"

namespace Witnessd::Tpm2 {
namespace {

using Bytes = std::vector<uint8_t>;
using Testing::Capture;
using Verify::TPM2B_PUBLIC;
using Verify::TPMT_PUBLIC;

// An AK public area as a TPM makes it from the template: the template plus a
// 256-byte modulus.
TPMT_PUBLIC AkFromTemplate() {
  Bytes tmpl = AkTemplate();
  TPM2B_PUBLIC pub = {};
  EXPECT_NE(0u, Verify::Tpm2_Unmarshal_TPM2B_PUBLIC(tmpl.data(), static_cast<uint32_t>(tmpl.size()), &pub));
  pub.publicArea.unique.rsa.size = 256;
  std::fill_n(pub.publicArea.unique.rsa.buffer, 256, 0xA5);
  return pub.publicArea;
}

TEST(VerifyAkPublic, ChecksEachFieldWithItsOwnMessage) {
  const struct {
    const char* name;
    std::function<void(TPMT_PUBLIC*)> mutate;
    const char* message;  // nullptr: accepted
  } kCases[] = {
      {"as made from the template", [](TPMT_PUBLIC*) {}, nullptr},
      {"ECC type", [](TPMT_PUBLIC* p) { p->type = Verify::kTpmAlgEcc; }, "AK public key basic type does not match"},
      {"SHA-1 name", [](TPMT_PUBLIC* p) { p->nameAlg = Verify::kTpmAlgSha1; }, "AK public key nameAlg does not match"},
      {"decrypt bit added", [](TPMT_PUBLIC* p) { p->objectAttributes |= 0x00020000; },
       "AK public key object attributes value does not match"},
      {"AES symmetric", [](TPMT_PUBLIC* p) { p->parameters.symmetric.algorithm = Verify::kTpmAlgAes; },
       "AK public key RSA details do not match"},
      {"RSAPSS scheme", [](TPMT_PUBLIC* p) { p->parameters.scheme.scheme = Verify::kTpmAlgRsapss; },
       "AK public key RSA details do not match"},
      {"SHA-1 scheme hash", [](TPMT_PUBLIC* p) { p->parameters.scheme.hashAlg = Verify::kTpmAlgSha1; },
       "AK public key RSA details do not match"},
      {"3072 bits", [](TPMT_PUBLIC* p) { p->parameters.keyBits = 3072; }, "AK public key RSA details do not match"},
      {"exponent 0 (default)", [](TPMT_PUBLIC* p) { p->parameters.exponent = 0; },
       "AK public key RSA details do not match"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TPMT_PUBLIC ak = AkFromTemplate();
    c.mutate(&ak);
    bool ok = false;
    std::string log = Capture([&] { ok = VerifyAkPublic(ak); });
    EXPECT_EQ(c.message == nullptr, ok);
    if (c.message != nullptr) {
      EXPECT_NE(std::string::npos, log.find(c.message)) << log;
    }
  }
}

TEST(VerifyEkPublic, NeedsRestrictedDecryptionBoundToItsTpm) {
  const struct {
    const char* name;
    uint32_t attributes;
    bool ok;
  } kCases[] = {
      {"TCG EK template", 0x000300b2, true},
      {"bare required bits", 0x00030012, true},
      {"sign bit added", 0x000700b2, false},
      {"decrypt cleared", 0x000100b2, false},
      {"restricted cleared", 0x000200b2, false},
      {"fixedTPM cleared", 0x000300b0, false},
      {"fixedParent cleared", 0x000300a2, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TPMT_PUBLIC ek = {};
    ek.type = Verify::kTpmAlgRsa;
    ek.objectAttributes = c.attributes;
    std::string log = Capture([&] { EXPECT_EQ(c.ok, VerifyEkPublic(ek)); });
    EXPECT_EQ(!c.ok, log.find("Unsupported EK public key object attributes") != std::string::npos) << log;
  }
}

// The credential must open on a real TPM: made here, activated by swtpm with
// the EK and AK it holds.
class CredentialOnSwtpm : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    swtpm_ = new Testing::SwtpmProcess();
    if (!swtpm_->Setup() || !swtpm_->Start()) {
      setup_log_ = swtpm_->SetupLog();
      delete swtpm_;
      swtpm_ = nullptr;
    }
  }
  static void TearDownTestSuite() {
    delete swtpm_;
    swtpm_ = nullptr;
  }

  void SetUp() override {
    ASSERT_NE(nullptr, swtpm_) << setup_log_;
    std::string error;
    host_ = Agent::OpenSwtpmHost(swtpm_->Port(), &error);
    ASSERT_NE(nullptr, host_) << error;
    ASSERT_TRUE(host_->Boot()) << host_->LastError();
    ASSERT_TRUE(host_->EkPublic(&ek_)) << host_->LastError();
    ASSERT_TRUE(host_->CreateAk(AkTemplate(), OutsideInfo(), &ak_)) << host_->LastError();
  }

  static Testing::SwtpmProcess* swtpm_;
  static std::string setup_log_;
  std::unique_ptr<Agent::HostTpm> host_;
  Bytes ek_;
  Bytes ak_;
};

Testing::SwtpmProcess* CredentialOnSwtpm::swtpm_ = nullptr;
std::string CredentialOnSwtpm::setup_log_;

TEST_F(CredentialOnSwtpm, SecretsUpToTheEkDigestSizeRoundTrip) {
  // The credential may be at most as long as a digest of the EK's nameAlg
  // (SHA-256 here); a longer one is refused, not truncated.
  const struct {
    size_t size;
    bool ok;
  } kCases[] = {{1, true}, {20, true}, {32, true}, {33, false}, {64, false}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.size);
    Bytes secret(c.size, static_cast<uint8_t>(c.size));
    Bytes blob;
    Bytes encrypted;
    bool made = false;
    std::string log = Capture([&] { made = MakeCredential(ek_, ak_, secret, &blob, &encrypted); });
    ASSERT_EQ(c.ok, made);
    if (!c.ok) {
      EXPECT_NE(std::string::npos, log.find("Failed to create secret symetric key using EK handle")) << log;
      continue;
    }
    Bytes cert_info;
    ASSERT_TRUE(host_->ActivateCredential(blob, encrypted, &cert_info)) << host_->LastError();
    ASSERT_EQ(c.size + 2, cert_info.size());
    EXPECT_TRUE(std::equal(secret.begin(), secret.end(), cert_info.begin() + 2));
  }
}

TEST_F(CredentialOnSwtpm, CredentialForAnotherKeyDoesNotOpen) {
  // Made for a second AK's Name, it must fail the integrity check on the
  // loaded AK.
  Bytes other_ak;
  ASSERT_TRUE(host_->CreateAk(AkTemplate(), OutsideInfo(), &other_ak)) << host_->LastError();
  ASSERT_NE(ak_, other_ak);
  Bytes blob;
  Bytes encrypted;
  ASSERT_TRUE(MakeCredential(ek_, ak_, Bytes(32, 7), &blob, &encrypted));
  Bytes cert_info;
  EXPECT_FALSE(host_->ActivateCredential(blob, encrypted, &cert_info));
}

TEST_F(CredentialOnSwtpm, TamperedBlobDoesNotOpen) {
  Bytes blob;
  Bytes encrypted;
  ASSERT_TRUE(MakeCredential(ek_, ak_, Bytes(32, 9), &blob, &encrypted));
  const struct {
    const char* name;
    size_t index;
  } kCases[] = {{"HMAC byte", 5}, {"encrypted credential byte", blob.size() - 1}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Bytes bad = blob;
    bad[c.index] ^= 0x01;
    Bytes cert_info;
    EXPECT_FALSE(host_->ActivateCredential(bad, encrypted, &cert_info));
  }
}

TEST_F(CredentialOnSwtpm, MalformedPublicAreasFail) {
  Bytes blob;
  Bytes encrypted;
  // Every strict prefix of either public area fails, and is logged.
  for (size_t len = 0; len < ek_.size(); len += 17) {
    SCOPED_TRACE(len);
    std::string log = Capture(
        [&] { EXPECT_FALSE(MakeCredential(Bytes(ek_.begin(), ek_.begin() + len), ak_, Bytes(32, 1), &blob, &encrypted)); });
    EXPECT_NE(std::string::npos, log.find("Failed to unmarshal 12TPM2B_PUBLIC"));
  }
  for (size_t len = 0; len < ak_.size(); len += 17) {
    SCOPED_TRACE(len);
    EXPECT_FALSE(MakeCredential(ek_, Bytes(ak_.begin(), ak_.begin() + len), Bytes(32, 1), &blob, &encrypted));
  }
  // A signing key cannot serve as the EK.
  std::string log = Capture([&] { EXPECT_FALSE(MakeCredential(ak_, ak_, Bytes(32, 1), &blob, &encrypted)); });
  EXPECT_NE(std::string::npos, log.find("Failed to load endorsement key")) << log;
}

}  // namespace
}  // namespace Witnessd::Tpm2
