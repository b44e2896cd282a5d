#include "tpm2/CredentialProtection.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/param_build.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/Assert.h"
#include "platform/Log.h"
#include "platform/System.h"

namespace Witnessd::Tpm2 {
struct CredentialKey {
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> rsa{nullptr, EVP_PKEY_free};
  const EVP_MD* name_md = nullptr;     // the EK's nameAlg
  const EVP_CIPHER* cipher = nullptr;  // AES-CFB with the EK's symmetric key size
  size_t sym_bytes = 0;
};

namespace {

constexpr const char* kSourcePath = "apps/witnessd/tpm2/CredentialProtection";

using namespace Witnessd::Verify;

// The EK attribute bits looked at, and the values they must have.
constexpr uint32_t kEkAttributeMask = 0x00070012;      // fixedTPM, fixedParent, restricted, decrypt, sign
constexpr uint32_t kEkRequiredAttributes = 0x00030012;  // all but sign
// Room for the outputs: a TPM2B_ID_OBJECT with a 64-byte HMAC and a 64-byte
// credential, and a TPM2B_ENCRYPTED_SECRET for an RSA key of up to 2048 bits.
constexpr size_t kBlobRoom = 134;
constexpr size_t kSecretRoom = 258;
constexpr size_t kMaxSecretBytes = 64;
// Failures are logged with the response code a TPM gives for the same
// refusal. The codec reports no reason for a failure; TPM_RC_INSUFFICIENT is
// what a TPM answers for a public area that does not parse.
constexpr int kTpmRcSuccess = 0;
constexpr int kTpmRcHash = 0x83;       // a nameAlg without a digest here
constexpr int kTpmRcType = 0x8A;       // the EK is not an RSA restricted decryption key
constexpr int kTpmRcSize = 0x95;       // the credential is longer than an EK nameAlg digest
constexpr int kTpmRcSymmetric = 0x96;  // the EK's symmetric definition is not AES-CFB
constexpr int kTpmRcInsufficient = 0x9A;
constexpr int kTpmRcKey = 0x9C;       // the modulus does not match the key size
constexpr int kTpmRcFailure = 0x101;  // a cryptographic operation failed
constexpr uint16_t kTpmAlgCfb = 0x0043;
constexpr uint32_t kRestrictedDecrypt = 0x00030000;
constexpr uint32_t kDefaultExponent = 65537;
// The labels of the seed's encryption and of the two derived keys; each is
// used with its terminating zero byte.
constexpr char kIdentityLabel[] = "IDENTITY";
constexpr char kStorageLabel[] = "STORAGE";
constexpr char kIntegrityLabel[] = "INTEGRITY";
// The type-name text in this line is the one operators already search for.
constexpr const char* kPublicTypeName = "12TPM2B_PUBLIC";
constexpr char kOutsideInfoText[] = "witnessd";  // sent with its terminating zero

struct FixedStructures {
  std::vector<uint8_t> ak_template;
  std::vector<uint8_t> outside_info;
  std::vector<uint8_t> sig_scheme;
  std::vector<uint8_t> pcr_selection;
};

template <typename Record, typename Marshal>
std::vector<uint8_t> MarshalFixed(const Record& record, Marshal marshal) {
  uint8_t buf[256];
  uint32_t len = marshal(&record, buf, sizeof(buf));
  VERIFY(len != 0);
  return std::vector<uint8_t>(buf, buf + len);
}

const FixedStructures& Fixed() {
  static std::once_flag once;
  static FixedStructures fixed;
  std::call_once(once, [] {
    TPM2B_PUBLIC ak = {};
    TPMT_PUBLIC& area = ak.publicArea;
    area.type = kTpmAlgRsa;
    area.nameAlg = kTpmAlgSha256;
    area.objectAttributes = kAkObjectAttributes;
    area.parameters.symmetric.algorithm = kTpmAlgNull;
    area.parameters.scheme.scheme = kTpmAlgRsassa;
    area.parameters.scheme.hashAlg = kTpmAlgSha256;
    area.parameters.keyBits = kAkKeyBits;
    // Written out rather than left as 0 (the TPM's "default exponent"), so
    // the AK's public area carries it and VerifyAkPublic can insist on it.
    area.parameters.exponent = kAkExponent;
    fixed.ak_template = MarshalFixed(ak, Tpm2_Marshal_TPM2B_PUBLIC);

    TPM2B_DATA outside = {};
    outside.size = sizeof(kOutsideInfoText);
    std::memcpy(outside.buffer, kOutsideInfoText, sizeof(kOutsideInfoText));
    fixed.outside_info = MarshalFixed(outside, Tpm2_Marshal_TPM2B_DATA);

    TPMT_SIG_SCHEME scheme = {};
    scheme.scheme = kTpmAlgRsassa;
    scheme.hashAlg = kTpmAlgSha256;
    fixed.sig_scheme = MarshalFixed(scheme, Tpm2_Marshal_TPMT_SIG_SCHEME);

    // PCRs 8-15 and 17-22: the hypervisor's measurements and the dynamic
    // launch PCRs. 0-7 (firmware), 16 (debug) and 23 (application) are not
    // quoted.
    TPML_PCR_SELECTION selection = {};
    selection.count = 1;
    selection.pcrSelections[0].hash = kTpmAlgSha256;
    selection.pcrSelections[0].sizeofSelect = 3;
    selection.pcrSelections[0].pcrSelect[0] = 0x00;
    selection.pcrSelections[0].pcrSelect[1] = 0xFF;
    selection.pcrSelections[0].pcrSelect[2] = 0x7E;
    fixed.pcr_selection = MarshalFixed(selection, Tpm2_Marshal_TPML_PCR_SELECTION);
  });
  return fixed;
}

const EVP_MD* DigestForAlg(uint16_t alg) {
  switch (alg) {
    case kTpmAlgSha1:
      return EVP_sha1();
    case kTpmAlgSha256:
      return EVP_sha256();
    case kTpmAlgSha384:
      return EVP_sha384();
    case kTpmAlgSha512:
      return EVP_sha512();
    default:
      return nullptr;
  }
}

// UnmarshalPublic parses a marshalled TPM2B_PUBLIC and returns the number of
// bytes it takes up, or 0 (logged) when it does not parse.
uint32_t UnmarshalPublic(const std::vector<uint8_t>& bytes, TPM2B_PUBLIC* out) {
  uint32_t consumed = 0;
  if (bytes.size() <= UINT32_MAX) {
    consumed = Tpm2_Unmarshal_TPM2B_PUBLIC(bytes.data(), static_cast<uint32_t>(bytes.size()), out);
  }
  if (consumed == 0) {
    Log_Level(kLogError, "Failed to unmarshal %s: %d\n", kPublicTypeName, kTpmRcInsufficient);
  }
  return consumed;
}

// ObjectName computes a TPM object's Name: its nameAlg followed by the
// nameAlg digest of the marshalled TPMT_PUBLIC (the TPM2B minus its size).
bool ObjectName(const std::vector<uint8_t>& public_bytes, uint32_t public_len, uint16_t name_alg,
                std::vector<uint8_t>* out_name) {
  const EVP_MD* md = DigestForAlg(name_alg);
  if (md == nullptr) {
    Log_Level(kLogError, "Unsupported AK name algorithm: %u\n", name_alg);
    return false;
  }
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned int digest_len = 0;
  if (EVP_Digest(public_bytes.data() + 2, public_len - 2, digest, &digest_len, md, nullptr) != 1) {
    Log_Level(kLogError, "Failed to compute AK name\n");
    return false;
  }
  out_name->clear();
  out_name->push_back(static_cast<uint8_t>(name_alg >> 8));
  out_name->push_back(static_cast<uint8_t>(name_alg));
  out_name->insert(out_name->end(), digest, digest + digest_len);
  return true;
}

using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;
using KdfCtxPtr = std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)>;
using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)>;
using ParamsPtr = std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)>;
using BnPtr = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

