// A JSON-RPC client of a running witnessd for tests: one kept-alive loopback
// connection, clean JSON, an administrator token from a key that the helper
// installs as the sysroot's trusted issuer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Witnessd::Agent {
class HttpClient;
}

namespace Witnessd::Testing {

// One answer of an operation: either |output| or an API error.
struct ApiReply {
  int http_status = 0;
  bool ok = false;
  nlohmann::json output;              // the operation's value when ok
  std::string error_type;             // "NOT_FOUND", ... when !ok
  std::vector<std::string> message_ids;
  std::vector<std::vector<std::string>> message_args;
  std::string raw;                    // the whole response body

  bool HasMessage(const std::string& id) const;
};

// InstallTrustedIssuer writes a fresh issuer key's public half as the trusted
// issuers file of |sysroot| (before the daemon starts) and returns a token
// for subject "admin" with both attestation privileges.
std::string InstallTrustedIssuer(const std::string& sysroot);

class ApiClient {
 public:
  // |token| empty: calls are anonymous.
  ApiClient(uint16_t port, std::string token);
  ~ApiClient();

  ApiReply Invoke(const std::string& service, const std::string& operation,
                  const nlohmann::json& input = nlohmann::json::object());

  // Base64 (standard, padded) of raw bytes, as byte fields travel.
  static std::string Base64(const std::string& bytes);
  static std::string Base64(const std::vector<uint8_t>& bytes);

 private:
  std::unique_ptr<Agent::HttpClient> http_;
  std::string token_;
  uint64_t next_id_ = 1;
};

}  // namespace Witnessd::Testing
