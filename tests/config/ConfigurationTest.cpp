#include "config/Configuration.h"

#include <gtest/gtest.h>

#include "config/SigningKey.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"
#include "tests/config/StoreFixture.h"
#include "tests/support/LogCapture.h"

namespace Witnessd::Config {
namespace {

using Testing::StoreFixture;

class StatusConditionTest : public StoreFixture {};

TEST_F(StatusConditionTest, SetClearAndListAscending) {
  EXPECT_TRUE(GetStatusConditions().empty());
  SetStatusCondition(kStatusBaseImagesLoadError, true);
  SetStatusCondition(kStatusTpmCaUnset, true);
  SetStatusCondition(kStatusTpmEkUnset, true);
  SetStatusCondition(kStatusTpmEkUnset, false);
  SetStatusCondition(-1, true);
  SetStatusCondition(kNumStatusConditions, true);
  EXPECT_EQ((std::vector<int>{1, 5}), GetStatusConditions());
}

// A caller that already holds the configuration lock, in either mode, may
// update a condition without deadlocking on it.
TEST_F(StatusConditionTest, WritableWhileHoldingTheConfigurationLock) {
  {
    MXUser::WriteGuard guard(ConfigLock());
    SetStatusCondition(kStatusTpmDupCa, true);
  }
  {
    MXUser::ReadGuard guard(ConfigLock());
    SetStatusCondition(kStatusTrustedSoftwareUnset, true);
  }
  EXPECT_EQ((std::vector<int>{3, 4}), GetStatusConditions());
  ExpectLocksReleased();
}

class SigningKeyTest : public StoreFixture {};

TEST_F(SigningKeyTest, GeneratedOnceThenFoundOnTheNextStart) {
  std::string key, cert;
  EXPECT_FALSE(GetSigningKey(key));
  EXPECT_FALSE(GetSigningCertificate(cert));

  std::string log = Testing::Capture(EnsureSigningKey);
  EXPECT_NE(std::string::npos, log.find("Generating private key and certificate"));
  ASSERT_TRUE(GetSigningKey(key));
  ASSERT_TRUE(GetSigningCertificate(cert));
  std::string extracted;
  ASSERT_TRUE(Orm::Common::SslUtils::ExtractKeyFromCert(cert, extracted));

  // The next start: memory empty, store reopened.
  ResetSigningKeyForTesting();
  HyvConfig::ConfigStore::Reset();
  Log_SetMaxLevel(kLogVerbose);
  log = Testing::Capture(EnsureSigningKey);
  Log_SetMaxLevel(kLogInfo);
  EXPECT_EQ(std::string::npos, log.find("Generating"));
  EXPECT_NE(std::string::npos, log.find("Existing report signing private key available"));
  std::string key2, cert2;
  ASSERT_TRUE(GetSigningKey(key2));
  ASSERT_TRUE(GetSigningCertificate(cert2));
  EXPECT_EQ(key, key2);
  EXPECT_EQ(cert, cert2);
}

TEST_F(SigningKeyTest, ReadConfigValueAbsentAndFailing) {
  std::string value = "x";
  EXPECT_FALSE(ReadConfigValue(kKeyCertificate, kComponent, kGroup, "certificate", value));
  ASSERT_TRUE(SaveSigningKey("CERT", "KEY"));
  EXPECT_TRUE(ReadConfigValue(kKeyCertificate, kComponent, kGroup, "certificate", value));
  EXPECT_EQ("CERT", value);
  Store()->FailSqliteCallAfter(0);
  std::string log =
      Testing::Capture([&] { EXPECT_FALSE(ReadConfigValue(kKeyCertificate, kComponent, kGroup, "certificate", value)); });
  EXPECT_NE(std::string::npos, log.find("disk I/O error"));
  Store()->FailSqliteCallAfter(0);
  EXPECT_FALSE(SaveSigningKey("CERT", "KEY"));
  ExpectLocksReleased();
}

TEST_F(SigningKeyTest, FatalInconsistenciesStopTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ASSERT_TRUE(SaveSigningKey("", "KEY"));
  EXPECT_DEATH(EnsureSigningKey(), "NOT_IMPLEMENTED apps/witnessd/config/configuration:373");
  // An empty store whose write fails after the (successful) read. The read
  // of an absent record makes six SQLite calls.
  HyvConfig::ConfigStore::Reset();
  std::filesystem::remove_all(sysroot_ + HyvConfig::kDatabasePath);
  EXPECT_DEATH(
      {
        Store()->FailSqliteCallAfter(6);
        EnsureSigningKey();
      },
      "NOT_IMPLEMENTED apps/witnessd/config/configuration:366");
}

}  // namespace
}  // namespace Witnessd::Config
