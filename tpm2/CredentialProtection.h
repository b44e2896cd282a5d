// Credential protection: the fixed TPM structures witnessd sends to an
// attested host's agent, the checks on the attestation key (AK) and
// endorsement key (EK) public areas it receives, and the making of a
// credential that only the TPM holding the EK can open for the AK.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "verify/Tpm2Marshal.h"

namespace Witnessd::Tpm2 {

// The AK's object attributes: fixedTPM, fixedParent, sensitiveDataOrigin,
// userWithAuth, restricted, sign.
inline constexpr uint32_t kAkObjectAttributes = 0x00050072;
inline constexpr uint32_t kAkExponent = 65537;
inline constexpr uint16_t kAkKeyBits = 2048;

// Accessors for the fixed structures. Each is built once, on first use, and a
// copy of the cached marshalled bytes is returned.
//   AkTemplate: TPM2B_PUBLIC, the RSA-2048 restricted signing key template.
//   OutsideInfo: TPM2B_DATA holding "witnessd" and a terminating zero byte.
//   QuoteSigScheme: TPMT_SIG_SCHEME RSASSA with SHA-256 (00 14 00 0B).
//   RequiredPcrSelection: TPML_PCR_SELECTION of SHA-256 PCRs 8-15 and 17-22.
std::vector<uint8_t> AkTemplate();
std::vector<uint8_t> OutsideInfo();
std::vector<uint8_t> QuoteSigScheme();
std::vector<uint8_t> RequiredPcrSelection();

// PcrHashAlgorithm is the one PCR bank attestation uses: SHA-256.
uint16_t PcrHashAlgorithm();

// VerifyAkPublic returns true when |ak| is exactly what the AK template asks
// for; each mismatch is logged at error level and gives false.
bool VerifyAkPublic(const Verify::TPMT_PUBLIC& ak);

// VerifyEkPublic returns true when |ek| is a restricted decryption key bound
// to its TPM (fixedTPM, fixedParent, restricted, decrypt set; sign clear).
bool VerifyEkPublic(const Verify::TPMT_PUBLIC& ek);

// MakeCredential protects |secret| (at most 64 bytes) for the object whose
// public area is |ak_public| with the key whose public area is |ek_public|
// (both marshalled TPM2B_PUBLIC). On success it returns true and fills
// |out_blob| with a marshalled TPM2B_ID_OBJECT and |out_secret| with a
// marshalled TPM2B_ENCRYPTED_SECRET, as TPM2_ActivateCredential takes them.
// The EK must be an RSA restricted decryption key with an AES-CFB symmetric
// definition, and |secret| no longer than a digest of the EK's nameAlg.
// Failures are logged and give false. Takes no lock: calls may run at once.
bool MakeCredential(const std::vector<uint8_t>& ek_public, const std::vector<uint8_t>& ak_public,
                    const std::vector<uint8_t>& secret, std::vector<uint8_t>* out_blob,
                    std::vector<uint8_t>* out_secret);

// CredentialKey is what of an EK's public area making credentials needs: its
// RSA key (whose Montgomery set-up is kept after the first use), nameAlg and
// symmetric definition. Immutable once made; threads may share one.
struct CredentialKey;

// PrepareCredentialKey reads the CredentialKey of the EK whose public area is
// |ek_public| (marshalled TPM2B_PUBLIC); null, without a log line, when
// MakeCredential would refuse that EK.
std::shared_ptr<const CredentialKey> PrepareCredentialKey(const std::vector<uint8_t>& ek_public);

// MakeCredential as above with the EK read once before.
bool MakeCredential(const CredentialKey& ek, const std::vector<uint8_t>& ak_public, const std::vector<uint8_t>& secret,
                    std::vector<uint8_t>* out_blob, std::vector<uint8_t>* out_secret);

}  // namespace Witnessd::Tpm2
