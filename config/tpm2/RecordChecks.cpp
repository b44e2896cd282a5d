#include "config/tpm2/RecordChecks.h"

#include "platform/ssl/SslUtils.h"

namespace Witnessd::Config::Tpm2 {

using Orm::Common::SslUtils;

std::optional<std::string> StandardEndorsementKey(const std::string& pem) {
  std::string key = pem;
  if (!SslUtils::StandardizePemPubKey(key) || !SslUtils::ValidatePemKey(key)) {
    return std::nullopt;
  }
  return key;
}

CaChainCheck CheckCaChainMembers(const std::vector<std::string>& certificates) {
  if (certificates.empty()) {
    return {CaChainFault::kEmpty, 0};
  }
  for (size_t i = 0; i < certificates.size(); ++i) {
    std::optional<bool> ca = SslUtils::IsCaCertPem(certificates[i]);
    if (!ca) {
      return {CaChainFault::kUnreadable, i};
    }
    if (!*ca) {
      return {CaChainFault::kNotCa, i};
    }
  }
  return {};
}

}  // namespace Witnessd::Config::Tpm2
