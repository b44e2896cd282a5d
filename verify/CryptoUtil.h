// Digest, signature and certificate utilities of the verification library,
// all on OpenSSL. Warnings are logged with the prefix "TPM2VLIB: ".
#pragma once

#include <openssl/bio.h>
#include <openssl/pkcs7.h>
#include <openssl/x509_vfy.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Witnessd::Verify {

// PCR banks of the PCR value table, by TPM hash algorithm.
inline constexpr uint32_t kNumPcrBanks = 5;  // SHA1, SHA256, SHA384, SHA512, SM3_256
inline constexpr uint32_t kNumPcrs = 24;
inline constexpr uint32_t kPcrSlotBytes = 64;

// ReportSslError takes the oldest queued OpenSSL error and logs
// "TPM2VLIB: <what>; ssl e: <code>(<text>)" as a warning.
void ReportSslError(const char* what);

// HashDigestSize returns the digest size of a TPM hash algorithm (SHA1 20,
// SHA256 32, SHA384 48, SHA512 64, SM3_256 32), or 0 with a warning for any
// other identifier.
uint16_t HashDigestSize(uint16_t alg);

// PcrBankIndex returns the bank of a TPM hash algorithm in the PCR value
// table (0 SHA1 ... 4 SM3_256), or kNumPcrBanks for any other identifier.
uint32_t PcrBankIndex(uint16_t alg);

// IsPcrSelected tells whether bit |index| mod 8 of select byte |index| / 8
// is set. The caller guarantees the byte exists.
bool IsPcrSelected(const uint8_t* select, uint32_t index);

// HashBuffer writes the digest of |data| (|len| bytes) with the TPM hash
// algorithm |alg| to |out|, which holds at least HashDigestSize(alg) bytes.
// SM3_256 is deliberately hashed with SHA-256; keep that mapping, results
// recorded elsewhere depend on it. Returns false, with a warning, for an
// unknown algorithm or an OpenSSL failure.
bool HashBuffer(uint8_t* out, uint16_t alg, const uint8_t* data, uint16_t len);

// VerifyRsaSignature checks an RSASSA-PKCS1-v1_5 signature over |digest|
// made with the hash |alg| (SHA1, SHA256, SHA384 or SHA512) by the RSA key
// with big-endian modulus |modulus| and the public exponent 65537, whatever
// exponent the key declares. Returns true when the signature is valid;
// false, with a warning, otherwise (SM3_256 has no RSA digest type).
bool VerifyRsaSignature(const uint8_t* digest, size_t digest_len, uint16_t alg, const uint8_t* modulus,
                        size_t modulus_len, const uint8_t* sig, size_t sig_len);

// Sha256Extend replaces the 32-byte |pcr| with SHA-256(|pcr| || |digest|),
// |digest| being 32 bytes: a SHA-256 PCR extend.
void Sha256Extend(uint8_t* pcr, const uint8_t* digest);

// HexDump logs |len| bytes as lower-case hex, 16 a line, each line
// "TPM2VLIB: <label> <hex>" at the information level.
void HexDump(const char* label, const void* data, size_t len);

// Owners of OpenSSL handles returned here.
struct X509StoreFree {
  void operator()(X509_STORE* s) const { X509_STORE_free(s); }
};
struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
struct Pkcs7Free {
  void operator()(PKCS7* p) const { PKCS7_free(p); }
};
using X509StorePtr = std::unique_ptr<X509_STORE, X509StoreFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;
using Pkcs7Ptr = std::unique_ptr<PKCS7, Pkcs7Free>;

// LoadPemCertStore returns a new store holding every PEM certificate of
// |pem| in order, or null when there is none or one cannot be added.
X509StorePtr LoadPemCertStore(const uint8_t* pem, size_t len);

// OpenMemoryReader returns a read-only reader over |data| (not copied: the
// bytes must outlive it), or null when |len| exceeds 0x7fffffff.
BioPtr OpenMemoryReader(const uint8_t* data, size_t len);

// ReadNextPkcs7 reads the next PEM PKCS#7 object from |reader| into |out|.
// At the end or on an error it logs "Failed to read signature" through
// ReportSslError and returns false.
bool ReadNextPkcs7(BIO* reader, Pkcs7Ptr* out);

// Outcome of one package signature check.
inline constexpr uint32_t kHvkSignMaker = 1;        // chains to the maker's store
inline constexpr uint32_t kHvkSignPartner = 2;      // chains to the partner's store
inline constexpr uint32_t kHvkSignNotVerified = 5;  // neither store
struct HvkSignResult {
  uint32_t status = kHvkSignNotVerified;
  uint8_t content[32] = {};  // first bytes of the signed content
  size_t content_len = 0;    // how many of them are set (at most 32)
  std::string organization;  // signer's subject O, at most 32 bytes
  std::string error;         // empty unless the check could not run
};

// Trusted certificate and revocation files (under the sysroot).
inline constexpr const char* kMakerCertPath = "/usr/share/certs/quarro.cert";
inline constexpr const char* kPartnerCertPath = "/usr/share/certs/quarropartner.cert";
inline constexpr const char* kMakerCrlPath = "/usr/share/certs/quarro.crl";
inline constexpr const char* kPartnerCrlPath = "/usr/share/certs/quarropartner.crl";

// HvkSignCheck verifies the detached signature |p7| over the bytes of
// |content| against the maker's store (|maker_store| if given, kept by the
// caller; else loaded from |cert_path|, or from kMakerCertPath when null)
// and the partner's store (kPartnerCertPath), with the revocation lists
// kMakerCrlPath and kPartnerCrlPath when present. It returns the result
// (never null); result->error is set when a revocation list is unreadable.
// |out_content_len| receives the length of the verified content.
std::unique_ptr<HvkSignResult> HvkSignCheck(PKCS7* p7, BIO* content, const char* cert_path,
                                            X509_STORE* maker_store, size_t* out_content_len);

// HvkSignVerify is true only when |content| is signed by a certificate that
// chains to the maker's store (status 1). Otherwise false, with the reason
// in |out_error| when the check itself failed ("Data buffer too small." for
// empty content).
bool HvkSignVerify(PKCS7* p7, const uint8_t* content, size_t content_len, const char* cert_path,
                   X509_STORE* maker_store, std::string* out_error);

}  // namespace Witnessd::Verify
