#include "config/tpm2/EkCertificateCache.h"

#include <gtest/gtest.h>

#include <set>
#include <tuple>
#include <vector>

#include "tests/platform/ssl/TestCerts.h"

namespace Witnessd::Config::Tpm2 {
namespace {

using Orm::Common::SslUtils;
using Orm::Common::TrustStore;
using Testing::MakeCert;
using Testing::MakeKey;
using Testing::MakeSizedCert;
using Testing::Rewrap;
using Testing::TestCert;

const TestCert kCa = MakeCert(MakeKey(), "Test EK CA", nullptr, true);
const TestCert kEk = MakeCert(MakeKey(), "Test EK", &kCa, false, 2);

TEST(EkCertificateCache, OneVerdictPerCertificateAndTrustStore) {
  const TrustStore without = SslUtils::BuildTrustStore({});
  const TrustStore with = SslUtils::BuildTrustStore({kCa.pem});
  const std::string line = Rewrap(kEk.pem, 1 << 20);
  const struct {
    const char* name;
    std::vector<std::tuple<std::string, TrustStore, bool>> checks;  // text, store, chains
    size_t entries;
  } kCases[] = {
      {"layouts of one certificate", {{kEk.pem, with, true}, {Rewrap(kEk.pem, 17), with, true}, {line, with, true}}, 1},
      {"store with the CA added", {{kEk.pem, without, false}, {line, with, true}}, 2},
      {"no store checks no chain", {{kEk.pem, nullptr, false}, {kEk.pem, with, true}}, 2},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EkCertificateCache cache;
    for (const auto& [pem, cas, chains] : c.checks) {
      std::optional<Orm::Common::EkCertCheck> check = cache.Check(pem, cas);
      ASSERT_TRUE(check);
      EXPECT_EQ(chains, check->chains);
      EXPECT_EQ(kEk.key.public_pem, check->key);
    }
    EXPECT_EQ(c.entries, cache.Entries());
  }
  // A store freed, then one built likely at its address: the first's verdict is not the second's.
  EkCertificateCache cache;
  TrustStore first = SslUtils::BuildTrustStore({});
  ASSERT_FALSE(cache.Check(kEk.pem, first)->chains);
  first.reset();
  EXPECT_TRUE(cache.Check(kEk.pem, SslUtils::BuildTrustStore({kCa.pem}))->chains);
}

TEST(EkCertificateCache, EvictsLeastRecentlyUsedBySize) {
  const TrustStore cas = SslUtils::BuildTrustStore({kCa.pem});
  std::vector<std::string> certs;  // keys of one size, so every entry is charged alike
  for (long serial = 10; serial < 14; ++serial) {
    certs.push_back(MakeCert(MakeKey(), "Test EK", &kCa, false, serial).pem);
  }
  EkCertificateCache probe;
  probe.Check(certs[0], cas);
  const size_t entry = probe.Bytes();
  const struct {
    const char* name;
    size_t max_bytes;
    std::vector<int> checks;  // indexes into certs, in order
    std::set<int> kept;
  } kCases[] = {
      {"two fit", 2 * entry, {0, 1}, {0, 1}},
      {"a third evicts the oldest", 2 * entry, {0, 1, 2}, {1, 2}},
      {"a hit makes an entry recent", 2 * entry, {0, 1, 0, 2}, {0, 2}},
      {"a byte short of two", 2 * entry - 1, {0, 1}, {1}},
      {"room for none", entry - 1, {0, 1}, {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EkCertificateCache cache(c.max_bytes);
    for (int i : c.checks) {
      ASSERT_TRUE(cache.Check(certs[i], cas));
    }
    for (int i = 0; i < static_cast<int>(certs.size()); ++i) {
      EXPECT_EQ(c.kept.count(i) != 0, cache.Contains(Rewrap(certs[i], 40), cas)) << "certificate " << i;
    }
    EXPECT_EQ(c.kept.size() * entry, cache.Bytes());
  }
}

TEST(EkCertificateCache, RefusesCertificatesOverTheSizeLimitUnkept) {
  const std::string at_limit = MakeSizedCert(kCa, kMaxEkCertificateBytes).pem;
  const struct {
    const char* name;
    std::string pem;
    bool ok;
  } kCases[] = {
      {"DER at the limit", at_limit, true},
      {"DER at the limit, a line break after every character", Rewrap(at_limit, 1), true},
      {"DER a byte over", MakeSizedCert(kCa, kMaxEkCertificateBytes + 1).pem, false},
      {"a key, not a certificate", kEk.key.public_pem, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EkCertificateCache cache;
    std::optional<Orm::Common::EkCertCheck> check = cache.Check(c.pem, SslUtils::BuildTrustStore({kCa.pem}));
    EXPECT_EQ(c.ok, check && check->chains);
    EXPECT_EQ(c.ok ? 1u : 0u, cache.Entries());
  }
}

// Anyone may present any number of key and certificate texts: each text is
// remembered once, the same key in another layout is the same EK, and a
// flood of distinct texts never holds more than kMaxKeyIds of each kind.
TEST(EkCertificateCache, KeyIdsAreRememberedWithinTheirBound) {
  EkCertificateCache cache;
  const std::string& key = kEk.key.public_pem;
  EXPECT_EQ(EkIdOf(key), cache.KeyId(key));
  EXPECT_EQ(EkIdOf(key), cache.KeyId(Rewrap(key, 16)));
  EXPECT_EQ(EkIdOf(key), cache.KeyId(key));
  EXPECT_EQ(2u, cache.KeyIds());
  for (size_t i = 0; i < EkCertificateCache::kMaxKeyIds + 10; ++i) {
    EXPECT_FALSE(cache.KeyId("not a key " + std::to_string(i)));
    ASSERT_LE(cache.KeyIds(), EkCertificateCache::kMaxKeyIds);
  }
  EXPECT_EQ(EkIdOf(key), cache.KeyId(key));
  for (size_t i = 0; i < EkCertificateCache::kMaxKeyIds + 10; ++i) {
    ASSERT_TRUE(cache.Check(kEk.pem + std::string(i % 64, '\n') + std::string(i / 64, ' '), nullptr));
    ASSERT_LE(cache.KeyIds(), 2 * EkCertificateCache::kMaxKeyIds);
  }
  EXPECT_EQ(1u, cache.Entries());
}

}  // namespace
}  // namespace Witnessd::Config::Tpm2
