// Test helpers shared by the API tests: signing keys made in the test and
// compact JWTs signed with them (or deliberately not).
#pragma once

#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Witnessd::Testing {

struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

inline Pkey MakeRsaKey() {
  return Pkey(EVP_RSA_gen(2048));
}

inline Pkey MakeEcKey() {
  return Pkey(EVP_EC_gen("P-256"));
}

inline std::string PublicPem(EVP_PKEY* key) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PUBKEY(bio, key);
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  std::string pem(data, static_cast<size_t>(len));
  BIO_free(bio);
  return pem;
}

inline std::string Base64Url(const std::string& bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t v = (uint32_t(uint8_t(bytes[i])) << 16) | (uint32_t(uint8_t(bytes[i + 1])) << 8) | uint8_t(bytes[i + 2]);
    for (int s = 18; s >= 0; s -= 6) out += kAlphabet[(v >> s) & 63];
  }
  size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t v = uint32_t(uint8_t(bytes[i])) << 16;
    if (rest == 2) v |= uint32_t(uint8_t(bytes[i + 1])) << 8;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    if (rest == 2) out += kAlphabet[(v >> 6) & 63];
  }
  return out;
}

// Sign returns the JWS signature of |input| for |alg| ("RS256", "ES256",
// "HS256" with the key's public PEM as secret, "none").
inline std::string Sign(const std::string& alg, EVP_PKEY* key, const std::string& input) {
  if (alg == "none") {
    return "";
  }
  if (alg == "HS256") {
    std::string secret = PublicPem(key);
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int mac_len = 0;
    HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
         reinterpret_cast<const unsigned char*>(input.data()), input.size(), mac, &mac_len);
    return std::string(reinterpret_cast<char*>(mac), mac_len);
  }
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, key);
  size_t len = 0;
  EVP_DigestSign(ctx, nullptr, &len, reinterpret_cast<const unsigned char*>(input.data()), input.size());
  std::string sig(len, '\0');
  EVP_DigestSign(ctx, reinterpret_cast<unsigned char*>(sig.data()), &len,
                 reinterpret_cast<const unsigned char*>(input.data()), input.size());
  sig.resize(len);
  EVP_MD_CTX_free(ctx);
  if (alg != "ES256") {
    return sig;
  }
  // DER ECDSA-Sig-Value -> 64-byte r||s
  const unsigned char* p = reinterpret_cast<const unsigned char*>(sig.data());
  ECDSA_SIG* es = d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(sig.size()));
  if (es == nullptr) {
    return sig;  // not an EC key: the header lies about the algorithm
  }
  std::string raw(64, '\0');
  BN_bn2binpad(ECDSA_SIG_get0_r(es), reinterpret_cast<unsigned char*>(raw.data()), 32);
  BN_bn2binpad(ECDSA_SIG_get0_s(es), reinterpret_cast<unsigned char*>(raw.data()) + 32, 32);
  ECDSA_SIG_free(es);
  return raw;
}

// MakeToken builds a compact JWT with |alg| in the header and |claims| as
// payload, signed by |key|.
inline std::string MakeToken(const std::string& alg, EVP_PKEY* key, const nlohmann::json& claims) {
  std::string input = Base64Url(nlohmann::json{{"alg", alg}, {"typ", "JWT"}}.dump()) + "." + Base64Url(claims.dump());
  return input + "." + Base64Url(Sign(alg, key, input));
}

inline nlohmann::json Claims(const std::string& sub, std::vector<std::string> entitlements, int64_t exp_from_now = 3600) {
  return {{"sub", sub}, {"entitlements", entitlements}, {"exp", static_cast<int64_t>(std::time(nullptr)) + exp_from_now}};
}

}  // namespace Witnessd::Testing
