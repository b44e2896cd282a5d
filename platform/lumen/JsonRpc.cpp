#include "platform/lumen/JsonRpc.h"

#include <cstring>

#include <simdjson.h>

#include "platform/JsonParse.h"
#include "platform/lumen/Json.h"

namespace Lumen::JsonRpc {

namespace {

constexpr int kInvalidRequestCode = -32600;

bool StringField(const nlohmann::json& obj, const char* name, std::string* out) {
  auto it = obj.find(name);
  if (it == obj.end() || !it->is_string()) {
    return false;
  }
  *out = it->get<std::string>();
  return true;
}

}  // namespace

namespace {

bool ReadEnvelope(nlohmann::json& doc, bool decorated, Call* out) {
  if (!doc.is_object()) {
    return false;
  }
  std::string version, method;
  if (!StringField(doc, "jsonrpc", &version) || version != "2.0" || !StringField(doc, "method", &method) ||
      method != "invoke") {
    return false;
  }
  auto id = doc.find("id");
  if (id != doc.end()) {
    if (!id->is_string() && !id->is_number() && !id->is_null()) {
      return false;
    }
    out->id = std::move(*id);
  }
  auto params = doc.find("params");
  if (params == doc.end() || !params->is_object() || !StringField(*params, "serviceId", &out->service_id) ||
      !StringField(*params, "operationId", &out->operation_id)) {
    return false;
  }
  if (auto ctx = params->find("ctx"); ctx != params->end() && !ctx->is_null()) {
    if (!ctx->is_object()) {
      return false;
    }
    if (auto sec = ctx->find("securityCtx"); sec != ctx->end() && !sec->is_null()) {
      if (!sec->is_object()) {
        return false;
      }
      out->security_ctx = std::move(*sec);
    }
    if (auto app = ctx->find("appCtx"); app != ctx->end() && !app->is_null()) {
      if (!app->is_object()) {
        return false;
      }
      if (auto op = app->find("opId"); op != app->end() && op->is_string()) {
        out->op_id = op->get<std::string>();
      }
    }
  }
  if (auto input = params->find("input"); input != params->end() && !input->is_null()) {
    out->input = decorated ? Json::Undecorate(*input) : std::move(*input);
  }
  return true;
}


namespace od = simdjson::ondemand;

// Strings of the input at least this long that are canonical base64 are
// decoded while reading: the contexts a report carries (event log, quote).
constexpr size_t kBinaryMinChars = 128;
// A parser grown beyond this by a large body is not kept for the next one.
constexpr size_t kKeptCapacity = 64 * 1024;

// Where a value sits: only strings under params.input may become bytes.
// kParams is the value of the root's "params".
enum class Place { kTop, kParams, kInput };

// ReaderTakes tells whether the reader may decide |body| itself: no string
// holds an escaped code point (surrogate rules) or a raw control character,
// which JSON forbids and the reader, seeing strings only unescaped, could not
// tell from an escaped one. The DOM parser decides the others.
bool ReaderTakes(std::string_view body) {
  bool in_string = false;
  for (size_t i = 0; i < body.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(body[i]);
    if (!in_string) {
      in_string = c == '"';
    } else if (c == '\\') {
      if (++i < body.size() && body[i] == 'u') {
        return false;
      }
    } else if (c == '"') {
      in_string = false;
    } else if (c < 0x20) {
      return false;
    }
  }
  return true;
}

// Scalar reads a number, true, false or null through the DOM parser's own
// grammar, so its value is exactly the one ParseJson would give.
bool Scalar(od::value& v, nlohmann::json* out) {
  std::string_view raw = v.raw_json_token();
  while (!raw.empty() && (raw.back() == ' ' || raw.back() == '\t' || raw.back() == '\n' || raw.back() == '\r')) {
    raw.remove_suffix(1);
  }
  *out = nlohmann::json::parse(raw, nullptr, false);
  return !out->is_discarded();
}

// ToDom builds |v| into |out|, nested |depth| containers deep (the root
// object is 1), refusing what ParseJson refuses on the same terms.
bool ToDom(od::value v, nlohmann::json* out, size_t depth, Place place) {
  od::json_type type;
  if (v.type().get(type)) {
    return false;
  }
  switch (type) {
    case od::json_type::object: {
      od::object obj;
      if (++depth > Hearth::kMaxJsonDepth || v.get_object().get(obj)) {
        return false;
      }
      *out = nlohmann::json::object();
      for (auto item : obj) {
        od::field field;
        std::string_view key;
        if (std::move(item).get(field) || field.unescaped_key().get(key)) {
          return false;
        }
        Place inner =
            place == Place::kInput || (place == Place::kParams && key == "input") ? Place::kInput : Place::kTop;
        if (!ToDom(field.value(), &(*out)[std::string(key)], depth, inner)) {
          return false;
        }
      }
      return true;
    }
    case od::json_type::array: {
      od::array arr;
      if (++depth > Hearth::kMaxJsonDepth || v.get_array().get(arr)) {
        return false;
      }
      *out = nlohmann::json::array();
      for (auto item : arr) {
        od::value element;
        if (std::move(item).get(element) ||
            !ToDom(element, &out->emplace_back(), depth, place == Place::kInput ? Place::kInput : Place::kTop)) {
          return false;
        }
      }
      return true;
    }
    case od::json_type::string: {
      std::string_view text;
      if (v.get_string().get(text)) {
        return false;
      }
      if (place == Place::kInput && text.size() >= kBinaryMinChars) {
        std::vector<uint8_t> bytes;
        if (Json::Base64Decode(text, &bytes)) {
          *out = nlohmann::json::binary(std::move(bytes));
          return true;
        }
      }
      *out = std::string(text);
      return true;
    }
    case od::json_type::number: {
      double ignored;
      return Scalar(v, out) && !v.get_double().get(ignored);
    }
    case od::json_type::boolean: {
      bool ignored;
      return Scalar(v, out) && !v.get_bool().get(ignored);
    }
    case od::json_type::null: {
      bool null = false;
      return Scalar(v, out) && !v.is_null().get(null) && null;
    }
  }
  return false;
}

}  // namespace

struct CallReader::State {
  od::parser parser;
  std::string padded;  // the body, followed by the padding the reader needs
};

CallReader::CallReader() : state_(std::make_unique<State>()) {}
CallReader::~CallReader() = default;

bool CallReader::Parse(std::string_view body, bool decorated, Call* out) {
  bool own = ReaderTakes(body);
  nlohmann::json doc;
  if (own) {
    State& s = *state_;
    s.padded.resize(body.size() + simdjson::SIMDJSON_PADDING);
    std::memcpy(s.padded.data(), body.data(), body.size());
    od::document d;
    od::object root;
    own = !s.parser.iterate(s.padded.data(), body.size(), s.padded.size()).get(d) && !d.get_object().get(root);
    if (own) {
      nlohmann::json built = nlohmann::json::object();
      for (auto item : root) {
        od::field field;
        std::string_view key;
        if (std::move(item).get(field) || field.unescaped_key().get(key) ||
            !ToDom(field.value(), &built[std::string(key)], 1, key == "params" ? Place::kParams : Place::kTop)) {
          own = false;
          break;
        }
      }
      // Nothing may follow the root object.
      own = own && d.current_location().error() == simdjson::OUT_OF_BOUNDS;
      if (own) {
        doc = std::move(built);
      }
    }
    if (s.parser.capacity() > kKeptCapacity) {
      s = State();
    }
  }
  if (!own) {
    return ParseCallWithDom(body, decorated, out);
  }
  return ReadEnvelope(doc, decorated, out);
}

bool ParseCallWithDom(std::string_view body, bool decorated, Call* out) {
  nlohmann::json doc = Hearth::ParseJson(body);
  return ReadEnvelope(doc, decorated, out);
}

bool ParseCall(std::string_view body, bool decorated, Call* out) {
  // One reader per thread: its buffers serve every body the thread reads,
  // and no connection holds buffers of its own.
  thread_local CallReader reader;
  return reader.Parse(body, decorated, out);
}

std::string ResultBody(const Call& call, const Provider::MethodResult& result, bool decorated,
                       const Json::TypeRegistry* types) {
  nlohmann::json inner;
  if (result.error) {
    inner["error"] = decorated ? Json::DecorateError(*result.error)
                               : Com::Quarro::Lumen::Std::Errors::ToJson(*result.error);
  } else {
    const nlohmann::json* type = types != nullptr ? types->OutputType(call.service_id, call.operation_id) : nullptr;
    inner["output"] = decorated && type != nullptr ? types->Decorate(result.output, *type) : result.output;
  }
  nlohmann::json doc = {{"jsonrpc", "2.0"}, {"id", call.id}, {"result", std::move(inner)}};
  return doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string CallBody(const Call& call) {
  nlohmann::json app = nlohmann::json::object();
  if (!call.op_id.empty()) {
    app["opId"] = call.op_id;
  }
  nlohmann::json doc = {{"jsonrpc", "2.0"},
                        {"id", call.id},
                        {"method", "invoke"},
                        {"params",
                         {{"serviceId", call.service_id},
                          {"operationId", call.operation_id},
                          {"ctx", {{"securityCtx", call.security_ctx}, {"appCtx", std::move(app)}}},
                          {"input", call.input}}}};
  return doc.dump();
}

std::string FrameworkErrorBody(const std::string& message_id) {
  nlohmann::json doc = {{"jsonrpc", "2.0"},
                        {"id", nullptr},
                        {"error", {{"code", kInvalidRequestCode}, {"message", message_id}}}};
  return doc.dump();
}

}  // namespace Lumen::JsonRpc
