#include "platform/lumen/Json.h"

#include <openssl/evp.h>

#include "platform/Hex.h"

namespace Lumen::Json {

namespace {

const nlohmann::json kNull;

}  // namespace

TypeRegistry::TypeRegistry(nlohmann::json metamodel) : metamodel_(std::move(metamodel)) {}

const nlohmann::json* TypeRegistry::OutputType(const std::string& service_id,
                                               const std::string& operation_id) const {
  auto services = metamodel_.find("services");
  if (services == metamodel_.end() || !services->is_object()) {
    return nullptr;
  }
  auto service = services->find(service_id);
  if (service == services->end() || !service->contains("operations")) {
    return nullptr;
  }
  const auto& ops = (*service)["operations"];
  auto op = ops.find(operation_id);
  if (op == ops.end() || !op->is_object() || !op->contains("output")) {
    return nullptr;
  }
  return &(*op)["output"];
}

nlohmann::json TypeRegistry::Decorate(const nlohmann::json& value, const nlohmann::json& type) const {
  if (!type.is_object() || value.is_null()) {
    return value;
  }
  if (auto it = type.find("optional"); it != type.end()) {
    return Decorate(value, *it);
  }
  if (auto it = type.find("list"); it != type.end()) {
    if (!value.is_array()) {
      return value;
    }
    nlohmann::json out = nlohmann::json::array();
    for (const auto& element : value) {
      out.push_back(Decorate(element, *it));
    }
    return out;
  }
  auto it = type.find("structure");
  if (it == type.end() || !it->is_string() || !value.is_object()) {
    return value;
  }
  const std::string& id = it->get_ref<const std::string&>();
  const nlohmann::json* fields = &kNull;
  if (auto structures = metamodel_.find("structures"); structures != metamodel_.end()) {
    if (auto s = structures->find(id); s != structures->end() && s->contains("fields")) {
      fields = &(*s)["fields"];
    }
  }
  nlohmann::json inner = nlohmann::json::object();
  for (const auto& [name, field_value] : value.items()) {
    auto field_type = fields->is_object() ? fields->find(name) : fields->end();
    inner[name] = field_type != fields->end() ? Decorate(field_value, *field_type) : field_value;
  }
  return {{"STRUCTURE", {{id, std::move(inner)}}}};
}

nlohmann::json Undecorate(const nlohmann::json& value) {
  if (value.is_array()) {
    nlohmann::json out = nlohmann::json::array();
    for (const auto& element : value) {
      out.push_back(Undecorate(element));
    }
    return out;
  }
  if (!value.is_object()) {
    return value;
  }
  if (value.size() == 1) {
    auto it = value.begin();
    if ((it.key() == "STRUCTURE" || it.key() == "ERROR") && it->is_object() && it->size() == 1 &&
        it->begin()->is_object()) {
      return Undecorate(*it->begin());
    }
  }
  nlohmann::json out = nlohmann::json::object();
  for (const auto& [name, field] : value.items()) {
    out[name] = Undecorate(field);
  }
  return out;
}

nlohmann::json DecorateError(const StdError& error) {
  nlohmann::json fields = Com::Quarro::Lumen::Std::Errors::ToJson(error);
  for (auto& m : fields["messages"]) {
    m = {{"STRUCTURE", {{kMessageStructureId, m}}}};
  }
  return {{"ERROR", {{Com::Quarro::Lumen::Std::Errors::TypeId(error.kind), std::move(fields)}}}};
}

std::string Base64Encode(const std::vector<uint8_t>& bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t v = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t v = uint32_t{bytes[i]} << 16;
    if (rest == 2) {
      v |= uint32_t{bytes[i + 1]} << 8;
    }
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

bool Base64Decode(std::string_view text, std::vector<uint8_t>* out) {
  auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  out->clear();
  if (text.size() % 4 != 0) {
    return false;
  }
  out->reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    bool last = i + 4 == text.size();
    int pad = 0;
    if (last && text[i + 3] == '=') {
      pad = text[i + 2] == '=' ? 2 : 1;
    }
    uint32_t v = 0;
    for (int k = 0; k < 4; ++k) {
      int d = k >= 4 - pad ? 0 : value(text[i + k]);
      if (d < 0) {
        return false;
      }
      v = (v << 6) | static_cast<uint32_t>(d);
    }
    // Non-zero bits under the padding would decode two texts to one value.
    if ((pad == 1 && (v & 0xff) != 0) || (pad == 2 && (v & 0xffff) != 0)) {
      return false;
    }
    out->push_back(static_cast<uint8_t>(v >> 16));
    if (pad < 2) out->push_back(static_cast<uint8_t>(v >> 8));
    if (pad < 1) out->push_back(static_cast<uint8_t>(v));
  }
  return true;
}

std::string HexDigestSha256(const std::string& bytes) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int md_len = 0;
  EVP_Digest(bytes.data(), bytes.size(), md, &md_len, EVP_sha256(), nullptr);
  return Hearth::HexString(md, md_len);
}

