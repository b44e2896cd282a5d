// Byte and crypto helpers of the test agent: digests, encodings, the EK
// template and key conversions.
#pragma once

#include <tss2/tss2_common.h>
#include <tss2/tss2_tpm2_types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/HostTpm.h"

typedef struct x509_st X509;

namespace Witnessd::Agent {

// EkTemplate is the TCG default RSA-2048 EK template: AES-128-CFB,
// restricted decryption, used under PolicySecret(TPM_RH_ENDORSEMENT), 256
// zero bytes of unique.
TPM2B_PUBLIC EkTemplate();

Bytes Sha256(const Bytes& data);
Bytes Sha256(const std::string& text);
std::string Hex(const Bytes& data);

// MarshalBytes writes |value| with the tpm2-tss marshal function |fn| into
// |out|; false when it does not fit 4 KiB or does not marshal.
template <typename T, typename MarshalFn>
bool MarshalBytes(MarshalFn fn, const T& value, Bytes* out) {
  uint8_t buf[4096];
  size_t offset = 0;
  if (fn(&value, buf, sizeof(buf), &offset) != TSS2_RC_SUCCESS) {
    return false;
  }
  out->assign(buf, buf + offset);
  return true;
}

// UnmarshalBytes reads |out| from |bytes| with the unmarshal function |fn|.
template <typename T, typename UnmarshalFn>
bool UnmarshalBytes(UnmarshalFn fn, const Bytes& bytes, T* out) {
  size_t offset = 0;
  return fn(bytes.data(), bytes.size(), &offset, out) == TSS2_RC_SUCCESS;
}

// CertificatePem writes |cert| as PEM; false for null.
bool CertificatePem(X509* cert, std::string* out);

// DerCertificateToPem re-encodes one DER X.509 certificate as PEM.
bool DerCertificateToPem(const Bytes& der, std::string* out);

}  // namespace Witnessd::Agent
