#include "document/AttestationToken.h"

#include <errno.h>
#include <jansson.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "config/SigningKey.h"
#include "platform/Assert.h"
#include "platform/Log.h"
#include "platform/System.h"

namespace Witnessd::Document {
namespace {

constexpr const char* kSourcePath = "apps/witnessd/document/AttestationToken";

constexpr const char* kAudience = "orbd";
constexpr const char* kIssuerSuffix = "/attestation";
constexpr int64_t kMinValidityMinutes = 420;
constexpr uint32_t kValiditySpreadMinutes = 60;

struct JsonDeleter {
  void operator()(json_t* json) const { json_decref(json); }
};
struct FreeDeleter {
  void operator()(char* p) const { free(p); }
};
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

// The JOSE header of every token, as the JWT library writes it for RS256.
constexpr std::string_view kHeader = R"({"alg":"RS256","typ":"JWT"})";

// Base64Url encodes |data| in the URL-safe alphabet without padding.
std::string Base64Url(std::string_view data) {
  std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
  int len = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                            reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()));
  out.resize(static_cast<size_t>(len));
  while (!out.empty() && out.back() == '=') {
    out.pop_back();
  }
  std::replace(out.begin(), out.end(), '+', '-');
  std::replace(out.begin(), out.end(), '/', '_');
  return out;
}

// SignRs256 signs |input| with PKCS#1 v1.5 and SHA-256.
bool SignRs256(EVP_PKEY* key, const std::string& input, std::string& out_signature) {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  size_t len = 0;
  bool ok = ctx != nullptr && EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
            EVP_DigestSign(ctx.get(), nullptr, &len, nullptr, 0) == 1;
  std::string signature(len, '\0');
  ok = ok && EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &len,
                            reinterpret_cast<const unsigned char*>(input.data()), input.size()) == 1;
  ERR_clear_error();
  if (!ok) {
    return false;
  }
  signature.resize(len);
  out_signature = std::move(signature);
  return true;
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

bool CreateJwt(EVP_PKEY* key, int64_t iat, int64_t exp, bool with_audience, const Tpm2::AttestationOutcome& outcome,
               std::string& out_token) {
  JsonPtr claims(json_object());
  VERIFY(claims != nullptr);
  VERIFY(json_object_set_new(claims.get(), "iat", json_integer(iat)) == 0);
  VERIFY(json_object_set_new(claims.get(), "exp", json_integer(exp)) == 0);

  std::string host = Hostinfo_HostName();
  if (host.empty()) {
    Log_Level(kLogError, "Failed get the hostname for %s field in JWT\n", "iss");
    return false;
  }
  if (json_object_set_new(claims.get(), "iss", json_string((host + kIssuerSuffix).c_str())) != 0) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "iss");
    return false;
  }
  if (with_audience && json_object_set_new(claims.get(), "aud", json_string(kAudience)) != 0) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "aud");
    return false;
  }
  if (json_object_set_new(claims.get(), "os", json_string(outcome.software_type.c_str())) != 0 ||
      json_object_set_new(claims.get(), "os_version", json_string(outcome.software_version.c_str())) != 0) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "os");
    return false;
  }
  JsonPtr properties(json_array());
  for (const std::string& p : outcome.attested_properties) {
    if (properties == nullptr || json_array_append_new(properties.get(), json_string(p.c_str())) != 0) {
      Log_Level(kLogError, "Failed to add %s to JWT\n", "attested_properties");
      return false;
    }
  }
  if (properties == nullptr || json_object_set(claims.get(), "attested_properties", properties.get()) != 0) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "attested_properties");
    return false;
  }
  if (Log_IsEnabled(kLogVerbose)) {
    std::unique_ptr<char, FreeDeleter> text(json_dumps(properties.get(), JSON_COMPACT));
    Log_Level(kLogVerbose, "Attested properties: {\"attested_properties\":%s}\n", text ? text.get() : "");
  }
  // Compact, claims in the order they were set (iat, exp, iss, aud, os,
  // os_version, attested_properties).
  std::unique_ptr<char, FreeDeleter> payload(json_dumps(claims.get(), JSON_COMPACT));
  std::string signature;
  std::string token;
  if (payload != nullptr) {
    token = Base64Url(kHeader) + "." + Base64Url(payload.get());
  }
  if (payload == nullptr || key == nullptr || !SignRs256(key, token, signature)) {
    Log_Level(kLogError, "Failed to encode JWT: %d\n", errno);
    return false;
  }
  out_token = token + "." + Base64Url(signature);
  return true;
}

std::optional<std::vector<SignedDocument>> TokenSigner::GenerateDocuments(
    const std::vector<int>& types, const Tpm2::AttestationOutcome& outcome) const {
  Config::SigningPkey key = keys_.Current()->pkey;
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
    std::string token;
    if (type == kKmsAuthJwt) {
      if (!CreateJwt(key.get(), iat, exp, true, outcome, token)) {
        Log_Level(kLogError, "Failed to generate KMS_AUTH_JWT\n");
        return std::nullopt;
      }
    } else if (type == kReportingJwt) {
      if (!CreateJwt(key.get(), iat, exp, false, outcome, token)) {
        Log_Level(kLogError, "Failed to generate REPORTING_JWT\n");
        return std::nullopt;
      }
    } else {
      continue;
    }
    documents.push_back({type, std::move(token)});
  }
  return documents;
}

}  // namespace Witnessd::Document
