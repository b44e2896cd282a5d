#include "trusted/BaseImageStore.h"

#include <gtest/gtest.h>

#include <functional>

#include "platform/Log.h"
#include "tests/config/StoreFixture.h"
#include "tests/support/LogCapture.h"

namespace Witnessd::Trusted {
namespace {

using Testing::Capture;
using namespace Config;


// A base image as the metadata import stores it: the core package with the
// Hvkernel ("k") and TXT MLE ("b") payloads, and an update package.
std::vector<PakEntry> Paks(const std::string& kernel, const std::string& mle = "mle") {
  return {
      {"hyv-base", "8.0.1", "Quarro", "bootbank", "core",
       {{"k", "k.gz", {{kernel, "sha-256", "gunzip"}, {"sha1-" + kernel, "sha-1", "gunzip"}}},
        {"b", "b.b00", {{mle, "sha-256", "txt-mle"}, {"b-" + kernel, "sha-256", "gunzip"}}},
        {"s", "s.v00", {{"s-plain", "sha-256", ""}}}}},
      {"hyv-update", "8.0.1-u1", "Quarro", "bootbank", "update",
       {{"u", "u.v00", {{"u-" + kernel, "sha-256", "gunzip"}}}}},
  };
}

class BaseImageStoreTest : public Testing::StoreFixture {
 protected:
  void Put(const std::string& version, const std::vector<PakEntry>& paks) {
    HyvConfig::ConfigStoreObject image(MakeId(kKeyBaseImages, version));
    image.SetValue("version", version);
    for (const PakEntry& pak : paks) {
      ASSERT_TRUE(AddPakToBaseImage(image, pak));
    }
    int status = 0;
    store_->SetObject(image, status);
  }

  // The version found for |digest|; empty when nothing matches.
  std::string VersionOf(const std::string& digest) {
    std::shared_ptr<const BaseImageData> found = images_.Lookup(digest);
    return found == nullptr ? "" : found->version;
  }

  bool LoadErrorSet() const {
    auto set = status_.Get();
    return std::find(set.begin(), set.end(), kStatusBaseImagesLoadError) != set.end();
  }

