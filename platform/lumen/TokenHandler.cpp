#include "platform/lumen/TokenHandler.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <ctime>
#include <fstream>
#include <sstream>

#include "platform/Jwt.h"

namespace Hyv::Authn {

namespace {

constexpr int kLumenInfo = 2;
constexpr int kLumenWarning = 3;

struct BioDeleter {
  void operator()(BIO* b) const { BIO_free(b); }
};
struct X509Deleter {
  void operator()(X509* x) const { X509_free(x); }
};
// ValidityOf reads the certificate's validity period as Unix times.
bool ValidityOf(const X509* cert, int64_t* out_not_before, int64_t* out_not_after) {
  struct tm before {}, after {};
  if (ASN1_TIME_to_tm(X509_get0_notBefore(cert), &before) != 1 ||
      ASN1_TIME_to_tm(X509_get0_notAfter(cert), &after) != 1) {
    return false;
  }
  *out_not_before = timegm(&before);
  *out_not_after = timegm(&after);
  return true;
}

struct OpensslFree {
  void operator()(void* p) const { OPENSSL_free(p); }
};

}  // namespace

TokenHandler::TokenHandler(std::shared_ptr<Lumen::Log::Logger> logger, Clock clock)
    : logger_(std::move(logger)), clock_(std::move(clock)) {
  if (!clock_) {
    clock_ = [] { return static_cast<int64_t>(std::time(nullptr)); };
  }
}

size_t TokenHandler::LoadTrustedIssuers(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    LUMEN_LOG(*logger_, kLumenWarning) << "No trusted token issuers file " << path << "; tokens are refused";
    return 0;
  }
  std::ostringstream text;
  text << in.rdbuf();
  size_t n = AddTrustedPem(text.str());
  LUMEN_LOG(*logger_, kLumenInfo) << "Trusted token issuer keys loaded: " << n << " from " << path;
  return n;
}

size_t TokenHandler::AddTrustedPem(const std::string& pem) {
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  size_t added = 0;
  for (;;) {
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long len = 0;
    if (PEM_read_bio(bio.get(), &name, &header, &data, &len) != 1) {
      break;
    }
    std::unique_ptr<char, OpensslFree> own_name(name), own_header(header);
    std::unique_ptr<unsigned char, OpensslFree> own_data(data);
    const unsigned char* p = data;
    TrustedKey trusted;
    KeyPtr& key = trusted.key;
    std::string type(name);
    if (type == "CERTIFICATE") {
      std::unique_ptr<X509, X509Deleter> cert(d2i_X509(nullptr, &p, len));
      if (cert && ValidityOf(cert.get(), &trusted.not_before, &trusted.not_after)) {
        key.reset(X509_get_pubkey(cert.get()));
      }
    } else if (type == "PUBLIC KEY") {
      key.reset(d2i_PUBKEY(nullptr, &p, len));
    }
    if (!key) {
      LUMEN_LOG(*logger_, kLumenWarning) << "Skipping unusable trusted issuer PEM block " << type;
      continue;
    }
    keys_.push_back(std::move(trusted));
    ++added;
  }
  ERR_clear_error();
  return added;
}

TokenHandler::Status TokenHandler::Verify(const std::string& token, Lumen::Provider::AuthnResult* out,
                                          std::string* claimed_subject) const {
  // The checks establish, in order: three base64url parts of JSON objects; an
  // asymmetric algorithm we accept (so a public key can never be used as an
  // HMAC secret and unsigned tokens never pass); a signature by a trusted key
  // of the matching type; a validity window that includes now; the claims we
  // read have the right types.
  std::optional<Hearth::Jwt::Decoded> parsed = Hearth::Jwt::Decode(token);
  if (!parsed) {
    return Status::kMalformed;
  }
  const Hearth::Jwt::Decoded& decoded = *parsed;
  const nlohmann::json& payload = decoded.claims;
  if (claimed_subject != nullptr) {
    auto sub = payload.find("sub");
    *claimed_subject = sub != payload.end() && sub->is_string() ? sub->get<std::string>() : "";
  }
  std::optional<Hearth::Jwt::Alg> alg = Hearth::Jwt::AcceptedAlg(decoded);
  if (!alg) {
    return Status::kBadAlgorithm;
  }
  int64_t now = clock_();
  bool verified = false;
  bool issuer_out_of_validity = false;
  for (const auto& trusted : keys_) {
    if (Hearth::Jwt::VerifySignature(decoded, *alg, trusted.key.get())) {
      // An issuer certificate vouches for its key only within its validity.
      if (now < trusted.not_before || now > trusted.not_after) {
        issuer_out_of_validity = true;
        continue;
      }
      verified = true;
      break;
    }
  }
  if (!verified) {
    return issuer_out_of_validity ? Status::kIssuerNotValid : Status::kBadSignature;
  }
  auto exp = payload.find("exp");
  auto sub = payload.find("sub");
  if (exp == payload.end() || !exp->is_number() || sub == payload.end() || !sub->is_string()) {
    return Status::kBadClaims;
  }
  if (exp->get<double>() <= static_cast<double>(now)) {
    return Status::kExpired;
  }
  // "nbf" and "iat" may run ahead of our clock by the allowed skew only; a
  // token issued further in the future comes from a wrong clock or a forger
  // stockpiling tokens.
  for (const char* claim : {"nbf", "iat"}) {
    auto it = payload.find(claim);
    if (it == payload.end()) {
      continue;
    }
    if (!it->is_number()) {
      return Status::kBadClaims;
    }
    if (it->get<double>() > static_cast<double>(now + kMaxClockSkewSeconds)) {
      return Status::kNotYetValid;
    }
  }
  std::vector<std::string> entitlements;
  if (auto ent = payload.find("entitlements"); ent != payload.end() && !ent->is_null()) {
    if (!ent->is_array()) {
      return Status::kBadClaims;
    }
    for (const auto& e : *ent) {
      if (!e.is_string()) {
        return Status::kBadClaims;
      }
      entitlements.push_back(e.get<std::string>());
    }
  }
  out->name = "TokenAuthentication";
  out->username = sub->get<std::string>();
  out->values = std::move(entitlements);
  out->scheme = kTokenSchemeId;
  return Status::kOk;
}

TokenHandler::Status TokenHandler::Authenticate(const nlohmann::json& security_ctx,
                                                Lumen::Provider::AuthnResult* out,
                                                std::string* claimed_subject) const {
  auto scheme = security_ctx.find("schemeId");
  auto token = security_ctx.find("token");
  if (scheme == security_ctx.end() || *scheme != kTokenSchemeId || token == security_ctx.end() ||
      !token->is_string()) {
    return Status::kMalformed;
  }
  return Verify(token->get<std::string>(), out, claimed_subject);
}

const char* TokenHandler::StatusText(Status status) {
  switch (status) {
    case Status::kOk: return "ok";
    case Status::kMalformed: return "malformed token";
    case Status::kBadAlgorithm: return "algorithm not accepted";
    case Status::kBadSignature: return "signature not verified by a trusted issuer";
    case Status::kExpired: return "token expired or not yet valid";
    case Status::kNotYetValid: return "token nbf or iat more than 60 s in the future";
    case Status::kIssuerNotValid: return "trusted issuer certificate outside its validity period";
    case Status::kBadClaims: return "missing or invalid claims";
  }
  return "unknown";
}

}  // namespace Hyv::Authn
