// Moving a whole configuration between two real daemons: export from A,
// import into B, and a host attests against B; refused imports change
// nothing; a restarted daemon restores what it had.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "api/errors/ErrorCatalogue.h"
#include "platform/lumen/Json.h"
#include "platform/ssl/SslUtils.h"
#include "tests/platform/ssl/TestCerts.h"
#include "tests/support/ApiClient.h"
#include "tests/support/AttestedBoot.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/SwtpmHostTest.h"
#include "tests/trusted/ImgdbFixture.h"
#include "tools/Agent.h"

namespace Witnessd::Testing {
namespace {

using nlohmann::json;
namespace Errors = Witnessd::AttestApi::Errors;

constexpr const char* kServing = "HTTP endpoint listening on TCP port";
constexpr const char* kRawConfig = "com.quarro.hyv.attestation.raw_config";
constexpr const char* kSettings = "com.quarro.hyv.attestation.tpm2.settings";
constexpr const char* kEks = "com.quarro.hyv.attestation.tpm2.endorsement_keys";
constexpr const char* kCas = "com.quarro.hyv.attestation.tpm2.ca_certificates";
constexpr const char* kBaseImages = "com.quarro.hyv.attestation.os.hyv.base_images";
constexpr const char* kStatus = "com.quarro.hyv.attestation.status";
constexpr const char* kCertificate = "com.quarro.hyv.attestation.certificate";

// One daemon with its own sysroot, port and administrator.
struct Host {
  std::string sysroot;
  std::string token;
  std::unique_ptr<DaemonProcess> daemon;
  std::unique_ptr<ApiClient> api;

  explicit Host(const std::string& name) : sysroot(MakeTempDir("witnessd-" + name)) {
    PrepareSysroot(sysroot);
    token = InstallTrustedIssuer(sysroot);
  }
  ~Host() {
    api.reset();
    daemon.reset();
    std::filesystem::remove_all(sysroot);
  }
  void Start() {
    api.reset();
    daemon = std::make_unique<DaemonProcess>(sysroot, FreePort());
    ASSERT_TRUE(daemon->Start());
    ASSERT_TRUE(daemon->WaitForLog(kServing)) << daemon->Log();
    api = std::make_unique<ApiClient>(daemon->Port(), token);
  }
  json Get(const char* service, const char* op, const json& input = json::object()) {
    ApiReply r = api->Invoke(service, op, input);
    EXPECT_TRUE(r.ok) << r.raw;
    return r.output;
  }
  // View is everything an administrator reads back. Lists are compared as
  // sets: an import stores items in the export's canonical (name) order.
  json View() {
    auto sorted = [](json list) {
      std::sort(list.begin(), list.end());
      return list;
    };
    json view = {{"settings", Get(kSettings, "get")},
                 {"eks", sorted(Get(kEks, "list"))},
                 {"cas", sorted(Get(kCas, "list"))},
                 {"images", Get(kBaseImages, "list")},
                 {"status", Get(kStatus, "get")}};
    for (const json& ek : view["eks"]) {
      view["ek " + ek["name"].get<std::string>()] = Get(kEks, "get", {{"name", ek["name"]}});
    }
    for (const json& ca : view["cas"]) {
      view["ca " + ca["name"].get<std::string>()] = Get(kCas, "get", {{"name", ca["name"]}});
    }
    for (const json& image : view["images"]) {
      view["image " + image["version"].get<std::string>()] = Get(kBaseImages, "get", {{"version", image["version"]}});
    }
    return view;
  }
  // Export gives the compressed export and its hash.
  std::pair<std::string, std::string> Export() {
    json out = Get(kRawConfig, "export", {{"info_type", "COMPRESSED"}});
    return {out.value("config", ""), out.value("hash", "")};
  }
};

class RawConfigService : public SwtpmHostTest {
 protected:
  // ConfigureFully declares settings, two EKs, a CA chain and a base image
  // matching the swtpm host's boot.
  void ConfigureFully(Host& host) {
    TestPki pki;
    ApiClient& api = *host.api;
    ASSERT_TRUE(api.Invoke(kSettings, "update", {{"require_certificate_validation", true}}).ok);
    ASSERT_TRUE(api.Invoke(kCas, "create", {{"name", "swtpm"}, {"certificates", {swtpm_->RootCaPem(),
                                                                                  swtpm_->IssuerCaPem()}}})
                    .ok);
    ASSERT_TRUE(api.Invoke(kCas, "create", {{"name", "other"}, {"certificates", {pki.root.pem}}}).ok);
    ASSERT_TRUE(api.Invoke(kEks, "create", {{"name", "swtpm"}, {"public_key", ek_pem_}}).ok);
    ASSERT_TRUE(api.Invoke(kEks, "create", {{"name", "spare"}, {"public_key", MakeKey().public_pem}}).ok);
    ImgdbFixture imgdb(host.sysroot);
    std::string flags = Agent::ImageDatabaseFlags(Agent::BootPlan{});
    ApiReply r = api.Invoke(kBaseImages, "import", {{"imgdb", ApiClient::Base64(imgdb.Make(flags))}});
    ASSERT_TRUE(r.ok) << r.raw;
  }

