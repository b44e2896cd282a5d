// The TPM of the attested host as the agent sees it: a TPM reached over
// tpm2-tss (a real host's, or a swtpm the tests drive), or a pure software
// stand-in for load tests. Every byte string is a TPM structure in its marshalled form.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Witnessd::Agent {

using Bytes = std::vector<uint8_t>;

// PcrReadResult is one TPM2_PCR_Read: the selection it covered
// (TPML_PCR_SELECTION) and the values (TPML_DIGEST) in selection order.
struct PcrReadResult {
  Bytes selection_out;
  Bytes values;
};

class HostTpm {
 public:
  virtual ~HostTpm() = default;

  // Boot restarts the TPM as at power-on: PCRs back to their start values,
  // loaded objects gone.
  virtual bool Boot() = 0;
  // DynamicLaunch runs the _TPM_Hash_Start/Data/End sequence over |data|:
  // PCRs 17-22 become zero and PCR 17 is extended with SHA-256(data).
  virtual bool DynamicLaunch(const Bytes& data) = 0;
  // Extend extends SHA-256 PCR |pcr| with |digest| (32 bytes), from the
  // locality that PCR requires.
  virtual bool Extend(uint32_t pcr, const Bytes& digest) = 0;

  // EkPublic gives the RSA EK as TPM2B_PUBLIC: the key at the EK's
  // persistent handle when the TPM keeps one there, else the primary key
  // of the TCG default RSA-2048 EK template.
  virtual bool EkPublic(Bytes* out) = 0;
  // EkCertificatePem gives the EK certificate, or false when there is none.
  virtual bool EkCertificatePem(std::string* out) = 0;
  // ReadEkCertificate tells having no EK certificate (true, |out| empty)
  // from failing to read one (false).
  virtual bool ReadEkCertificate(std::string* out) {
    if (!EkCertificatePem(out)) {
      out->clear();
    }
    return true;
  }
  // CreateAk creates and loads an attestation key from |ak_template|
  // (TPM2B_PUBLIC) under the EK; |out| is the key's TPM2B_PUBLIC.
  virtual bool CreateAk(const Bytes& ak_template, const Bytes& outside_info, Bytes* out) = 0;
  // ActivateCredential opens a credential made for the AK with the EK and
  // gives the credential as TPM2B_DIGEST.
  virtual bool ActivateCredential(const Bytes& credential_blob, const Bytes& encrypted_secret,
                                  Bytes* out_cert_info) = 0;
  // ReadPcrs reads every PCR of |selection| (TPML_PCR_SELECTION), at most
  // eight per read as a TPM answers.
  virtual bool ReadPcrs(const Bytes& selection, std::vector<PcrReadResult>* out) = 0;
  // Quote signs the PCRs of |selection| with the AK: TPM2B_ATTEST and
  // TPMT_SIGNATURE.
  virtual bool Quote(const Bytes& qualifying_data, const Bytes& sig_scheme, const Bytes& selection,
                     Bytes* out_quoted, Bytes* out_signature) = 0;

  // SignWithAk signs |data| with the AK (RSASSA, SHA-256) the way a host
  // may have any data signed by its restricted AK: TPM2_Hash for a ticket,
  // then TPM2_Sign. The TPM refuses only data that starts with its own
  // TPM_GENERATED_VALUE. |out_signature| is a TPMT_SIGNATURE.
  virtual bool SignWithAk(const Bytes& data, Bytes* out_signature) = 0;

  // LastError describes the most recent failure.
  const std::string& LastError() const { return error_; }

 protected:
  bool Fail(std::string text) {
    error_ = std::move(text);
    return false;
  }

 private:
  std::string error_;
};

// OpenTctiHost opens the TPM that the tpm2-tss TCTI configuration |conf|
// names ("device:/dev/tpmrm0", "tabrmd", "swtpm:host=H,port=P"). The host
// is already booted: Boot and DynamicLaunch refuse. Returns nullptr (and
// |error|) on failure.
std::unique_ptr<HostTpm> OpenTctiHost(const std::string& conf, std::string* error);

// OpenSwtpmHost connects to a swtpm: TCTI "swtpm:host=127.0.0.1,port=|port|",
// control channel on |port| + 1 for Boot and DynamicLaunch. Returns nullptr
// (and |error|) on failure.
std::unique_ptr<HostTpm> OpenSwtpmHost(uint16_t port, std::string* error);

// EkIssuer is a CA that gives software hosts EK certificates: its key and
// certificate, PEM.
struct EkIssuer {
  std::string key_pem;
  std::string certificate_pem;
};

// MakeSoftwareHost gives a host TPM done in software: fresh OpenSSL keys,
// software credential activation and quote signing. With |reuse_ak| every
// CreateAk after the first keeps the first AK's key, which spares load tests
// an RSA key generation per attestation. With |issuer| the host's EK has a
// certificate that |issuer| signed, so a daemon that trusts that CA accepts
// any number of hosts; without it the host has no EK certificate. Returns
// nullptr when the issuer's PEM does not parse.
std::unique_ptr<HostTpm> MakeSoftwareHost(bool reuse_ak = false, const EkIssuer* issuer = nullptr);

// EkPublicPem converts an RSA TPM2B_PUBLIC to a PEM SubjectPublicKeyInfo.
bool EkPublicPem(const Bytes& tpm2b_public, std::string* out);

}  // namespace Witnessd::Agent
