#include "tools/CtlRender.h"

#include <algorithm>

#include "platform/lumen/Localizer.h"
#include "tools/CtlTypes.h"

namespace Witnessd::Ctl {

namespace {

using nlohmann::json;

constexpr const char* kMessageStructure = "com.quarro.lumen.std.localizable_message";

size_t DecodedSize(const json& v) {
  if (!v.is_string()) {
    return 0;
  }
  const std::string& s = v.get_ref<const std::string&>();
  size_t pad = s.size() >= 2 && s[s.size() - 1] == '=' ? (s[s.size() - 2] == '=' ? 2 : 1) : 0;
  return s.size() / 4 * 3 - pad;
}

// Cell is a value as one line of a table or a "field: value" row.
std::string Cell(const json& value, const json& type) {
  const json& t = Unwrap(type);
  if (value.is_null()) {
    return "-";
  }
  if (Kind(t) == "binary") {
    return "<" + std::to_string(DecodedSize(value)) + " bytes>";
  }
  if (value.is_string()) {
    const std::string& s = value.get_ref<const std::string&>();
    size_t nl = s.find('\n');
    return nl == std::string::npos ? s : s.substr(0, nl) + " ...";
  }
  if (value.is_array()) {
    std::string out;
    for (const auto& e : value) {
      out += (out.empty() ? "" : ", ") + Cell(e, Kind(t) == "list" ? t["list"] : json("any"));
    }
    return out;
  }
  return value.dump();
}

std::string Table(const json& rows, const json& fields, const std::vector<std::string>& columns) {
  if (rows.empty()) {
    return "(none)\n";
  }
  std::vector<std::string> names;
  for (const std::string& c : columns) {
    if (fields.contains(c)) {
      names.push_back(c);
    }
  }
  for (const auto& [name, type] : fields.items()) {
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      names.push_back(name);
    }
  }
  std::vector<std::vector<std::string>> cells;
  std::vector<size_t> width(names.size());
  cells.emplace_back();
  for (size_t c = 0; c < names.size(); ++c) {
    cells.back().push_back(Upper(names[c]));
  }
  for (const auto& row : rows) {
    cells.emplace_back();
    for (size_t c = 0; c < names.size(); ++c) {
      cells.back().push_back(Cell(row.contains(names[c]) ? row[names[c]] : json(), fields[names[c]]));
    }
  }
  for (const auto& line : cells) {
    for (size_t c = 0; c < line.size(); ++c) {
      width[c] = std::max(width[c], line[c].size());
    }
  }
  std::string out;
  for (const auto& line : cells) {
    std::string text;
    for (size_t c = 0; c < line.size(); ++c) {
      text += line[c];
      if (c + 1 < line.size()) {
        text += std::string(width[c] - line[c].size() + 2, ' ');
      }
    }
    out += text + "\n";
  }
  return out;
}

std::string Indent(const std::string& text) {
  std::string out;
  for (const std::string& line : Split(text, '\n')) {
    if (!line.empty()) {
      out += "  " + line + "\n";
    }
  }
  return out;
}

}  // namespace

std::string MessageText(const json& m) {
  std::vector<std::string> args;
  if (m.contains("args") && m["args"].is_array()) {
    for (const auto& a : m["args"]) {
      args.push_back(a.is_string() ? a.get<std::string>() : a.dump());
    }
  }
  std::string text = m.value("default_message", m.value("id", std::string()));
  return Lumen::L10n::LocalizableMessageHelpers::formatMessage(text, args);
}

std::string Render(const json& value, const json& type, const Catalog& catalog,
                   const std::vector<std::string>& columns) {
  const json& t = Unwrap(type);
  std::string kind = Kind(t);
  if (value.is_null()) {
    return "";
  }
  if (kind == "list" && value.is_array()) {
    const json& element = Unwrap(t["list"]);
    if (Kind(element) == "structure" && Ref(element) != kMessageStructure) {
      return Table(value, catalog.Structure(Ref(element)).value("fields", json::object()), columns);
    }
    std::string out;
    for (const auto& e : value) {
      out += Render(e, element, catalog);
    }
    return out;
  }
  if (kind == "structure" && value.is_object()) {
    if (Ref(t) == kMessageStructure) {
      return MessageText(value) + "\n";
    }
    const json fields = catalog.Structure(Ref(t)).value("fields", json::object());
    size_t width = 0;
    for (const auto& [name, field_type] : fields.items()) {
      width = std::max(width, name.size());
    }
    std::string out;
    for (const auto& [name, field_type] : fields.items()) {
      const json v = value.value(name, json());
      const json& ft = Unwrap(field_type);
      bool block = (v.is_string() && Kind(ft) != "binary" &&
                    v.get_ref<const std::string&>().find('\n') != std::string::npos) ||
                   (Kind(ft) == "list" && Kind(Unwrap(ft["list"])) != "enumeration");
      if (block) {
        out += name + ":\n" + Indent(Render(v, ft, catalog));
      } else {
        out += name + ":" + std::string(width - name.size() + 1, ' ') + Cell(v, ft) + "\n";
      }
    }
    return out;
  }
  if (kind == "binary") {
    return Cell(value, t) + "\n";
  }
  if (value.is_string()) {
    std::string s = value.get<std::string>();
    return s.empty() || s.back() != '\n' ? s + "\n" : s;
  }
  return value.dump(2) + "\n";
}

bool FindBinary(const json& type, const Catalog& catalog, std::vector<std::string>* path) {
  const json& t = Unwrap(type);
  if (Kind(t) == "binary") {
    if (path != nullptr) {
      path->clear();
    }
    return true;
  }
  if (Kind(t) != "structure") {
    return false;
  }
  const json fields = catalog.Structure(Ref(t)).value("fields", json::object());
  for (const auto& [name, field_type] : fields.items()) {
    if (Kind(Unwrap(field_type)) == "binary") {
      if (path != nullptr) {
        *path = {name};
      }
      return true;
    }
  }
  return false;
}

}  // namespace Witnessd::Ctl
