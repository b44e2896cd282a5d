#include "verify/CryptoUtil.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "verify/Tpm2Marshal.h"

namespace v = Witnessd::Verify;
namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes FromHex(const std::string& hex) {
  Bytes out(hex.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) {
    out[i] = static_cast<uint8_t>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
  }
  return out;
}

TEST(HashBuffer, Sm3IsHashedWithSha256) {
  const uint8_t data[] = {'a', 'b', 'c'};
  uint8_t sm3[32], sha256[32];
  ASSERT_TRUE(v::HashBuffer(sm3, v::kTpmAlgSm3_256, data, 3));
  ASSERT_TRUE(v::HashBuffer(sha256, v::kTpmAlgSha256, data, 3));
  EXPECT_EQ(0, memcmp(sm3, sha256, 32));
  uint8_t out[64];
  EXPECT_FALSE(v::HashBuffer(out, v::kTpmAlgNull, data, 3));
}

// Wycheproof RSASSA-PKCS1-v1_5 vectors, every one of them. Two decisions:
// - "acceptable" vectors (the DigestInfo without the NULL parameter) are
//   refused: OpenSSL compares the re-encoded DigestInfo, and a quote signed
//   by a TPM always carries the NULL.
// - the groups with public exponent 3 are refused as a whole, valid
//   signatures included: the verifier always uses 65537, as a TPM key's
//   exponent field is either 0 or 65537.
TEST(VerifyRsaSignature, WycheproofVectors) {
  const char* kFiles[] = {
      "rsa_signature_2048_sha256_test.json", "rsa_signature_2048_sha384_test.json",
      "rsa_signature_2048_sha512_test.json", "rsa_signature_3072_sha256_test.json",
      "rsa_signature_3072_sha384_test.json", "rsa_signature_3072_sha512_test.json",
      "rsa_signature_4096_sha256_test.json", "rsa_signature_4096_sha384_test.json",
      "rsa_signature_4096_sha512_test.json",
  };
  int checked = 0, accepted = 0;
  for (const char* file : kFiles) {
    SCOPED_TRACE(file);
    std::ifstream in(std::string(WITNESSD_TEST_DATA "/verify/wycheproof/") + file);
    ASSERT_TRUE(in.good());
    nlohmann::json doc = nlohmann::json::parse(in);
    for (const auto& group : doc["testGroups"]) {
      const std::string sha = group["sha"];
      uint16_t alg = sha == "SHA-256" ? v::kTpmAlgSha256 : sha == "SHA-384" ? v::kTpmAlgSha384 : v::kTpmAlgSha512;
      const EVP_MD* md = EVP_get_digestbyname(sha.c_str());
      ASSERT_NE(nullptr, md);
      Bytes modulus = FromHex(group["publicKey"]["modulus"]);
      bool e65537 = group["publicKey"]["publicExponent"] == "010001";
      for (const auto& test : group["tests"]) {
        SCOPED_TRACE(test["tcId"].get<int>());
        Bytes msg = FromHex(test["msg"]), sig = FromHex(test["sig"]);
        uint8_t digest[64];
        unsigned int digest_len = 0;
        ASSERT_EQ(1, EVP_Digest(msg.data(), msg.size(), digest, &digest_len, md, nullptr));
        bool expected = e65537 && test["result"] == "valid";
        bool got = v::VerifyRsaSignature(digest, digest_len, alg, modulus.data(), modulus.size(), sig.data(),
                                         sig.size());
        EXPECT_EQ(expected, got) << test["result"] << " " << test["flags"];
        ++checked;
        accepted += got;
      }
    }
  }
  EXPECT_EQ(2330, checked);  // every vector of the nine files
  EXPECT_EQ(63, accepted);   // the valid ones with exponent 65537
}

TEST(VerifyRsaSignature, Sm3Refused) {
  uint8_t digest[32] = {}, modulus[256] = {0x80}, sig[256] = {};
  EXPECT_FALSE(v::VerifyRsaSignature(digest, 32, v::kTpmAlgSm3_256, modulus, 256, sig, 256));
}

// --- Package signatures, with a PKI made here ---

struct KeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CertFree {
  void operator()(X509* x) const { X509_free(x); }
};
struct CrlFree {
  void operator()(X509_CRL* c) const { X509_CRL_free(c); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;
using CertPtr = std::unique_ptr<X509, CertFree>;

EVP_PKEY* SharedKey(int which) {
  static EVP_PKEY* keys[2] = {EVP_RSA_gen(2048), EVP_RSA_gen(2048)};
  return keys[which];
}

CertPtr MakeCert(const std::string& cn, const std::string& org, X509* issuer, EVP_PKEY* key, EVP_PKEY* issuer_key,
                 bool ca, long serial, long not_after_days) {
  CertPtr cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3 * 86400L);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), not_after_days * 86400L);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(org.c_str()), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
  X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : name);
  X509_set_pubkey(cert.get(), key);
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, NID_basic_constraints, ca ? "critical,CA:TRUE" : "CA:FALSE");
  X509_add_ext(cert.get(), ext, -1);
  X509_EXTENSION_free(ext);
  if (ca) {
    ext = X509V3_EXT_conf_nid(nullptr, &ctx, NID_key_usage, "critical,keyCertSign,cRLSign");
    X509_add_ext(cert.get(), ext, -1);
    X509_EXTENSION_free(ext);
  }
  EXPECT_NE(0, X509_sign(cert.get(), issuer_key, EVP_sha256()));
  return cert;
}

