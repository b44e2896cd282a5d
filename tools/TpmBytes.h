// Byte and crypto helpers of the test agent: digests, encodings, the EK
// template and key conversions.
#pragma once

#include <tss2/tss2_tpm2_types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/HostTpm.h"

namespace Witnessd::Agent {

// EkTemplate is the TCG default RSA-2048 EK template: AES-128-CFB,
// restricted decryption, used under PolicySecret(TPM_RH_ENDORSEMENT), 256
// zero bytes of unique.
TPM2B_PUBLIC EkTemplate();

Bytes Sha256(const Bytes& data);
Bytes Sha256(const std::string& text);
std::string Hex(const Bytes& data);

// DerCertificateToPem re-encodes one DER X.509 certificate as PEM.
bool DerCertificateToPem(const Bytes& der, std::string* out);

}  // namespace Witnessd::Agent
