#include "platform/lumen/Message.h"

#include <cctype>

namespace Com::Quarro::Lumen::Std::Errors {

namespace {

constexpr const char* kTypePrefix = "com.quarro.lumen.std.errors.";

StdError Make(Kind kind, std::vector<LocalizableMessage> messages) {
  StdError e;
  e.kind = kind;
  e.messages = std::move(messages);
  return e;
}

}  // namespace

const char* KindName(Kind kind) {
  switch (kind) {
    case Kind::kInvalidArgument: return "INVALID_ARGUMENT";
    case Kind::kAlreadyExists: return "ALREADY_EXISTS";
    case Kind::kNotFound: return "NOT_FOUND";
    case Kind::kError: return "ERROR";
    case Kind::kOperationNotFound: return "OPERATION_NOT_FOUND";
    case Kind::kUnauthenticated: return "UNAUTHENTICATED";
    case Kind::kUnauthorized: return "UNAUTHORIZED";
    case Kind::kInternalServerError: return "INTERNAL_SERVER_ERROR";
  }
  return "ERROR";
}

std::string TypeId(Kind kind) {
  std::string id = kTypePrefix;
  for (const char* p = KindName(kind); *p != '\0'; ++p) {
    id += static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
  }
  return id;
}

StdError InvalidArgument(std::vector<LocalizableMessage> messages) {
  return Make(Kind::kInvalidArgument, std::move(messages));
}

StdError AlreadyExists(std::vector<LocalizableMessage> messages) {
  return Make(Kind::kAlreadyExists, std::move(messages));
}

StdError NotFound(std::vector<LocalizableMessage> messages) {
  return Make(Kind::kNotFound, std::move(messages));
}

StdError Error(std::vector<LocalizableMessage> messages) {
  return Make(Kind::kError, std::move(messages));
}

StdError OperationNotFound(const std::string& service_id, const std::string& operation_id) {
  return Make(Kind::kOperationNotFound,
              {{"com.quarro.lumen.std.errors.operation_not_found",
                "Operation '{operation}' of service '{service}' was not found.",
                {operation_id, service_id}}});
}

StdError Unauthenticated() {
  return Make(Kind::kUnauthenticated, {{"com.quarro.lumen.std.errors.unauthenticated",
                                        "The request could not be authenticated.", {}}});
}

StdError Unauthorized() {
  return Make(Kind::kUnauthorized, {{"com.quarro.lumen.std.errors.unauthorized",
                                     "The caller is not authorized to perform the operation.", {}}});
}

StdError InternalServerError() {
  return Make(Kind::kInternalServerError, {{"com.quarro.lumen.std.errors.internal_server_error",
                                            "Internal server error.", {}}});
}

StdError InvalidInput(const std::string& field) {
  return Make(Kind::kInvalidArgument,
              {{"com.quarro.lumen.std.errors.invalid_input",
                "The input field '{field}' is missing or has the wrong type.", {field}}});
}

nlohmann::json MessageToJson(const LocalizableMessage& message) {
  return {{"id", message.id}, {"default_message", message.default_message}, {"args", message.args}};
}

nlohmann::json ToJson(const StdError& error) {
  nlohmann::json messages = nlohmann::json::array();
  for (const auto& m : error.messages) {
    messages.push_back(MessageToJson(m));
  }
  return {{"error_type", KindName(error.kind)},
          {"type", TypeId(error.kind)},
          {"messages", std::move(messages)},
          {"data", error.data}};
}

}  // namespace Com::Quarro::Lumen::Std::Errors
