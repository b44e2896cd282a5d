#include "api/provider/Metadata.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "platform/JsonParse.h"
#include "platform/lumen/Json.h"

namespace Witnessd::AttestApi {

namespace {

using Lumen::Json::InputReader;
using Lumen::Provider::ApiInterface;
using Lumen::Provider::InterfaceList;
using Lumen::Provider::MethodResult;
using Lumen::Provider::Request;
using Lumen::Provider::ResultCallback;
using nlohmann::json;

constexpr const char* kMetadataPrefix = "com.quarro.lumen.metadata.";
constexpr const char* kIntrospectionPrefix = "com.quarro.lumen.std.introspection.";

bool LoadSection(const std::string& path, const std::string& component, json* out, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot open " + path;
    return false;
  }
  json doc = Hearth::ParseJson(in);
  if (doc.is_discarded() || !doc.is_object()) {
    *error = path + " is not a JSON object";
    return false;
  }
  auto it = doc.find(component);
  if (it == doc.end() || !it->is_object()) {
    *error = path + " has no section " + component;
    return false;
  }
  *out = std::move(*it);
  return true;
}

Lumen::StdError MissingEntry(const std::string& what) {
  return Com::Quarro::Lumen::Std::Errors::NotFound(
      {{"com.quarro.lumen.metadata.not_found", "No metadata entry '{id}'.", {what}}});
}

// Handler is the shape of every metadata operation: clean input in, a value or
// an error out, synchronously.
using Handler = std::function<MethodResult(InputReader& input)>;

Lumen::Provider::OperationHandler Wrap(Handler handler) {
  return [handler](const Request& request, ResultCallback done) {
    InputReader input(request.input);
    MethodResult result = handler(input);
    if (!input.Ok()) {
      result = MethodResult::Failure(input.Error());
    }
    done(std::move(result));
  };
}

void Add(InterfaceList* list, const std::string& full_operation, Handler handler) {
  size_t dot = full_operation.rfind('.');
  std::string service = full_operation.substr(0, dot);
  std::string op = full_operation.substr(dot + 1);
  auto it = std::find_if(list->begin(), list->end(), [&](const auto& i) { return i->service_id == service; });
  if (it == list->end()) {
    list->push_back(std::make_shared<ApiInterface>());
    list->back()->service_id = service;
    it = list->end() - 1;
  }
  (*it)->operations[op] = Wrap(std::move(handler));
}

json Keys(const json& object) {
  json out = json::array();
  if (object.is_object()) {
    for (const auto& [key, value] : object.items()) {
      out.push_back(key);
    }
  }
  return out;
}

json Ids(const json& array) {
  json out = json::array();
  if (array.is_array()) {
    for (const auto& e : array) {
      out.push_back(e.value("id", ""));
    }
  }
  return out;
}

MethodResult FindById(const json& array, const std::string& id) {
  if (array.is_array()) {
    for (const auto& e : array) {
      if (e.value("id", "") == id) {
        return MethodResult::Value(e);
      }
    }
  }
  return MethodResult::Failure(MissingEntry(id));
}

MethodResult FindKey(const json& object, const std::string& key) {
  if (object.is_object()) {
    if (auto it = object.find(key); it != object.end()) {
      return MethodResult::Value(*it);
    }
  }
  return MethodResult::Failure(MissingEntry(key));
}

const json& Field(const json& object, const char* name) {
  static const json kNull;
  if (!object.is_object()) {
    return kNull;
  }
  auto it = object.find(name);
  return it == object.end() ? kNull : *it;
}

std::string Fingerprint(const json& section) {
  return Lumen::Json::HexDigestSha256(section.dump());
}

// The component, package, service and operation services shared by the
// metamodel and authentication sections.
void AddComponentServices(InterfaceList* list, const std::string& area, const json& section) {
  std::string p = std::string(kMetadataPrefix) + area + ".";
  Add(list, p + "component.fingerprint", [section](InputReader&) { return MethodResult::Value(Fingerprint(section)); });
  Add(list, p + "component.list", [section](InputReader&) { return MethodResult::Value(Ids(Field(section, "component"))); });
  Add(list, p + "component.get", [section](InputReader& in) { return FindById(Field(section, "component"), in.String("id")); });
  Add(list, p + "package.list", [section](InputReader&) { return MethodResult::Value(Keys(Field(section, "packages"))); });
  Add(list, p + "package.get", [section](InputReader& in) { return FindKey(Field(section, "packages"), in.String("id")); });
  Add(list, p + "service.list", [section](InputReader&) { return MethodResult::Value(Keys(Field(section, "services"))); });
  Add(list, p + "service.get", [section](InputReader& in) { return FindKey(Field(section, "services"), in.String("id")); });
  Add(list, p + "service.operation.list", [section](InputReader& in) {
    MethodResult service = FindKey(Field(section, "services"), in.String("service_id"));
    return service.error ? service : MethodResult::Value(Keys(Field(service.output, "operations")));
  });
  Add(list, p + "service.operation.get", [section](InputReader& in) {
    std::string service_id = in.String("service_id");
    std::string operation_id = in.String("operation_id");
    MethodResult service = FindKey(Field(section, "services"), service_id);
    return service.error ? service : FindKey(Field(service.output, "operations"), operation_id);
  });
}

// CLI commands and namespaces are identified by path and name.
void AddCliEntries(InterfaceList* list, const std::string& kind, const json& entries) {
  std::string p = std::string(kMetadataPrefix) + "cli." + kind + ".";
  Add(list, p + "fingerprint", [entries](InputReader&) { return MethodResult::Value(Fingerprint(entries)); });
  Add(list, p + "list", [entries](InputReader&) {
    json out = json::array();
    for (const auto& e : entries) {
      out.push_back({{"path", e.value("path", "")}, {"name", e.value("name", "")}});
    }
    return MethodResult::Value(out);
  });
  Add(list, p + "get", [entries](InputReader& in) {
    std::string path = in.String("path");
    std::string name = in.String("name");
    for (const auto& e : entries) {
      if (e.value("path", "") == path && e.value("name", "") == name) {
        return MethodResult::Value(e);
      }
    }
    return MethodResult::Failure(MissingEntry(path.empty() ? name : path + "." + name));
  });
}

}  // namespace

