#include <gtest/gtest.h>

#include "platform/lumen/Json.h"
#include "platform/lumen/JsonRpc.h"
#include "platform/lumen/Localizer.h"

namespace {

using nlohmann::json;
namespace Errors = Com::Quarro::Lumen::Std::Errors;

TEST(FormatMessage, FillsNamedPlaceholdersInOrder) {
  const struct {
    const char* text;
    std::vector<std::string> args;
    const char* want;
  } kCases[] = {
      {"A TPM Endorsement Key with name '{name}' already exists.", {"ek1"}, "A TPM Endorsement Key with name 'ek1' already exists."},
      {"No placeholder.", {"x"}, "No placeholder."},
      {"'{a}' and '{b}'", {"1", "2"}, "'1' and '2'"},
      {"'{a}' and '{a}'", {"1"}, "'1' and '1'"},          // same name, same value
      {"'{a}' and '{b}'", {"1"}, "'1' and '{b}'"},        // missing argument stays
      {"unbalanced {name", {"x"}, "unbalanced {name"},
      {"{}", {"x"}, "x"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.want, Lumen::L10n::LocalizableMessageHelpers::formatMessage(c.text, c.args));
  }
}

TEST(Localizer, TemplateFromSourceElseFromMessage) {
  Lumen::L10n::Localizer localizer("en_US", [](const std::string& id) {
    return id == "known" ? std::string("Known '{x}'.") : std::string();
  });
  EXPECT_EQ("Known 'v'.", localizer.Format({"known", "ignored", {"v"}}));
  EXPECT_EQ("Own 'v'.", localizer.Format({"other", "Own '{x}'.", {"v"}}));
}

TEST(ParseLocaleHeader, AcceptsLanguageRangesOnly) {
  const struct {
    const char* value;
    bool ok;
    const char* first;
  } kCases[] = {
      {"en_US", true, "en_US"},
      {"en-US", true, "en_US"},
      {"de-DE,en;q=0.5", true, "de_DE"},
      {"*", true, "*"},
      {"en;q=1", true, "en"},
      {"en;q=1.000", true, "en"},
      {"", false, ""},
      {"en;q=1.5", false, ""},
      {"en;q=2", false, ""},
      {"en,", false, ""},
      {"e n", false, ""},
      {"en_US\r\nX: y", false, ""},
      {"toolonglanguage", false, ""},
      {"en--US", false, ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.value);
    std::string first;
    EXPECT_EQ(c.ok, Lumen::L10n::ParseLocaleHeader(c.value, &first));
    if (c.ok) {
      EXPECT_EQ(c.first, first);
    }
  }
}

TEST(Base64, RoundTripsEveryLengthAndRejectsNonCanonical) {
  std::vector<uint8_t> bytes;
  for (int n = 0; n < 20; ++n) {
    SCOPED_TRACE(n);
    std::vector<uint8_t> back;
    ASSERT_TRUE(Lumen::Json::Base64Decode(Lumen::Json::Base64Encode(bytes), &back));
    EXPECT_EQ(bytes, back);
    bytes.push_back(static_cast<uint8_t>(n * 37 + 200));
  }
  for (const char* bad : {"A", "AB", "ABC", "AB=C", "A===", "AB-_", "QQ==QQ==", "QR==", "QUI=x", "QUJ="}) {
    SCOPED_TRACE(bad);
    std::vector<uint8_t> out;
    EXPECT_FALSE(Lumen::Json::Base64Decode(bad, &out));
  }
}

TEST(Undecorate, RemovesStructureAndErrorWrappersAtAnyDepth) {
  json decorated = json::parse(R"({"request": {"STRUCTURE": {"a.request": {"type": "TPM2",
      "list": [{"STRUCTURE": {"a.row": {"name": "x"}}}]}}}})");
  json want = json::parse(R"({"request": {"type": "TPM2", "list": [{"name": "x"}]}})");
  EXPECT_EQ(want, Lumen::Json::Undecorate(decorated));
  // An object that only looks similar is kept.
  json lookalike = json::parse(R"({"STRUCTURE": {"a": 1}})");
  EXPECT_EQ(lookalike, Lumen::Json::Undecorate(lookalike));
}

TEST(TypeRegistry, DecoratesStructuresInListsAndOptionals) {
  Lumen::Json::TypeRegistry types(json::parse(R"({
    "structures": {"s.row": {"fields": {"name": "string"}},
                   "s.info": {"fields": {"rows": {"list": {"structure": "s.row"}}, "best": {"optional": {"structure": "s.row"}}}}},
    "services": {"s": {"operations": {"get": {"output": {"structure": "s.info"}}}}}})"));
  const json* type = types.OutputType("s", "get");
  ASSERT_NE(nullptr, type);
  EXPECT_EQ(nullptr, types.OutputType("s", "put"));
  json clean = json::parse(R"({"rows": [{"name": "a"}], "best": null, "extra": 1})");
  json want = json::parse(R"({"STRUCTURE": {"s.info": {"rows": [{"STRUCTURE": {"s.row": {"name": "a"}}}],
                                                        "best": null, "extra": 1}}})");
  EXPECT_EQ(want, types.Decorate(clean, *type));
  EXPECT_EQ(clean, Lumen::Json::Undecorate(want));
}