  Agent::AttestResult Attest(Host& host, const Agent::AttestOptions& options) {
    return Agent::Attest(tpm_.get(), "127.0.0.1", host.daemon->Port(), options);
  }

};

TEST_F(RawConfigService, ExportFromOneDaemonImportIntoAnother) {
  Host a("config-a");
  Host b("config-b");
  a.Start();
  b.Start();
  ConfigureFully(a);
  // A's EK holds a live session while it exports; B's count starts at 0.
  Agent::AttestOptions hold;
  hold.max_turns = 3;  // proven: the credential activated
  hold.use_certificate = true;
  ASSERT_EQ("", Attest(a, hold).error_id);

  std::string b_certificate = b.Get(kCertificate, "get")["certificate"];
  auto [config, hash] = a.Export();
  ASSERT_FALSE(config.empty());
  ASSERT_EQ(64u, hash.size());
  ApiReply imported = b.api->Invoke(kRawConfig, "import", {{"config", config}});
  ASSERT_TRUE(imported.ok) << imported.raw << b.daemon->Log();

  json view_a = a.View();
  json view_b = b.View();
  EXPECT_EQ(view_a, view_b);
  EXPECT_EQ(hash, b.Export().second);
  // The signing key pair stays with its host.
  EXPECT_EQ(b_certificate, b.Get(kCertificate, "get")["certificate"]);
  EXPECT_NE(a.Get(kCertificate, "get")["certificate"], b_certificate);

  Agent::AttestOptions options;
  options.use_certificate = true;
  Agent::AttestResult r = Attest(b, options);
  EXPECT_TRUE(r.ok) << r.failure << r.error_id << b.daemon->Log();
  // Five proven sessions for the EK on B: nothing was carried over from A's count.
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ("", Attest(b, hold).error_id);
  }
  EXPECT_EQ(Errors::kReportAttestSessionLimit, Attest(b, hold).error_id);
}

TEST_F(RawConfigService, RefusedImportsChangeNothing) {
  Host a("config-a");
  Host b("config-b");
  a.Start();
  b.Start();
  ConfigureFully(a);
  ConfigureFully(b);
  ASSERT_TRUE(b.api->Invoke(kEks, "delete", {{"name", "spare"}}).ok);
  auto [before, before_hash] = b.Export();
  json view_before = b.View();
  std::string plain = a.Get(kRawConfig, "export", {{"info_type", "PLAIN"}})["config"];
  // Hostile texts an administrator could write: A's export naming the
  // signing key pair, with or without a record of the importer's own, and
  // a record of 200,000 nested sub-objects.
  std::vector<uint8_t> plain_bytes;
  ASSERT_TRUE(Lumen::Json::Base64Decode(plain, &plain_bytes));
  auto gzip = [](const std::string& text) {
    std::vector<uint8_t> out;
    EXPECT_TRUE(Orm::Common::Gzip::CompressFromString(text, out));
    return ApiClient::Base64(out);
  };
  auto with_signing_key = [&](bool record) {
    json doc = json::parse(plain_bytes);
    doc["keys"].push_back({"certificate", "attestation", "hyv"});
    if (record) {
      doc["records"].push_back({{"key", "certificate"}, {"component", "attestation"}, {"group", "hyv"},
                                {"instance", ""},
                                {"object", {{"fields", {{"certificate", TestPki().root.pem},
                                                        {"private_key", "importer's key"}}}}}});
    }
    return gzip(doc.dump());
  };
  std::string nested = R"({"format":"witnessd-configstore-1","keys":[["hyv_base_images","attestation","hyv"]],)"
                       R"("records":[{"key":"hyv_base_images","component":"attestation","group":"hyv",)"
                       R"("instance":"1","object":)";
  for (int i = 0; i < 200000; ++i) {
    nested += R"({"fields":{},"subs":[["paks","",)";
  }
  nested += R"({"fields":{}})";
  for (int i = 0; i < 200000; ++i) {
    nested += "]]}";
  }
  nested += "}]}";
  const struct {
    const char* name;
    json input;
  } kCases[] = {
      {"empty", {{"config", ""}}},
      {"not gzip", {{"config", ApiClient::Base64(std::string("plain text, not gzip"))}}},
      {"the plain export", {{"config", plain}}},
      {"planted signing key", {{"config", with_signing_key(true)}}},
      {"signing key listed without a record", {{"config", with_signing_key(false)}}},
      {"200,000 nested sub-objects", {{"config", gzip(nested)}}},
  };
  std::string b_certificate = b.Get(kCertificate, "get")["certificate"];
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ApiReply r = b.api->Invoke(kRawConfig, "import", c.input);
    EXPECT_EQ("ERROR", r.error_type) << r.raw;
    EXPECT_TRUE(r.HasMessage(Errors::kRawConfigImportFailed)) << r.raw;
    EXPECT_EQ(before_hash, b.Export().second);
  }
  EXPECT_EQ(view_before, b.View());
  EXPECT_LE(1, b.daemon->CountInLog("Invalid configuation: decompression failed"));
  EXPECT_EQ(2, b.daemon->CountInLog("Import refused: certificate: key may not be imported")) << b.daemon->Log();
  // Export with an unknown information type fails before the store is read.
  ApiReply unknown = b.api->Invoke(kRawConfig, "export", {{"info_type", "XML"}});
  EXPECT_EQ("INVALID_ARGUMENT", unknown.error_type);
  EXPECT_TRUE(unknown.HasMessage(Errors::kRawConfigInvalidInfoType)) << unknown.raw;
  EXPECT_EQ(1, b.daemon->CountInLog("Unknown info type requested"));
  // After a restart the daemon still signs with its own pair.
  b.Start();
  EXPECT_EQ(b_certificate, b.Get(kCertificate, "get")["certificate"]);
  EXPECT_EQ(view_before, b.View());
}

