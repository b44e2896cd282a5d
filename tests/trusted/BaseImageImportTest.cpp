#include "trusted/BaseImageImport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "tests/config/StoreFixture.h"
#include "tests/support/LogCapture.h"
#include "tests/trusted/ImgdbFixture.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::Trusted {
namespace {

using namespace Config;

const std::string kKernel(64, 'a');  // the generator's default Hvkernel digest
constexpr const char* kVersion = "8.0.1-12345";

class BaseImageImportTest : public Testing::StoreFixture {
 protected:
  void SetUp() override {
    StoreFixture::SetUp();
    ClearBaseImageCache();
    imgdb_ = std::make_unique<Testing::ImgdbFixture>(sysroot_);
  }

  struct Outcome {
    ImportResult result;
    std::string version;
    std::string log;
  };
  static Outcome Import(const std::vector<uint8_t>& compressed) {
    Outcome o{};
    o.log = Testing::Capture([&] { o.result = ImportBaseImage(compressed, o.version); });
    return o;
  }

  // Everything stored under the base images key, as canonical text.
  static std::string Stored() {
    return Store()->Export({HyvConfig::FilterSpecObject(MakeId(kKeyBaseImages))});
  }

  std::unique_ptr<Testing::ImgdbFixture> imgdb_;
};

TEST_F(BaseImageImportTest, StoresBothPackagesAndServesLookups) {
  Outcome o = Import(imgdb_->Make("--sign-base partner,maker --payload extra:x.v00:" + std::string(64, 'c')));
  ASSERT_EQ(ImportResult::kImported, o.result) << o.log;
  EXPECT_EQ(kVersion, o.version);

  StoredBaseImage image;
  ASSERT_EQ(ConfigResult::kConfigOk, ReadBaseImage(kVersion, image));
  EXPECT_EQ(kVersion, image.version);
  EXPECT_EQ("", image.last_attested_time);
  ASSERT_EQ(2u, image.paks.size());
  EXPECT_EQ("hyv-base", image.paks[0].name);
  EXPECT_EQ("hyv-update", image.paks[1].name);
  EXPECT_EQ("8.0.1-12345-u1", image.paks[1].version);

  std::string version, mle;
  std::shared_ptr<const Verify::PayloadChecksumTable> table;
  ASSERT_EQ(ConfigResult::kConfigOk, LookupBaseImage(kKernel, version, mle, table));
  EXPECT_EQ(kVersion, version);
  EXPECT_EQ(std::string(64, 'b'), mle);
  EXPECT_EQ(std::string(64, 'c'), table->at("x.v00"));
}

TEST_F(BaseImageImportTest, SecondImportOfAVersionChangesNothing) {
  ASSERT_EQ(ImportResult::kImported, Import(imgdb_->Make("")).result);
  const std::string before = Stored();
  // Same base version, different content.
  Outcome o = Import(imgdb_->Make("--kernel-digest " + std::string(64, 'd')));
  EXPECT_EQ(ImportResult::kVersionExists, o.result);
  EXPECT_EQ(kVersion, o.version);
  EXPECT_NE(std::string::npos, o.log.find("The HYV base image version '8.0.1-12345' already exists\n"));
  EXPECT_EQ(before, Stored());
}

TEST_F(BaseImageImportTest, RefusalsStoreNothing) {
  const std::string empty = Stored();
  std::vector<uint8_t> good = imgdb_->Make("");
  std::vector<uint8_t> truncated(good.begin(), good.end() - 10);
  std::vector<uint8_t> trailing = good;
  trailing.push_back(0);
  const char* const kDecompress = "Failed to decompress buffer\n";
  const char* const kFinal = "Failed to import HYV metadata as a new trusted base image in the configstore\n";
  const char* const kPak = "Failed to parse imgdb tar to get PAK metadata Hashtable\n";
  const struct {
    const char* name;
    std::vector<uint8_t> input;
    std::vector<const char*> lines;
  } cases[] = {
      {"empty", {}, {"Input buffer to be decompressed is empty\n", kDecompress}},
      {"not gzip", imgdb_->Make("--not-gzip"), {"Error in decompressing, zlib error: -3\n", kDecompress}},
      {"truncated gzip", truncated, {"Error in decompressing, zlib error: -5\n", kDecompress}},
      {"bytes after the gzip member", trailing, {"Error in decompressing, zlib error: -3\n", kDecompress}},
      {"base package signed by a partner only", imgdb_->Make("--sign-base partner"), {kPak, kFinal}},
      {"update package self-signed", imgdb_->Make("--sign-update self"), {kPak, kFinal}},
      {"tampered base descriptor", imgdb_->Make("--tamper-base"), {kPak, kFinal}},
      {"no core system node", imgdb_->Make("--no-core-node"), {kPak, kFinal}},
      {"twelve checksums", imgdb_->Make("--checksums 12"), {kPak, kFinal}},
      {"no version property",
       imgdb_->Make("--omit-property version"),
       {"Failed to get the HYV base image info; hyv-base\n", kFinal}},
      {"posix tar", imgdb_->Make("--posix"), {"Failed to get the HYV base image info; hyv-base\n", kFinal}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Outcome o = Import(c.input);
    EXPECT_EQ(ImportResult::kFailed, o.result);
    EXPECT_EQ("", o.version);
    for (const char* line : c.lines) {
      EXPECT_NE(std::string::npos, o.log.find(line)) << line << "\nin:\n" << o.log;
    }
    EXPECT_EQ(empty, Stored());
  }
  ExpectLocksReleased();
}

TEST_F(BaseImageImportTest, MissingMakerCertificateFails) {
  std::vector<uint8_t> good = imgdb_->Make("");
  std::filesystem::remove(imgdb_->CertsDir() + "/quarro.cert");
  Outcome o = Import(good);
  EXPECT_EQ(ImportResult::kFailed, o.result);
  EXPECT_NE(std::string::npos, o.log.find("Failed to read Quarro certificate\n"));
}

TEST_F(BaseImageImportTest, StoreFailureLeavesNothingAndReleasesLocks) {
  std::vector<uint8_t> good = imgdb_->Make("");
  const std::string empty = Stored();
  // Fail each SQLite call of the import in turn, from the existence test to
  // the commit of the write, until the import gets through.
  std::string logs;
  bool imported = false;
  for (int skip = 0; skip < 64 && !imported; ++skip) {
    SCOPED_TRACE(skip);
    Store()->FailSqliteCallAfter(skip);
    Outcome o = Import(good);
    imported = o.result == ImportResult::kImported;
    if (!imported) {
      EXPECT_EQ(ImportResult::kFailed, o.result);
      EXPECT_EQ(empty, Stored());
      ExpectLocksReleased();
      logs += o.log;
    }
    Store()->FailSqliteCallAfter(-1);
  }
  EXPECT_TRUE(imported);
  EXPECT_NE(std::string::npos, logs.find("Exception reading/writing the HYV base image version 8.0.1-12345"));
  EXPECT_NE(std::string::npos, logs.find("Failed to set the HYV metadata for base image version '8.0.1-12345'"));
}

TEST_F(BaseImageImportTest, DeleteRemovesTheImageAndItsLookups) {
  ASSERT_EQ(ImportResult::kImported, Import(imgdb_->Make("")).result);
  std::string version, mle;
  std::shared_ptr<const Verify::PayloadChecksumTable> table;
  ASSERT_EQ(ConfigResult::kConfigOk, LookupBaseImage(kKernel, version, mle, table));
  EXPECT_EQ(ConfigResult::kConfigOk, DeleteBaseImage(kVersion));
  EXPECT_EQ(ConfigResult::kConfigNotFound, LookupBaseImage(kKernel, version, mle, table));
  EXPECT_EQ(ConfigResult::kConfigNotFound, DeleteBaseImage(kVersion));
  StoredBaseImage image;
  EXPECT_EQ(ConfigResult::kConfigNotFound, ReadBaseImage(kVersion, image));
  // The table handed out before the delete stays usable.
  EXPECT_EQ(kKernel, table->at("hvkernel.gz"));
}

}  // namespace
}  // namespace Witnessd::Trusted
