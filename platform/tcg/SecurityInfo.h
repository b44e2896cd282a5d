// The platform's TCG event log parser: turns the raw boot event log of a
// host (TCG PC Client format) into one record per event.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace HostCtl::Security {

struct SecurityInfo {
  // One event of the log, in log order.
  struct TcgEventLog_Entry {
    struct Digest {
      uint16_t algorithm;          // TPM hash algorithm identifier
      std::vector<uint8_t> value;  // digest-size bytes
    };
    uint32_t pcrIndex = 0;
    uint32_t eventType = 0;
    std::vector<Digest> digests;
    std::vector<uint8_t> eventData;
  };

  // The algorithm table of a crypto-agile log's "Spec ID Event03" header.
  struct TcgEventLog_Algorithm {
    uint16_t algorithm;
    uint16_t digestSize;
  };
};

}  // namespace HostCtl::Security

namespace HvkCtl::Security {

class SecurityInfoImpl {
 public:
  using Entry = HostCtl::Security::SecurityInfo::TcgEventLog_Entry;
  using Algorithm = HostCtl::Security::SecurityInfo::TcgEventLog_Algorithm;

  // ParseTcgEventLog reads a whole TCG event log into |out| (replacing its
  // contents) and returns true, or returns false with |out| cleared when the
  // log is truncated or inconsistent anywhere. It never reads outside
  // [log, log + len).
  //
  // Two formats are read:
  // - crypto-agile: a first TCG_PCR_EVENT (EV_NO_ACTION, 20-byte SHA-1 slot)
  //   holding the "Spec ID Event03" header with the algorithm table, then
  //   TCG_PCR_EVENT2 records whose digests must be of algorithms in that
  //   table. The header event is the first entry, with its SHA-1 slot.
  // - legacy SHA-1 (no Spec ID Event03 header): TCG_PCClientPCREvent
  //   records, each with one SHA-1 digest. These are parsed, not refused, so
  //   that a caller sees a log without SHA-256 digests as such and reports it
  //   precisely rather than as an unreadable log.
  // |out_algorithms|, when given, receives the header's table (for a legacy
  // log: SHA-1 with 20 bytes).
  static bool ParseTcgEventLog(const uint8_t* log, size_t len, std::vector<Entry>* out,
                               std::vector<Algorithm>* out_algorithms = nullptr);
};

}  // namespace HvkCtl::Security
