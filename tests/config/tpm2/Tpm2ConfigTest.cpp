#include <gtest/gtest.h>

#include <functional>

#include "config/tpm2/CaCertificates.h"
#include "config/tpm2/EndorsementKeys.h"
#include "config/tpm2/Tpm2Settings.h"
#include "platform/Log.h"
#include "tests/config/StoreFixture.h"
#include "tests/support/LogCapture.h"
#include "tests/platform/ssl/TestCerts.h"

namespace Witnessd::Config::Tpm2 {
namespace {

using Testing::Capture;
using Testing::MakeKey;
using Testing::Rewrap;
using Testing::TestPki;

constexpr ConfigResult kOk = ConfigResult::kConfigOk;

class Tpm2ConfigTest : public Testing::StoreFixture {
 protected:
  void SetUp() override {
    StoreFixture::SetUp();
    ResetTpm2ConfigForTesting();
  }


  static std::pair<bool, bool> Cached() {
    bool eks = false, certs = false;
    GetTpm2Settings(eks, certs);
    return {eks, certs};
  }

  static void Reload() {
    MXUser::WriteGuard guard(ConfigLock());
    LoadEndorsementKeys();
  }

  static EkDigest Digest(const std::string& pem) {
    EkDigest digest;
    EXPECT_TRUE(ComputeEkDigest(pem, digest));
    return digest;
  }
};

// --- TPM settings -------------------------------------------------------------

TEST_F(Tpm2ConfigTest, SettingsUpdateMergesAndKeepsOneRequirement) {
  using B = std::optional<bool>;
  const struct {
    const char* name;
    B stored_eks, stored_certs;  // written first, when given
    B eks, certs;                // the update
    ConfigResult result;
    bool after_eks, after_certs;  // stored and cached afterwards
  } kCases[] = {
      {"fresh store, defaults", {}, {}, {}, {}, kOk, true, false},
      {"only certs off keeps eks", true, true, {}, false, kOk, true, false},
      {"switch to certificates", true, false, false, true, kOk, false, true},
      {"both off", true, true, false, false, ConfigResult::kConfigInvalidArgument, true, true},
      {"eks off while certs off", true, false, false, {}, ConfigResult::kConfigInvalidArgument, true, false},
      {"certs off while eks off", false, true, {}, false, ConfigResult::kConfigInvalidArgument, false, true},
      {"both on", false, true, true, {}, kOk, true, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TearDown();
    SetUp();
    if (c.stored_eks) {
      ASSERT_EQ(kOk, UpdateTpm2Settings(c.stored_eks, c.stored_certs));
    }
    auto before = Cached();
    std::string log = Capture([&] { EXPECT_EQ(c.result, UpdateTpm2Settings(c.eks, c.certs)); });
    bool eks = !c.after_eks, certs = !c.after_certs;
    {
      MXUser::ReadGuard guard(ConfigLock());
      ASSERT_EQ(kOk, ReadTpm2Settings(eks, certs));
    }
    EXPECT_EQ(c.after_eks, eks);
    EXPECT_EQ(c.after_certs, certs);
    if (c.result == kOk) {
      EXPECT_EQ(std::make_pair(c.after_eks, c.after_certs), Cached());
    } else {
      EXPECT_EQ(before, Cached());
      EXPECT_NE(std::string::npos,
                log.find("Endorsement Key or EK Certificate validation required during attestation"));
    }
  }
}

// --- Endorsement keys ---------------------------------------------------------

TEST_F(Tpm2ConfigTest, EkDigestIgnoresLayoutAndMarkers) {
  const std::string pem = MakeKey().public_pem;
  std::string body = pem.substr(pem.find('\n') + 1);
  body = body.substr(0, body.find("-----END"));
  const std::string variants[] = {
      Rewrap(pem, 64), Rewrap(pem, 7), "  " + pem + "\n\n", body,
      "-----BEGIN PUBLIC KEY-----" + body, body + "-----END PUBLIC KEY-----",
  };
  const EkDigest expected = Digest(pem);
  for (const std::string& variant : variants) {
    SCOPED_TRACE(variant);
    EXPECT_EQ(expected, Digest(variant));
  }
  EXPECT_NE(expected, Digest(MakeKey().public_pem));
}

TEST_F(Tpm2ConfigTest, EkRecordsAddGetListDelete) {
  const std::string a = MakeKey().public_pem;
  const std::string b = MakeKey().public_pem;
  std::vector<std::string> names;
  ASSERT_EQ(kOk, ListEndorsementKeys(names));
  EXPECT_TRUE(names.empty());

  ASSERT_EQ(kOk, AddEndorsementKey("tpm-a", a));
  ASSERT_EQ(kOk, AddEndorsementKey("tpm-b", b));
  EXPECT_TRUE(IsEkConfigured(Digest(a)));
  const struct {
    const char* name;
    std::string ek_name;
    std::string pem;
    ConfigResult result;
  } kAdds[] = {
      {"same name", "tpm-a", MakeKey().public_pem, ConfigResult::kConfigAlreadyExists},
      {"same key, other line breaks", "tpm-c", Rewrap(a, 40), ConfigResult::kConfigDuplicate},
      {"same key without markers", "tpm-d",
       a.substr(a.find('\n') + 1, a.find("-----END") - a.find('\n') - 1), ConfigResult::kConfigDuplicate},
  };
  for (const auto& c : kAdds) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.result, AddEndorsementKey(c.ek_name, c.pem));
  }
  ASSERT_EQ(kOk, ListEndorsementKeys(names));
  EXPECT_EQ((std::vector<std::string>{"tpm-a", "tpm-b"}), names);  // nothing else written