// Key bytes wiped when they go out of scope.
class SecretBytes {
 public:
  explicit SecretBytes(size_t size) : bytes_(size) {}
  ~SecretBytes() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  uint8_t* data() { return bytes_.data(); }
  const uint8_t* data() const { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }

 private:
  std::vector<uint8_t> bytes_;
};

void PutU16(std::vector<uint8_t>* out, size_t value) {
  out->push_back(static_cast<uint8_t>(value >> 8));
  out->push_back(static_cast<uint8_t>(value));
}

// UseEk takes the key, nameAlg and symmetric definition from the EK's public
// area: an RSA restricted decryption key whose symmetric definition is AES in
// CFB mode. Returns kTpmRcSuccess or the code of the refusal.
int UseEk(const TPMT_PUBLIC& ek, CredentialKey* out) {
  if (ek.type != kTpmAlgRsa || (ek.objectAttributes & kRestrictedDecrypt) != kRestrictedDecrypt) {
    return kTpmRcType;
  }
  out->name_md = DigestForAlg(ek.nameAlg);
  if (out->name_md == nullptr) {
    return kTpmRcHash;
  }
  const TPMT_SYM_DEF_OBJECT& sym = ek.parameters.symmetric;
  if (sym.algorithm != kTpmAlgAes || sym.mode != kTpmAlgCfb) {
    return kTpmRcSymmetric;
  }
  switch (sym.keyBits) {
    case 128:
      out->cipher = EVP_aes_128_cfb128();
      break;
    case 192:
      out->cipher = EVP_aes_192_cfb128();
      break;
    case 256:
      out->cipher = EVP_aes_256_cfb128();
      break;
    default:
      return kTpmRcSymmetric;
  }
  out->sym_bytes = sym.keyBits / 8;
  const TPM2B_PUBLIC_KEY_RSA& modulus = ek.unique.rsa;
  if (modulus.size == 0 || modulus.size * 8u != ek.parameters.keyBits) {
    return kTpmRcKey;
  }
  uint32_t exponent = ek.parameters.exponent == 0 ? kDefaultExponent : ek.parameters.exponent;
  BnPtr n(BN_bin2bn(modulus.buffer, modulus.size, nullptr), BN_free);
  BnPtr e(BN_new(), BN_free);
  ParamBldPtr bld(OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
  if (n == nullptr || e == nullptr || bld == nullptr || BN_set_word(e.get(), exponent) != 1 ||
      OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return kTpmRcFailure;
  }
  ParamsPtr params(OSSL_PARAM_BLD_to_param(bld.get()), OSSL_PARAM_free);
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* pkey = nullptr;
  if (params == nullptr || ctx == nullptr || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &pkey, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return kTpmRcKey;
  }
  out->rsa.reset(pkey);
  return kTpmRcSuccess;
}

// EncryptSeed encrypts |seed| to the EK with RSA-OAEP, the EK's nameAlg as
// OAEP and MGF1 hash and the label "IDENTITY".
bool EncryptSeed(const CredentialKey& key, const SecretBytes& seed, std::vector<uint8_t>* out) {
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key.rsa.get(), nullptr), EVP_PKEY_CTX_free);
  char* md_name = const_cast<char*>(EVP_MD_get0_name(key.name_md));
  char* pad_mode = const_cast<char*>(OSSL_PKEY_RSA_PAD_MODE_OAEP);
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_ASYM_CIPHER_PARAM_PAD_MODE, pad_mode, 0),
      OSSL_PARAM_construct_utf8_string(OSSL_ASYM_CIPHER_PARAM_OAEP_DIGEST, md_name, 0),
      OSSL_PARAM_construct_utf8_string(OSSL_ASYM_CIPHER_PARAM_MGF1_DIGEST, md_name, 0),
      OSSL_PARAM_construct_octet_string(OSSL_ASYM_CIPHER_PARAM_OAEP_LABEL, const_cast<char*>(kIdentityLabel),
                                        sizeof(kIdentityLabel)),
      OSSL_PARAM_construct_end(),
  };
  size_t len = 0;
  if (ctx == nullptr || EVP_PKEY_encrypt_init_ex(ctx.get(), params) != 1 ||
      EVP_PKEY_encrypt(ctx.get(), nullptr, &len, seed.data(), seed.size()) != 1) {
    return false;
  }
  std::vector<uint8_t> encrypted(len);
  if (EVP_PKEY_encrypt(ctx.get(), encrypted.data(), &len, seed.data(), seed.size()) != 1) {
    return false;
  }
  out->clear();
  PutU16(out, len);
  out->insert(out->end(), encrypted.begin(), encrypted.begin() + len);
  return true;
}

