// Attestation over the real API: a running daemon, a real swtpm as the
// attested host's TPM driven by the test agent, a base image imported from a
// signed image database whose checksums are what the agent measures.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/sha.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>

#include "api/errors/ErrorCatalogue.h"
#include "tests/platform/ssl/TestCerts.h"
#include "tests/support/ApiClient.h"
#include "tests/support/AttestedBoot.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/SwtpmHostTest.h"
#include "tests/support/TokenCheck.h"
#include "tests/trusted/ImgdbFixture.h"
#include "tools/Agent.h"
#include "tools/HttpClient.h"

namespace Witnessd::Testing {
namespace {

using Agent::Fault;
namespace Errors = Witnessd::AttestApi::Errors;

constexpr const char* kServing = "HTTP endpoint listening on TCP port";
constexpr const char* kReport = "com.quarro.hyv.attestation.report";
constexpr const char* kBaseImages = "com.quarro.hyv.attestation.os.hyv.base_images";
constexpr const char* kSettings = "com.quarro.hyv.attestation.tpm2.settings";
constexpr const char* kEks = "com.quarro.hyv.attestation.tpm2.endorsement_keys";
constexpr const char* kCas = "com.quarro.hyv.attestation.tpm2.ca_certificates";
constexpr const char* kCertificate = "com.quarro.hyv.attestation.certificate";
constexpr const char* kVersion = "8.0.1-12345";

// What the administrator declared, written into the daemon's store before
// it starts.
struct TrustConfig {
  bool require_eks = true;
  bool require_validation = false;
  bool configure_ek = true;
  bool configure_cas = false;
};

class ReportService : public SwtpmHostTest {
 protected:
  void SetUp() override {
    SwtpmHostTest::SetUp();
    sysroot_ = MakeTempDir("witnessd-report");
    PrepareSysroot(sysroot_);
    token_ = InstallTrustedIssuer(sysroot_);
    imgdb_ = std::make_unique<ImgdbFixture>(sysroot_);
  }

  void TearDown() override {
    admin_.reset();
    daemon_.reset();
    std::filesystem::remove_all(sysroot_);
  }

  // Configure declares |trust| through the administration services.
  void Configure(const TrustConfig& trust) {
    ApiReply r = admin_->Invoke(kSettings, "update", {{"require_endorsement_keys", trust.require_eks},
                                                      {"require_certificate_validation", trust.require_validation}});
    ASSERT_TRUE(r.ok) << r.raw;
    admin_->Invoke(kEks, "delete", {{"name", "swtpm"}});
    if (trust.configure_ek) {
      r = admin_->Invoke(kEks, "create", {{"name", "swtpm"}, {"public_key", ek_pem_}});
      ASSERT_TRUE(r.ok) << r.raw;
    }
    admin_->Invoke(kCas, "delete", {{"name", "swtpm-localca"}});
    if (trust.configure_cas) {
      r = admin_->Invoke(kCas, "create",
                         {{"name", "swtpm-localca"}, {"certificates", {swtpm_->RootCaPem(), swtpm_->IssuerCaPem()}}});
      ASSERT_TRUE(r.ok) << r.raw;
    }
  }

  // StartDaemon starts the daemon with |settings| as its settings file when
  // given, and |asan_options| added to the sanitizer's options.
  void StartDaemon(const std::string& settings = "", const std::string& asan_options = "") {
    if (!settings.empty()) {
      std::ofstream(sysroot_ + "/etc/quarro/cpservices/witnessd/config.xml") << settings;
    }
    daemon_ = std::make_unique<DaemonProcess>(sysroot_, FreePort());
    const char* inherited = getenv("ASAN_OPTIONS");
    daemon_->SetEnv("ASAN_OPTIONS", std::string(inherited ? inherited : "") + ":" + asan_options);
    ASSERT_TRUE(daemon_->Start());
    ASSERT_TRUE(daemon_->WaitForLog(kServing)) << daemon_->Log();
    admin_ = std::make_unique<ApiClient>(daemon_->Port(), token_);
  }

  // ImportImage imports a base image whose payloads are what |plan| measures.
  void ImportImage(const Agent::BootPlan& plan) {
    std::string flags = Agent::ImageDatabaseFlags(plan);
    ApiReply r = admin_->Invoke(kBaseImages, "import", {{"imgdb", ApiClient::Base64(imgdb_->Make(flags))}});
    ASSERT_TRUE(r.ok) << r.raw << daemon_->Log();
  }

