// The content checks of EK and CA chain records, shared by the create
// operations and the configuration import so that neither way stores a record
// the other would refuse.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Witnessd::Config::Tpm2 {

// StandardEndorsementKey returns |pem| in the standard PEM form when it is a
// public key usable as an EK (RSA of at least 2048 bits, or EC); nullopt
// otherwise.
std::optional<std::string> StandardEndorsementKey(const std::string& pem);

enum class CaChainFault { kNone, kEmpty, kUnreadable, kNotCa };
struct CaChainCheck {
  CaChainFault fault = CaChainFault::kNone;
  size_t index = 0;  // the certificate at fault for kUnreadable and kNotCa
};

// CheckCaChainMembers establishes that |certificates| is not empty and that
// each one parses and is a CA certificate. It does not verify the chain: that
// depends on the CAs configured when the chain arrives, which the create
// operation checks against.
CaChainCheck CheckCaChainMembers(const std::vector<std::string>& certificates);

}  // namespace Witnessd::Config::Tpm2