// KdfA fills |out| from |key| with the counter-mode HMAC KDF the TPM uses:
// each block is HMAC(key, counter || label || 0 || context || bits), the
// counter and the output size in bits as 32-bit big-endian numbers.
bool KdfA(const EVP_MD* md, const SecretBytes& key, const char* label, const std::vector<uint8_t>& context,
          SecretBytes* out) {
  // Fetched once: a fetch looks the algorithm up in the provider store under
  // its lock. Kept until exit.
  static EVP_KDF* const kdf = EVP_KDF_fetch(nullptr, "KBKDF", nullptr);
  KdfCtxPtr ctx(kdf == nullptr ? nullptr : EVP_KDF_CTX_new(kdf), EVP_KDF_CTX_free);
  if (ctx == nullptr) {
    return false;
  }
  OSSL_PARAM params[7];
  OSSL_PARAM* p = params;
  *p++ = OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_MODE, const_cast<char*>("counter"), 0);
  *p++ = OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_MAC, const_cast<char*>(OSSL_MAC_NAME_HMAC), 0);
  *p++ = OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char*>(EVP_MD_get0_name(md)), 0);
  *p++ = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<uint8_t*>(key.data()), key.size());
  // The KDF writes the zero byte after the label itself.
  *p++ = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<char*>(label), std::strlen(label));
  if (!context.empty()) {
    *p++ = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<uint8_t*>(context.data()), context.size());
  }
  *p = OSSL_PARAM_construct_end();
  return EVP_KDF_derive(ctx.get(), out->data(), out->size(), params) == 1;
}

