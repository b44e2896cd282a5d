// The RSA key of a quote is built as a low-level RSA object, without the
// provider import that EVP_PKEY_fromdata runs, which costs as much as the
// verification itself; the event log replay hashes 64 bytes at a time with
// the low-level SHA-256, for which the EVP dispatch costs as much as the
// hashing.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "verify/CryptoUtil.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/Hex.h"
#include "platform/Log.h"
#include "platform/System.h"
#include "verify/Tpm2Marshal.h"

namespace Witnessd::Verify {
namespace {

struct MdCtxFree {
  void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
struct BnFree {
  void operator()(BIGNUM* b) const { BN_free(b); }
};
struct X509StackFree {
  void operator()(STACK_OF(X509) * s) const { sk_X509_free(s); }
};
struct CrlFree {
  void operator()(X509_CRL* c) const { X509_CRL_free(c); }
};
struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};

struct RsaFree {
  void operator()(RSA* r) const { RSA_free(r); }
};

// Digests fetched once: an implicit fetch on every hash costs more than
// hashing 64 bytes. Released at exit by OpenSSL's own cleanup.
struct FetchedMds {
  EVP_MD* sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  EVP_MD* sha384 = EVP_MD_fetch(nullptr, "SHA384", nullptr);
  EVP_MD* sha512 = EVP_MD_fetch(nullptr, "SHA512", nullptr);
  ~FetchedMds() {
    EVP_MD_free(sha1);
    EVP_MD_free(sha256);
    EVP_MD_free(sha384);
    EVP_MD_free(sha512);
  }
};

// Digest used to hash for a TPM algorithm; SM3_256 maps to SHA-256.
const EVP_MD* HashMd(uint16_t alg) {
  static const FetchedMds mds;
  switch (alg) {
    case kTpmAlgSha1: return mds.sha1;
    case kTpmAlgSha256: return mds.sha256;
    case kTpmAlgSha384: return mds.sha384;
    case kTpmAlgSha512: return mds.sha512;
    case kTpmAlgSm3_256: return mds.sha256;
    default: return nullptr;
  }
}

// Digest type named in an RSA signature; SM3_256 has none.
int RsaDigestNid(uint16_t alg) {
  switch (alg) {
    case kTpmAlgSha1: return NID_sha1;
    case kTpmAlgSha256: return NID_sha256;
    case kTpmAlgSha384: return NID_sha384;
    case kTpmAlgSha512: return NID_sha512;
    default: return NID_undef;
  }
}

// Empties the OpenSSL error queue. Checking first is much cheaper than the
// unconditional clear, and this runs once per replayed event.
void ClearSslErrors() {
  if (ERR_peek_error() != 0) {
    ERR_clear_error();
  }
}

}  // namespace

void ReportSslError(const char* what) {
  unsigned long code = ERR_get_error();
  char text[256];
  ERR_error_string_n(code, text, sizeof(text));
  Warning("TPM2VLIB: %s; ssl e: %lu(%s)", what, code, text);
}

uint16_t HashDigestSize(uint16_t alg) {
  switch (alg) {
    case kTpmAlgSha1: return 20;
    case kTpmAlgSha256: return 32;
    case kTpmAlgSha384: return 48;
    case kTpmAlgSha512: return 64;
    case kTpmAlgSm3_256: return 32;
    default:
      Warning("TPM2VLIB: Invalid hash algorithm; %u", alg);
      return 0;
  }
}

uint32_t PcrBankIndex(uint16_t alg) {
  switch (alg) {
    case kTpmAlgSha1: return 0;
    case kTpmAlgSha256: return 1;
    case kTpmAlgSha384: return 2;
    case kTpmAlgSha512: return 3;
    case kTpmAlgSm3_256: return 4;
    default: return kNumPcrBanks;
  }
}

bool IsPcrSelected(const uint8_t* select, uint32_t index) {
  return (select[index / 8] >> (index % 8)) & 1;
}

bool HashBuffer(uint8_t* out, uint16_t alg, const uint8_t* data, uint16_t len) {
  ClearSslErrors();
  // One context per thread, reset by each init.
  thread_local std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  if (!ctx) {
    ReportSslError("Failed to hash");
    return false;
  }
  const EVP_MD* md = HashMd(alg);
  if (md == nullptr) {
    Warning("TPM2VLIB: Failed to hash due to unexpected algorithm; %u", alg);
    return false;
  }
  unsigned int out_len = 0;
  if (EVP_DigestInit_ex2(ctx.get(), md, nullptr) != 1 || EVP_DigestUpdate(ctx.get(), data, len) != 1 ||
      EVP_DigestFinal_ex(ctx.get(), out, &out_len) != 1) {
    ReportSslError("Failed to hash");
    return false;
  }
  return true;
}

namespace {

// Recently used quote keys, by modulus. Building a key is cheap; setting up
// its Montgomery form costs about a sixth of a verification and is kept in
// the RSA object, so a host that attests again with the same AK does not
// pay it twice. Held RSA objects are only read (their Montgomery form is set
// under the object's own lock), so a verification runs outside the cache
// lock. The cache lock is a leaf.
class RsaKeyCache {
 public:
  static constexpr size_t kSlots = 64;

