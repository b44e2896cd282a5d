#include "tools/Ctl.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>

#include "platform/JsonParse.h"
#include "platform/Jwt.h"
#include "platform/lumen/Json.h"
#include "platform/lumen/JsonRpc.h"
#include "platform/lumen/Localizer.h"
#include "platform/lumen/TokenHandler.h"

namespace Witnessd::Ctl {

namespace {

using nlohmann::json;

constexpr const char* kCliPrefix = "com.quarro.lumen.metadata.cli.";
constexpr const char* kMetamodelPrefix = "com.quarro.lumen.metadata.metamodel.";
constexpr const char* kMessageStructure = "com.quarro.lumen.std.localizable_message";
// Version of the saved catalogue's layout; a file of another is read afresh.
constexpr int kCatalogFormat = 1;

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

// Unwrap strips an "optional" wrapper from a metamodel type.
const json& Unwrap(const json& type, bool* optional = nullptr) {
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

// Kind names a type's shape: "list", "structure", "enumeration", or the
// primitive's own name ("string", "boolean", "binary", "long", "any", ...).
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

std::string Message(const json& m) {
  std::vector<std::string> args;
  if (m.contains("args") && m["args"].is_array()) {
    for (const auto& a : m["args"]) {
      args.push_back(a.is_string() ? a.get<std::string>() : a.dump());
    }
  }
  std::string text = m.value("default_message", m.value("id", std::string()));
  return Lumen::L10n::LocalizableMessageHelpers::formatMessage(text, args);
}

// DefaultMessage explains an error that came without messages, or a
// framework error that only names its message id.
std::string DefaultMessage(const std::string& error_type) {
  static const std::map<std::string, std::string> kTexts = {
      {"NOT_FOUND", "No such item."},
      {"ALREADY_EXISTS", "The item already exists."},
      {"INVALID_ARGUMENT", "An argument is not valid."},
      {"UNAUTHENTICATED", "The request could not be authenticated."},
      {"UNAUTHORIZED", "The token lacks the privilege for this operation."},
      {"OPERATION_NOT_FOUND", "The daemon does not offer this operation."},
      {"lumen.request.exceeds.max.size", "The request is larger than the daemon accepts."},
      {"lumen.invalid.content.type", "The daemon does not accept the request's content type."},
      {"lumen.invalid.request", "The daemon could not read the request."},
  };
  auto it = kTexts.find(error_type);
  return it != kTexts.end() ? it->second : "The operation failed; the daemon's log has the reason.";
}


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

std::string Normalize(std::string word) {
  std::replace(word.begin(), word.end(), '_', '-');
  return word;
}

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

// ---------------------------------------------------------------------------
// ApiSession

ApiSession::ApiSession(std::string host, uint16_t port, std::string token)
    : http_(std::move(host), port), token_(std::move(token)) {}

Reply ApiSession::Invoke(const std::string& service_id, const std::string& operation_id, const json& input) {
  Lumen::JsonRpc::Call call;
  call.id = std::to_string(next_id_++);
  call.service_id = service_id;
  call.operation_id = operation_id;
  if (!token_.empty()) {
    call.security_ctx = Hyv::Authn::TokenSecurityContext(token_);
  }
  call.input = input;
  Reply reply;
  int status = 0;
  std::string body;
  if (!http_.Post("/api", "application/vnd.quarro.lumen.cleanjson", Lumen::JsonRpc::CallBody(call), &status, &body,
                  &reply.transport_error)) {
    return reply;
  }
  json answer = Hearth::ParseJson(body);
  if (answer.is_object() && answer.contains("result") && answer["result"].is_object()) {
    const json& result = answer["result"];
    reply.delivered = true;
    if (result.contains("error") && result["error"].is_object()) {
      const json& e = result["error"];
      reply.error_type = e.value("error_type", std::string("ERROR"));
      if (e.contains("messages") && e["messages"].is_array()) {
        for (const auto& m : e["messages"]) {
          reply.messages.push_back(Message(m));
        }
      }
      if (reply.messages.empty()) {
        reply.messages.push_back(DefaultMessage(reply.error_type));
      }
      return reply;
    }
    reply.ok = true;
    reply.output = result.contains("output") ? result["output"] : json();
    return reply;
  }
  if (answer.is_object() && answer.contains("error") && answer["error"].is_object()) {
    reply.delivered = true;
    reply.error_type = answer["error"].value("message", std::string("framework error"));
    reply.messages.push_back(DefaultMessage(reply.error_type) + " (HTTP " + std::to_string(status) + ")");
    return reply;
  }
  reply.transport_error = "unexpected answer (HTTP " + std::to_string(status) + ")";
  return reply;
}

// ---------------------------------------------------------------------------
// Catalog

bool Catalog::Load(ApiSession* api, std::string* error) {
  auto fail = [&](const Reply& r, const char* what) {
    *error = std::string("cannot read the daemon's ") + what + ": " +
             (r.delivered ? r.error_type : r.transport_error);
    return false;
  };
  Reply list = api->Invoke(std::string(kCliPrefix) + "namespace", "list");
  if (!list.ok || !list.output.is_array()) {
    return fail(list, "command namespaces");
  }
  // The words that call each namespace, by its full path: its aliases,
  // then its name.
  std::map<std::string, std::vector<std::string>> words_of;
  for (const auto& n : list.output) {
    Reply entry = api->Invoke(std::string(kCliPrefix) + "namespace", "get", n);
    if (!entry.ok || !entry.output.is_object()) {
      return fail(entry, "command namespaces");
    }
    std::string parent = entry.output.value("path", "");
    std::string name = entry.output.value("name", "");
    std::vector<std::string>& words = words_of[parent.empty() ? name : parent + "." + name];
    for (const auto& a : entry.output.value("aliases", json::array())) {
      if (a.is_string()) {
        words.push_back(Normalize(a.get<std::string>()));
      }
    }
  }
  Reply commands = api->Invoke(std::string(kCliPrefix) + "command", "list");
  if (!commands.ok || !commands.output.is_array()) {
    return fail(commands, "commands");
  }
  for (const auto& c : commands.output) {
    Command command;
    command.path = Split(c.value("path", ""), '.');
    command.name = c.value("name", "");
    for (size_t i = 0; i < command.path.size(); ++i) {
      std::vector<std::string> words = words_of[Join(command.path, 0, i + 1, ".")];
      words.push_back(Normalize(command.path[i]));
      command.segment_words.push_back(std::move(words));
    }
    commands_.push_back(std::move(command));
  }
  changed_ = true;
  return true;
}

// Saved catalogues hold the commands as Load and Describe filled them.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(InputOption, name, field, type, default_value)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Command, path, segment_words, name, description, service_id, operation_id,
                                   inputs, output_type, columns, described)

json Catalog::Save(const std::string& checksum) const {
  return {{"format", kCatalogFormat},
          {"checksum", checksum},
          {"commands", commands_},
          {"structures", structures_},
          {"enumerations", enumerations_}};
}

bool Catalog::Restore(const json& saved, const std::string& checksum) {
  try {
    if (!saved.is_object() || saved.value("format", 0) != kCatalogFormat ||
        saved.value("checksum", std::string()) != checksum) {
      return false;
    }
    auto commands = saved.at("commands").get<std::vector<Command>>();
    // Resolve and DisplayWords expect every namespace segment to have words.
    for (const Command& c : commands) {
      if (c.segment_words.size() != c.path.size() ||
          std::any_of(c.segment_words.begin(), c.segment_words.end(), [](const auto& w) { return w.empty(); })) {
        return false;
      }
    }
    const json& structures = saved.at("structures");
    const json& enumerations = saved.at("enumerations");
    if (!structures.is_object() || !enumerations.is_object()) {
      return false;
    }
    commands_ = std::move(commands);
    structures_ = structures;
    enumerations_ = enumerations;
    changed_ = false;
    return true;
  } catch (const json::exception&) {
    return false;
  }
}

Catalog::Found Catalog::Resolve(const std::vector<std::string>& words, size_t* index,
                                std::vector<std::string>* candidates) const {
  auto tail_matches = [&](const Command& c, size_t count) {
    if (count > c.path.size()) {
      return false;
    }
    size_t first = c.path.size() - count;
    for (size_t j = 0; j < count; ++j) {
      const std::vector<std::string>& accepted = c.segment_words[first + j];
      if (std::find(accepted.begin(), accepted.end(), Normalize(words[j])) == accepted.end()) {
        return false;
      }
    }
    return true;
  };
  std::vector<size_t> hits;
  size_t ns = words.empty() ? 0 : words.size() - 1;
  if (!words.empty()) {
    for (size_t i = 0; i < commands_.size(); ++i) {
      const Command& c = commands_[i];
      if (Normalize(c.name) == Normalize(words.back()) && tail_matches(c, ns)) {
        hits.push_back(i);
      }
    }
  }
  // A bare operation name names a command only when that command has no
  // namespace: a later "get" elsewhere must not change what "get" does.
  if (hits.size() == 1 && (ns > 0 || commands_[hits[0]].path.empty())) {
    *index = hits[0];
    return Found::kOne;
  }
  candidates->clear();
  if (hits.empty()) {
    // The words may name a namespace: offer its commands.
    for (size_t i = 0; i < commands_.size(); ++i) {
      if (tail_matches(commands_[i], words.size())) {
        hits.push_back(i);
      }
    }
    if (hits.empty()) {
      for (size_t i = 0; i < commands_.size(); ++i) {
        hits.push_back(i);
      }
    }
    for (size_t i : hits) {
      candidates->push_back(DisplayWords(i));
    }
    return Found::kNone;
  }
  for (size_t i : hits) {
    candidates->push_back(DisplayWords(i));
  }
  return Found::kAmbiguous;
}

std::string Catalog::DisplayWords(size_t index) const {
  const Command& c = commands_[index];
  std::vector<std::string> segments;
  for (size_t i = 0; i < c.path.size(); ++i) {
    segments.push_back(c.segment_words[i].front());
  }
  for (size_t k = c.path.empty() ? 0 : 1; k <= c.path.size(); ++k) {
    std::vector<std::string> words(segments.end() - static_cast<long>(k), segments.end());
    words.push_back(Normalize(c.name));
    size_t found = 0;
    std::vector<std::string> ignored;
    if (Resolve(words, &found, &ignored) == Found::kOne && found == index) {
      return Join(words, 0, words.size(), " ");
    }
  }
  segments.push_back(Normalize(c.name));
  return Join(segments, 0, segments.size(), " ");
}

bool Catalog::FetchTypes(ApiSession* api, const json& type, std::string* error) {
  const json& t = Unwrap(type);
  std::string kind = Kind(t);
  if (kind == "list") {
    return FetchTypes(api, t["list"], error);
  }
  if (kind != "structure" && kind != "enumeration") {
    return true;
  }
  std::string id = Ref(t);
  json& cache = kind == "structure" ? structures_ : enumerations_;
  if (cache.contains(id)) {
    return true;
  }
  Reply r = api->Invoke(std::string(kMetamodelPrefix) + kind, "get", {{"id", id}});
  if (!r.ok || !r.output.is_object()) {
    *error = "cannot read the type " + id + ": " + (r.delivered ? r.error_type : r.transport_error);
    return false;
  }
  cache[id] = r.output;
  changed_ = true;
  if (kind == "structure" && r.output.contains("fields") && r.output["fields"].is_object()) {
    for (const auto& [name, field_type] : r.output["fields"].items()) {
      if (!FetchTypes(api, field_type, error)) {
        return false;
      }
    }
  }
  return true;
}

bool Catalog::Describe(ApiSession* api, size_t index, Command* out, std::string* error) {
  Command& c = commands_[index];
  if (c.described) {
    *out = c;
    return true;
  }
  Reply entry = api->Invoke(std::string(kCliPrefix) + "command", "get",
                            {{"path", Join(c.path, 0, c.path.size(), ".")}, {"name", c.name}});
  if (!entry.ok || !entry.output.is_object()) {
    *error = "cannot read the command: " + (entry.delivered ? entry.error_type : entry.transport_error);
    return false;
  }
  c.description = entry.output.value("description", "");
  c.service_id = entry.output.value("service_id", "");
  c.operation_id = entry.output.value("operation_id", "");
  c.columns.clear();
  for (const auto& column : entry.output.value("columns", json::array())) {
    if (column.is_string()) {
      c.columns.push_back(column.get<std::string>());
    }
  }
  Reply op = api->Invoke("com.quarro.lumen.std.introspection.operation", "get",
                         {{"service_id", c.service_id}, {"operation_id", c.operation_id}});
  if (!op.ok || !op.output.is_object()) {
    *error = "cannot read the operation " + c.service_id + "." + c.operation_id + ": " +
             (op.delivered ? op.error_type : op.transport_error);
    return false;
  }
  c.output_type = op.output.value("output_definition", json("void"));
  const json input_fields = op.output.value("input_definition", json::object()).value("fields", json::object());
  if (!FetchTypes(api, c.output_type, error)) {
    return false;
  }
  c.inputs.clear();
  const json inputs = entry.output.value("input", json::array());
  for (const auto& in : inputs) {
    InputOption option;
    option.name = in.value("name", "");
    option.field = in.value("field", option.name);
    option.default_value = in.value("default", json());
    // A dotted field reaches into the structures of the operation's input.
    std::vector<std::string> path = Split(option.field, '.');
    json fields = input_fields;
    for (size_t i = 0; i < path.size(); ++i) {
      json type = fields.value(path[i], json());
      if (type.is_null()) {
        *error = "the command's option " + option.name + " names no input field " + option.field;
        return false;
      }
      if (!FetchTypes(api, type, error)) {
        return false;
      }
      if (i + 1 == path.size()) {
        option.type = type;
      } else {
        fields = Structure(Ref(Unwrap(type))).value("fields", json::object());
      }
    }
    c.inputs.push_back(std::move(option));
  }
  c.described = true;
  changed_ = true;
  *out = c;
  return true;
}

const json& Catalog::Structure(const std::string& id) const {
  static const json kNull;
  auto it = structures_.find(id);
  return it == structures_.end() ? kNull : *it;
}

const json& Catalog::Enumeration(const std::string& id) const {
  static const json kNull;
  auto it = enumerations_.find(id);
  return it == enumerations_.end() ? kNull : *it;
}

// ---------------------------------------------------------------------------
// The catalogue between runs

std::string ProviderChecksum(ApiSession* api) {
  Reply r = api->Invoke("com.quarro.lumen.std.introspection.provider", "get");
  if (!r.ok || !r.output.is_object()) {
    return "";
  }
  json checksum = r.output.value("checksum", json());
  return checksum.is_string() ? checksum.get<std::string>() : "";
}

std::string CatalogCachePath(const std::string& checksum) {
  // The checksum names a file: only a plain hex digest may.
  if (checksum.empty() || checksum.size() > 128 ||
      !std::all_of(checksum.begin(), checksum.end(), [](unsigned char c) { return std::isxdigit(c) != 0; })) {
    return "";
  }
  std::string dir;
  // Relative values of either variable are not meant as cache locations.
  if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg != nullptr && xdg[0] == '/') {
    dir = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
    dir = std::string(home) + "/.cache";
  } else {
    return "";
  }
  return dir + "/witnessctl/catalog-" + checksum + ".json";
}

bool ReadCatalogCache(const std::string& path, const std::string& checksum, Catalog* catalog) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return false;
  }
  std::stringstream text;
  text << in.rdbuf();
  json saved = Hearth::ParseJson(text.str());
  return !saved.is_discarded() && catalog->Restore(saved, checksum);
}

