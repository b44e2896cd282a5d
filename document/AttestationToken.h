// The signed attestation token: one RS256 JSON Web Token per requested
// document type, signed with the report-signing key, stating who issued it,
// its validity, the attested host's software and its attested properties.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

// SetTokenValiditySeconds sets the validity of every token made from now
// on; 0 (the default) draws a random validity per call.
void SetTokenValiditySeconds(int64_t seconds);

// TokenValiditySeconds gives the configured validity, or, when none is
// configured, a whole number of minutes from 420 to 479 drawn from the fast
// random source, so that tokens issued together do not expire together.
int64_t TokenValiditySeconds();

// CreateJwt signs a token (RS256) with the RSA private key |key|: claims
// "iat", "exp", "iss" (host name + "/attestation"), "aud" ("orbd") when
// |with_audience|, "os", "os_version" and "attested_properties" from
// |outcome|. False (logged) on any failure; |out_token| is then unchanged.
// The claims are written compactly with sorted keys, as the JWT library
// writes them.
bool CreateJwt(EVP_PKEY* key, int64_t iat, int64_t exp, bool with_audience, const Tpm2::AttestationOutcome& outcome,
               std::string& out_token);

// GenerateDocuments makes one token per known type in |types|, in order,
// all with the same "iat" (now) and "exp"; unknown types are skipped. False
// (logged) when the signing key is missing or a token cannot be made.
bool GenerateDocuments(const std::vector<int>& types, const Tpm2::AttestationOutcome& outcome,
                       std::vector<SignedDocument>& out_documents);

}  // namespace Witnessd::Document
