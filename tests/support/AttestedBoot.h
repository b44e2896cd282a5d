// What a test's trusted software must hold for the test agent's synthetic
// boot to attest: hex digests of the measured payloads (Agent::Hex) and the
// image database generator's flags (Agent::ImageDatabaseFlags).
#pragma once

#include "tools/BootLog.h"
#include "tools/TpmBytes.h"

namespace Witnessd::Testing {

using Agent::Hex;

}  // namespace Witnessd::Testing
