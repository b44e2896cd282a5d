// A strict, read-only reader for tar archives held in one memory buffer. It
// accepts only GNU-style headers ("ustar  " magic), no name prefixes, regular
// files and directories, and a clean end of archive.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Witnessd::Trusted {

struct TarArchive;

struct TarEntry {
  std::string name;
  char type = '0';               // '0' or '\0': regular file; '5': directory
  uint64_t size = 0;             // data length
  uint64_t data_offset = 0;      // header offset + 512; 0 for a directory
  const uint8_t* header = nullptr;
  TarArchive* archive = nullptr;
  std::atomic<int> open_count{0};
};

struct TarArchive {
  const uint8_t* buffer = nullptr;  // the caller's; must outlive the archive
  size_t length = 0;
  std::vector<std::unique_ptr<TarEntry>> entries;  // archive order
};

struct TarStat {
  uint64_t size = 0;
  uint64_t mode = 0;
  uint64_t mtime = 0;
  uint64_t uid = 0;
  uint64_t gid = 0;
};

// The largest entry TarReaderReadFile returns.
inline constexpr uint64_t kTarMaxFileSize = 0x100000;

// TarReaderConvertFromOctal parses the NUL-terminated octal text at |text|,
// reading at most |max_len| bytes. Empty text is 0. Returns false (and logs)
// for any non-octal character, a missing terminator or 64-bit overflow.
bool TarReaderConvertFromOctal(const char* text, size_t max_len, uint64_t* out);

// TarReaderPopulate indexes every entry of |buf|. Returns nullptr for an empty
// buffer or any malformed header or ending; the caller frees the result with
// TarReaderFree. The buffer is not copied.
TarArchive* TarReaderPopulate(const uint8_t* buf, size_t len);
void TarReaderFree(TarArchive* archive);

struct TarArchiveDeleter {
  void operator()(TarArchive* a) const { TarReaderFree(a); }
};
using TarArchivePtr = std::unique_ptr<TarArchive, TarArchiveDeleter>;

// TarReaderFind returns the first regular file named |name|, or nullptr.
TarEntry* TarReaderFind(TarArchive* archive, const std::string& name);
// TarReaderOpen is Find plus an atomic increment of the entry's open count;
// TarReaderClose decrements it.
TarEntry* TarReaderOpen(TarArchive* archive, const std::string& name);
void TarReaderClose(TarEntry* entry);

// TarReaderStat fills |out| from the header of regular file |name|. Returns 0,
// or -1 when the file is missing or a field is not valid octal.
int TarReaderStat(TarArchive* archive, const std::string& name, TarStat* out);

// TarReaderRead copies |len| bytes of the entry's data from |offset|. Returns
// |len|, or -1 when the range is outside the entry or the buffer.
int64_t TarReaderRead(const TarEntry* entry, uint8_t* dst, uint64_t len, uint64_t offset);

// Iteration over every entry in archive order.
struct TarIterator {
  TarArchive* archive = nullptr;
  size_t next = 0;
};
// TarReaderIterNext gives the next entry's type and name; false at the end.
bool TarReaderIterNext(TarIterator* it, char* out_type, std::string* out_name);

// TarReaderReadFile reads regular file |name| whole. Fails for a missing file,
// a bad header field or a size above kTarMaxFileSize.
bool TarReaderReadFile(TarArchive* archive, const std::string& name, std::vector<uint8_t>* out);

}  // namespace Witnessd::Trusted
