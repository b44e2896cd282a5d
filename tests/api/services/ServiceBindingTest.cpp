// The bindings' contract: typed inputs from clean JSON, INVALID_ARGUMENT
// before the implementation runs, outputs in the wire shape, one answer.
#include <gtest/gtest.h>

#include "api/errors/ErrorCatalogue.h"
#include "api/services/CertificateSvc.h"
#include "api/services/EndorsementKeysSvc.h"
#include "api/services/RawConfigSvc.h"
#include "api/services/ReportSvc.h"

namespace {

using namespace Witnessd::AttestApi;
using Lumen::Provider::MethodResult;
using nlohmann::json;
namespace StdErrors = Com::Quarro::Lumen::Std::Errors;

// Fakes record what they were given and answer fixed values.
struct FakeEk : EndorsementKeysSvc {
  CreateSpec created;
  int calls = 0;
  void List(Callback<std::vector<Summary>> done) override { done(std::vector<Summary>{{"ek1"}, {"ek2"}}); }
  void Get(const std::string& name, Callback<Info> done) override { done(Info{name, "PEM"}); }
  void Create(const CreateSpec& args, Callback<Lumen::Void> done) override {
    ++calls;
    created = args;
    done(Lumen::Void{});
  }
  void Delete(const std::string&, Callback<Lumen::Void> done) override {
    done(Errors::NotFound("x"));
  }
};

struct FakeReport : ReportSvc {
  Request got;
  void Create(const Request& request, Callback<Result> done) override {
    got = request;
    Result r;
    r.contexts = std::vector<std::vector<uint8_t>>{{1, 2, 3}};
    done(r);
  }
};

struct FakeRaw : RawConfigSvc {
  std::optional<InfoType> type;
  void Export(std::optional<InfoType> t, Callback<Info> done) override {
    type = t;
    done(Info{{'h', 'i'}, "abcd"});
  }
  void Import(const std::vector<uint8_t>&, Callback<Lumen::Void> done) override { done(Lumen::Void{}); }
};

struct ThrowingCert : CertificateSvc {
  void Get(Callback<Info>) override { throw std::runtime_error("bug"); }
  void Set(const std::string&, Callback<Lumen::Void> done) override {
    done(Lumen::Void{});
    throw std::runtime_error("bug after answering");
  }
};

std::vector<MethodResult> Call(const Lumen::Provider::InterfaceList& list, const std::string& op, json input) {
  Lumen::Provider::Request req;
  req.operation_id = op;
  req.input = std::move(input);
  std::vector<MethodResult> results;
  list.at(0)->operations.at(op)(req, [&](MethodResult r) { results.push_back(std::move(r)); });
  return results;
}

TEST(EndorsementKeysBinding, ChecksInputBeforeTheImplementation) {
  auto impl = std::make_shared<FakeEk>();
  Lumen::Provider::InterfaceList list;
  EndorsementKeysSvc::AsyncServiceBinder::BindImplementation(impl, &list);
  ASSERT_EQ(EndorsementKeysSvc::kServiceId, list.at(0)->service_id);

  const struct {
    const char* name;
    json input;
    const char* bad;  // nullptr: accepted
  } kCases[] = {
      {"name only", {{"name", "ek1"}}, nullptr},
      {"all fields", {{"name", "ek1"}, {"public_key", "P"}, {"certificate", "C"}}, nullptr},
      {"null optional", {{"name", "ek1"}, {"public_key", nullptr}}, nullptr},
      {"unknown field ignored", {{"name", "ek1"}, {"colour", 1}}, nullptr},
      {"empty name passes to the service", {{"name", ""}}, nullptr},
      {"missing name", json::object(), "name"},
      {"numeric name", {{"name", 5}}, "name"},
      {"list public key", {{"name", "ek1"}, {"public_key", json::array()}}, "public_key"},
      {"input not object", json::array(), "input"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    impl->calls = 0;
    auto results = Call(list, "create", c.input);
    ASSERT_EQ(1u, results.size());
    if (c.bad == nullptr) {
      EXPECT_FALSE(results[0].error.has_value());
      EXPECT_TRUE(results[0].output.is_null());
      EXPECT_EQ(1, impl->calls);
    } else {
      ASSERT_TRUE(results[0].error.has_value());
      EXPECT_EQ(StdErrors::Kind::kInvalidArgument, results[0].error->kind);
      EXPECT_EQ(std::vector<std::string>{c.bad}, results[0].error->messages.at(0).args);
      EXPECT_EQ(0, impl->calls);
    }
  }
  EXPECT_EQ(json::parse(R"([{"name":"ek1"},{"name":"ek2"}])"), Call(list, "list", {})[0].output);
  EXPECT_EQ(json::parse(R"({"name":"ek9","public_key":"PEM"})"), Call(list, "get", {{"name", "ek9"}})[0].output);
  EXPECT_EQ(StdErrors::Kind::kNotFound, Call(list, "delete", {{"name", "ek9"}})[0].error->kind);
}

TEST(ReportBinding, DecodesTheTpmRequest) {
  auto impl = std::make_shared<FakeReport>();
  Lumen::Provider::InterfaceList list;
  ReportSvc::AsyncServiceBinder::BindImplementation(impl, &list);
  json good = json::parse(R"({"request": {"type": "TPM2", "tpm2": {
      "document_types": ["KMS_AUTH_JWT", "REPORTING_JWT", "OTHER"], "contexts": ["AQID", ""],
      "ek": {"public_key": "PEM"}}}})");
  auto results = Call(list, "create", good);
  ASSERT_FALSE(results.at(0).error.has_value());
  EXPECT_EQ(json::parse(R"({"contexts": ["AQID"]})"), results[0].output);
  ASSERT_TRUE(impl->got.tpm2.has_value());
  EXPECT_EQ(ReportSvc::RequestType::kTpm2, impl->got.type);
  EXPECT_EQ((std::vector<ReportSvc::DocumentType>{ReportSvc::DocumentType::kKmsAuthJwt,
                                                   ReportSvc::DocumentType::kReportingJwt,
                                                   ReportSvc::DocumentType::kUnknown}),
            impl->got.tpm2->document_types);
  EXPECT_EQ((std::vector<std::vector<uint8_t>>{{1, 2, 3}, {}}), impl->got.tpm2->contexts);
  EXPECT_EQ("PEM", impl->got.tpm2->ek.public_key.value_or(""));
  EXPECT_FALSE(impl->got.tpm2->ek.certificate.has_value());

  // Another request type reaches the service, which reports it unsupported.
  ASSERT_FALSE(Call(list, "create", {{"request", {{"type", "SEV"}}}})[0].error.has_value());
  EXPECT_EQ(ReportSvc::RequestType::kUnknown, impl->got.type);

  const struct {
    const char* name;
    const char* pointer;
    json value;
    const char* bad;
  } kCases[] = {
      {"bad base64 context", "/request/tpm2/contexts/0", "AQI", "request.tpm2.contexts"},
      {"context not string", "/request/tpm2/contexts/0", 1, "request.tpm2.contexts"},
      {"document types not list", "/request/tpm2/document_types", "KMS_AUTH_JWT", "request.tpm2.document_types"},
      {"ek missing", "/request/tpm2/ek", nullptr, "request.tpm2.ek"},
      {"ek certificate number", "/request/tpm2/ek/certificate", 3, "request.tpm2.ek.certificate"},
      {"tpm2 missing", "/request/tpm2", nullptr, "request.tpm2"},
      {"type missing", "/request/type", nullptr, "request.type"},
      {"request not object", "/request", "x", "request"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    json input = good;
    input[json::json_pointer(c.pointer)] = c.value;
    auto r = Call(list, "create", input);
    ASSERT_TRUE(r.at(0).error.has_value());
    EXPECT_EQ(std::vector<std::string>{c.bad}, r[0].error->messages.at(0).args);
  }
}

