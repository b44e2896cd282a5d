// HostTpm done in software for load tests: OpenSSL keys stand in for the EK
// and AK, credential activation and quotes follow the TPM 2.0 algorithms, and
// the PCRs are a table in memory.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <tss2/tss2_mu.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "tools/HostTpm.h"
#include "tools/TpmBytes.h"

namespace Witnessd::Agent {
namespace {

using PkeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

constexpr size_t kDigestBytes = 32;
constexpr size_t kMaxPcrsPerRead = 8;

void PutU32(Bytes* out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out->push_back(static_cast<uint8_t>(v >> shift));
  }
}

// KDFa with HMAC-SHA-256 (counter mode): the label is used with its
// terminating zero byte.
Bytes KdfA(const Bytes& key, const char* label, const Bytes& context_u, const Bytes& context_v, uint32_t bits) {
  Bytes out;
  size_t want = (bits + 7) / 8;
  for (uint32_t counter = 1; out.size() < want; ++counter) {
    Bytes msg;
    PutU32(&msg, counter);
    msg.insert(msg.end(), label, label + std::strlen(label) + 1);
    msg.insert(msg.end(), context_u.begin(), context_u.end());
    msg.insert(msg.end(), context_v.begin(), context_v.end());
    PutU32(&msg, bits);
    uint8_t mac[EVP_MAX_MD_SIZE];
    unsigned int mac_len = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), msg.data(), msg.size(), mac, &mac_len);
    out.insert(out.end(), mac, mac + mac_len);
  }
  out.resize(want);
  return out;
}

bool RsaModulus(EVP_PKEY* key, TPM2B_PUBLIC_KEY_RSA* out) {
  BIGNUM* n = nullptr;
  if (EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &n) != 1) {
    return false;
  }
  int len = BN_num_bytes(n);
  bool ok = len > 0 && static_cast<size_t>(len) <= sizeof(out->buffer) &&
            BN_bn2binpad(n, out->buffer, len) == len;
  out->size = static_cast<uint16_t>(len);
  BN_free(n);
  return ok;
}

class SoftwareHost : public HostTpm {
 public:
  explicit SoftwareHost(bool reuse_ak)
      : reuse_ak_(reuse_ak), ek_(EVP_RSA_gen(2048), EVP_PKEY_free), ak_(nullptr, EVP_PKEY_free) {
    Boot();
  }

  // IssueEkCertificate has |issuer| certify the EK; false when the issuer's
  // PEM does not parse or signing fails.
  bool IssueEkCertificate(const EkIssuer& issuer) {
    using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
    using X509Ptr = std::unique_ptr<X509, decltype(&X509_free)>;
    BioPtr key_bio(BIO_new_mem_buf(issuer.key_pem.data(), static_cast<int>(issuer.key_pem.size())), BIO_free);
    BioPtr cert_bio(BIO_new_mem_buf(issuer.certificate_pem.data(), static_cast<int>(issuer.certificate_pem.size())),
                    BIO_free);
    if (key_bio == nullptr || cert_bio == nullptr || ek_ == nullptr) {
      return false;
    }
    PkeyPtr ca_key(PEM_read_bio_PrivateKey(key_bio.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    X509Ptr ca_cert(PEM_read_bio_X509(cert_bio.get(), nullptr, nullptr, nullptr), X509_free);
    X509Ptr cert(X509_new(), X509_free);
    if (ca_key == nullptr || ca_cert == nullptr || cert == nullptr) {
      return false;
    }
    uint8_t serial[16];
    std::unique_ptr<BIGNUM, decltype(&BN_free)> serial_bn(nullptr, BN_free);
    if (RAND_bytes(serial, sizeof(serial)) != 1) {
      return false;
    }
    serial[0] &= 0x7F;  // a positive serial number
    serial_bn.reset(BN_bin2bn(serial, sizeof(serial), nullptr));
    X509_NAME* subject = X509_get_subject_name(cert.get());
    bool ok = serial_bn != nullptr && X509_set_version(cert.get(), X509_VERSION_3) == 1 &&
              BN_to_ASN1_INTEGER(serial_bn.get(), X509_get_serialNumber(cert.get())) != nullptr &&
              X509_set_issuer_name(cert.get(), X509_get_subject_name(ca_cert.get())) == 1 &&
              X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                         reinterpret_cast<const unsigned char*>("software host EK"), -1, -1, 0) == 1 &&
              X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(cert.get()), 365L * 24 * 3600) != nullptr &&
              X509_set_pubkey(cert.get(), ek_.get()) == 1 && X509_sign(cert.get(), ca_key.get(), EVP_sha256()) > 0;
    BioPtr out(BIO_new(BIO_s_mem()), BIO_free);
    if (!ok || out == nullptr || PEM_write_bio_X509(out.get(), cert.get()) != 1) {
      return false;
    }
    char* text = nullptr;
    long text_len = BIO_get_mem_data(out.get(), &text);
    ek_certificate_pem_.assign(text, static_cast<size_t>(text_len));
    return true;
  }

