// Shared by the pieces of witnessctl: the words of commands and the shapes
// of the daemon's metamodel types.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Witnessd::Ctl {

std::vector<std::string> Split(const std::string& text, char sep);
// Join joins |parts| from |begin| to before |end| with |sep|.
std::string Join(const std::vector<std::string>& parts, size_t begin, size_t end, const char* sep);
std::string Upper(std::string s);

// Normalize writes a command word or option name with '-' for '_'.
std::string Normalize(std::string word);

// Unwrap strips an "optional" wrapper from a metamodel type.
const nlohmann::json& Unwrap(const nlohmann::json& type, bool* optional = nullptr);

// Kind names a type's shape: "list", "structure", "enumeration", or the
// primitive's own name ("string", "boolean", "binary", "long", "any", ...).
std::string Kind(const nlohmann::json& type);

// Ref is the id of the structure or enumeration a type names.
std::string Ref(const nlohmann::json& type);

// TypeText describes a type for a command's help.
std::string TypeText(const nlohmann::json& type);

}  // namespace Witnessd::Ctl