// ProtectCredential draws a seed, encrypts it to the EK and wraps |secret|
// for the object named |object_name|: the marshalled TPM2B_DIGEST of the
// secret is encrypted with AES-CFB (zero IV) under a key derived from the
// seed and the Name, and an HMAC under a second key derived from the seed
// covers it and the Name. Returns kTpmRcSuccess or the failure's code.
int ProtectCredential(const CredentialKey& key, const std::vector<uint8_t>& secret,
                      const std::vector<uint8_t>& object_name, std::vector<uint8_t>* out_blob,
                      std::vector<uint8_t>* out_secret) {
  const size_t digest_len = static_cast<size_t>(EVP_MD_get_size(key.name_md));
  if (secret.size() > digest_len) {
    return kTpmRcSize;
  }
  SecretBytes seed(digest_len);
  if (!Random_Crypto(seed.size(), seed.data()) || !EncryptSeed(key, seed, out_secret)) {
    return kTpmRcFailure;
  }

  TPM2B_DIGEST credential = {};
  credential.size = static_cast<uint16_t>(secret.size());
  std::memcpy(credential.buffer, secret.data(), secret.size());
  uint8_t plain[2 + kMaxDigestBytes];
  uint32_t plain_len = Tpm2_Marshal_TPM2B_DIGEST(&credential, plain, sizeof(plain));
  OPENSSL_cleanse(&credential, sizeof(credential));
  SecretBytes sym_key(key.sym_bytes);
  std::vector<uint8_t> enc_identity(plain_len);
  CipherCtxPtr cipher(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  const uint8_t zero_iv[16] = {};
  int out_len = 0;
  int final_len = 0;
  bool encrypted =
      plain_len != 0 && cipher != nullptr && KdfA(key.name_md, seed, kStorageLabel, object_name, &sym_key) &&
      EVP_EncryptInit_ex(cipher.get(), key.cipher, nullptr, sym_key.data(), zero_iv) == 1 &&
      EVP_EncryptUpdate(cipher.get(), enc_identity.data(), &out_len, plain, static_cast<int>(plain_len)) == 1 &&
      EVP_EncryptFinal_ex(cipher.get(), enc_identity.data() + out_len, &final_len) == 1 &&
      static_cast<size_t>(out_len + final_len) == plain_len;
  OPENSSL_cleanse(plain, sizeof(plain));
  if (!encrypted) {
    return kTpmRcFailure;
  }

  SecretBytes hmac_key(digest_len);
  std::vector<uint8_t> hmac_input(enc_identity);
  hmac_input.insert(hmac_input.end(), object_name.begin(), object_name.end());
  uint8_t hmac[EVP_MAX_MD_SIZE];
  size_t hmac_len = 0;
  if (!KdfA(key.name_md, seed, kIntegrityLabel, {}, &hmac_key) ||
      EVP_Q_mac(nullptr, OSSL_MAC_NAME_HMAC, nullptr, EVP_MD_get0_name(key.name_md), nullptr, hmac_key.data(),
                hmac_key.size(), hmac_input.data(), hmac_input.size(), hmac, sizeof(hmac), &hmac_len) == nullptr) {
    return kTpmRcFailure;
  }

  out_blob->clear();
  PutU16(out_blob, 2 + hmac_len + enc_identity.size());
  PutU16(out_blob, hmac_len);
  out_blob->insert(out_blob->end(), hmac, hmac + hmac_len);
  out_blob->insert(out_blob->end(), enc_identity.begin(), enc_identity.end());
  return kTpmRcSuccess;
}

}  // namespace

