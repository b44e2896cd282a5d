#include "tools/CtlInput.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>

#include "platform/JsonParse.h"
#include "platform/lumen/Json.h"
#include "tools/CtlRender.h"
#include "tools/CtlTypes.h"

namespace Witnessd::Ctl {

namespace {

using nlohmann::json;

// PemBlocks splits text holding several PEM blocks into one string per block.
std::vector<std::string> PemBlocks(const std::string& text) {
  std::vector<std::string> blocks;
  size_t pos = 0;
  while ((pos = text.find("-----BEGIN ", pos)) != std::string::npos) {
    size_t end = text.find("-----END ", pos);
    size_t close = end == std::string::npos ? std::string::npos : text.find("-----", end + 9);
    if (close == std::string::npos) {
      break;
    }
    blocks.push_back(text.substr(pos, close + 5 - pos) + "\n");
    pos = close + 5;
  }
  return blocks;
}

bool ParseBool(std::string v, bool* out) {
  std::transform(v.begin(), v.end(), v.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (v == "true" || v == "yes" || v == "on" || v == "1") {
    *out = true;
    return true;
  }
  if (v == "false" || v == "no" || v == "off" || v == "0") {
    *out = false;
    return true;
  }
  return false;
}

// Convert turns one option value into |out| (one or more list elements when
// |elements| is set, for files of several PEM blocks).
bool Convert(const std::string& option, const std::string& value, const json& type, const Catalog& catalog,
             bool in_list, std::vector<json>* out, std::string* error) {
  std::string kind = Kind(type);
  auto bad = [&](const std::string& why) {
    *error = "--" + option + ": " + why;
    return false;
  };
  if (kind == "boolean") {
    bool b = false;
    if (!ParseBool(value, &b)) {
      return bad("expected true or false, got '" + value + "'");
    }
    out->push_back(b);
    return true;
  }
  if (kind == "long" || kind == "integer" || kind == "double") {
    char* end = nullptr;
    errno = 0;
    if (kind == "double") {
      double d = std::strtod(value.c_str(), &end);
      if (value.empty() || *end != '\0' || errno != 0) {
        return bad("expected a number, got '" + value + "'");
      }
      out->push_back(d);
    } else {
      long long n = std::strtoll(value.c_str(), &end, 10);
      if (value.empty() || *end != '\0' || errno != 0) {
        return bad("expected an integer, got '" + value + "'");
      }
      out->push_back(n);
    }
    return true;
  }
  if (kind == "binary") {
    std::string bytes;
    if (!ReadInput(value, &bytes, error)) {
      return bad(*error);
    }
    out->push_back(Lumen::Json::Base64Encode(std::vector<uint8_t>(bytes.begin(), bytes.end())));
    return true;
  }
  if (kind == "enumeration") {
    const json& e = catalog.Enumeration(Ref(type));
    if (!e.is_object() || !e.contains("values")) {
      out->push_back(value);
      return true;
    }
    std::vector<std::string> allowed;
    for (const auto& v : e["values"]) {
      allowed.push_back(v.get<std::string>());
      if (Upper(value) == Upper(allowed.back())) {
        out->push_back(allowed.back());
        return true;
      }
    }
    return bad("expected one of " + Join(allowed, 0, allowed.size(), ", ") + ", got '" + value + "'");
  }
  std::string text = value;
  if (!value.empty() && value[0] == '@' && !ReadInput(value.substr(1), &text, error)) {
    return bad(*error);
  }
  if (kind == "string") {
    std::vector<std::string> blocks = in_list ? PemBlocks(text) : std::vector<std::string>();
    if (blocks.size() > 1) {
      out->insert(out->end(), blocks.begin(), blocks.end());
    } else {
      out->push_back(text);
    }
    return true;
  }
  json parsed = Hearth::ParseJson(text);
  if (parsed.is_discarded()) {
    return bad("expected JSON text or @FILE of JSON");
  }
  out->push_back(std::move(parsed));
  return true;
}

void SetAt(json* root, const std::vector<std::string>& path, json value) {
  json* at = root;
  for (size_t i = 0; i + 1 < path.size(); ++i) {
    json& next = (*at)[path[i]];
    if (!next.is_object()) {
      next = json::object();
    }
    at = &next;
  }
  (*at)[path.back()] = std::move(value);
}

}  // namespace

bool ReadInput(const std::string& name, std::string* out, std::string* error) {
  if (name == "-") {
    out->assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    return true;
  }
  std::ifstream in(name, std::ios::binary);
  if (!in) {
    *error = "cannot read " + name + ": " + std::strerror(errno);
    return false;
  }
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

bool BuildInput(const Command& command, const Catalog& catalog,
                const std::vector<std::pair<std::string, std::string>>& options, json* input, std::string* error) {
  std::map<size_t, std::vector<std::string>> given;
  for (const auto& [name, value] : options) {
    auto it = std::find_if(command.inputs.begin(), command.inputs.end(),
                           [&](const InputOption& o) { return Normalize(o.name) == Normalize(name); });
    if (it == command.inputs.end()) {
      *error = "unknown option --" + name;
      return false;
    }
    given[static_cast<size_t>(it - command.inputs.begin())].push_back(value);
  }
  *input = json::object();
  for (size_t i = 0; i < command.inputs.size(); ++i) {
    const InputOption& o = command.inputs[i];
    std::string option = Normalize(o.name);
    bool optional = false;
    const json& type = Unwrap(o.type, &optional);
    bool list = Kind(type) == "list";
    auto values = given.find(i);
    if (values == given.end() && o.default_value.is_string()) {
      values = given.emplace(i, std::vector<std::string>{o.default_value.get<std::string>()}).first;
    }
    if (values == given.end()) {
      if (!optional) {
        *error = "missing required option --" + option;
        return false;
      }
      continue;
    }
    if (!list && values->second.size() > 1) {
      *error = "--" + option + " given more than once";
      return false;
    }
    std::vector<json> converted;
    for (const std::string& v : values->second) {
      if (!Convert(option, v, list ? type["list"] : type, catalog, list, &converted, error)) {
        return false;
      }
    }
    SetAt(input, Split(o.field, '.'), list ? json(converted) : converted.front());
  }
  return true;
}

std::string Usage(const Command& command, const Catalog& catalog, const std::string& words) {
  std::ostringstream out;
  out << "usage: witnessctl " << words;
  for (const InputOption& o : command.inputs) {
    bool optional = false;
    Unwrap(o.type, &optional);
    optional = optional || o.default_value.is_string();
    out << (optional ? " [--" : " --") << Normalize(o.name) << " VALUE" << (optional ? "]" : "");
  }
  out << "\n";
  if (!command.description.empty()) {
    out << "\n" << command.description << "\n";
  }
  if (!command.inputs.empty()) {
    out << "\noptions:\n";
  }
  size_t width = 0;
  for (const InputOption& o : command.inputs) {
    width = std::max(width, Normalize(o.name).size());
  }
  for (const InputOption& o : command.inputs) {
    bool optional = false;
    const json& type = Unwrap(o.type, &optional);
    std::string kind = Kind(type);
    std::string element = kind == "list" ? Kind(type["list"]) : kind;
    std::string how = element == "binary"   ? "a file name, - for standard input"
                      : element == "string" ? "text, or @FILE for a file's content"
                      : element == "boolean" ? "true or false"
                                             : "";
    if (element == "enumeration") {
      const json& e = catalog.Enumeration(Ref(kind == "list" ? type["list"] : type));
      std::vector<std::string> values;
      for (const auto& v : e.value("values", json::array())) {
        values.push_back(v.get<std::string>());
      }
      how = "one of " + Join(values, 0, values.size(), ", ");
    }
    if (element == "structure" || element == "any") {
      how = "JSON text, or @FILE";
    }
    std::string name = Normalize(o.name);
    out << "  --" << name << std::string(width - name.size() + 2, ' ') << TypeText(type) << (optional ? ", optional" : ", required")
        << (kind == "list" ? ", repeatable" : "") << (how.empty() ? "" : "; " + how)
        << (o.default_value.is_string() ? "; default " + o.default_value.get<std::string>() : "") << "\n";
  }
  if (FindBinary(command.output_type, catalog, nullptr)) {
    out << "\n--output FILE writes the answer's bytes to FILE.\n";
  }
  return out.str();
}

}  // namespace Witnessd::Ctl
