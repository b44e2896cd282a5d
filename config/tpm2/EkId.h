// The one identity of an endorsement key, used by the EK registry, the
// session manager and the logs.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace Witnessd::Config::Tpm2 {

// An EK's identity: SHA-256 of its public key's SubjectPublicKeyInfo DER, so
// that every text of the same key (layout, PEM form) names the same EK.
using EkId = std::array<uint8_t, 32>;

// EkIdOf is the identity of the public key |pem|; nullopt when |pem| is not a
// key usable as an EK (RSA of at least 2048 bits, or EC).
std::optional<EkId> EkIdOf(const std::string& pem);
// EkIdOfSpkiDer is the identity of the key whose SubjectPublicKeyInfo DER is
// |der|, for keys already known to be usable.
EkId EkIdOfSpkiDer(const std::string& der);
// EkIdHex is |id| in lower-case hex, as the logs print it.
std::string EkIdHex(const EkId& id);

}  // namespace Witnessd::Config::Tpm2
