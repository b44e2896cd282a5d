// Export and import of the whole configuration over a real store: what
// travels, what does not, and that a refused import changes neither the
// store nor the caches built from it.
#include "config/transfer/ConfigTransfer.h"

#include <gtest/gtest.h>

#include <functional>

#include "config/SigningKey.h"
#include "config/tpm2/CaCertificates.h"
#include "config/tpm2/EndorsementKeys.h"
#include "config/tpm2/Tpm2Settings.h"
#include "platform/ssl/SslUtils.h"
#include "tests/config/StoreFixture.h"
#include "tests/platform/ssl/TestCerts.h"

namespace Witnessd::Config {
namespace {

constexpr ConfigResult kOk = ConfigResult::kConfigOk;

std::string Capture(const std::function<void()>& fn) {
  testing::internal::CaptureStderr();
  fn();
  return testing::internal::GetCapturedStderr();
}

class ConfigTransferTest : public Testing::StoreFixture {
 protected:
  void SetUp() override {
    StoreFixture::SetUp();
    Tpm2::ResetTpm2ConfigForTesting();
    InitConfigLocks();
    Capture([] { InitConfiguration(); });
  }

  std::string Export() {
    std::string text, hash;
    EXPECT_TRUE(ExportConfiguration(text, hash));
    return text;
  }

  static Tpm2::EkDigest Digest(const std::string& pem) {
    Tpm2::EkDigest digest;
    EXPECT_TRUE(Tpm2::ComputeEkDigest(pem, digest));
    return digest;
  }
};

TEST_F(ConfigTransferTest, ExportLeavesTheSigningKeyBehindAndHashesTheText) {
  Testing::TestKey ek = Testing::MakeKey();
  ASSERT_EQ(kOk, Tpm2::AddEndorsementKey("ek1", ek.public_pem));
  std::string text, hash, again_text, again_hash;
  ASSERT_TRUE(ExportConfiguration(text, hash));
  ASSERT_TRUE(ExportConfiguration(again_text, again_hash));
  EXPECT_EQ(text, again_text);
  EXPECT_EQ(hash, again_hash);
  std::string expected;
  ASSERT_TRUE(Orm::Common::SslUtils::ComputeHashHex(text, expected));
  EXPECT_EQ(expected, hash);
  std::string key;
  ASSERT_TRUE(GetSigningKey(key));
  EXPECT_NE(std::string::npos, text.find("ek1"));
  EXPECT_EQ(std::string::npos, text.find("PRIVATE KEY"));
  EXPECT_EQ(std::string::npos, text.find(kKeyCertificate + std::string("\"")));
}

TEST_F(ConfigTransferTest, ImportReplacesAndReloadsCaches) {
  Testing::TestKey kept = Testing::MakeKey();
  Testing::TestKey dropped = Testing::MakeKey();
  Testing::TestPki pki;
  ASSERT_EQ(kOk, Tpm2::AddEndorsementKey("kept", kept.public_pem));
  ASSERT_EQ(kOk, Tpm2::UpdateTpm2Settings(true, true));
  ASSERT_EQ(kOk, Tpm2::AddCaCertificates("pki", {pki.root.pem}));
  std::string exported = Export();

  // Change everything, with a live session on an EK that stays.
  ASSERT_EQ(kOk, Tpm2::IncrementEkReference(Digest(kept.public_pem), 5));
  ASSERT_EQ(kOk, Tpm2::AddEndorsementKey("dropped", dropped.public_pem));
  ASSERT_EQ(kOk, Tpm2::UpdateTpm2Settings(true, false));
  ASSERT_EQ(kOk, Tpm2::DeleteCaCertificates("pki"));

  ASSERT_EQ(kOk, ImportConfiguration(exported));
  EXPECT_EQ(exported, Export());
  bool eks = false, certs = false;
  Tpm2::GetTpm2Settings(eks, certs);
  EXPECT_TRUE(certs) << "settings cache reloaded";
  EXPECT_EQ(std::nullopt, Tpm2::GetEkReferenceCount(Digest(dropped.public_pem)));
  EXPECT_EQ(std::optional<int32_t>(1), Tpm2::GetEkReferenceCount(Digest(kept.public_pem)));
  Tpm2::CaCertList cas = Tpm2::GetAllCaCertificates();
  ASSERT_NE(nullptr, cas);
  EXPECT_EQ(1u, cas->size());
  ExpectLocksReleased();
}

TEST_F(ConfigTransferTest, RefusedImportChangesNothing) {
  Testing::TestKey ek = Testing::MakeKey();
  ASSERT_EQ(kOk, Tpm2::AddEndorsementKey("ek1", ek.public_pem));
  ASSERT_EQ(kOk, Tpm2::UpdateTpm2Settings(false, true));
  std::string before = Export();
  ASSERT_EQ(kOk, Tpm2::DeleteEndorsementKey("ek1"));
  std::string without_ek = Export();
  ASSERT_EQ(kOk, Tpm2::AddEndorsementKey("ek1", ek.public_pem));

  const struct {
    const char* name;
    std::string text;
    bool store_fails;
  } kCases[] = {
      {"not an export", "hello", false},
      {"truncated export", before.substr(0, before.size() / 2), false},
      {"store fails midway", without_ek, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    if (c.store_fails) {
      Store()->FailSqliteCallAfter(3);
    }
    std::string log = Capture([&] { EXPECT_EQ(ConfigResult::kConfigError, ImportConfiguration(c.text)); });
    EXPECT_NE(std::string::npos, log.find("Failed to import configuration")) << log;
    EXPECT_EQ(before, Export());
    EXPECT_TRUE(Tpm2::GetEkReferenceCount(Digest(ek.public_pem)).has_value()) << "EK map unchanged";
    bool eks = true, certs = false;
    Tpm2::GetTpm2Settings(eks, certs);
    EXPECT_FALSE(eks);
    EXPECT_TRUE(certs);
    ExpectLocksReleased();
  }
}

TEST_F(ConfigTransferTest, RestoreLogsEachStoredKey) {
  Testing::TestPki pki;
  ASSERT_EQ(kOk, Tpm2::AddEndorsementKey("ek1", Testing::MakeKey().public_pem));
  ASSERT_EQ(kOk, Tpm2::AddCaCertificates("pki", {pki.root.pem}));
  ASSERT_EQ(kOk, Tpm2::UpdateTpm2Settings(true, true));
  std::string log = Capture([] { InitConfiguration(); });
  EXPECT_NE(std::string::npos, log.find("Restoring configuration key tpm2_ca_certificates instance pki")) << log;
  EXPECT_NE(std::string::npos, log.find("Restoring configuration key tpm2_endorsement_keys instance ek1"));
  EXPECT_NE(std::string::npos, log.find("Restoring configuration key tpm2_settings"));
  EXPECT_EQ(kOk, Tpm2::DeleteEndorsementKey("ek1"));
  EXPECT_TRUE(Store()->GetBootStatus(MakeId(kKeyTpm2Settings)));
}

}  // namespace
}  // namespace Witnessd::Config
