#include <gtest/gtest.h>

#include <functional>

#include "config/tpm2/EkIdentification.h"
#include "config/tpm2/TrustConfiguration.h"
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
  std::pair<bool, bool> Cached() const {
    TrustSnapshotPtr s = trust_->Snapshot();
    return {s->require_endorsement_keys, s->require_certificate_validation};
  }

  // Stored reads the pair as a fresh process would load it.
  std::pair<bool, bool> Stored() const {
    TrustConfiguration fresh(store_);
    fresh.Load();
    TrustSnapshotPtr s = fresh.Snapshot();
    return {s->require_endorsement_keys, s->require_certificate_validation};
  }

  bool Configured(const std::string& pem) const {
    std::optional<EkId> id = EkIdOf(pem);
    EXPECT_TRUE(id);
    return id && trust_->Snapshot()->configured_eks.count(*id) != 0;
  }

  std::vector<std::string> AllCas() const { return trust_->Snapshot()->ca_certificates; }

  void Restart() {
    trust_ = std::make_unique<TrustConfiguration>(store_);
    trust_->Load();
  }

  std::unique_ptr<TrustConfiguration> trust_ = std::make_unique<TrustConfiguration>(store_);
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
    store_->DeleteObject(MakeId(kKeyTpm2Settings));
    Restart();
    if (c.stored_eks) {
      ASSERT_EQ(kOk, trust_->UpdateTpm2Settings(c.stored_eks, c.stored_certs));
    }
    auto before = Cached();
    std::string log = Capture([&] { EXPECT_EQ(c.result, trust_->UpdateTpm2Settings(c.eks, c.certs)); });
    EXPECT_EQ(std::make_pair(c.after_eks, c.after_certs), Stored());
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

// Every text of one key names the same EK; keys that may not be EKs name none.
TEST_F(Tpm2ConfigTest, EkIdIgnoresLayoutAndMarkers) {
  const std::string pem = MakeKey().public_pem;
  std::string body = pem.substr(pem.find('\n') + 1);
  body = body.substr(0, body.find("-----END"));
  const std::string variants[] = {
      Rewrap(pem, 64), Rewrap(pem, 7), "  " + pem + "\n\n", body,
      "-----BEGIN PUBLIC KEY-----" + body, body + "-----END PUBLIC KEY-----",
  };
  const std::optional<EkId> expected = EkIdOf(pem);
  ASSERT_TRUE(expected);
  for (const std::string& variant : variants) {
    SCOPED_TRACE(variant);
    EXPECT_EQ(expected, EkIdOf(variant));
  }
  EXPECT_NE(expected, EkIdOf(MakeKey().public_pem));
  EXPECT_FALSE(EkIdOf(MakeKey(1024).public_pem));
  EXPECT_FALSE(EkIdOf("not a key"));
}

TEST_F(Tpm2ConfigTest, EkRecordsAddGetListDelete) {
  const std::string a = MakeKey().public_pem;
  const std::string b = MakeKey().public_pem;
  std::vector<std::string> names;
  ASSERT_EQ(kOk, trust_->ListEndorsementKeys(names));
  EXPECT_TRUE(names.empty());

  ASSERT_EQ(kOk, trust_->AddEndorsementKey("tpm-a", a));
  ASSERT_EQ(kOk, trust_->AddEndorsementKey("tpm-b", b));
  EXPECT_TRUE(Configured(a));
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
    EXPECT_EQ(c.result, trust_->AddEndorsementKey(c.ek_name, c.pem));
  }
  ASSERT_EQ(kOk, trust_->ListEndorsementKeys(names));
  EXPECT_EQ((std::vector<std::string>{"tpm-a", "tpm-b"}), names);  // nothing else written

  std::string got;
  ASSERT_EQ(kOk, trust_->GetEndorsementKey("tpm-b", got));
  EXPECT_EQ(b, got);
  std::string log = Capture([&] { EXPECT_EQ(ConfigResult::kConfigNotFound, trust_->GetEndorsementKey("nope", got)); });
  EXPECT_NE(std::string::npos, log.find("Endorsement Key name: nope does not exist in configstore."));

  // A stored text that is not a key: listed, but its get is invalid data.
  HyvConfig::ConfigStoreObject junk(MakeId(kKeyEndorsementKeys, "junk"));
  junk.SetValue("name", "junk");
  junk.SetValue("public_key", "not a key");
  int status = 0;
  store_->SetObject(junk, status);
  EXPECT_EQ(ConfigResult::kConfigInvalidData, trust_->GetEndorsementKey("junk", got));

  TrustSnapshotPtr before = trust_->Snapshot();
  ASSERT_EQ(kOk, trust_->DeleteEndorsementKey("tpm-a"));
  EXPECT_FALSE(Configured(a));
  EXPECT_EQ(2u, before->configured_eks.size());  // a snapshot never changes
  log = Capture([&] { EXPECT_EQ(ConfigResult::kConfigNotFound, trust_->DeleteEndorsementKey("tpm-a")); });
  EXPECT_NE(std::string::npos, log.find("does not exist in configstore"));
  // Now free, the key may be added again under a new name.
  EXPECT_EQ(kOk, trust_->AddEndorsementKey("tpm-c", Rewrap(a, 40)));
}