TEST_F(RawConfigService, PlainAndCompressedExportsCarryTheSameHash) {
  Host a("config-a");
  a.Start();
  ConfigureFully(a);
  json plain = a.Get(kRawConfig, "export", {{"info_type", "PLAIN"}});
  json absent = a.Get(kRawConfig, "export");
  json compressed = a.Get(kRawConfig, "export", {{"info_type", "COMPRESSED"}});
  EXPECT_EQ(plain, absent);
  EXPECT_EQ(plain["hash"], compressed["hash"]);
  EXPECT_NE(plain["config"], compressed["config"]);
  // The compressed form is gzip: base64 of 1f 8b.
  EXPECT_EQ(0u, compressed["config"].get<std::string>().find("H4s"));
}

TEST_F(RawConfigService, RestartRestoresEverything) {
  Host a("config-a");
  a.Start();
  ConfigureFully(a);
  json view = a.View();
  std::string certificate = a.Get(kCertificate, "get")["certificate"];
  a.Start();
  EXPECT_EQ(view, a.View());
  EXPECT_EQ(certificate, a.Get(kCertificate, "get")["certificate"]);
  Agent::AttestOptions options;
  options.use_certificate = true;
  Agent::AttestResult r = Attest(a, options);
  EXPECT_TRUE(r.ok) << r.failure << r.error_id;
}

}  // namespace
}  // namespace Witnessd::Testing
