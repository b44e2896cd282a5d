// Export and import of the whole configuration over a real store: what
// travels, what does not, and that a refused import changes neither the
// store nor the caches built from it.
#include "transfer/ConfigTransfer.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "config/SigningKey.h"
#include "config/tpm2/TrustConfiguration.h"
#include "trusted/BaseImageStore.h"
#include "platform/ssl/SslUtils.h"
#include "tests/config/StoreFixture.h"
#include "tests/platform/ssl/TestCerts.h"
#include "tests/support/LogCapture.h"

namespace Witnessd::Transfer {
namespace {

using Testing::Capture;
using namespace Config;

constexpr ConfigResult kOk = ConfigResult::kConfigOk;

class ConfigTransferTest : public Testing::StoreFixture {
 protected:
  void SetUp() override {
    Capture([&] { transfer_.Restore(); });
  }

  std::string Export() {
    std::optional<ConfigTransfer::Exported> exported = transfer_.Export();
    EXPECT_TRUE(exported);
    return exported ? exported->text : "";
  }

  bool Configured(const std::string& pem) {
    return trust_.Snapshot()->configured_eks.count(*Tpm2::EkIdOf(pem)) != 0;
  }

  StatusConditions conditions_;
  SigningKeys keys_{store_};
  Tpm2::TrustConfiguration trust_{store_};
  Trusted::BaseImageStore images_{store_, conditions_};
  ConfigTransfer transfer_{store_, keys_, trust_, images_};
};

TEST_F(ConfigTransferTest, ExportLeavesTheSigningKeyBehindAndHashesTheText) {
  Testing::TestKey ek = Testing::MakeKey();
  ASSERT_EQ(kOk, trust_.AddEndorsementKey("ek1", ek.public_pem));
  std::optional<ConfigTransfer::Exported> first = transfer_.Export();
  std::optional<ConfigTransfer::Exported> again = transfer_.Export();
  ASSERT_TRUE(first && again);
  const std::string& text = first->text;
  const std::string& hash = first->hash;
  EXPECT_EQ(text, again->text);
  EXPECT_EQ(hash, again->hash);
  std::string expected;
  ASSERT_TRUE(Orm::Common::SslUtils::ComputeHashHex(text, expected));
  EXPECT_EQ(expected, hash);
  ASSERT_FALSE(keys_.Current()->key.empty());
  EXPECT_NE(std::string::npos, text.find("ek1"));
  EXPECT_EQ(std::string::npos, text.find("PRIVATE KEY"));
  EXPECT_EQ(std::string::npos, text.find(kKeyCertificate + std::string("\"")));
}

TEST_F(ConfigTransferTest, ImportReplacesAndReloadsCaches) {
  Testing::TestKey kept = Testing::MakeKey();
  Testing::TestKey dropped = Testing::MakeKey();
  Testing::TestPki pki;
  ASSERT_EQ(kOk, trust_.AddEndorsementKey("kept", kept.public_pem));
  ASSERT_EQ(kOk, trust_.UpdateTpm2Settings(true, true));
  ASSERT_EQ(kOk, trust_.AddCaCertificates("pki", {pki.root.pem}));
  ASSERT_EQ(kOk, trust_.AddCaCertificates(std::string(kMaxRecordNameBytes, 'c'), {pki.intermediate.pem}));
  std::string exported = Export();

  // Change everything.
  ASSERT_EQ(kOk, trust_.AddEndorsementKey("dropped", dropped.public_pem));
  ASSERT_EQ(kOk, trust_.UpdateTpm2Settings(true, false));
  ASSERT_EQ(kOk, trust_.DeleteCaCertificates("pki"));

  ASSERT_EQ(kOk, transfer_.Import(exported));
  EXPECT_EQ(exported, Export());
  EXPECT_TRUE(trust_.Snapshot()->require_certificate_validation) << "snapshot reloaded";
  EXPECT_FALSE(Configured(dropped.public_pem));
  EXPECT_TRUE(Configured(kept.public_pem));
  EXPECT_NE(nullptr, trust_.Snapshot()->cas);
  EXPECT_EQ(2u, trust_.Snapshot()->ca_certificates.size());
}

// Refused texts include keys other than the exported ones and records the
// create operations would refuse; the signing key pair never changes (the
// daemon test plants it over the API).
TEST_F(ConfigTransferTest, RefusedImportChangesNothing) {
  Testing::TestKey ek = Testing::MakeKey();
  Testing::TestPki pki;
  ASSERT_EQ(kOk, trust_.AddEndorsementKey("ek1", ek.public_pem));
  ASSERT_EQ(kOk, trust_.AddCaCertificates("pki", {pki.root.pem}));
  ASSERT_EQ(kOk, trust_.UpdateTpm2Settings(false, true));
  std::string before = Export();
  ASSERT_EQ(kOk, trust_.DeleteEndorsementKey("ek1"));
  std::string without_ek = Export();
  ASSERT_EQ(kOk, trust_.AddEndorsementKey("ek1", ek.public_pem));
  std::string signing_key;
  ASSERT_TRUE(ReadConfigValue(*store_, kKeyCertificate, kComponent, kGroup, "private_key", signing_key));

  // Edit returns |before| changed by |change|; record(key) finds a record.
  using nlohmann::json;
  auto edit = [&](const std::function<void(json&)>& change) {
    json doc = json::parse(before);
    change(doc);
    return doc.dump(2);
  };
  auto record = [](json& doc, const char* key) -> json& {
    for (json& r : doc["records"]) {
      if (r["key"] == key) {
        return r["object"];
      }
    }
    throw std::runtime_error(key);
  };
  auto list_key = [](json& doc, const char* key) { doc["keys"].push_back({key, kComponent, kGroup}); };
  // Rename gives a record another name, consistently.
  auto rename = [&](const char* key, const std::string& name) {
    return edit([&](json& doc) {
      for (json& r : doc["records"]) {
        if (r["key"] == key) {
          r["instance"] = name;
          r["object"]["fields"]["name"] = name;
        }
      }
    });
  };
  const struct {
    const char* name;
    std::string text;
    bool store_fails;
    const char* reason;
  } kCases[] = {
      {"not an export", "hello", false, "not an exported configuration"},
      {"truncated export", before.substr(0, before.size() / 2), false, ""},
      {"store fails midway", without_ek, true, ""},
      {"unknown key", edit([&](json& doc) { list_key(doc, "tpm2_other"); }), false, "key may not be imported"},
      {"EK that is no public key", edit([&](json& doc) { record(doc, kKeyEndorsementKeys)["fields"]["public_key"] =
                                                             pki.root.pem; }),
       false, "public_key is not a usable public key"},
      {"EK named unlike its record", edit([&](json& doc) { record(doc, kKeyEndorsementKeys)["fields"]["name"] =
                                                               "ek2"; }),
       false, "name does not match"},
      {"EK name with '/'", rename(kKeyEndorsementKeys, "ek/1"), false, "name is longer than 255 bytes"},
      {"EK name with a control character", rename(kKeyEndorsementKeys, "ek\n1"), false, "holds a control character"},
      {"CA name over 255 bytes", rename(kKeyCaCertificates, std::string(kMaxRecordNameBytes + 1, 'c')), false,
       "name is longer than 255 bytes"},
      {"CA chain with a leaf certificate", edit([&](json& doc) {
         record(doc, kKeyCaCertificates)["subs"][0][2]["fields"]["certs"] = {pki.root.pem, pki.leaf.pem};
       }),
       false, "cert_chain holds a certificate that is not a CA"},
      {"CA entry that is no certificate", edit([&](json& doc) { record(doc, kKeyCaCertificates)["subs"][0][2]
                                                                    ["fields"]["certs"] = {pki.root.pem, "junk"}; }),
       false, "cert_chain is not a list of certificates"},
      {"settings requiring nothing", edit([&](json& doc) { record(doc, kKeyTpm2Settings)["fields"]
                                                               ["require_certificate_validation"] = false; }),
       false, "settings require neither"},
      {"base image digest not hex", edit([&](json& doc) {
         json sum = {{"fields", {{"checksum", std::string(64, 'z')}, {"checksum_type", "sha-256"}}}};
         json payload = {{"fields", {{"name", "k"}}}, {"subs", {{"checksums", "0", sum}}}};
         json pak = {{"fields", {{"name", "hyv-base"}}}, {"subs", {{"payloads", "k", payload}}}};
         list_key(doc, kKeyBaseImages);
         doc["records"].push_back({{"key", kKeyBaseImages}, {"component", kComponent}, {"group", kGroup},
                                   {"instance", "1.0"},
                                   {"object", {{"fields", {{"version", "1.0"}}}, {"subs", {{"paks", "hyv-base", pak}}}}}});
       }),
       false, "checksum is not a well-formed digest"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    if (c.store_fails) {
      store_->FailSqliteCallAfter(3);
    }
    std::string log = Capture([&] { EXPECT_EQ(ConfigResult::kConfigError, transfer_.Import(c.text)); });
    EXPECT_NE(std::string::npos, log.find("Failed to import configuration")) << log;
    EXPECT_NE(std::string::npos, log.find(c.reason)) << log;
    EXPECT_EQ(before, Export());
    std::string key_now;
    EXPECT_TRUE(ReadConfigValue(*store_, kKeyCertificate, kComponent, kGroup, "private_key", key_now));
    EXPECT_EQ(signing_key, key_now);
    EXPECT_TRUE(Configured(ek.public_pem)) << "EK set unchanged";
    EXPECT_FALSE(trust_.Snapshot()->require_endorsement_keys);
    EXPECT_TRUE(trust_.Snapshot()->require_certificate_validation);
  }
}

TEST_F(ConfigTransferTest, RestoreLogsEachStoredKey) {
  Testing::TestPki pki;
  ASSERT_EQ(kOk, trust_.AddEndorsementKey("ek1", Testing::MakeKey().public_pem));
  ASSERT_EQ(kOk, trust_.AddCaCertificates("pki", {pki.root.pem}));
  ASSERT_EQ(kOk, trust_.UpdateTpm2Settings(true, true));
  std::string log = Capture([&] { transfer_.Restore(); });
  EXPECT_NE(std::string::npos, log.find("Restoring configuration key tpm2_ca_certificates instance pki")) << log;
  EXPECT_NE(std::string::npos, log.find("Restoring configuration key tpm2_endorsement_keys instance ek1"));
  EXPECT_NE(std::string::npos, log.find("Restoring configuration key tpm2_settings"));
  EXPECT_EQ(kOk, trust_.DeleteEndorsementKey("ek1"));
  EXPECT_TRUE(store_->GetBootStatus(MakeId(kKeyTpm2Settings)));
}

}  // namespace
}  // namespace Witnessd::Transfer
