#include "document/AttestationToken.h"

#include <errno.h>
#include <openssl/rand.h>

#include <cstdio>

#include "config/SigningKey.h"
#include "platform/Assert.h"
#include "platform/Jwt.h"
#include "platform/Log.h"
#include "platform/System.h"

namespace Witnessd::Document {
namespace {

constexpr const char* kSourcePath = "apps/witnessd/document/AttestationToken";

constexpr const char* kAudience = "orbd";
constexpr const char* kIssuerSuffix = "/attestation";
constexpr int64_t kMinValidityMinutes = 420;
constexpr uint32_t kValiditySpreadMinutes = 60;

// RandomUuid is a version 4 UUID from the cryptographic random source.
std::optional<std::string> RandomUuid() {
  unsigned char b[16];
  if (RAND_bytes(b, sizeof(b)) != 1) {
    return std::nullopt;
  }
  b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
  b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
  char text[37];
  std::snprintf(text, sizeof(text), "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  return std::string(text);
}

}  // namespace

TokenSigner::TokenSigner(const Config::SigningKeys& keys, int64_t validity_seconds)
    : keys_(keys), validity_seconds_(validity_seconds) {}

int64_t TokenSigner::ValiditySeconds() const {
  int64_t validity = validity_seconds_;
  if (validity == 0) {
    validity = (Random_Fast() % kValiditySpreadMinutes + kMinValidityMinutes) * 60;
  }
  Log_Level(kLogVerbose, "Validity of token = %d seconds\n", static_cast<int>(validity));
  return validity;
}

std::optional<std::string> CreateJwt(EVP_PKEY* key, int64_t iat, int64_t exp, bool with_audience,
                                     const Tpm2::AttestationOutcome& outcome, const TokenIds& ids) {
  Hearth::Jwt::Claims claims;
  VERIFY(claims.SetInt("iat", iat));
  VERIFY(claims.SetInt("exp", exp));

  std::string host = Hostinfo_HostName();
  if (host.empty()) {
    Log_Level(kLogError, "Failed get the hostname for %s field in JWT\n", "iss");
    return std::nullopt;
  }
  if (!claims.SetString("iss", host + kIssuerSuffix)) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "iss");
    return std::nullopt;
  }
  if (with_audience && !claims.SetString("aud", kAudience)) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "aud");
    return std::nullopt;
  }
  if (!claims.SetString("os", outcome.software_type) || !claims.SetString("os_version", outcome.software_version)) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "os");
    return std::nullopt;
  }
  if (!claims.SetStrings("attested_properties", outcome.attested_properties)) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "attested_properties");
    return std::nullopt;
  }
  // Added after the claims relying parties already read, so that their order
  // is unchanged: the host the token is about and the token's own id.
  std::optional<std::string> jti = RandomUuid();
  if (!jti || !claims.SetString("sub", ids.subject) || !claims.SetString("jti", *jti)) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "sub");
    return std::nullopt;
  }
  if (Log_IsEnabled(kLogVerbose)) {
    Log_Level(kLogVerbose, "Attested properties: {\"attested_properties\":%s}\n",
              claims.Compact("attested_properties").c_str());
  }
  // Compact, claims in the order they were set (iat, exp, iss, aud, os,
  // os_version, attested_properties, sub, jti).
  std::optional<std::string> token =
      Hearth::Jwt::Sign(key, Hearth::Jwt::Alg::kRs256, claims, Hearth::Jwt::KeyOrder::kAsSet, ids.kid);
  if (!token) {
    Log_Level(kLogError, "Failed to encode JWT: %d\n", errno);
  }
  return token;
}

std::optional<std::vector<SignedDocument>> TokenSigner::GenerateDocuments(
    const std::vector<int>& types, const Tpm2::AttestationOutcome& outcome, const std::string& subject) const {
  std::shared_ptr<const Config::SigningPair> pair = keys_.Current();
  EVP_PKEY* key = pair->SignerKey();
  const TokenIds ids{pair->kid, subject};
  if (key == nullptr) {
    Log_Level(kLogError, "Signing key is not configured\n");
    return std::nullopt;
  }
  int64_t now_us = 0;
  Hostinfo_GetTimeOfDay(&now_us);
  int64_t iat = now_us / 1000000;
  int64_t exp = iat + ValiditySeconds();
  std::vector<SignedDocument> documents;
  for (int type : types) {
    std::optional<std::string> token;
    if (type == kKmsAuthJwt) {
      if (!(token = CreateJwt(key, iat, exp, true, outcome, ids))) {
        Log_Level(kLogError, "Failed to generate KMS_AUTH_JWT\n");
        return std::nullopt;
      }
    } else if (type == kReportingJwt) {
      if (!(token = CreateJwt(key, iat, exp, false, outcome, ids))) {
        Log_Level(kLogError, "Failed to generate REPORTING_JWT\n");
        return std::nullopt;
      }
    } else {
      continue;
    }
    documents.push_back({type, std::move(*token)});
  }
  return documents;
}

}  // namespace Witnessd::Document
