#include "platform/lumen/JsonRpc.h"

#include "platform/JsonParse.h"
#include "platform/lumen/Json.h"

namespace Lumen::JsonRpc {

namespace {

constexpr int kInvalidRequestCode = -32600;

bool StringField(const nlohmann::json& obj, const char* name, std::string* out) {
  auto it = obj.find(name);
  if (it == obj.end() || !it->is_string()) {
    return false;
  }
  *out = it->get<std::string>();
  return true;
}

}  // namespace

bool ParseCall(std::string_view body, bool decorated, Call* out) {
  nlohmann::json doc = Hearth::ParseJson(body);
  if (!doc.is_object()) {
    return false;
  }
  std::string version, method;
  if (!StringField(doc, "jsonrpc", &version) || version != "2.0" || !StringField(doc, "method", &method) ||
      method != "invoke") {
    return false;
  }
  auto id = doc.find("id");
  if (id != doc.end()) {
    if (!id->is_string() && !id->is_number() && !id->is_null()) {
      return false;
    }
    out->id = *id;
  }
  auto params = doc.find("params");
  if (params == doc.end() || !params->is_object() || !StringField(*params, "serviceId", &out->service_id) ||
      !StringField(*params, "operationId", &out->operation_id)) {
    return false;
  }
  if (auto ctx = params->find("ctx"); ctx != params->end() && !ctx->is_null()) {
    if (!ctx->is_object()) {
      return false;
    }
    if (auto sec = ctx->find("securityCtx"); sec != ctx->end() && !sec->is_null()) {
      if (!sec->is_object()) {
        return false;
      }
      out->security_ctx = *sec;
    }
    if (auto app = ctx->find("appCtx"); app != ctx->end() && !app->is_null()) {
      if (!app->is_object()) {
        return false;
      }
      if (auto op = app->find("opId"); op != app->end() && op->is_string()) {
        out->op_id = op->get<std::string>();
      }
    }
  }
  if (auto input = params->find("input"); input != params->end() && !input->is_null()) {
    out->input = decorated ? Json::Undecorate(*input) : *input;
  }
  return true;
}

std::string ResultBody(const Call& call, const Provider::MethodResult& result, bool decorated,
                       const Json::TypeRegistry* types) {
  nlohmann::json inner;
  if (result.error) {
    inner["error"] = decorated ? Json::DecorateError(*result.error)
                               : Com::Quarro::Lumen::Std::Errors::ToJson(*result.error);
  } else {
    const nlohmann::json* type = types != nullptr ? types->OutputType(call.service_id, call.operation_id) : nullptr;
    inner["output"] = decorated && type != nullptr ? types->Decorate(result.output, *type) : result.output;
  }
  nlohmann::json doc = {{"jsonrpc", "2.0"}, {"id", call.id}, {"result", std::move(inner)}};
  return doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string CallBody(const Call& call) {
  nlohmann::json app = nlohmann::json::object();
  if (!call.op_id.empty()) {
    app["opId"] = call.op_id;
  }
  nlohmann::json doc = {{"jsonrpc", "2.0"},
                        {"id", call.id},
                        {"method", "invoke"},
                        {"params",
                         {{"serviceId", call.service_id},
                          {"operationId", call.operation_id},
                          {"ctx", {{"securityCtx", call.security_ctx}, {"appCtx", std::move(app)}}},
                          {"input", call.input}}}};
  return doc.dump();
}

std::string FrameworkErrorBody(const std::string& message_id) {
  nlohmann::json doc = {{"jsonrpc", "2.0"},
                        {"id", nullptr},
                        {"error", {{"code", kInvalidRequestCode}, {"message", message_id}}}};
  return doc.dump();
}

}  // namespace Lumen::JsonRpc