  bool Boot() override {
    for (size_t i = 0; i < pcrs_.size(); ++i) {
      // The dynamic launch PCRs hold all ones until a launch resets them.
      pcrs_[i].assign(kDigestBytes, i >= 17 && i <= 22 ? 0xFF : 0x00);
    }
    return true;
  }

  bool DynamicLaunch(const Bytes& data) override {
    for (size_t i = 17; i <= 22; ++i) {
      pcrs_[i].assign(kDigestBytes, 0);
    }
    return Extend(17, Sha256(data));
  }

  bool Extend(uint32_t pcr, const Bytes& digest) override {
    if (pcr >= pcrs_.size() || digest.size() != kDigestBytes) {
      return Fail("bad extend request");
    }
    Bytes msg = pcrs_[pcr];
    msg.insert(msg.end(), digest.begin(), digest.end());
    pcrs_[pcr] = Sha256(msg);
    return true;
  }

  bool EkPublic(Bytes* out) override {
    if (ek_ == nullptr) {
      return Fail("EK generation failed");
    }
    TPM2B_PUBLIC pub = EkTemplate();
    if (!RsaModulus(ek_.get(), &pub.publicArea.unique.rsa)) {
      return Fail("cannot read the EK modulus");
    }
    return Marshal(Tss2_MU_TPM2B_PUBLIC_Marshal, pub, out);
  }

  bool EkCertificatePem(std::string* out) override {
    if (ek_certificate_pem_.empty()) {
      return Fail("this software host has no EK certificate");
    }
    *out = ek_certificate_pem_;
    return true;
  }

  bool CreateAk(const Bytes& ak_template, const Bytes& outside_info, Bytes* out) override {
    TPM2B_PUBLIC pub = {};
    if (!Unmarshal(Tss2_MU_TPM2B_PUBLIC_Unmarshal, ak_template, &pub) || pub.publicArea.type != TPM2_ALG_RSA) {
      return Fail("cannot unmarshal the AK template");
    }
    if (!reuse_ak_ || ak_ == nullptr || EVP_PKEY_get_bits(ak_.get()) != pub.publicArea.parameters.rsaDetail.keyBits) {
      ak_.reset(EVP_RSA_gen(pub.publicArea.parameters.rsaDetail.keyBits));
    }
    if (ak_ == nullptr || !RsaModulus(ak_.get(), &pub.publicArea.unique.rsa)) {
      return Fail("AK generation failed");
    }
    Bytes area;
    if (!Marshal(Tss2_MU_TPMT_PUBLIC_Marshal, pub.publicArea, &area)) {
      return false;
    }
    ak_name_ = {0x00, 0x0B};
    Bytes digest = Sha256(area);
    ak_name_.insert(ak_name_.end(), digest.begin(), digest.end());
    return Marshal(Tss2_MU_TPM2B_PUBLIC_Marshal, pub, out);
  }

  bool ActivateCredential(const Bytes& credential_blob, const Bytes& encrypted_secret,
                          Bytes* out_cert_info) override {
    TPM2B_ID_OBJECT blob = {};
    TPM2B_ENCRYPTED_SECRET secret = {};
    if (!Unmarshal(Tss2_MU_TPM2B_ID_OBJECT_Unmarshal, credential_blob, &blob) ||
        !Unmarshal(Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal, encrypted_secret, &secret)) {
      return Fail("cannot unmarshal the credential");
    }
    if (ak_ == nullptr) {
      return Fail("no AK loaded");
    }
    Bytes seed;
    if (!DecryptSeed(secret, &seed)) {
      return Fail("seed decryption failed");
    }
    // ID object: integrityHMAC (TPM2B_DIGEST), then encIdentity.
    TPM2B_DIGEST integrity = {};
    size_t offset = 0;
    if (Tss2_MU_TPM2B_DIGEST_Unmarshal(blob.credential, blob.size, &offset, &integrity) != TSS2_RC_SUCCESS) {
      return Fail("bad ID object");
    }
    Bytes enc_identity(blob.credential + offset, blob.credential + blob.size);
    Bytes hmac_key = KdfA(seed, "INTEGRITY", {}, {}, 8 * kDigestBytes);
    Bytes hmac_input = enc_identity;
    hmac_input.insert(hmac_input.end(), ak_name_.begin(), ak_name_.end());
    uint8_t mac[EVP_MAX_MD_SIZE];
    unsigned int mac_len = 0;
    HMAC(EVP_sha256(), hmac_key.data(), static_cast<int>(hmac_key.size()), hmac_input.data(), hmac_input.size(), mac,
         &mac_len);
    if (mac_len != integrity.size || CRYPTO_memcmp(mac, integrity.buffer, mac_len) != 0) {
      return Fail("credential integrity check failed");
    }
    Bytes key = KdfA(seed, "STORAGE", ak_name_, {}, 128);
    Bytes plain(enc_identity.size());
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    uint8_t iv[16] = {};
    int len = 0;
    if (ctx == nullptr || EVP_DecryptInit_ex(ctx.get(), EVP_aes_128_cfb(), nullptr, key.data(), iv) != 1 ||
        EVP_DecryptUpdate(ctx.get(), plain.data(), &len, enc_identity.data(), static_cast<int>(enc_identity.size())) !=
            1) {
      return Fail("credential decryption failed");
    }
    TPM2B_DIGEST credential = {};
    offset = 0;
    if (Tss2_MU_TPM2B_DIGEST_Unmarshal(plain.data(), plain.size(), &offset, &credential) != TSS2_RC_SUCCESS ||
        offset != plain.size()) {
      return Fail("bad decrypted credential");
    }
    *out_cert_info = plain;
    return true;
  }

