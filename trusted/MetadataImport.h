// Signed package metadata of a hypervisor image database (an in-memory tar):
// package properties and the payload checksums of one package, accepted only
// when a PKCS#7 block of the package's signature entry verifies the
// descriptor against the maker's certificates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "verify/QuoteVerify.h"

namespace Witnessd::Trusted {

using Verify::ByteView;
using Verify::VerifyStatus;

// Longest accepted texts; every field below holds one more byte for the NUL.
inline constexpr size_t kPakTextMax = 63;
inline constexpr size_t kChecksumTextMax = 255;
inline constexpr uint32_t kMaxPayloadChecksums = 11;

struct PakProperties {
  char name[64];
  char type[64];
  char version[64];
  char vendor[64];
  char summary[64];
};

struct PayloadChecksum {
  char checksum[256];
  char checksum_type[64];
  char verify_process[64];  // empty when the descriptor has none
};

struct PayloadRecord {
  char name[64];
  char file_name[64];
  char type[64];
  uint32_t checksum_count;
  PayloadChecksum checksums[kMaxPayloadChecksums];
};

// Payload file name (or payload name, for payloads the image profile does not
// list) to its record.
using PayloadTable = std::unordered_map<std::string, PayloadRecord>;

inline constexpr VerifyStatus MakeImportStatus(uint32_t category, uint32_t code) {
  return (uint64_t{code} << 32) | category;
}
inline constexpr VerifyStatus kPakDescriptorMissing = MakeImportStatus(1, 0);
inline constexpr VerifyStatus kPakEntryMissing = MakeImportStatus(1, 6);
inline constexpr VerifyStatus kPakCertsUnusable = MakeImportStatus(1, 7);
inline constexpr VerifyStatus kPakSignatureInvalid = MakeImportStatus(5, 12);
inline constexpr VerifyStatus kPakTableFailed = MakeImportStatus(6, 13);
inline constexpr VerifyStatus kPakXmlUnusable = MakeImportStatus(6, 14);
inline constexpr VerifyStatus kPakMergeFailed = MakeImportStatus(9, 13);

// ImportPakMetadata checks the signature of package |pak_name| of the imgdb
// tar against |certs| (PEM) and reads its payloads, keyed by payload file
// name, into |out|. Returns 0 or one of the statuses above; |out| is
// untouched on failure.
VerifyStatus ImportPakMetadata(ByteView tar, ByteView certs, const std::string& pak_name, PayloadTable* out);

// GetPakProperties reads the five properties of package |pak_name|'s
// descriptor. The signature is not checked here.
VerifyStatus GetPakProperties(ByteView tar, const std::string& pak_name, PakProperties* out);

}  // namespace Witnessd::Trusted
