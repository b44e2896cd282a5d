#include "tools/TpmBytes.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <tss2/tss2_mu.h>

#include <cstring>
#include <memory>

#include "platform/Hex.h"
#include "platform/tcg/Tpm20Cmd.h"

namespace Witnessd::Agent {
namespace {

// Policy digest of PolicySecret(TPM_RH_ENDORSEMENT): the TCG EK's authPolicy.
constexpr uint8_t kEkPolicy[32] = {0x83, 0x71, 0x97, 0x67, 0x44, 0x84, 0xb3, 0xf8, 0x1a, 0x90, 0xcc,
                                   0x8d, 0x46, 0xa5, 0xd7, 0x24, 0xfd, 0x52, 0xd7, 0x6e, 0x06, 0x52,
                                   0x0b, 0x64, 0xf2, 0xa1, 0xda, 0x1b, 0x33, 0x14, 0x69, 0xaa};

std::string BioText(BIO* bio) {
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<size_t>(len));
}

}  // namespace

TPM2B_PUBLIC EkTemplate() {
  TPM2B_PUBLIC t = {};
  t.publicArea.type = TPM2_ALG_RSA;
  t.publicArea.nameAlg = TPM2_ALG_SHA256;
  t.publicArea.objectAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT | TPMA_OBJECT_SENSITIVEDATAORIGIN |
                                  TPMA_OBJECT_ADMINWITHPOLICY | TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT;
  t.publicArea.authPolicy.size = sizeof(kEkPolicy);
  std::memcpy(t.publicArea.authPolicy.buffer, kEkPolicy, sizeof(kEkPolicy));
  TPMS_RSA_PARMS& rsa = t.publicArea.parameters.rsaDetail;
  rsa.symmetric.algorithm = TPM2_ALG_AES;
  rsa.symmetric.keyBits.aes = 128;
  rsa.symmetric.mode.aes = TPM2_ALG_CFB;
  rsa.scheme.scheme = TPM2_ALG_NULL;
  rsa.keyBits = 2048;
  rsa.exponent = 0;
  t.publicArea.unique.rsa.size = 256;
  return t;
}

Bytes Sha256(const Bytes& data) {
  Bytes out(32);
  unsigned int len = 0;
  EVP_Digest(data.data(), data.size(), out.data(), &len, EVP_sha256(), nullptr);
  return out;
}

Bytes Sha256(const std::string& text) { return Sha256(Bytes(text.begin(), text.end())); }

std::string Hex(const Bytes& data) { return Hearth::HexString(data.data(), data.size()); }

bool CertificatePem(X509* cert, std::string* out) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  if (cert == nullptr || bio == nullptr || PEM_write_bio_X509(bio.get(), cert) != 1) {
    return false;
  }
  *out = BioText(bio.get());
  return true;
}

bool DerCertificateToPem(const Bytes& der, std::string* out) {
  const unsigned char* p = der.data();
  std::unique_ptr<X509, decltype(&X509_free)> cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())), X509_free);
  return CertificatePem(cert.get(), out);
}

bool EkPublicPem(const Bytes& tpm2b_public, std::string* out) {
  return Tpm20Cmd::ConvertTpm2PubtoPem(tpm2b_public, *out);
}

}  // namespace Witnessd::Agent
