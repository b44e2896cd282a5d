// TPM 2.0 structure codec: big-endian wire bytes to and from fixed-size,
// host-order records, without allocation.
//
// Calling convention shared by every function here:
//   Unmarshal(src, src_len, out) returns the bytes consumed, 0 on failure. It
//   never reads at or past src + src_len. On failure |out| may hold part of
//   the fields; callers must not use it.
//   Marshal(in, dst, dst_len) returns the bytes written, 0 on failure (the
//   output does not fit, or a selector is not supported).
// The functions log nothing; callers log.
//
// The record and function names follow the TPM 2.0 structure names, so they
// live in Witnessd::Verify to stay apart from other TPM stacks' definitions.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Witnessd::Verify {

// Algorithm identifiers accepted by the codec.
inline constexpr uint16_t kTpmAlgRsa = 0x0001;
inline constexpr uint16_t kTpmAlgSha1 = 0x0004;
inline constexpr uint16_t kTpmAlgHmac = 0x0005;
inline constexpr uint16_t kTpmAlgAes = 0x0006;
inline constexpr uint16_t kTpmAlgMgf1 = 0x0007;
inline constexpr uint16_t kTpmAlgKeyedHash = 0x0008;
inline constexpr uint16_t kTpmAlgXor = 0x000A;
inline constexpr uint16_t kTpmAlgSha256 = 0x000B;
inline constexpr uint16_t kTpmAlgSha384 = 0x000C;
inline constexpr uint16_t kTpmAlgSha512 = 0x000D;
inline constexpr uint16_t kTpmAlgNull = 0x0010;
inline constexpr uint16_t kTpmAlgSm3_256 = 0x0012;
inline constexpr uint16_t kTpmAlgSm4 = 0x0013;
inline constexpr uint16_t kTpmAlgRsassa = 0x0014;
inline constexpr uint16_t kTpmAlgRsaes = 0x0015;
inline constexpr uint16_t kTpmAlgRsapss = 0x0016;
inline constexpr uint16_t kTpmAlgOaep = 0x0017;
inline constexpr uint16_t kTpmAlgEcdsa = 0x0018;
inline constexpr uint16_t kTpmAlgEcdh = 0x0019;
inline constexpr uint16_t kTpmAlgEcdaa = 0x001A;
inline constexpr uint16_t kTpmAlgSm2 = 0x001B;
inline constexpr uint16_t kTpmAlgEcschnorr = 0x001C;
inline constexpr uint16_t kTpmAlgEcmqv = 0x001D;
inline constexpr uint16_t kTpmAlgKdf1Sp800_56a = 0x0020;
inline constexpr uint16_t kTpmAlgKdf2 = 0x0021;
inline constexpr uint16_t kTpmAlgKdf1Sp800_108 = 0x0022;
inline constexpr uint16_t kTpmAlgEcc = 0x0023;
inline constexpr uint16_t kTpmAlgSymCipher = 0x0025;
inline constexpr uint16_t kTpmAlgCamellia = 0x0026;

inline constexpr uint16_t kTpmStAttestQuote = 0x8018;
inline constexpr uint16_t kTpmStAttestCertify = 0x8017;
inline constexpr uint16_t kTpmStNoSessions = 0x8001;
inline constexpr uint32_t kTpmGeneratedValue = 0xff544347;

// Capacities enforced on unmarshal.
inline constexpr uint16_t kMaxDigestBytes = 64;
inline constexpr uint16_t kMaxNameBytes = 68;
inline constexpr uint16_t kMaxIdObjectBytes = 132;
inline constexpr uint16_t kMaxEncryptedSecretBytes = 512;
inline constexpr uint16_t kMaxPrivateBytes = 1550;
inline constexpr uint16_t kMaxAttestBytes = 2304;
inline constexpr uint16_t kMaxRsaKeyBytes = 512;
inline constexpr uint16_t kMaxEccKeyBytes = 128;
inline constexpr uint16_t kMaxNvBufferBytes = 2048;
inline constexpr uint32_t kMaxPcrSelections = 16;
inline constexpr uint8_t kMaxSizeofSelect = 4;
inline constexpr uint32_t kMaxDigestListCount = 8;
inline constexpr uint32_t kMaxDigestValues = 5;

// A TPM2B: a 16-bit size and a fixed-capacity buffer.
template <uint16_t kCapacity>
struct Tpm2bBuffer {
  static constexpr uint16_t kMax = kCapacity;
  uint16_t size;
  uint8_t buffer[kCapacity];
};

