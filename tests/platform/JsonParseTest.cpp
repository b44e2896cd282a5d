#include "platform/JsonParse.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

std::string Nested(size_t depth, const std::string& open, const std::string& close) {
  std::string text;
  for (size_t i = 0; i < depth; ++i) {
    text += open;
  }
  text += "1";
  for (size_t i = 0; i < depth; ++i) {
    text += close;
  }
  return text;
}

// The limit holds for arrays, objects and their mixture, in both input forms,
// and an attacker's 50,000 levels are refused without recursion.
TEST(ParseJson, RefusesNestingPastTheLimit) {
  const size_t kMax = Hearth::kMaxJsonDepth;
  const struct {
    const char* name;
    std::string text;
    bool ok;
  } kCases[] = {
      {"arrays at the limit", Nested(kMax, "[", "]"), true},
      {"arrays past the limit", Nested(kMax + 1, "[", "]"), false},
      {"objects at the limit", Nested(kMax, "{\"a\":", "}"), true},
      {"objects past the limit", Nested(kMax + 1, "{\"a\":", "}"), false},
      {"mixed past the limit", Nested((kMax + 1) / 2 + 1, "{\"a\":[", "]}"), false},
      {"hostile depth", Nested(50000, "[", "]"), false},
      {"hostile depth, unclosed", std::string(200000, '['), false},
      {"not JSON", "{\"a\":", false},
      {"trailing text", "{} {}", false},
      {"flat", R"({"a": [1, 2, {"b": null}], "c": "d"})", true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.ok, !Hearth::ParseJson(c.text).is_discarded());
    std::istringstream in(c.text);
    EXPECT_EQ(c.ok, !Hearth::ParseJson(in).is_discarded());
  }
}

}  // namespace