const std::vector<std::string>& FrameworkOperations() {
  static const std::vector<std::string> kOperations = {
      "com.quarro.lumen.metadata.cli.command.fingerprint",
      "com.quarro.lumen.metadata.cli.command.get",
      "com.quarro.lumen.metadata.cli.command.list",
      "com.quarro.lumen.metadata.cli.namespace.fingerprint",
      "com.quarro.lumen.metadata.cli.namespace.get",
      "com.quarro.lumen.metadata.cli.namespace.list",
      "com.quarro.lumen.metadata.metamodel.component.fingerprint",
      "com.quarro.lumen.metadata.metamodel.component.get",
      "com.quarro.lumen.metadata.metamodel.component.list",
      "com.quarro.lumen.metadata.metamodel.enumeration.get",
      "com.quarro.lumen.metadata.metamodel.enumeration.list",
      "com.quarro.lumen.metadata.metamodel.package.get",
      "com.quarro.lumen.metadata.metamodel.package.list",
      "com.quarro.lumen.metadata.metamodel.resource.list",
      "com.quarro.lumen.metadata.metamodel.resource.model.list",
      "com.quarro.lumen.metadata.metamodel.service.get",
      "com.quarro.lumen.metadata.metamodel.service.hidden.list",
      "com.quarro.lumen.metadata.metamodel.service.list",
      "com.quarro.lumen.metadata.metamodel.service.operation.get",
      "com.quarro.lumen.metadata.metamodel.service.operation.list",
      "com.quarro.lumen.metadata.metamodel.structure.get",
      "com.quarro.lumen.metadata.metamodel.structure.list",
      "com.quarro.lumen.metadata.authentication.component.fingerprint",
      "com.quarro.lumen.metadata.authentication.component.get",
      "com.quarro.lumen.metadata.authentication.component.list",
      "com.quarro.lumen.metadata.authentication.package.get",
      "com.quarro.lumen.metadata.authentication.package.list",
      "com.quarro.lumen.metadata.authentication.service.get",
      "com.quarro.lumen.metadata.authentication.service.list",
      "com.quarro.lumen.metadata.authentication.service.operation.get",
      "com.quarro.lumen.metadata.authentication.service.operation.list",
      "com.quarro.lumen.std.introspection.operation.get",
      "com.quarro.lumen.std.introspection.operation.list",
      "com.quarro.lumen.std.introspection.provider.get",
      "com.quarro.lumen.std.introspection.service.get",
      "com.quarro.lumen.std.introspection.service.list",
  };
  return kOperations;
}