struct TPM2B_DIGEST : Tpm2bBuffer<kMaxDigestBytes> {};
struct TPM2B_DATA : Tpm2bBuffer<kMaxDigestBytes> {};
struct TPM2B_NAME : Tpm2bBuffer<kMaxNameBytes> {};
struct TPM2B_ID_OBJECT : Tpm2bBuffer<kMaxIdObjectBytes> {};
struct TPM2B_ENCRYPTED_SECRET : Tpm2bBuffer<kMaxEncryptedSecretBytes> {};
struct TPM2B_PRIVATE : Tpm2bBuffer<kMaxPrivateBytes> {};
struct TPM2B_ATTEST : Tpm2bBuffer<kMaxAttestBytes> {};
struct TPM2B_PUBLIC_KEY_RSA : Tpm2bBuffer<kMaxRsaKeyBytes> {};
struct TPM2B_ECC_PARAMETER : Tpm2bBuffer<kMaxEccKeyBytes> {};
struct TPM2B_MAX_NV_BUFFER : Tpm2bBuffer<kMaxNvBufferBytes> {};

struct TPMS_PCR_SELECTION {
  uint16_t hash;
  uint8_t sizeofSelect;
  uint8_t pcrSelect[kMaxSizeofSelect];
};

struct TPML_PCR_SELECTION {
  uint32_t count;
  TPMS_PCR_SELECTION pcrSelections[kMaxPcrSelections];
};

struct TPML_DIGEST {
  uint32_t count;
  TPM2B_DIGEST digests[kMaxDigestListCount];
};

// TPMT_HA: a hash algorithm and a digest of that algorithm's size.
struct TPMT_HA {
  uint16_t hashAlg;
  uint8_t digest[kMaxDigestBytes];
};

struct TPML_DIGEST_VALUES {
  uint32_t count;
  TPMT_HA digests[kMaxDigestValues];
};

struct TPMS_CLOCK_INFO {
  uint64_t clock;
  uint32_t resetCount;
  uint32_t restartCount;
  uint8_t safe;
};

// TPMS_ATTEST holding only the quote body; other attestation types fail.
struct TPMS_ATTEST {
  uint32_t magic;  // read and kept, never compared (see VerifyQuote)
  uint16_t type;
  TPM2B_NAME qualifiedSigner;
  TPM2B_DATA extraData;
  TPMS_CLOCK_INFO clockInfo;
  uint64_t firmwareVersion;
  TPML_PCR_SELECTION pcrSelect;  // TPMS_QUOTE_INFO.pcrSelect
  TPM2B_DIGEST pcrDigest;        // TPMS_QUOTE_INFO.pcrDigest
};

// TPMT_SYM_DEF_OBJECT. |keyBits| holds the hash for XOR; |mode| is on the
// wire for AES, SM4 and CAMELLIA only.
struct TPMT_SYM_DEF_OBJECT {
  uint16_t algorithm;
  uint16_t keyBits;
  uint16_t mode;
};

// The asymmetric, keyed-hash and signature schemes share this shape: the
// scheme, its hash where it has one, and the ECDAA count. For the keyed-hash
// XOR scheme |count| holds the KDF.
struct TPMT_SIG_SCHEME {
  uint16_t scheme;
  uint16_t hashAlg;
  uint16_t count;
};
using TPMT_ASYM_SCHEME = TPMT_SIG_SCHEME;

struct TPMT_KDF_SCHEME {
  uint16_t scheme;
  uint16_t hashAlg;
};

// The union TPMU_PUBLIC_PARMS flattened; which members are on the wire
// depends on TPMT_PUBLIC.type.
struct TPMS_PUBLIC_PARMS {
  TPMT_SYM_DEF_OBJECT symmetric;  // RSA, ECC, SYMCIPHER
  TPMT_ASYM_SCHEME scheme;        // RSA, ECC, KEYEDHASH
  uint16_t keyBits;               // RSA
  uint32_t exponent;              // RSA; 0 means 65537
  uint16_t curveID;               // ECC
  TPMT_KDF_SCHEME kdf;            // ECC
};

struct TPMS_ECC_POINT {
  TPM2B_ECC_PARAMETER x;
  TPM2B_ECC_PARAMETER y;
};

// The union TPMU_PUBLIC_ID flattened.
struct TPMU_PUBLIC_ID {
  TPM2B_PUBLIC_KEY_RSA rsa;  // RSA
  TPM2B_DIGEST sym;          // KEYEDHASH, SYMCIPHER
  TPMS_ECC_POINT ecc;        // ECC
};

struct TPMT_PUBLIC {
  uint16_t type;
  uint16_t nameAlg;
  uint32_t objectAttributes;
  TPM2B_DIGEST authPolicy;
  TPMS_PUBLIC_PARMS parameters;
  TPMU_PUBLIC_ID unique;
};

struct TPM2B_PUBLIC {
  uint16_t size;
  TPMT_PUBLIC publicArea;
};

struct TPMS_SIGNATURE_RSA {
  uint16_t hash;
  TPM2B_PUBLIC_KEY_RSA sig;
};

struct TPMS_SIGNATURE_ECC {
  uint16_t hash;
  TPM2B_ECC_PARAMETER signatureR;
  TPM2B_ECC_PARAMETER signatureS;
};

