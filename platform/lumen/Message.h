// Localizable messages and the standard error values every API operation
// reports through its result callback.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

namespace Com::Quarro::Lumen::Std {

// LocalizableMessage: a catalogue id, its default text with "{name}"
// placeholders still in it, and the placeholder values in order.
struct LocalizableMessage {
  std::string id;
  std::string default_message;
  std::vector<std::string> args;

  bool operator==(const LocalizableMessage&) const = default;
};

namespace Errors {

enum class Kind {
  kInvalidArgument,
  kAlreadyExists,
  kNotFound,
  kError,
  kOperationNotFound,
  kUnauthenticated,
  kUnauthorized,
  kInternalServerError,
};

// KindName returns the wire name ("INVALID_ARGUMENT"); TypeId the error's type
// id ("com.quarro.lumen.std.errors.invalid_argument").
const char* KindName(Kind kind);
std::string TypeId(Kind kind);

// StdError is one standard error value: its kind, its messages and optional
// extra data (null when none).
struct StdError {
  Kind kind = Kind::kError;
  std::vector<LocalizableMessage> messages;
  nlohmann::json data;
};

StdError InvalidArgument(std::vector<LocalizableMessage> messages);
StdError AlreadyExists(std::vector<LocalizableMessage> messages);
StdError NotFound(std::vector<LocalizableMessage> messages);
StdError Error(std::vector<LocalizableMessage> messages = {});
StdError OperationNotFound(const std::string& service_id, const std::string& operation_id);
StdError Unauthenticated();
StdError Unauthorized();
StdError InternalServerError();

// InvalidInput is the INVALID_ARGUMENT a binding reports for a missing
// required field or a field of the wrong JSON type; |field| is its path.
StdError InvalidInput(const std::string& field);

// ToJson renders the error in its clean wire form:
// {"error_type", "type", "messages": [...], "data"}.
nlohmann::json ToJson(const StdError& error);
nlohmann::json MessageToJson(const LocalizableMessage& message);

}  // namespace Errors
}  // namespace Com::Quarro::Lumen::Std

namespace Lumen {

using Com::Quarro::Lumen::Std::LocalizableMessage;
using Com::Quarro::Lumen::Std::Errors::StdError;

// Void is the output of operations that return nothing (null on the wire).
struct Void {};

// Outcome<T> is what an operation hands to its result callback: a value or a
// standard error.
template <class T>
using Outcome = std::variant<T, StdError>;

}  // namespace Lumen