TEST(ErrorJson, CleanAndDecoratedForms) {
  auto e = Errors::AlreadyExists({{"x.already_exists", "Name '{name}' exists.", {"ek1"}}});
  json clean = Errors::ToJson(e);
  EXPECT_EQ("ALREADY_EXISTS", clean["error_type"]);
  EXPECT_EQ("com.quarro.lumen.std.errors.already_exists", clean["type"]);
  EXPECT_EQ(json::parse(R"([{"id": "x.already_exists", "default_message": "Name '{name}' exists.", "args": ["ek1"]}])"),
            clean["messages"]);
  EXPECT_TRUE(clean["data"].is_null());
  json decorated = Lumen::Json::DecorateError(e);
  EXPECT_EQ(clean, Lumen::Json::Undecorate(decorated));
  EXPECT_TRUE(decorated["ERROR"].contains("com.quarro.lumen.std.errors.already_exists"));
}

TEST(ParseCall, AcceptsInvokeCallsOnly) {
  const std::string kGood =
      R"({"jsonrpc":"2.0","id":"42","method":"invoke","params":{"serviceId":"s","operationId":"o",)"
      R"("ctx":{"securityCtx":{},"appCtx":{"opId":"op-1"}},"input":{"a":1}}})";
  Lumen::JsonRpc::Call call;
  ASSERT_TRUE(Lumen::JsonRpc::ParseCall(kGood, false, &call));
  EXPECT_EQ("42", call.id);
  EXPECT_EQ("s", call.service_id);
  EXPECT_EQ("o", call.operation_id);
  EXPECT_EQ("op-1", call.op_id);
  EXPECT_EQ(json({{"a", 1}}), call.input);

  const struct {
    const char* name;
    const char* body;
    bool ok;
  } kCases[] = {
      {"minimal", R"({"jsonrpc":"2.0","method":"invoke","params":{"serviceId":"s","operationId":"o"}})", true},
      {"numeric id", R"({"jsonrpc":"2.0","id":7,"method":"invoke","params":{"serviceId":"s","operationId":"o"}})", true},
      {"object id", R"({"jsonrpc":"2.0","id":{},"method":"invoke","params":{"serviceId":"s","operationId":"o"}})", false},
      {"other method", R"({"jsonrpc":"2.0","method":"call","params":{"serviceId":"s","operationId":"o"}})", false},
      {"version 1", R"({"jsonrpc":"1.0","method":"invoke","params":{"serviceId":"s","operationId":"o"}})", false},
      {"no operation", R"({"jsonrpc":"2.0","method":"invoke","params":{"serviceId":"s"}})", false},
      {"numeric service", R"({"jsonrpc":"2.0","method":"invoke","params":{"serviceId":1,"operationId":"o"}})", false},
      {"ctx not object", R"({"jsonrpc":"2.0","method":"invoke","params":{"serviceId":"s","operationId":"o","ctx":1}})", false},
      {"securityCtx list", R"({"jsonrpc":"2.0","method":"invoke","params":{"serviceId":"s","operationId":"o","ctx":{"securityCtx":[]}}})", false},
      {"not json", R"({"jsonrpc":)", false},
      {"array", R"([1])", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Lumen::JsonRpc::Call out;
    EXPECT_EQ(c.ok, Lumen::JsonRpc::ParseCall(c.body, false, &out));
  }
}

TEST(ResultBody, EchoesIdAndCarriesOutputOrError) {
  Lumen::JsonRpc::Call call;
  call.id = "9";
  json ok = json::parse(Lumen::JsonRpc::ResultBody(call, Lumen::Provider::MethodResult::Value({{"x", 1}}), false, nullptr));
  EXPECT_EQ(json::parse(R"({"jsonrpc":"2.0","id":"9","result":{"output":{"x":1}}})"), ok);
  json bad = json::parse(Lumen::JsonRpc::ResultBody(
      call, Lumen::Provider::MethodResult::Failure(Errors::Unauthenticated()), false, nullptr));
  EXPECT_EQ("UNAUTHENTICATED", bad["result"]["error"]["error_type"]);
  EXPECT_EQ(json::parse(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"lumen.invalid.request"}})"),
            json::parse(Lumen::JsonRpc::FrameworkErrorBody("lumen.invalid.request")));
}

TEST(InputReader, ReportsFirstBadFieldPath) {
  json input = json::parse(R"({"name": "ek1", "flag": "yes", "nested": {"list": ["a", 1]}, "blob": "QUJD"})");
  {
    Lumen::Json::InputReader r(input);
    EXPECT_EQ("ek1", r.String("name"));
    EXPECT_EQ(std::vector<uint8_t>({'A', 'B', 'C'}), r.Binary("blob"));
    EXPECT_FALSE(r.OptString("absent").has_value());
    EXPECT_TRUE(r.Ok());
  }
  const struct {
    const char* name;
    std::function<void(Lumen::Json::InputReader&)> read;
    const char* bad;
  } kCases[] = {
      {"missing", [](auto& r) { r.String("absent"); }, "absent"},
      {"wrong type", [](auto& r) { r.OptBool("flag"); }, "flag"},
      {"string as binary", [](auto& r) { r.Binary("name"); }, "name"},
      {"nested list element",
       [](auto& r) {
         auto n = r.Object("nested");
         n.StringList("list");
         r.Merge(n);
       },
       "nested.list"},
      {"first failure wins",
       [](auto& r) {
         r.String("absent");
         r.OptBool("flag");
       },
       "absent"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Lumen::Json::InputReader r(input);
    c.read(r);
    EXPECT_EQ(c.bad, r.BadField());
    auto e = r.Error();
    EXPECT_EQ(Errors::Kind::kInvalidArgument, e.kind);
    ASSERT_EQ(1u, e.messages.size());
    EXPECT_EQ(std::vector<std::string>{c.bad}, e.messages[0].args);
  }
  Lumen::Json::InputReader not_object(json::array());
  EXPECT_EQ("input", not_object.BadField());
}

}  // namespace
