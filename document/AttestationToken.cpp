#include "document/AttestationToken.h"

#include <errno.h>
#include <jansson.h>
#include <jwt.h>

#include <atomic>
#include <cstdlib>
#include <memory>

#include "config/SigningKey.h"
#include "daemon/log/Assert.h"
#include "platform/Log.h"
#include "platform/System.h"

namespace Witnessd::Document {
namespace {

constexpr const char* kSourcePath = "apps/witnessd/document/AttestationToken";

constexpr const char* kAudience = "orbd";
constexpr const char* kIssuerSuffix = "/attestation";
constexpr int64_t kMinValidityMinutes = 420;
constexpr uint32_t kValiditySpreadMinutes = 60;

std::atomic<int64_t> g_validity_seconds{0};

struct JwtDeleter {
  void operator()(jwt_t* jwt) const { jwt_free(jwt); }
};
struct JsonDeleter {
  void operator()(json_t* json) const { json_decref(json); }
};
struct FreeDeleter {
  void operator()(char* p) const { free(p); }
};

// PropertiesJson renders {"attested_properties": [...]} compactly.
bool PropertiesJson(const std::vector<std::string>& properties, std::string& out) {
  std::unique_ptr<json_t, JsonDeleter> array(json_array());
  std::unique_ptr<json_t, JsonDeleter> object(json_object());
  if (array == nullptr || object == nullptr) {
    return false;
  }
  for (const std::string& p : properties) {
    if (json_array_append_new(array.get(), json_string(p.c_str())) != 0) {
      return false;
    }
  }
  if (json_object_set(object.get(), "attested_properties", array.get()) != 0) {
    return false;
  }
  std::unique_ptr<char, FreeDeleter> text(json_dumps(object.get(), JSON_COMPACT));
  if (text == nullptr) {
    return false;
  }
  out = text.get();
  return true;
}

}  // namespace

void SetTokenValiditySeconds(int64_t seconds) {
  g_validity_seconds.store(seconds);
}

int64_t TokenValiditySeconds() {
  int64_t validity = g_validity_seconds.load();
  if (validity == 0) {
    validity = (Random_Fast() % kValiditySpreadMinutes + kMinValidityMinutes) * 60;
  }
  Log_Level(kLogVerbose, "Validity of token = %d seconds\n", static_cast<int>(validity));
  return validity;
}

bool CreateJwt(const std::string& key_pem, int64_t iat, int64_t exp, bool with_audience,
               const Tpm2::AttestationOutcome& outcome, std::string& out_token) {
  jwt_t* raw = nullptr;
  VERIFY(jwt_new(&raw) == 0);
  std::unique_ptr<jwt_t, JwtDeleter> jwt(raw);
  VERIFY(jwt_add_grant_int(jwt.get(), "iat", iat) == 0);
  VERIFY(jwt_add_grant_int(jwt.get(), "exp", exp) == 0);

  std::string host = Hostinfo_HostName();
  if (host.empty()) {
    Log_Level(kLogError, "Failed get the hostname for %s field in JWT\n", "iss");
    return false;
  }
  if (jwt_add_grant(jwt.get(), "iss", (host + kIssuerSuffix).c_str()) != 0) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "iss");
    return false;
  }
  if (with_audience && jwt_add_grant(jwt.get(), "aud", kAudience) != 0) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "aud");
    return false;
  }
  int rc = jwt_set_alg(jwt.get(), JWT_ALG_RS256, reinterpret_cast<const unsigned char*>(key_pem.data()),
                       static_cast<int>(key_pem.size()));
  if (rc != 0) {
    Log_Level(kLogError, "Failed to set JWT signing algorithm to RS256: %d\n", rc);
    return false;
  }
  if (jwt_add_grant(jwt.get(), "os", outcome.software_type.c_str()) != 0 ||
      jwt_add_grant(jwt.get(), "os_version", outcome.software_version.c_str()) != 0) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "os");
    return false;
  }
  std::string properties;
  if (!PropertiesJson(outcome.attested_properties, properties)) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "attested_properties");
    return false;
  }
  Log_Level(kLogVerbose, "Attested properties: %s\n", properties.c_str());
  if (jwt_add_grants_json(jwt.get(), properties.c_str()) != 0) {
    Log_Level(kLogError, "Failed to add %s to JWT\n", "attested_properties");
    return false;
  }
  errno = 0;
  std::unique_ptr<char, FreeDeleter> token(jwt_encode_str(jwt.get()));
  if (token == nullptr) {
    Log_Level(kLogError, "Failed to encode JWT: %d\n", errno);
    return false;
  }
  out_token = token.get();
  return true;
}

bool GenerateDocuments(const std::vector<int>& types, const Tpm2::AttestationOutcome& outcome,
                       std::vector<SignedDocument>& out_documents) {
  std::string key;
  if (!Config::GetSigningKey(key) || key.empty()) {
    Log_Level(kLogError, "Signing key is not configured\n");
    return false;
  }
  int64_t now_us = 0;
  Hostinfo_GetTimeOfDay(&now_us);
  int64_t iat = now_us / 1000000;
  int64_t exp = iat + TokenValiditySeconds();
  std::vector<SignedDocument> documents;
  for (int type : types) {
    std::string token;
    if (type == kKmsAuthJwt) {
      if (!CreateJwt(key, iat, exp, true, outcome, token)) {
        Log_Level(kLogError, "Failed to generate KMS_AUTH_JWT\n");
        return false;
      }
    } else if (type == kReportingJwt) {
      if (!CreateJwt(key, iat, exp, false, outcome, token)) {
        Log_Level(kLogError, "Failed to generate REPORTING_JWT\n");
        return false;
      }
    } else {
      continue;
    }
    documents.push_back({type, std::move(token)});
  }
  out_documents = std::move(documents);
  return true;
}

}  // namespace Witnessd::Document
