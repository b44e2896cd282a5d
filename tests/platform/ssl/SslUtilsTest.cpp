#include "platform/ssl/SslUtils.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <zlib.h>

#include "tests/platform/ssl/TestCerts.h"

namespace Orm::Common {
namespace {

using Witnessd::Testing::MakeCert;
using Witnessd::Testing::MakeKey;
using Witnessd::Testing::Rewrap;
using Witnessd::Testing::TestPki;

TEST(SslUtilsHash, HexIsSha256AndCanonicalFormIgnoresLayout) {
  std::string hex;
  ASSERT_TRUE(SslUtils::ComputeHashHex("abc", hex));
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", hex);

  std::string pem = MakeKey().public_pem;
  std::string other = Rewrap(pem, 17);
  SslUtils::CanonicalizePem(pem);
  SslUtils::CanonicalizePem(other);
  EXPECT_EQ(pem, other);
  EXPECT_EQ(0u, pem.find("-----BEGINPUBLICKEY-----"));
  std::vector<uint8_t> a, b;
  ASSERT_TRUE(SslUtils::ComputeHash(pem, a));
  ASSERT_TRUE(SslUtils::ComputeHash(other, b));
  EXPECT_EQ(32u, a.size());
  EXPECT_EQ(a, b);
}

TEST(SslUtilsStandardize, PemStringLayouts) {
  const std::string begin = "-----BEGIN CERTIFICATE-----";
  const std::string end = "-----END CERTIFICATE-----";
  const std::string body64(64, 'A');
  const std::string expected = begin + "\n" + body64 + "\n" + "QUJD\n" + end + "\n";
  const struct {
    const char* name;
    std::string in;
    bool ok;
  } kCases[] = {
      {"standard", expected, true},
      {"one line", begin + body64 + "QUJD" + end, true},
      {"crlf and spaces", begin + "\r\n " + body64 + "\r\nQU JD\r\n" + end + "\r\n", true},
      {"no markers", body64 + "QUJD", true},
      {"begin marker only", begin + body64 + "QUJD", true},
      {"empty body", begin + end, false},
      {"nothing", "", false},
      {"not base64", begin + body64 + "QU*D" + end, false},
      {"length not a multiple of 4", begin + body64 + "QUJ" + end, false},
      {"padding inside", begin + "QQ==" + body64 + end, false},
      {"other markers", "-----BEGIN PUBLIC KEY-----" + body64 + "-----END PUBLIC KEY-----", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::string pem = c.in;
    EXPECT_EQ(c.ok, SslUtils::StandardizePemString(pem, begin, end));
    EXPECT_EQ(c.ok ? expected : c.in, pem);
  }
}

TEST(SslUtilsStandardize, KeysAndCertsReachOneForm) {
  TestPki pki;
  std::string key = pki.leaf.key.public_pem;
  std::string key2 = Rewrap(key, 50);
  ASSERT_TRUE(SslUtils::StandardizePemPubKey(key2));
  EXPECT_EQ(key, key2);
  std::string cert = Rewrap(pki.root.pem, 31);
  ASSERT_TRUE(SslUtils::StandardizePemCert(cert));
  EXPECT_EQ(pki.root.pem, cert);

  // A key is not a certificate and the other way round; failures leave the text.
  std::string not_cert = key;
  EXPECT_FALSE(SslUtils::StandardizePemCert(not_cert));
  EXPECT_EQ(key, not_cert);
  std::string not_key = pki.root.pem;
  EXPECT_FALSE(SslUtils::StandardizePemPubKey(not_key));
  std::string garbage = "-----BEGIN PUBLIC KEY-----\nQUJD\n-----END PUBLIC KEY-----\n";
  EXPECT_FALSE(SslUtils::StandardizePemPubKey(garbage));
}

TEST(SslUtilsKeys, ValidateExtractCompare) {
  TestPki pki;
  const struct {
    const char* name;
    std::string pem;
    bool ok;
  } kKeys[] = {
      {"EC P-256", MakeKey().public_pem, true},
      {"RSA 2048", MakeKey(2048).public_pem, true},
      {"RSA 1024", MakeKey(1024).public_pem, false},
      {"a certificate", pki.root.pem, false},
      {"empty", "", false},
  };
  for (const auto& c : kKeys) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.ok, SslUtils::ValidatePemKey(c.pem));
  }
  EXPECT_TRUE(SslUtils::ValidatePemCert(Rewrap(pki.leaf.pem, 64)));
  EXPECT_FALSE(SslUtils::ValidatePemCert(pki.leaf.key.public_pem));

