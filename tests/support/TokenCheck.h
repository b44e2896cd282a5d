// Verifies a signed attestation token as a relying party does: with the
// public key of the report-signing certificate, or with the daemon's JWK
// Set. Header-only; link libjwt, OpenSSL and witnessd_platform.
#pragma once

#include <jwt.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/Jwt.h"

namespace Witnessd::Testing {

// DecodeToken returns the token's claims, or null when |token| is not signed
// by the key of |certificate_pem|.
inline std::shared_ptr<jwt_t> DecodeToken(const std::string& token, const std::string& certificate_pem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> in(
      BIO_new_mem_buf(certificate_pem.data(), static_cast<int>(certificate_pem.size())), BIO_free);
  std::unique_ptr<X509, decltype(&X509_free)> cert(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr), X509_free);
  if (cert == nullptr) {
    return nullptr;
  }
  std::unique_ptr<BIO, decltype(&BIO_free_all)> out(BIO_new(BIO_s_mem()), BIO_free_all);
  PEM_write_bio_PUBKEY(out.get(), X509_get0_pubkey(cert.get()));
  char* key = nullptr;
  long len = BIO_get_mem_data(out.get(), &key);
  jwt_t* jwt = nullptr;
  if (jwt_decode(&jwt, token.c_str(), reinterpret_cast<unsigned char*>(key), static_cast<int>(len)) != 0) {
    return nullptr;
  }
  return std::shared_ptr<jwt_t>(jwt, jwt_free);
}

// DecodeTokenWithJwks verifies |token| as a relying party that fetched the
// daemon's JWK Set |jwks_text|: with the key its header's "kid" names,
// handed to libjwt as PEM. Null when no such key verifies it.
inline std::shared_ptr<jwt_t> DecodeTokenWithJwks(const std::string& token, const std::string& jwks_text) {
  std::optional<Hearth::Jwt::Decoded> decoded = Hearth::Jwt::Decode(token);
  nlohmann::json jwks = nlohmann::json::parse(jwks_text, nullptr, false);
  if (!decoded || !decoded->header.contains("kid") || !jwks.is_object() || !jwks["keys"].is_array()) {
    return nullptr;
  }
  for (const nlohmann::json& jwk : jwks["keys"]) {
    Hearth::Jwt::KeyPtr key = jwk.value("kid", "") == decoded->header["kid"] ? Hearth::Jwt::PublicKeyFromJwk(jwk)
                                                                               : nullptr;
    if (key == nullptr) {
      continue;
    }
    std::unique_ptr<BIO, decltype(&BIO_free_all)> out(BIO_new(BIO_s_mem()), BIO_free_all);
    PEM_write_bio_PUBKEY(out.get(), key.get());
    char* pem = nullptr;
    long len = BIO_get_mem_data(out.get(), &pem);
    jwt_t* jwt = nullptr;
    if (jwt_decode(&jwt, token.c_str(), reinterpret_cast<unsigned char*>(pem), static_cast<int>(len)) == 0) {
      return std::shared_ptr<jwt_t>(jwt, jwt_free);
    }
  }
  return nullptr;
}

}  // namespace Witnessd::Testing
