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

constexpr ConfigResult kOk = ConfigResult::kConfigOk;
constexpr ConfigResult kNotFound = ConfigResult::kConfigNotFound;

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
  void SetUp() override {
    StoreFixture::SetUp();
    ClearBaseImageCache();
  }

  void Put(const std::string& version, const std::vector<PakEntry>& paks) {
    HyvConfig::ConfigStoreObject image(MakeId(kKeyBaseImages, version));
    image.SetValue("version", version);
    for (const PakEntry& pak : paks) {
      ASSERT_TRUE(AddPakToBaseImage(image, pak));
    }
    int status = 0;
    Store()->SetObject(image, status);
  }

  struct Found {
    ConfigResult result;
    std::string version;
    std::string txt;
    std::shared_ptr<const Verify::PayloadChecksumTable> table;
  };
  static Found Lookup(const std::string& digest) {
    Found f;
    f.result = LookupBaseImage(digest, f.version, f.txt, f.table);
    return f;
  }


  static bool LoadErrorSet() {
    auto set = GetStatusConditions();
    return std::find(set.begin(), set.end(), kStatusBaseImagesLoadError) != set.end();
  }
};

TEST_F(BaseImageStoreTest, LookupFindsDigestsAndPayloadTable) {
  Put("8.0.1", Paks("kern1"));
  Found f = Lookup("kern1");
  ASSERT_EQ(kOk, f.result);
  EXPECT_EQ("8.0.1", f.version);
  EXPECT_EQ("mle", f.txt);
  // Only sha-256 / gunzip checksums, from every package, by file name.
  const Verify::PayloadChecksumTable expected = {
      {"k.gz", "kern1"}, {"b.b00", "b-kern1"}, {"u.v00", "u-kern1"}};
  EXPECT_EQ(expected, *f.table);
  const struct {
    const char* name;
    std::string digest;
  } kMisses[] = {{"prefix", "kern"}, {"longer", "kern1 "}, {"sha-1 checksum", "sha1-kern1"},
                 {"txt-mle checksum", "mle"}, {"empty", ""}};
  for (const auto& c : kMisses) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(kNotFound, Lookup(c.digest).result);
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
  Store()->SetObject(damaged, status);

  std::string log = Capture([] { EXPECT_EQ(kNotFound, Lookup("old").result); });
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
    ConfigResult result;
    std::string version;
  } kCases[] = {
      {"later duplicate wins", "new", kOk, "dup"},
      {"no core package: empty digest", "", kOk, "no-core"},
      {"nameless image skipped", "nameless", kNotFound, ""},
      {"damaged image skipped", "bad", kNotFound, ""},
      {"same digest twice: first stored", "kern1", kOk, "first"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Found f = Lookup(c.digest);
    EXPECT_EQ(c.result, f.result);
    EXPECT_EQ(c.version, f.version);
  }
  EXPECT_EQ("mle2", Lookup("new").txt);

  // Without the damaged image the next load clears the condition.
  Store()->DeleteObject(MakeId(kKeyBaseImages, "damaged"));
  ClearBaseImageCache();
  EXPECT_EQ(kOk, Lookup("kern1").result);
  EXPECT_FALSE(LoadErrorSet());
}

TEST_F(BaseImageStoreTest, EmptyStoreReloadsOnEveryLookup) {
  EXPECT_EQ(kNotFound, Lookup("kern1").result);
  // The second lookup goes to the store again: a store failure shows it.
  Store()->FailSqliteCallAfter(0);
  std::string log = Capture([] { EXPECT_EQ(kNotFound, Lookup("kern1").result); });
  EXPECT_NE(std::string::npos, log.find("Exception reading base images from config store: disk I/O error"));
  EXPECT_NE(std::string::npos, log.find("Failed to load base image configuration"));
  EXPECT_TRUE(LoadErrorSet());
  ExpectLocksReleased();
  Put("8.0.1", Paks("kern1"));
  EXPECT_EQ(kOk, Lookup("kern1").result);
  EXPECT_FALSE(LoadErrorSet());
}

TEST_F(BaseImageStoreTest, ClearMakesTheNextLookupReload) {
  Put("8.0.1", Paks("kern1"));
  Found held = Lookup("kern1");
  ASSERT_EQ(kOk, held.result);
  Put("8.0.2", Paks("kern2"));
  EXPECT_EQ(kNotFound, Lookup("kern2").result);  // cached before it was stored
  {
    MXUser::WriteGuard guard(ConfigLock());  // as the import and delete do
    ClearBaseImageCache();
  }
  EXPECT_EQ(kOk, Lookup("kern2").result);
  // A table held across the clear is still the caller's to read.
  EXPECT_EQ("kern1", held.table->at("k.gz"));
  std::vector<std::string> versions;
  ASSERT_EQ(kOk, ListBaseImages(versions));
  EXPECT_EQ((std::vector<std::string>{"8.0.1", "8.0.2"}), versions);
}

TEST_F(BaseImageStoreTest, LastAttestedTime) {
  EXPECT_EQ("1970-01-01T00:00:00Z", FormatAttestedTime(0));
  EXPECT_EQ("2026-11-22T08:15:30Z", FormatAttestedTime(1795335330LL * 1000000 + 999999));
  Put("8.0.1", Paks("kern1"));
  ASSERT_EQ(kOk, Lookup("kern1").result);
  UpdateLastAttestedTime("8.0.1");
  std::string when;
  Store()->GetObject(MakeId(kKeyBaseImages, "8.0.1"))->GetValue("last_attested_time", &when);
  ASSERT_EQ(20u, when.size());
  EXPECT_EQ('T', when[10]);
  // The update keeps the rest of the record.
  ClearBaseImageCache();
  EXPECT_EQ(kOk, Lookup("kern1").result);

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
    Store()->FailSqliteCallAfter(c.fail_after);
    std::string log = Capture([&] { UpdateLastAttestedTime(c.version); });
    Store()->FailSqliteCallAfter(-1);
    EXPECT_NE(std::string::npos, log.find(c.line));
    ExpectLocksReleased();
  }
}

}  // namespace
}  // namespace Witnessd::Trusted