std::vector<uint8_t> AkTemplate() { return Fixed().ak_template; }
std::vector<uint8_t> OutsideInfo() { return Fixed().outside_info; }
std::vector<uint8_t> QuoteSigScheme() { return Fixed().sig_scheme; }
std::vector<uint8_t> RequiredPcrSelection() { return Fixed().pcr_selection; }
uint16_t PcrHashAlgorithm() { return kTpmAlgSha256; }

// An AK passes when it is the template's key and nothing else: an RSA-2048
// restricted signing key bound to its TPM, which signs only RSASSA/SHA-256
// and cannot decrypt, so a credential activated for it proves that the
// quotes it signs come from the EK's TPM.
bool VerifyAkPublic(const TPMT_PUBLIC& ak) {
  if (ak.type != kTpmAlgRsa) {
    Log_Level(kLogError, "AK public key basic type does not match\n");
    return false;
  }
  if (ak.nameAlg != kTpmAlgSha256) {
    Log_Level(kLogError, "AK public key nameAlg does not match\n");
    return false;
  }
  if (ak.objectAttributes != kAkObjectAttributes) {
    Log_Level(kLogError, "AK public key object attributes value does not match\n");
    return false;
  }
  // The exponent must be written out as 65537: a public area with 0 (the
  // TPM's encoding of the default) is refused on purpose.
  const TPMS_PUBLIC_PARMS& p = ak.parameters;
  if (p.symmetric.algorithm != kTpmAlgNull || p.scheme.scheme != kTpmAlgRsassa ||
      p.scheme.hashAlg != kTpmAlgSha256 || p.keyBits != kAkKeyBits || p.exponent != kAkExponent) {
    Log_Level(kLogError, "AK public key RSA details do not match\n");
    return false;
  }
  return true;
}

