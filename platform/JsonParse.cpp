#include "platform/JsonParse.h"

namespace Hearth {
namespace {

using Json = nlohmann::json;

// DepthLimitedBuilder is the library's own DOM builder with a depth count:
// refusing a container (returning false) ends the parse at once, before the
// builder's stack or the value grows any deeper.
class DepthLimitedBuilder : public nlohmann::detail::json_sax_dom_parser<Json> {
 public:
  explicit DepthLimitedBuilder(Json& root) : json_sax_dom_parser(root, /*allow_exceptions=*/false) {}

  bool start_object(std::size_t len) { return Enter() && json_sax_dom_parser::start_object(len); }
  bool start_array(std::size_t len) { return Enter() && json_sax_dom_parser::start_array(len); }
  bool end_object() {
    --depth_;
    return json_sax_dom_parser::end_object();
  }
  bool end_array() {
    --depth_;
    return json_sax_dom_parser::end_array();
  }

 private:
  bool Enter() { return ++depth_ <= kMaxJsonDepth; }

  size_t depth_ = 0;
};

template <typename Input>
Json Parse(Input&& input) {
  Json out;
  DepthLimitedBuilder builder(out);
  bool ok = false;
  try {
    ok = Json::sax_parse(std::forward<Input>(input), &builder);
  } catch (const Json::exception&) {
    ok = false;  // sizes the library refuses
  }
  if (!ok || builder.is_errored()) {
    return Json(Json::value_t::discarded);
  }
  return out;
}

}  // namespace

Json ParseJson(std::string_view text) {
  return Parse(text);
}

Json ParseJson(std::istream& in) {
  return Parse(in);
}

}  // namespace Hearth
