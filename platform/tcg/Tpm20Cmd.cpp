#include "platform/tcg/Tpm20Cmd.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <tss2/tss2_mu.h>

#include <memory>

namespace Tpm20Cmd {
namespace {

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using ParamPtr = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM, OSSL_PARAM_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

constexpr uint32_t kDefaultExponent = 65537;

}  // namespace

bool ConvertTpm2PubtoPem(const std::vector<uint8_t>& tpm2b_public, std::string& out_pem) {
  TPM2B_PUBLIC pub = {};
  size_t offset = 0;
  if (Tss2_MU_TPM2B_PUBLIC_Unmarshal(tpm2b_public.data(), tpm2b_public.size(), &offset, &pub) != TSS2_RC_SUCCESS ||
      offset != tpm2b_public.size() || pub.publicArea.type != TPM2_ALG_RSA ||
      pub.publicArea.unique.rsa.size == 0) {
    return false;
  }
  uint32_t exponent = pub.publicArea.parameters.rsaDetail.exponent;
  if (exponent == 0) {
    exponent = kDefaultExponent;
  }
  BnPtr n(BN_bin2bn(pub.publicArea.unique.rsa.buffer, pub.publicArea.unique.rsa.size, nullptr));
  BnPtr e(BN_new());
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (n == nullptr || e == nullptr || bld == nullptr || BN_set_word(e.get(), exponent) != 1 ||
      OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return false;
  }
  ParamPtr params(OSSL_PARAM_BLD_to_param(bld.get()));
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* raw_key = nullptr;
  if (params == nullptr || ctx == nullptr || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &raw_key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return false;
  }
  PkeyPtr key(raw_key);
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (bio == nullptr || PEM_write_bio_PUBKEY(bio.get(), key.get()) != 1) {
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
