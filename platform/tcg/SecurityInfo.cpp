#include "platform/tcg/SecurityInfo.h"

#include <cstring>

#include "platform/ByteCursor.h"

namespace HvkCtl::Security {
namespace {

constexpr uint32_t kEvNoAction = 3;
constexpr uint16_t kAlgSha1 = 0x0004;
constexpr size_t kSha1Size = 20;
constexpr char kSpecIdSignature[16] = "Spec ID Event03";  // with its NUL: 16 bytes
constexpr uint32_t kMaxAlgorithms = 16;
constexpr uint16_t kMaxDigestSize = 128;

// Event logs are written by UEFI firmware: little-endian throughout.
using Hearth::ByteCursor;

using Entry = SecurityInfoImpl::Entry;
using Algorithm = SecurityInfoImpl::Algorithm;

// Known digest sizes; an algorithm outside this list keeps the size the
// header declares.
uint16_t KnownDigestSize(uint16_t alg) {
  switch (alg) {
    case 0x0004: return 20;  // SHA1
    case 0x000B: return 32;  // SHA256
    case 0x000C: return 48;  // SHA384
    case 0x000D: return 64;  // SHA512
    case 0x0012: return 32;  // SM3_256
    default: return 0;
  }
}

// TCG_PCClientPCREvent: pcrIndex, eventType, digest[20], eventSize, event.
bool ReadLegacyEvent(ByteCursor* r, Entry* out) {
  const uint8_t* digest;
  uint32_t event_size;
  const uint8_t* event;
  if (!r->U32Le(&out->pcrIndex) || !r->U32Le(&out->eventType) || !r->Bytes(kSha1Size, &digest) ||
      !r->U32Le(&event_size) || !r->Bytes(event_size, &event)) {
    return false;
  }
  out->digests.assign(1, {kAlgSha1, std::vector<uint8_t>(digest, digest + kSha1Size)});
  out->eventData.assign(event, event + event_size);
  return true;
}

// TCG_EfiSpecIDEvent, which must fill the header event's data exactly:
// signature[16], platformClass, specVersionMinor, specVersionMajor,
// specErrata, uintnSize, numberOfAlgorithms, {algorithmId, digestSize}[n],
// vendorInfoSize, vendorInfo[vendorInfoSize].
bool ReadSpecIdEvent(const std::vector<uint8_t>& data, std::vector<Algorithm>* out) {
  ByteCursor r(data.data(), data.size());
  const uint8_t* signature;
  uint32_t platform_class, num_algorithms;
  uint8_t minor, major, errata, uintn_size, vendor_size;
  const uint8_t* vendor;
  if (!r.Bytes(16, &signature) || !r.U32Le(&platform_class) || !r.U8(&minor) || !r.U8(&major) || !r.U8(&errata) ||
      !r.U8(&uintn_size) || !r.U32Le(&num_algorithms) || num_algorithms == 0 || num_algorithms > kMaxAlgorithms) {
    return false;
  }
  if (major != 2 || (uintn_size != 1 && uintn_size != 2)) {  // TPM 2.0; UINT32 or UINT64 sizes
    return false;
  }
  out->clear();
  for (uint32_t i = 0; i < num_algorithms; ++i) {
    Algorithm a;
    if (!r.U16Le(&a.algorithm) || !r.U16Le(&a.digestSize) || a.digestSize == 0 || a.digestSize > kMaxDigestSize) {
      return false;
    }
    uint16_t known = KnownDigestSize(a.algorithm);
    if (known != 0 && known != a.digestSize) {
      return false;
    }
    for (const Algorithm& seen : *out) {
      if (seen.algorithm == a.algorithm) {
        return false;
      }
    }
    out->push_back(a);
  }
  return r.U8(&vendor_size) && r.Bytes(vendor_size, &vendor) && r.Remaining() == 0;
}

// TCG_PCR_EVENT2: pcrIndex, eventType, digests (count, {algId,
// digest[size from the header]}[count]), eventSize, event.
bool ReadAgileEvent(ByteCursor* r, const std::vector<Algorithm>& algorithms, Entry* out) {
  uint32_t count;
  if (!r->U32Le(&out->pcrIndex) || !r->U32Le(&out->eventType) || !r->U32Le(&count) || count > algorithms.size()) {
    return false;
  }
  out->digests.clear();
  for (uint32_t i = 0; i < count; ++i) {
    uint16_t alg;
    if (!r->U16Le(&alg)) {
      return false;
    }
    uint16_t size = 0;
    for (const Algorithm& a : algorithms) {
      if (a.algorithm == alg) {
        size = a.digestSize;
      }
    }
    const uint8_t* digest;
    if (size == 0 || !r->Bytes(size, &digest)) {  // an algorithm the header does not declare
      return false;
    }
    out->digests.push_back({alg, std::vector<uint8_t>(digest, digest + size)});
  }
  uint32_t event_size;
  const uint8_t* event;
  if (!r->U32Le(&event_size) || !r->Bytes(event_size, &event)) {
    return false;
  }
  out->eventData.assign(event, event + event_size);
  return true;
}

bool Parse(const uint8_t* log, size_t len, std::vector<Entry>* out, std::vector<Algorithm>* algorithms) {
  ByteCursor r(log, len);
  Entry first;
  if (!ReadLegacyEvent(&r, &first)) {
    return false;
  }
  bool agile = first.eventType == kEvNoAction && first.eventData.size() >= sizeof(kSpecIdSignature) &&
               std::memcmp(first.eventData.data(), kSpecIdSignature, sizeof(kSpecIdSignature)) == 0;
  if (agile) {
    // The header event is fixed: PCR 0 and an all-zero SHA-1 slot.
    static const uint8_t kZero[kSha1Size] = {};
    if (first.pcrIndex != 0 || std::memcmp(first.digests[0].value.data(), kZero, kSha1Size) != 0 ||
        !ReadSpecIdEvent(first.eventData, algorithms)) {
      return false;
    }
  } else {
    algorithms->assign(1, {kAlgSha1, static_cast<uint16_t>(kSha1Size)});
  }
  out->push_back(std::move(first));
  while (r.Remaining() > 0) {
    Entry e;
    if (!(agile ? ReadAgileEvent(&r, *algorithms, &e) : ReadLegacyEvent(&r, &e))) {
      return false;
    }
    out->push_back(std::move(e));
  }
  return true;
}

}  // namespace

bool SecurityInfoImpl::ParseTcgEventLog(const uint8_t* log, size_t len, std::vector<Entry>* out,
                                        std::vector<Algorithm>* out_algorithms) {
  out->clear();
  std::vector<Algorithm> algorithms;
  if (!Parse(log, len, out, &algorithms)) {
    out->clear();
    return false;
  }
  if (out_algorithms != nullptr) {
    *out_algorithms = std::move(algorithms);
  }
  return true;
}

}  // namespace HvkCtl::Security
