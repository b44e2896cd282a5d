// JSON Web Keys of the token-signing key: the RFC 7638 thumbprint, the
// public JWK and reading one back, and the key id in a token's header.
#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "platform/Jwt.h"

namespace {

namespace Jwt = Hearth::Jwt;
using nlohmann::json;

// The example key of RFC 7638, section 3.1, and its thumbprint.
constexpr const char* kRfcN =
    "0vx7agoebGcQSuuPiLJXZptN9nndrQmbXEps2aiAFbWhM78LhWx4cbbfAAtVT86zwu1RK7aPFFxuhDR1L6tSoc_BJECPebWKRXjBZCiFV4n3oknjhMs"
    "tn64tZ_2W-5JsGY4Hc5n9yBXArwl93lqt7_RN5w6Cf0h4QyQ5v-65YGjQR0_FDW2QvzqY368QQMicAtaSqzs8KJZgnYb9c7d0zgdAZHzu6qMQvRL5"
    "hajrn1n91CbOpbISD08qNLyrdkt-bFTWhAI4vMQFh6WeZu0fM4lFd2NcRwr3XPksINHaQ-G_xBniIqbw0Ls1jF44-csFCur-kEgU8awapJzKnqDKgw";
constexpr const char* kRfcThumbprint = "NzbLsXh8uDCcd-6MNwXF4W_7noWXFZAfHkxZsRGC9Xs";

Jwt::KeyPtr RsaKey(int bits) {
  return Jwt::KeyPtr(EVP_RSA_gen(static_cast<unsigned>(bits)));
}

TEST(Jwk, RfcExampleThumbprintAndRoundTrip) {
  Jwt::KeyPtr rfc = Jwt::PublicKeyFromJwk({{"kty", "RSA"}, {"n", kRfcN}, {"e", "AQAB"}, {"alg", "RS256"}});
  ASSERT_NE(nullptr, rfc);
  EXPECT_EQ(kRfcThumbprint, Jwt::Thumbprint(rfc.get()).value_or(""));

  Jwt::KeyPtr key = RsaKey(2048);
  std::optional<json> jwk = Jwt::PublicJwk(key.get());
  ASSERT_TRUE(jwk);
  EXPECT_EQ((json{{"kty", "RSA"}, {"alg", "RS256"}, {"use", "sig"}, {"kid", *Jwt::Thumbprint(key.get())}}),
            (json{{"kty", (*jwk)["kty"]}, {"alg", (*jwk)["alg"]}, {"use", (*jwk)["use"]}, {"kid", (*jwk)["kid"]}}));
  Jwt::KeyPtr back = Jwt::PublicKeyFromJwk(*jwk);
  ASSERT_NE(nullptr, back);
  EXPECT_EQ(1, EVP_PKEY_eq(key.get(), back.get()));

  Jwt::KeyPtr ec(EVP_EC_gen("P-256"));
  EXPECT_FALSE(Jwt::Thumbprint(ec.get()));
  EXPECT_FALSE(Jwt::PublicJwk(ec.get()));
}

TEST(Jwk, KeysThatAreNotUsableRsaKeysAreRefused) {
  std::optional<json> small = Jwt::PublicJwk(RsaKey(1024).get());
  ASSERT_TRUE(small);
  const struct {
    const char* name;
    json jwk;
  } kCases[] = {
      {"not an object", json::array({"RSA"})},
      {"EC", {{"kty", "EC"}, {"n", kRfcN}, {"e", "AQAB"}}},
      {"no modulus", {{"kty", "RSA"}, {"e", "AQAB"}}},
      {"modulus a number", {{"kty", "RSA"}, {"n", 12345}, {"e", "AQAB"}}},
      {"padded base64", {{"kty", "RSA"}, {"n", std::string(kRfcN) + "="}, {"e", "AQAB"}}},
      {"standard alphabet", {{"kty", "RSA"}, {"n", std::string(kRfcN).replace(2, 1, "+")}, {"e", "AQAB"}}},
      {"1024-bit modulus", *small},
      {"exponent of 9 bytes", {{"kty", "RSA"}, {"n", kRfcN}, {"e", "AQABAQABAQAB"}}},
      {"empty exponent", {{"kty", "RSA"}, {"n", kRfcN}, {"e", ""}}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(nullptr, Jwt::PublicKeyFromJwk(c.jwk));
  }
}

TEST(Jwk, KeyIdGoesIntoTheSortedHeaderOnlyWhenItIsBase64Url) {
  Jwt::KeyPtr key = RsaKey(2048);
  Jwt::Claims claims;
  ASSERT_TRUE(claims.SetString("sub", "host"));
  const std::string kid = *Jwt::Thumbprint(key.get());
  std::optional<std::string> token = Jwt::Sign(key.get(), Jwt::Alg::kRs256, claims, Jwt::KeyOrder::kAsSet, kid);
  ASSERT_TRUE(token);
  std::optional<Jwt::Decoded> decoded = Jwt::Decode(*token);
  ASSERT_TRUE(decoded);
  EXPECT_EQ((json{{"alg", "RS256"}, {"kid", kid}, {"typ", "JWT"}}), decoded->header);
  EXPECT_TRUE(Jwt::VerifySignature(*decoded, Jwt::Alg::kRs256, key.get()));
  EXPECT_FALSE(Jwt::Sign(key.get(), Jwt::Alg::kRs256, claims, Jwt::KeyOrder::kAsSet, "a\",\"alg\":\"none"));
}

}  // namespace