TEST(RawConfigBinding, InfoTypeEnumeration) {
  auto impl = std::make_shared<FakeRaw>();
  Lumen::Provider::InterfaceList list;
  RawConfigSvc::AsyncServiceBinder::BindImplementation(impl, &list);
  const struct {
    json input;
    std::optional<RawConfigSvc::InfoType> want;
  } kCases[] = {
      {json::object(), std::nullopt},
      {{{"info_type", "COMPRESSED"}}, RawConfigSvc::InfoType::kCompressed},
      {{{"info_type", "PLAIN"}}, RawConfigSvc::InfoType::kPlain},
      {{{"info_type", "plain"}}, RawConfigSvc::InfoType::kUnknown},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.input.dump());
    auto r = Call(list, "export", c.input);
    EXPECT_EQ(c.want, impl->type);
    EXPECT_EQ(json::parse(R"({"config":"aGk=","hash":"abcd"})"), r.at(0).output);
  }
  EXPECT_TRUE(Call(list, "import", {{"config", "not base64!"}}).at(0).error.has_value());
}

TEST(Binding, EscapedExceptionAnswersOnceWithInternalError) {
  Lumen::Provider::InterfaceList list;
  CertificateSvc::AsyncServiceBinder::BindImplementation(std::make_shared<ThrowingCert>(), &list);
  auto before = Call(list, "get", json::object());
  ASSERT_EQ(1u, before.size());
  EXPECT_EQ(StdErrors::Kind::kInternalServerError, before[0].error->kind);
  auto after = Call(list, "set", {{"certificate", "PEM"}});
  ASSERT_EQ(1u, after.size());
  EXPECT_FALSE(after[0].error.has_value());
}

}  // namespace