std::string CertPem(X509* cert) {
  v::BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cert);
  char* data;
  long len = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, len);
}

std::string CrlPem(X509* ca, EVP_PKEY* ca_key, long revoked_serial) {
  std::unique_ptr<X509_CRL, CrlFree> crl(X509_CRL_new());
  X509_CRL_set_version(crl.get(), 1);
  X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(ca));
  std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> now(ASN1_TIME_adj(nullptr, time(nullptr), -1, 0),
                                                             ASN1_TIME_free);
  std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> next(ASN1_TIME_adj(nullptr, time(nullptr), 30, 0),
                                                              ASN1_TIME_free);
  X509_CRL_set1_lastUpdate(crl.get(), now.get());
  X509_CRL_set1_nextUpdate(crl.get(), next.get());
  if (revoked_serial != 0) {
    X509_REVOKED* rev = X509_REVOKED_new();
    ASN1_INTEGER* serial = ASN1_INTEGER_new();
    ASN1_INTEGER_set(serial, revoked_serial);
    X509_REVOKED_set_serialNumber(rev, serial);
    X509_REVOKED_set_revocationDate(rev, now.get());
    X509_CRL_add0_revoked(crl.get(), rev);
    ASN1_INTEGER_free(serial);
  }
  X509_CRL_sort(crl.get());
  EXPECT_NE(0, X509_CRL_sign(crl.get(), ca_key, EVP_sha256()));
  v::BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509_CRL(bio.get(), crl.get());
  char* data;
  long len = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, len);
}

v::Pkcs7Ptr Sign(X509* signer, EVP_PKEY* key, const std::string& content) {
  v::BioPtr in(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  return v::Pkcs7Ptr(PKCS7_sign(signer, key, nullptr, in.get(), PKCS7_BINARY | PKCS7_DETACHED));
}

class HvkSignTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("witnessd_hvksign_" + std::to_string(getpid()));
    fs::create_directories(root_ / "usr/share/certs");
    setenv("WITNESSD_SYSROOT", root_.c_str(), 1);
    maker_ca_ = MakeCert("Maker Root", "Maker", nullptr, SharedKey(0), SharedKey(0), true, 1, 3650);
    partner_ca_ = MakeCert("Partner Root", "Partner", nullptr, SharedKey(0), SharedKey(0), true, 2, 3650);
    Write("quarro.cert", CertPem(maker_ca_.get()));
    Write("quarropartner.cert", CertPem(partner_ca_.get()));
  }
  void TearDown() override {
    unsetenv("WITNESSD_SYSROOT");
    fs::remove_all(root_);
  }
  void Write(const std::string& name, const std::string& text) {
    std::ofstream(root_ / "usr/share/certs" / name) << text;
  }
  CertPtr Leaf(X509* ca, long serial, long not_after_days = 365) {
    return MakeCert("Signer", "Signing Org Name That Is Rather Long", ca, SharedKey(1), SharedKey(0), false, serial,
                    not_after_days);
  }
  std::unique_ptr<v::HvkSignResult> Check(PKCS7* p7, const std::string& content) {
    v::BioPtr reader = v::OpenMemoryReader(reinterpret_cast<const uint8_t*>(content.data()), content.size());
    size_t len = 0;
    auto result = v::HvkSignCheck(p7, reader.get(), nullptr, nullptr, &len);
    EXPECT_TRUE(result->error.empty() || len == 0);
    return result;
  }

  fs::path root_;
  CertPtr maker_ca_, partner_ca_;
};

