// Token authentication: compact JWTs signed with RS256 or ES256 by one of the
// trusted issuers' keys.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/lumen/Log.h"
#include "platform/lumen/Provider.h"

namespace Hyv::Authn {

inline constexpr const char* kTokenSchemeId = "com.quarro.hyv.security.token";

// TokenSecurityContext is the security context a client sends with |token|.
inline nlohmann::json TokenSecurityContext(const std::string& token) {
  return {{"schemeId", kTokenSchemeId}, {"token", token}};
}

class TokenHandler {
 public:
  enum class Status {
    kOk,
    kMalformed,     // not three base64url parts of JSON objects
    kBadAlgorithm,  // "none", HS*, anything but RS256 and ES256
    kBadSignature,  // no trusted key verifies it
    kExpired,       // "exp" reached
    kBadClaims,     // "exp" or "sub" missing, "entitlements" not a list of strings
    kNotYetValid,   // "nbf" or "iat" more than kMaxClockSkewSeconds ahead
    kIssuerNotValid,  // signed by a trusted issuer whose certificate is not valid now
  };

  // How far a token's "nbf" and "iat" may lie ahead of the daemon's clock.
  static constexpr int64_t kMaxClockSkewSeconds = 60;

  // Clock returns the current time in seconds since the Unix epoch.
  using Clock = std::function<int64_t()>;

  explicit TokenHandler(std::shared_ptr<Lumen::Log::Logger> logger, Clock clock = nullptr);

  // LoadTrustedIssuers reads the trusted issuers file: PEM blocks, each a
  // "CERTIFICATE" (its public key is trusted within the certificate's
  // validity period) or a "PUBLIC KEY" (trusted without time bounds). A missing
  // file trusts nothing and is not an error. Returns the number of keys
  // trusted; unreadable blocks are logged and skipped.
  size_t LoadTrustedIssuers(const std::string& path);
  // AddTrustedPem does the same for PEM text already in memory.
  size_t AddTrustedPem(const std::string& pem);

  // Verify checks |token|. On kOk, |out| holds the subject and entitlements.
  // |claimed_subject| (may be null) receives the payload's "sub" whenever the
  // payload decodes, even when the token is refused, for the audit entry.
  Status Verify(const std::string& token, Lumen::Provider::AuthnResult* out, std::string* claimed_subject) const;

  // Authenticate reads the token from a security context
  // {"schemeId": "com.quarro.hyv.security.token", "token": "..."}.
  Status Authenticate(const nlohmann::json& security_ctx, Lumen::Provider::AuthnResult* out,
                      std::string* claimed_subject) const;

  static const char* StatusText(Status status);

 private:
  struct KeyDeleter {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
  };
  using KeyPtr = std::unique_ptr<EVP_PKEY, KeyDeleter>;

  // A trusted key, and the validity period of the certificate it came from
  // (unbounded for a bare public key).
  struct TrustedKey {
    KeyPtr key;
    int64_t not_before = INT64_MIN;
    int64_t not_after = INT64_MAX;
  };

  std::shared_ptr<Lumen::Log::Logger> logger_;
  Clock clock_;
  std::vector<TrustedKey> keys_;
};

}  // namespace Hyv::Authn
