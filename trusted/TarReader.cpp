#include "trusted/TarReader.h"

#include <cstring>

#include "platform/Log.h"

namespace Witnessd::Trusted {
namespace {

constexpr size_t kBlock = 512;
constexpr size_t kNameLen = 100;
constexpr size_t kMaxNameCompare = 4096;

// Header layout (offsets into the 512-byte block).
constexpr size_t kModeOffset = 100;
constexpr size_t kUidOffset = 108;
constexpr size_t kGidOffset = 116;
constexpr size_t kSizeOffset = 124;
constexpr size_t kMtimeOffset = 136;
constexpr size_t kChksumOffset = 148;
constexpr size_t kChksumLen = 8;
constexpr size_t kTypeOffset = 156;
constexpr size_t kMagicOffset = 257;
constexpr size_t kPrefixOffset = 345;

// GNU tar's magic and version: "ustar" two blanks and a NUL. POSIX "ustar\0"
// "00" is refused on purpose.
constexpr char kGnuMagic[8] = {'u', 's', 't', 'a', 'r', ' ', ' ', '\0'};

// Numeric fields are parsed as NUL-terminated text; a field without its NUL
// runs on into the following fields, but never past the header block.
bool HeaderOctal(const uint8_t* header, size_t offset, uint64_t* out) {
  return TarReaderConvertFromOctal(reinterpret_cast<const char*>(header) + offset, kBlock - offset, out);
}

// TarReaderCheckEnding: after the first zero byte of a header, the end of
// archive must be zeros for up to two blocks; anything later is ignored.
bool TarReaderCheckEnding(const uint8_t* p, size_t remaining) {
  size_t n = remaining < 2 * kBlock ? remaining : 2 * kBlock;
  for (size_t i = 0; i < n; ++i) {
    if (p[i] != 0) {
      return false;
    }
  }
  return true;
}

// TarReaderGetEntry checks one header at |offset| and returns its entry.
std::unique_ptr<TarEntry> TarReaderGetEntry(TarArchive* archive, size_t offset) {
  static const char* const kFn = "TarReaderGetEntry";
  const uint8_t* h = archive->buffer + offset;
  if (memcmp(h + kMagicOffset, kGnuMagic, sizeof(kGnuMagic)) != 0) {
    Warning("%s: Incorrect magic string.\n", kFn);
    return nullptr;
  }
  uint64_t chksum;
  if (!HeaderOctal(h, kChksumOffset, &chksum)) {
    return nullptr;
  }
  uint64_t sum = 0;
  for (size_t i = 0; i < kBlock; ++i) {
    bool in_chksum = i >= kChksumOffset && i < kChksumOffset + kChksumLen;
    sum += in_chksum ? 0x20 : h[i];
  }
  if (sum != chksum) {
    Warning("%s: Checksum verification failed.\n", kFn);
    return nullptr;
  }
  if (h[kPrefixOffset] != 0) {
    Warning("%s: Entry with unsupported prefix found.\n", kFn);
    return nullptr;
  }
  uint64_t size;
  if (!HeaderOctal(h, kSizeOffset, &size)) {
    return nullptr;
  }
  char type = static_cast<char>(h[kTypeOffset]);
  if (type != '0' && type != '\0' && type != '5') {
    Warning("%s: Unsupported file type in tardisk:'%c'.\n", kFn, type);
    return nullptr;
  }
  auto entry = std::make_unique<TarEntry>();
  const char* name = reinterpret_cast<const char*>(h);
  entry->name.assign(name, strnlen(name, kNameLen));
  entry->type = type;
  entry->size = size;
  entry->data_offset = type == '5' ? 0 : offset + kBlock;
  entry->header = h;
  entry->archive = archive;
  return entry;
}

}  // namespace

bool TarReaderConvertFromOctal(const char* text, size_t max_len, uint64_t* out) {
  uint64_t value = 0;
  size_t i = 0;
  for (; i < max_len && text[i] != '\0'; ++i) {
    char c = text[i];
    if (c < '0' || c > '7' || value > (UINT64_MAX >> 3)) {
      break;
    }
    value = value * 8 + static_cast<uint64_t>(c - '0');
  }
  if (i == max_len || text[i] != '\0') {
    std::string shown(text, strnlen(text, max_len));
    Warning("%s: Bad octal (%s).\n", "TarReaderConvertFromOctal", shown.c_str());
    return false;
  }
  *out = value;
  return true;
}

TarArchive* TarReaderPopulate(const uint8_t* buf, size_t len) {
  if (buf == nullptr || len == 0) {
    return nullptr;
  }
  TarArchivePtr archive(new TarArchive);
  archive->buffer = buf;
  archive->length = len;
  size_t offset = 0;
  for (;;) {
    size_t remaining = len - offset;
    if (buf[offset] == 0) {
      if (!TarReaderCheckEnding(buf + offset, remaining)) {
        Warning("%s: TarReaderCheckEnding failed.\n", "TarReaderPopulate");
        return nullptr;
      }
      return archive.release();
    }
    if (remaining < kBlock) {
      Warning("%s: Truncated header.\n", "TarReaderPopulate");
      return nullptr;
    }
    std::unique_ptr<TarEntry> entry = TarReaderGetEntry(archive.get(), offset);
    if (!entry) {
      return nullptr;
    }
    // The data must fit before the end; the end-of-archive block must follow.
    uint64_t data_room = remaining - kBlock;
    uint64_t padded = entry->size > data_room ? data_room + 1 : (entry->size + kBlock - 1) / kBlock * kBlock;
    if (padded >= data_room) {
      Warning("%s: Archive ends without an end-of-archive block.\n", "TarReaderPopulate");
      return nullptr;
    }
    archive->entries.push_back(std::move(entry));
    offset += kBlock + padded;
  }
}

void TarReaderFree(TarArchive* archive) {
  delete archive;
}

TarEntry* TarReaderFind(TarArchive* archive, const std::string& name) {
  if (archive == nullptr) {
    return nullptr;
  }
  for (auto& e : archive->entries) {
    if ((e->type == '0' || e->type == '\0') &&
        strncmp(e->name.c_str(), name.c_str(), kMaxNameCompare) == 0) {
      return e.get();
    }
  }
  return nullptr;
}

TarEntry* TarReaderOpen(TarArchive* archive, const std::string& name) {
  TarEntry* e = TarReaderFind(archive, name);
  if (e != nullptr) {
    e->open_count.fetch_add(1);
  }
  return e;
}

void TarReaderClose(TarEntry* entry) {
  if (entry != nullptr) {
    entry->open_count.fetch_sub(1);
  }
}

int TarReaderStat(TarArchive* archive, const std::string& name, TarStat* out) {
  TarEntry* e = TarReaderFind(archive, name);
  if (e == nullptr) {
    return -1;
  }
  TarStat st;
  st.size = e->size;
  if (!HeaderOctal(e->header, kModeOffset, &st.mode) || !HeaderOctal(e->header, kMtimeOffset, &st.mtime) ||
      !HeaderOctal(e->header, kUidOffset, &st.uid) || !HeaderOctal(e->header, kGidOffset, &st.gid)) {
    return -1;
  }
  *out = st;
  return 0;
}

int64_t TarReaderRead(const TarEntry* entry, uint8_t* dst, uint64_t len, uint64_t offset) {
  if (entry == nullptr || entry->archive == nullptr || entry->data_offset == 0) {
    return -1;
  }
  if (offset > entry->size || len > entry->size - offset) {
    return -1;
  }
  uint64_t start = entry->data_offset + offset;
  if (start > entry->archive->length || len > entry->archive->length - start || len > INT64_MAX) {
    return -1;
  }
  if (len > 0) {
    memcpy(dst, entry->archive->buffer + start, len);
  }
  return static_cast<int64_t>(len);
}

bool TarReaderIterNext(TarIterator* it, char* out_type, std::string* out_name) {
  if (it->archive == nullptr || it->next >= it->archive->entries.size()) {
    return false;
  }
  const TarEntry& e = *it->archive->entries[it->next++];
  *out_type = e.type;
  *out_name = e.name;
  return true;
}

bool TarReaderReadFile(TarArchive* archive, const std::string& name, std::vector<uint8_t>* out) {
  TarEntry* e = TarReaderOpen(archive, name);
  if (e == nullptr) {
    return false;
  }
  TarStat st;
  bool ok = TarReaderStat(archive, name, &st) == 0 && st.size <= kTarMaxFileSize;
  if (ok) {
    std::vector<uint8_t> data(st.size);
    ok = TarReaderRead(e, data.data(), st.size, 0) == static_cast<int64_t>(st.size);
    if (ok) {
      *out = std::move(data);
    }
  }
  TarReaderClose(e);
  return ok;
}

}  // namespace Witnessd::Trusted