  std::string extracted;
  ASSERT_TRUE(SslUtils::ExtractKeyFromCert(pki.leaf.pem, extracted));
  EXPECT_EQ(pki.leaf.key.public_pem, extracted);
  EXPECT_TRUE(SslUtils::ComparePemKeys(Rewrap(extracted, 10), pki.leaf.key.public_pem));
  EXPECT_FALSE(SslUtils::ComparePemKeys(extracted, pki.root.key.public_pem));
  EXPECT_FALSE(SslUtils::ComparePemKeys(extracted, "junk"));
  EXPECT_FALSE(SslUtils::ExtractKeyFromCert("junk", extracted));
}

TEST(SslUtilsChain, EndEntityAndCaChains) {
  TestPki pki;
  TestPki other;
  const auto self_signed_leaf = MakeCert(MakeKey(), "Self EK", nullptr, false);
  const auto expired_root = MakeCert(MakeKey(), "Expired Root CA", nullptr, true, 7, /*expired=*/true);
  using V = std::vector<std::string>;
  const struct {
    const char* name;
    V chain;
    V trusted;
    bool is_ca_chain;
    bool ok;
  } kCases[] = {
      {"ek under configured intermediate", {pki.leaf.pem}, {pki.root.pem, pki.intermediate.pem}, false, true},
      {"ek with intermediate in chain", {pki.leaf.pem, pki.intermediate.pem}, {pki.root.pem}, false, true},
      {"ek under configured intermediate only", {pki.leaf.pem}, {pki.intermediate.pem}, false, true},
      {"ek missing intermediate", {pki.leaf.pem}, {pki.root.pem}, false, false},
      {"ek with nothing configured", {pki.leaf.pem}, {}, false, false},
      {"ek of another hierarchy", {pki.leaf.pem}, {other.root.pem, other.intermediate.pem}, false, false},
      {"self-signed ek trusts nothing", {self_signed_leaf.pem}, {}, false, false},
      {"ek chain bringing its own root", {pki.leaf.pem, pki.intermediate.pem, pki.root.pem}, {}, false, false},
      {"first ca chain with its root", {pki.intermediate.pem, pki.root.pem}, {}, true, true},
      {"ca chain root first", {pki.root.pem, pki.intermediate.pem}, {}, true, true},
      {"ca chain under configured root", {pki.intermediate.pem}, {pki.root.pem}, true, true},
      {"ca chain without its root", {pki.intermediate.pem}, {}, true, false},
      {"expired root", {expired_root.pem}, {}, true, false},
      {"ca chain under another root", {other.intermediate.pem}, {pki.root.pem}, true, false},
      {"end-entity in a ca chain", {pki.leaf.pem, pki.intermediate.pem}, {pki.root.pem}, true, false},
      {"empty chain", {}, {pki.root.pem}, true, false},
      {"unparsable member", {pki.intermediate.pem, "junk"}, {pki.root.pem}, true, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.ok, SslUtils::ValidateCertChain(c.chain, c.trusted, c.is_ca_chain));
  }
}

TEST(SslUtilsChain, DuplicateCertificates) {
  TestPki pki;
  EXPECT_TRUE(SslUtils::CheckNoCaCertDups({pki.root.pem, pki.intermediate.pem}));
  EXPECT_TRUE(SslUtils::CheckNoCaCertDups({}));
  EXPECT_FALSE(SslUtils::CheckNoCaCertDups({pki.root.pem, pki.intermediate.pem, Rewrap(pki.root.pem, 20)}));
  EXPECT_FALSE(SslUtils::CheckNoCaCertDups({pki.root.pem, "junk"}));
}

TEST(SslUtilsGenerate, SelfSignedRsaPairThatMatches) {
  std::string key_pem, cert_pem;
  ASSERT_TRUE(SslUtils::GenerateKeyAndCert(key_pem, cert_pem));
  std::unique_ptr<BIO, decltype(&BIO_free)> kb(BIO_new_mem_buf(key_pem.data(), -1), BIO_free);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      PEM_read_bio_PrivateKey(kb.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
  ASSERT_NE(nullptr, key);
  EXPECT_EQ(EVP_PKEY_RSA, EVP_PKEY_get_base_id(key.get()));
  EXPECT_GE(EVP_PKEY_get_bits(key.get()), 2048);
  std::unique_ptr<BIO, decltype(&BIO_free)> cb(BIO_new_mem_buf(cert_pem.data(), -1), BIO_free);
  std::unique_ptr<X509, decltype(&X509_free)> cert(PEM_read_bio_X509(cb.get(), nullptr, nullptr, nullptr),
                                                   X509_free);
  ASSERT_NE(nullptr, cert);
  EXPECT_EQ(1, X509_check_private_key(cert.get(), key.get()));
  EXPECT_EQ(1, X509_verify(cert.get(), key.get()));
  // Valid now and for at least ten more years.
  time_t in_ten_years = time(nullptr) + 10L * 365 * 24 * 3600;
  EXPECT_EQ(-1, X509_cmp_current_time(X509_get0_notBefore(cert.get())));
  EXPECT_EQ(1, X509_cmp_time(X509_get0_notAfter(cert.get()), &in_ten_years));
  // A second pair is a different key.
  std::string key2, cert2;
  ASSERT_TRUE(SslUtils::GenerateKeyAndCert(key2, cert2));
  EXPECT_NE(key_pem, key2);
}

TEST(Gzip, RoundTripAndKnownVector) {
  const std::vector<uint8_t> kPython = {0x1f, 0x8b, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x03,
                                        0x2b, 0xcf, 0x2c, 0xc9, 0x4b, 0x2d, 0x2e, 0x4e, 0xe1, 0x02,
                                        0x00, 0xcb, 0xfd, 0x1d, 0x08, 0x09, 0x00, 0x00, 0x00};
  std::string text;
  ASSERT_TRUE(Gzip::DecompressToString(kPython, text));
  EXPECT_EQ("witnessd\n", text);

  std::string big;
  for (uint32_t i = 0; i < 300000; ++i) {
    big.push_back(static_cast<char>((i * 7919u) % 251));
  }
  for (const std::string& in : {std::string(), std::string("x"), big}) {
    std::vector<uint8_t> packed;
    ASSERT_TRUE(Gzip::CompressFromString(in, packed));
    ASSERT_GE(packed.size(), 18u);
    EXPECT_EQ(0x1f, packed[0]);
    std::string out = "stale";
    ASSERT_TRUE(Gzip::DecompressToString(packed, out));
    EXPECT_EQ(in, out);
  }
}

TEST(Gzip, RejectsDamagedInput) {
  std::vector<uint8_t> packed;
  ASSERT_TRUE(Gzip::CompressFromString("attestation configuration", packed));
  std::string out;
  for (size_t len = 0; len < packed.size(); ++len) {  // every strict prefix
    SCOPED_TRACE(len);
    EXPECT_FALSE(Gzip::DecompressToString(std::vector<uint8_t>(packed.begin(), packed.begin() + len), out));
  }
  std::vector<uint8_t> trailing = packed;
  trailing.push_back(0);
  EXPECT_FALSE(Gzip::DecompressToString(trailing, out));
  std::vector<uint8_t> bad_crc = packed;
  bad_crc[bad_crc.size() - 5] ^= 1;
  EXPECT_FALSE(Gzip::DecompressToString(bad_crc, out));
  EXPECT_FALSE(Gzip::DecompressToString({'p', 'l', 'a', 'i', 'n'}, out));
}

TEST(Gzip, DecompressReportsStageAndZlibCode) {
  std::vector<uint8_t> packed;
  ASSERT_TRUE(Gzip::CompressFromString("base image", packed));
  std::vector<uint8_t> truncated(packed.begin(), packed.end() - 3);
  std::vector<uint8_t> trailing = packed;
  trailing.push_back('x');
  const std::vector<uint8_t> not_gzip = {'p', 'l', 'a', 'i', 'n'};
  struct {
    const char* name;
    const std::vector<uint8_t>& in;
    Gzip::Stage stage;
    int zlib_code;
  } const cases[] = {
      {"whole", packed, Gzip::Stage::kDone, Z_OK},
      {"empty", {}, Gzip::Stage::kEmptyInput, Z_OK},
      {"truncated", truncated, Gzip::Stage::kInflate, Z_BUF_ERROR},
      {"trailing bytes", trailing, Gzip::Stage::kInflate, Z_DATA_ERROR},
      {"not gzip", not_gzip, Gzip::Stage::kInflate, Z_DATA_ERROR},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string out = "untouched";
    Gzip::Outcome outcome = Gzip::Decompress(c.in.data(), c.in.size(), out);
    EXPECT_EQ(c.stage, outcome.stage);
    EXPECT_EQ(c.zlib_code, outcome.zlib_code);
    EXPECT_EQ(c.stage == Gzip::Stage::kDone ? "base image" : "untouched", out);
  }
}

}  // namespace
}  // namespace Orm::Common
