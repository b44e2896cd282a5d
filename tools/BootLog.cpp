#include "tools/BootLog.h"

#include <cstring>

#include "tools/TpmBytes.h"

namespace Witnessd::Agent {
namespace {

constexpr uint16_t kAlgSha256 = 0x000B;
constexpr uint32_t kNonTxtCorePcr = 12;
constexpr uint32_t kTxtCorePcr = 19;
constexpr uint32_t kUpdatePcr = 11;
constexpr uint32_t kSettingsPcr = 10;
constexpr uint32_t kLaunchPcr = 17;

void PutLe16(Bytes* out, uint16_t v) {
  out->push_back(static_cast<uint8_t>(v));
  out->push_back(static_cast<uint8_t>(v >> 8));
}

void PutLe32(Bytes* out, uint32_t v) {
  for (int shift = 0; shift < 32; shift += 8) {
    out->push_back(static_cast<uint8_t>(v >> shift));
  }
}

void Append(Bytes* out, const Bytes& more) { out->insert(out->end(), more.begin(), more.end()); }

BootEvent Plain(uint32_t pcr, uint32_t type, Bytes data) {
  BootEvent e;
  e.pcr = pcr;
  e.type = type;
  e.digest = Sha256(data);
  e.data = std::move(data);
  return e;
}

BootEvent Tagged(uint32_t pcr, uint32_t id, const std::string& text, Bytes digest) {
  BootEvent e;
  e.pcr = pcr;
  e.type = kEvEventTag;
  e.digest = std::move(digest);
  e.data = TaggedEventData(id, text);
  return e;
}

}  // namespace

Bytes DefaultPayloadDigest(const std::string& name) { return Sha256("witnessd test payload " + name); }

Bytes PayloadDigest(const BootPlan& plan, const std::string& name) {
  auto it = plan.payload_digests.find(name);
  return it != plan.payload_digests.end() ? it->second : DefaultPayloadDigest(name);
}

Bytes LaunchDigest(const BootPlan& plan) { return Sha256(plan.launch_data); }

Bytes TaggedEventData(uint32_t id, const std::string& text) {
  Bytes out;
  PutLe32(&out, id);
  PutLe32(&out, static_cast<uint32_t>(text.size() + 1));
  out.insert(out.end(), text.begin(), text.end());
  out.push_back(0);
  return out;
}

std::vector<BootEvent> HypervisorBootEvents(const BootPlan& plan) {
  std::vector<BootEvent> events;
  // Firmware: not examined by the verifier beyond being replayable.
  const char kVersion[] = "witnessd test firmware 1.0";
  events.push_back(Plain(0, kEvSCrtmVersion, Bytes(kVersion, kVersion + sizeof(kVersion))));
  for (uint32_t pcr = 0; pcr <= 7; ++pcr) {
    events.push_back(Plain(pcr, kEvSeparator, Bytes(4, 0)));
  }
  if (plan.txt) {
    BootEvent launch = Tagged(kLaunchPcr, kTagModule, kTxtPayload, LaunchDigest(plan));
    launch.by_launch = true;
    events.push_back(std::move(launch));
  }
  if (plan.secure_boot) {
    events.push_back(Tagged(kSettingsPcr, kTagSetting, kSecureBootSetting, Sha256(std::string(kSecureBootSetting))));
  }
  uint32_t core = plan.txt ? kTxtCorePcr : kNonTxtCorePcr;
  for (const char* name : {kSystemBootPayload, kKernelPayload, kSystemPayload}) {
    events.push_back(Tagged(core, kTagModule, name, PayloadDigest(plan, name)));
  }
  events.push_back(Tagged(kUpdatePcr, kTagModule, kUpdatePayload, PayloadDigest(plan, kUpdatePayload)));
  return events;
}

Bytes WriteEventLog(const std::vector<BootEvent>& events) {
  Bytes log;
  // TCG_PCR_EVENT header: PCR 0, EV_NO_ACTION, a zero SHA-1 slot, then the
  // TCG_EfiSpecIDEvent naming the one bank this log carries.
  Bytes spec_id;
  const char kSignature[16] = "Spec ID Event03";
  spec_id.insert(spec_id.end(), kSignature, kSignature + sizeof(kSignature));
  PutLe32(&spec_id, 0);    // platformClass: client
  spec_id.push_back(0);    // specVersionMinor
  spec_id.push_back(2);    // specVersionMajor
  spec_id.push_back(0);    // specErrata
  spec_id.push_back(2);    // uintnSize: 64-bit
  PutLe32(&spec_id, 1);    // numberOfAlgorithms
  PutLe16(&spec_id, kAlgSha256);
  PutLe16(&spec_id, 32);
  spec_id.push_back(0);    // vendorInfoSize
  PutLe32(&log, 0);
  PutLe32(&log, kEvNoAction);
  log.insert(log.end(), 20, 0);
  PutLe32(&log, static_cast<uint32_t>(spec_id.size()));
  Append(&log, spec_id);

  for (const BootEvent& e : events) {
    // TCG_PCR_EVENT2: pcrIndex, eventType, TPML_DIGEST_VALUES (count,
    // then hashAlg and digest), eventSize, event.
    PutLe32(&log, e.pcr);
    PutLe32(&log, e.type);
    PutLe32(&log, 1);
    PutLe16(&log, kAlgSha256);
    Append(&log, e.digest);
    PutLe32(&log, static_cast<uint32_t>(e.data.size()));
    Append(&log, e.data);
  }
  return log;
}

bool MeasureBoot(HostTpm* tpm, const BootPlan& plan, const std::vector<BootEvent>& events) {
  if (!tpm->Boot()) {
    return false;
  }
  for (const BootEvent& e : events) {
    bool ok = e.by_launch ? tpm->DynamicLaunch(Bytes(plan.launch_data.begin(), plan.launch_data.end()))
                          : tpm->Extend(e.pcr, e.digest);
    if (!ok) {
      return false;
    }
  }
  return true;
}

std::string ImageDatabaseFlags(const BootPlan& plan) {
  std::string flags = "--kernel-digest " + Hex(PayloadDigest(plan, kKernelPayload)) +
                      " --mle-digest " + Hex(LaunchDigest(plan));
  const char* payloads[][2] = {
      {"kb", kKernelPayload}, {"sv", kSystemPayload}, {"sb", kSystemBootPayload}, {"hu", kUpdatePayload}};
  for (const auto& p : payloads) {
    flags += std::string(" --payload ") + p[0] + ":" + p[1] + ":" + Hex(PayloadDigest(plan, p[1]));
  }
  return flags;
}

}  // namespace Witnessd::Agent
