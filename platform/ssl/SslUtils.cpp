#include "platform/ssl/SslUtils.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <memory>
#include <set>

#include "platform/Hex.h"

namespace Orm::Common {
namespace {

template <auto Fn>
struct Deleter {
  template <typename T>
  void operator()(T* p) const { Fn(p); }
};
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>>;
struct CertStackFree {
  void operator()(STACK_OF(X509)* s) const { sk_X509_free(s); }
};
using CertStackPtr = std::unique_ptr<STACK_OF(X509), CertStackFree>;

constexpr const char* kPubKeyBegin = "-----BEGIN PUBLIC KEY-----";
constexpr const char* kPubKeyEnd = "-----END PUBLIC KEY-----";
constexpr const char* kCertBegin = "-----BEGIN CERTIFICATE-----";
constexpr const char* kCertEnd = "-----END CERTIFICATE-----";

// The white space of the C locale, whatever locale the process runs in.
bool IsSpace(unsigned char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

bool IsBase64Char(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/' ||
         c == '=';
}

size_t CountNonSpace(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](unsigned char c) { return !IsSpace(c); }));
}

// PemBody is the base64 body of |pem|: the text without white space and
// without the markers where they stand at its ends. Empty when the body is
// not base64 (characters, length and padding).
std::string PemBody(const std::string& pem, const std::string& begin_marker, const std::string& end_marker) {
  std::string body(pem.size(), '\0');
  size_t kept = 0;
  for (unsigned char c : pem) {
    body[kept] = static_cast<char>(c);
    kept += IsSpace(c) ? 0 : 1;
  }
  body.resize(kept);
  std::string begin = begin_marker;
  std::string end = end_marker;
  SslUtils::CanonicalizePem(begin);
  SslUtils::CanonicalizePem(end);
  bool has_begin = body.compare(0, begin.size(), begin) == 0;
  bool has_end = body.size() >= end.size() && body.compare(body.size() - end.size(), end.size(), end) == 0;
  if (has_begin) {
    body.erase(0, begin.size());
  }
  if (has_end && body.size() >= end.size()) {
    body.erase(body.size() - end.size());
  }
  if (body.empty() || body.size() % 4 != 0 ||
      !std::all_of(body.begin(), body.end(), [](unsigned char c) { return IsBase64Char(c); })) {
    return "";
  }
  size_t pad = body.find('=');
  if (pad != std::string::npos && (pad < body.size() - 2 || body.find_first_not_of('=', pad) != std::string::npos)) {
    return "";
  }
  return body;
}

// DecodeBody decodes a body PemBody returned.
std::optional<std::string> DecodeBody(const std::string& body) {
  std::string out(body.size() / 4 * 3, '\0');
  int len = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                            reinterpret_cast<const unsigned char*>(body.data()), static_cast<int>(body.size()));
  if (len < 0) {
    return std::nullopt;
  }
  size_t pad = body.size() - 1 - body.find_last_not_of('=');  // what EVP_DecodeBlock counts as zero bytes
  out.resize(static_cast<size_t>(len) - pad);
  return out;
}

BioPtr ReadBio(const std::string& text) {
  return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string BioText(BIO* bio) {
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  return len > 0 ? std::string(data, static_cast<size_t>(len)) : std::string();
}

// Parsers accept the text with any line breaks: it is standardized first.
PkeyPtr ParsePubKey(const std::string& pem) {
  std::string text = pem;
  if (!SslUtils::StandardizePemString(text, kPubKeyBegin, kPubKeyEnd)) {
    return nullptr;
  }
  BioPtr bio = ReadBio(text);
  PkeyPtr key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  ERR_clear_error();
  return key;
}

// IsCaCert: |cert| may issue certificates (a CA by its basic constraints,
// or a self-signed version 1 root).
bool IsCaCert(X509* cert) {
  bool ca = X509_check_ca(cert) != 0;
  ERR_clear_error();
  return ca;
}

X509Ptr ParseCert(const std::string& pem) {
  std::string text = pem;
  if (!SslUtils::StandardizePemString(text, kCertBegin, kCertEnd)) {
    return nullptr;
  }
  BioPtr bio = ReadBio(text);
  X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  ERR_clear_error();
  return cert;
}

bool WritePubKey(EVP_PKEY* key, std::string& out) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PUBKEY(bio.get(), key) != 1) {
    return false;
  }
  out = BioText(bio.get());
  return !out.empty();
}

bool ExtractKey(X509* cert, std::string& out_key) {
  EVP_PKEY* key = X509_get0_pubkey(cert);
  ERR_clear_error();
  return key != nullptr && WritePubKey(key, out_key);
}

bool IsSelfSigned(X509* cert) {
  return X509_check_issued(cert, cert) == X509_V_OK;
}

// Verify checks |cert| against |store| with |untrusted| as intermediates.
// Every certificate in the store is an anchor (partial chains allowed): the
// administrator declared each of them trusted.
bool Verify(X509_STORE* store, X509* cert, STACK_OF(X509)* untrusted) {
  StoreCtxPtr ctx(X509_STORE_CTX_new());
  if (!ctx || X509_STORE_CTX_init(ctx.get(), store, cert, untrusted) != 1) {
    return false;
  }
  X509_STORE_CTX_set_flags(ctx.get(), X509_V_FLAG_PARTIAL_CHAIN);
  bool ok = X509_verify_cert(ctx.get()) == 1;
  ERR_clear_error();
  return ok;
}

}  // namespace

