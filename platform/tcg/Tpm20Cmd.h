// TPM 2.0 helpers of the platform that sit beside the event log parser.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tpm20Cmd {

// ConvertTpm2PubtoPem turns the RSA public key in |tpm2b_public| (a marshalled
// TPM2B_PUBLIC, read whole: trailing bytes are refused) into a PEM
// SubjectPublicKeyInfo ("PUBLIC KEY") in |out_pem|. An exponent of 0 is the
// TPM's encoding of 65537. Returns false for anything that does not decode or
// is not an RSA key; |out_pem| is then unchanged.
bool ConvertTpm2PubtoPem(const std::vector<uint8_t>& tpm2b_public, std::string& out_pem);
// Tpm2PubSpkiDer is the same RSA public key as SubjectPublicKeyInfo DER;
// nullopt when |tpm2b_public| holds none.
std::optional<std::string> Tpm2PubSpkiDer(const std::vector<uint8_t>& tpm2b_public);

}  // namespace Tpm20Cmd
