// JSON forms of API values. Clean JSON is the value itself; decorated JSON
// wraps every structure as {"STRUCTURE": {"<structure id>": {fields}}} and
// every error as {"ERROR": {"<error type id>": {fields}}}. Decorating needs
// the value's type, which the metamodel gives; undecorating does not.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/lumen/Message.h"

namespace Lumen::Json {

// Type descriptions, as the metamodel section of the metadata file writes
// them: a name ("string", "boolean", "long", "binary", "any", "void") or an
// object {"list": T}, {"optional": T}, {"structure": "<id>"},
// {"enumeration": "<id>"}.
class TypeRegistry {
 public:
  // |metamodel| holds "structures" (id -> {"fields": {name: T}}) and
  // "services" (id -> {"operations": {id -> {"input", "output", "errors"}}}).
  explicit TypeRegistry(nlohmann::json metamodel);

  // OutputType returns the operation's output type, or null when unknown.
  const nlohmann::json* OutputType(const std::string& service_id, const std::string& operation_id) const;
  // Decorate returns |value| in decorated form for |type|. Parts the type
  // does not describe are copied unchanged.
  nlohmann::json Decorate(const nlohmann::json& value, const nlohmann::json& type) const;

 private:
  nlohmann::json metamodel_;
};

inline constexpr const char* kMessageStructureId = "com.quarro.lumen.std.localizable_message";

// Undecorate removes every {"STRUCTURE": {id: fields}} and
// {"ERROR": {id: fields}} wrapper, at any depth.
nlohmann::json Undecorate(const nlohmann::json& value);

// DecorateError renders a standard error in decorated form.
nlohmann::json DecorateError(const StdError& error);

// Base64 (standard alphabet, with padding). Decode rejects anything else.
std::string Base64Encode(const std::vector<uint8_t>& bytes);
bool Base64Decode(std::string_view text, std::vector<uint8_t>* out);

// HexDigestSha256 returns the lower-case hexadecimal SHA-256 of |bytes|.
std::string HexDigestSha256(const std::string& bytes);

// InputReader reads an operation's input fields. The first missing required
// field or wrongly typed field is remembered as BadField(); every later read
// returns an empty value. Absent optionals and null are the same.
class InputReader {
 public:
  explicit InputReader(const nlohmann::json& object, std::string path = "");

  bool Ok() const { return bad_.empty(); }
  const std::string& BadField() const { return bad_; }
  // Error returns the INVALID_ARGUMENT for BadField().
  StdError Error() const;

  std::string String(const char* name);
  // Checked reads a string that |valid| accepts; one it refuses is a bad
  // field and reads as empty.
  std::string Checked(const char* name, bool (*valid)(const std::string&));
  std::optional<std::string> OptString(const char* name);
  std::optional<bool> OptBool(const char* name);
  std::vector<std::string> StringList(const char* name);
  std::optional<std::vector<std::string>> OptStringList(const char* name);
  std::vector<uint8_t> Binary(const char* name);
  std::vector<std::vector<uint8_t>> BinaryList(const char* name);
  // Object returns a reader over a nested structure; the nested reader's
  // failures are reported through Merge.
  InputReader Object(const char* name);
  void Merge(const InputReader& nested);

 private:
  const nlohmann::json* Field(const char* name, bool required);
  bool BytesOf(const char* name, const nlohmann::json& v, std::vector<uint8_t>* out);
  void Fail(const char* name);

  const nlohmann::json* object_;
  std::string path_;
  std::string bad_;
};

}  // namespace Lumen::Json
