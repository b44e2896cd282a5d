// The administration services over the real API of a running daemon: TPM
// settings, endorsement keys, CA certificates, the signing certificate and
// the status, with certificates made by OpenSSL in the test; and a sweep of
// hostile input over every operation of every service.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "api/errors/ErrorCatalogue.h"
#include "tests/api/TestTokens.h"
#include "tests/platform/ssl/TestCerts.h"
#include "tests/support/ApiClient.h"
#include "tests/support/DaemonProcess.h"
#include "tests/trusted/ImgdbFixture.h"
#include "tools/HttpClient.h"

namespace Witnessd::Testing {
namespace {

using nlohmann::json;
namespace Errors = Witnessd::AttestApi::Errors;

constexpr const char* kServing = "HTTP endpoint listening on TCP port";
constexpr const char* kSettings = "com.quarro.hyv.attestation.tpm2.settings";
constexpr const char* kEks = "com.quarro.hyv.attestation.tpm2.endorsement_keys";
constexpr const char* kCas = "com.quarro.hyv.attestation.tpm2.ca_certificates";
constexpr const char* kCertificate = "com.quarro.hyv.attestation.certificate";
constexpr const char* kStatus = "com.quarro.hyv.attestation.status";
constexpr const char* kBaseImages = "com.quarro.hyv.attestation.os.hyv.base_images";
constexpr const char* kRawConfig = "com.quarro.hyv.attestation.raw_config";
constexpr const char* kReport = "com.quarro.hyv.attestation.report";


class AdminServices : public ::testing::Test {
 protected:
  void SetUp() override {
    sysroot_ = MakeTempDir("witnessd-admin");
    PrepareSysroot(sysroot_);
    token_ = InstallTrustedIssuer(sysroot_);
    daemon_ = std::make_unique<DaemonProcess>(sysroot_, FreePort());
    ASSERT_TRUE(daemon_->Start());
    ASSERT_TRUE(daemon_->WaitForLog(kServing)) << daemon_->Log();
    api_ = std::make_unique<ApiClient>(daemon_->Port(), token_);
  }
  void TearDown() override {
    api_.reset();
    daemon_.reset();
    std::filesystem::remove_all(sysroot_);
  }

  ApiReply Call(const char* service, const char* op, const json& input = json::object()) {
    return api_->Invoke(service, op, input);
  }
  void Settings(bool eks, bool validation) {
    ApiReply r = Call(kSettings, "update",
                      {{"require_endorsement_keys", eks}, {"require_certificate_validation", validation}});
    ASSERT_TRUE(r.ok) << r.raw;
  }
  std::vector<std::string> StatusIds() {
    ApiReply r = Call(kStatus, "get");
    EXPECT_TRUE(r.ok) << r.raw;
    std::vector<std::string> ids;
    for (const json& m : r.output["messages"]) {
      ids.push_back(m["id"].get<std::string>());
    }
    EXPECT_EQ(ids.empty() ? "OK" : "WARNING", r.output["health"]) << r.raw;
    return ids;
  }

