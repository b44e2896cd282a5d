#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/trusted/TarBuilder.h"
#include "trusted/TarReader.h"

namespace {

using Witnessd::Testing::TarBuilder;
using Witnessd::Testing::TarHeaderSpec;
using namespace Witnessd::Trusted;

TarArchivePtr Populate(const std::vector<uint8_t>& bytes) {
  return TarArchivePtr(TarReaderPopulate(bytes.data(), bytes.size()));
}

TEST(TarReaderPopulate, IndexesFilesAndDirectoriesInOrder) {
  TarHeaderSpec dir;
  dir.name = "var/db/";
  dir.type = '5';
  TarBuilder b;
  b.Add(dir).AddFile("var/db/a.orig", "hello").AddFile("var/db/b.sig", std::string(513, 'x')).End();
  auto archive = Populate(b.Bytes());
  ASSERT_TRUE(archive);
  TarIterator it{archive.get()};
  char type;
  std::string name;
  std::vector<std::string> seen;
  while (TarReaderIterNext(&it, &type, &name)) {
    seen.push_back(std::string(1, type) + name);
  }
  EXPECT_EQ((std::vector<std::string>{"5var/db/", "0var/db/a.orig", "0var/db/b.sig"}), seen);

  std::vector<uint8_t> data;
  ASSERT_TRUE(TarReaderReadFile(archive.get(), "var/db/b.sig", &data));
  EXPECT_EQ(std::vector<uint8_t>(513, 'x'), data);
  EXPECT_FALSE(TarReaderReadFile(archive.get(), "var/db/", &data));  // directories are not files
  EXPECT_FALSE(TarReaderReadFile(archive.get(), "var/db/missing", &data));

  TarStat st;
  ASSERT_EQ(0, TarReaderStat(archive.get(), "var/db/a.orig", &st));
  EXPECT_EQ(5u, st.size);
  EXPECT_EQ(0644u, st.mode);
  EXPECT_EQ(01750u, st.uid);
}

// Every row differs from a valid single-file archive in one field.
TEST(TarReaderPopulate, StrictnessRules) {
  struct Case {
    const char* name;
    void (*mutate)(TarHeaderSpec*);
    bool ok;
  };
  const Case kCases[] = {
      {"valid", [](TarHeaderSpec*) {}, true},
      {"POSIX magic", [](TarHeaderSpec* s) { s->magic = std::string("ustar\0" "00", 8); }, false},
      {"checksum off by one", [](TarHeaderSpec* s) { s->checksum_delta = 1; }, false},
      {"name prefix", [](TarHeaderSpec* s) { s->prefix_first = 'p'; }, false},
      {"symbolic link", [](TarHeaderSpec* s) { s->type = '2'; }, false},
      {"hard link", [](TarHeaderSpec* s) { s->type = '1'; }, false},
      {"NUL type is a file", [](TarHeaderSpec* s) { s->type = '\0'; }, true},
      {"size with trailing blank", [](TarHeaderSpec* s) { s->size = "0000000005 "; }, false},
      {"size with 8", [](TarHeaderSpec* s) { s->size = "00000000008"; }, false},
      {"size beyond the buffer", [](TarHeaderSpec* s) { s->size = "77777777777"; }, false},
      {"name of 100 characters", [](TarHeaderSpec* s) { s->name = std::string(100, 'n'); }, true},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    TarHeaderSpec entry;
    entry.name = "file";
    entry.data = "hello";
    c.mutate(&entry);
    TarBuilder b;
    b.Add(entry).End();
    auto archive = Populate(b.Bytes());
    EXPECT_EQ(c.ok, archive != nullptr);
    if (archive) {
      EXPECT_EQ(entry.name, archive->entries.at(0)->name);
    }
  }
}

TEST(TarReaderPopulate, EndOfArchiveRules) {
  const struct {
    const char* name;
    size_t zero_bytes;
    std::string after;
    bool ok;
  } kCases[] = {
      {"two zero blocks", 1024, "", true},
      {"one zero block", 512, "", true},
      {"short zero tail", 10, "", true},
      {"no end block", 0, "", false},
      {"garbage inside the first 1024 bytes", 700, "junk", false},
      {"garbage after 1024 zero bytes", 1024, "junk", true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TarBuilder b;
    b.AddFile("file", "hello").End(c.zero_bytes).Append(c.after);
    EXPECT_EQ(c.ok, Populate(b.Bytes()) != nullptr);
  }
}

TEST(TarReaderPopulate, EveryStrictPrefixOfAnArchiveFails) {
  TarBuilder b;
  b.AddFile("a", "0123456789").AddFile("b", std::string(600, 'b')).End(512);
  const std::vector<uint8_t>& full = b.Bytes();
  ASSERT_TRUE(Populate(full));
  // Cutting inside the last entry's data or header must fail; a cut inside the
  // end block leaves a (shorter) valid ending.
  size_t end_block = full.size() - 512;
  for (size_t len = 0; len < end_block; ++len) {
    std::vector<uint8_t> cut(full.begin(), full.begin() + len);
    ASSERT_FALSE(TarArchivePtr(TarReaderPopulate(cut.data(), cut.size()))) << len;
  }
}

TEST(TarReaderConvertFromOctal, Values) {
  const struct {
    std::string text;
    bool ok;
    uint64_t value;
  } kCases[] = {
      {std::string("\0", 1), true, 0},
      {std::string("0000644\0", 8), true, 0644},
      {std::string("1777777777777777777777\0", 23), true, UINT64_MAX},
      {std::string("2000000000000000000000\0", 23), false, 0},
      {std::string("644 \0", 5), false, 0},
      {std::string("64a\0", 4), false, 0},
      {std::string("0644", 4), false, 0},  // no terminator within the field
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    uint64_t v = 12345;
    EXPECT_EQ(c.ok, TarReaderConvertFromOctal(c.text.data(), c.text.size(), &v));
    if (c.ok) {
      EXPECT_EQ(c.value, v);
    }
  }
}

TEST(TarReaderRead, RangesOutsideTheEntryFail) {
  TarBuilder b;
  b.AddFile("f", "abcdef").End();
  auto archive = Populate(b.Bytes());
  ASSERT_TRUE(archive);
  TarEntry* e = TarReaderOpen(archive.get(), "f");
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(1, e->open_count.load());
  uint8_t buf[8];
  EXPECT_EQ(2, TarReaderRead(e, buf, 2, 4));
  EXPECT_EQ(0, memcmp(buf, "ef", 2));
  EXPECT_EQ(-1, TarReaderRead(e, buf, 3, 4));
  EXPECT_EQ(-1, TarReaderRead(e, buf, 1, UINT64_MAX));
  TarReaderClose(e);
  EXPECT_EQ(0, e->open_count.load());
}

TEST(TarReaderReadFile, SizeLimitIsOneMebibyte) {
  for (size_t size : {size_t{0x100000}, size_t{0x100001}}) {
    SCOPED_TRACE(size);
    TarBuilder b;
    b.AddFile("big", std::string(size, 'z')).End();
    auto archive = Populate(b.Bytes());
    ASSERT_TRUE(archive);
    std::vector<uint8_t> out;
    EXPECT_EQ(size == 0x100000, TarReaderReadFile(archive.get(), "big", &out));
  }
}

// Python's tarfile writing the GNU format is an independent producer.
TEST(TarReaderPopulate, ReadsArchivesWrittenByPythonTarfile) {
  std::string dir = std::filesystem::temp_directory_path() / ("witnessd-tar-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::string script =
      "import io,tarfile,sys\n"
      "t=tarfile.open(sys.argv[1],'w',format=tarfile.GNU_FORMAT)\n"
      "d=tarfile.TarInfo('var/db/hyvstore/paks'); d.type=tarfile.DIRTYPE; t.addfile(d)\n"
      "for n,s in (('var/db/hyvstore/paks/hyv-base.orig',b'<pak/>'),('x',b'y'*1000)):\n"
      "  i=tarfile.TarInfo(n); i.size=len(s); t.addfile(i,io.BytesIO(s))\n"
      "t.close()\n";
  std::string tar_path = dir + "/a.tar";
  std::ofstream(dir + "/mk.py") << script;
  ASSERT_EQ(0, system(("python3 " + dir + "/mk.py " + tar_path).c_str()));
  std::ifstream in(tar_path, std::ios::binary);
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::filesystem::remove_all(dir);
  auto archive = Populate(bytes);
  ASSERT_TRUE(archive);
  ASSERT_EQ(3u, archive->entries.size());
  std::vector<uint8_t> data;
  ASSERT_TRUE(TarReaderReadFile(archive.get(), "var/db/hyvstore/paks/hyv-base.orig", &data));
  EXPECT_EQ("<pak/>", std::string(data.begin(), data.end()));
}

}  // namespace
