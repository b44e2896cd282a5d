// A synthetic hypervisor boot: the events a host's firmware and hypervisor
// measure, in the TCG crypto-agile event log format, and the PCR extends
// that go with them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/HostTpm.h"

namespace Witnessd::Agent {

inline constexpr uint32_t kEvNoAction = 0x3;
inline constexpr uint32_t kEvSeparator = 0x4;
inline constexpr uint32_t kEvEventTag = 0x6;
inline constexpr uint32_t kEvSCrtmVersion = 0x8;

// Tagged event ids the hypervisor uses: boot modules and settings.
inline constexpr uint32_t kTagModule = 2;
inline constexpr uint32_t kTagSetting = 5;

// The boot modules measured into the core system PCR and PCR 11.
inline constexpr const char* kKernelPayload = "k.b00";
inline constexpr const char* kSystemPayload = "s.v00";
inline constexpr const char* kSystemBootPayload = "sb.v00";
inline constexpr const char* kUpdatePayload = "hyvupdt.v00";
inline constexpr const char* kTxtPayload = "b";
inline constexpr const char* kSecureBootSetting = "uefiSecureBootEnabled = TRUE";

struct BootEvent {
  uint32_t pcr = 0;
  uint32_t type = 0;
  Bytes digest;  // SHA-256
  Bytes data;
  // The dynamic launch measures this event itself (PCR 17); it is not
  // extended.
  bool by_launch = false;
};

struct BootPlan {
  // A measured (TXT) launch: PCRs 17-22 reset and PCR 17 gets the launch
  // data's digest; the hypervisor then measures into PCR 19 instead of 12.
  bool txt = false;
  bool secure_boot = true;
  std::string launch_data = "witnessd test MLE";
  // Payload digests by module name; a module not listed gets
  // DefaultPayloadDigest(name).
  std::map<std::string, Bytes> payload_digests;
};

// DefaultPayloadDigest is the SHA-256 of a text derived from |name|, what a
// test's base image must list as that payload's checksum.
Bytes DefaultPayloadDigest(const std::string& name);
// PayloadDigest gives the digest |plan| measures for module |name|.
Bytes PayloadDigest(const BootPlan& plan, const std::string& name);
// LaunchDigest is the TXT MLE digest of |plan|: SHA-256 of the launch data.
Bytes LaunchDigest(const BootPlan& plan);

// ImageDatabaseFlags gives the flags of the test image database generator
// (tests/trusted/make_imgdb.py) for a base image whose Hvkernel digest, TXT
// MLE digest and payload checksums are what |plan| measures.
std::string ImageDatabaseFlags(const BootPlan& plan);

// TaggedEventData lays out an EV_EVENT_TAG payload: id and size (32-bit
// little-endian), then |text| with its terminating zero.
Bytes TaggedEventData(uint32_t id, const std::string& text);

// HypervisorBootEvents lists the events of one boot, in measurement order.
std::vector<BootEvent> HypervisorBootEvents(const BootPlan& plan);

// WriteEventLog writes |events| as a crypto-agile log: the Spec ID Event03
// header (SHA-256 only), then one TCG_PCR_EVENT2 per event.
Bytes WriteEventLog(const std::vector<BootEvent>& events);

// MeasureBoot boots |tpm| and measures |events| into it.
bool MeasureBoot(HostTpm* tpm, const BootPlan& plan, const std::vector<BootEvent>& events);

}  // namespace Witnessd::Agent
