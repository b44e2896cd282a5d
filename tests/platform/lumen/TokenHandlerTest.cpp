#include "platform/lumen/TokenHandler.h"

#include <gtest/gtest.h>

#include <ctime>

#include "tests/api/TestTokens.h"
#include "tests/platform/ssl/TestCerts.h"

namespace {

using Hyv::Authn::TokenHandler;
using Status = TokenHandler::Status;
using namespace Witnessd::Testing;

class NullLogger : public Lumen::Log::Logger {
 public:
  std::unique_ptr<Lumen::Log::LogRecord> CreateRecord(int, const Lumen::Log::SourceContext&) override {
    return nullptr;
  }
};

constexpr int64_t kNow = 1'800'000'000;

nlohmann::json ClaimsAt(int64_t exp) {
  return {{"sub", "alice"}, {"entitlements", {"Attestation.Read"}}, {"exp", exp}};
}

struct Keys {
  Pkey rsa = MakeRsaKey();
  Pkey ec = MakeEcKey();
  Pkey other_rsa = MakeRsaKey();
};

Keys& TestKeys() {
  static Keys keys;
  return keys;
}

TokenHandler MakeHandler() {
  TokenHandler handler(std::make_shared<NullLogger>(), [] { return kNow; });
  EXPECT_EQ(2u, handler.AddTrustedPem(PublicPem(TestKeys().rsa.get()) + PublicPem(TestKeys().ec.get())));
  return handler;
}

TEST(TokenHandlerVerify, AcceptsOnlySignedUnexpiredTokensFromTrustedKeys) {
  Keys& k = TestKeys();
  // The payload of one valid token under the signature of another.
  auto swap_payload = [&k](const nlohmann::json& claims) {
    std::string signed_token = MakeToken("RS256", k.rsa.get(), ClaimsAt(kNow + 60));
    std::string other = MakeToken("RS256", k.rsa.get(), claims);
    return other.substr(0, other.rfind('.')) + signed_token.substr(signed_token.rfind('.'));
  };
  const struct {
    const char* name;
    std::string token;
    Status want;
  } kCases[] = {
      {"RS256", MakeToken("RS256", k.rsa.get(), ClaimsAt(kNow + 60)), Status::kOk},
      {"ES256", MakeToken("ES256", k.ec.get(), ClaimsAt(kNow + 60)), Status::kOk},
      {"expired now", MakeToken("RS256", k.rsa.get(), ClaimsAt(kNow)), Status::kExpired},
      {"expired", MakeToken("RS256", k.rsa.get(), ClaimsAt(kNow - 1)), Status::kExpired},
      {"alg none", MakeToken("none", k.rsa.get(), ClaimsAt(kNow + 60)), Status::kBadAlgorithm},
      {"HS256 with the public key as secret", MakeToken("HS256", k.rsa.get(), ClaimsAt(kNow + 60)), Status::kBadAlgorithm},
      {"RS512", MakeToken("RS512", k.rsa.get(), ClaimsAt(kNow + 60)), Status::kBadAlgorithm},
      {"untrusted key", MakeToken("RS256", k.other_rsa.get(), ClaimsAt(kNow + 60)), Status::kBadSignature},
      {"RSA key claims ES256", MakeToken("ES256", k.rsa.get(), ClaimsAt(kNow + 60)), Status::kBadSignature},
      {"swapped payload", swap_payload({{"sub", "mallory"}, {"exp", kNow + 60}}), Status::kBadSignature},
      {"no exp", MakeToken("RS256", k.rsa.get(), {{"sub", "alice"}}), Status::kBadClaims},
      {"no sub", MakeToken("RS256", k.rsa.get(), {{"exp", kNow + 60}}), Status::kBadClaims},
      {"entitlements not list", MakeToken("RS256", k.rsa.get(), {{"sub", "a"}, {"exp", kNow + 60}, {"entitlements", "x"}}),
       Status::kBadClaims},
      // nbf and iat may run ahead by the 60 s clock skew, no further.
      {"nbf within the skew", MakeToken("RS256", k.rsa.get(), {{"sub", "alice"}, {"entitlements", {"Attestation.Read"}},
                                                               {"exp", kNow + 600}, {"nbf", kNow + 60}, {"iat", kNow + 60}}),
       Status::kOk},
      {"nbf past the skew", MakeToken("RS256", k.rsa.get(), {{"sub", "a"}, {"exp", kNow + 600}, {"nbf", kNow + 61}}),
       Status::kNotYetValid},
      {"iat past the skew", MakeToken("RS256", k.rsa.get(), {{"sub", "a"}, {"exp", kNow + 600}, {"iat", kNow + 61}}),
       Status::kNotYetValid},
      {"iat not a number", MakeToken("RS256", k.rsa.get(), {{"sub", "a"}, {"exp", kNow + 600}, {"iat", "now"}}),
       Status::kBadClaims},
      {"two parts", "abc.def", Status::kMalformed},
      {"four parts", "a.b.c.d", Status::kMalformed},
      {"padding", "eyJ9.eyJ9.AA==", Status::kMalformed},
      {"empty", "", Status::kMalformed},
  };
  TokenHandler handler = MakeHandler();
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Lumen::Provider::AuthnResult out;
    std::string claimed;
    EXPECT_EQ(c.want, handler.Verify(c.token, &out, &claimed));
    if (c.want == Status::kOk) {
      EXPECT_EQ("alice", out.username);
      EXPECT_EQ(std::vector<std::string>{"Attestation.Read"}, out.values);
      EXPECT_EQ(Hyv::Authn::kTokenSchemeId, out.scheme);
    }
  }
}

