// The JSON-RPC 2.0 envelope of API calls:
//   {"jsonrpc": "2.0", "id": ..., "method": "invoke",
//    "params": {"serviceId", "operationId", "ctx": {"securityCtx", "appCtx"}, "input"}}
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "platform/lumen/Provider.h"

namespace Lumen::JsonRpc {

struct Call {
  nlohmann::json id;  // echoed in the answer
  std::string service_id;
  std::string operation_id;
  nlohmann::json security_ctx = nlohmann::json::object();
  std::string op_id;  // ctx.appCtx.opId, empty when absent
  nlohmann::json input = nlohmann::json::object();
};

// ParseCall decodes a request body. In decorated form the input's structure
// wrappers are removed. Returns false for anything that is not a well-formed
// "invoke" call; |out| is then unspecified.
bool ParseCall(std::string_view body, bool decorated, Call* out);

// ResultBody renders the answer to a call: {"result": {"output": ...}} or
// {"result": {"error": ...}}, the output decorated with |types| when
// |decorated| and a type is known.
std::string ResultBody(const Call& call, const Provider::MethodResult& result, bool decorated,
                       const Json::TypeRegistry* types);

// CallBody renders |call| as a request body, the client side of ParseCall:
// clean JSON, appCtx.opId only when |call.op_id| is set.
std::string CallBody(const Call& call);

// FrameworkErrorBody renders an error found before dispatch:
// {"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"<message id>"}}.
std::string FrameworkErrorBody(const std::string& message_id);

}  // namespace Lumen::JsonRpc