TEST_F(HvkSignTest, StatusBySigner) {
  const std::string content = "package descriptor: hyv 1.2.3 with more than thirty-two bytes";
  CertPtr maker_leaf = Leaf(maker_ca_.get(), 10);
  CertPtr expired_leaf = Leaf(maker_ca_.get(), 11, -1);
  CertPtr partner_leaf = Leaf(partner_ca_.get(), 12);
  CertPtr stray_ca = MakeCert("Stray", "Stray", nullptr, SharedKey(0), SharedKey(0), true, 3, 30);
  CertPtr stray_leaf = Leaf(stray_ca.get(), 13);
  const struct {
    const char* name;
    X509* signer;
    uint32_t status;
  } kRows[] = {
      {"maker", maker_leaf.get(), v::kHvkSignMaker},
      {"expired maker", expired_leaf.get(), v::kHvkSignMaker},
      {"partner", partner_leaf.get(), v::kHvkSignPartner},
      {"unknown issuer", stray_leaf.get(), v::kHvkSignNotVerified},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    v::Pkcs7Ptr p7 = Sign(row.signer, SharedKey(1), content);
    ASSERT_TRUE(p7);
    auto result = Check(p7.get(), content);
    EXPECT_EQ("", result->error);
    EXPECT_EQ(row.status, result->status);
    // The signature itself is good in every row, so the content is taken.
    ASSERT_EQ(32u, result->content_len);
    EXPECT_EQ(0, memcmp(content.data(), result->content, 32));
    EXPECT_EQ("Signing Org Name That Is Rather ", result->organization);
    std::string error;
    EXPECT_EQ(row.status == v::kHvkSignMaker,
              v::HvkSignVerify(p7.get(), reinterpret_cast<const uint8_t*>(content.data()), content.size(), nullptr,
                               nullptr, &error));
  }
  // Altered content verifies nowhere and yields nothing.
  v::Pkcs7Ptr p7 = Sign(maker_leaf.get(), SharedKey(1), content);
  auto result = Check(p7.get(), content + "x");
  EXPECT_EQ(v::kHvkSignNotVerified, result->status);
  EXPECT_EQ(0u, result->content_len);
}

TEST_F(HvkSignTest, RevocationLists) {
  const std::string content = "descriptor";
  CertPtr revoked = Leaf(maker_ca_.get(), 20);
  CertPtr good = Leaf(maker_ca_.get(), 21);
  v::Pkcs7Ptr revoked_p7 = Sign(revoked.get(), SharedKey(1), content);
  v::Pkcs7Ptr good_p7 = Sign(good.get(), SharedKey(1), content);

  // No CRL file: no revocation checking.
  EXPECT_EQ(v::kHvkSignMaker, Check(revoked_p7.get(), content)->status);

  Write("quarro.crl", CrlPem(maker_ca_.get(), SharedKey(0), 20));
  EXPECT_EQ(v::kHvkSignNotVerified, Check(revoked_p7.get(), content)->status);
  EXPECT_EQ(v::kHvkSignMaker, Check(good_p7.get(), content)->status);

  // A CRL block that does not decode after a good one is an error.
  Write("quarro.crl", CrlPem(maker_ca_.get(), SharedKey(0), 20) +
                          "-----BEGIN X509 CRL-----\nZ2FyYmFnZQ==\n-----END X509 CRL-----\n");
  auto result = Check(good_p7.get(), content);
  EXPECT_EQ("CRL appears to be corrupted\n", result->error);
  EXPECT_EQ(v::kHvkSignNotVerified, result->status);
  std::string error;
  EXPECT_FALSE(v::HvkSignVerify(good_p7.get(), reinterpret_cast<const uint8_t*>(content.data()), content.size(),
                                nullptr, nullptr, &error));
  EXPECT_EQ("CRL appears to be corrupted\n", error);
}

TEST_F(HvkSignTest, CallerStoreAndEmptyContent) {
  const std::string content = "descriptor";
  CertPtr stray_ca = MakeCert("Other", "Other", nullptr, SharedKey(0), SharedKey(0), true, 4, 30);
  CertPtr leaf = Leaf(stray_ca.get(), 30);
  v::Pkcs7Ptr p7 = Sign(leaf.get(), SharedKey(1), content);
  std::string pem = CertPem(stray_ca.get()) + CertPem(maker_ca_.get());
  v::X509StorePtr store = v::LoadPemCertStore(reinterpret_cast<const uint8_t*>(pem.data()), pem.size());
  ASSERT_TRUE(store);
  std::string error;
  EXPECT_TRUE(v::HvkSignVerify(p7.get(), reinterpret_cast<const uint8_t*>(content.data()), content.size(), nullptr,
                               store.get(), &error));
  EXPECT_FALSE(v::HvkSignVerify(p7.get(), reinterpret_cast<const uint8_t*>(content.data()), 0, nullptr, store.get(),
                                &error));
  EXPECT_EQ("Data buffer too small.", error);
  EXPECT_FALSE(v::LoadPemCertStore(reinterpret_cast<const uint8_t*>("no certificate"), 14));

  // PKCS#7 objects read back from PEM one after another, then the end.
  v::BioPtr out(BIO_new(BIO_s_mem()));
  PEM_write_bio_PKCS7(out.get(), p7.get());
  PEM_write_bio_PKCS7(out.get(), p7.get());
  char* data;
  long len = BIO_get_mem_data(out.get(), &data);
  v::BioPtr reader = v::OpenMemoryReader(reinterpret_cast<const uint8_t*>(data), len);
  v::Pkcs7Ptr read;
  EXPECT_TRUE(v::ReadNextPkcs7(reader.get(), &read));
  EXPECT_TRUE(v::ReadNextPkcs7(reader.get(), &read));
  EXPECT_FALSE(v::ReadNextPkcs7(reader.get(), &read));
  EXPECT_FALSE(v::OpenMemoryReader(reinterpret_cast<const uint8_t*>(data), 0x80000000u));
}

}  // namespace
