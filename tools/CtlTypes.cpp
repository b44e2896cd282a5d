#include "tools/CtlTypes.h"

#include <algorithm>
#include <cctype>

namespace Witnessd::Ctl {

using nlohmann::json;

std::vector<std::string> Split(const std::string& text, char sep) {
  std::vector<std::string> out;
  if (text.empty()) {
    return out;
  }
  size_t start = 0;
  for (;;) {
    size_t end = text.find(sep, start);
    out.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) {
      return out;
    }
    start = end + 1;
  }
}

std::string Join(const std::vector<std::string>& parts, size_t begin, size_t end, const char* sep) {
  std::string out;
  for (size_t i = begin; i < end; ++i) {
    out += (i > begin ? sep : "") + parts[i];
  }
  return out;
}

std::string Upper(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return s;
}

std::string Normalize(std::string word) {
  std::replace(word.begin(), word.end(), '_', '-');
  return word;
}

const json& Unwrap(const json& type, bool* optional) {
  if (type.is_object() && type.contains("optional")) {
    if (optional != nullptr) {
      *optional = true;
    }
    return type["optional"];
  }
  if (optional != nullptr) {
    *optional = false;
  }
  return type;
}

std::string Kind(const json& type) {
  if (type.is_string()) {
    return type.get<std::string>();
  }
  if (type.is_object() && !type.empty()) {
    return type.begin().key();
  }
  return "any";
}

std::string Ref(const json& type) {
  const json& inner = type.begin().value();
  return inner.is_string() ? inner.get<std::string>() : std::string();
}

std::string TypeText(const json& type) {
  std::string kind = Kind(type);
  if (kind == "list") {
    return "list of " + TypeText(type["list"]);
  }
  if (kind == "structure" || kind == "enumeration") {
    return kind + " " + Ref(type);
  }
  return kind;
}

}  // namespace Witnessd::Ctl