  // Ready starts the daemon and imports the image once, and declares |trust|.
  void Ready(const TrustConfig& trust) {
    if (daemon_ == nullptr) {
      StartDaemon();
      ImportImage(Agent::BootPlan{});
    }
    Configure(trust);
  }

  Agent::AttestResult Attest(const Agent::AttestOptions& options) {
    return Agent::Attest(tpm_.get(), "127.0.0.1", daemon_->Port(), options);
  }

  // SigningCertificate is the report-signing certificate, as clients get it.
  std::string SigningCertificate() {
    ApiReply r = admin_->Invoke(kCertificate, "get");
    EXPECT_TRUE(r.ok) << r.raw;
    return r.output.value("certificate", "");
  }

  // FirstCall opens a session anonymously, as anyone may, with the EK
  // |ek| ({"certificate": PEM} or {"public_key": PEM}); the session's
  // context, empty when refused.
  std::string FirstCall(ApiClient& client, const nlohmann::json& ek) {
    ApiReply r = client.Invoke(kReport, "create", ReportInput(ek));
    EXPECT_TRUE(r.ok) << r.raw;
    return r.ok ? r.output["contexts"][0].get<std::string>() : "";
  }

  // ReportInput is the input of a Report call with EK |ek| and |contexts|
  // (none on the first call).
  static nlohmann::json ReportInput(const nlohmann::json& ek,
                                    const nlohmann::json& contexts = nlohmann::json::array()) {
    return {{"request",
             {{"type", "TPM2"},
              {"tpm2", {{"document_types", {"KMS_AUTH_JWT"}}, {"contexts", contexts}, {"ek", ek}}}}}};
  }

  // Page returns what GET |path| serves anyone (200 expected).
  std::string Page(const std::string& path) {
    Agent::HttpClient http("127.0.0.1", daemon_->Port());
    int status = 0;
    std::string body, error;
    EXPECT_TRUE(http.Get(path, &status, &body, &error)) << error;
    EXPECT_EQ(200, status);
    return body;
  }
  std::string Metrics() { return Page("/metrics"); }

  std::string HostCertificate() {
    std::string pem;
    EXPECT_TRUE(tpm_->EkCertificatePem(&pem)) << tpm_->LastError();
    return pem;
  }