  // Returns a reference the caller frees, or nullptr on allocation failure.
  RSA* Get(const uint8_t* modulus, size_t modulus_len) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (Slot& slot : slots_) {
        if (slot.rsa != nullptr && slot.modulus.size() == modulus_len &&
            std::memcmp(slot.modulus.data(), modulus, modulus_len) == 0) {
          RSA_up_ref(slot.rsa);
          return slot.rsa;
        }
      }
    }
    static constexpr uint8_t kExponent[] = {0x01, 0x00, 0x01};
    std::unique_ptr<RSA, RsaFree> rsa(RSA_new());
    std::unique_ptr<BIGNUM, BnFree> n(BN_bin2bn(modulus, static_cast<int>(modulus_len), nullptr));
    std::unique_ptr<BIGNUM, BnFree> e(BN_bin2bn(kExponent, sizeof(kExponent), nullptr));
    if (!rsa || !n || !e || RSA_set0_key(rsa.get(), n.get(), e.get(), nullptr) != 1) {
      return nullptr;
    }
    n.release();  // owned by |rsa| now
    e.release();
    std::lock_guard<std::mutex> lock(mutex_);
    Slot& slot = slots_[next_];
    next_ = (next_ + 1) % kSlots;
    RSA_free(slot.rsa);
    slot.modulus.assign(modulus, modulus + modulus_len);
    slot.rsa = rsa.get();
    RSA_up_ref(slot.rsa);
    return rsa.release();
  }

 private:
  struct Slot {
    std::vector<uint8_t> modulus;
    RSA* rsa = nullptr;
  };
  std::mutex mutex_;
  std::array<Slot, kSlots> slots_;
  size_t next_ = 0;
};

}  // namespace

bool VerifyRsaSignature(const uint8_t* digest, size_t digest_len, uint16_t alg, const uint8_t* modulus,
                        size_t modulus_len, const uint8_t* sig, size_t sig_len) {
  // Never destroyed: verifications may run on other threads during exit.
  static RsaKeyCache* keys = new RsaKeyCache();
  ClearSslErrors();
  int nid = RsaDigestNid(alg);
  if (nid == NID_undef) {
    Warning("TPM2VLIB: Failed to validate signature due to unexpected algorithm; %u", alg);
    return false;
  }
  if (modulus_len > INT32_MAX || sig_len > UINT32_MAX || digest_len > UINT32_MAX) {
    Warning("TPM2VLIB: Failed to validate signature; input too large");
    return false;
  }
  std::unique_ptr<RSA, RsaFree> rsa(keys->Get(modulus, modulus_len));
  if (!rsa) {
    ReportSslError("Failed to validate signature");
    return false;
  }
  if (RSA_verify(nid, digest, static_cast<unsigned int>(digest_len), sig, static_cast<unsigned int>(sig_len),
                 rsa.get()) != 1) {
    ReportSslError("Failed to validate signature");
    return false;
  }
  return true;
}

void Sha256Extend(uint8_t* pcr, const uint8_t* digest) {
  SHA256_CTX ctx;
  SHA256_Init(&ctx);
  SHA256_Update(&ctx, pcr, 32);
  SHA256_Update(&ctx, digest, 32);
  SHA256_Final(pcr, &ctx);
}

void HexDump(const char* label, const void* data, size_t len) {
  if (!Log_IsEnabled(kLogInfo)) {
    return;
  }
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  for (size_t line = 0; line < len; line += 16) {
    char text[16 * 3 + 1];
    size_t n = len - line < 16 ? len - line : 16;
    for (size_t i = 0; i < n; ++i) {
      Hearth::HexEncode(bytes + line + i, 1, text + 3 * i);
      text[3 * i + 2] = ' ';
    }
    text[3 * n] = '\0';
    Log_Level(kLogInfo, "TPM2VLIB: %s %s\n", label, text);
  }
}

X509StorePtr LoadPemCertStore(const uint8_t* pem, size_t len) {
  BioPtr bio = OpenMemoryReader(pem, len);
  X509StorePtr store(X509_STORE_new());
  if (!bio || !store) {
    return nullptr;
  }
  int added = 0;
  for (;;) {
    std::unique_ptr<X509, X509Free> cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!cert) {
      break;
    }
    if (X509_STORE_add_cert(store.get(), cert.get()) != 1) {
      return nullptr;
    }
    ++added;
  }
  ERR_clear_error();  // the read loop always ends on an error
  return added > 0 ? std::move(store) : nullptr;
}