TEST_F(Tpm2ConfigTest, LoadReadsStoredEksAndSettings) {
  const std::string a = MakeKey().public_pem;
  ASSERT_EQ(kOk, trust_->AddEndorsementKey("a", a));
  ASSERT_EQ(kOk, trust_->UpdateTpm2Settings(false, true));
  // A new process: nothing in memory until the start-up load.
  trust_ = std::make_unique<TrustConfiguration>(store_);
  EXPECT_EQ(std::make_pair(false, false), Cached());
  EXPECT_FALSE(Configured(a));
  trust_->Load();
  EXPECT_EQ(std::make_pair(false, true), Cached());
  EXPECT_TRUE(Configured(a));
}

// --- CA certificates ----------------------------------------------------------

TEST_F(Tpm2ConfigTest, CaChainsAndTheAllCaList) {
  TestPki pki, other;
  std::vector<std::string> names;
  trust_->Load();
  EXPECT_TRUE(AllCas().empty());
  EXPECT_NE(nullptr, trust_->Snapshot()->cas);

  ASSERT_EQ(kOk, trust_->AddCaCertificates("vendor", {Rewrap(pki.intermediate.pem, 30), pki.root.pem}));
  std::vector<std::string> chain;
  ASSERT_EQ(kOk, trust_->GetCaCertificates("vendor", chain));
  EXPECT_EQ((std::vector<std::string>{pki.intermediate.pem, pki.root.pem}), chain);  // standardized
  EXPECT_EQ(chain, AllCas());
  TrustSnapshotPtr with_vendor = trust_->Snapshot();

  // An existing name changes neither the record nor the snapshot.
  EXPECT_EQ(ConfigResult::kConfigAlreadyExists, trust_->AddCaCertificates("vendor", {other.root.pem}));
  ASSERT_EQ(kOk, trust_->GetCaCertificates("vendor", chain));
  EXPECT_EQ(2u, chain.size());
  EXPECT_EQ(with_vendor, trust_->Snapshot());

  // A stored chain that does not parse: listed, left out of the list, invalid data.
  HyvConfig::ConfigStoreObject broken(MakeId(kKeyCaCertificates, "broken"));
  broken.SetValue("name", "broken");
  broken.CreateSubObject(HyvConfig::SubObjectId("cert_chain"))
      ->SetValue("certs", std::vector<std::string>{other.root.pem, "garbage"});
  int status = 0;
  store_->SetObject(broken, status);
  ASSERT_EQ(kOk, trust_->ListCaCertificates(names));
  EXPECT_EQ((std::vector<std::string>{"vendor", "broken"}), names);
  EXPECT_EQ(ConfigResult::kConfigInvalidData, trust_->GetCaCertificates("broken", chain));

  // Deleting an unknown name still rebuilds the list from the store.
  std::string log = Capture([&] { EXPECT_EQ(ConfigResult::kConfigNotFound, trust_->DeleteCaCertificates("nope")); });
  EXPECT_NE(std::string::npos, log.find("CA Cerfificates 'nope' not found"));
  EXPECT_NE(std::string::npos, log.find("Failed to standardize TPM CA Certificate: broken"));
  EXPECT_EQ((std::vector<std::string>{pki.intermediate.pem, pki.root.pem}), AllCas());

  ASSERT_EQ(kOk, trust_->DeleteCaCertificates("vendor"));
  ASSERT_EQ(kOk, trust_->DeleteCaCertificates("broken"));
  ASSERT_EQ(kOk, trust_->ListCaCertificates(names));
  EXPECT_TRUE(names.empty());
  // A snapshot taken earlier stays valid and unchanged.
  EXPECT_EQ(2u, with_vendor->ca_certificates.size());
  EXPECT_TRUE(AllCas().empty());
}

