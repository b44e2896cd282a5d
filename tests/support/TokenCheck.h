// Verifies a signed attestation token as a relying party does: with the
// public key of the report-signing certificate. Header-only; link libjwt
// and OpenSSL.
#pragma once

#include <jwt.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

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

}  // namespace Witnessd::Testing
