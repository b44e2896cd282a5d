#include "trusted/BaseImageImport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <thread>

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
  // The maker's certificate file is read under the sysroot.
  void SetUp() override {
    setenv("WITNESSD_SYSROOT", dir_.c_str(), 1);
    imgdb_ = std::make_unique<Testing::ImgdbFixture>(dir_);
  }
  void TearDown() override { unsetenv("WITNESSD_SYSROOT"); }

  struct Outcome {
    ImportResult result;
    std::string version;
    std::string log;
  };
  Outcome Import(const std::vector<uint8_t>& compressed) {
    Outcome o{};
    o.log = Testing::Capture([&] { o.result = ImportBaseImage(images_, compressed, o.version); });
    return o;
  }

  // Everything stored under the base images key, as canonical text.
  std::string Stored() { return store_->Export({HyvConfig::FilterSpecObject(MakeId(kKeyBaseImages))}); }

  StatusConditions status_;
  BaseImageStore images_{store_, status_};
  std::unique_ptr<Testing::ImgdbFixture> imgdb_;
};

TEST_F(BaseImageImportTest, StoresBothPackagesAndServesLookups) {
  Outcome o = Import(imgdb_->Make("--sign-base partner,maker --payload extra:x.v00:" + std::string(64, 'c')));
  ASSERT_EQ(ImportResult::kImported, o.result) << o.log;
  EXPECT_EQ(kVersion, o.version);

  StoredBaseImage image;
  ASSERT_EQ(ConfigResult::kConfigOk, images_.Read(kVersion, image));
  EXPECT_EQ(kVersion, image.version);
  EXPECT_EQ("", image.last_attested_time);
  ASSERT_EQ(2u, image.paks.size());
  EXPECT_EQ("hyv-base", image.paks[0].name);
  EXPECT_EQ("hyv-update", image.paks[1].name);
  EXPECT_EQ("8.0.1-12345-u1", image.paks[1].version);

  std::shared_ptr<const BaseImageData> found = images_.Lookup(kKernel);
  ASSERT_NE(nullptr, found);
  EXPECT_EQ(kVersion, found->version);
  EXPECT_EQ(std::string(64, 'b'), found->txt_mle_digest);
  EXPECT_EQ(std::string(64, 'c'), found->payload_checksums->at("x.v00"));
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

TEST_F(BaseImageImportTest, ConcurrentImportsOfOneVersionStoreItOnce) {
  const std::vector<uint8_t> imgdbs[] = {imgdb_->Make(""), imgdb_->Make("--kernel-digest " + std::string(64, 'd'))};
  ImportResult results[2];
  std::string versions[2];
  std::thread other([&] { results[1] = ImportBaseImage(images_, imgdbs[1], versions[1]); });
  results[0] = ImportBaseImage(images_, imgdbs[0], versions[0]);
  other.join();
  EXPECT_EQ(1, std::count(results, results + 2, ImportResult::kImported));
  EXPECT_EQ(1, std::count(results, results + 2, ImportResult::kVersionExists));
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
}

TEST_F(BaseImageImportTest, MissingMakerCertificateFails) {
  std::vector<uint8_t> good = imgdb_->Make("");
  std::filesystem::remove(imgdb_->CertsDir() + "/quarro.cert");
  Outcome o = Import(good);
  EXPECT_EQ(ImportResult::kFailed, o.result);
  EXPECT_NE(std::string::npos, o.log.find("Failed to read Quarro certificate\n"));
}

TEST_F(BaseImageImportTest, StoreFailureLeavesNothing) {
  std::vector<uint8_t> good = imgdb_->Make("");
  const std::string empty = Stored();
  // Fail each SQLite call of the import in turn, from the existence test to
  // the commit of the write, until the import gets through.
  std::string logs;
  bool imported = false;
  for (int skip = 0; skip < 64 && !imported; ++skip) {
    SCOPED_TRACE(skip);
    store_->FailSqliteCallAfter(skip);
    Outcome o = Import(good);
    imported = o.result == ImportResult::kImported;
    if (!imported) {
      EXPECT_EQ(ImportResult::kFailed, o.result);
      EXPECT_EQ(empty, Stored());
      logs += o.log;
    }
    store_->FailSqliteCallAfter(-1);
  }
  EXPECT_TRUE(imported);
  EXPECT_NE(std::string::npos, logs.find("Exception reading/writing the HYV base image version 8.0.1-12345"));
  EXPECT_NE(std::string::npos, logs.find("Failed to set the HYV metadata for base image version '8.0.1-12345'"));
}

TEST_F(BaseImageImportTest, DeleteRemovesTheImageAndItsLookups) {
  ASSERT_EQ(ImportResult::kImported, Import(imgdb_->Make("")).result);
  std::shared_ptr<const BaseImageData> held = images_.Lookup(kKernel);
  ASSERT_NE(nullptr, held);
  EXPECT_EQ(ConfigResult::kConfigOk, images_.Delete(kVersion));
  EXPECT_EQ(nullptr, images_.Lookup(kKernel));
  EXPECT_EQ(ConfigResult::kConfigNotFound, images_.Delete(kVersion));
  StoredBaseImage image;
  EXPECT_EQ(ConfigResult::kConfigNotFound, images_.Read(kVersion, image));
  // The table handed out before the delete stays usable.
  EXPECT_EQ(kKernel, held->payload_checksums->at("hvkernel.gz"));
}

}  // namespace
}  // namespace Witnessd::Trusted
