// The dispatch of one turn's messages to the steps of a session: which
// response a message carries, whether it carries every field its step reads,
// and the requests that follow each step.
#pragma once

#include <string>

#include "tpm2/Session.h"
#include "tpm2/proto/attestation.pb.h"

namespace Witnessd::Tpm2 {

Bytes ToBytes(const std::string& s);
std::string ToString(const Bytes& b);

// CheckResponses establishes that the message holds exactly one response
// and that the response carries every field its step reads.
SessionResult CheckResponses(const attestation::proto::Context::Message& m);

// HandleMessage runs the step for the one response of |m| and appends the
// requests that follow it to |out|; |activated| is set when the step was the
// credential activation.
SessionResult HandleMessage(Session& session, const attestation::proto::Context::Message& m,
                            attestation::proto::Context& out, bool& activated);

}  // namespace Witnessd::Tpm2
