#include "config/Configuration.h"

#include <gtest/gtest.h>

#include "config/Health.h"
#include "config/SigningKey.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"
#include "tests/config/StoreFixture.h"
#include "tests/platform/ssl/TestCerts.h"
#include "tests/support/LogCapture.h"

namespace Witnessd::Config {
namespace {

using Testing::StoreFixture;

TEST(StatusConditions, SetClearAndListAscending) {
  StatusConditions conditions;
  EXPECT_TRUE(conditions.Get().empty());
  conditions.Set(kStatusBaseImagesLoadError, true);
  conditions.Set(kStatusTpmCaUnset, true);
  conditions.Set(kStatusTpmEkUnset, true);
  conditions.Set(kStatusTpmEkUnset, false);
  conditions.Set(-1, true);
  conditions.Set(kNumStatusConditions, true);
  EXPECT_EQ((std::vector<int>{1, 5}), conditions.Get());
}

class SigningKeyTest : public StoreFixture {};

TEST_F(SigningKeyTest, GeneratedOnceThenFoundOnTheNextStart) {
  SigningKeys keys(store_);
  EXPECT_TRUE(keys.Current()->key.empty());
  EXPECT_TRUE(keys.Current()->certificate.empty());
  EXPECT_EQ(nullptr, keys.Current()->pkey);

  std::string log = Testing::Capture([&] { keys.Ensure(); });
  EXPECT_NE(std::string::npos, log.find("Generating private key and certificate"));
  std::shared_ptr<const SigningPair> first = keys.Current();
  ASSERT_FALSE(first->key.empty());
  ASSERT_NE(nullptr, first->pkey);
  std::string extracted;
  ASSERT_TRUE(Orm::Common::SslUtils::ExtractKeyFromCert(first->certificate, extracted));

  // The next start: a new object over the store reopened.
  std::string path = dir_ + "/configstore.db";
  store_.reset();
  store_ = HyvConfig::HyvConfigStore::Open(path);
  SigningKeys next(store_);
  Log_SetMaxLevel(kLogVerbose);
  log = Testing::Capture([&] { next.Ensure(); });
  Log_SetMaxLevel(kLogInfo);
  EXPECT_EQ(std::string::npos, log.find("Generating"));
  EXPECT_NE(std::string::npos, log.find("Existing report signing private key available"));
  EXPECT_EQ(first->key, next.Current()->key);
  EXPECT_EQ(first->certificate, next.Current()->certificate);
}

TEST_F(SigningKeyTest, ReadConfigValueAbsentAndFailing) {
  SigningKeys keys(store_);
  std::string value = "x";
  EXPECT_FALSE(ReadConfigValue(*store_, kKeyCertificate, kComponent, kGroup, "certificate", value));
  ASSERT_TRUE(keys.Save("CERT", "KEY"));
  EXPECT_TRUE(ReadConfigValue(*store_, kKeyCertificate, kComponent, kGroup, "certificate", value));
  EXPECT_EQ("CERT", value);
  store_->FailSqliteCallAfter(0);
  std::string log = Testing::Capture(
      [&] { EXPECT_FALSE(ReadConfigValue(*store_, kKeyCertificate, kComponent, kGroup, "certificate", value)); });
  EXPECT_NE(std::string::npos, log.find("disk I/O error"));
  store_->FailSqliteCallAfter(0);
  EXPECT_FALSE(keys.Save("CERT", "KEY"));
}

// A replaced key stays in the JWK Set for the longest token validity after
// its replacement, then leaves it; a replacement the store refuses changes
// nothing.
TEST_F(SigningKeyTest, ReplacedKeyIsPublishedUntilItsTokensHaveExpired) {
  SigningKeys keys(store_);
  Testing::Capture([&] { keys.Ensure(); });
  const std::string old_jwk = keys.Current()->jwk;
  Testing::TestCert cert = Testing::MakeCert(Testing::MakeKey(2048), "Signing", nullptr, false);
  std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_PrivateKey(out.get(), cert.key.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  const std::string key_pem = Testing::BioString(out.get());
  std::string why;
  store_->FailSqliteCallAfter(0);
  EXPECT_EQ(ReplaceResult::kStoreFailed, keys.Replace(cert.pem, key_pem, 1000, &why));
  EXPECT_EQ("{\"keys\":[" + old_jwk + "]}", JwkSetText(*keys.Current(), 1000));

  ASSERT_EQ(ReplaceResult::kReplaced, keys.Replace(cert.pem, key_pem, 1000, &why)) << why;
  const std::string new_jwk = keys.Current()->jwk;
  EXPECT_EQ("{\"keys\":[" + new_jwk + "," + old_jwk + "]}",
            JwkSetText(*keys.Current(), 1000 + kRetiredKeyPublishedSeconds - 1));
  EXPECT_EQ("{\"keys\":[" + new_jwk + "]}", JwkSetText(*keys.Current(), 1000 + kRetiredKeyPublishedSeconds));
  EXPECT_EQ(ReplaceResult::kInvalid, keys.Replace(cert.pem, key_pem, 2000, &why));
  EXPECT_EQ("the private key is the one in use", why);
}

TEST_F(SigningKeyTest, HealthNamesWhatKeepsTheDaemonFromServing) {
  SigningKeys keys(store_);
  HealthCheck health(store_, keys, std::chrono::seconds(0));
  EXPECT_EQ("no usable report signing key", health.Problem());
  Testing::Capture([&] { keys.Ensure(); });
  EXPECT_EQ("", health.Problem());
  store_->FailSqliteCallAfter(0);
  std::string problem;
  Testing::Capture([&] { problem = health.Problem(); });
  EXPECT_EQ(0u, problem.find("configuration store unreadable: ")) << problem;
  EXPECT_EQ("", health.Problem());
}

TEST_F(SigningKeyTest, FatalInconsistenciesStopTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  SigningKeys keys(store_);
  ASSERT_TRUE(keys.Save("", "KEY"));
  EXPECT_DEATH(keys.Ensure(), "NOT_IMPLEMENTED apps/witnessd/config/configuration:373");
  // An empty store whose write fails after the (successful) read. The read
  // of an absent record makes six SQLite calls.
  Config::Store empty = HyvConfig::HyvConfigStore::Open(dir_ + "/empty.db");
  SigningKeys fresh(empty);
  EXPECT_DEATH(
      {
        empty->FailSqliteCallAfter(6);
        fresh.Ensure();
      },
      "NOT_IMPLEMENTED apps/witnessd/config/configuration:366");
}

}  // namespace
}  // namespace Witnessd::Config
