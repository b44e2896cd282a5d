// Fuzzes the JSON-RPC call reader against the DOM parser it stands in for:
// both accept and refuse the same bodies in both JSON forms, and read the
// same call from an accepted one, the input's decoded bytes reading as the
// base64 text they came from. A reader reused across bodies reads each as a
// fresh one does.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/lumen/Json.h"
#include "platform/lumen/JsonRpc.h"

namespace {

nlohmann::json AsText(const nlohmann::json& v) {
  if (v.is_binary()) {
    return Lumen::Json::Base64Encode(v.get_binary());
  }
  if (!v.is_structured()) {
    return v;
  }
  nlohmann::json out = v.is_object() ? nlohmann::json::object() : nlohmann::json::array();
  for (auto it = v.begin(); it != v.end(); ++it) {
    if (v.is_object()) {
      out[it.key()] = AsText(it.value());
    } else {
      out.push_back(AsText(it.value()));
    }
  }
  return out;
}

bool Same(const Lumen::JsonRpc::Call& a, const Lumen::JsonRpc::Call& b) {
  return a.id == b.id && a.service_id == b.service_id && a.operation_id == b.operation_id &&
         a.security_ctx == b.security_ctx && a.op_id == b.op_id && AsText(a.input) == b.input;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view body(reinterpret_cast<const char*>(data), size);
  Lumen::JsonRpc::CallReader reused;
  for (bool decorated : {false, true}) {
    Lumen::JsonRpc::Call fast, dom, again;
    bool fast_ok = reused.Parse(body, decorated, &fast);
    bool dom_ok = Lumen::JsonRpc::ParseCallWithDom(body, decorated, &dom);
    bool again_ok = Lumen::JsonRpc::ParseCall(body, decorated, &again);
    if (fast_ok != dom_ok || again_ok != dom_ok || (dom_ok && (!Same(fast, dom) || !Same(again, dom)))) {
      abort();
    }
  }
  return 0;
}
