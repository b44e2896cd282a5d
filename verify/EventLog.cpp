#include "verify/EventLog.h"

#include <cstring>

#include "platform/ByteCursor.h"
#include "platform/Hex.h"
#include "platform/Log.h"

namespace Witnessd::Verify {
namespace {

constexpr uint32_t kSha256Bytes = 32;
constexpr uint32_t kHvkEventIdSecureBoot = 5;
constexpr uint32_t kTxtPcr = 17;
constexpr uint32_t kUpdatePcr = 11;
constexpr uint32_t kSecureBootPcr = 10;
constexpr const char* kSecureBootPayload = "uefiSecureBootEnabled = TRUE";
constexpr const char* kTxtPayload = "b";
constexpr const char* kUnknownPayload = "Unknown";
constexpr const char* kKernelPayload = "k.b00";
constexpr uint32_t kKernelPcr = 12;
constexpr uint32_t kTxtKernelPcr = 19;
// Tagged event id of boot modules, the TXT launch marker among them.
constexpr uint32_t kBootModuleEventId = 2;
constexpr uint32_t kAllPcrs = (1u << kNumPcrs) - 1;

bool InMask(uint32_t mask, uint32_t pcr) {
  return pcr < kNumPcrs && ((mask >> pcr) & 1) != 0;
}

// TaggedText reads an EV_EVENT_TAG event's id and text. The data must hold
// id (UINT32), size N (UINT32) and N bytes whose last is the only zero.
// False for any other event.
bool TaggedText(const TcgEventRecord& e, uint32_t* out_id, const char** out_text) {
  Hearth::ByteCursor data(e.eventData, e.eventDataSize);
  uint32_t id, size;
  const uint8_t* bytes;
  if (e.eventType != kEvEventTag || !data.U32Le(&id) || !data.U32Le(&size) || size == 0 ||
      !data.Bytes(size, &bytes)) {
    return false;
  }
  const char* text = reinterpret_cast<const char*>(bytes);
  if (text[size - 1] != '\0' || strnlen(text, size) != size - 1) {
    return false;
  }
  *out_id = id;
  *out_text = text;
  return true;
}

// RecordsTxtLaunch is true when an event of PCR 17, if |pcrs| has it, is the
// boot-module tag "b".
bool RecordsTxtLaunch(const TcgEventRecord* events, uint32_t count, uint32_t pcrs) {
  uint32_t id;
  const char* text;
  for (uint32_t i = 0; events != nullptr && i < count && InMask(pcrs, kTxtPcr); ++i) {
    if (events[i].pcrIndex == kTxtPcr && TaggedText(events[i], &id, &text) && id == kBootModuleEventId &&
        std::strcmp(text, kTxtPayload) == 0) {
      return true;
    }
  }
  return false;
}

// CompareWithQuote compares the replayed SHA-256 PCRs in |pcrs| with the
// SHA256 bank of |evidence|, lowest first.
VerifyStatus CompareWithQuote(const uint8_t (*replay)[kSha256Bytes], uint32_t pcrs, const QuoteEvidence* evidence) {
  const uint8_t(*quoted)[kPcrSlotBytes] = evidence->pcrs[PcrBankIndex(kTpmAlgSha256)];
  for (uint32_t pcr = 0; pcr < kNumPcrs; ++pcr) {
    if (!InMask(pcrs, pcr)) {
      continue;
    }
    if (std::memcmp(replay[pcr], quoted[pcr], kSha256Bytes) != 0) {
      char got[2 * kSha256Bytes + 1], want[2 * kSha256Bytes + 1];
      Hearth::HexEncode(replay[pcr], kSha256Bytes, got);
      Hearth::HexEncode(quoted[pcr], kSha256Bytes, want);
      Warning("TPM2VLIB: PCR %u data mismatch during replay, Got %s Expected: %s", pcr, got, want);
      return kReplayMismatch;
    }
  }
  return kVerifyOk;
}

// Which required events were seen.
struct Seen {
  bool hvkernel = false;
  bool system = false;
  bool system_boot = false;
  bool update = false;
  bool secure_boot = false;
  bool txt = false;
};

}  // namespace

VerifyStatus FindSha256Digest(const TcgDigest* digests, uint32_t count, const TcgDigest** out) {
  const TcgDigest* found = nullptr;
  for (uint32_t i = 0; digests != nullptr && i < count; ++i) {
    if (digests[i].algorithm == kTpmAlgSha256 && digests[i].size == kSha256Bytes) {
      if (found != nullptr) {
        return kDuplicateSha256Digest;
      }
      found = &digests[i];
    }
  }
  if (found == nullptr) {
    return kNoSha256Digest;
  }
  *out = found;
  return kVerifyOk;
}

bool DigestMatchesHex(const uint8_t* digest, uint16_t size, const char* expected) {
  // Compared digit by digit as lower-case hex, stopping at the first
  // difference or at the end of |expected|, which must end exactly here.
  for (uint16_t i = 0; i < size; ++i) {
    if (expected[2 * i] != Hearth::kHexDigits[digest[i] >> 4] ||
        expected[2 * i + 1] != Hearth::kHexDigits[digest[i] & 0xf]) {
      return false;
    }
  }
  return expected[2 * size_t{size}] == '\0';
}

namespace {

// Validate is ValidateEventLog, or CheckEventLog when |evidence| is null.
VerifyStatus Validate(TcgEventRecord* events, uint32_t count, const HostClaims* claims,
                      const char* expected_txt_digest, const PayloadChecksumTable* checksums,
                      const QuoteEvidence* evidence) {
  // A real boot log gives a few warnings per firmware event: written at once.
  Hearth::LogLineBatch batch;
  const bool replays = evidence != nullptr;
  uint8_t replay[kNumPcrs][kSha256Bytes];
  std::memset(replay, 0, sizeof(replay));
  if (events == nullptr || count == 0 || claims == nullptr || expected_txt_digest == nullptr ||
      checksums == nullptr) {
    Warning("TPM2VLIB: Invalid input");
    return kEventInvalidInput;
  }
  if (claims->txtEnabled == 0) {
    for (uint32_t pcr = 17; pcr <= 22; ++pcr) {
      std::memset(replay[pcr], 0xff, kSha256Bytes);
    }
  }
  const uint32_t core_pcr = claims->txtEnabled != 0 ? 19 : 12;
  Seen seen;

  for (uint32_t i = 0; i < count; ++i) {
    TcgEventRecord& e = events[i];
    // EV_EVENT_TAG data: hvkEventId UINT32, payload length UINT32, payload.
    uint32_t hvk_event_id = 0;
    uint32_t payload_len = 0;
    Hearth::ByteCursor header(e.eventData, e.eventDataSize);
    if (!header.U32Le(&hvk_event_id) || !header.U32Le(&payload_len)) {
      hvk_event_id = 0;
      payload_len = 0;
    }
    uint64_t check_size = uint64_t{payload_len} + 8;
    if (e.eventType != kEvEventTag || e.eventData == nullptr || e.eventDataSize < check_size) {
      Warning("TPM2VLIB: Invalid event: TCG Type: %u, Expected: %u", e.eventType, kEvEventTag);
      Warning("TPM2VLIB: Invalid event: event data size: %u, check size: %lu", e.eventDataSize,
              static_cast<unsigned long>(check_size));
      if (e.pcrIndex > 7) {
        Warning("TPM2VLIB: Invalid event at index: %u, PCR: %u", i, e.pcrIndex);
        return kEventInvalidInput;
      }
      continue;  // firmware events below PCR 8 are not examined or replayed
    }
    // The replay table has 24 entries, and a payload needs at least its NUL.
    if (payload_len == 0 || e.pcrIndex >= kNumPcrs) {
      Warning("TPM2VLIB: Invalid event at index: %u, PCR: %u", i, e.pcrIndex);
      return kEventInvalidInput;
    }

    // A payload that is not exactly one NUL-terminated text is renamed
    // "Unknown" in place, on purpose: the event goes on under that name and
    // so normally fails the checksum lookup with a readable warning.
    char* payload = reinterpret_cast<char*>(e.eventData + 8);
    if (payload[payload_len - 1] != '\0' || std::strlen(payload) < payload_len - 1) {
      std::strncpy(payload, kUnknownPayload, payload_len);
      payload[payload_len - 1] = '\0';
    }

    VerifyStatus status = kVerifyOk;
    const TcgDigest* sha256 = nullptr;
    if (e.pcrIndex == kUpdatePcr || e.pcrIndex == core_pcr) {
      auto it = checksums->end();
      if (hvk_event_id != 1 && hvk_event_id != 2) {
        Warning("TPM2VLIB: Unexpected hvkEventId %u in core system PCR %u", hvk_event_id, e.pcrIndex);
        status = kUnexpectedHvkEventId;
      } else if ((it = checksums->find(payload)) == checksums->end()) {
        Warning("TPM2VLIB: Missing checksum for %s", payload);
        status = kChecksumMissing;
      } else if ((status = FindSha256Digest(e.digests, e.digestCount, &sha256)) == kVerifyOk &&
                 !DigestMatchesHex(sha256->digest, sha256->size, it->second.c_str())) {
        status = kChecksumMismatch;
      }
      if (status == kVerifyOk) {
        if (e.pcrIndex == core_pcr) {
          seen.hvkernel |= std::strcmp(payload, kKernelPayload) == 0;
          seen.system |= std::strcmp(payload, "s.v00") == 0;
          seen.system_boot |= std::strcmp(payload, "sb.v00") == 0;
        } else {
          seen.update |= std::strcmp(payload, "hyvupdt.v00") == 0;
        }
      }
    } else if (e.pcrIndex == kSecureBootPcr) {
      if (hvk_event_id == kHvkEventIdSecureBoot && std::strcmp(payload, kSecureBootPayload) == 0) {
        seen.secure_boot = true;
      }
    } else if (e.pcrIndex == kTxtPcr) {
      if (hvk_event_id == kBootModuleEventId && std::strcmp(payload, kTxtPayload) == 0) {
        if (seen.txt) {
          Warning("TPM2VLIB: Multiple entries found for TXT event");
          status = kTxtEventInvalid;
        } else {
          seen.txt = true;
          status = FindSha256Digest(e.digests, e.digestCount, &sha256);
          if (status == kVerifyOk && !DigestMatchesHex(sha256->digest, sha256->size, expected_txt_digest)) {
            status = kTxtEventInvalid;
          }
        }
      }
    }

    if (status == kVerifyOk) {
      status = FindSha256Digest(e.digests, e.digestCount, &sha256);
    }
    if (status == kVerifyOk && replays) {
      Sha256Extend(replay[e.pcrIndex], sha256->digest);
    }
    if (status != kVerifyOk) {
      Warning("TPM2VLIB: Error processing event at index %u: PCR: %u, hvkEventId: %u, payload:%s", i, e.pcrIndex,
              hvk_event_id, payload);
      return status;
    }
  }

  if (!seen.hvkernel || !seen.system || !seen.system_boot || !seen.update) {
    // Kept word for word, including the missing comma before "Hvkernel".
    Warning("TPM2VLIB: Not all required events were found: System: %d, SystemBoot: %d, Update: %d Hvkernel: %d",
            seen.system, seen.system_boot, seen.update, seen.hvkernel);
    return kChecksumMissing;
  }
  if (!seen.secure_boot) {
    Warning("TPM2VLIB: No secure boot event found");
    return kNoSecureBoot;
  }
  if (claims->txtEnabled != (seen.txt ? 1 : 0)) {
    Warning("TPM2VLIB: TXT enabled value doesn't match host claim %d", claims->txtEnabled);
    return kTxtClaimMismatch;
  }

  return replays ? CompareWithQuote(replay, kReplayComparedPcrs, evidence) : kVerifyOk;
}

}  // namespace

VerifyStatus ValidateEventLog(TcgEventRecord* events, uint32_t count, const HostClaims* claims,
                              const char* expected_txt_digest, const PayloadChecksumTable* checksums,
                              const QuoteEvidence* evidence) {
  if (evidence == nullptr) {
    Warning("TPM2VLIB: Invalid input");
    return kEventInvalidInput;
  }
  return Validate(events, count, claims, expected_txt_digest, checksums, evidence);
}

VerifyStatus CheckEventLog(TcgEventRecord* events, uint32_t count, const HostClaims* claims,
                           const char* expected_txt_digest, const PayloadChecksumTable* checksums) {
  return Validate(events, count, claims, expected_txt_digest, checksums, nullptr);
}

VerifyStatus ReplayEventLog(const TcgEventRecord* events, uint32_t count, const QuoteEvidence* evidence,
                            uint32_t* out_replayed) {
  *out_replayed = 0;
  if ((events == nullptr && count != 0) || evidence == nullptr) {
    Warning("TPM2VLIB: Invalid input");
    return kEventInvalidInput;
  }
  uint8_t replay[kNumPcrs][kSha256Bytes];
  std::memset(replay, 0, sizeof(replay));
  if (!RecordsTxtLaunch(events, count, kAllPcrs)) {
    for (uint32_t pcr = 17; pcr <= 22; ++pcr) {
      std::memset(replay[pcr], 0xff, kSha256Bytes);
    }
  }
  uint32_t replayable = kReplayComparedPcrs;
  for (uint32_t i = 0; i < count; ++i) {
    const TcgEventRecord& e = events[i];
    const TcgDigest* sha256 = nullptr;
    if (e.pcrIndex >= kNumPcrs) {
      continue;  // no such PCR: nothing the quote binds
    }
    if (FindSha256Digest(e.digests, e.digestCount, &sha256) != kVerifyOk) {
      replayable &= ~(1u << e.pcrIndex);
      continue;
    }
    Sha256Extend(replay[e.pcrIndex], sha256->digest);
  }
  VerifyStatus status = CompareWithQuote(replay, replayable, evidence);
  if (status == kVerifyOk) {
    *out_replayed = replayable;
  }
  return status;
}

BootFacts ReadBootFacts(const TcgEventRecord* events, uint32_t count, uint32_t pcrs) {
  BootFacts facts;
  facts.txt = RecordsTxtLaunch(events, count, pcrs);
  const uint32_t kernel_pcr = facts.txt ? kTxtKernelPcr : kKernelPcr;
  uint32_t id;
  const char* text;
  for (uint32_t i = 0; events != nullptr && i < count && InMask(pcrs, kernel_pcr); ++i) {
    const TcgEventRecord& e = events[i];
    if (e.pcrIndex != kernel_pcr || !TaggedText(e, &id, &text) || id != kBootModuleEventId ||
        std::strcmp(text, kKernelPayload) != 0) {
      continue;
    }
    for (uint8_t d = 0; e.digests != nullptr && d < e.digestCount; ++d) {
      if (e.digests[d].algorithm == kTpmAlgSha256 && e.digests[d].size == kSha256Bytes) {
        facts.hvkernel_digest = Hearth::HexString(e.digests[d].digest, kSha256Bytes);
        return facts;
      }
    }
  }
  return facts;
}

}  // namespace Witnessd::Verify
