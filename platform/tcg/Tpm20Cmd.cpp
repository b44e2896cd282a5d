// The EK is written as PEM through a low-level RSA object: the provider
// import and encoder lookup of EVP_PKEY_fromdata and PEM_write_bio_PUBKEY
// cost twenty times as much for the same bytes, on every attestation.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "platform/tcg/Tpm20Cmd.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/rsa.h>
#include <tss2/tss2_mu.h>

#include <memory>

namespace Tpm20Cmd {
namespace {

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using RsaPtr = std::unique_ptr<RSA, Deleter<RSA, RSA_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

constexpr uint32_t kDefaultExponent = 65537;

}  // namespace

namespace {

// RsaOf is the RSA public key in |tpm2b_public|; null when it holds none.
RsaPtr RsaOf(const std::vector<uint8_t>& tpm2b_public) {
  TPM2B_PUBLIC pub = {};
  size_t offset = 0;
  if (Tss2_MU_TPM2B_PUBLIC_Unmarshal(tpm2b_public.data(), tpm2b_public.size(), &offset, &pub) != TSS2_RC_SUCCESS ||
      offset != tpm2b_public.size() || pub.publicArea.type != TPM2_ALG_RSA ||
      pub.publicArea.unique.rsa.size == 0) {
    return nullptr;
  }
  uint32_t exponent = pub.publicArea.parameters.rsaDetail.exponent;
  if (exponent == 0) {
    exponent = kDefaultExponent;
  }
  BnPtr n(BN_bin2bn(pub.publicArea.unique.rsa.buffer, pub.publicArea.unique.rsa.size, nullptr));
  BnPtr e(BN_new());
  RsaPtr rsa(RSA_new());
  if (n == nullptr || e == nullptr || rsa == nullptr || BN_set_word(e.get(), exponent) != 1 ||
      RSA_set0_key(rsa.get(), n.get(), e.get(), nullptr) != 1) {
    return nullptr;
  }
  n.release();  // owned by |rsa| now
  e.release();
  return rsa;
}

}  // namespace

std::optional<std::string> Tpm2PubSpkiDer(const std::vector<uint8_t>& tpm2b_public) {
  RsaPtr rsa = RsaOf(tpm2b_public);
  unsigned char* der = nullptr;
  int len = rsa == nullptr ? -1 : i2d_RSA_PUBKEY(rsa.get(), &der);
  if (len <= 0) {
    return std::nullopt;
  }
  std::string out(reinterpret_cast<const char*>(der), static_cast<size_t>(len));
  OPENSSL_free(der);
  return out;
}

bool ConvertTpm2PubtoPem(const std::vector<uint8_t>& tpm2b_public, std::string& out_pem) {
  RsaPtr rsa = RsaOf(tpm2b_public);
  if (rsa == nullptr) {
    return false;
  }
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (bio == nullptr || PEM_write_bio_RSA_PUBKEY(bio.get(), rsa.get()) != 1) {
    return false;
  }
  char* data = nullptr;
  long len = BIO_get_mem_data(bio.get(), &data);
  if (len <= 0 || data == nullptr) {
    return false;
  }
  out_pem.assign(data, static_cast<size_t>(len));
  return true;
}

}  // namespace Tpm20Cmd