namespace ProviderHelper {

bool LoadCliMetadataFile(const std::string& path, const std::string& component, json* out, std::string* error) {
  return LoadSection(path, component, out, error);
}

bool LoadMetamodelMetadataFile(const std::string& path, const std::string& component, json* out,
                               std::string* error) {
  return LoadSection(path, component, out, error);
}

bool LoadAuthnMetadataFile(const std::string& path, const std::string& component, json* out, std::string* error) {
  return LoadSection(path, component, out, error);
}

InterfaceList CliInterfaces(const json& cli) {
  InterfaceList list;
  json commands = Field(cli, "commands").is_array() ? Field(cli, "commands") : json::array();
  json namespaces = Field(cli, "namespaces").is_array() ? Field(cli, "namespaces") : json::array();
  AddCliEntries(&list, "command", commands);
  AddCliEntries(&list, "namespace", namespaces);
  return list;
}

InterfaceList MetamodelInterfaces(const json& metamodel) {
  InterfaceList list;
  AddComponentServices(&list, "metamodel", metamodel);
  std::string p = std::string(kMetadataPrefix) + "metamodel.";
  for (const char* kind : {"structure", "enumeration"}) {
    std::string section = std::string(kind) == "structure" ? "structures" : "enumerations";
    json entries = Field(metamodel, section.c_str());
    Add(&list, p + kind + ".list", [entries](InputReader&) { return MethodResult::Value(Keys(entries)); });
    Add(&list, p + kind + ".get", [entries](InputReader& in) { return FindKey(entries, in.String("id")); });
  }
  json resources = Field(metamodel, "resources").is_array() ? Field(metamodel, "resources") : json::array();
  json hidden = Field(metamodel, "hidden_services").is_array() ? Field(metamodel, "hidden_services") : json::array();
  Add(&list, p + "resource.list", [resources](InputReader&) { return MethodResult::Value(resources); });
  // No structure of this API is a resource model.
  Add(&list, p + "resource.model.list", [](InputReader&) { return MethodResult::Value(json::array()); });
  Add(&list, p + "service.hidden.list", [hidden](InputReader&) { return MethodResult::Value(hidden); });
  return list;
}

InterfaceList AuthnInterfaces(const json& authn) {
  InterfaceList list;
  AddComponentServices(&list, "authentication", authn);
  return list;
}

}  // namespace ProviderHelper

namespace LoadAuthzInfoMetadata {

bool Load(std::istream& in, json* out) {
  json doc = Hearth::ParseJson(in);
  if (doc.is_discarded() || !doc.is_object()) {
    return false;
  }
  auto section = doc.find(kAuthzComponent);
  if (section == doc.end() || !section->is_object()) {
    return false;
  }
  const json& services = Field(*section, "services");
  if (!services.is_object()) {
    return false;
  }
  for (const auto& [service_id, service] : services.items()) {
    const json& ops = Field(service, "operations");
    if (!ops.is_object()) {
      return false;
    }
    for (const auto& [op_id, op] : ops.items()) {
      const json& privileges = Field(op, "privileges");
      if (!privileges.is_array() ||
          !std::all_of(privileges.begin(), privileges.end(), [](const json& p) { return p.is_string(); })) {
        return false;
      }
    }
  }
  *out = std::move(*section);
  return true;
}

}  // namespace LoadAuthzInfoMetadata

InterfaceList IntrospectionInterfaces(std::shared_ptr<const BoundOperations> bound, json metamodel,
                                      std::string checksum) {
  InterfaceList list;
  std::string p = kIntrospectionPrefix;
  auto operations_of = [bound](const std::string& service_id) -> const std::vector<std::string>* {
    auto it = bound->find(service_id);
    return it == bound->end() ? nullptr : &it->second;
  };
  Add(&list, p + "provider.get",
      [checksum](InputReader&) { return MethodResult::Value({{"id", "witnessd"}, {"checksum", checksum}}); });
  Add(&list, p + "service.list", [bound](InputReader&) {
    json ids = json::array();
    for (const auto& [service_id, ops] : *bound) {
      ids.push_back(service_id);
    }
    return MethodResult::Value(ids);
  });
  Add(&list, p + "service.get", [operations_of](InputReader& in) {
    std::string id = in.String("id");
    const auto* ops = operations_of(id);
    return ops != nullptr ? MethodResult::Value({{"operations", *ops}}) : MethodResult::Failure(MissingEntry(id));
  });
  Add(&list, p + "operation.list", [operations_of](InputReader& in) {
    std::string id = in.String("service_id");
    const auto* ops = operations_of(id);
    return ops != nullptr ? MethodResult::Value(*ops) : MethodResult::Failure(MissingEntry(id));
  });
  Add(&list, p + "operation.get", [operations_of, metamodel](InputReader& in) {
    std::string service_id = in.String("service_id");
    std::string operation_id = in.String("operation_id");
    const auto* ops = operations_of(service_id);
    const json& op = Field(Field(Field(Field(metamodel, "services"), service_id.c_str()), "operations"),
                           operation_id.c_str());
    if (ops == nullptr || std::find(ops->begin(), ops->end(), operation_id) == ops->end() || !op.is_object()) {
      return MethodResult::Failure(MissingEntry(service_id + "." + operation_id));
    }
    return MethodResult::Value({{"input_definition", Field(op, "input")},
                                {"output_definition", Field(op, "output")},
                                {"error_definitions", Field(op, "errors")}});
  });
  return list;
}

}  // namespace Witnessd::AttestApi