// A certificate in the trusted issuers file vouches for its key only within
// its validity period; a bare public key has none.
TEST(TokenHandlerVerify, IssuerCertificateMustBeValidNow) {
  const TestKey issuer = MakeKey();
  const std::string current = MakeCert(issuer, "issuer", nullptr, true).pem;
  const std::string expired = MakeCert(issuer, "issuer", nullptr, true, 1, /*expired=*/true).pem;
  const int64_t now = std::time(nullptr);
  const struct {
    const char* name;
    std::string trusted;
    int64_t clock;
    Status want;
  } kCases[] = {
      {"current certificate", current, now, Status::kOk},
      {"expired certificate", expired, now, Status::kIssuerNotValid},
      {"certificate not yet valid", current, now - 2 * 86400, Status::kIssuerNotValid},
      {"bare key, any time", issuer.public_pem, now + 20 * 365 * 86400L, Status::kOk},
      {"expired certificate beside the bare key", expired + issuer.public_pem, now, Status::kOk},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TokenHandler handler(std::make_shared<NullLogger>(), [&] { return c.clock; });
    ASSERT_LE(1u, handler.AddTrustedPem(c.trusted));
    Lumen::Provider::AuthnResult out;
    EXPECT_EQ(c.want, handler.Verify(MakeToken("ES256", issuer.key.get(), ClaimsAt(c.clock + 60)), &out, nullptr));
  }
}

TEST(TokenHandlerVerify, ReportsClaimedSubjectOfRefusedToken) {
  TokenHandler handler = MakeHandler();
  Lumen::Provider::AuthnResult out;
  std::string claimed;
  EXPECT_EQ(Status::kBadSignature,
            handler.Verify(MakeToken("RS256", TestKeys().other_rsa.get(), ClaimsAt(kNow + 60)), &out, &claimed));
  EXPECT_EQ("alice", claimed);
}

TEST(TokenHandlerAuthenticate, NeedsTheTokenScheme) {
  TokenHandler handler = MakeHandler();
  std::string token = MakeToken("RS256", TestKeys().rsa.get(), ClaimsAt(kNow + 60));
  Lumen::Provider::AuthnResult out;
  EXPECT_EQ(Status::kOk, handler.Authenticate(Hyv::Authn::TokenSecurityContext(token), &out, nullptr));
  EXPECT_EQ(Status::kMalformed, handler.Authenticate({{"schemeId", "other"}, {"token", token}}, &out, nullptr));
  EXPECT_EQ(Status::kMalformed, handler.Authenticate({{"schemeId", Hyv::Authn::kTokenSchemeId}}, &out, nullptr));
}

TEST(TokenHandlerLoad, MissingFileTrustsNothingAndCertificatesCount) {
  TokenHandler handler(std::make_shared<NullLogger>(), [] { return kNow; });
  EXPECT_EQ(0u, handler.LoadTrustedIssuers("/nonexistent/trusted_issuers.pem"));
  Lumen::Provider::AuthnResult out;
  EXPECT_EQ(Status::kBadSignature,
            handler.Verify(MakeToken("RS256", TestKeys().rsa.get(), ClaimsAt(kNow + 60)), &out, nullptr));
  // A garbage block is skipped; the good key after it still loads.
  std::string pem = "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n" + PublicPem(TestKeys().rsa.get());
  EXPECT_EQ(1u, handler.AddTrustedPem(pem));
  EXPECT_EQ(Status::kOk, handler.Verify(MakeToken("RS256", TestKeys().rsa.get(), ClaimsAt(kNow + 60)), &out, nullptr));
}

}  // namespace
