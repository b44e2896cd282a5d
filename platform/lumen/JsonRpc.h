// The JSON-RPC 2.0 envelope of API calls:
//   {"jsonrpc": "2.0", "id": ..., "method": "invoke",
//    "params": {"serviceId", "operationId", "ctx": {"securityCtx", "appCtx"}, "input"}}
#pragma once

#include <memory>
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
// "invoke" call; |out| is then unspecified. Long strings of the input that
// are canonical base64 arrive decoded, as JSON binary values (InputReader
// reads them as the text they were). Reads through the calling thread's own
// CallReader.
bool ParseCall(std::string_view body, bool decorated, Call* out);

// ParseCallWithDom is ParseCall through the general depth-limited JSON
// parser and its DOM: what CallReader answers whenever its own reading
// fails, and what the fuzzer compares it with.
bool ParseCallWithDom(std::string_view body, bool decorated, Call* out);

// CallReader is ParseCall with a reader and buffers reused from one body to
// the next, used by one thread at a time. It reads the
// body without a general-purpose DOM and decodes the input's long base64
// strings straight into bytes; anything it does not read itself (escaped
// code points, control characters, anything it refuses) is decided by
// ParseCallWithDom, so both accept and refuse the same bodies.
class CallReader {
 public:
  CallReader();
  ~CallReader();
  CallReader(const CallReader&) = delete;
  CallReader& operator=(const CallReader&) = delete;

  bool Parse(std::string_view body, bool decorated, Call* out);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

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
