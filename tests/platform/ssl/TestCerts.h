// Keys and certificates made with OpenSSL inside the tests: a CA hierarchy
// (root, intermediate) and end-entity certificates, all PEM. Header-only so
// the configuration tests can use it too.
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace Witnessd::Testing {

struct TestKey {
  std::shared_ptr<EVP_PKEY> key;
  std::string public_pem;
};

inline std::string BioString(BIO* bio) {
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<size_t>(len));
}

// MakeKey returns an EC P-256 key (fast), or RSA of |rsa_bits| when not 0.
inline TestKey MakeKey(int rsa_bits = 0) {
  EVP_PKEY* raw = rsa_bits != 0 ? EVP_RSA_gen(rsa_bits) : EVP_EC_gen("P-256");
  if (raw == nullptr) {
    throw std::runtime_error("key generation failed");
  }
  TestKey k{std::shared_ptr<EVP_PKEY>(raw, EVP_PKEY_free), ""};
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_PUBKEY(bio.get(), raw);
  k.public_pem = BioString(bio.get());
  return k;
}

struct TestCert {
  TestKey key;
  std::string subject;
  std::string pem;
};

// MakeCert issues a certificate for |key| named |subject|, signed by |issuer|
// (self-signed when null). |ca| sets basicConstraints CA:TRUE. |expired|
// makes it valid for one day that ended yesterday. |padding| pads it.
inline TestCert MakeCert(const TestKey& key, const std::string& subject, const TestCert* issuer, bool ca,
                         long serial = 1, bool expired = false, size_t padding = 0) {
  std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
  X509_set_version(cert.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), expired ? -2 * 86400L : -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), expired ? -86400L : 3600L * 24 * 365);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(subject.c_str()),
                             -1, -1, 0);
  X509_set_pubkey(cert.get(), key.key.get());
  std::unique_ptr<X509, decltype(&X509_free)> issuer_cert(nullptr, X509_free);
  if (issuer != nullptr) {
    std::unique_ptr<BIO, decltype(&BIO_free)> in(BIO_new_mem_buf(issuer->pem.data(), -1), BIO_free);
    issuer_cert.reset(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
    X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer_cert.get()));
  } else {
    X509_set_issuer_name(cert.get(), name);
  }
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer_cert ? issuer_cert.get() : cert.get(), cert.get(), nullptr, nullptr, 0);
  X509_EXTENSION* bc = X509V3_EXT_conf_nid(nullptr, &ctx, NID_basic_constraints, ca ? "critical,CA:TRUE" : "CA:FALSE");
  X509_add_ext(cert.get(), bc, -1);
  X509_EXTENSION_free(bc);
  if (ca) {
    X509_EXTENSION* ku = X509V3_EXT_conf_nid(nullptr, &ctx, NID_key_usage, "critical,keyCertSign,cRLSign");
    X509_add_ext(cert.get(), ku, -1);
    X509_EXTENSION_free(ku);
  }
  if (padding != 0) {  // a private extension
    std::string value = "ASN1:FORMAT:ASCII,OCTETSTRING:" + std::string(padding, 'p');
    X509_EXTENSION* pad = X509V3_EXT_nconf(nullptr, &ctx, "1.3.6.1.4.1.99999.1", value.c_str());
    X509_add_ext(cert.get(), pad, -1);
    X509_EXTENSION_free(pad);
  }
  X509_sign(cert.get(), issuer != nullptr ? issuer->key.key.get() : key.key.get(), EVP_sha256());
  std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_X509(out.get(), cert.get());
  return TestCert{key, subject, BioString(out.get())};
}

// MakeSizedCert issues an end-entity certificate for a fresh key under
// |issuer| whose DER is exactly |der_len| bytes (at least 1 KiB).
inline TestCert MakeSizedCert(const TestCert& issuer, size_t der_len) {
  TestKey key = MakeKey();
  // An ECDSA signature is 70 to 72 bytes at random, so a try lands exactly when its signature is as long
  // as the one before it: about 3 tries in 8. 256 tries make a miss practically impossible.
  for (size_t padding = der_len - 600, tries = 0; tries < 256; ++tries) {
    TestCert cert = MakeCert(key, "Test EK", &issuer, false, 3, false, padding);
    std::unique_ptr<BIO, decltype(&BIO_free)> in(BIO_new_mem_buf(cert.pem.data(), -1), BIO_free);
    std::unique_ptr<X509, decltype(&X509_free)> x(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr), X509_free);
    size_t len = static_cast<size_t>(i2d_X509(x.get(), nullptr));
    if (len == der_len) {
      return cert;
    }
    padding = padding + der_len - len;
  }
  throw std::runtime_error("no certificate of the requested size");
}

// A root CA, an intermediate CA under it, and a leaf (an "EK certificate")
// under the intermediate.
struct TestPki {
  TestCert root = MakeCert(MakeKey(), "Test Root CA", nullptr, true);
  TestCert intermediate = MakeCert(MakeKey(), "Test Intermediate CA", &root, true, 2);
  TestCert leaf = MakeCert(MakeKey(), "Test EK", &intermediate, false, 3);
};

// Rewrap returns |pem| with its lines joined and broken every |width|
// characters, the same content in another layout.
inline std::string Rewrap(const std::string& pem, size_t width) {
  std::string flat;
  for (char c : pem) {
    if (c != '\n') {
      flat.push_back(c);
    }
  }
  std::string out;
  for (size_t i = 0; i < flat.size(); i += width) {
    out += flat.substr(i, width) + "\r\n";
  }
  return out;
}

}  // namespace Witnessd::Testing