bool VerifyEkPublic(const TPMT_PUBLIC& ek) {
  if ((ek.objectAttributes & kEkAttributeMask) != kEkRequiredAttributes) {
    Log_Level(kLogError, "Unsupported EK public key object attributes\n");
    return false;
  }
  return true;
}

namespace {

// Make is MakeCredential with the EK read from |ek_public| when |prepared| is
// null, else |prepared|; the checks and their log lines come in one order.
bool Make(const std::vector<uint8_t>* ek_public, const CredentialKey* prepared, const std::vector<uint8_t>& ak_public,
          const std::vector<uint8_t>& secret, std::vector<uint8_t>* out_blob, std::vector<uint8_t>* out_secret) {
  TPM2B_PUBLIC ek = {};
  if (prepared == nullptr && UnmarshalPublic(*ek_public, &ek) == 0) {
    return false;
  }
  TPM2B_PUBLIC ak = {};
  uint32_t ak_len = UnmarshalPublic(ak_public, &ak);
  if (ak_len == 0) {
    return false;
  }
  std::vector<uint8_t> ak_name;
  if (!ObjectName(ak_public, ak_len, ak.publicArea.nameAlg, &ak_name)) {
    return false;
  }
  VERIFY(secret.size() <= kMaxSecretBytes);

  CredentialKey read;
  if (prepared == nullptr) {
    int rc = UseEk(ek.publicArea, &read);
    if (rc != kTpmRcSuccess) {
      Log_Level(kLogError, "Failed to load endorsement key: %d\n", rc);
      return false;
    }
  }
  const CredentialKey& key = prepared != nullptr ? *prepared : read;
  std::vector<uint8_t> blob;
  std::vector<uint8_t> encrypted_seed;
  int rc = ProtectCredential(key, secret, ak_name, &blob, &encrypted_seed);
  if (rc != kTpmRcSuccess) {
    // The text's spelling is kept as log searches depend on it.
    Log_Level(kLogError, "Failed to create secret symetric key using EK handle: %d\n", rc);
    return false;
  }
  // An EK larger than RSA-2048 does not fit the protocol's buffers; that is
  // the sender's key, so it is refused rather than treated as a fault here.
  if (blob.size() > kBlobRoom || encrypted_seed.size() > kSecretRoom) {
    Log_Level(kLogError, "Credential does not fit: blob %zu, secret %zu bytes\n", blob.size(),
              encrypted_seed.size());
    return false;
  }
  *out_blob = std::move(blob);
  *out_secret = std::move(encrypted_seed);
  return true;
}

}  // namespace

std::shared_ptr<const CredentialKey> PrepareCredentialKey(const std::vector<uint8_t>& ek_public) {
  TPM2B_PUBLIC ek = {};
  if (ek_public.size() > UINT32_MAX ||
      Tpm2_Unmarshal_TPM2B_PUBLIC(ek_public.data(), static_cast<uint32_t>(ek_public.size()), &ek) == 0) {
    return nullptr;
  }
  auto key = std::make_shared<CredentialKey>();
  return UseEk(ek.publicArea, key.get()) == kTpmRcSuccess ? key : nullptr;
}

bool MakeCredential(const std::vector<uint8_t>& ek_public, const std::vector<uint8_t>& ak_public,
                    const std::vector<uint8_t>& secret, std::vector<uint8_t>* out_blob,
                    std::vector<uint8_t>* out_secret) {
  return Make(&ek_public, nullptr, ak_public, secret, out_blob, out_secret);
}

bool MakeCredential(const CredentialKey& ek, const std::vector<uint8_t>& ak_public, const std::vector<uint8_t>& secret,
                    std::vector<uint8_t>* out_blob, std::vector<uint8_t>* out_secret) {
  return Make(nullptr, &ek, ak_public, secret, out_blob, out_secret);
}

}  // namespace Witnessd::Tpm2
