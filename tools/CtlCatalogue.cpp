#include "tools/CtlCatalogue.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "platform/JsonParse.h"
#include "tools/CtlTypes.h"

namespace Witnessd::Ctl {

namespace {

using nlohmann::json;

constexpr const char* kCliPrefix = "com.quarro.lumen.metadata.cli.";
constexpr const char* kMetamodelPrefix = "com.quarro.lumen.metadata.metamodel.";
// Version of the saved catalogue's layout; a file of another is read afresh.
constexpr int kCatalogFormat = 1;

}  // namespace

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

}  // namespace Witnessd::Ctl
