// The TCG event log parser over raw logs, then replay, boot facts and
// validation over what it parsed. Invariants: a parse either fails with
// nothing returned or returns records whose sizes add up to no more than the
// input; replay marks compared PCRs only; validation returns a documented
// category.
#include <cstdlib>
#include <vector>

#include "platform/Log.h"
#include "platform/tcg/SecurityInfo.h"
#include "verify/EventLog.h"

using namespace Witnessd::Verify;
using HvkCtl::Security::SecurityInfoImpl;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (Log_SetMaxLevel(kLogError), true);
  (void)quiet;
  std::vector<SecurityInfoImpl::Entry> entries;
  bool ok = SecurityInfoImpl::ParseTcgEventLog(data, size, &entries);
  if (!ok) {
    if (!entries.empty()) std::abort();
    return 0;
  }
  size_t total = 0;
  for (const auto& e : entries) {
    total += e.eventData.size();
    for (const auto& d : e.digests) total += d.value.size();
  }
  if (total > size) {
    std::abort();
  }

  // As the attestation session hands the records over.
  std::vector<std::vector<TcgDigest>> digests(entries.size());
  std::vector<TcgEventRecord> records;
  for (size_t i = 0; i < entries.size() && i < 4096; ++i) {
    auto& e = entries[i];
    if (e.eventData.size() > 0xffff || e.digests.size() > 0xff) continue;
    for (auto& d : e.digests) {
      digests[i].push_back({d.algorithm, d.value.data(), static_cast<uint16_t>(d.value.size())});
    }
    records.push_back({e.pcrIndex, e.eventType, static_cast<uint8_t>(digests[i].size()), digests[i].data(),
                       e.eventData.empty() ? nullptr : e.eventData.data(),
                       static_cast<uint16_t>(e.eventData.size())});
  }
  static const PayloadChecksumTable checksums = {
      {"k.b00", "0000000000000000000000000000000000000000000000000000000000000000"},
      {"s.v00", "66687aadf862bd776c8fc18b8e9f8e20089714856ee233b3902a591d0d5f2925"},
  };
  static QuoteEvidence evidence;
  // Replay, then the facts of what replayed: a mask of compared PCRs only
  // and a digest that is empty or 32 bytes of hex.
  uint32_t replayed = 0;
  VerifyStatus replay = ReplayEventLog(records.data(), static_cast<uint32_t>(records.size()), &evidence, &replayed);
  if ((replay != kVerifyOk && (replay != kReplayMismatch || replayed != 0)) || (replayed & ~0x7eff00u) != 0) {
    std::abort();
  }
  // The quote here is all zeros, so the facts are read over every PCR too.
  for (uint32_t pcrs : {replayed, 0xffffffu}) {
    BootFacts facts = ReadBootFacts(records.data(), static_cast<uint32_t>(records.size()), pcrs);
    if (!facts.hvkernel_digest.empty() && facts.hvkernel_digest.size() != 64) {
      std::abort();
    }
  }
  for (uint8_t txt : {0, 1}) {
    HostClaims claims{txt};
    VerifyStatus s = ValidateEventLog(records.data(), static_cast<uint32_t>(records.size()), &claims,
                                      "00", &checksums, &evidence);
    uint32_t category = StatusCategory(s);
    if (category != 0 && category != 1 && category != 6 && category != 7 && category != 8) {
      std::abort();
    }
  }
  return 0;
}