  StatusConditions status_;
  BaseImageStore images_{store_, status_};
};

TEST_F(BaseImageStoreTest, LookupFindsDigestsAndPayloadTable) {
  Put("8.0.1", Paks("kern1"));
  std::shared_ptr<const BaseImageData> f = images_.Lookup("kern1");
  ASSERT_NE(nullptr, f);
  EXPECT_EQ("8.0.1", f->version);
  EXPECT_EQ("mle", f->txt_mle_digest);
  // Only sha-256 / gunzip checksums, from every package, by file name.
  const Verify::PayloadChecksumTable expected = {
      {"k.gz", "kern1"}, {"b.b00", "b-kern1"}, {"u.v00", "u-kern1"}};
  EXPECT_EQ(expected, *f->payload_checksums);
  const struct {
    const char* name;
    std::string digest;
  } kMisses[] = {{"prefix", "kern"}, {"longer", "kern1 "}, {"sha-1 checksum", "sha1-kern1"},
                 {"txt-mle checksum", "mle"}, {"empty", ""}};
  for (const auto& c : kMisses) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(nullptr, images_.Lookup(c.digest));
  }
  EXPECT_FALSE(LoadErrorSet());
}

TEST_F(BaseImageStoreTest, LoadingRules) {
  // Stored order: a duplicate-digest image, one without a core package, one
  // without version, a damaged one, and a second image with kern1.
  std::vector<PakEntry> dup = Paks("old");
  dup[0].payloads[0].checksums.push_back({"new", "sha-256", "gunzip"});
  dup[0].payloads[1].checksums.push_back({"mle2", "sha-256", "txt-mle"});
  Put("dup", dup);
  std::vector<PakEntry> no_core = Paks("x");
  no_core.erase(no_core.begin());
  Put("no-core", no_core);
  Put("", Paks("nameless"));
  Put("first", Paks("kern1"));
  Put("second", Paks("kern1", "other-mle"));
  HyvConfig::ConfigStoreObject damaged(MakeId(kKeyBaseImages, "damaged"));
  damaged.SetValue("version", "damaged");
  ASSERT_TRUE(AddPakToBaseImage(damaged, Paks("bad")[0]));
  damaged.GetSubObjects(kSubPaks)[0]->GetSubObjects(kSubPayloads)[0]->GetSubObjects(kSubChecksums)[0]->SetValue(
      "checksum", true);
  int status = 0;
  store_->SetObject(damaged, status);

  std::string log = Capture([&] { EXPECT_EQ("", VersionOf("old")); });
  EXPECT_NE(std::string::npos, log.find("Duplicate base image Hvkernel digest: old -> new"));
  EXPECT_NE(std::string::npos, log.find("Duplicate base image TXT MLE digest: mle -> mle2"));
  EXPECT_NE(std::string::npos, log.find("Base image has empty version"));
  EXPECT_NE(std::string::npos, log.find("Exception reading checksum data from config store"));
  EXPECT_NE(std::string::npos, log.find("Failed to load base PAK data with version damaged"));
  EXPECT_NE(std::string::npos, log.find("Error loading base image data"));
  EXPECT_NE(std::string::npos, log.find("Loaded base image data with version first and Hvkernel digest kern1"));
  EXPECT_TRUE(LoadErrorSet());

  const struct {
    const char* name;
    std::string digest;
    std::string version;  // empty: not found
  } kCases[] = {
      {"later duplicate wins", "new", "dup"},
      {"no core package: empty digest", "", "no-core"},
      {"nameless image skipped", "nameless", ""},
      {"damaged image skipped", "bad", ""},
      {"same digest twice: first stored", "kern1", "first"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.version, VersionOf(c.digest));
  }
  EXPECT_EQ("mle2", images_.Lookup("new")->txt_mle_digest);

  // Without the damaged image the next load clears the condition.
  store_->DeleteObject(MakeId(kKeyBaseImages, "damaged"));
  images_.ClearCache();
  EXPECT_EQ("first", VersionOf("kern1"));
  EXPECT_FALSE(LoadErrorSet());
}

TEST_F(BaseImageStoreTest, EmptyStoreReloadsOnEveryLookup) {
  EXPECT_EQ("", VersionOf("kern1"));
  // The second lookup goes to the store again: a store failure shows it.
  store_->FailSqliteCallAfter(0);
  std::string log = Capture([&] { EXPECT_EQ("", VersionOf("kern1")); });
  EXPECT_NE(std::string::npos, log.find("Exception reading base images from config store: disk I/O error"));
  EXPECT_NE(std::string::npos, log.find("Failed to load base image configuration"));
  EXPECT_TRUE(LoadErrorSet());
  Put("8.0.1", Paks("kern1"));
  EXPECT_EQ("8.0.1", VersionOf("kern1"));
  EXPECT_FALSE(LoadErrorSet());
}

TEST_F(BaseImageStoreTest, ClearMakesTheNextLookupReload) {
  Put("8.0.1", Paks("kern1"));
  std::shared_ptr<const BaseImageData> held = images_.Lookup("kern1");
  ASSERT_NE(nullptr, held);
  Put("8.0.2", Paks("kern2"));
  EXPECT_EQ("", VersionOf("kern2"));  // cached before it was stored
  images_.ClearCache();
  EXPECT_EQ("8.0.2", VersionOf("kern2"));
  // A table held across the clear is still the caller's to read.
  EXPECT_EQ("kern1", held->payload_checksums->at("k.gz"));
  std::vector<std::string> versions;
  ASSERT_EQ(ConfigResult::kConfigOk, images_.List(versions));
  EXPECT_EQ((std::vector<std::string>{"8.0.1", "8.0.2"}), versions);
}

TEST_F(BaseImageStoreTest, LastAttestedTime) {
  EXPECT_EQ("1970-01-01T00:00:00Z", FormatAttestedTime(0));
  EXPECT_EQ("2026-11-22T08:15:30Z", FormatAttestedTime(1795335330LL * 1000000 + 999999));
  Put("8.0.1", Paks("kern1"));
  ASSERT_EQ("8.0.1", VersionOf("kern1"));
  images_.UpdateLastAttestedTime("8.0.1");
  std::string when;
  store_->GetObject(MakeId(kKeyBaseImages, "8.0.1"))->GetValue("last_attested_time", &when);
  ASSERT_EQ(20u, when.size());
  EXPECT_EQ('T', when[10]);
  // The update keeps the rest of the record.
  images_.ClearCache();
  EXPECT_EQ("8.0.1", VersionOf("kern1"));

  const struct {
    const char* name;
    std::string version;
    int fail_after;
    const char* line;
  } kCases[] = {
      {"unknown version", "9.9.9", -1, "The HYV base image version '9.9.9' doesn't exist"},
      {"store fails on read", "8.0.1", 0, "Failed to set last attested time for 8.0.1"},
      {"store fails on write", "8.0.1", 6, "Failed to set last attested time for 8.0.1"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    store_->FailSqliteCallAfter(c.fail_after);
    std::string log = Capture([&] { images_.UpdateLastAttestedTime(c.version); });
    store_->FailSqliteCallAfter(-1);
    EXPECT_NE(std::string::npos, log.find(c.line));
  }
}

}  // namespace
}  // namespace Witnessd::Trusted
