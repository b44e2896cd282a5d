// Signed package metadata import over arbitrary tar bytes, with a fixed maker
// certificate (the one that signed the seeds). Invariants: the answer is 0 or
// a documented status; on success every record's texts are terminated within
// their fields and hold at most the allowed number of checksums.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/Log.h"
#include "trusted/MetadataImport.h"

using namespace Witnessd::Trusted;

namespace {

const std::string& MakerCert() {
  static const std::string cert = [] {
    std::ifstream in(WITNESSD_FUZZ_DATA "/imgdb_maker_ca.pem");
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }();
  if (cert.empty()) {
    std::abort();  // the fixed certificate must be there
  }
  return cert;
}

template <size_t N>
void CheckText(const char (&field)[N]) {
  if (memchr(field, '\0', N) == nullptr) {
    std::abort();
  }
}

bool Documented(VerifyStatus s) {
  return s == 0 || s == kPakDescriptorMissing || s == kPakEntryMissing || s == kPakCertsUnusable ||
         s == kPakSignatureInvalid || s == kPakTableFailed || s == kPakXmlUnusable || s == kPakMergeFailed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (Log_SetMaxLevel(kLogError), true);
  (void)quiet;
  const std::string& cert = MakerCert();
  ByteView certs{cert.size(), reinterpret_cast<const uint8_t*>(cert.data())};
  for (const char* pak : {"hyv-base", "hyv-update"}) {
    PayloadTable table;
    VerifyStatus status = ImportPakMetadata({size, data}, certs, pak, &table);
    if (!Documented(status) || (status != 0 && !table.empty())) {
      std::abort();
    }
    for (const auto& [key, record] : table) {
      CheckText(record.name);
      CheckText(record.file_name);
      CheckText(record.type);
      if (record.checksum_count > kMaxPayloadChecksums) {
        std::abort();
      }
      for (uint32_t i = 0; i < record.checksum_count; ++i) {
        CheckText(record.checksums[i].checksum);
        CheckText(record.checksums[i].checksum_type);
        CheckText(record.checksums[i].verify_process);
      }
    }
    PakProperties properties;
    if (GetPakProperties({size, data}, pak, &properties) == 0) {
      CheckText(properties.name);
      CheckText(properties.version);
      CheckText(properties.summary);
    }
  }
  return 0;
}