BioPtr OpenMemoryReader(const uint8_t* data, size_t len) {
  if (len > 0x7fffffff) {
    return nullptr;
  }
  return BioPtr(BIO_new_mem_buf(data, static_cast<int>(len)));
}

bool ReadNextPkcs7(BIO* reader, Pkcs7Ptr* out) {
  PKCS7* p7 = PEM_read_bio_PKCS7(reader, nullptr, nullptr, nullptr);
  if (p7 == nullptr) {
    ReportSslError("Failed to read signature");
    return false;
  }
  out->reset(p7);
  return true;
}

namespace {

// Decides which chain errors a package signature survives. Certificates
// and CRLs outside their validity period, a missing CRL and extension
// quirks pass; unknown issuers, bad signatures, self-signed certificates,
// revoked and untrusted certificates do not.
int HvkSignVerifyCallback(int ok, X509_STORE_CTX* ctx) {
  int error = X509_STORE_CTX_get_error(ctx);
  if (!ok) {
    X509_STORE_CTX_set_error(ctx, X509_STORE_CTX_get_error_depth(ctx) < 5 ? X509_V_OK
                                                                          : X509_V_ERR_CERT_CHAIN_TOO_LONG);
  }
  switch (error) {
    case 0: case 1:
      return 1;
    case 2: case 4: case 5: case 6: case 7: case 8: case 17: case 18: case 19: case 20: case 21:
    case 23: case 27: case 28:
      return 0;
    case 3: case 9: case 10: case 11: case 12: case 13: case 14: case 15: case 16: case 22: case 24:
    case 25: case 26:
      return 1;
    default:
      return error == 79 ? 0 : 1;
  }
}

// A store from a PEM file, plus the default hashed directory when the file
// loaded. A file that does not load leaves the store empty, not absent.
X509StorePtr LoadStoreFile(const std::string& path) {
  X509StorePtr store(X509_STORE_new());
  if (!store) {
    return nullptr;
  }
  X509_LOOKUP* file = X509_STORE_add_lookup(store.get(), X509_LOOKUP_file());
  if (file != nullptr && X509_LOOKUP_load_file(file, path.c_str(), X509_FILETYPE_PEM) == 1) {
    X509_LOOKUP* dir = X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir());
    if (dir != nullptr) {
      X509_LOOKUP_add_dir(dir, nullptr, X509_FILETYPE_DEFAULT);
    }
  }
  ERR_clear_error();
  return store;
}

// Adds every CRL of |path| to |store| and turns on revocation checking. A
// file that cannot be opened means no revocation checking; returns false
// with |out_error| set when the file is unusable.
bool HvkSignLoadCrl(X509_STORE* store, const std::string& path, std::string* out_error) {
  FILE* fp = std::fopen(path.c_str(), "r");
  if (fp == nullptr) {
    return true;
  }
  BioPtr bio(BIO_new_fp(fp, BIO_CLOSE));
  if (!bio) {
    std::fclose(fp);
    *out_error = "error creating bio in HvkSignLoadCrl\n";
    return false;
  }
  ERR_clear_error();
  for (;;) {
    std::unique_ptr<X509_CRL, CrlFree> crl(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
    if (!crl) {
      break;
    }
    if (X509_STORE_add_crl(store, crl.get()) != 1) {
      *out_error = "unable to add CRL\n";
      return false;
    }
  }
  // The file must end cleanly: no further PEM block at all.
  unsigned long last = ERR_peek_last_error();
  if (ERR_GET_LIB(last) != ERR_LIB_PEM || ERR_GET_REASON(last) != PEM_R_NO_START_LINE) {
    *out_error = "CRL appears to be corrupted\n";
    return false;
  }
  ERR_clear_error();
  X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL | X509_V_FLAG_POLICY_CHECK);
  return true;
}

// Copies the printed subject organization of |cert|, at most 32 bytes.
std::string SubjectOrganization(X509* cert) {
  X509_NAME* name = X509_get_subject_name(cert);
  int index = X509_NAME_get_index_by_NID(name, NID_organizationName, -1);
  if (index < 0) {
    return {};
  }
  ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
  BioPtr out(BIO_new(BIO_s_mem()));
  if (!out || ASN1_STRING_print(out.get(), data) != 1) {
    return {};
  }
  char* text = nullptr;
  long text_len = BIO_get_mem_data(out.get(), &text);
  return std::string(text, text_len > 32 ? 32 : static_cast<size_t>(text_len));
}

}  // namespace