// --- EK identification --------------------------------------------------------

// Who may attest under each pair of settings: a bare key, a certificate that
// chains or does not, for an EK configured or not.
TEST_F(Tpm2ConfigTest, IdentifyEkFollowsTheSettings) {
  TestPki pki, stranger;
  ASSERT_EQ(kOk, trust_->AddCaCertificates("vendor", {pki.intermediate.pem, pki.root.pem}));
  ASSERT_EQ(kOk, trust_->AddEndorsementKey("host", pki.leaf.key.public_pem));
  const std::string unconfigured_key = MakeKey().public_pem;
  const std::string* none = nullptr;
  const struct {
    const char* name;
    bool eks, certs;
    const std::string* key;
    const std::string* cert;
    EkVerdict verdict;
  } kCases[] = {
      {"configured key", true, false, &pki.leaf.key.public_pem, none, EkVerdict::kTrusted},
      {"other key", true, false, &unconfigured_key, none, EkVerdict::kUnknownTpm},
      {"key while certificates required", true, true, &pki.leaf.key.public_pem, none,
       EkVerdict::kCertificateRequired},
      {"certificate of a configured key", true, false, none, &pki.leaf.pem, EkVerdict::kTrusted},
      {"chaining certificate", false, true, none, &pki.leaf.pem, EkVerdict::kTrusted},
      {"chaining certificate, both required", true, true, none, &pki.leaf.pem, EkVerdict::kTrusted},
      {"stranger's certificate", false, true, none, &stranger.leaf.pem, EkVerdict::kUnknownCa},
      {"stranger's certificate, keys only", true, false, none, &stranger.leaf.pem, EkVerdict::kUnknownTpm},
      {"a CA certificate as EK", true, true, none, &pki.intermediate.pem, EkVerdict::kUnknownTpm},
      {"garbage certificate", false, true, none, &unconfigured_key, EkVerdict::kInvalid},
  };
  EkCertificateCache cache;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TrustSnapshot trust = *trust_->Snapshot();
    trust.require_endorsement_keys = c.eks;
    trust.require_certificate_validation = c.certs;
    EkIdentity identity = IdentifyEk(trust, {c.key, c.cert}, cache);
    EXPECT_EQ(c.verdict, identity.verdict);
    EXPECT_EQ(c.verdict != EkVerdict::kInvalid, identity.id.has_value());
  }
  TrustSnapshot unset = *trust_->Snapshot();
  unset.require_endorsement_keys = false;
  unset.require_certificate_validation = false;
  EXPECT_EQ(EkVerdict::kSettingsUnset, IdentifyEk(unset, {&pki.leaf.key.public_pem, none}, cache).verdict);
}

// --- Store failures -----------------------------------------------------------