  std::string got;
  ASSERT_EQ(kOk, GetEndorsementKey("tpm-b", got));
  EXPECT_EQ(b, got);
  std::string log = Capture([&] { EXPECT_EQ(ConfigResult::kConfigNotFound, GetEndorsementKey("nope", got)); });
  EXPECT_NE(std::string::npos, log.find("Endorsement Key name: nope does not exist in configstore."));

  // A stored text that is not a key: listed, but its get is invalid data.
  HyvConfig::ConfigStoreObject junk(MakeId(kKeyEndorsementKeys, "junk"));
  junk.SetValue("name", "junk");
  junk.SetValue("public_key", "not a key");
  int status = 0;
  Store()->SetObject(junk, status);
  EXPECT_EQ(ConfigResult::kConfigInvalidData, GetEndorsementKey("junk", got));

  ASSERT_EQ(kOk, DeleteEndorsementKey("tpm-a"));
  EXPECT_FALSE(IsEkConfigured(Digest(a)));
  log = Capture([] { EXPECT_EQ(ConfigResult::kConfigNotFound, DeleteEndorsementKey("tpm-a")); });
  EXPECT_NE(std::string::npos, log.find("does not exist in configstore"));
  // Now free, the key may be added again under a new name.
  EXPECT_EQ(kOk, AddEndorsementKey("tpm-c", Rewrap(a, 40)));
}

TEST_F(Tpm2ConfigTest, InitLoadsStoredEksAndSettings) {
  const std::string a = MakeKey().public_pem;
  ASSERT_EQ(kOk, AddEndorsementKey("a", a));
  ASSERT_EQ(kOk, UpdateTpm2Settings(false, true));
  // A new process: nothing in memory until the start-up load.
  ResetTpm2ConfigForTesting();
  EXPECT_EQ(std::make_pair(false, false), Cached());
  EXPECT_FALSE(IsEkConfigured(Digest(a)));
  InitTpm2Config();
  EXPECT_EQ(std::make_pair(false, true), Cached());
  EXPECT_TRUE(IsEkConfigured(Digest(a)));
}

// --- CA certificates ----------------------------------------------------------

TEST_F(Tpm2ConfigTest, CaChainsAndTheAllCaList) {
  TestPki pki, other;
  std::vector<std::string> names;
  CaCertList all = GetAllCaCertificates();
  ASSERT_NE(nullptr, all);
  EXPECT_TRUE(all->empty());

  ASSERT_EQ(kOk, AddCaCertificates("vendor", {Rewrap(pki.intermediate.pem, 30), pki.root.pem}));
  std::vector<std::string> chain;
  ASSERT_EQ(kOk, GetCaCertificates("vendor", chain));
  EXPECT_EQ((std::vector<std::string>{pki.intermediate.pem, pki.root.pem}), chain);  // standardized
  all = GetAllCaCertificates();
  EXPECT_EQ(chain, *all);

  // An existing name changes neither the record nor the list.
  EXPECT_EQ(ConfigResult::kConfigAlreadyExists, AddCaCertificates("vendor", {other.root.pem}));
  ASSERT_EQ(kOk, GetCaCertificates("vendor", chain));
  EXPECT_EQ(2u, chain.size());
  EXPECT_EQ(all, GetAllCaCertificates());

  // A stored chain that does not parse: listed, left out of the list, invalid data.
  HyvConfig::ConfigStoreObject broken(MakeId(kKeyCaCertificates, "broken"));
  broken.SetValue("name", "broken");
  broken.CreateSubObject(HyvConfig::SubObjectId("cert_chain"))
      ->SetValue("certs", std::vector<std::string>{other.root.pem, "garbage"});
  int status = 0;
  Store()->SetObject(broken, status);
  ASSERT_EQ(kOk, ListCaCertificates(names));
  EXPECT_EQ((std::vector<std::string>{"vendor", "broken"}), names);
  EXPECT_EQ(ConfigResult::kConfigInvalidData, GetCaCertificates("broken", chain));

  // Deleting an unknown name still empties the list, which is rebuilt.
  std::string log = Capture([] { EXPECT_EQ(ConfigResult::kConfigNotFound, DeleteCaCertificates("nope")); });
  EXPECT_NE(std::string::npos, log.find("CA Cerfificates 'nope' not found"));
  log = Capture([&] { all = GetAllCaCertificates(); });
  EXPECT_NE(std::string::npos, log.find("Failed to standardize TPM CA Certificate: broken"));
  EXPECT_EQ((std::vector<std::string>{pki.intermediate.pem, pki.root.pem}), *all);

  ASSERT_EQ(kOk, DeleteCaCertificates("vendor"));
  ASSERT_EQ(kOk, DeleteCaCertificates("broken"));
  ASSERT_EQ(kOk, ListCaCertificates(names));
  EXPECT_TRUE(names.empty());
  // A handle taken earlier stays valid and unchanged.
  EXPECT_EQ(2u, all->size());
  EXPECT_TRUE(GetAllCaCertificates()->empty());
}

// The add appends to the list as it is, even before it was ever built: after a
// start with chains A and B and no use of the list, adding C leaves only C.
TEST_F(Tpm2ConfigTest, CaAddBeforeTheListIsBuiltIsIncremental) {
  TestPki a, b, c;
  ASSERT_EQ(kOk, AddCaCertificates("A", {a.root.pem}));
  ASSERT_EQ(kOk, AddCaCertificates("B", {b.root.pem}));
  InitTpm2Config();  // start-up: the load empties the list
  ASSERT_EQ(kOk, AddCaCertificates("C", {Rewrap(c.root.pem, 20)}));
  EXPECT_EQ((std::vector<std::string>{c.root.pem}), *GetAllCaCertificates());
  InitTpm2Config();
  EXPECT_EQ((std::vector<std::string>{a.root.pem, b.root.pem, c.root.pem}), *GetAllCaCertificates());
}

// --- Store failures -----------------------------------------------------------

// Every operation, with the store failing at each of its SQLite calls in turn,
// answers kConfigError, logs its line with SQLite's message and leaves both
// locks released; then the operation succeeds once the fault lies beyond it.
TEST_F(Tpm2ConfigTest, EveryStoreFailureIsAConfigErrorWithLocksReleased) {
  TestPki pki;
  const std::string ek = MakeKey().public_pem;
  const std::string ek2 = MakeKey().public_pem;
  auto setup = [&] {
    ResetTpm2ConfigForTesting();
    Store()->FailSqliteCallAfter(-1);
    for (const std::string& name : ReadInstanceNames(kKeyEndorsementKeys)) {
      Store()->DeleteObject(MakeId(kKeyEndorsementKeys, name));
    }
    for (const std::string& name : ReadInstanceNames(kKeyCaCertificates)) {
      Store()->DeleteObject(MakeId(kKeyCaCertificates, name));
    }
    ASSERT_EQ(kOk, AddEndorsementKey("present", ek));
    ASSERT_EQ(kOk, AddCaCertificates("present", {pki.root.pem}));
    InitTpm2Config();
  };
  auto code = [](bool ok) { return ok ? kOk : ConfigResult::kConfigError; };
  std::string out;
  std::vector<std::string> list;
  using Lines = std::vector<const char*>;
  const struct {
    const char* name;
    std::function<ConfigResult()> op;
    Lines lines;
  } kOps[] = {
      {"update settings", [] { return UpdateTpm2Settings(true, true); },
       {"Exception getting tpm2 settings from configstore: disk I/O error",
        "Exception updating tpm2 settings in configstore: disk I/O error"}},
      {"get ek", [&] { return GetEndorsementKey("present", out); },
       {"Exception reading EK 'present' from configstore: disk I/O error"}},
      {"list eks", [&] { return ListEndorsementKeys(list); },
       {"Exception reading EK list from configstore: disk I/O error"}},
      {"add ek", [&] { return AddEndorsementKey("new", ek2); },
       {"Exception reading EK 'new' from configstore: disk I/O error",
        "Exception writing EK 'new' to configstore: disk I/O error"}},
      {"delete ek", [] { return DeleteEndorsementKey("present"); },
       {"Exception reading EK 'present' from configstore: disk I/O error",
        "Failed to delete EK present from configstore: disk I/O error"}},
      {"get ca", [&] { return GetCaCertificates("present", list); },
       {"Exception reading CA certificate 'present' from configstore: disk I/O error"}},
      {"list cas", [&] { return ListCaCertificates(list); },
       {"Exception reading CA certificate list from configstore: disk I/O error"}},
      {"add ca", [&] { return AddCaCertificates("new", {pki.intermediate.pem}); },
       {"Exception reading CA certificate 'new' from configstore: disk I/O error",
        "Exception writing CA certificate 'new' to configstore: disk I/O error"}},
      {"delete ca", [] { return DeleteCaCertificates("present"); },
       {"Exception deleting CA Certificate 'present' from configstore: disk I/O error"}},
      {"all cas", [&] { return code(GetAllCaCertificates() != nullptr); },
       {"Exception reading CA certificate list from configstore: disk I/O error",
        "Exception reading CA certificate 'present' from configstore: disk I/O error"}},
      // The load reports nothing; its log tells whether the store failed.
      {"load", [] { InitTpm2Config(); return kOk; },
       {"Exception reading EK list from configstore: disk I/O error",
        "Exception reading EK 'present' from configstore: disk I/O error",
        "Exception getting tpm2 settings from configstore: disk I/O error"}},
  };
  for (const auto& op : kOps) {
    SCOPED_TRACE(op.name);
    int failures = 0;
    for (int skip = 0;; ++skip) {
      ASSERT_LT(skip, 100);
      setup();
      const EkDigest present = Digest(ek);
      Store()->FailSqliteCallAfter(skip);
      ConfigResult result = kOk;
      std::string log = Capture([&] { result = op.op(); });
      if (log.find("disk I/O error") != std::string::npos) {
        EXPECT_EQ(std::string(op.name) == "load" ? kOk : ConfigResult::kConfigError, result);
        result = ConfigResult::kConfigError;
      }
      Store()->FailSqliteCallAfter(-1);
      ExpectLocksReleased();
      if (result != ConfigResult::kConfigError) {
        EXPECT_EQ(kOk, result);
        break;
      }
      ++failures;
      SCOPED_TRACE(log);
      EXPECT_TRUE(std::any_of(op.lines.begin(), op.lines.end(),
                              [&](const char* line) { return log.find(line) != std::string::npos; }));
      // A failed add leaves no digest behind; the configured EK stays
      // configured, also when its delete failed.
      EXPECT_FALSE(IsEkConfigured(Digest(ek2)));
      EXPECT_TRUE(IsEkConfigured(present));
    }
    EXPECT_GT(failures, 0);
  }
}

}  // namespace
}  // namespace Witnessd::Config::Tpm2