  std::string sysroot_;
  std::string token_;
  std::unique_ptr<ImgdbFixture> imgdb_;
  std::unique_ptr<DaemonProcess> daemon_;
  std::unique_ptr<ApiClient> admin_;
};

TEST_F(ReportService, SwtpmHostAttestsAndGetsVerifiableTokens) {
  const struct {
    const char* name;
    TrustConfig trust;
    bool use_certificate;
    bool txt;
    std::vector<std::string> types;
    const char* properties;
  } kCases[] = {
      {"EK public key, no TXT", {true, false, true, false}, false, false, {"KMS_AUTH_JWT"}, R"(["secure_boot"])"},
      {"EK certificate through the CA chain, TXT, both documents",
       {true, true, true, true}, true, true, {"KMS_AUTH_JWT", "REPORTING_JWT"}, R"(["secure_boot","txt","drtm"])"},
      {"EK certificate, chain only", {false, true, false, true}, true, false, {"REPORTING_JWT"},
       R"(["secure_boot"])"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Ready(c.trust);
    Agent::AttestOptions options;
    options.use_certificate = c.use_certificate;
    options.boot.txt = c.txt;
    options.document_types = c.types;
    Agent::AttestResult r = Attest(options);
    ASSERT_TRUE(r.ok) << r.failure << r.error_id << daemon_->Log();
    ASSERT_EQ(c.types.size(), r.documents.size());
    std::string cert = SigningCertificate();
    for (size_t i = 0; i < c.types.size(); i++) {
      EXPECT_EQ(c.types[i], r.documents[i].first);
      auto jwt = DecodeToken(r.documents[i].second, cert);
      ASSERT_NE(nullptr, jwt) << "token does not verify with the report-signing certificate";
      std::unique_ptr<char, decltype(&free)> props(jwt_get_grants_json(jwt.get(), "attested_properties"), free);
      ASSERT_NE(nullptr, props);
      EXPECT_STREQ(c.properties, props.get());
      EXPECT_EQ(c.types[i] == "KMS_AUTH_JWT", jwt_get_grant(jwt.get(), "aud") != nullptr);
    }
    EXPECT_EQ(1, daemon_->CountInLog("Attestation complete for session ID " + std::to_string(r.session_id) +
                                     " with HYV version " + kVersion));
    // The attested image now shows when it was last attested.
    ApiReply listed = admin_->Invoke(kBaseImages, "list");
    ASSERT_TRUE(listed.ok) << listed.raw;
    ASSERT_EQ(1u, listed.output.size());
    ASSERT_TRUE(listed.output[0]["last_attested_time"].is_string()) << listed.raw;
    EXPECT_EQ(20u, listed.output[0]["last_attested_time"].get<std::string>().size());
  }
}

// PairPem is |cert| followed by its private key, as certificate set takes them.
std::string PairPem(const TestCert& cert) {
  std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_PrivateKey(out.get(), cert.key.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  return cert.pem + BioString(out.get());
}

// EkIdHex is what a relying party computes for a host's EK: the SHA-256 of
// its SubjectPublicKeyInfo DER, lower-case hex.
std::string EkIdHex(const std::string& ek_pem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> in(BIO_new_mem_buf(ek_pem.data(), -1), BIO_free);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(PEM_read_bio_PUBKEY(in.get(), nullptr, nullptr, nullptr),
                                                          EVP_PKEY_free);
  unsigned char* der = nullptr;
  int len = i2d_PUBKEY(key.get(), &der);
  unsigned char digest[32];
  SHA256(der, static_cast<size_t>(len), digest);
  OPENSSL_free(der);
  char hex[65];
  for (int i = 0; i < 32; ++i) {
    std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
  }
  return hex;
}

// ClaimNames lists the claims of |token|'s payload in the order written.
std::string ClaimNames(const std::string& token) {
  std::string part = token.substr(token.find('.') + 1, token.rfind('.') - token.find('.') - 1);
  std::replace(part.begin(), part.end(), '-', '+');
  std::replace(part.begin(), part.end(), '_', '/');
  size_t padding = (4 - part.size() % 4) % 4;
  part.append(padding, '=');
  std::string text(part.size() / 4 * 3, '\0');
  int len = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                            reinterpret_cast<const unsigned char*>(part.data()), static_cast<int>(part.size()));
  text.resize(static_cast<size_t>(len) - padding);
  std::string names;
  const nlohmann::ordered_json claims = nlohmann::ordered_json::parse(text);
  for (const auto& item : claims.items()) {
    names += (names.empty() ? "" : " ") + item.key();
  }
  return names;
}

// A relying party fetches the JWK Set and verifies tokens with the key their
// "kid" names; the token says which host (the EK's id) and has an id of its
// own. After the administrator replaces the signing pair, tokens signed
// before still verify through the JWK Set, also after a restart, and new
// tokens name the new key. Pairs that cannot sign are refused.
TEST_F(ReportService, RelyingPartiesVerifyThroughTheJwks) {
  Ready({});
  auto jwks = [&] { return Page("/jwks.json"); };
  auto kids = [](const std::string& jwks_text) {
    std::vector<std::string> out;
    const nlohmann::json set = nlohmann::json::parse(jwks_text);
    for (const auto& k : set["keys"]) {
      out.push_back(k["kid"]);
    }
    return out;
  };
  auto header_kid = [](const std::string& token) { return Hearth::Jwt::Decode(token)->header.value("kid", ""); };
  Agent::AttestOptions both;
  both.document_types = {"KMS_AUTH_JWT", "REPORTING_JWT"};
  Agent::AttestResult before = Attest(both);
  ASSERT_TRUE(before.ok) << before.failure << before.error_id;
  const std::string old_kid = header_kid(before.documents[0].second);
  ASSERT_EQ(std::vector<std::string>{old_kid}, kids(jwks()));
  std::vector<std::string> jtis;
  for (const auto& [type, token] : before.documents) {
    auto jwt = DecodeTokenWithJwks(token, jwks());
    ASSERT_NE(nullptr, jwt) << type;
    EXPECT_EQ(EkIdHex(ek_pem_), jwt_get_grant(jwt.get(), "sub"));
    jtis.push_back(jwt_get_grant(jwt.get(), "jti"));
    EXPECT_EQ(36u, jtis.back().size());
    // The new claims come after the ones relying parties already read.
    EXPECT_EQ(type == "KMS_AUTH_JWT" ? "iat exp iss aud os os_version attested_properties sub jti"
                                     : "iat exp iss os os_version attested_properties sub jti",
              ClaimNames(token));
  }
  EXPECT_NE(jtis[0], jtis[1]);

  const TestCert signing = MakeCert(MakeKey(2048), "Relying party signing", nullptr, false);
  const TestCert other = MakeCert(MakeKey(2048), "Other", nullptr, false);
  const TestCert small = MakeCert(MakeKey(1024), "Small", nullptr, false);
  const TestCert ec = MakeCert(MakeKey(), "EC", nullptr, false);
  const struct {
    const char* name;
    std::string pem;
    bool anonymous;
    const char* error_type;
  } kRefused[] = {
      {"certificate of another key", signing.pem + PairPem(other).substr(other.pem.size()), false,
       "INVALID_ARGUMENT"},
      {"no private key", signing.pem, false, "INVALID_ARGUMENT"},
      {"1024-bit key", PairPem(small), false, "INVALID_ARGUMENT"},
      {"EC key", PairPem(ec), false, "INVALID_ARGUMENT"},
      {"two certificates", other.pem + PairPem(signing), false, "INVALID_ARGUMENT"},
      {"anonymous caller", PairPem(signing), true, "UNAUTHENTICATED"},
  };
  for (const auto& c : kRefused) {
    SCOPED_TRACE(c.name);
    ApiClient anonymous(daemon_->Port(), "");
    ApiReply r = (c.anonymous ? anonymous : *admin_).Invoke(kCertificate, "set", {{"certificate", c.pem}});
    EXPECT_EQ(c.error_type, r.error_type) << r.raw;
    EXPECT_EQ(!c.anonymous, r.HasMessage(Errors::kCertificateInvalidPair)) << r.raw;
  }
  ASSERT_EQ(std::vector<std::string>{old_kid}, kids(jwks()));

  ApiReply set = admin_->Invoke(kCertificate, "set", {{"certificate", PairPem(signing)}});
  ASSERT_TRUE(set.ok) << set.raw;
  EXPECT_EQ(signing.pem, SigningCertificate());
  for (bool restarted : {false, true}) {
    SCOPED_TRACE(restarted ? "after a restart" : "at once");
    if (restarted) {
      admin_.reset();
      daemon_.reset();
      StartDaemon();
    }
    std::string published = jwks();
    ASSERT_EQ(2u, kids(published).size()) << published;
    EXPECT_EQ(old_kid, kids(published)[1]);
    EXPECT_NE(nullptr, DecodeTokenWithJwks(before.documents[0].second, published));
    Agent::AttestResult after = Attest({});
    ASSERT_TRUE(after.ok) << after.failure << after.error_id;
    EXPECT_EQ(kids(published)[0], header_kid(after.documents[0].second));
    EXPECT_NE(nullptr, DecodeTokenWithJwks(after.documents[0].second, published));
    EXPECT_NE(nullptr, DecodeToken(after.documents[0].second, signing.pem));
  }
}

// Report errors provoked by what a real TPM's host sends: how the EK is
// identified, and a fault a real TPM makes real (the session manager's own
// tests map every host fault, and unknown software, in process).
TEST_F(ReportService, EachReportErrorForReal) {
  const struct {
    const char* name;
    TrustConfig trust;
    bool use_certificate;
    Fault fault;
    const char* error;
  } kCases[] = {
      {"unknown TPM", {true, false, false, false}, false, Fault::kNone, Errors::kReportUnknownTpm},
      {"untrusted TPM CA", {false, true, false, false}, true, Fault::kNone, Errors::kReportUnknownTpmCa},
      {"certificate required", {true, true, true, true}, false, Fault::kNone, Errors::kReportTpmCertRequired},
      {"PCR extended after the log", {}, false, Fault::kPcrAfterLog, Errors::kReportAttestVerifyFailed},
  };
  // The cases follow a certificate that attested: the trust the daemon
  // cached for it must not outlive the deletion of its CA chain.
  Ready({true, true, true, true});
  Agent::AttestOptions by_certificate;
  by_certificate.use_certificate = true;
  ASSERT_TRUE(Attest(by_certificate).ok);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Ready(c.trust);
    Agent::AttestOptions options;
    options.use_certificate = c.use_certificate;
    options.fault = c.fault;
    Agent::AttestResult r = Attest(options);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ("", r.failure);
    EXPECT_EQ("ERROR", r.error_type);
    EXPECT_EQ(c.error, r.error_id);
  }
  // The daemon went on serving through all of them.
  Ready({});
  Agent::AttestResult r = Attest({});
  EXPECT_TRUE(r.ok) << r.failure << r.error_id;
}

// A compromised host with a genuine TPM: it booted an untrusted kernel, which
// the TPM measured, then sends the event log of the trusted boot with PCR
// reads that match that log, and has its TPM vouch for them: with an
// attestation structure it wrote and had the AK sign, or with a genuine quote
// over a PCR neither boot touches. Lenient quote checks issue a token for
// both; the default checks refuse both, and the same TPM then attests an
// honest boot of the trusted image.
TEST_F(ReportService, CompromisedHostCannotPassOffATrustedLog) {
  Agent::BootPlan untrusted;
  untrusted.payload_digests[Agent::kKernelPayload] = std::vector<uint8_t>(32, 0x66);
  for (bool strict : {true, false}) {
    SCOPED_TRACE(strict ? "strict quote checks" : "lenient quote checks");
    if (!strict) {
      daemon_.reset();
      std::ofstream(sysroot_ + "/etc/quarro/cpservices/witnessd/config.xml")
          << "<config><strictQuoteChecks>false</strictQuoteChecks></config>";
      StartDaemon();
      EXPECT_EQ(1, daemon_->CountInLog("Strict quote checks disabled")) << daemon_->Log();
    }
    Ready({});
    for (Fault fault : {Fault::kForgedAttest, Fault::kPartialQuote}) {
      SCOPED_TRACE(fault == Fault::kForgedAttest ? "host-written attestation" : "quote of PCR 8 only");
      Agent::AttestOptions options;
      options.measured_boot = untrusted;
      options.fault = fault;
      Agent::AttestResult r = Attest(options);
      EXPECT_EQ("", r.failure);
      if (strict) {
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(Errors::kReportAttestVerifyFailed, r.error_id);
      } else {
        EXPECT_TRUE(r.ok) << r.error_id << daemon_->Log();
      }
    }
    if (strict) {
      EXPECT_EQ(1, daemon_->CountInLog("TPM2VLIB: Quote not generated by the TPM; magic: 0x00000000"));
      EXPECT_EQ(1, daemon_->CountInLog("TPM2VLIB: Quoted PCR selection differs from the requested selection"));
    }
    Agent::AttestResult honest = Attest({});
    EXPECT_TRUE(honest.ok) << honest.failure << honest.error_id;
  }
}

// The EK map tells the EKs an administrator configured from those that only
// live sessions hold, whatever the order of sessions and settings changes.
TEST_F(ReportService, OnlyConfiguredEksCountAsConfigured) {
  auto require = [&](bool eks) {
    ApiReply r = admin_->Invoke(kSettings, "update", {{"require_endorsement_keys", eks}});
    ASSERT_TRUE(r.ok) << r.raw;
  };
  Agent::AttestOptions by_certificate;
  by_certificate.use_certificate = true;

  // A configured EK attests while EKs are not required; it stays configured
  // after its session ended.
  Ready({false, true, true, true});
  ASSERT_TRUE(Attest(by_certificate).ok);
  require(true);
  Agent::AttestResult r = Attest(by_certificate);
  EXPECT_TRUE(r.ok) << r.error_id;

  // An EK that is not configured, with a session in progress when EKs become
  // required: neither a new attestation nor the session's next call passes.
  Ready({false, true, false, true});
  ApiClient anonymous(daemon_->Port(), "");
  std::string first_error;
  Agent::ReportTransport http = Agent::OverHttp("127.0.0.1", daemon_->Port(), by_certificate.content_type);
  auto switch_then_call = [&](const Agent::ReportCall& call, Agent::ReportAnswer* out, std::string* failure) {
    if (call.turn == 1) {
      require(true);
      ApiReply other = anonymous.Invoke(kReport, "create", ReportInput({{"certificate", call.ek_certificate_pem}}));
      first_error = other.raw;
    }
    return http(call, out, failure);
  };
  r = Agent::AttestWith(tpm_.get(), by_certificate, switch_then_call);
  EXPECT_EQ(Errors::kReportUnknownTpm, r.error_id) << r.failure;
  EXPECT_NE(std::string::npos, first_error.find(Errors::kReportUnknownTpm)) << first_error;
  EXPECT_EQ(1, daemon_->CountInLog("End session " + std::to_string(r.session_id) + ": failed"));
}

// MetricValue reads one series of a /metrics page; 0 when it is absent.
double MetricValue(const std::string& page, const std::string& series) {
  size_t at = page.find("\n" + series + " ");
  return at == std::string::npos ? 0 : std::stod(page.substr(at + series.size() + 2));
}

// A fresh daemon lists every family at zero, the known outcomes included;
// then the attestation series move with attestations.
TEST_F(ReportService, MetricsMoveWithAttestations) {
  StartDaemon();
  Agent::HttpClient http("127.0.0.1", daemon_->Port());
  auto page = [&] {
    int status = 0;
    std::string body, error;
    EXPECT_TRUE(http.Get("/metrics", &status, &body, &error)) << error;
    EXPECT_EQ(200, status);
    return body;
  };
  const std::string success = R"(witnessd_attestations_total{outcome="success"})";
  const std::string verify_failed = R"(witnessd_attestations_total{outcome="attest_verify_failed"})";
  const std::string unknown_tpm = R"(witnessd_attestations_total{outcome="unknown_tpm"})";
  const std::string calls = R"(witnessd_api_calls_total{operation="com.quarro.hyv.attestation.report.create",result="ok"})";
  const std::string ended = R"(witnessd_attestation_session_seconds_count{outcome="success"})";
  const std::string fresh = page();
  for (const char* line : {
           "# TYPE witnessd_api_calls_total counter",
           "# TYPE witnessd_api_request_seconds histogram",
           "witnessd_api_request_seconds_bucket{le=\"0.005\"} 0",
           "witnessd_api_request_seconds_count 0",
           "witnessd_attestations_total{outcome=\"success\"} 0",
           "witnessd_attestations_total{outcome=\"unknown_tpm_ca\"} 0",
           "witnessd_attestations_total{outcome=\"attest_verify_failed\"} 0",
           "witnessd_attestation_sessions 0",
           "witnessd_attestation_sessions_peak 0",
           "witnessd_attestation_session_seconds_bucket{outcome=\"failed\",le=\"0.025\"} 0",
           "witnessd_attestation_session_seconds_bucket{outcome=\"success\",le=\"+Inf\"} 0",
       }) {
    EXPECT_NE(std::string::npos, fresh.find(std::string(line) + "\n")) << line << "\nin:\n" << fresh;
  }
  ImportImage(Agent::BootPlan{});
  Ready({});
  std::string before = page();

  ASSERT_TRUE(Attest({}).ok);
  Agent::AttestOptions tampered;
  tampered.fault = Fault::kPcrAfterLog;
  EXPECT_FALSE(Attest(tampered).ok);
  Ready({true, false, false, false});
  EXPECT_FALSE(Attest({}).ok);

  std::string after = page();
  EXPECT_EQ(1, MetricValue(after, success) - MetricValue(before, success)) << after;
  EXPECT_EQ(1, MetricValue(after, verify_failed) - MetricValue(before, verify_failed));
  EXPECT_EQ(1, MetricValue(after, unknown_tpm) - MetricValue(before, unknown_tpm));
  EXPECT_EQ(1, MetricValue(after, ended) - MetricValue(before, ended));
  // Three turns answered with a context, and the documents, for the success;
  // three turns for the failed one.
  EXPECT_EQ(7, MetricValue(after, calls) - MetricValue(before, calls));
  EXPECT_EQ(0, MetricValue(after, "witnessd_attestation_sessions"));
  EXPECT_LT(0, MetricValue(after, "witnessd_api_request_seconds_count"));
}

// Strangers fill the session places of the host's EK, or of the whole table,
// with first calls that anyone can make (EK certificates and keys are
// public); the host still attests: its session takes the place of the
// oldest stranger's, whose next call then names an unknown session.
TEST_F(ReportService, StrangersCannotHoldTheHostsSessionPlaces) {
  const std::string evicted = R"(witnessd_attestations_total{outcome="evicted"})";
  std::vector<std::string> decoys;  // configured EKs of other hosts
  for (int i = 0; i < 5; ++i) {
    decoys.push_back(MakeKey(2048).public_pem);
  }
  const struct {
    const char* name;
    const char* settings;
    TrustConfig trust;
    bool host_by_certificate;
    bool strangers_use_decoys;  // else the host's own EK certificate
    int strangers;
  } kCases[] = {
      {"the host's EK places, with its certificate", "", {true, true, true, true}, true, false, 5},
      {"every place of the table, with other hosts' keys",
       "<config><maxSessions>100</maxSessions><maxSessionsPerEk>20</maxSessionsPerEk></config>",
       {true, false, true, false}, false, true, 100},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    // A restart with the case's settings; the store stays.
    bool first = daemon_ == nullptr;
    daemon_.reset();
    StartDaemon(c.settings);
    if (first) {
      ImportImage(Agent::BootPlan{});
      for (size_t i = 0; i < decoys.size(); ++i) {
        ApiReply r = admin_->Invoke(kEks, "create", {{"name", "decoy" + std::to_string(i)}, {"public_key", decoys[i]}});
        ASSERT_TRUE(r.ok) << r.raw;
      }
    }
    Configure(c.trust);
    ApiClient stranger(daemon_->Port(), "");
    std::vector<std::string> held;
    for (int i = 0; i < c.strangers; ++i) {
      nlohmann::json ek = c.strangers_use_decoys ? nlohmann::json{{"public_key", decoys[i % decoys.size()]}}
                                                 : nlohmann::json{{"certificate", HostCertificate()}};
      held.push_back(FirstCall(stranger, ek));
    }
    EXPECT_EQ(c.strangers, MetricValue(Metrics(), "witnessd_attestation_sessions"));

    Agent::AttestOptions options;
    options.use_certificate = c.host_by_certificate;
    Agent::AttestResult r = Attest(options);
    EXPECT_TRUE(r.ok) << r.error_id << r.failure;
    EXPECT_EQ(1, MetricValue(Metrics(), evicted));
    EXPECT_EQ(1, daemon_->CountInLog("Ending unproven session "));

    // The oldest stranger's session is gone, the next one's lives on.
    for (size_t i = 0; i < 2; ++i) {
      nlohmann::json ek = c.strangers_use_decoys ? nlohmann::json{{"public_key", decoys[i % decoys.size()]}}
                                                 : nlohmann::json{{"certificate", HostCertificate()}};
      ApiReply next = stranger.Invoke(kReport, "create", ReportInput(ek, {held[i]}));
      EXPECT_FALSE(next.ok);
      EXPECT_EQ(i == 0, next.HasMessage(Errors::kReportAttestUnknownSession)) << next.raw;
    }
  }
}

// Sessions whose caller activated the credential hold the TPM: they keep
// their places, and a further session of the EK is refused.
TEST_F(ReportService, ProvenSessionsStillMeetTheSessionLimit) {
  Ready({});
  Agent::AttestOptions hold;
  hold.max_turns = 3;  // first call, AK created, credential activated
  for (int i = 0; i < 5; ++i) {
    Agent::AttestResult r = Attest(hold);
    ASSERT_TRUE(r.error_id.empty() && r.failure.empty()) << r.error_id << r.failure;
  }
  ApiClient stranger(daemon_->Port(), "");
  ApiReply refused = stranger.Invoke(kReport, "create", ReportInput({{"public_key", ek_pem_}}));
  EXPECT_TRUE(refused.HasMessage(Errors::kReportAttestSessionLimit)) << refused.raw;
  EXPECT_EQ(Errors::kReportAttestSessionLimit, Attest({}).error_id);
  EXPECT_EQ(0, daemon_->CountInLog("Ending unproven session "));
  EXPECT_EQ(5, MetricValue(Metrics(), "witnessd_attestation_sessions"));
}

// VmRssKib is the resident memory of process |pid|.
long VmRssKib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string text((std::istreambuf_iterator<char>(status)), std::istreambuf_iterator<char>());
  return std::stol(text.substr(text.find("VmRSS:") + 6));
}

// Anonymous callers flood the daemon with EK certificates: new ones just within the size limit, each
// with a key of its own and sent in three text layouts, and one of 0.9 MB in ever new layouts, which the
// daemon refuses as invalid. Its memory stays flat. The last certificate, found not to chain, chains once
// the administrator adds its CA.
TEST_F(ReportService, EkCertificateFloodLeavesMemoryFlat) {
  StartDaemon("", "quarantine_size_mb=16");  // the sanitizer holds less freed memory back: what the daemon keeps counts
  Ready({false, true, false, false});
  ApiClient anonymous(daemon_->Port(), "");
  auto report = [&](const std::string& pem) {
    return anonymous.Invoke(kReport, "create", ReportInput({{"certificate", pem}}));
  };
  const TestCert ca = MakeCert(MakeKey(), "Flood CA", nullptr, true);
  const std::string oversize = MakeSizedCert(ca, 900000).pem;
  long before = 0;
  std::string pem;
  for (int round = 0; round < 65 && !HasFailure(); ++round) {
    before = round == 5 ? VmRssKib(daemon_->Pid()) : before;  // its threads and allocator warmed up
    pem = MakeSizedCert(ca, 16000).pem;
    for (const std::string& layout : {pem, Rewrap(pem, 24), Rewrap(pem, 32)}) {
      EXPECT_TRUE(report(layout).HasMessage(Errors::kReportUnknownTpmCa));
    }
    EXPECT_EQ("INVALID_ARGUMENT", report(Rewrap(oversize, 16 + round)).error_type);
  }
  const long after = VmRssKib(daemon_->Pid());
  EXPECT_LT(after - before, 32 * 1024) << before << " KiB before, " << after << " KiB after";
  EXPECT_EQ(65, daemon_->CountInLog("Invalid EK certificate format"));
  ASSERT_TRUE(admin_->Invoke(kCas, "create", {{"name", "flood-ca"}, {"certificates", {ca.pem}}}).ok);
  ApiReply r = report(pem);
  EXPECT_TRUE(r.ok) << r.raw;
}

TEST_F(ReportService, RequestChecksComeBeforeTheEk) {
  Ready({});
  ApiClient anonymous(daemon_->Port(), "");
  auto request = [&](nlohmann::json types, nlohmann::json ek, nlohmann::json contexts = nlohmann::json::array(),
                     std::string type = "TPM2") {
    return nlohmann::json{
        {"request", {{"type", type}, {"tpm2", {{"document_types", types}, {"contexts", contexts}, {"ek", ek}}}}}};
  };
  nlohmann::json key = {{"public_key", ek_pem_}};
  const struct {
    const char* name;
    nlohmann::json input;
    const char* error_type;
    const char* message;  // empty: none
  } kCases[] = {
      {"three document types", request({"KMS_AUTH_JWT", "KMS_AUTH_JWT", "REPORTING_JWT"}, nlohmann::json::object()),
       "INVALID_ARGUMENT", ""},
      {"no document type", request(nlohmann::json::array(), key), "INVALID_ARGUMENT", ""},
      {"two contexts", request({"KMS_AUTH_JWT"}, key, {"AA==", "AA=="}), "INVALID_ARGUMENT", ""},
      {"unknown document type", request({"PDF"}, key), "INVALID_ARGUMENT",
       Errors::kReportInvalidDocType},
      {"no EK", request({"KMS_AUTH_JWT"}, nlohmann::json::object()), "INVALID_ARGUMENT", ""},
      {"both EK forms", request({"KMS_AUTH_JWT"}, {{"public_key", ek_pem_}, {"certificate", ek_pem_}}),
       "INVALID_ARGUMENT", ""},
      {"EK not a key", request({"KMS_AUTH_JWT"}, {{"public_key", "not a PEM"}}), "INVALID_ARGUMENT", ""},
      {"unsupported request type", request({"KMS_AUTH_JWT"}, key, nlohmann::json::array(), "TPM1"),
       "INVALID_ARGUMENT", ""},
      {"garbage context", request({"KMS_AUTH_JWT"}, key, {"////"}), "ERROR",
       Errors::kReportAttestInvalidInput},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ApiReply r = anonymous.Invoke(kReport, "create", c.input);
    EXPECT_FALSE(r.ok) << r.raw;
    EXPECT_EQ(c.error_type, r.error_type) << r.raw;
    if (*c.message != '\0') {
      EXPECT_TRUE(r.HasMessage(c.message)) << r.raw;
    }
  }
  EXPECT_EQ(1, daemon_->CountInLog("Unsupported number of document types specified: 3"));
}

}  // namespace
}  // namespace Witnessd::Testing
