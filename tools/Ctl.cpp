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

namespace {

// How far ahead of this clock a token's issue time may be: the daemon's
// clock may run a little ahead.
constexpr int64_t kClockSkewSeconds = 60;

bool TimeClaim(const json& claims, const char* name, bool required, int64_t* out, std::string* why) {
  auto it = claims.find(name);
  if (it == claims.end() && !required) {
    return true;
  }
  if (it == claims.end() || !it->is_number_integer()) {
    *why = std::string("the token's \"") + name + "\" is " + (it == claims.end() ? "missing" : "not a number");
    return false;
  }
  *out = it->get<int64_t>();
  return true;
}

}  // namespace

bool VerifyReportToken(const std::string& token, const std::string& jwks_text, int64_t now, json* claims,
                       std::string* why) {
  std::optional<Hearth::Jwt::Decoded> decoded = Hearth::Jwt::Decode(token);
  if (!decoded) {
    *why = "not a signed JSON Web Token";
    return false;
  }
  if (Hearth::Jwt::AcceptedAlg(*decoded) != Hearth::Jwt::Alg::kRs256) {
    *why = "the token is not signed with RS256";
    return false;
  }
  json jwks = json::parse(jwks_text, nullptr, false);
  if (!jwks.is_object() || !jwks.contains("keys") || !jwks["keys"].is_array()) {
    *why = "the daemon's JWK Set does not read";
    return false;
  }
  auto kid = decoded->header.find("kid");
  bool named = kid != decoded->header.end();
  bool verified = false;
  bool found = false;
  for (const json& jwk : jwks["keys"]) {
    if (named && (!jwk.is_object() || !jwk.contains("kid") || jwk["kid"] != *kid)) {
      continue;
    }
    found = true;
    Hearth::Jwt::KeyPtr key = Hearth::Jwt::PublicKeyFromJwk(jwk);
    if (key != nullptr && Hearth::Jwt::VerifySignature(*decoded, Hearth::Jwt::Alg::kRs256, key.get())) {
      verified = true;
      break;
    }
  }
  if (!verified) {
    *why = found ? "the signature does not verify" : "no key of the daemon's JWK Set has the token's kid";
    return false;
  }
  int64_t exp = 0;
  int64_t iat = now;
  int64_t nbf = now;
  if (!TimeClaim(decoded->claims, "exp", true, &exp, why) || !TimeClaim(decoded->claims, "iat", false, &iat, why) ||
      !TimeClaim(decoded->claims, "nbf", false, &nbf, why)) {
    return false;
  }
  if (exp <= now) {
    *why = "the token has expired";
    return false;
  }
  if (iat > now + kClockSkewSeconds || nbf > now + kClockSkewSeconds) {
    *why = "the token is not valid yet";
    return false;
  }
  *claims = std::move(decoded->claims);
  return true;
}

}  // namespace Witnessd::Ctl
