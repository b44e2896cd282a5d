// What a test's trusted software must hold for the test agent's synthetic
// boot to attest: hex digests of the measured payloads and the image
// database generator's flags that make a matching base image.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tools/BootLog.h"

namespace Witnessd::Testing {

// Hex writes |bytes| as lower-case hexadecimal text.
inline std::string Hex(const std::vector<uint8_t>& bytes) {
  std::string out;
  char buf[3];
  for (uint8_t c : bytes) {
    snprintf(buf, sizeof(buf), "%02x", c);
    out += buf;
  }
  return out;
}

// ImgdbFlagsFor gives make_imgdb.py flags for a base image whose Hvkernel
// digest, TXT MLE digest and payload checksums are what |plan| measures.
inline std::string ImgdbFlagsFor(const Agent::BootPlan& plan) {
  std::string flags = "--kernel-digest " + Hex(Agent::PayloadDigest(plan, Agent::kKernelPayload)) +
                      " --mle-digest " + Hex(Agent::LaunchDigest(plan));
  const char* payloads[][2] = {{"kb", Agent::kKernelPayload},
                               {"sv", Agent::kSystemPayload},
                               {"sb", Agent::kSystemBootPayload},
                               {"hu", Agent::kUpdatePayload}};
  for (const auto& p : payloads) {
    flags += std::string(" --payload ") + p[0] + ":" + p[1] + ":" + Hex(Agent::PayloadDigest(plan, p[1]));
  }
  return flags;
}

}  // namespace Witnessd::Testing
