// Fuzzes the endpoint's in-memory request handling: HTTP parsing with the
// body limit and the Expect rule, content types, locale headers, and the
// JSON-RPC envelope in both JSON forms.
// Invariants: the verdict is one of the defined ones; a call that parses
// yields an answer body that is valid JSON echoing the call's id; base64 that
// decodes re-encodes to the same text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "api/endpoint/Endpoint.h"
#include "platform/lumen/Json.h"
#include "platform/lumen/JsonRpc.h"

using Witnessd::AttestApi::RequestVerdict;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  RequestVerdict v = Witnessd::AttestApi::ClassifyHttpRequest(bytes);
  if (v < RequestVerdict::kServe || v > RequestVerdict::kMetrics) {
    abort();
  }
  for (bool decorated : {false, true}) {
    Lumen::JsonRpc::Call call;
    if (!Lumen::JsonRpc::ParseCall(bytes, decorated, &call)) {
      continue;
    }
    auto result = Lumen::Provider::MethodResult::Value(call.input);
    auto body = nlohmann::json::parse(Lumen::JsonRpc::ResultBody(call, result, decorated, nullptr), nullptr, false);
    if (body.is_discarded() || body["id"] != call.id) {
      abort();
    }
  }
  std::vector<uint8_t> decoded;
  std::string text(bytes);
  if (Lumen::Json::Base64Decode(text, &decoded) && Lumen::Json::Base64Encode(decoded) != text) {
    abort();
  }
  return 0;
}
