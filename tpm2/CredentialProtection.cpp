#include "tpm2/CredentialProtection.h"

#include <openssl/evp.h>

#include <cstring>
#include <mutex>
#include <utility>

#include "platform/Assert.h"
#include "platform/Log.h"
#include "platform/MXUser.h"
#include "tpm2/Tpm2Emu.h"

namespace Witnessd::Tpm2 {
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
// The codec reports no reason for a failure; TPM_RC_INSUFFICIENT is what a
// TPM answers for a public area that does not parse.
constexpr int kTpmRcInsufficient = 0x9A;
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

bool MakeCredential(const std::vector<uint8_t>& ek_public, const std::vector<uint8_t>& ak_public,
                    const std::vector<uint8_t>& secret, std::vector<uint8_t>* out_blob,
                    std::vector<uint8_t>* out_secret) {
  TPM2B_PUBLIC ek = {};
  uint32_t ek_len = UnmarshalPublic(ek_public, &ek);
  if (ek_len == 0) {
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

  Tpm2Emu& emu = Tpm2Emu::Get();
  MXUser::ExclGuard guard(emu.Lock());
  uint32_t handle = 0;
  uint32_t rc = emu.LoadExternalPublic(ek_public.data(), ek_len, &handle);
  if (rc != kTpmRcSuccess) {
    Log_Level(kLogError, "Failed to load endorsement key: %d\n", static_cast<int>(rc));
    return false;
  }
  // The emulator draws the seed, encrypts it to the EK (RSA-OAEP with label
  // "IDENTITY", or ECDH for an ECC EK), derives the symmetric and HMAC keys
  // from it with the AK's Name and wraps the secret.
  std::vector<uint8_t> blob;
  std::vector<uint8_t> encrypted_seed;
  rc = emu.MakeCredential(handle, secret, ak_name, &blob, &encrypted_seed);
  emu.FlushContext(handle);
  if (rc != kTpmRcSuccess) {
    // The text's spelling is kept as log searches depend on it.
    Log_Level(kLogError, "Failed to create secret symetric key using EK handle: %d\n", static_cast<int>(rc));
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

}  // namespace Witnessd::Tpm2
