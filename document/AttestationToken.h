// The signed attestation token: one RS256 JSON Web Token per requested
// document type, signed with the report-signing key, stating who issued it,
// its validity, the attested host's software and its attested properties.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/SigningKey.h"
#include "tpm2/Session.h"

typedef struct evp_pkey_st EVP_PKEY;

namespace Witnessd::Document {

// Document types by their API enumeration value.
inline constexpr int kKmsAuthJwt = 0;    // carries the audience claim
inline constexpr int kReportingJwt = 1;  // no audience

struct SignedDocument {
  int type;
  std::string token;  // compact serialization
};

// What names a token's host and the token itself to a relying party.
struct TokenIds {
  std::string kid;      // the signing key's thumbprint, for the header
  std::string subject;  // the attested EK's id, lower-case hex
};

// CreateJwt signs a token (RS256) with the RSA private key |key| under a
// header naming |ids.kid|: claims "iat", "exp", "iss" (host name +
// "/attestation"), "aud" ("orbd") when |with_audience|, "os", "os_version"
// and "attested_properties" from |outcome|, then "sub" (|ids.subject|) and
// "jti" (a random UUID): the compact token, or nullopt (logged) on any
// failure. The claims are written compactly, in the order listed here.
std::optional<std::string> CreateJwt(EVP_PKEY* key, int64_t iat, int64_t exp, bool with_audience,
                                     const Tpm2::AttestationOutcome& outcome, const TokenIds& ids);

// The token signer: the report-signing key and the token validity, owned
// by the daemon and passed to the Report service.
class TokenSigner {
 public:
  // |validity_seconds| 0 draws a random validity per call.
  TokenSigner(const Config::SigningKeys& keys, int64_t validity_seconds);

  // ValiditySeconds gives the configured validity, or, when none is
  // configured, a whole number of minutes from 420 to 479 drawn from the fast
  // random source, so that tokens issued together do not expire together.
  int64_t ValiditySeconds() const;

  // GenerateDocuments makes one token per known type in |types|, in order,
  // all with the same "iat" (now), "exp" and "sub" (|subject|, the attested
  // EK's id), each with its own "jti"; unknown types are skipped. nullopt
  // (logged) when the signing key is missing or a token cannot be made.
  std::optional<std::vector<SignedDocument>> GenerateDocuments(const std::vector<int>& types,
                                                               const Tpm2::AttestationOutcome& outcome,
                                                               const std::string& subject) const;

 private:
  const Config::SigningKeys& keys_;
  const int64_t validity_seconds_;
};

}  // namespace Witnessd::Document