void SslUtils::CanonicalizePem(std::string& pem) {
  pem.erase(std::remove_if(pem.begin(), pem.end(), IsSpace), pem.end());
}

bool SslUtils::ComputeHash(const std::string& data, std::vector<uint8_t>& out) {
  std::vector<uint8_t> digest(EVP_MAX_MD_SIZE);
  unsigned int len = 0;
  if (EVP_Digest(data.data(), data.size(), digest.data(), &len, EVP_sha256(), nullptr) != 1) {
    ERR_clear_error();
    return false;
  }
  digest.resize(len);
  out = std::move(digest);
  return true;
}

bool SslUtils::ComputeHashHex(const std::string& data, std::string& out_hex) {
  std::vector<uint8_t> digest;
  if (!ComputeHash(data, digest)) {
    return false;
  }
  out_hex = Hearth::HexString(digest.data(), digest.size());
  return true;
}

bool SslUtils::StandardizePemString(std::string& pem, const std::string& begin_marker,
                                    const std::string& end_marker) {
  std::string body = PemBody(pem, begin_marker, end_marker);
  if (body.empty() || !DecodeBody(body)) {
    return false;
  }
  std::string out = begin_marker + "\n";
  for (size_t i = 0; i < body.size(); i += 64) {
    out += body.substr(i, 64) + "\n";
  }
  out += end_marker + "\n";
  pem = std::move(out);
  return true;
}

bool SslUtils::StandardizePemPubKey(std::string& pem) {
  PkeyPtr key = ParsePubKey(pem);
  std::string out;
  if (!key || !WritePubKey(key.get(), out)) {
    return false;
  }
  pem = std::move(out);
  return true;
}

bool SslUtils::StandardizePemCert(std::string& pem) {
  X509Ptr cert = ParseCert(pem);
  if (!cert) {
    return false;
  }
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), cert.get()) != 1) {
    return false;
  }
  pem = BioText(bio.get());
  return true;
}

namespace {

bool UsableKey(EVP_PKEY* key) {
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
      return EVP_PKEY_get_bits(key) >= 2048;
    case EVP_PKEY_EC:
      return true;
    default:
      return false;
  }
}

}  // namespace

bool SslUtils::ValidatePemKey(const std::string& pem) {
  PkeyPtr key = ParsePubKey(pem);
  return key && UsableKey(key.get());
}

std::optional<std::array<uint8_t, 32>> SslUtils::UsableKeyDigest(const std::string& pem) {
  PkeyPtr key = ParsePubKey(pem);
  if (!key || !UsableKey(key.get())) {
    return std::nullopt;
  }
  unsigned char* der = nullptr;
  int len = i2d_PUBKEY(key.get(), &der);
  if (len <= 0) {
    ERR_clear_error();
    return std::nullopt;
  }
  std::optional<std::array<uint8_t, 32>> digest = Sha256({reinterpret_cast<const char*>(der), static_cast<size_t>(len)});
  OPENSSL_free(der);
  return digest;
}

std::optional<std::array<uint8_t, 32>> SslUtils::Sha256(std::string_view data) {
  std::array<uint8_t, 32> digest;
  unsigned int size = 0;
  // Fetched once: an implicit fetch on every digest costs more than hashing
  // a certificate.
  static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  if (sha256 == nullptr ||
      EVP_Digest(data.data(), data.size(), digest.data(), &size, sha256, nullptr) != 1 || size != digest.size()) {
    ERR_clear_error();
    return std::nullopt;
  }
  return digest;
}

bool SslUtils::ValidatePemCert(const std::string& pem) {
  X509Ptr cert = ParseCert(pem);
  bool has_key = cert && X509_get0_pubkey(cert.get()) != nullptr;
  ERR_clear_error();
  return has_key;
}

bool SslUtils::ExtractKeyFromCert(const std::string& cert_pem, std::string& out_key) {
  X509Ptr cert = ParseCert(cert_pem);
  return cert && ExtractKey(cert.get(), out_key);
}

std::optional<std::string> SslUtils::PemCertDer(const std::string& pem, size_t max_der_len) {
  // Counted in place: an oversized text costs one pass, no copy.
  size_t max_text = CountNonSpace(kCertBegin) + CountNonSpace(kCertEnd) + (max_der_len + 2) / 3 * 4;
  if (CountNonSpace(pem) > max_text) {
    return std::nullopt;
  }
  std::string body = PemBody(pem, kCertBegin, kCertEnd);
  std::optional<std::string> der = body.empty() ? std::nullopt : DecodeBody(body);
  if (!der || der->size() > max_der_len) {
    return std::nullopt;
  }
  return der;
}

std::optional<bool> SslUtils::IsCaCertPem(const std::string& pem) {
  X509Ptr cert = ParseCert(pem);
  if (!cert) {
    return std::nullopt;
  }
  return IsCaCert(cert.get());
}

