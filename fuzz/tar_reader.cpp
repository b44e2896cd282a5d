// The tar reader over arbitrary bytes. Invariants: an archive is either
// refused whole or every entry it lists can be stat'ed and read within the
// input, never larger than the per-file limit.
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "trusted/TarReader.h"

using namespace Witnessd::Trusted;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (Log_SetMaxLevel(kLogError), true);
  (void)quiet;
  TarArchivePtr archive(TarReaderPopulate(data, size));
  if (archive == nullptr) {
    return 0;
  }
  TarIterator it{archive.get(), 0};
  char type = 0;
  std::string name;
  while (TarReaderIterNext(&it, &type, &name)) {
    TarStat stat;
    if (TarReaderStat(archive.get(), name, &stat) != 0) {
      continue;  // a directory, or a later entry of the same name
    }
    std::vector<uint8_t> contents;
    if (TarReaderReadFile(archive.get(), name, &contents)) {
      if (contents.size() > kTarMaxFileSize || contents.size() > size) {
        std::abort();
      }
    }
    if (TarEntry* entry = TarReaderOpen(archive.get(), name)) {
      uint8_t byte;
      // One byte past any end the entry could have must be refused.
      if (TarReaderRead(entry, &byte, 1, size) != -1) {
        std::abort();
      }
      TarReaderClose(entry);
    }
  }
  return 0;
}
