#include "tools/CtlSession.h"

#include <map>

#include "platform/JsonParse.h"
#include "platform/lumen/JsonRpc.h"
#include "platform/lumen/TokenHandler.h"
#include "tools/CtlRender.h"

namespace Witnessd::Ctl {

namespace {

using nlohmann::json;

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


}  // namespace

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
          reply.messages.push_back(MessageText(m));
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

}  // namespace Witnessd::Ctl
