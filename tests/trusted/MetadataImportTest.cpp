#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "tests/support/DaemonProcess.h"
#include "tests/trusted/ImgdbFixture.h"
#include "trusted/MetadataImport.h"

namespace {

using namespace Witnessd::Trusted;
using Witnessd::Testing::ImgdbFixture;

class MetadataImport : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    sysroot_ = new std::string(Witnessd::Testing::MakeTempDir("witnessd-metadata"));
    setenv("WITNESSD_SYSROOT", sysroot_->c_str(), 1);
    fixture_ = new ImgdbFixture(*sysroot_);
  }
  static void TearDownTestSuite() {
    delete fixture_;
    std::filesystem::remove_all(*sysroot_);
    delete sysroot_;
    unsetenv("WITNESSD_SYSROOT");
  }

  static VerifyStatus Import(const std::string& flags, PayloadTable* table,
                             const std::string& pak = "hyv-base") {
    std::vector<uint8_t> tar = fixture_->Make("--not-gzip " + flags);
    std::string certs = fixture_->MakerCertPem();
    return ImportPakMetadata({tar.size(), tar.data()},
                             {certs.size(), reinterpret_cast<const uint8_t*>(certs.data())}, pak, table);
  }

  static std::string* sysroot_;
  static ImgdbFixture* fixture_;
};

std::string* MetadataImport::sysroot_;
ImgdbFixture* MetadataImport::fixture_;

TEST_F(MetadataImport, ValidPackageIsKeyedByPayloadFileName) {
  PayloadTable table;
  ASSERT_EQ(0u, Import("--kernel-digest " + std::string(64, '1'), &table));
  ASSERT_EQ(2u, table.size());
  const PayloadRecord& k = table.at("hvkernel.gz");
  EXPECT_STREQ("k", k.name);
  EXPECT_STREQ("hvkernel.gz", k.file_name);
  EXPECT_STREQ("tgz", k.type);
  ASSERT_EQ(1u, k.checksum_count);
  EXPECT_EQ(std::string(64, '1'), k.checksums[0].checksum);
  EXPECT_STREQ("sha-256", k.checksums[0].checksum_type);
  EXPECT_STREQ("gunzip", k.checksums[0].verify_process);
  const PayloadRecord& b = table.at("boot.b00");
  ASSERT_EQ(2u, b.checksum_count);
  EXPECT_STREQ("txt-mle", b.checksums[0].verify_process);

  PayloadTable update;
  ASSERT_EQ(0u, Import("", &update, "hyv-update"));
  EXPECT_EQ(1u, update.count("update.gz"));
}

// Each row changes one thing of a valid image database.
TEST_F(MetadataImport, RefusalsAndLimits) {
  const struct {
    const char* flags;
    const char* pak;
    VerifyStatus status;
  } kCases[] = {
      {"--sign-base partner", "hyv-base", kPakSignatureInvalid},
      {"--sign-base partner,maker", "hyv-base", 0},  // the second block verifies
      {"--sign-base self", "hyv-base", kPakSignatureInvalid},
      {"--sign-base maker-expired", "hyv-base", 0},  // validity periods are not enforced
      {"--sign-base revoked", "hyv-base", 0},         // no CRL installed
      {"--tamper-base", "hyv-base", kPakSignatureInvalid},
      {"--no-sig", "hyv-base", kPakEntryMissing},
      {"", "hyv-absent", kPakDescriptorMissing},
      {"--no-profile", "hyv-base", kPakEntryMissing},
      {"--big-entry", "hyv-base", kPakEntryMissing},
      {"--no-core-node", "hyv-base", kPakXmlUnusable},
      {"--checksums 11", "hyv-base", 0},
      {"--checksums 12", "hyv-base", kPakXmlUnusable},
      {"--checksum-len 255", "hyv-base", 0},
      {"--checksum-len 256", "hyv-base", kPakXmlUnusable},
      {"--name-len 63", "hyv-base", 0},
      {"--name-len 64", "hyv-base", kPakXmlUnusable},
      {"--payload x:" "fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff:00", "hyv-base",
       kPakMergeFailed},  // a 65-character file name
      {"--posix", "hyv-base", kPakEntryMissing},
      {"--symlink", "hyv-base", kPakEntryMissing},
      {"--no-end", "hyv-base", kPakEntryMissing},
      {"--garbage-after-end", "hyv-base", kPakEntryMissing},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.flags);
    PayloadTable table;
    table["sentinel"] = {};
    VerifyStatus status = Import(c.flags, &table, c.pak);
    EXPECT_EQ(c.status, status) << "{" << (status & 0xffffffff) << ", " << (status >> 32) << "}";
    if (status != 0) {
      EXPECT_EQ(1u, table.count("sentinel")) << "output changed on failure";
    }
  }
}

TEST_F(MetadataImport, RevocationListsAreHonoured) {
  const struct {
    const char* crl;
    const char* signer;
    VerifyStatus status;
  } kCases[] = {
      {"--crl maker", "revoked", kPakSignatureInvalid},
      {"--crl maker", "maker", 0},
      {"--crl maker-garbage", "maker", kPakSignatureInvalid},  // a corrupted CRL file fails the check
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.crl) + " " + c.signer);
    fixture_->InstallCerts(c.crl);
    PayloadTable table;
    EXPECT_EQ(c.status, Import(std::string("--sign-base ") + c.signer, &table));
  }
  fixture_->InstallCerts();
}

TEST_F(MetadataImport, EmptyInputs) {
  std::string certs = fixture_->MakerCertPem();
  std::vector<uint8_t> tar = fixture_->Make("--not-gzip");
  PayloadTable table;
  EXPECT_EQ(kPakEntryMissing, ImportPakMetadata({0, nullptr}, {certs.size(), reinterpret_cast<const uint8_t*>(certs.data())},
                                                "hyv-base", &table));
  EXPECT_EQ(kPakCertsUnusable, ImportPakMetadata({tar.size(), tar.data()}, {0, nullptr}, "hyv-base", &table));
  const char kNotPem[] = "not a certificate";
  EXPECT_EQ(kPakCertsUnusable, ImportPakMetadata({tar.size(), tar.data()},
                                                 {sizeof(kNotPem) - 1, reinterpret_cast<const uint8_t*>(kNotPem)},
                                                 "hyv-base", &table));
}

TEST_F(MetadataImport, PropertiesOfBothPackages) {
  std::vector<uint8_t> tar = fixture_->Make("--not-gzip --version 8.0.2-1 --update-version 8.0.2-1-u");
  PakProperties props;
  ASSERT_EQ(0u, GetPakProperties({tar.size(), tar.data()}, "hyv-base", &props));
  EXPECT_STREQ("hyv-base", props.name);
  EXPECT_STREQ("8.0.2-1", props.version);
  EXPECT_STREQ("Quarro", props.vendor);
  EXPECT_STREQ("bootbank", props.type);
  ASSERT_EQ(0u, GetPakProperties({tar.size(), tar.data()}, "hyv-update", &props));
  EXPECT_STREQ("8.0.2-1-u", props.version);

  tar = fixture_->Make("--not-gzip --omit-property version");
  EXPECT_NE(0u, GetPakProperties({tar.size(), tar.data()}, "hyv-base", &props));
  EXPECT_EQ(kPakDescriptorMissing, GetPakProperties({tar.size(), tar.data()}, "hyv-absent", &props));
}

}  // namespace