// Every operation, with the store failing at each of its SQLite calls in turn,
// answers kConfigError and logs its line with SQLite's message; then the
// operation succeeds once the fault lies beyond it. The snapshot keeps every
// configured EK.
TEST_F(Tpm2ConfigTest, EveryStoreFailureIsAConfigError) {
  TestPki pki;
  const std::string ek = MakeKey().public_pem;
  const std::string ek2 = MakeKey().public_pem;
  auto setup = [&] {
    store_->FailSqliteCallAfter(-1);
    for (const std::string& name : ReadInstanceNames(*store_, kKeyEndorsementKeys)) {
      store_->DeleteObject(MakeId(kKeyEndorsementKeys, name));
    }
    for (const std::string& name : ReadInstanceNames(*store_, kKeyCaCertificates)) {
      store_->DeleteObject(MakeId(kKeyCaCertificates, name));
    }
    Restart();
    ASSERT_EQ(kOk, trust_->AddEndorsementKey("present", ek));
    ASSERT_EQ(kOk, trust_->AddCaCertificates("present", {pki.root.pem}));
  };
  std::string out;
  std::vector<std::string> list;
  using Lines = std::vector<const char*>;
  const struct {
    const char* name;
    std::function<ConfigResult()> op;
    Lines lines;
  } kOps[] = {
      {"update settings", [&] { return trust_->UpdateTpm2Settings(true, true); },
       {"Exception getting tpm2 settings from configstore: disk I/O error",
        "Exception updating tpm2 settings in configstore: disk I/O error"}},
      {"get ek", [&] { return trust_->GetEndorsementKey("present", out); },
       {"Exception reading EK 'present' from configstore: disk I/O error"}},
      {"list eks", [&] { return trust_->ListEndorsementKeys(list); },
       {"Exception reading EK list from configstore: disk I/O error"}},
      {"add ek", [&] { return trust_->AddEndorsementKey("new", ek2); },
       {"Exception reading EK 'new' from configstore: disk I/O error",
        "Exception writing EK 'new' to configstore: disk I/O error"}},
      {"delete ek", [&] { return trust_->DeleteEndorsementKey("present"); },
       {"Exception reading EK 'present' from configstore: disk I/O error",
        "Failed to delete EK present from configstore: disk I/O error"}},
      {"get ca", [&] { return trust_->GetCaCertificates("present", list); },
       {"Exception reading CA certificate 'present' from configstore: disk I/O error"}},
      {"list cas", [&] { return trust_->ListCaCertificates(list); },
       {"Exception reading CA certificate list from configstore: disk I/O error"}},
      {"add ca", [&] { return trust_->AddCaCertificates("new", {pki.intermediate.pem}); },
       {"Exception reading CA certificate 'new' from configstore: disk I/O error",
        "Exception writing CA certificate 'new' to configstore: disk I/O error"}},
      // A delete that succeeded but could not read the chains again leaves
      // no trust store: certificates are refused, not checked against the
      // chains as they were.
      {"delete ca", [&] { return trust_->DeleteCaCertificates("present"); },
       {"Exception deleting CA Certificate 'present' from configstore: disk I/O error",
        "Exception reading CA certificate list from configstore: disk I/O error"}},
      // The load reports nothing; its log tells whether the store failed.
      {"load", [&] { trust_->Load(); return kOk; },
       {"Exception reading EK list from configstore: disk I/O error",
        "Exception reading EK 'present' from configstore: disk I/O error",
        "Exception getting tpm2 settings from configstore: disk I/O error",
        "Exception reading CA certificate list from configstore: disk I/O error",
        "Exception reading CA certificate 'present' from configstore: disk I/O error"}},
  };
  for (const auto& op : kOps) {
    SCOPED_TRACE(op.name);
    int failures = 0;
    for (int skip = 0;; ++skip) {
      ASSERT_LT(skip, 100);
      setup();
      store_->FailSqliteCallAfter(skip);
      ConfigResult result = kOk;
      std::string log = Capture([&] { result = op.op(); });
      if (log.find("disk I/O error") != std::string::npos) {
        if (std::string(op.name) == "delete ca" && result == kOk) {
          EXPECT_EQ(nullptr, trust_->Snapshot()->cas);
        } else {
          EXPECT_EQ(std::string(op.name) == "load" ? kOk : ConfigResult::kConfigError, result);
        }
        result = ConfigResult::kConfigError;
      }
      store_->FailSqliteCallAfter(-1);
      if (result != ConfigResult::kConfigError) {
        EXPECT_EQ(kOk, result);
        break;
      }
      ++failures;
      SCOPED_TRACE(log);
      EXPECT_TRUE(std::any_of(op.lines.begin(), op.lines.end(),
                              [&](const char* line) { return log.find(line) != std::string::npos; }));
      // A failed add leaves no EK behind; the configured EK stays
      // configured, also when its delete failed.
      EXPECT_FALSE(Configured(ek2));
      EXPECT_TRUE(Configured(ek));
    }
    EXPECT_GT(failures, 0);
  }
}

}  // namespace
}  // namespace Witnessd::Config::Tpm2
