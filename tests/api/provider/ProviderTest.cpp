// The assembled provider: metadata and introspection without credentials,
// token authentication and privileges, unknown operations, audit entries, and
// the metadata file as authored in the source tree.
#include "api/provider/ProviderAssembly.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "api/provider/Filters.h"
#include "api/provider/Metadata.h"
#include "platform/lumen/Audit.h"
#include "tests/api/TestTokens.h"

namespace {

using namespace Witnessd::AttestApi;
using namespace Witnessd::Testing;
using Lumen::Provider::MethodResult;
using nlohmann::json;
namespace fs = std::filesystem;
namespace StdErrors = Com::Quarro::Lumen::Std::Errors;

class NullLogger : public Lumen::Log::Logger {
 public:
  std::unique_ptr<Lumen::Log::LogRecord> CreateRecord(int, const Lumen::Log::SourceContext&) override {
    return nullptr;
  }
};

struct FakeStatus : StatusSvc {
  int calls = 0;
  void Get(Callback<Info> done) override {
    ++calls;
    done(Info{Health::kOk, {}});
  }
};

struct FakeSettings : Tpm2SettingsSvc {
  void Get(Callback<Info> done) override { done(Info{true, false}); }
  void Update(const UpdateSpec&, Callback<Lumen::Void> done) override { done(Lumen::Void{}); }
};

struct Keys {
  Pkey trusted = MakeRsaKey();
  Pkey untrusted = MakeRsaKey();
};
Keys& TestKeys() {
  static Keys keys;
  return keys;
}

class ProviderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("provider-test-" + std::to_string(getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    files_.metadata = WITNESSD_METADATA_FILE;
    files_.trusted_issuers = (dir_ / "trusted_issuers.pem").string();
    files_.audit_switch = (dir_ / "AuditApiCallEnabled").string();
    std::ofstream(files_.trusted_issuers) << PublicPem(TestKeys().trusted.get());
    QrwAudit_SetLogPath((dir_ / "audit.log").string());
    traffic_ = std::make_shared<Orm::Common::HearthLumen::TrafficTracker>(nullptr);
    errors_ = std::make_shared<Orm::Common::HearthLumen::ErrorsTracker>(nullptr);
  }
  void TearDown() override {
    QrwAudit_SetLogPath("");
    fs::remove_all(dir_);
  }

  std::shared_ptr<Lumen::Provider::ApiProvider> Assemble() {
    ServiceImpls impls;
    impls.status = status_;
    impls.tpm2_settings = std::make_shared<FakeSettings>();
    return AssembleProvider(nullptr, nullptr, std::make_shared<NullLogger>(), traffic_, errors_, impls, files_);
  }

  // Invoke calls |operation| ("<service>.<op>") and returns its one result.
  MethodResult Invoke(Lumen::Provider::ApiProvider& provider, const std::string& operation, json input = json::object(),
                      json security_ctx = json::object()) {
    Lumen::Provider::Request req;
    size_t dot = operation.rfind('.');
    req.service_id = operation.substr(0, dot);
    req.operation_id = operation.substr(dot + 1);
    req.input = std::move(input);
    req.security_ctx = std::move(security_ctx);
    int answers = 0;
    MethodResult out;
    provider.Invoke(req, [&](MethodResult r) {
      ++answers;
      out = std::move(r);
    });
    EXPECT_EQ(1, answers);
    return out;
  }

  std::vector<json> AuditLines() {
    std::vector<json> lines;
    std::ifstream in(dir_ / "audit.log");
    std::string line;
    while (std::getline(in, line)) {
      lines.push_back(json::parse(line));
    }
    return lines;
  }

  fs::path dir_;
  ProviderFiles files_;
  std::shared_ptr<FakeStatus> status_ = std::make_shared<FakeStatus>();
  std::shared_ptr<Orm::Common::HearthLumen::TrafficTracker> traffic_;
  std::shared_ptr<Orm::Common::HearthLumen::ErrorsTracker> errors_;
};

TEST_F(ProviderTest, EveryFrameworkOperationAnswersWithoutCredentials) {
  auto provider = Assemble();
  for (const auto& op : FrameworkOperations()) {
    SCOPED_TRACE(op);
    MethodResult r = Invoke(*provider, op);
    // Operations that need an id answer INVALID_ARGUMENT without one; none is
    // refused for lack of credentials or missing.
    if (r.error) {
      EXPECT_EQ(StdErrors::Kind::kInvalidArgument, r.error->kind);
    }
  }
}

TEST_F(ProviderTest, IntrospectionDescribesBoundServices) {
  auto provider = Assemble();
  MethodResult p = Invoke(*provider, "com.quarro.lumen.std.introspection.provider.get");
  std::ifstream in(WITNESSD_METADATA_FILE, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(json({{"id", "witnessd"}, {"checksum", Lumen::Json::HexDigestSha256(bytes)}}), p.output);

  json services = Invoke(*provider, "com.quarro.lumen.std.introspection.service.list").output;
  EXPECT_NE(services.end(), std::find(services.begin(), services.end(), StatusSvc::kServiceId));
  EXPECT_EQ(services.end(), std::find(services.begin(), services.end(), ReportSvc::kServiceId));  // unbound

  EXPECT_EQ(json({{"operations", {"get", "update"}}}),
            Invoke(*provider, "com.quarro.lumen.std.introspection.service.get", {{"id", Tpm2SettingsSvc::kServiceId}}).output);
  json op = Invoke(*provider, "com.quarro.lumen.std.introspection.operation.get",
                   {{"service_id", StatusSvc::kServiceId}, {"operation_id", "get"}})
                .output;
  EXPECT_EQ(json({{"structure", "com.quarro.hyv.attestation.status.info"}}), op["output_definition"]);
  EXPECT_EQ(StdErrors::Kind::kNotFound,
            Invoke(*provider, "com.quarro.lumen.std.introspection.service.get", {{"id", ReportSvc::kServiceId}}).error->kind);
  EXPECT_EQ(json::array({"get"}), Invoke(*provider, "com.quarro.lumen.metadata.metamodel.service.operation.list",
                                         {{"service_id", StatusSvc::kServiceId}})
                                      .output);
}

TEST_F(ProviderTest, UnknownAndUnboundOperationsAreNotFound) {
  auto provider = Assemble();
  std::string token = MakeToken("RS256", TestKeys().trusted.get(), Claims("admin", {"Attestation.Administer"}));
  const struct {
    const char* op;
    json ctx;
  } kCases[] = {
      {"com.quarro.hyv.attestation.status.put", json::object()},
      {"com.quarro.nothing.get", json::object()},
      {"com.quarro.hyv.attestation.report.create", json::object()},  // open but unbound
      {"com.quarro.hyv.attestation.tpm2.endorsement_keys.delete", Hyv::Authn::TokenSecurityContext(token)},  // unbound
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.op);
    MethodResult r = Invoke(*provider, c.op, json::object(), c.ctx);
    ASSERT_TRUE(r.error.has_value());
    EXPECT_EQ(StdErrors::Kind::kOperationNotFound, r.error->kind);
    EXPECT_EQ("com.quarro.lumen.std.errors.operation_not_found", r.error->messages.at(0).id);
  }
  EXPECT_EQ(4u, errors_->CountOf("resource"));
}

TEST_F(ProviderTest, TokensAndPrivileges) {
  auto provider = Assemble();
  Pkey& good = TestKeys().trusted;
  const struct {
    const char* name;
    json ctx;
    std::optional<StdErrors::Kind> want;  // nullopt: reaches the service
  } kCases[] = {
      {"valid with privilege", Hyv::Authn::TokenSecurityContext(MakeToken("RS256", good.get(), Claims("alice", {"Attestation.Read"}))),
       std::nullopt},
      {"valid with both", Hyv::Authn::TokenSecurityContext(MakeToken("RS256", good.get(), Claims("alice", {"Attestation.Administer", "Attestation.Read"}))),
       std::nullopt},
      {"no token", json::object(), StdErrors::Kind::kUnauthenticated},
      {"missing privilege", Hyv::Authn::TokenSecurityContext(MakeToken("RS256", good.get(), Claims("bob", {"Attestation.Administer"}))),
       StdErrors::Kind::kUnauthorized},
      // Every token the token handler refuses takes this path; its tests have each reason.
      {"untrusted issuer", Hyv::Authn::TokenSecurityContext(MakeToken("RS256", TestKeys().untrusted.get(), Claims("alice", {"Attestation.Read"}))),
       StdErrors::Kind::kUnauthenticated},
      {"other scheme", json({{"schemeId", "com.quarro.other"}, {"token", "x"}}), StdErrors::Kind::kUnauthenticated},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    status_->calls = 0;
    MethodResult r = Invoke(*provider, "com.quarro.hyv.attestation.status.get", json::object(), c.ctx);
    if (!c.want) {
      EXPECT_FALSE(r.error.has_value());
      EXPECT_EQ(1, status_->calls);
    } else {
      ASSERT_TRUE(r.error.has_value());
      EXPECT_EQ(*c.want, r.error->kind);
      EXPECT_EQ(0, status_->calls);
    }
  }
  // A token on an open operation is checked all the same.
  MethodResult open = Invoke(*provider, "com.quarro.lumen.std.introspection.provider.get", json::object(),
                             Hyv::Authn::TokenSecurityContext("not.a.token"));
  EXPECT_EQ(StdErrors::Kind::kUnauthenticated, open.error->kind);
}

TEST_F(ProviderTest, AuditSwitchOnWritesCallAndRefusalEntries) {
  std::ofstream(files_.audit_switch) << "";
  auto provider = Assemble();
  std::string reader = MakeToken("RS256", TestKeys().trusted.get(), Claims("alice", {"Attestation.Read"}));
  Invoke(*provider, "com.quarro.hyv.attestation.status.get", json::object(), Hyv::Authn::TokenSecurityContext(reader));
  Invoke(*provider, "com.quarro.hyv.attestation.tpm2.settings.update", json::object(), Hyv::Authn::TokenSecurityContext(reader));
  Invoke(*provider, "com.quarro.hyv.attestation.status.get", json::object(),
         Hyv::Authn::TokenSecurityContext(MakeToken("RS256", TestKeys().untrusted.get(), Claims("mallory", {}))));
  Invoke(*provider, "com.quarro.hyv.attestation.status.get", json::object(), Hyv::Authn::TokenSecurityContext("garbage"));

  std::vector<json> lines = AuditLines();
  for (const auto& l : lines) {
    for (const char* key : {"eventID", "subject", "object", "result"}) {
      EXPECT_TRUE(l.contains(key)) << l.dump();
    }
  }
  auto find = [&](const std::string& event, const std::string& subject) -> json {
    for (const auto& l : lines) {
      if (l["eventID"] == event && l["subject"] == subject) {
        return l;
      }
    }
    return nullptr;
  };
  json ok = find("api.call", "alice");
  ASSERT_FALSE(ok.is_null());
  EXPECT_EQ("com.quarro.hyv.attestation.status.get", ok["object"]);
  EXPECT_EQ(true, ok["result"]);
  json denied = find("service.access.denied", "alice");
  ASSERT_FALSE(denied.is_null());
  EXPECT_EQ("com.quarro.hyv.attestation.tpm2.settings.update", denied["object"]);
  EXPECT_EQ(false, denied["result"]);
  EXPECT_EQ("Attestation.Administer", denied["items"]["privilege"]);
  json forged = find("authentication.failed", "unverified:mallory");
  ASSERT_FALSE(forged.is_null());
  EXPECT_EQ(false, forged["result"]);
  // A refused token without a subject cannot name one: reported as a product issue.
  json issue = find("product.issue", "");
  ASSERT_FALSE(issue.is_null());
  EXPECT_EQ("hyv", issue["object"]);
  EXPECT_EQ("Service audit", issue["items"]["location"]);
  EXPECT_EQ("One or more mandatory string arguments to function are empty. eventId:authentication.failed;subject:;"
            "object:com.quarro.hyv.attestation.status.get",
            issue["items"]["reason"]);
  EXPECT_EQ(4, std::count_if(lines.begin(), lines.end(), [](const json& l) { return l["eventID"] == "api.call"; }));
}

TEST_F(ProviderTest, AuditSwitchIsDecidedOnceAtAssembly) {
  auto provider = Assemble();
  std::ofstream(files_.audit_switch) << "";  // too late for this provider
  Invoke(*provider, "com.quarro.lumen.std.introspection.provider.get");
  EXPECT_TRUE(AuditLines().empty());
}

// The metadata file as authored: every operation of the API has its
// authentication schemes, privileges, metamodel entry and CLI command; the
// privileges follow the read/administer split.
TEST(MetadataFile, CoversEveryOperationConsistently) {
  std::ifstream in(WITNESSD_METADATA_FILE);
  json doc = json::parse(in);
  json authz;
  std::ifstream stream(WITNESSD_METADATA_FILE);
  ASSERT_TRUE(LoadAuthzInfoMetadata::Load(stream, &authz));
  size_t num_ops = 0;
  for (const auto& [service_id, service] : authz["services"].items()) {
    for (const auto& [op_id, op] : service["operations"].items()) {
      SCOPED_TRACE(service_id + "." + op_id);
      ++num_ops;
      json schemes = doc[kAuthnComponent]["services"][service_id]["operations"][op_id]["schemes"];
      bool open = (service_id == ReportSvc::kServiceId && op_id == "create") ||
                  (service_id == CertificateSvc::kServiceId && op_id == "get");
      EXPECT_EQ(json::array({open ? kNoAuthenticationScheme : Hyv::Authn::kTokenSchemeId}), schemes);
      json privileges = op["privileges"];
      if (open) {
        EXPECT_TRUE(privileges.empty());
      } else {
        bool read = op_id == "get" || op_id == "list" || op_id == "export";
        EXPECT_EQ(json::array({read ? "Attestation.Read" : "Attestation.Administer"}), privileges);
      }
      EXPECT_TRUE(doc[kMetamodelComponent]["services"][service_id]["operations"].contains(op_id));
      const json& commands = doc[kCliComponent]["commands"];
      EXPECT_EQ(1, std::count_if(commands.begin(), commands.end(), [&](const json& c) {
                  return c["service_id"] == service_id && c["operation_id"] == op_id;
                }));
    }
  }
  EXPECT_EQ(20u, num_ops);
}

TEST(AssembleProviderDeathTest, MissingMetadataStopsTheProcess) {
  ProviderFiles files;
  files.metadata = "/nonexistent/attest_lumen_metadata.json";
  EXPECT_DEATH(AssembleProvider(nullptr, nullptr, std::make_shared<NullLogger>(), nullptr, nullptr, {}, files),
               "Error loading file: .*VERIFY apps/witnessd/lumen/provider:");
}

}  // namespace
