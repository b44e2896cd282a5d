// Common security utilities on OpenSSL 3: canonical PEM forms, hashes, key and
// certificate checks, CA chain validation and key pair generation. None of
// them throws; failures are reported by the return value.
#pragma once

#include <cstdint>
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

typedef struct x509_store_st X509_STORE;

namespace Orm::Common {

// A parsed set of trust anchors: built once, never changed after, and shared
// by many verifications (OpenSSL allows concurrent use of a store that no
// thread modifies). Certificates to verify are never shared: each check
// parses its own.
using TrustStore = std::shared_ptr<X509_STORE>;

// What an EK certificate shows: its public key in the StandardizePemPubKey
// form, and whether it verifies up to the trust store it was checked against.
struct EkCertCheck {
  std::string key;
  bool chains = false;
};

class SslUtils {
 public:
  // CanonicalizePem removes every white-space character from |pem| in place,
  // so "-----BEGIN PUBLIC KEY-----" becomes "-----BEGINPUBLICKEY-----".
  static void CanonicalizePem(std::string& pem);

  // ComputeHash sets |out| to the SHA-256 digest of |data|. Returns false
  // only when OpenSSL fails.
  static bool ComputeHash(const std::string& data, std::vector<uint8_t>& out);
  // ComputeHashHex is ComputeHash as lower-case hexadecimal text.
  static bool ComputeHashHex(const std::string& data, std::string& out_hex);

  // StandardizePemString rewrites |pem| as |begin_marker|, the base64 body in
  // lines of 64 characters, |end_marker|, each line ending in "\n". The input
  // may have any white space and may lack both markers. Returns false, with
  // |pem| unchanged, when the body is empty or not base64.
  static bool StandardizePemString(std::string& pem, const std::string& begin_marker,
                                   const std::string& end_marker);
  // StandardizePemPubKey and StandardizePemCert parse |pem| as a public key
  // ("PUBLIC KEY") or an X.509 certificate and write it back in OpenSSL's PEM
  // form, so equal keys or certificates give equal text. False, with |pem|
  // unchanged, when it does not parse.
  static bool StandardizePemPubKey(std::string& pem);
  static bool StandardizePemCert(std::string& pem);

  // ValidatePemKey: |pem| is an RSA key of at least 2048 bits or an EC key.
  static bool ValidatePemKey(const std::string& pem);
  // UsableKeyDigest is the SHA-256 of |pem|'s SubjectPublicKeyInfo DER when
  // ValidatePemKey holds for it; nullopt otherwise. Texts that differ only in
  // layout or PEM form give the same digest.
  static std::optional<std::array<uint8_t, 32>> UsableKeyDigest(const std::string& pem);
  // Sha256 is the SHA-256 of |data|; nullopt only when hashing fails.
  static std::optional<std::array<uint8_t, 32>> Sha256(std::string_view data);
  // ValidatePemCert: |pem| is an X.509 certificate with a readable public key.
  static bool ValidatePemCert(const std::string& pem);
  // ExtractKeyFromCert sets |out_key| to the certificate's public key in the
  // StandardizePemPubKey form.
  static bool ExtractKeyFromCert(const std::string& cert_pem, std::string& out_key);
  // PemCertDer decodes the certificate text |pem| (any white space, markers
  // optional, as ValidatePemCert takes it) to its DER bytes, without parsing
  // them. Text with more base64 than |max_der_len| bytes need is refused
  // before anything is copied or decoded, then DER longer than |max_der_len|.
  // nullopt when refused or not base64.
  static std::optional<std::string> PemCertDer(const std::string& pem, size_t max_der_len);
  // IsCaCertPem tells whether the certificate text |pem| may issue
  // certificates (a CA by its basic constraints, or a self-signed version 1
  // root); nullopt when it does not parse.
  static std::optional<bool> IsCaCertPem(const std::string& pem);
  // ComparePemKeys is true when both texts parse and hold the same public key.
  static bool ComparePemKeys(const std::string& a, const std::string& b);

  // ValidateCertChain checks certificates against the configured CA list
  // |trusted|, every certificate of which is a trust anchor.
  // |is_ca_chain| false: |chain|[0] is an end-entity certificate (an EK
  //   certificate); it must verify up to a certificate of |trusted|, with the
  //   rest of |chain| as intermediates. Self-signed certificates in |chain|
  //   are not trusted.
  // |is_ca_chain| true: |chain| is a CA chain to be added; every certificate
  //   must be a CA and must verify up to |trusted| or to a self-signed root
  //   inside |chain|, in any order. An empty |trusted| is allowed then.
  static bool ValidateCertChain(const std::vector<std::string>& chain, const std::vector<std::string>& trusted,
                                bool is_ca_chain);
  // BuildTrustStore parses |trusted| once (entries that do not parse are left
  // out). CheckEkCertDer parses |der|, which must be one whole certificate
  // with a readable public key (nullopt otherwise), and, when |trusted| is not
  // null, checks it against that store exactly as ValidateCertChain({cert},
  // trusted, false) does, times included. The parsed certificate lives only
  // during the call.
  static TrustStore BuildTrustStore(const std::vector<std::string>& trusted);
  static std::optional<EkCertCheck> CheckEkCertDer(const std::string& der, X509_STORE* trusted);
  // CheckNoCaCertDups is false when two entries of |certs| hold the same
  // certificate (compared by DER encoding) or one does not parse.
  static bool CheckNoCaCertDups(const std::vector<std::string>& certs);

  // GenerateKeyAndCert makes an RSA 2048-bit key and a self-signed
  // certificate for it valid for 20 years, both PEM.
  static bool GenerateKeyAndCert(std::string& out_key, std::string& out_cert);
};

// Gzip streams (zlib window bits 31).
class Gzip {
 public:
  // Decompression refuses output larger than this.
  static constexpr size_t kMaxDecompressedBytes = 256u << 20;

  static bool CompressFromString(const std::string& text, std::vector<uint8_t>& out);
  // DecompressToString needs exactly one complete gzip member with nothing
  // after it.
  static bool DecompressToString(const std::vector<uint8_t>& in, std::string& out);

  // Where a decompression stopped, for callers that report it: the stage and
  // the zlib return code of the failed call (for the limits below, the code
  // zlib would give for such input: Z_DATA_ERROR after trailing bytes,
  // Z_MEM_ERROR past kMaxDecompressedBytes).
  enum class Stage { kDone, kEmptyInput, kInit, kInflate };
  struct Outcome {
    Stage stage = Stage::kDone;
    int zlib_code = 0;
  };
  static Outcome Decompress(const uint8_t* data, size_t size, std::string& out);
};

}  // namespace Orm::Common
