#include "tools/Ctl.h"

#include <ctime>
#include <optional>

#include "platform/Jwt.h"

namespace Witnessd::Ctl {

using nlohmann::json;

bool MintToken(const std::string& key_pem, const std::string& subject, const std::vector<std::string>& entitlements,
               long validity_seconds, std::string* token, std::string* error) {
  Hearth::Jwt::KeyPtr key = Hearth::Jwt::PrivateKeyFromPem(key_pem);
  if (key == nullptr) {
    *error = "the issuer key is not a PEM private key";
    return false;
  }
  std::optional<Hearth::Jwt::Alg> alg = Hearth::Jwt::AlgFor(key.get());
  if (!alg) {
    *error = "the issuer key must be RSA or EC P-256";
    return false;
  }
  long now = static_cast<long>(std::time(nullptr));
  json grants = {{"sub", subject}, {"entitlements", entitlements}, {"iat", now}, {"exp", now + validity_seconds}};
  Hearth::Jwt::Claims claims;
  std::optional<std::string> signed_token;
  if (claims.Merge(grants)) {
    signed_token = Hearth::Jwt::Sign(key.get(), *alg, claims, Hearth::Jwt::KeyOrder::kSorted);
  }
  if (!signed_token) {
    *error = "signing the token failed";
    return false;
  }
  *token = std::move(*signed_token);
  return true;
}

}  // namespace Witnessd::Ctl
