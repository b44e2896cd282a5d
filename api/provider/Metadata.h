// The API metadata file and the framework services that answer from it: the
// command-line, metamodel and authentication metadata services, and the
// introspection services of the provider.
#pragma once

#include <istream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/lumen/Provider.h"

namespace Witnessd::AttestApi {

inline constexpr const char* kMetadataDir = "/usr/lib/quarro/lumen/";
inline constexpr const char* kMetadataFileName = "attest_lumen_metadata.json";

inline constexpr const char* kCliComponent = "attest_lumen_cli";
inline constexpr const char* kMetamodelComponent = "attest_lumen_metamodel";
inline constexpr const char* kAuthnComponent = "attest_lumen_authentication";
inline constexpr const char* kAuthzComponent = "attest_lumen_authorization";

inline constexpr const char* kNoAuthenticationScheme = "com.quarro.lumen.std.security.no_authentication";

// The operations of the framework's metadata and introspection services; all
// are callable without credentials.
const std::vector<std::string>& FrameworkOperations();

namespace ProviderHelper {

// Each loader reads one section, named by |component|, of the metadata file
// at |path| into |out|. They return false with the reason in |error| when the
// file cannot be read, is not JSON, or lacks the section.
bool LoadCliMetadataFile(const std::string& path, const std::string& component, nlohmann::json* out,
                         std::string* error);
bool LoadMetamodelMetadataFile(const std::string& path, const std::string& component, nlohmann::json* out,
                               std::string* error);
bool LoadAuthnMetadataFile(const std::string& path, const std::string& component, nlohmann::json* out,
                           std::string* error);

// The metadata services over the loaded sections.
Lumen::Provider::InterfaceList CliInterfaces(const nlohmann::json& cli);
Lumen::Provider::InterfaceList MetamodelInterfaces(const nlohmann::json& metamodel);
Lumen::Provider::InterfaceList AuthnInterfaces(const nlohmann::json& authn);

}  // namespace ProviderHelper

namespace LoadAuthzInfoMetadata {

// Load reads the whole metadata stream and takes its authorization section
// into |out|: {"services": {id: {"operations": {id: {"privileges": [...]}}}}}.
// Returns false when the stream is not JSON or the section is malformed.
bool Load(std::istream& in, nlohmann::json* out);

}  // namespace LoadAuthzInfoMetadata

// BoundOperations: operation ids per bound service id.
using BoundOperations = std::map<std::string, std::vector<std::string>>;

// IntrospectionInterfaces serves the provider, service and operation
// introspection services. |bound| is filled by assembly once every interface,
// these included, is in the list, and before the first request; |checksum| is
// the metadata file's SHA-256 in hex.
Lumen::Provider::InterfaceList IntrospectionInterfaces(std::shared_ptr<const BoundOperations> bound,
                                                       nlohmann::json metamodel, std::string checksum);

}  // namespace Witnessd::AttestApi