bool WriteCatalogCache(const std::string& path, const std::string& checksum, const Catalog& catalog) {
  std::string text;
  try {
    text = catalog.Save(checksum).dump();
  } catch (const json::exception&) {
    return false;
  }
  // Missing directories are made private to the user.
  std::string dir = path.substr(0, path.rfind('/'));
  for (size_t at = dir.find('/', 1);; at = dir.find('/', at + 1)) {
    std::string prefix = dir.substr(0, at);
    if (mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
      return false;
    }
    if (at == std::string::npos) {
      break;
    }
  }
  std::string temp = path + ".XXXXXX";
  int fd = mkstemp(temp.data());
  if (fd < 0) {
    return false;
  }
  bool ok = true;
  for (size_t done = 0; ok && done < text.size();) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    ok = n > 0 || (n < 0 && errno == EINTR);
    done += n > 0 ? static_cast<size_t>(n) : 0;
  }
  ok = close(fd) == 0 && ok;
  if (ok && std::rename(temp.c_str(), path.c_str()) == 0) {
    return true;
  }
  unlink(temp.c_str());
  return false;
}

// ---------------------------------------------------------------------------
// Input, usage and output

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
      return Message(value) + "\n";
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

// ---------------------------------------------------------------------------
// Tokens

bool MintToken(const std::string& key_pem, const std::string& subject, const std::vector<std::string>& entitlements,
               long validity_seconds, std::string* token, std::string* error) {
  Hearth::Jwt::KeyPtr key = Hearth::Jwt::PrivateKeyFromPem(key_pem);
  if (key == nullptr) {
    *error = "the issuer key is not a PEM private key";
    return false;
  }
  std::optional<Hearth::Jwt::Alg> alg = Hearth::Jwt::AlgFor(key.get());
  if (!alg) {
    *error = "the issuer key must be RSA or EC P-256";
    return false;
  }
  long now = static_cast<long>(std::time(nullptr));
  json grants = {{"sub", subject}, {"entitlements", entitlements}, {"iat", now}, {"exp", now + validity_seconds}};
  Hearth::Jwt::Claims claims;
  if (!claims.Merge(grants) || !Hearth::Jwt::Sign(key.get(), *alg, claims, true, token)) {
    *error = "signing the token failed";
    return false;
  }
  return true;
}

}  // namespace Witnessd::Ctl