InputReader::InputReader(const nlohmann::json& object, std::string path)
    : object_(&object), path_(std::move(path)) {
  static const nlohmann::json kEmpty = nlohmann::json::object();
  if (object.is_null() && path_.empty()) {
    object_ = &kEmpty;  // no input at all is an empty input
    return;
  }
  if (!object.is_object()) {
    bad_ = path_.empty() ? "input" : path_;
  }
}

StdError InputReader::Error() const {
  return Com::Quarro::Lumen::Std::Errors::InvalidInput(bad_);
}

void InputReader::Fail(const char* name) {
  if (bad_.empty()) {
    bad_ = path_.empty() ? name : path_ + "." + name;
  }
}

namespace {

// A long base64 string of the request may arrive already decoded (see
// JsonRpc's reader); it reads as the text it was, which encodes back exactly
// since only canonical base64 is decoded.
bool IsText(const nlohmann::json& v) {
  return v.is_string() || v.is_binary();
}

std::string TextOf(const nlohmann::json& v) {
  return v.is_binary() ? Base64Encode(v.get_binary()) : v.get<std::string>();
}

}  // namespace

const nlohmann::json* InputReader::Field(const char* name, bool required) {
  if (!bad_.empty()) {
    return nullptr;
  }
  auto it = object_->find(name);
  if (it == object_->end() || it->is_null()) {
    if (required) {
      Fail(name);
    }
    return nullptr;
  }
  return &*it;
}

std::string InputReader::String(const char* name) {
  const nlohmann::json* f = Field(name, true);
  if (f == nullptr) {
    return {};
  }
  if (!IsText(*f)) {
    Fail(name);
    return {};
  }
  return TextOf(*f);
}

std::string InputReader::Checked(const char* name, bool (*valid)(const std::string&)) {
  std::string value = String(name);
  if (Ok() && !valid(value)) {
    Fail(name);
    return {};
  }
  return value;
}

std::optional<std::string> InputReader::OptString(const char* name) {
  const nlohmann::json* f = Field(name, false);
  if (f == nullptr) {
    return std::nullopt;
  }
  if (!IsText(*f)) {
    Fail(name);
    return std::nullopt;
  }
  return TextOf(*f);
}

std::optional<bool> InputReader::OptBool(const char* name) {
  const nlohmann::json* f = Field(name, false);
  if (f == nullptr) {
    return std::nullopt;
  }
  if (!f->is_boolean()) {
    Fail(name);
    return std::nullopt;
  }
  return f->get<bool>();
}

std::optional<std::vector<std::string>> InputReader::OptStringList(const char* name) {
  const nlohmann::json* f = Field(name, false);
  if (f == nullptr) {
    return std::nullopt;
  }
  std::vector<std::string> out;
  if (!f->is_array()) {
    Fail(name);
    return std::nullopt;
  }
  for (const auto& e : *f) {
    if (!IsText(e)) {
      Fail(name);
      return std::nullopt;
    }
    out.push_back(TextOf(e));
  }
  return out;
}

std::vector<std::string> InputReader::StringList(const char* name) {
  if (Field(name, true) == nullptr) {
    return {};
  }
  return OptStringList(name).value_or(std::vector<std::string>{});
}

bool InputReader::BytesOf(const char* name, const nlohmann::json& v, std::vector<uint8_t>* out) {
  if (v.is_binary()) {
    *out = v.get_binary();
    return true;
  }
  if (!v.is_string() || !Base64Decode(v.get_ref<const std::string&>(), out)) {
    Fail(name);
    return false;
  }
  return true;
}

std::vector<uint8_t> InputReader::Binary(const char* name) {
  std::vector<uint8_t> out;
  if (const nlohmann::json* f = Field(name, true); f != nullptr && !BytesOf(name, *f, &out)) {
    out.clear();
  }
  return out;
}

std::vector<std::vector<uint8_t>> InputReader::BinaryList(const char* name) {
  const nlohmann::json* f = Field(name, true);
  if (f == nullptr) {
    return {};
  }
  if (!f->is_array()) {
    Fail(name);
    return {};
  }
  std::vector<std::vector<uint8_t>> out(f->size());
  for (size_t i = 0; i < out.size(); ++i) {
    if (!BytesOf(name, (*f)[i], &out[i])) {
      return {};
    }
  }
  return out;
}

InputReader InputReader::Object(const char* name) {
  std::string path = path_.empty() ? name : path_ + "." + name;
  const nlohmann::json* f = Field(name, true);
  return InputReader(f != nullptr ? *f : kNull, path);
}

void InputReader::Merge(const InputReader& nested) {
  if (bad_.empty() && !nested.bad_.empty()) {
    bad_ = nested.bad_;
  }
}

}  // namespace Lumen::Json