  bool ReadPcrs(const Bytes& selection, std::vector<PcrReadResult>* out) override {
    TPML_PCR_SELECTION want = {};
    if (!Unmarshal(Tss2_MU_TPML_PCR_SELECTION_Unmarshal, selection, &want)) {
      return Fail("cannot unmarshal the PCR selection");
    }
    out->clear();
    for (uint32_t i = 0; i < want.count; ++i) {
      const TPMS_PCR_SELECTION& s = want.pcrSelections[i];
      if (s.hash != TPM2_ALG_SHA256) {
        return Fail("only the SHA-256 bank exists");
      }
      TPML_PCR_SELECTION got = {};
      TPML_DIGEST values = {};
      auto flush = [&]() {
        if (values.count == 0) {
          return true;
        }
        PcrReadResult r;
        bool ok = Marshal(Tss2_MU_TPML_PCR_SELECTION_Marshal, got, &r.selection_out) &&
                  Marshal(Tss2_MU_TPML_DIGEST_Marshal, values, &r.values);
        out->push_back(std::move(r));
        got = {};
        values = {};
        return ok;
      };
      for (uint32_t pcr = 0; pcr < 8u * s.sizeofSelect && pcr < pcrs_.size(); ++pcr) {
        if ((s.pcrSelect[pcr / 8] & (1u << (pcr % 8))) == 0) {
          continue;
        }
        got.count = 1;
        got.pcrSelections[0].hash = s.hash;
        got.pcrSelections[0].sizeofSelect = s.sizeofSelect;
        got.pcrSelections[0].pcrSelect[pcr / 8] |= static_cast<uint8_t>(1u << (pcr % 8));
        values.digests[values.count].size = kDigestBytes;
        std::memcpy(values.digests[values.count].buffer, pcrs_[pcr].data(), kDigestBytes);
        if (++values.count == kMaxPcrsPerRead && !flush()) {
          return false;
        }
      }
      if (!flush()) {
        return false;
      }
    }
    return true;
  }

  bool Quote(const Bytes& qualifying_data, const Bytes& sig_scheme, const Bytes& selection, Bytes* out_quoted,
             Bytes* out_signature) override {
    TPM2B_DATA nonce = {};
    TPMT_SIG_SCHEME scheme = {};
    TPML_PCR_SELECTION pcrs = {};
    if (!Unmarshal(Tss2_MU_TPM2B_DATA_Unmarshal, qualifying_data, &nonce) ||
        !Unmarshal(Tss2_MU_TPMT_SIG_SCHEME_Unmarshal, sig_scheme, &scheme) ||
        !Unmarshal(Tss2_MU_TPML_PCR_SELECTION_Unmarshal, selection, &pcrs)) {
      return Fail("cannot unmarshal the quote request");
    }
    if (ak_ == nullptr || scheme.scheme != TPM2_ALG_RSASSA || scheme.details.rsassa.hashAlg != TPM2_ALG_SHA256) {
      return Fail("unsupported quote request");
    }
    TPMS_ATTEST attest = {};
    attest.magic = TPM2_GENERATED_VALUE;
    attest.type = TPM2_ST_ATTEST_QUOTE;
    attest.qualifiedSigner.size = static_cast<uint16_t>(ak_name_.size());
    std::memcpy(attest.qualifiedSigner.name, ak_name_.data(), ak_name_.size());
    attest.extraData = nonce;
    attest.clockInfo.clock = ++clock_;
    attest.clockInfo.safe = 1;
    attest.attested.quote.pcrSelect = pcrs;
    Bytes concat;
    for (uint32_t i = 0; i < pcrs.count; ++i) {
      const TPMS_PCR_SELECTION& s = pcrs.pcrSelections[i];
      for (uint32_t pcr = 0; pcr < 8u * s.sizeofSelect && pcr < pcrs_.size(); ++pcr) {
        if (s.pcrSelect[pcr / 8] & (1u << (pcr % 8))) {
          concat.insert(concat.end(), pcrs_[pcr].begin(), pcrs_[pcr].end());
        }
      }
    }
    Bytes pcr_digest = Sha256(concat);
    attest.attested.quote.pcrDigest.size = kDigestBytes;
    std::memcpy(attest.attested.quote.pcrDigest.buffer, pcr_digest.data(), kDigestBytes);
    Bytes body;
    if (!Marshal(Tss2_MU_TPMS_ATTEST_Marshal, attest, &body)) {
      return false;
    }
    TPM2B_ATTEST quoted = {};
    quoted.size = static_cast<uint16_t>(body.size());
    std::memcpy(quoted.attestationData, body.data(), body.size());

    return Marshal(Tss2_MU_TPM2B_ATTEST_Marshal, quoted, out_quoted) && Sign(body, out_signature);
  }