bool SslUtils::ComparePemKeys(const std::string& a, const std::string& b) {
  PkeyPtr ka = ParsePubKey(a);
  PkeyPtr kb = ParsePubKey(b);
  return ka && kb && EVP_PKEY_eq(ka.get(), kb.get()) == 1;
}

bool SslUtils::ValidateCertChain(const std::vector<std::string>& chain, const std::vector<std::string>& trusted,
                                 bool is_ca_chain) {
  if (chain.empty()) {
    return false;
  }
  std::vector<X509Ptr> certs;
  CertStackPtr untrusted(sk_X509_new_null());
  TrustStore store = BuildTrustStore(trusted);
  if (!untrusted || !store) {
    return false;
  }
  for (const std::string& pem : chain) {
    X509Ptr cert = ParseCert(pem);
    if (!cert || !sk_X509_push(untrusted.get(), cert.get())) {
      return false;
    }
    certs.push_back(std::move(cert));
  }
  if (!is_ca_chain) {
    return Verify(store.get(), certs[0].get(), untrusted.get());
  }
  // A CA chain may bring its own root; every member must be a CA and verify.
  for (const X509Ptr& cert : certs) {
    if (IsSelfSigned(cert.get())) {
      X509_STORE_add_cert(store.get(), cert.get());
      ERR_clear_error();
    }
  }
  return std::all_of(certs.begin(), certs.end(), [&](const X509Ptr& cert) {
    return IsCaCert(cert.get()) && Verify(store.get(), cert.get(), untrusted.get());
  });
}

TrustStore SslUtils::BuildTrustStore(const std::vector<std::string>& trusted) {
  TrustStore store(X509_STORE_new(), X509_STORE_free);
  if (!store) {
    return nullptr;
  }
  for (const std::string& pem : trusted) {
    X509Ptr cert = ParseCert(pem);
    if (!cert || X509_STORE_add_cert(store.get(), cert.get()) != 1) {
      ERR_clear_error();  // a certificate already in the store is not an error
    }
  }
  return store;
}

std::optional<EkCertCheck> SslUtils::CheckEkCertDer(const std::string& der, X509_STORE* trusted) {
  const unsigned char* start = reinterpret_cast<const unsigned char*>(der.data());
  const unsigned char* next = start;
  X509Ptr cert(d2i_X509(nullptr, &next, static_cast<long>(der.size())));
  EkCertCheck check;
  bool whole = cert && next == start + der.size();  // nothing after the certificate
  ERR_clear_error();
  if (!whole || !ExtractKey(cert.get(), check.key)) {
    return std::nullopt;
  }
  if (trusted != nullptr) {
    CertStackPtr untrusted(sk_X509_new_null());
    check.chains =
        untrusted && sk_X509_push(untrusted.get(), cert.get()) && Verify(trusted, cert.get(), untrusted.get());
  }
  return check;
}

bool SslUtils::CheckNoCaCertDups(const std::vector<std::string>& certs) {
  std::set<std::string> seen;
  for (const std::string& pem : certs) {
    X509Ptr cert = ParseCert(pem);
    unsigned char* der = nullptr;
    int len = cert ? i2d_X509(cert.get(), &der) : -1;
    if (len <= 0) {
      return false;
    }
    bool inserted = seen.insert(std::string(reinterpret_cast<char*>(der), static_cast<size_t>(len))).second;
    OPENSSL_free(der);
    if (!inserted) {
      return false;
    }
  }
  return true;
}

bool SslUtils::GenerateKeyAndCert(std::string& out_key, std::string& out_cert) {
  PkeyPtr key(EVP_RSA_gen(2048));
  X509Ptr cert(X509_new());
  if (!key || !cert) {
    ERR_clear_error();
    return false;
  }
  std::unique_ptr<BIGNUM, Deleter<BN_free>> serial(BN_new());
  X509_NAME* name = X509_get_subject_name(cert.get());
  const auto* cn = reinterpret_cast<const unsigned char*>("witnessd report signing");
  bool ok = serial && BN_rand(serial.get(), 159, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
            BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())) != nullptr &&
            X509_set_version(cert.get(), X509_VERSION_3) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(cert.get()), 20L * 365 * 24 * 3600) != nullptr &&
            X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, cn, -1, -1, 0) == 1 &&
            X509_set_issuer_name(cert.get(), name) == 1 && X509_set_pubkey(cert.get(), key.get()) == 1 &&
            X509_sign(cert.get(), key.get(), EVP_sha256()) > 0;
  if (!ok) {
    ERR_clear_error();
    return false;
  }
  BioPtr key_bio(BIO_new(BIO_s_mem()));
  BioPtr cert_bio(BIO_new(BIO_s_mem()));
  if (!key_bio || !cert_bio ||
      PEM_write_bio_PrivateKey(key_bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1 ||
      PEM_write_bio_X509(cert_bio.get(), cert.get()) != 1) {
    ERR_clear_error();
    return false;
  }
  out_key = BioText(key_bio.get());
  out_cert = BioText(cert_bio.get());
  return true;
}

}  // namespace Orm::Common