  std::string sysroot_;
  std::string token_;
  std::unique_ptr<DaemonProcess> daemon_;
  std::unique_ptr<ApiClient> api_;
};

TEST_F(AdminServices, SettingsUpdateRules) {
  ApiReply got = Call(kSettings, "get");
  ASSERT_TRUE(got.ok) << got.raw;
  // A fresh store requires configured EKs.
  EXPECT_EQ((json{{"require_endorsement_keys", true}, {"require_certificate_validation", false}}), got.output);
  const struct {
    const char* name;
    json input;
    const char* error;  // null: accepted
    json after;
  } kSteps[] = {
      // The merge rules belong to the configuration layer; here only what the
      // service adds: an empty update and the refusal's error and message.
      {"both absent changes nothing", json::object(), nullptr, {true, false}},
      {"add certificate validation", {{"require_certificate_validation", true}}, nullptr, {true, true}},
      {"both false at once", {{"require_endorsement_keys", false}, {"require_certificate_validation", false}},
       Errors::kTpm2SettingsInvalidRequirements, {true, true}},
  };
  for (const auto& s : kSteps) {
    SCOPED_TRACE(s.name);
    ApiReply r = Call(kSettings, "update", s.input);
    if (s.error == nullptr) {
      EXPECT_TRUE(r.ok) << r.raw;
    } else {
      EXPECT_EQ("INVALID_ARGUMENT", r.error_type);
      EXPECT_TRUE(r.HasMessage(s.error)) << r.raw;
    }
    got = Call(kSettings, "get");
    EXPECT_EQ(s.after[0], got.output["require_endorsement_keys"]);
    EXPECT_EQ(s.after[1], got.output["require_certificate_validation"]);
  }
}

TEST_F(AdminServices, EndorsementKeyCreatePaths) {
  TestPki pki;
  TestPki unrelated;
  TestKey other = MakeKey();
  ASSERT_TRUE(Call(kCas, "create", {{"name", "pki"}, {"certificates", {pki.root.pem, pki.intermediate.pem}}}).ok);
  const std::string& ek_cert = pki.leaf.pem;
  const std::string& ek_key = pki.leaf.key.public_pem;
  const struct {
    const char* name;
    bool validation;
    json input;
    const char* error_type;  // empty: accepted
    std::string error;
    std::string stored;  // the key get gives back when accepted
  } kCases[] = {
      {"key only", false, {{"name", "k"}, {"public_key", ek_key}}, "", "", ek_key},
      {"key only, validation on", true, {{"name", "k"}, {"public_key", unrelated.leaf.key.public_pem}}, "", "",
       unrelated.leaf.key.public_pem},
      {"certificate chained to the CAs", true, {{"name", "c"}, {"certificate", ek_cert}}, "", "", ek_key},
      {"unchained certificate, validation on", true, {{"name", "c"}, {"certificate", unrelated.leaf.pem}},
       "INVALID_ARGUMENT", Errors::kEndorsementKeysInvalidCert, ""},
      {"unchained certificate, validation off", false, {{"name", "c"}, {"certificate", unrelated.leaf.pem}}, "", "",
       unrelated.leaf.key.public_pem},
      {"certificate and its key", true, {{"name", "b"}, {"certificate", ek_cert}, {"public_key", ek_key}}, "", "",
       ek_key},
      {"certificate and another key, validation off", false,
       {{"name", "b"}, {"certificate", ek_cert}, {"public_key", other.public_pem}}, "INVALID_ARGUMENT",
       Errors::kEndorsementKeysMismatchedEk, ""},
      {"certificate where the key goes", false, {{"name", "x"}, {"public_key", ek_cert}}, "INVALID_ARGUMENT",
       Errors::kEndorsementKeysInvalidKey, ""},
      {"neither", false, {{"name", "x"}}, "INVALID_ARGUMENT", Errors::kEndorsementKeysNoEk, ""},
      {"empty certificate", false, {{"name", "x"}, {"certificate", ""}}, "INVALID_ARGUMENT", Errors::kEndorsementKeysEmptyEk, ""},
      {"empty name", false, {{"name", ""}, {"public_key", ek_key}}, "INVALID_ARGUMENT", Errors::kEndorsementKeysEmptyName, ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Settings(true, c.validation);
    ApiReply r = Call(kEks, "create", c.input);
    if (*c.error_type == '\0') {
      ASSERT_TRUE(r.ok) << r.raw;
      ApiReply got = Call(kEks, "get", {{"name", c.input["name"]}});
      ASSERT_TRUE(got.ok) << got.raw;
      EXPECT_EQ(c.stored, got.output["public_key"]);
      EXPECT_TRUE(Call(kEks, "delete", {{"name", c.input["name"]}}).ok);
    } else {
      EXPECT_EQ(c.error_type, r.error_type) << r.raw;
      EXPECT_TRUE(r.HasMessage(c.error)) << r.raw;
    }
    EXPECT_EQ(json::array(), Call(kEks, "list").output);
  }
}

TEST_F(AdminServices, EndorsementKeyNamesAndKeysAreUnique) {
  TestKey key = MakeKey();
  ASSERT_TRUE(Call(kEks, "create", {{"name", "ek1"}, {"public_key", key.public_pem}}).ok);
  ApiReply same_name = Call(kEks, "create", {{"name", "ek1"}, {"public_key", MakeKey().public_pem}});
  EXPECT_EQ("ALREADY_EXISTS", same_name.error_type);
  ASSERT_TRUE(same_name.HasMessage(Errors::kEndorsementKeysAlreadyExists)) << same_name.raw;
  EXPECT_EQ(std::vector<std::string>{"ek1"}, same_name.message_args[0]);
  // The same key in another layout is still the same key.
  ApiReply same_key = Call(kEks, "create", {{"name", "ek2"}, {"public_key", Rewrap(key.public_pem, 40)}});
  EXPECT_EQ("ALREADY_EXISTS", same_key.error_type);
  EXPECT_TRUE(same_key.HasMessage(Errors::kEndorsementKeysAlreadyExistsEk)) << same_key.raw;
  EXPECT_EQ((json{{{"name", "ek1"}}}), Call(kEks, "list").output);
  EXPECT_EQ("NOT_FOUND", Call(kEks, "get", {{"name", "ek2"}}).error_type);
  EXPECT_EQ("NOT_FOUND", Call(kEks, "delete", {{"name", "ek2"}}).error_type);
}

TEST_F(AdminServices, CaChains) {
  TestPki pki;
  TestPki other;
  const struct {
    const char* name;
    json input;
    const char* error_type;  // empty: accepted and kept
    std::string error;
  } kSteps[] = {
      {"root and intermediate", {{"name", "pki"}, {"certificates", {pki.root.pem, pki.intermediate.pem}}}, "", ""},
      {"intermediate of an unknown root", {{"name", "i"}, {"certificates", {other.intermediate.pem}}},
       "INVALID_ARGUMENT", Errors::kCaCertificatesInvalidChain},
      {"no certificates", {{"name", "none"}, {"certificates", json::array()}}, "INVALID_ARGUMENT",
       Errors::kCaCertificatesEmptyCerts},
      {"empty name", {{"name", ""}, {"certificates", {other.root.pem}}}, "INVALID_ARGUMENT", Errors::kCaCertificatesEmptyName},
      // A known name is refused only after its chain validated...
      {"known name, valid chain", {{"name", "pki"}, {"certificates", {other.root.pem}}}, "ALREADY_EXISTS",
       Errors::kCaCertificatesAlreadyExists},
      // ...so a bad chain under a known name is reported as the bad chain.
      {"known name, invalid chain", {{"name", "pki"}, {"certificates", {other.leaf.pem}}}, "INVALID_ARGUMENT",
       Errors::kCaCertificatesInvalidChain},
      {"intermediate under the configured root", {{"name", "sub"}, {"certificates", {pki.intermediate.pem}}}, "",
       ""},
  };
  for (const auto& s : kSteps) {
    SCOPED_TRACE(s.name);
    ApiReply r = Call(kCas, "create", s.input);
    if (*s.error_type == '\0') {
      EXPECT_TRUE(r.ok) << r.raw;
    } else {
      EXPECT_EQ(s.error_type, r.error_type) << r.raw;
      EXPECT_TRUE(r.HasMessage(s.error)) << r.raw;
    }
  }
  EXPECT_EQ((json{{{"name", "pki"}}, {{"name", "sub"}}}), Call(kCas, "list").output);
  ApiReply got = Call(kCas, "get", {{"name", "pki"}});
  ASSERT_TRUE(got.ok) << got.raw;
  EXPECT_EQ((json{pki.root.pem, pki.intermediate.pem}), got.output["certificates"]);
  ApiReply missing = Call(kCas, "get", {{"name", "nope"}});
  EXPECT_EQ("NOT_FOUND", missing.error_type);
  EXPECT_TRUE(missing.message_ids.empty()) << missing.raw;
  EXPECT_EQ("NOT_FOUND", Call(kCas, "delete", {{"name", "nope"}}).error_type);
  EXPECT_TRUE(Call(kCas, "delete", {{"name", "sub"}}).ok);
  EXPECT_EQ((json{{{"name", "pki"}}}), Call(kCas, "list").output);
}

TEST_F(AdminServices, StatusListsWhatIsMissingInOrder) {
  using Ids = std::vector<std::string>;
  TestPki pki;
  // A fresh store requires configured EKs and has none.
  EXPECT_EQ((Ids{Errors::kStatusTpmEkUnset, Errors::kStatusTrustedSoftwareUnset}), StatusIds());
  Settings(true, true);
  EXPECT_EQ((Ids{Errors::kStatusTpmCaUnset, Errors::kStatusTpmEkUnset, Errors::kStatusTrustedSoftwareUnset}), StatusIds());
  ASSERT_TRUE(Call(kEks, "create", {{"name", "ek"}, {"public_key", MakeKey().public_pem}}).ok);
  EXPECT_EQ((Ids{Errors::kStatusTpmCaUnset, Errors::kStatusTrustedSoftwareUnset}), StatusIds());
  ASSERT_TRUE(Call(kCas, "create", {{"name", "pki"}, {"certificates", {pki.root.pem, pki.intermediate.pem}}}).ok);
  EXPECT_EQ((Ids{Errors::kStatusTrustedSoftwareUnset}), StatusIds());
  // The same root configured twice.
  ASSERT_TRUE(Call(kCas, "create", {{"name", "again"}, {"certificates", {pki.root.pem}}}).ok);
  EXPECT_EQ((Ids{Errors::kStatusTpmDupCa, Errors::kStatusTrustedSoftwareUnset}), StatusIds());
  ASSERT_TRUE(Call(kCas, "delete", {{"name", "again"}}).ok);
  ImgdbFixture imgdb(sysroot_);
  ASSERT_TRUE(Call(kBaseImages, "import", {{"imgdb", ApiClient::Base64(imgdb.Make(""))}}).ok);
  EXPECT_EQ((Ids{}), StatusIds());
  // Requirements that are switched off raise nothing.
  ASSERT_TRUE(Call(kEks, "delete", {{"name", "ek"}}).ok);
  Settings(false, true);
  EXPECT_EQ((Ids{}), StatusIds());
}

// The certificate is public; setting it without its private key changes
// nothing (replacing the pair is for the relying-party tests).
TEST_F(AdminServices, CertificateGetAndSetWithoutItsKey) {
  ApiClient anonymous(daemon_->Port(), "");
  ApiReply got = anonymous.Invoke(kCertificate, "get");
  ASSERT_TRUE(got.ok) << got.raw;
  std::string pem = got.output["certificate"];
  EXPECT_EQ(0u, pem.find("-----BEGIN CERTIFICATE-----"));
  ApiReply set = Call(kCertificate, "set", {{"certificate", pem}});
  EXPECT_EQ("INVALID_ARGUMENT", set.error_type);
  EXPECT_TRUE(set.HasMessage(Errors::kCertificateInvalidPair)) << set.raw;
  EXPECT_EQ(1, daemon_->CountInLog("Report signing key not replaced: the text holds no RSA private key"));
  EXPECT_EQ(pem, anonymous.Invoke(kCertificate, "get").output["certificate"]);
}

// Hostile input to every operation: each answer is a defined API error, the
// configuration is unchanged and the daemon keeps serving. A service added
// later joins by adding rows.
TEST_F(AdminServices, HostileInputSweep) {
  TestPki pki;
  const std::string key = pki.leaf.key.public_pem;
  const std::string cert = pki.root.pem;
  const std::string big(1 << 20, 'A');
  const std::string nul_name("ek\0one", 6);
  const json not_string = json::array({1, 2});
  const struct {
    const char* service;
    const char* op;
    json input;
  } kRows[] = {
      // TPM settings
      {kSettings, "update", {{"require_endorsement_keys", "yes"}}},
      {kSettings, "update", {{"require_certificate_validation", 1}}},
      // Endorsement keys
      {kEks, "create", json::object()},
      {kEks, "create", {{"name", 7}, {"public_key", key}}},
      {kEks, "create", {{"name", "ek"}, {"public_key", not_string}}},
      {kEks, "create", {{"name", "ek"}, {"public_key", ""}}},
      {kEks, "create", {{"name", "ek"}, {"public_key", big}}},
      {kEks, "create", {{"name", big}, {"public_key", key}}},
      {kEks, "create", {{"name", "ek"}, {"public_key", "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n"}}},
      {kEks, "create", {{"name", "ek"}, {"public_key", key + "trailing garbage"}}},
      {kEks, "create", {{"name", "ek"}, {"certificate", cert + "trailing garbage"}, {"public_key", key}}},
      {kEks, "create", {{"name", "ek"}, {"public_key", cert}}},
      {kEks, "create", {{"name", "a/b"}, {"public_key", key}}},
      {kEks, "create", {{"name", nul_name}, {"public_key", key}}},
      {kEks, "get", json::object()},
      {kEks, "get", {{"name", ""}}},
      {kEks, "get", {{"name", "../../etc"}}},
      {kEks, "delete", {{"name", 1.5}}},
      {kEks, "delete", {{"name", big}}},
      // CA certificates
      {kCas, "create", {{"name", "ca"}}},
      {kCas, "create", {{"name", "ca"}, {"certificates", cert}}},
      {kCas, "create", {{"name", "ca"}, {"certificates", {1}}}},
      {kCas, "create", {{"name", "ca"}, {"certificates", {""}}}},
      {kCas, "create", {{"name", "ca"}, {"certificates", {big}}}},
      {kCas, "create", {{"name", "ca"}, {"certificates", {key}}}},
      {kCas, "create", {{"name", "ca"}, {"certificates", {cert + "garbage"}}}},
      {kCas, "create", {{"name", "c/a"}, {"certificates", {cert}}}},
      {kCas, "create", {{"name", nul_name}, {"certificates", {cert}}}},
      {kCas, "get", {{"name", json::object()}}},
      {kCas, "delete", {{"name", ""}}},
      // Base images
      {kBaseImages, "import", json::object()},
      {kBaseImages, "import", {{"imgdb", "not base64!"}}},
      {kBaseImages, "import", {{"imgdb", ""}}},
      {kBaseImages, "import", {{"imgdb", ApiClient::Base64(big)}}},
      {kBaseImages, "get", {{"version", nul_name}}},
      {kBaseImages, "get", {{"version", "8/0"}}},
      {kBaseImages, "delete", {{"version", big}}},
      // Raw configuration
      {kRawConfig, "import", json::object()},
      {kRawConfig, "import", {{"config", "%%%"}}},
      {kRawConfig, "import", {{"config", ApiClient::Base64(big)}}},
      {kRawConfig, "export", {{"info_type", 3}}},
      // Certificate
      {kCertificate, "set", {{"certificate", big}}},
      // Report
      {kReport, "create", json::object()},
      {kReport, "create", {{"request", "TPM2"}}},
      {kReport, "create", {{"request", {{"type", "TPM2"}, {"tpm2", {{"document_types", "KMS_AUTH_JWT"}}}}}}},
      {kReport, "create",
       {{"request",
         {{"type", "TPM2"},
          {"tpm2", {{"document_types", {"KMS_AUTH_JWT"}}, {"contexts", json::array()}, {"ek", {{"public_key", big}}}}}}}}},
      {kReport, "create",
       {{"request",
         {{"type", "TPM2"},
          {"tpm2",
           {{"document_types", {"KMS_AUTH_JWT"}}, {"contexts", {"AAAA"}}, {"ek", {{"certificate", key}}}}}}}}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string(row.service) + "." + row.op + " " + row.input.dump().substr(0, 120));
    ApiReply r = Call(row.service, row.op, row.input);
    EXPECT_EQ(200, r.http_status);
    EXPECT_FALSE(r.ok) << r.raw.substr(0, 300);
    EXPECT_TRUE(r.error_type == "INVALID_ARGUMENT" || r.error_type == "ERROR" || r.error_type == "NOT_FOUND")
        << r.raw.substr(0, 300);
  }
  // Bodies that never reach a service, anonymous or not: the framework
  // refuses them as invalid requests before anything recurses over them.
  auto envelope = [](const std::string& input) {
    return std::string(R"({"jsonrpc":"2.0","id":"1","method":"invoke","params":{"serviceId":")") + kEks +
           R"(","operationId":"get","input":)" + input + "}}";
  };
  const struct {
    const char* name;
    std::string body;
  } kRawBodies[] = {
      {"not UTF-8", envelope(R"({"name":"\xff\xfe"})")},
      {"50,000 nested arrays", envelope(std::string(50000, '[') + std::string(50000, ']'))},
      {"50,000 nested objects", envelope([] {
         std::string text;
         for (int i = 0; i < 50000; ++i) text += R"({"a":)";
         return text + "1" + std::string(50000, '}');
       }())},
  };
  Agent::HttpClient raw("127.0.0.1", daemon_->Port());
  for (const auto& b : kRawBodies) {
    for (const char* type : {"application/json", "application/vnd.quarro.lumen.cleanjson"}) {
      SCOPED_TRACE(std::string(b.name) + " as " + type);
      int status = 0;
      std::string reply, error;
      ASSERT_TRUE(raw.Post("/api", type, b.body, &status, &reply, &error)) << error << daemon_->Log();
      EXPECT_EQ(400, status) << reply;
      EXPECT_NE(std::string::npos, reply.find("lumen.invalid.request")) << reply;
    }
  }

  // Nothing was stored and the daemon still serves.
  EXPECT_EQ(json::array(), Call(kEks, "list").output);
  EXPECT_EQ(json::array(), Call(kCas, "list").output);
  EXPECT_EQ(json::array(), Call(kBaseImages, "list").output);
  EXPECT_TRUE(Call(kStatus, "get").ok);
  EXPECT_TRUE(daemon_->Running());
}

}  // namespace
}  // namespace Witnessd::Testing
