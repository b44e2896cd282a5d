// Pieces shared by the in-process attestation tests and benchmark: a base
// image made from what a boot plan measures, and a Report transport that
// calls the service directly, as the provider would.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "api/services/ReportSvc.h"
#include "tests/support/AttestedBoot.h"
#include "tools/Agent.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::Testing {

// PutBaseImage stores base image |version| through |images| with the payload
// checksums and TXT MLE digest that |plan| measures. False when the record
// cannot be made.
bool PutBaseImage(Trusted::BaseImageStore& images, const Agent::BootPlan& plan, const std::string& version);

// InProcessTransport makes each Report call on |report|. |timed|, when
// given, runs the call (benchmarks time it).
Agent::ReportTransport InProcessTransport(AttestApi::ReportSvc* report,
                                          std::function<void(const std::function<void()>&)> timed = {});

}  // namespace Witnessd::Testing
