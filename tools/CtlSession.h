// witnessctl's JSON-RPC session with the daemon: one call, one answer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/HttpClient.h"

namespace Witnessd::Ctl {

// Reply is one answer of the daemon.
struct Reply {
  bool delivered = false;      // an answer arrived and was a JSON-RPC result or error
  bool ok = false;             // the operation succeeded; |output| holds its value
  nlohmann::json output;
  std::string error_type;      // "NOT_FOUND", ... or the framework's message id
  std::vector<std::string> messages;  // localized texts of the error
  std::string transport_error;        // why no answer was delivered
};

class ApiSession {
 public:
  // |token| empty: calls are anonymous.
  ApiSession(std::string host, uint16_t port, std::string token);

  Reply Invoke(const std::string& service_id, const std::string& operation_id,
               const nlohmann::json& input = nlohmann::json::object());
  void SetProgress(Agent::HttpClient::Progress progress) { http_.SetProgress(std::move(progress)); }

 private:
  Agent::HttpClient http_;
  std::string token_;
  uint64_t next_id_ = 1;
};

}  // namespace Witnessd::Ctl
