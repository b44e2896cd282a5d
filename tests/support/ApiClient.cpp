#include "tests/support/ApiClient.h"

#include <fstream>

#include "platform/lumen/Json.h"
#include "platform/lumen/JsonRpc.h"
#include "platform/lumen/TokenHandler.h"
#include "tests/api/TestTokens.h"
#include "tools/HttpClient.h"

namespace Witnessd::Testing {

bool ApiReply::HasMessage(const std::string& id) const {
  for (const std::string& m : message_ids) {
    if (m == id) {
      return true;
    }
  }
  return false;
}

std::string InstallTrustedIssuer(const std::string& sysroot) {
  Pkey key = MakeRsaKey();
  std::ofstream(sysroot + "/etc/quarro/cpservices/witnessd/trusted_issuers.pem") << PublicPem(key.get());
  return MakeToken("RS256", key.get(), Claims("admin", {"Attestation.Administer", "Attestation.Read"}, 24 * 3600));
}

ApiClient::ApiClient(uint16_t port, std::string token)
    : http_(std::make_unique<Agent::HttpClient>("127.0.0.1", port)), token_(std::move(token)) {}

ApiClient::~ApiClient() = default;

ApiReply ApiClient::Invoke(const std::string& service, const std::string& operation, const nlohmann::json& input) {
  Lumen::JsonRpc::Call call;
  call.id = std::to_string(next_id_++);
  call.service_id = service;
  call.operation_id = operation;
  if (!token_.empty()) {
    call.security_ctx = Hyv::Authn::TokenSecurityContext(token_);
  }
  call.input = input;
  ApiReply reply;
  std::string error;
  if (!http_->Post("/api", "application/vnd.quarro.lumen.cleanjson", Lumen::JsonRpc::CallBody(call), &reply.http_status, &reply.raw,
                   &error)) {
    reply.error_type = "TRANSPORT: " + error;
    return reply;
  }
  nlohmann::json body = nlohmann::json::parse(reply.raw, nullptr, false);
  if (!body.is_object() || !body.contains("result") || !body["result"].is_object()) {
    reply.error_type = "MALFORMED";
    return reply;
  }
  const nlohmann::json& result = body["result"];
  if (result.contains("output")) {
    reply.ok = true;
    reply.output = result["output"];
    return reply;
  }
  const nlohmann::json& err = result.value("error", nlohmann::json::object());
  reply.error_type = err.value("error_type", "MALFORMED");
  for (const nlohmann::json& m : err.value("messages", nlohmann::json::array())) {
    reply.message_ids.push_back(m.value("id", ""));
    reply.message_args.push_back(m.value("args", std::vector<std::string>{}));
  }
  return reply;
}

std::string ApiClient::Base64(const std::string& bytes) {
  return Lumen::Json::Base64Encode(std::vector<uint8_t>(bytes.begin(), bytes.end()));
}

std::string ApiClient::Base64(const std::vector<uint8_t>& bytes) { return Lumen::Json::Base64Encode(bytes); }

}  // namespace Witnessd::Testing
