// Compact JSON Web Tokens signed with RS256 or ES256: the one place that
// builds their claims, signs them and checks their signatures. Used by the
// attestation token, the API's token handler and witnessctl's token minting.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

typedef struct evp_pkey_st EVP_PKEY;
typedef struct json_t json_t;

namespace Hearth::Jwt {

enum class Alg { kRs256, kEs256 };

// The order of the claims in a token's payload.
enum class KeyOrder { kAsSet, kSorted };

struct KeyFree {
  void operator()(EVP_PKEY* key) const;
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

// PrivateKeyFromPem reads the first private key of |pem|; null when there is
// none.
KeyPtr PrivateKeyFromPem(const std::string& pem);

// AlgFor names the algorithm |key| signs with: RS256 for an RSA key, ES256
// for an EC P-256 key, nothing for any other key.
std::optional<Alg> AlgFor(EVP_PKEY* key);

// Claims is a token's payload under construction. The setters return false,
// leaving the claims as they were, when the value cannot be stored (a string
// that is not UTF-8, no memory).
class Claims {
 public:
  Claims();
  ~Claims();
  Claims(const Claims&) = delete;
  Claims& operator=(const Claims&) = delete;

  bool SetInt(const char* name, int64_t value);
  bool SetString(const char* name, const std::string& value);
  bool SetStrings(const char* name, const std::vector<std::string>& values);
  // Merge adds every member of the JSON object |object|; dumping it throws
  // as nlohmann::json::dump does (a string that is not UTF-8).
  bool Merge(const nlohmann::json& object);

  // Compact is the compact JSON text of claim |name|; empty when absent.
  std::string Compact(const char* name) const;

 private:
  friend std::optional<std::string> Sign(EVP_PKEY* key, Alg alg, const Claims& claims, KeyOrder order,
                                         std::string_view kid);
  json_t* json_;
};

// Sign makes the compact token of |claims| under the header
// {"alg":"RS256"|"ES256","typ":"JWT"}, or {"alg":...,"kid":|kid|,"typ":"JWT"}
// when |kid| is not empty, signed with SHA-256 by |key| (ES256 as the 64
// bytes r||s). The claims are written compactly in |order|. The caller picks
// |alg| for |key| (AlgFor). nullopt on any failure, and for a |kid| outside
// the base64url alphabet.
std::optional<std::string> Sign(EVP_PKEY* key, Alg alg, const Claims& claims, KeyOrder order,
                                std::string_view kid = {});

// Thumbprint is the RFC 7638 thumbprint of the RSA key |key|: the base64url
// SHA-256 of {"e":...,"kty":"RSA","n":...}; nullopt for any other key.
std::optional<std::string> Thumbprint(EVP_PKEY* key);

// PublicJwk is the RSA key |key| as a public JSON Web Key for RS256
// signatures: "kty", "n", "e", "kid" (its thumbprint), "alg", "use".
// nullopt for any other key.
std::optional<nlohmann::json> PublicJwk(EVP_PKEY* key);

// PublicKeyFromJwk reads an RSA public key ("kty":"RSA", base64url "n" and
// "e", a modulus of 2048 to 8192 bits) from |jwk|; null otherwise.
KeyPtr PublicKeyFromJwk(const nlohmann::json& jwk);

// A compact token taken apart; nothing about it is verified yet.
struct Decoded {
  nlohmann::json header;
  nlohmann::json claims;
  std::string signing_input;  // header and payload as sent, with the dot between
  std::string signature;      // raw bytes
};

// Decode splits |token| into three base64url parts (no padding) and parses
// the first two as JSON objects; nullopt when it is not such a token.
std::optional<Decoded> Decode(const std::string& token);

// AcceptedAlg is the header's "alg" when it is RS256 or ES256 and the
// header has no "crit"; nothing otherwise, so an unsigned token or one whose
// public key would be used as an HMAC secret never gets as far as a key.
std::optional<Alg> AcceptedAlg(const Decoded& token);

// VerifySignature tells whether |key| signed |token| under |alg|: an RSA key
// for RS256, an EC P-256 key for ES256; a key of another type never does.
bool VerifySignature(const Decoded& token, Alg alg, EVP_PKEY* key);

}  // namespace Hearth::Jwt