std::unique_ptr<HvkSignResult> HvkSignCheck(PKCS7* p7, BIO* content, const char* cert_path,
                                            X509_STORE* maker_store, size_t* out_content_len) {
  auto result = std::make_unique<HvkSignResult>();
  *out_content_len = 0;

  X509StorePtr own_maker;
  X509_STORE* maker = maker_store;
  if (maker == nullptr) {
    own_maker = LoadStoreFile(Hearth::SysrootPath(cert_path != nullptr ? cert_path : kMakerCertPath));
    maker = own_maker.get();
  }
  X509StorePtr partner = LoadStoreFile(Hearth::SysrootPath(kPartnerCertPath));
  if (maker == nullptr || !partner) {
    result->error = "out of memory";
    return result;
  }
  if (!HvkSignLoadCrl(maker, Hearth::SysrootPath(kMakerCrlPath), &result->error) ||
      !HvkSignLoadCrl(partner.get(), Hearth::SysrootPath(kPartnerCrlPath), &result->error)) {
    return result;
  }
  X509_STORE_set_verify_cb(maker, HvkSignVerifyCallback);
  X509_STORE_set_verify_cb(partner.get(), HvkSignVerifyCallback);

  // A signature naming a digest this library does not know cannot verify;
  // refuse it before PKCS7_verify, whose set-up leaks on that error path.
  if (!PKCS7_type_is_signed(p7) || p7->d.sign == nullptr) {
    return result;
  }
  for (int i = 0; i < sk_X509_ALGOR_num(p7->d.sign->md_algs); ++i) {
    const X509_ALGOR* alg = sk_X509_ALGOR_value(p7->d.sign->md_algs, i);
    if (alg == nullptr || EVP_get_digestbyobj(alg->algorithm) == nullptr) {
      return result;
    }
  }

  // Each signer in turn, its certificate as the only extra one: maker
  // chain, then partner chain, then the signature alone.
  STACK_OF(X509)* signers_raw = PKCS7_get0_signers(p7, nullptr, 0);
  std::unique_ptr<STACK_OF(X509), X509StackFree> signers(signers_raw);
  ERR_clear_error();
  BioPtr verified;
  X509* verified_signer = nullptr;
  for (int i = 0; signers && i < sk_X509_num(signers.get()) && verified_signer == nullptr; ++i) {
    X509* signer = sk_X509_value(signers.get(), i);
    std::unique_ptr<STACK_OF(X509), X509StackFree> extra(sk_X509_new_null());
    if (!extra || sk_X509_push(extra.get(), signer) <= 0) {
      result->error = "out of memory";
      return result;
    }
    const struct {
      X509_STORE* store;
      int flags;
      uint32_t status;
    } kAttempts[] = {
        {maker, PKCS7_BINARY, kHvkSignMaker},
        {partner.get(), PKCS7_BINARY, kHvkSignPartner},
        {nullptr, PKCS7_BINARY | PKCS7_NOVERIFY, kHvkSignNotVerified},
    };
    for (const auto& attempt : kAttempts) {
      BioPtr out(BIO_new(BIO_s_mem()));
      BIO_reset(content);
      if (out && PKCS7_verify(p7, extra.get(), attempt.store, content, out.get(), attempt.flags) == 1) {
        result->status = attempt.status;
        verified = std::move(out);
        verified_signer = signer;
        break;
      }
      ERR_clear_error();
    }
  }
  if (verified) {
    char* data = nullptr;
    long data_len = BIO_get_mem_data(verified.get(), &data);
    if (data_len > 0) {
      *out_content_len = static_cast<size_t>(data_len);
      result->content_len = data_len > 32 ? 32 : static_cast<size_t>(data_len);
      std::memcpy(result->content, data, result->content_len);
      result->organization = SubjectOrganization(verified_signer);
    }
  }
  return result;
}

bool HvkSignVerify(PKCS7* p7, const uint8_t* content, size_t content_len, const char* cert_path,
                   X509_STORE* maker_store, std::string* out_error) {
  if (content_len == 0) {
    *out_error = "Data buffer too small.";
    return false;
  }
  BioPtr reader = OpenMemoryReader(content, content_len);
  if (!reader) {
    const char* reason = ERR_reason_error_string(ERR_peek_last_error());
    *out_error = reason != nullptr ? reason : "unable to open content";
    return false;
  }
  size_t verified_len = 0;
  std::unique_ptr<HvkSignResult> result = HvkSignCheck(p7, reader.get(), cert_path, maker_store, &verified_len);
  if (!result->error.empty()) {
    *out_error = result->error;
    return false;
  }
  return result->status == kHvkSignMaker;
}

}  // namespace Witnessd::Verify