  bool SignWithAk(const Bytes& data, Bytes* out_signature) override {
    // A TPM gives no hash ticket for data that claims to be its own.
    static const Bytes kGenerated = {0xff, 0x54, 0x43, 0x47};
    if (data.size() >= kGenerated.size() && std::equal(kGenerated.begin(), kGenerated.end(), data.begin())) {
      return Fail("TPM2_Hash: data starts with TPM_GENERATED_VALUE");
    }
    return Sign(data, out_signature);
  }

 private:
  template <typename T, typename MarshalFn>
  bool Marshal(MarshalFn fn, const T& value, Bytes* out) {
    return MarshalBytes(fn, value, out) || Fail("marshalling failed");
  }

  template <typename T, typename UnmarshalFn>
  bool Unmarshal(UnmarshalFn fn, const Bytes& bytes, T* out) {
    return UnmarshalBytes(fn, bytes, out);
  }

  // Sign makes the AK's RSASSA/SHA-256 TPMT_SIGNATURE over |data|.
  bool Sign(const Bytes& data, Bytes* out_signature) {
    if (ak_ == nullptr) {
      return Fail("no AK loaded");
    }
    TPMT_SIGNATURE signature = {};
    signature.sigAlg = TPM2_ALG_RSASSA;
    signature.signature.rsassa.hash = TPM2_ALG_SHA256;
    size_t sig_len = sizeof(signature.signature.rsassa.sig.buffer);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (md == nullptr || EVP_DigestSignInit(md.get(), nullptr, EVP_sha256(), nullptr, ak_.get()) != 1 ||
        EVP_DigestSign(md.get(), signature.signature.rsassa.sig.buffer, &sig_len, data.data(), data.size()) != 1) {
      return Fail("signing failed");
    }
    signature.signature.rsassa.sig.size = static_cast<uint16_t>(sig_len);
    return Marshal(Tss2_MU_TPMT_SIGNATURE_Marshal, signature, out_signature);
  }

  // DecryptSeed opens the seed with the EK: RSA-OAEP, SHA-256, label
  // "IDENTITY" with its terminating zero.
  bool DecryptSeed(const TPM2B_ENCRYPTED_SECRET& secret, Bytes* out) {
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(ek_.get(), nullptr), EVP_PKEY_CTX_free);
    static const char kLabel[] = "IDENTITY";
    void* label = OPENSSL_memdup(kLabel, sizeof(kLabel));
    if (ctx == nullptr || label == nullptr || EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_CTX_set_rsa_oaep_md(ctx.get(), EVP_sha256()) != 1 ||
        EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), EVP_sha256()) != 1) {
      OPENSSL_free(label);
      return false;
    }
    if (EVP_PKEY_CTX_set0_rsa_oaep_label(ctx.get(), label, sizeof(kLabel)) != 1) {
      OPENSSL_free(label);
      return false;
    }
    size_t len = 512;
    out->resize(len);
    if (EVP_PKEY_decrypt(ctx.get(), out->data(), &len, secret.secret, secret.size) != 1) {
      return false;
    }
    out->resize(len);
    return true;
  }

  bool reuse_ak_;
  PkeyPtr ek_;
  PkeyPtr ak_;
  std::string ek_certificate_pem_;
  Bytes ak_name_;
  std::array<Bytes, 24> pcrs_;
  uint64_t clock_ = 1000;
};

}  // namespace

std::unique_ptr<HostTpm> MakeSoftwareHost(bool reuse_ak, const EkIssuer* issuer) {
  auto host = std::make_unique<SoftwareHost>(reuse_ak);
  if (issuer != nullptr && !host->IssueEkCertificate(*issuer)) {
    return nullptr;
  }
  return host;
}

}  // namespace Witnessd::Agent