// TPMT_SIGNATURE keeps the TPM's union so that the RSA record is the 518
// bytes of sigAlg, hash, size and signature.
struct TPMT_SIGNATURE {
  uint16_t sigAlg;
  union {
    TPMT_HA hmac;
    TPMS_SIGNATURE_RSA rsassa;  // also RSAPSS
    TPMS_SIGNATURE_ECC ecdsa;   // also ECDAA, SM2, ECSCHNORR
  } signature;
};

// Tpm2_Marshal_TPM2B_DATA and the other sized-buffer marshallers write the
// 16-bit size and the bytes of |in| (not null). They return the bytes
// written, or 0 when the output does not fit or size > capacity.
uint32_t Tpm2_Marshal_TPM2B_DATA(const TPM2B_DATA* in, uint8_t* dst, uint32_t dst_len);
uint32_t Tpm2_Marshal_TPM2B_DIGEST(const TPM2B_DIGEST* in, uint8_t* dst, uint32_t dst_len);

// Tpm2_Unmarshal_TPM2B_DIGEST and the other sized-buffer unmarshallers
// return the bytes consumed (2 + size), or 0 when the input ends early or
// the size is above the record's capacity (64 for DATA and DIGEST).
uint32_t Tpm2_Unmarshal_TPM2B_DATA(const uint8_t* src, uint32_t src_len, TPM2B_DATA* out);
uint32_t Tpm2_Unmarshal_TPM2B_DIGEST(const uint8_t* src, uint32_t src_len, TPM2B_DIGEST* out);
uint32_t Tpm2_Unmarshal_TPM2B_ATTEST(const uint8_t* src, uint32_t src_len, TPM2B_ATTEST* out);

// Tpm2_Marshal_TPM2B_PUBLIC writes the public area of |in| (not null) after
// its computed 16-bit size (|in->size| is not read); 0 when it does not fit
// or a selector is unsupported. Tpm2_Unmarshal_TPM2B_PUBLIC returns the
// bytes consumed, or 0 unless the public area decodes and fills exactly the
// size given. Tpm2_Unmarshal_TPMT_PUBLIC reads a public area without size.
uint32_t Tpm2_Marshal_TPM2B_PUBLIC(const TPM2B_PUBLIC* in, uint8_t* dst, uint32_t dst_len);
uint32_t Tpm2_Unmarshal_TPM2B_PUBLIC(const uint8_t* src, uint32_t src_len, TPM2B_PUBLIC* out);
uint32_t Tpm2_Unmarshal_TPMT_PUBLIC(const uint8_t* src, uint32_t src_len, TPMT_PUBLIC* out);

// Tpm2_Unmarshal_TPMS_ATTEST accepts quote attestations (TPM_ST_ATTEST_QUOTE) only.
uint32_t Tpm2_Unmarshal_TPMS_ATTEST(const uint8_t* src, uint32_t src_len, TPMS_ATTEST* out);

// Tpm2_Marshal_TPMT_SIG_SCHEME / Tpm2_Unmarshal_TPMT_SIG_SCHEME and the
// TPMT_SIGNATURE pair: bytes written or consumed, 0 for a scheme or
// signature algorithm outside the accepted list. A NULL signature is its
// 2-byte sigAlg alone.
uint32_t Tpm2_Marshal_TPMT_SIGNATURE(const TPMT_SIGNATURE* in, uint8_t* dst, uint32_t dst_len);
uint32_t Tpm2_Unmarshal_TPMT_SIGNATURE(const uint8_t* src, uint32_t src_len, TPMT_SIGNATURE* out);
uint32_t Tpm2_Marshal_TPMT_SIG_SCHEME(const TPMT_SIG_SCHEME* in, uint8_t* dst, uint32_t dst_len);
uint32_t Tpm2_Unmarshal_TPMT_SIG_SCHEME(const uint8_t* src, uint32_t src_len, TPMT_SIG_SCHEME* out);

// Tpm2_Marshal_TPML_PCR_SELECTION / Tpm2_Unmarshal_TPML_PCR_SELECTION and
// Tpm2_Marshal_TPML_DIGEST / Tpm2_Unmarshal_TPML_DIGEST: bytes written or
// consumed, 0 above 16 selections, a sizeofSelect above 4 or 8 digests.
// Select bytes past sizeofSelect read as zero after unmarshalling.
uint32_t Tpm2_Marshal_TPML_PCR_SELECTION(const TPML_PCR_SELECTION* in, uint8_t* dst, uint32_t dst_len);
uint32_t Tpm2_Unmarshal_TPML_PCR_SELECTION(const uint8_t* src, uint32_t src_len,
                                           TPML_PCR_SELECTION* out);
uint32_t Tpm2_Marshal_TPML_DIGEST(const TPML_DIGEST* in, uint8_t* dst, uint32_t dst_len);
uint32_t Tpm2_Unmarshal_TPML_DIGEST(const uint8_t* src, uint32_t src_len, TPML_DIGEST* out);

}  // namespace Witnessd::Verify
